package com.norvane.quillon;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.norvane.quillon.process.ChildJvm;
import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.UnixProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.BufferedReader;
import java.io.File;
import java.io.IOException;
import java.io.InputStreamReader;
import java.lang.ProcessBuilder.Redirect;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Collection;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.MethodSource;

/** What Launcher and NativeProcess do beyond ProcessBuilder. */
class LauncherTest {
    /** Runs a shell script to its end and returns its stdout. */
    static String output(Launcher launcher) throws Exception {
        try (NativeProcess process = launcher.start()) {
            String out = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            assertEquals(0, process.waitFor(), out);
            return out;
        }
    }

    static Launcher shell(String script) {
        return new Launcher("/bin/sh", "-c", script);
    }

    /** Whether a PID names no running process any more (gone, or a zombie waiting for its parent). */
    static boolean ended(long pid) {
        try {
            String stat = Files.readString(Path.of("/proc/" + pid + "/stat"));
            return stat.charAt(stat.lastIndexOf(')') + 2) == 'Z';
        } catch (IOException e) {
            return true;
        }
    }

    /** Whether every one of the PIDs has ended within the time given. */
    static boolean allEnded(Collection<Long> pids, long millis) throws InterruptedException {
        for (long deadline = System.nanoTime() + millis * 1_000_000; !pids.stream().allMatch(LauncherTest::ended);) {
            if (System.nanoTime() > deadline) {
                return false;
            }
            Thread.sleep(2);
        }
        return true;
    }

    @Test
    void theProgramRunsWithTheNiceValueUmaskAndProcessGroupAskedFor() throws Exception {
        String script = "cut -d' ' -f19 /proc/$$/stat; umask; test $(cut -d' ' -f5 /proc/$$/stat) = $$ && echo leader";
        assertEquals("7\n0027\nleader\n", output(shell(script).nice(7).umask(027).newProcessGroup()));
        String jvmGroup = Files.readString(Path.of("/proc/self/stat")).replaceFirst(".*\\) ", "").split(" ")[2];
        assertEquals(jvmGroup + "\n", output(shell("cut -d' ' -f5 /proc/$$/stat")), "by default in the JVM's group");
    }

