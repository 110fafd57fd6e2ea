package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.norvane.quillon.process.exception.InvalidDirectoryException;
import com.norvane.quillon.process.exception.InvalidExecutableException;
import com.norvane.quillon.process.exception.InvalidFileException;
import com.norvane.quillon.process.exception.InvalidGroupException;
import com.norvane.quillon.process.exception.InvalidProcessGroupException;
import com.norvane.quillon.process.exception.InvalidUsernameException;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.FileInputStream;
import java.io.IOException;
import java.net.ServerSocket;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

class LaunchTest {
    private final UnixProcessGlue glue = UnixProcessGlue.get();

    @TempDir
    Path dir;

    /** Launches sh with a script whose output goes to out.txt in the temp dir, waits and returns the output. */
    private String facts(String script, String[] environment, String cwd, int priority, long mask, String user,
            String group, boolean detached) throws Exception {
        Path out = dir.resolve("out.txt");
        long handle = glue.create("/bin/sh", new String[] {"-c", script, "zero", "one", null, "cut"}, environment,
                cwd, priority, new String[] {null, "!" + out, out.toString()}, mask, group, user, 0, "extra", false,
                detached);
        glue.waitForTerminationWithTimeout(handle, 10);
        glue.done(handle);
        return Files.readString(out);
    }

    @Test
    void everyPartOfTheRequestReachesTheProgram() throws Exception {
        String script = String.join("; ",
                "echo \"args=$0,$1,$#\"",
                "tr '\\0' ' ' < /proc/$$/cmdline; echo",
                "echo \"cwd=$(pwd)\"",
                "echo \"umask=$(umask)\"",
                "echo \"nice=$(cut -d' ' -f19 /proc/$$/stat)\"",
                "echo \"leader=$(test $(cut -d' ' -f5 /proc/$$/stat) = $$ && echo yes)\"",
                "echo \"sigign=$(grep SigIgn /proc/$$/status | cut -f2)\"",
                "echo \"stdin=$(readlink /proc/$$/fd/0)\"",
                "echo \"var=$QUILLON_VAR path=$PATH home=$HOME\"",
                "echo to-stderr >&2");
        String out = facts(script, new String[] {"QUILLON_VAR=set", "PATH=/first"}, "/tmp", 25, 027, null, null,
                false);
        for (String fact : List.of("args=zero,one,1\n", "/bin/sh -c ", "cwd=/tmp\n", "umask=0027\n", "nice=5\n",
                "leader=yes\n", "sigign=0000000000300000\n" /* SIGTTIN and SIGTTOU */, "stdin=/dev/null\n",
                "to-stderr\n", "var=set path=/first:" + System.getenv("PATH") + " home=" + System.getenv("HOME"))) {
            assertTrue(out.contains(fact), fact + " in " + out);
        }
    }

