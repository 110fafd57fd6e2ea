package com.norvane.quillon;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.norvane.quillon.process.ChildJvm;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Contained trees: kills that reach every member, limits, and programs that end with the JVM. */
class ContainedTreeTest {
    /**
     * The checks of a contained tree, run in this JVM (a cgroup) and in one as nobody, who can't write the
     * cgroup hierarchy (a process group). Each returns a failure, or null.
     */
    public static final class TreeChecks {
        static final List<String> CHECKS = List.of("kill", "killAfterTheRootEnded", "waitForTree");

        /** Runs the checks, and those named in the arguments; prints OK or the failures. */
        public static void main(String[] args) {
            List<String> failures = new ArrayList<>();
            for (String check : Stream.concat(CHECKS.stream(), Stream.of(args)).toList()) {
                String failure;
                try {
                    failure = run(check);
                } catch (Exception e) {
                    failure = e.toString();
                }
                if (failure != null) {
                    failures.add(check + ": " + failure);
                }
            }
            System.out.println(failures.isEmpty() ? "OK" : String.join("\n", failures));
        }

        static String run(String check) throws Exception {
            return switch (check) {
                case "kill" -> kill();
                case "killAfterTheRootEnded" -> killAfterTheRootEnded();
                case "limitAboveTheHardLimit" -> limitAboveTheHardLimit();
                default -> waitForTree();
            };
        }

        private static BufferedReader reader(NativeProcess process) {
            return new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
        }

        /** Reads PIDs, one per line, until `ready`; the last `count` lines before it are members. */
        private static List<Long> pids(BufferedReader out, int count) throws IOException {
            List<Long> pids = new ArrayList<>();
            for (String line; pids.size() < count && (line = out.readLine()) != null;) {
                if (!line.equals("ready")) {
                    pids.add(Long.parseLong(line.strip()));
                }
            }
            return pids;
        }

        /**
         * Three generations; in a cgroup, a member that called setsid and one double-forked, which a process
         * group can't hold: there, members that stay in the group.
         */
        private static String kill() throws Exception {
            boolean cgroup = cgroupHere();
            String script = "sh -c '" + (cgroup ? "setsid " : "") + "sleep 60 & echo $!; sleep 60 & echo $!; wait' & "
                            + (cgroup ? "(sleep 60 & echo $!); " : "sleep 60 & echo $!; ") + "echo ready; sleep 60";
            try (NativeProcess root = new Launcher("/bin/sh", "-c", script).contained().start()) {
                BufferedReader out = reader(root);
                List<Long> members = pids(out, 3);
                members.add(root.pid());
                root.killTree();
                if (!LauncherTest.allEnded(members, 5000)) {
                    return "members left 5 s after the kill: " + members;
                }
                // End of file, not a reader hung on a pipe.
                String left = CompletableFuture.supplyAsync(() -> out.lines().collect(Collectors.joining("|")))
                                  .get(5, TimeUnit.SECONDS);
                if (!left.isEmpty() && !left.equals("ready")) {
                    return "output after the members' PIDs: " + left;
                }
                return root.waitForTree(5, TimeUnit.SECONDS) && root.waitFor() == 137
                    ? null
                    : "tree not seen empty, or the root not killed";
            }
        }

        private static String killAfterTheRootEnded() throws Exception {
            String orphan = cgroupHere() ? "(setsid sleep 60 & echo $!)" : "(sleep 60 & echo $!)";
            try (NativeProcess root =
                     new Launcher("/bin/sh", "-c", "sleep 60 & echo $!; " + orphan + "; exit 0").contained().start()) {
                List<Long> members = pids(reader(root), 2);
                if (root.waitFor() != 0 || members.stream().anyMatch(LauncherTest::ended)) {
                    return "the root did not end alone";
                }
                root.killTree();
                return LauncherTest.allEnded(members, 1000) && root.waitForTree(5, TimeUnit.SECONDS)
                    ? null
                    : "members left after the kill: " + members;
            }
        }

        /** The last member ends at a moment of the test's own, and the wait sees it (its latency is a bench's). */
        private static String waitForTree() throws Exception {
            try (NativeProcess root = new Launcher("/bin/sh", "-c", "sleep 60 & echo $!; exit 0").contained().start()) {
                long member = pids(reader(root), 1).get(0);
                root.waitFor();
                if (root.waitForTree(200, TimeUnit.MILLISECONDS) || root.usage().complete()) {
                    return "the tree was seen empty while a member lived";
                }
                ProcessHandle.of(member).orElseThrow().destroyForcibly();
                if (!root.waitForTree(5, TimeUnit.SECONDS)) {
                    return "the tree not seen empty 5 s after its last member's end";
                }
                return root.usage().complete() ? null : "the figures of an ended tree are not final";
            }
        }