    @ParameterizedTest(name = "user {0}, group {1}: {2}")
    @CsvSource(nullValues = "-", value = {"nobody, -, 65534 65534", "-, nogroup, 0 65534", "nobody, nogroup, 65534 65534"})
    void theProgramRunsAsTheUserAndGroupAskedFor(String user, String group, String ids) throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to start a program as another user or group");
        assertEquals(ids + "\n", output(shell("echo $(id -u) $(id -g)").user(user).group(group)));
    }

    static Stream<Arguments> environments() {
        Map<String, String> inherited = new HashMap<>(System.getenv());
        inherited.put("PATH", "/first:" + System.getenv("PATH"));
        inherited.put("QUILLON_X", "x");
        inherited.put("LANG", "C");
        // Keys that begin like an added one (LANGUAGE and LANG, PATHEXT and PATH) are other keys.
        return Stream.of(Arguments.of("added to the inherited one", null, inherited),
                         Arguments.of("added to a replacement",
                                      Map.of("PATH", "/bin:/usr/bin", "QUILLON_X", "old", "ONLY", "1",
                                             "LANGUAGE", "de", "PATHEXT", ".x"),
                                      Map.of("PATH", "/first:/bin:/usr/bin", "QUILLON_X", "x", "ONLY", "1",
                                             "LANGUAGE", "de", "PATHEXT", ".x", "LANG", "C")));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("environments")
    void additionsPutPathLikeValuesInFrontAndReplaceOthers(String name, Map<String, String> replacement,
            Map<String, String> expected) throws Exception {
        Launcher launcher = new Launcher("/usr/bin/env", "-0")
                                .environment(replacement)
                                .addEnvironment("PATH", "/first")
                                .addEnvironment("QUILLON_X", "x")
                                .addEnvironment("LANG", "C");
        assertEquals(expected, Stream.of(output(launcher).split("\0")).map(entry -> entry.split("=", 2))
                .collect(Collectors.toMap(kv -> kv[0], kv -> kv[1])));
    }

    @ParameterizedTest(name = "{0}")
    @CsvSource({"program that ends on SIGTERM, echo ready; exec sleep 30, 15, 0",
            "program that ignores SIGTERM, trap '' TERM; echo ready; exec sleep 30, 9, 400"})
    void stopEndsTheProgramWithSigkillOnlyAfterTheGrace(String name, String script, int signal, long atLeastMillis)
            throws Exception {
        try (NativeProcess process = shell(script).start()) {
            assertEquals('r', process.getInputStream().read(), "the trap is set");
            long begin = System.nanoTime();
            assertEquals(128 + signal, process.stop(Duration.ofMillis(400)));
            long took = (System.nanoTime() - begin) / 1_000_000;
            assertTrue(took >= atLeastMillis && took < atLeastMillis + 2000, "took " + took + " ms");
            assertEquals(signal, process.exitSignal());
        }
    }

    @Test
    void killTreeKillsThreeGenerationsAtOnceAlsoThoseThatLeftTheGroupOrTheirParent() throws Exception {
        // The first sleep's parent ends at once: it stays in the group, but out of the tree below the root; and
        // it ignores the signals its group gets when the root's end orphans the group.
        String script = "(trap '' HUP TERM; sleep 60 & echo $!); sh -c 'setsid sleep 60 & sleep 60' & sleep 60";
        try (NativeProcess root = shell(script).newProcessGroup().start()) {
            long orphan = Long.parseLong(new BufferedReader(new InputStreamReader(root.getInputStream())).readLine());
            List<ProcessHandle> tree = List.of();
            for (int i = 0; i < 100 && tree.size() < 4; i++) {
                Thread.sleep(50);
                tree = root.toHandle().descendants().collect(Collectors.toList());
            }
            assertEquals(4, tree.size(), "two children and two grandchildren: " + tree);
            root.killTree();
            assertTrue(root.waitFor(10, TimeUnit.SECONDS));
            assertEquals(9, root.exitSignal());
            List<Long> members = new ArrayList<>(tree.stream().map(ProcessHandle::pid).toList());
            members.add(orphan);
            assertTrue(allEnded(members, 5000), members + " still run");
        }
    }

    /** Starts its arguments as a detached program with no streams and prints the program's PID. */
    public static final class DetachedStart {
        public static void main(String[] args) throws Exception {
            try (NativeProcess process = new Launcher(args).detached(true).redirectInput(new File("/dev/null"))
                    .redirectOutput(Redirect.DISCARD).redirectError(Redirect.DISCARD).start()) {
                System.out.println(process.pid());
            }
        }
    }

    @Test
    void aDetachedProgramOutlivesItsJvmAndCanBeAdoptedAndStopped() throws Exception {
        String out = ChildJvm.run(false, DetachedStart.class, "sleep", "30");
        long pid = Long.parseLong(out.strip().lines().reduce((first, last) -> last).orElseThrow());
        assertFalse(ended(pid), "the program outlived the JVM that started it");
        try (NativeProcess adopted = NativeProcess.adopt(pid)) {
            assertFalse(adopted.exitStatusKnown());
            assertTrue(adopted.isAlive());
            assertEquals(pid, adopted.toHandle().pid());
            assertTrue(ProcessHandle.current().children().noneMatch(child -> child.pid() == pid), "no child of ours");
            assertEquals(-1, adopted.getInputStream().read());
            assertThrows(IOException.class, () -> adopted.getOutputStream().write(1));
            assertEquals(0, adopted.stop(Duration.ofSeconds(10)), "the status of a process that is no child is unknown");
            assertEquals(0, adopted.exitSignal());
            assertFalse(adopted.isAlive());
        }
    }

    /** Tries four launches that fail and prints each exception's message and cause; nothing else. */
    public static final class FailedStarts {
        public static void main(String[] args) {
            for (Launcher launcher : List.of(new Launcher("true").redirectOutput(new File("/no/dir/out")),
                     new Launcher("true").user("no-such-user-q"), new Launcher("true").group("no-such-group-q"),
                     new Launcher("true").directory(new File("/no/such/dir")))) {
                try (NativeProcess process = launcher.start()) {
                    System.out.println("started");
                } catch (IOException e) {
                    System.out.println(e.getMessage() + " | " + e.getCause().getClass().getSimpleName());
                }
            }
        }
    }

    @Test
    void aFailedStartWritesNothingToTheJvmsStreamsAndNamesWhatWasAtFault() throws Exception {
        assertEquals(String.join("\n",
                "Cannot run program \"true\": stdout file \"/no/dir/out\": No such file or directory | InvalidFileException",
                "Cannot run program \"true\": user \"no-such-user-q\": no such user | InvalidUsernameException",
                "Cannot run program \"true\": group \"no-such-group-q\": no such group | InvalidGroupException",
                "Cannot run program \"true\" (in directory \"/no/such/dir\"): directory \"/no/such/dir\": No such file or "
                    + "directory | InvalidDirectoryException", ""), ChildJvm.run(false, FailedStarts.class));
    }

    /**
     * As nobody: a program found on PATH behind a file that may not be run, or behind a directory that may
     * not be searched, runs; found nowhere else, the launch fails with EACCES, also when a directory after
     * the refused one lacks the program. Prints one line per PATH.
     */
    public static final class ExecSearch {
        public static void main(String[] args) throws Exception {
            Path base = Files.createTempDirectory("quillon-path");
            Path notRunnable = Files.createDirectory(base.resolve("a"));
            Path runnable = Files.createDirectory(base.resolve("b"));
            Path closed = Files.createDirectory(base.resolve("c"));
            Path empty = Files.createDirectory(base.resolve("d"));
            Files.writeString(notRunnable.resolve("prog"), "#!/bin/sh\necho from a\n");
            Files.writeString(runnable.resolve("prog"), "#!/bin/sh\necho from b\n");
            runnable.resolve("prog").toFile().setExecutable(true);
            closed.toFile().setExecutable(false);
            for (Path[] path : new Path[][] {{notRunnable},
                                             {notRunnable, runnable},
                                             {closed, runnable},
                                             {closed},
                                             {notRunnable, empty}}) {
                String search = String.join(":", Stream.of(path).map(Path::toString).toList());
                try (NativeProcess process =
                         new Launcher("prog").environment(Map.of("PATH", search)).start()) {
                    System.out.print(
                        new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8));
                } catch (IOException e) {
                    System.out.println(e.getMessage().replace(search, "PATH") + " | " +
                                       e.getCause().getMessage());
                }
            }
            closed.toFile().setExecutable(true);
        }
    }

    @Test
    void aRefusedExecOnPathIsSkippedAndReportedAsEaccesWhenNothingElseRuns() throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to run a JVM as nobody, whom the file system refuses");
        String denied =
            "Cannot run program \"prog\": error=13, Permission denied | Error creating new process. 013: "
            + "Permission denied\n";
        assertEquals(denied + "from b\nfrom b\n" + denied + denied,
                     ChildJvm.withoutTrace(ChildJvm.run(true, ExecSearch.class)));
    }

    @Test
    void signalReachesAProgramThatTrapsItAndIsRefusedOnceItHasEnded() throws Exception {
        try (NativeProcess process =
                 shell("trap 'echo hup; exit 7' HUP; echo ready; while :; do sleep 0.05; done").start()) {
            BufferedReader out =
                new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
            assertEquals("ready", out.readLine());
            assertTrue(process.signal(1));
            assertEquals("hup", out.readLine());
            assertEquals(7, process.waitFor());
            assertFalse(process.signal(1), "nothing is sent to a process that has ended");
            for (int notASignal : new int[] {0, -1, 65}) {
                assertThrows(IllegalArgumentException.class, () -> process.signal(notASignal));
            }
        }
    }

    @ParameterizedTest(name = "{0}")
    @CsvSource({"umask -1, -1", "umask 01000, 512", "umask 0x7fffffff, 2147483647", "process group -1, -1",
                "process group above the largest PID, 2147483648"})
    void
    valuesTheSystemCannotTakeAreRefused(String name, long value) {
        Launcher launcher = new Launcher("true");
        assertThrows(IllegalArgumentException.class, () -> {
            if (name.startsWith("umask")) {
                launcher.umask((int)value);
            } else {
                launcher.processGroup(value);
            }
        });
    }

    /** Stopping the tree of the JVM's own parent would stop the JVM itself for good. */
    @Test
    void aTreeThatHoldsTheJvmIsRefusedBeforeAnythingIsSent() throws Exception {
        long parent = ProcessHandle.current().parent().orElseThrow().pid();
        try (NativeProcess ancestor = NativeProcess.adopt(parent)) {
            IllegalStateException e = assertThrows(IllegalStateException.class, ancestor::killTree);
            assertTrue(e.getMessage().contains("holds this JVM"), e.getMessage());
        }
        long handle = UnixProcessGlue.get().recreate(Long.toString(parent));
        try { // the native refuses too, for callers of the glue
            ProcessOpException e =
                assertThrows(ProcessOpException.class, () -> NativeProcessGlue.get().killTree(handle));
            assertEquals("Error terminating process.  035: Resource deadlock avoided", e.getMessage());
        } finally {
            UnixProcessGlue.get().done(handle);
        }
        String state =
            Files.readString(Path.of("/proc/" + parent + "/stat")).replaceFirst(".*\\) ", "").substring(0, 1);
        assertNotEquals("T", state, "the parent was stopped");
    }

    @Test
    void theRunningJvmIsAliveAndRefusesToEndOrAwaitItself() throws Exception {
        try (NativeProcess self = NativeProcess.self()) {
            assertEquals(ProcessHandle.current().pid(), self.pid());
            assertTrue(self.isAlive());
            assertThrows(IllegalThreadStateException.class, self::exitValue);
            assertThrows(IllegalStateException.class, self::waitFor);
            assertThrows(IllegalStateException.class, self::onExit);
            assertThrows(IllegalStateException.class, self::destroy);
            assertThrows(IllegalStateException.class, self::killTree);
        }
    }
}
