package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.norvane.quillon.process.exception.ProcessHasExitedException;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Waits wake when the process ends; every handle on a process reads one status; an ended handle reaches no one. */
class SupervisionTest {
    private static final UnixProcessGlue GLUE = UnixProcessGlue.get();

    private static long shell(String script, boolean detached) throws ProcessOpException {
        return GLUE.create("/bin/sh", new String[] {"-c", script}, null, null, 20, null, 022, null, null, 0, null, true,
                detached);
    }

    @ParameterizedTest(name = "{0} child, {1} limit")
    @CsvSource({"a, no", "a, a 10 s", "no, no", "no, a 10 s"})
    void aWaitReturnsSoonAfterTheEnd(String child, String limit) throws Exception {
        long handle = shell("sleep 0.3", child.equals("no"));
        long start = System.nanoTime();
        if (limit.equals("no")) {
            GLUE.waitForTermination(handle);
        } else {
            GLUE.waitForTerminationWithTimeout(handle, 10);
        }
        long millis = (System.nanoTime() - start) / 1_000_000;
        GLUE.done(handle);
        assertTrue(millis >= 250 && millis < 800, "returned after " + millis + " ms"); // bench: the exact latency
    }

    @Test
    void aTimedWaitLooksAtItsDeadlineAndALimitOfZeroLooksOnce() throws Exception {
        long handle = shell("sleep 0.3; exit 5", false);
        GLUE.waitForTerminationWithTimeout(handle, 1);
        assertEquals(5, GLUE.getExitCode(handle));
        GLUE.done(handle);
        long ended = shell("exit 6", false);
        Thread.sleep(300);
        GLUE.waitForTerminationWithTimeout(ended, 0);
        assertEquals(6, GLUE.getExitCode(ended));
        GLUE.done(ended);
    }

    @Test
    void aZombieThatIsNoChildCountsAsEnded(@TempDir Path dir) throws Exception {
        // The shell's background child ends, and its parent, now sleep, never reaps it.
        Path pid = dir.resolve("pid");
        long parent = GLUE.create("/bin/sh", new String[] {"-c", "sleep 0.3 & echo $! > " + pid + "; exec sleep 30"},
                null, null, 20, null, 022, null, null, 0, null, true, false);
        while (!Files.exists(pid) || Files.readString(pid).isBlank()) {
            Thread.sleep(10);
        }
        long zombie = GLUE.recreate(Files.readString(pid).trim());
        long start = System.nanoTime();
        GLUE.waitForTerminationWithTimeout(zombie, 5);
        assertTrue(System.nanoTime() - start < 2_000_000_000L, "a zombie looked alive");
        assertEquals(0, GLUE.ping(zombie));
        GLUE.done(zombie);
        GLUE.kill(parent);
        GLUE.waitForTermination(parent);
        GLUE.done(parent);
    }

    @Test
    void everyHandleOnOneChildReadsItsStatusWhicheverCollectsIt() throws Exception {
        for (int round = 0; round < 10; round++) {
            long launched = shell("sleep 0.1; exit 42", false);
            long adopted = GLUE.recreate(GLUE.id(launched));
            GLUE.waitForTermination(round % 2 == 0 ? adopted : launched);
            assertEquals(42, GLUE.getExitCode(launched), "launched, round " + round);
            assertEquals(42, GLUE.getExitCode(adopted), "adopted, round " + round);
            GLUE.done(adopted);
            GLUE.done(launched);
        }
        // Adopting a child that has ended collects it: the adoption fails, the launching handle keeps the status.
        long zombie = shell("exit 43", false);
        Thread.sleep(300);
        assertThrows(ProcessHasExitedException.class, () -> GLUE.recreate(GLUE.id(zombie)));
        assertEquals(43, GLUE.getExitCode(zombie));
        GLUE.done(zombie);
    }

    @Test
    void waitsProbesAndReadsOnManyShortProcessesAllSeeTheProgramsCode() throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(8);
        ExecutorService readerPool = Executors.newFixedThreadPool(48); // 8 processes at a time, 6 readers each
        List<Future<String>> disagreements = new ArrayList<>();
        for (int n = 0; n < 2000; n++) {
            int code = n % 256;
            long launched = shell("exit " + code, false);
            long adopted;
            try {
                adopted = GLUE.recreate(GLUE.id(launched));
            } catch (ProcessHasExitedException ended) { // collected at once by the adoption
                adopted = 0;
            }
            long[] handles = adopted == 0 ? new long[] {launched} : new long[] {launched, adopted};
            List<Callable<Integer>> readers = new ArrayList<>();
            for (long h : handles) {
                readers.add(() -> {
                    GLUE.waitForTermination(h);
                    return GLUE.getExitCode(h);
                });
                readers.add(() -> {
                    GLUE.waitForTerminationWithTimeout(h, 10);
                    return GLUE.getExitCode(h);
                });
                readers.add(() -> {
                    while (GLUE.ping(h) == 1) {
                        Thread.onSpinWait();
                    }
                    return GLUE.getExitCode(h);
                });
            }
            disagreements.add(pool.submit(() -> {
                StringBuilder wrong = new StringBuilder();
                for (Future<Integer> read : readerPool.invokeAll(readers)) {
                    if (read.get() != code) {
                        wrong.append(read.get()).append(' ');
                    }
                }
                for (long h : handles) {
                    GLUE.done(h);
                }
                return wrong.length() == 0 ? "" : code + " read as " + wrong;
            }));
        }
        for (Future<String> disagreement : disagreements) {
            assertEquals("", disagreement.get());
        }
        pool.shutdown();
        readerPool.shutdown();
    }

    /** A handle on a process that ended reaches no other that has its PID now (nor its children): ns_last_pid. */
    @ParameterizedTest(name = "{0}")
    @CsvSource({"launched child", "adopted no child"})
    void anEndedHandleNeverSignalsTheProcessThatReusesItsPid(String kind) throws Exception {
        Path lastPid = Path.of("/proc/sys/kernel/ns_last_pid");
        assumeTrue(ChildJvm.isRoot() && Files.isWritable(lastPid), "needs root and ns_last_pid to reuse a PID");
        boolean adopted = kind.startsWith("adopted");
        for (int attempt = 0; attempt < 20; attempt++) {
            long first = shell("exec sleep 30", adopted);
            long handle = adopted ? GLUE.recreate(GLUE.id(first)) : first;
            int pid = Integer.parseInt(GLUE.id(handle));
            GLUE.kill(first);
            GLUE.waitForTermination(first);
            while (adopted && Files.exists(Path.of("/proc/" + pid))) { // init reaps it
                Thread.sleep(10);
            }
            Files.writeString(lastPid, Integer.toString(pid - 1));
            long other = shell("sleep 30 & wait", false); // with a child, for the tree kill to miss

            try {
                if (Integer.parseInt(GLUE.id(other)) != pid) {
                    continue; // another process took the PID first
                }
                Thread.sleep(100);
                GLUE.kill(handle);
                GLUE.stop(handle);
                GLUE.pokeVMThreadDump(handle);
                NativeProcessGlue.get().killTree(handle);
                assertEquals(0, GLUE.ping(handle));
                Thread.sleep(100);
                assertEquals(1, GLUE.ping(other), "the process that has the PID now, or its child, was signalled");
                return;
            } finally {
                GLUE.kill(other);
                GLUE.waitForTermination(other);
                GLUE.done(other);
                if (adopted) {
                    GLUE.done(handle);
                }
                GLUE.done(first);
            }
        }
        assumeTrue(false, "another process took the PID each time");
    }
}