        /** As nobody: a limit above the hard limit fails the start and names the limit. */
        private static String limitAboveTheHardLimit() throws Exception {
            long hard = Files.readAllLines(Path.of("/proc/self/limits"))
                            .stream()
                            .filter(line -> line.startsWith("Max open files"))
                            .mapToLong(line -> Long.parseLong(line.substring(46).trim().split("\\s+")[0]))
                            .findFirst()
                            .orElseThrow();
            try (NativeProcess process = new Launcher("true").limit(ResourceLimit.OPEN_FILES, hard + 1).start()) {
                return "a limit above the hard one was set";
            } catch (IOException e) {
                String expected = "Cannot run program \"true\": resource limit OPEN_FILES (soft " + (hard + 1)
                                  + ", hard " + (hard + 1) + "): Operation not permitted";
                return e.getMessage().equals(expected) ? null : "message: " + e.getMessage();
            }
        }

        static boolean cgroupHere() throws IOException {
            try (NativeProcess probe = new Launcher("true").contained().start()) {
                return probe.containment() == Containment.CGROUP;
            }
        }
    }

    @ParameterizedTest(name = "{0}")
    @ValueSource(strings = {"kill", "killAfterTheRootEnded", "waitForTree"})
    void aCgroupTreeIsKilledWholeAlsoAfterItsRootEndedAndItsEndIsSeenAtOnce(String check) throws Exception {
        assumeTrue(TreeChecks.cgroupHere(), "needs a writable cgroup v2 hierarchy");
        assertNull(TreeChecks.run(check));
    }