    @Test
    void identityOfTheProgramWhenRoot() throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to launch as another user");
        Files.setPosixFilePermissions(dir, java.nio.file.attribute.PosixFilePermissions.fromString("rwxrwxrwx"));
        assertEquals("65534\n65534\n65534\n", facts("id -u; id -g; id -G", null, null, 20, 022, "nobody", null, false));
        assertEquals("0\n65534\n65534\n", facts("id -u; id -g; id -G", null, null, 20, 022, null, "nogroup", false));
    }

    @Test
    void detachedProgramIsNoChildAndItsHandleFollowsIt() throws Exception {
        long handle = glue.create("/bin/sleep", new String[] {"1"}, null, null, 20, null, 0, null, null, 0, null,
                true, true);
        long pid = Long.parseLong(glue.id(handle));
        assertTrue(ProcessHandle.current().children().noneMatch(p -> p.pid() == pid), "not a child of the JVM");
        assertEquals(1, glue.ping(handle));
        glue.waitForTermination(handle);
        assertEquals(0, glue.ping(handle));
        assertEquals(0, glue.getExitCode(handle));
        glue.done(handle);
    }

    @Test
    void descriptorsOfTheJvmDoNotReachTheProgram() throws Exception {
        Path out = dir.resolve("fds.txt");
        try (FileInputStream file = new FileInputStream("/etc/hostname"); ServerSocket socket = new ServerSocket(0)) {
            long handle = glue.create("/bin/ls", new String[] {"/proc/self/fd"}, null, null, 20,
                    new String[] {null, out.toString(), null}, 022, null, null, 0, null, false, false);
            glue.waitForTermination(handle);
            glue.done(handle);
        }
        assertEquals("0\n1\n2\n3\n", Files.readString(out)); // 3 is ls's own listing of the directory
    }

    @Test
    void ignoredStdFilesAndANullArrayInheritStdin() throws Exception {
        Path out = dir.resolve("in.txt");
        for (boolean ignore : new boolean[] {true, false}) {
            long handle = glue.create("/bin/sh", new String[] {"-c", "readlink /proc/$$/fd/0 > " + out}, null, null,
                    20, ignore ? new String[] {"/no/such/file", null, null} : null, 022, null, null, 0, null, ignore,
                    false);
            glue.waitForTermination(handle);
            glue.done(handle);
            String inherited = Files.readSymbolicLink(Path.of("/proc/self/fd/0")).toString();
            assertEquals(inherited + "\n", Files.readString(out));
        }
    }

    static Stream<Arguments> failures() {
        String prefix = "Error creating new process.";
        String missing = prefix + " 002: No such file or directory";
        return Stream.of(
                Arguments.of("/no/such/program", null, null, null, 0, null, InvalidExecutableException.class, missing),
                Arguments.of("", null, null, null, 0, null, InvalidExecutableException.class, missing),
                Arguments.of("/bin/true", "/no/such/dir", null, null, 0, null, InvalidDirectoryException.class,
                        missing),
                Arguments.of("/bin/true", "", null, null, 0, null, InvalidDirectoryException.class, missing),
                Arguments.of("/bin/true", null, "no-such-user", null, 0, null, InvalidUsernameException.class, null),
                Arguments.of("/bin/true", null, null, "no-such-group", 0, null, InvalidGroupException.class, prefix),
                Arguments.of("/bin/true", null, null, null, 999999, null, InvalidProcessGroupException.class,
                        prefix + " 001: Operation not permitted"),
                Arguments.of("/bin/true", null, null, null, 0, new String[] {"/no/such/in", null, null},
                        InvalidFileException.class, missing),
                Arguments.of(null, null, null, null, 0, null, InvalidExecutableException.class, "Invalid executable."));
    }

    @ParameterizedTest
    @MethodSource("failures")
    void everyFailureArrivesAsItsClassAndMessage(String executable, String cwd, String user, String group,
            int processGroup, String[] files, Class<? extends ProcessOpException> type, String message) {
        for (boolean detached : new boolean[] {false, true}) {
            ProcessOpException e = assertThrows(type, () -> glue.create(executable, null, null, cwd, 20, files, 022,
                    group, user, processGroup, null, files == null, detached));
            if (message != null) {
                assertEquals(message, e.getMessage());
            }
        }
        assertEquals(0, ProcessHandle.current().children().filter(ProcessHandle::isAlive).count(),
                "no process left behind");
    }

    private static long openDescriptors() throws IOException {
        try (Stream<Path> fds = Files.list(Path.of("/proc/self/fd"))) {
            return fds.count();
        }
    }

    /** Launches attached and detached, succeeding and failing, from four threads; returns when all are done. */
    private void launchMany(int count) throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(4);
        List<Future<?>> runs = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            final int n = i;
            runs.add(pool.submit(() -> {
                boolean detached = n % 2 == 1;
                boolean failing = n % 4 >= 2;
                try {
                    long handle = glue.create(failing ? "/no/such/program" : "/bin/true", null,
                            new String[] {"A=" + n}, null, 20, new String[] {null, null, "/dev/null"}, 022, null, null,
                            0, "extra", false, detached);
                    if (!detached) {
                        glue.waitForTermination(handle); // a detached program is init's to reap
                    }
                    glue.done(handle);
                } catch (InvalidExecutableException expected) {
                    // the failing half
                }
                return null;
            }));
        }
        for (Future<?> run : runs) {
            run.get();
        }
        pool.shutdown();
    }

    @Test
    void hundredsOfLaunchesFromSeveralThreadsLeaveNothingBehind() throws Exception {
        launchMany(8); // lets the JVM open what it opens lazily
        long descriptors = openDescriptors();
        Set<ProcessHandle> before = ProcessHandle.current().children().collect(Collectors.toSet());
        launchMany(400);
        assertEquals(descriptors, openDescriptors());
        assertEquals(before, ProcessHandle.current().children().collect(Collectors.toSet()));
    }

    @Test
    void theTraceOfAChildGoesToItsRedirectionTarget() throws Exception {
        Path out = dir.resolve("trace.txt");
        String output = ChildJvm.run(false, Map.of("__JNI_PROCESS_DEBUG", ""), false, Launcher.class,
                "/no/such/program", out.toString());
        assertTrue(output.contains("InvalidExecutableException"), output);
        String trace = Files.readString(out);
        assertTrue(trace.contains("Unable to launch process.  An error occurred.  Return value: [11] errno: [2]"),
                trace);
        assertTrue(trace.contains("New process will be created from executable: [/no/such/program]"), trace);
    }

    /** Launches argument 0 with stdout and stderr redirected to argument 1. */
    public static final class Launcher {
        private Launcher() {}

        public static void main(String[] args) {
            Probe.print(() -> UnixProcessGlue.get().create(args[0], null, null, null, 20,
                    new String[] {null, args[1], args[1]}, 022, null, null, 0, null, false, false));
        }
    }
}
