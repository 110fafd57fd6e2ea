package com.norvane.quillon.process;

import java.io.File;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;

/** Runs a main class of the tests in a JVM of its own, under -Xcheck:jni, optionally as user nobody. */
public final class ChildJvm {
    private ChildJvm() {}

    public static boolean isRoot() { return "root".equals(System.getProperty("user.name")); }

    public static List<String> command(boolean asNobody, Class<?> main, String... args) {
        return command(asNobody, List.of(), main, args);
    }

    /** With options for the child JVM, such as a heap size. */
    public static List<String> command(boolean asNobody, List<String> options, Class<?> main,
                                       String... args) {
        List<String> command = new ArrayList<>();
        if (asNobody) {
            command.addAll(List.of("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"));
        }
        String[] paths = asNobody ? NobodyCopies.PATHS
                : new String[] {System.getProperty("quillon.classpath"), System.getProperty("java.library.path")};
        command.addAll(List.of(System.getProperty("java.home") + "/bin/java", "-Xcheck:jni"));
        command.addAll(options);
        command.addAll(List.of("-Djava.library.path=" + paths[1], "-cp", paths[0], main.getName()));
        command.addAll(List.of(args));
        return command;
    }

    /**
     * The class path and the library as copies nobody can read: a build folder in a private directory is
     * out of its reach. Made once, in a fresh directory (0755, files 0644) removed at exit.
     */
    private static final class NobodyCopies {
        static final String[] PATHS = stage();

        private static String[] stage() {
            try {
                Path dir = Files.createTempDirectory("quillon-nobody-");
                Runtime.getRuntime().addShutdownHook(new Thread(() -> removeAll(dir)));
                Files.setPosixFilePermissions(dir, PosixFilePermissions.fromString("rwxr-xr-x"));
                List<String> classpath = new ArrayList<>();
                for (String entry : System.getProperty("quillon.classpath").split(File.pathSeparator)) {
                    classpath.add(readable(Path.of(entry), dir.resolve(classpath.size() + "-"
                            + Path.of(entry).getFileName())).toString());
                }
                String library = System.mapLibraryName(NativeLibrary.NAME);
                for (String libraryDir : System.getProperty("java.library.path").split(File.pathSeparator)) {
                    if (Files.exists(Path.of(libraryDir, library))) {
                        readable(Path.of(libraryDir, library), dir.resolve(library));
                        break;
                    }
                }
                return new String[] {String.join(File.pathSeparator, classpath), dir.toString()};
            } catch (IOException e) {
                throw new UncheckedIOException("cannot stage the class path for nobody", e);
            }
        }

        private static Path readable(Path from, Path to) throws IOException {
            Files.copy(from, to);
            Files.setPosixFilePermissions(to, PosixFilePermissions.fromString("rw-r--r--"));
            return to;
        }

        private static void removeAll(Path dir) {
            try (Stream<Path> paths = Files.walk(dir)) {
                for (Path path : paths.sorted(Comparator.reverseOrder()).toList()) {
                    Files.deleteIfExists(path);
                }
            } catch (IOException e) {
                // Left in the temporary directory.
            }
        }
    }

    /** Runs it to its end and returns what it wrote to stdout and stderr. */
    public static String run(boolean asNobody, Map<String, String> environment, boolean clearEnvironment,
                             Class<?> main, String... args) throws IOException, InterruptedException {
        return run(asNobody, environment, clearEnvironment, List.of(), main, args);
    }

    /** Runs it with options for the child JVM, such as a heap size. */
    public static String run(boolean asNobody, Map<String, String> environment, boolean clearEnvironment,
                             List<String> options, Class<?> main, String... args)
        throws IOException, InterruptedException {
        ProcessBuilder builder =
            new ProcessBuilder(command(asNobody, options, main, args)).redirectErrorStream(true);
        if (clearEnvironment) {
            builder.environment().clear();
        }
        builder.environment().putAll(environment);
        Process process = builder.start();
        byte[] output = process.getInputStream().readAllBytes();
        if (!process.waitFor(60, TimeUnit.SECONDS)) {
            process.destroyForcibly();
            throw new IllegalStateException("child JVM did not end");
        }
        return new String(output, StandardCharsets.UTF_8);
    }

    public static String run(boolean asNobody, Class<?> main, String... args)
        throws IOException, InterruptedException {
        return run(asNobody, Map.of(), false, main, args);
    }

    /** The output without the library's trace and error lines. */
    public static String withoutTrace(String output) {
        return output.replaceAll("(?m)^Time: \\[0x[0-9a-f]+\\], Process: .*\n", "");
    }
}
