package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.norvane.quillon.process.linuxutil.ThreadUtil;
import java.util.Collections;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.Callable;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import org.junit.jupiter.api.Test;

class UtilityTest {
    private final EnvUtilGlue env = EnvUtilGlue.get();
    private final ThreadUtil threads = ThreadUtil.get();

    @Test
    void getenvGivesTheValueOrTheEmptyString() {
        assertEquals(System.getenv("PATH"), env.native_getenv("PATH"));
        assertEquals("", env.native_getenv("QUILLON_SURELY_UNSET"));
        assertEquals("", env.native_getenv(null));
    }

    @Test
    void theWholeEnvironmentOfAJvmStartedWithAKnownOne() throws Exception {
        String out = ChildJvm.run(false, Map.of("A", "1", "EMPTY", "", "B", "x=y"), true, Probe.class, "environment");
        assertEquals(Set.of("A=1", "EMPTY=", "B=x=y"), Set.of(out.trim().replaceAll("^\\[|\\]$", "").split(", ")));
        assertEquals("[ONLY=1]\n", ChildJvm.run(false, Map.of("ONLY", "1"), true, Probe.class, "environment"));
        assertEquals("[]\n[1]\n", ChildJvm.run(false, Map.of("EMPTY", "", "ONE", "1"), true, Probe.class, "getenv",
                "EMPTY", "getenv", "ONE"));
        assertEquals("null\n", ChildJvm.run(false, Map.of(), true, Probe.class, "environment"));
    }

    @Test
    void mutexesLockAndTrylockAcrossThreads() throws Exception {
        long mutex = threads.createMutex();
        assertNotEquals(0, mutex);
        assertEquals(0, threads.mutexTrylock(mutex));
        assertEquals(-1, CompletableFuture.supplyAsync(() -> threads.mutexTrylock(mutex)).get());
        threads.mutexUnlock(mutex);
        threads.mutexLock(mutex);
        threads.mutexUnlock(mutex);
        assertEquals(0, threads.freeMutex(mutex));
    }

    @Test
    void handleZeroIsNoMutex() {
        assertEquals(0, threads.mutexTrylock(0));
        threads.mutexLock(0);
        threads.mutexUnlock(0);
        assertEquals(0, threads.freeMutex(0));
    }

    @Test
    void posixThreadingIsDeterminedOnceWhateverTheNumberOfAskers() throws Exception {
        int askers = 8;
        CyclicBarrier start = new CyclicBarrier(askers);
        ExecutorService pool = Executors.newFixedThreadPool(askers);
        Callable<Boolean> ask = () -> {
            start.await();
            return threads.isPOSIXThreading();
        };
        for (Future<Boolean> answer : pool.invokeAll(Collections.nCopies(askers, ask))) {
            assertTrue(answer.get());
        }
        pool.shutdown();
        String traced = ChildJvm.run(false, Map.of("__JNI_PROCESS_DEBUG", ""), false, Probe.class, "threading",
                "threading", "threading");
        assertEquals(1, traced.split("Thread created\\?", -1).length - 1, "one probe thread: " + traced);
        assertEquals(3, traced.split("NPTL or similar detected", -1).length - 1, traced);
    }
}
