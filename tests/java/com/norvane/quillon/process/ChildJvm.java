package com.norvane.quillon.process;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/** Runs a main class of the tests in a JVM of its own, under -Xcheck:jni, optionally as user nobody. */
final class ChildJvm {
    private ChildJvm() {}

    static boolean isRoot() {
        return "root".equals(System.getProperty("user.name"));
    }

    static List<String> command(boolean asNobody, Class<?> main, String... args) {
        List<String> command = new ArrayList<>();
        if (asNobody) {
            command.addAll(List.of("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"));
        }
        command.addAll(List.of(System.getProperty("java.home") + "/bin/java", "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path"),
                "-cp", System.getProperty("quillon.classpath"), main.getName()));
        command.addAll(List.of(args));
        return command;
    }

    /** Runs it to its end and returns what it wrote to stdout and stderr. */
    static String run(boolean asNobody, Map<String, String> environment, boolean clearEnvironment, Class<?> main,
            String... args) throws IOException, InterruptedException {
        ProcessBuilder builder = new ProcessBuilder(command(asNobody, main, args)).redirectErrorStream(true);
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

    static String run(boolean asNobody, Class<?> main, String... args) throws IOException, InterruptedException {
        return run(asNobody, Map.of(), false, main, args);
    }

    /** The output without the library's trace and error lines. */
    static String withoutTrace(String output) {
        return output.replaceAll("(?m)^Time: \\[0x[0-9a-f]+\\], Process: .*\n", "");
    }
}
