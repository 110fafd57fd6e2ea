package com.norvane.quillon;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.stream.Stream;

/** What this JVM holds, as /proc tells it: for tests that check nothing is left behind (no JUnit here). */
final class ProcessCounts {
    private ProcessCounts() {}

    static long descriptors() throws IOException {
        try (Stream<Path> fds = Files.list(Path.of("/proc/self/fd"))) {
            return fds.count();
        }
    }

    /** Children of this JVM that have ended and wait to be collected. */
    static long zombieChildren() throws IOException {
        String self = Long.toString(ProcessHandle.current().pid());
        try (Stream<Path> all = Files.list(Path.of("/proc"))) {
            return all.filter(p -> p.getFileName().toString().matches("\\d+"))
                .filter(p -> {
                    try {
                        String[] fields =
                            Files.readString(p.resolve("stat")).replaceFirst(".*\\) ", "").split(" ");
                        return fields[0].equals("Z") && fields[1].equals(self);
                    } catch (IOException gone) {
                        return false;
                    }
                })
                .count();
        }
    }
}