    @Test
    void aProcessGroupTreeKeepsThePromisesOfTheMembersThatStayInIt() throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to run a JVM as nobody, who can't write the cgroup hierarchy");
        assertEquals("OK\n", ChildJvm.withoutTrace(ChildJvm.run(true, TreeChecks.class, "limitAboveTheHardLimit")));
    }

    @Test
    void aMemoryLimitEndsAProgramThatAllocatesMoreAndUsageSaysSo() throws Exception {
        String allocate = "x=$(head -c 268435456 /dev/zero | tr '\\0' a); echo ${#x}";
        try (NativeProcess process = new Launcher("/bin/sh", "-c", allocate).memoryLimit(64 << 20).start()) {
            assertEquals(137, process.waitFor());
            assertTrue(process.waitForTree(10, TimeUnit.SECONDS));
            ProcessUsage usage = process.usage();
            assertTrue(usage.killedForMemory(), usage.toString());
            assertTrue(usage.peakMemoryBytes() > 0 && usage.peakMemoryBytes() <= 64 << 20, usage.toString());
        }
    }

    @Test
    void aProcessLimitStopsAForkLoop(@TempDir Path dir) throws Exception {
        Path started = dir.resolve("forks");
        ProcessResult result =
            new Launcher("/bin/sh", "-c", "for i in $(seq 50); do sleep 5 & echo $! >> " + started + "; done")
                .processLimit(10)
                .run(Duration.ofSeconds(30));
        long forks = Files.readAllLines(started).size();
        assertTrue(forks > 0 && forks < 10, forks + " forks beside the shell itself");
        assertTrue(result.stderr().contains("fork"), result.stderr());
    }

    /** Whether some cgroup hierarchy here carries the pids controller, so that a process limit can be set. */
    private static boolean processLimitHere() throws IOException {
        try (NativeProcess probe = new Launcher("true").processLimit(10).start()) {
            return true;
        } catch (IOException e) {
            if (e.getMessage().contains("pids controller")) {
                return false;
            }
            throw e;
        }
    }

    /** Only the program counts in its tree: the intermediate process of a detached launch takes no place there. */
    @ParameterizedTest(name = "detached: {0}")
    @ValueSource(booleans = {false, true})
    void aTreeWithAProcessLimitOfOneStarts(boolean detached) throws Exception {
        assumeTrue(processLimitHere(), "needs a cgroup hierarchy with the pids controller");
        try (NativeProcess process = new Launcher("true").detached(detached).processLimit(1).start()) {
            assertTrue(process.waitForTree(10, TimeUnit.SECONDS));
        }
    }

    @Test
    void theResourceLimitsAreWhatTheProgramSees() throws Exception {
        Launcher launcher = new Launcher("/bin/sh", "-c", "ulimit -Sn; ulimit -Hn; ulimit -Sc")
                                .limit(ResourceLimit.OPEN_FILES, 16, 32)
                                .limit(ResourceLimit.CORE_SIZE, 0);
        assertEquals("16\n32\n0\n", launcher.run(Duration.ofSeconds(10)).stdout());
    }

    /**
     * Launches, from a thread that then ends, a program that ends with the JVM: {@code sleep 60}, and a
     * contained tree of a shell and two sleeps. Prints the PIDs of all of them and waits to be killed.
     */
    public static final class EndsWithJvm {
        public static void main(String[] args) throws Exception {
            List<Long> pids = new ArrayList<>();
            Thread starter = new Thread(() -> {
                try {
                    pids.add(new Launcher("sleep", "60").endWithJvm(true).start().pid());
                    NativeProcess tree = new Launcher("/bin/sh", "-c", "sleep 60 & (sleep 60 &); sleep 60")
                                             .contained()
                                             .endWithJvm(true)
                                             .start();
                    pids.add(tree.pid());
                    for (int i = 0; i < 100 && tree.toHandle().descendants().count() < 2; i++) {
                        Thread.sleep(10);
                    }
                    tree.toHandle().descendants().forEach(member -> pids.add(member.pid()));
                } catch (Exception e) {
                    throw new IllegalStateException(e);
                }
            });
            starter.start();
            starter.join();
            System.out.println(pids);
            System.out.flush();
            Thread.sleep(60_000);
        }
    }

    @Test
    void programsThatEndWithTheJvmOutliveTheirThreadAndDieWithAKilledJvm() throws Exception {
        Process jvm = new ProcessBuilder(ChildJvm.command(false, EndsWithJvm.class)).redirectErrorStream(true).start();
        List<Long> pids;
        try {
            String line = new BufferedReader(new InputStreamReader(jvm.getInputStream())).readLine();
            assertTrue(line != null && line.startsWith("["), line);
            pids = Stream.of(line.replaceAll("[\\[\\] ]", "").split(",")).map(Long::parseLong).toList();
            assertTrue(pids.size() >= 3, pids.toString());
            Thread.sleep(1000);
            assertTrue(pids.stream().noneMatch(LauncherTest::ended), "alive after the thread that started them ended");
        } finally {
            jvm.destroyForcibly(); // SIGKILL
        }
        assertTrue(jvm.waitFor(10, TimeUnit.SECONDS));
        assertTrue(LauncherTest.allEnded(pids, 1000), "left 1 s after the JVM was killed: "
                   + pids.stream().filter(pid -> !LauncherTest.ended(pid)).toList());
    }

    /** The directories of this JVM's groups below its own v2 group, "quillon-<pid>-<n>". */
    private static long groupsOfThisJvm() throws IOException {
        String group = Files.readAllLines(Path.of("/proc/self/cgroup"))
                           .stream()
                           .filter(line -> line.startsWith("0::"))
                           .map(line -> line.substring(3))
                           .findFirst()
                           .orElse(null);
        String mount = Files.readAllLines(Path.of("/proc/self/mountinfo"))
                           .stream()
                           .filter(line -> line.contains(" - cgroup2 "))
                           .map(line -> line.split(" ")[4])
                           .findFirst()
                           .orElse(null);
        if (group == null || mount == null) {
            return 0;
        }
        String prefix = "quillon-" + ProcessHandle.current().pid() + "-";
        try (Stream<Path> children = Files.list(Path.of(mount + group))) {
            return children.filter(child -> child.getFileName().toString().startsWith(prefix)).count();
        }
    }

    @Test
    void aThousandContainedLaunchesLeaveNoGroupDescriptorThreadOrZombie() throws Exception {
        assumeTrue(TreeChecks.cgroupHere(), "needs a writable cgroup v2 hierarchy");
        long zombies = ProcessCounts.zombieChildren();
        long fds = ProcessCounts.descriptors();
        int threads = Thread.activeCount();
        for (int i = 0; i < 1000; i++) {
            NativeProcess process = new Launcher("/bin/sh", "-c", "exit " + (i % 3)).contained().start();
            if (i % 4 == 1) {
                process.signalTree(18); // a call on the tree keeps it only while it runs
            }
            assertEquals(i % 3, process.waitFor());
            assertTrue(process.waitForTree(10, TimeUnit.SECONDS));
            if (i % 2 == 0) {
                process.close(); // the others are left to the garbage collector
            }
        }
        long groups = groupsOfThisJvm();
        for (int i = 0; i < 100 && (groups > 0 || ProcessCounts.descriptors() > fds); i++) {
            System.gc();
            Thread.sleep(50);
            groups = groupsOfThisJvm();
        }
        assertEquals(0, groups, "groups left");
        assertTrue(ProcessCounts.descriptors() <= fds, "descriptors " + fds + " -> " + ProcessCounts.descriptors());
        assertTrue(Thread.activeCount() <= threads + 1, "threads " + threads + " -> " + Thread.activeCount());
        assertEquals(zombies, ProcessCounts.zombieChildren(), "zombie children");
    }
}
