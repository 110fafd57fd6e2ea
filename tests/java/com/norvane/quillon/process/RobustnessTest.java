package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.norvane.quillon.process.exception.ProcessOpException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Map;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/** What callers can get wrong gives a clear exception or the right result, never a crash or a wrong launch. */
class RobustnessTest {
    private static final UnixProcessGlue GLUE = UnixProcessGlue.get();
    private static final String INVALID = " 022: Invalid argument";

    interface HandleCall {
        void run(long handle) throws Exception;
    }

    static Stream<Arguments> handleNatives() {
        return Stream.of(
                Arguments.of("ping", "Error pinging process. ", (HandleCall) GLUE::ping),
                Arguments.of("id", "Error getting process id. ", (HandleCall) GLUE::id),
                Arguments.of("waitForTermination", "Error waiting for process to terminate. ",
                        (HandleCall) GLUE::waitForTermination),
                Arguments.of("waitForTerminationWithTimeout", "Error waiting for process to terminate. ",
                        (HandleCall) h -> GLUE.waitForTerminationWithTimeout(h, 1)),
                Arguments.of("getExitCode", "Error getting exitcode. ", (HandleCall) GLUE::getExitCode),
                Arguments.of("stop", "Error stopping process. ", (HandleCall) GLUE::stop),
                Arguments.of("kill", "Error terminating process. ", (HandleCall) GLUE::kill),
                Arguments.of("pokeVMThreadDump", "Error causing JVM dump. ", (HandleCall) GLUE::pokeVMThreadDump));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("handleNatives")
    void handlesThatNameNoLiveRecordAreRefused(String name, String prefix, HandleCall call) throws Exception {
        long released = GLUE.create("/bin/true", null, null, null, 20, null, 022, null, null, 0, null, true, false);
        GLUE.waitForTermination(released);
        GLUE.done(released);
        GLUE.done(released); // a second done, like done of any number, does nothing
        for (long handle : new long[] {0, released, released + 1, -1, 12345}) {
            ProcessOpException e = assertThrows(ProcessOpException.class, () -> call.run(handle));
            assertEquals(ProcessOpException.class, e.getClass());
            assertEquals(prefix + INVALID, e.getMessage());
            GLUE.done(handle);
        }
    }

    @Test
    void redirectionArraysShorterThanThreeAreRefusedBeforeAnythingRuns() {
        long children = ProcessHandle.current().children().count();
        for (int length = 0; length < 3; length++) {
            String[] files = new String[length];
            ProcessOpException e = assertThrows(ProcessOpException.class, () -> GLUE.create("/bin/sh",
                    new String[] {"-c", "touch /tmp/quillon-must-not-exist"}, null, null, 20, files, 022, null, null, 0,
                    null, false, false));
            assertEquals("Error creating new process." + INVALID, e.getMessage());
        }
        assertEquals(children, ProcessHandle.current().children().count());
        assertFalse(Files.exists(Path.of("/tmp/quillon-must-not-exist")));
    }

    // Where the NUL goes: executable, argument, environment entry, directory, user, redirection.
    static Stream<Arguments> stringsWithANul() {
        String nul = "a\0b";
        return Stream.of(Arguments.of("executable", new Object[] {nul, null, null, null, null, null}),
                Arguments.of("argument", new Object[] {"/bin/true", nul, null, null, null, null}),
                Arguments.of("environment", new Object[] {"/bin/true", null, "A=" + nul, null, null, null}),
                Arguments.of("directory", new Object[] {"/bin/true", null, null, "/tmp/" + nul, null, null}),
                Arguments.of("user", new Object[] {"/bin/true", null, null, null, nul, null}),
                Arguments.of("redirection", new Object[] {"/bin/true", null, null, null, null, nul}));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("stringsWithANul")
    void aNulInsideAnyStringIsRefused(String where, Object[] parts) {
        String[] arguments = parts[1] == null ? null : new String[] {(String) parts[1]};
        String[] environment = parts[2] == null ? null : new String[] {(String) parts[2]};
        String[] files = parts[5] == null ? null : new String[] {null, (String) parts[5], null};
        ProcessOpException e = assertThrows(ProcessOpException.class, () -> GLUE.create((String) parts[0], arguments,
                environment, (String) parts[3], 20, files, 022, null, (String) parts[4], 0, null, files == null, false));
        assertEquals("Error creating new process." + INVALID, e.getMessage(), where);
    }

    @Test
    void textsReachTheSystemAsUtf8(@TempDir Path dir) throws Exception {
        String name = "dir-\uD83D\uDE00-\u00e9";
        Path inside = Files.createDirectory(dir.resolve(name));
        Path out = dir.resolve("out.txt");
        long handle = GLUE.create("/bin/sh", new String[] {"-c", "pwd; echo \"$0\"", name}, null, inside.toString(), 20,
                new String[] {null, out.toString(), null}, 022, null, null, 0, null, false, false);
        GLUE.waitForTermination(handle);
        assertEquals(0, GLUE.getExitCode(handle));
        GLUE.done(handle);
        assertEquals(inside + "\n" + name + "\n", Files.readString(out));
    }

    @ParameterizedTest(name = "priority {0}")
    @MethodSource
    void priorityValuesBeyondNiceAreClamped(int priority, int nice, @TempDir Path dir) throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to lower nice below 0");
        Path out = dir.resolve("nice.txt");
        long handle = GLUE.create("/bin/sh", new String[] {"-c", "cut -d' ' -f19 /proc/$$/stat"}, null, null, priority,
                new String[] {null, out.toString(), null}, 022, null, null, 0, null, false, false);
        GLUE.waitForTermination(handle);
        GLUE.done(handle);
        assertEquals(nice + "\n", Files.readString(out));
    }

    static Stream<Arguments> priorityValuesBeyondNiceAreClamped() {
        return Stream.of(Arguments.of(Integer.MIN_VALUE, -20), Arguments.of(-1, -20), Arguments.of(40, 19),
                Arguments.of(Integer.MAX_VALUE, 19));
    }

    @Test
    void environmentValuesComeWholeAndManyEntriesWarnNothing() throws Exception {
        String longValue = "v".repeat(20_000);
        Map<String, String> environment = new java.util.HashMap<>(Map.of("QUILLON_LONG", longValue));
        for (int i = 0; i < 300; i++) {
            environment.put("QUILLON_MANY_" + i, Integer.toString(i));
        }
        String out = ChildJvm.run(false, environment, false, Probe.class, "getenvLength", "QUILLON_LONG", "environment");
        assertTrue(out.startsWith("[20000]\n"), out.substring(0, Math.min(200, out.length())));
        assertTrue(out.contains("QUILLON_LONG=" + longValue), "the whole entry");
        assertTrue(Arrays.stream(out.split("\n")).noneMatch(l -> l.contains("WARNING")), "no JNI warning");
    }
}
