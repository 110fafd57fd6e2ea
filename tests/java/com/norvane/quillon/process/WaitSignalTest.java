package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.norvane.quillon.process.exception.ProcessOpException;
import com.norvane.quillon.process.exception.ProcessStillActiveException;
import com.norvane.quillon.process.exception.WaitForSelfTerminationException;
import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class WaitSignalTest {
    private final UnixProcessGlue glue = UnixProcessGlue.get();

    private long shell(String script) throws ProcessOpException {
        return glue.create("/bin/sh", new String[] {"-c", script}, null, null, 20, null, 022, null, null, 0, null,
                true, false);
    }

    @ParameterizedTest
    @CsvSource({"exit 3, 3", "kill -KILL $$, 9", "kill -TERM $$, 15", "exit 0, 0"})
    void exitStatusOrSignalNumberIsTheExitCode(String script, int expected) throws Exception {
        long handle = shell(script);
        glue.waitForTermination(handle);
        assertEquals(expected, glue.getExitCode(handle));
        assertEquals(expected, glue.getExitCode(handle), "repeated reads give the same value");
        glue.done(handle);
    }

    @Test
    void stopEndsAProcessThatDoesNotTrapSigterm() throws Exception {
        long handle = shell("exec sleep 30");
        ProcessOpException running = assertThrows(ProcessStillActiveException.class, () -> glue.getExitCode(handle));
        assertEquals("Error getting exitcode. ", running.getMessage());
        assertEquals(1, glue.ping(handle));
        glue.stop(handle);
        glue.waitForTermination(handle);
        assertEquals(15, glue.getExitCode(handle));
        glue.stop(handle); // dead record: nothing is sent, nothing thrown
        glue.done(handle);
    }

    @ParameterizedTest
    @CsvSource({"0, 0", "1, 1", "2, 2", "3, 3"})
    void timedWaitRunsOutAfterTheSumOfItsNaps(int timeout, int seconds) throws Exception {
        long handle = shell("exec sleep 30");
        long start = System.nanoTime();
        ProcessOpException e = assertThrows(ProcessStillActiveException.class,
                () -> glue.waitForTerminationWithTimeout(handle, timeout));
        long elapsed = (System.nanoTime() - start) / 1_000_000;
        assertTrue(elapsed >= seconds * 1000L - 50 && elapsed < seconds * 1000L + 1500, "took " + elapsed + " ms");
        assertTrue(e.getMessage().startsWith("Error waiting for process to terminate. "), e.getMessage());
        glue.kill(handle);
        glue.waitForTerminationWithTimeout(handle, -1);
        assertEquals(9, glue.getExitCode(handle));
        glue.done(handle);
    }

    @Test
    void waitingForTheRunningProcessIsRefusedWhateverTheRecordSays() throws Exception {
        long self = glue.createSelf();
        assertEquals("Attempt to wait for self to terminate",
                assertThrows(WaitForSelfTerminationException.class, () -> glue.waitForTermination(self)).getMessage());
        assertEquals("Attempt to wait for self to terminate. ",
                assertThrows(WaitForSelfTerminationException.class,
                        () -> glue.waitForTerminationWithTimeout(self, 1)).getMessage());
        glue.done(self);
    }

    @Test
    void manyWaitersOnOneChildAllSeeTheSameExitCode() throws Exception {
        long handle = shell("sleep 0.5; exit 7");
        ExecutorService pool = Executors.newFixedThreadPool(5);
        List<Future<Integer>> waiters = new ArrayList<>();
        for (int i = 0; i < 4; i++) {
            final boolean timed = i % 2 == 1;
            waiters.add(pool.submit(() -> {
                if (timed) {
                    glue.waitForTerminationWithTimeout(handle, 10);
                } else {
                    glue.waitForTermination(handle);
                }
                return glue.getExitCode(handle);
            }));
        }
        Integer meanwhile = null;
        while (meanwhile == null) { // once the end is seen, it returns only after the waiters' count has fallen
            try {
                meanwhile = glue.getExitCode(handle);
            } catch (ProcessStillActiveException stillRunning) {
                Thread.sleep(50);
            }
        }
        for (Future<Integer> waiter : waiters) {
            assertEquals(7, waiter.get());
        }
        assertEquals(7, meanwhile.intValue());
        pool.shutdown();
        glue.done(handle);
    }

    @Test
    void anAdoptedProcessThatIsNoChildEndsThroughPollingWithCodeZero() throws Exception {
        long detached = glue.create("/bin/sh", new String[] {"-c", "sleep 0.5; exit 5"}, null, null, 20, null, 022,
                null, null, 0, null, true, true);
        long adopted = glue.recreate(glue.id(detached));
        glue.waitForTermination(adopted);
        assertEquals(0, glue.ping(adopted));
        assertEquals(0, glue.getExitCode(adopted));
        glue.done(adopted);
        glue.done(detached);
    }

    @Test
    void signalsToVanishedProcessesSucceedSilently() throws Exception {
        long handle = shell("exit 0");
        glue.waitForTermination(handle);
        glue.stop(handle);
        glue.kill(handle);
        glue.pokeVMThreadDump(handle);
        glue.done(handle);
    }

    // A JVM adopts init while it is root, then becomes nobody and may no longer signal it.
    @Test
    void killAndStopOfAnotherUsersProcessAreRefused() throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to start a JVM that becomes nobody");
        assertEquals(String.join("\n", "1", "group now nogroup", "user now nobody",
                "AccessDeniedException: Error terminating process.  001: Operation not permitted",
                "ProcessOpException: Error stopping process.  001: Operation not permitted", ""),
                ChildJvm.run(false, Probe.class, "adopt", "1", "setgroup", "nogroup", "setuser", "nobody", "kill",
                        "stop"));
    }

    @Test
    void pokeMakesAChildJvmWriteAThreadDump(@TempDir Path dir) throws Exception {
        Path out = dir.resolve("jvm.txt");
        List<String> jvm = ChildJvm.command(false, Probe.class, "sleep", "20000");
        long handle = glue.create(jvm.get(0), jvm.subList(1, jvm.size()).toArray(new String[0]), null, null, 20,
                new String[] {null, out.toString(), out.toString()}, 022, null, null, 0, null, false, false);
        for (int i = 0; i < 100 && !Files.readString(out).contains("ready"); i++) {
            Thread.sleep(100);
        }
        glue.pokeVMThreadDump(handle);
        for (int i = 0; i < 100 && !Files.readString(out).contains("Full thread dump"); i++) {
            Thread.sleep(100);
        }
        glue.kill(handle);
        glue.waitForTermination(handle);
        glue.done(handle);
        assertTrue(Files.readString(out).contains("Full thread dump"), Files.readString(out));
    }
}
