package com.norvane.quillon.process;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * Loads the library's native code once per class loader, for every glue class.
 *
 * <p>The library is looked for in this order:
 *
 * <ol>
 *   <li>the file named by the system property {@code quillon.library.path}; when it is set, nothing else is
 *       tried, so a wrong name is reported rather than hidden;
 *   <li>{@code System.loadLibrary("Quillon60ProcessManagement")}, so that a library installed on
 *       {@code java.library.path} wins;
 *   <li>the copy this jar carries under {@code META-INF/native/<os>-<arch>/}, extracted into a private
 *       directory (mode 0700) under the directory named by {@code quillon.library.tmpdir}, by default
 *       {@code java.io.tmpdir}, and removed as soon as it is loaded.
 * </ol>
 *
 * <p>A library reporting another version than this jar's is refused. The JVM binds a library file to one
 * class loader; a second class loader therefore gets a private copy of its own.
 */
public final class NativeLibrary {
    static final String NAME = "Quillon60ProcessManagement";
    static final String PATH_PROPERTY = "quillon.library.path";
    static final String TMPDIR_PROPERTY = "quillon.library.tmpdir";
    static final String VERSION = LibraryVersion.VALUE;

    private static boolean loaded;

    private NativeLibrary() {}

    /**
     * Makes sure the native library is loaded; cheap after the first call.
     *
     * @throws UnsatisfiedLinkError when no library of this version could be loaded, saying what was tried
     */
    public static synchronized void load() {
        if (loaded) {
            return;
        }
        String explicit = System.getProperty(PATH_PROPERTY);
        if (explicit != null && !explicit.isEmpty()) {
            loadExplicit(explicit);
        } else {
            loadSearching();
        }
        loaded = true;
    }

    /** @return the version the loaded library reports */
    static native String version();

    private static void loadExplicit(String name) {
        String origin = PATH_PROPERTY + "=" + name;
        Path file = Path.of(name).toAbsolutePath();
        try {
            System.load(file.toString());
        } catch (UnsatisfiedLinkError e) {
            if (!heldByAnotherLoader(e)) {
                throw failure("Cannot load the Quillon native library " + origin + ": " + e.getMessage(), e);
            }
            try (InputStream in = Files.newInputStream(file)) {
                loadPrivateCopy(in, origin);
            } catch (IOException io) {
                throw failure("Cannot copy " + origin + " for this class loader: " + io, io);
            }
        }
        checkVersion(origin);
    }

    private static void loadSearching() {
        List<Throwable> failures = new ArrayList<>();
        String searched = "System.loadLibrary(\"" + NAME + "\")";
        try {
            System.loadLibrary(NAME);
        } catch (UnsatisfiedLinkError e) {
            failures.add(e);
        }
        if (failures.isEmpty()) {
            // Loaded for good: another copy in this class loader would clash with it.
            checkVersion(searched + " on java.library.path=" + System.getProperty("java.library.path"));
            return;
        }
        String resource = "/META-INF/native/" + platform() + "/" + System.mapLibraryName(NAME);
        String copy = "the jar's copy " + resource;
        try (InputStream in = NativeLibrary.class.getResourceAsStream(resource)) {
            if (in != null) {
                loadPrivateCopy(in, copy);
                checkVersion(copy);
                return;
            }
            failures.add(new UnsatisfiedLinkError("this jar carries no library for " + platform()));
        } catch (UnsatisfiedLinkError e) {
            failures.add(e);
        } catch (IOException e) {
            failures.add(failure("Cannot read " + copy + ": " + e, e));
        }
        UnsatisfiedLinkError all = new UnsatisfiedLinkError("Cannot load the Quillon native library " + VERSION
                + " for " + platform() + ". Tried 1) " + searched + ": " + failures.get(0).getMessage() + "; 2) "
                + copy + ": " + failures.get(1).getMessage() + ". Install the library on java.library.path or"
                + " name its file with -D" + PATH_PROPERTY + "=<file>");
        failures.forEach(all::addSuppressed);
        throw all;
    }

    /** Writes the library into a fresh private directory, loads it from there and removes it again. */
    private static void loadPrivateCopy(InputStream library, String origin) {
        Path base = Path.of(System.getProperty(TMPDIR_PROPERTY, System.getProperty("java.io.tmpdir")));
        Path dir;
        try {
            dir = Files.createTempDirectory(base, "quillon-" + VERSION + "-",
                    PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------")));
        } catch (IOException | RuntimeException e) {
            throw failure("Cannot create a private directory under " + base + " (choose another with -D"
                    + TMPDIR_PROPERTY + "=<dir>): " + e, e);
        }
        Path file = dir.resolve(System.mapLibraryName(NAME));
        try {
            Files.copy(library, file);
            System.load(file.toString());
        } catch (IOException e) {
            throw failure("Cannot extract " + origin + " into " + dir + ": " + e, e);
        } catch (UnsatisfiedLinkError e) {
            if (onNoexecMount(base)) {
                throw failure("Cannot load " + origin + " extracted under " + base + ", which is mounted noexec: name"
                        + " a directory on an executable file system with -D" + TMPDIR_PROPERTY + "=<dir>", e);
            }
            throw failure("Cannot load " + origin + " extracted into " + dir + ": " + e.getMessage(), e);
        } finally {
            // The loaded mapping outlives the file; what cannot be removed now goes at exit.
            for (Path path : List.of(file, dir)) {
                try {
                    Files.deleteIfExists(path);
                } catch (IOException e) {
                    path.toFile().deleteOnExit();
                }
            }
        }
    }

    private static void checkVersion(String origin) {
        String reported;
        try {
            reported = version();
        } catch (UnsatisfiedLinkError e) {
            reported = "unknown (it has no version function)";
        }
        if (!VERSION.equals(reported)) {
            throw new UnsatisfiedLinkError("The Quillon native library from " + origin + " is version " + reported
                    + ", but this jar is version " + VERSION + ": install the matching library or name it with -D"
                    + PATH_PROPERTY + "=<file>");
        }
    }

    private static boolean heldByAnotherLoader(UnsatisfiedLinkError e) {
        return e.getMessage() != null && e.getMessage().contains("already loaded in another classloader");
    }

    /** @return the directory name of this platform's library in the jar, e.g. linux-x86_64 */
    static String platform() {
        String os = System.getProperty("os.name").toLowerCase().replace(" ", "");
        String arch = System.getProperty("os.arch");
        return os + "-" + (arch.equals("amd64") ? "x86_64" : arch);
    }

    /** @return whether the file system holding the path is mounted noexec, as far as mountinfo tells */
    static boolean onNoexecMount(Path path) {
        try {
            String real = path.toRealPath().toString();
            String mountPoint = "";
            boolean noexec = false;
            for (String line : Files.readAllLines(Path.of("/proc/self/mountinfo"))) {
                String[] fields = line.split(" ");
                String point = fields[4].replace("\\040", " ");
                boolean holds = real.equals(point) || real.startsWith(point.equals("/") ? point : point + "/");
                if (holds && point.length() >= mountPoint.length()) {
                    mountPoint = point;
                    noexec = Arrays.asList(fields[5].split(",")).contains("noexec");
                }
            }
            return noexec;
        } catch (IOException | RuntimeException e) {
            return false;
        }
    }

    private static UnsatisfiedLinkError failure(String message, Throwable cause) {
        UnsatisfiedLinkError error = new UnsatisfiedLinkError(message);
        error.initCause(cause);
        return error;
    }
}
