package com.norvane.quillon;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTimeoutPreemptively;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.IOException;
import java.io.OutputStream;
import java.lang.reflect.Field;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.Callable;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** The process object owns its native handle and pipes: closes, garbage collection and waits may race. */
class OwnershipTest {
    private static boolean gone(long pid) {
        return !Files.exists(Path.of("/proc/" + pid));
    }

    @Test
    void afterCloseEveryCallButCloseIsRefusedAndTheChildIsStillCollected() throws Exception {
        NativeProcess process = new Launcher("sleep", "30").start();
        long pid = process.pid();
        ProcessHandle handle = process.toHandle();
        process.close();
        process.close();
        Map<String, Executable> calls = new LinkedHashMap<>();
        calls.put("pid", process::pid);
        calls.put("isAlive", process::isAlive);
        calls.put("exitValue", process::exitValue);
        calls.put("exitSignal", process::exitSignal);
        calls.put("waitFor", process::waitFor);
        calls.put("timed waitFor", () -> process.waitFor(1, TimeUnit.SECONDS));
        calls.put("onExit", process::onExit);
        calls.put("toHandle", process::toHandle);
        calls.put("getInputStream", process::getInputStream);
        calls.put("destroy", process::destroy);
        calls.put("stop", () -> process.stop(Duration.ZERO));
        calls.put("killTree", process::killTree);
        calls.put("requestThreadDump", process::requestThreadDump);
        calls.forEach((name, call) -> assertThrows(IllegalStateException.class, call, name));
        assertTrue(handle.destroyForcibly());
        for (int i = 0; i < 100 && !gone(pid); i++) {
            Thread.sleep(20);
        }
        assertTrue(gone(pid), "the closed object's child was collected, no zombie");
    }

    /** Runs each call in a thread of its own and returns once every one of them waits inside the call. */
    private static List<Future<Object>> waitingIn(ExecutorService pool, List<Callable<Object>> calls)
        throws InterruptedException {
        List<Thread> threads = new CopyOnWriteArrayList<>();
        List<Future<Object>> futures = new ArrayList<>();
        for (Callable<Object> call : calls) {
            futures.add(pool.submit(() -> {
                threads.add(Thread.currentThread());
                return call.call();
            }));
        }
        while (threads.size() < calls.size() ||
               threads.stream().anyMatch(t -> t.getState() == Thread.State.RUNNABLE)) {
            Thread.sleep(10);
        }
        return futures;
    }

    @ParameterizedTest(name = "detached: {0}")
    @ValueSource(booleans = {false, true})
    void closeLetsTheWaitsInProgressFinishWithTheOutcome(boolean detached) throws Exception {
        ExecutorService pool = Executors.newCachedThreadPool();
        try {
            NativeProcess process = new Launcher("sleep", "30").detached(detached).start();
            ProcessHandle handle = process.toHandle();
            CompletableFuture<Process> exit = process.onExit();
            List<Future<Object>> waits =
                waitingIn(pool, List.of(process::waitFor, () -> process.waitFor(20, TimeUnit.SECONDS)));
            process.close();
            assertThrows(IllegalStateException.class, process::waitFor, "a wait that starts after the close");
            handle.destroyForcibly();
            assertEquals(detached ? 0 : 137, waits.get(0).get(10, TimeUnit.SECONDS));
            assertEquals(true, waits.get(1).get(10, TimeUnit.SECONDS));
            assertSame(process, exit.get(10, TimeUnit.SECONDS));
        } finally {
            pool.shutdown();
        }
    }

    /**
     * A child's end is still collected after a close, so its futures complete; nobody follows any other
     * process.
     */
    @ParameterizedTest(name = "detached: {0}")
    @ValueSource(booleans = {false, true})
    void closeWithoutWaitsEndsTheFollowingOfAProcessThatIsNoChild(boolean detached) throws Exception {
        int followed = followed();
        NativeProcess process = new Launcher("sleep", "30").detached(detached).start();
        ProcessHandle handle = process.toHandle();
        CompletableFuture<Process> exit = process.onExit();
        process.close();
        if (detached) {
            ExecutionException e =
                assertThrows(ExecutionException.class, () -> exit.get(10, TimeUnit.SECONDS));
            assertInstanceOf(IllegalStateException.class, e.getCause());
            assertTrue(followed() <= followed, "the event thread still holds the object");
            handle.destroyForcibly();
        } else {
            assertFalse(exit.isDone());
            handle.destroyForcibly();
            assertSame(process, exit.get(10, TimeUnit.SECONDS));
        }
    }

    /** How many processes and pipes the event thread follows now. */
    private static int followed() throws ReflectiveOperationException {
        Field targets = EventLoop.class.getDeclaredField("targets");
        targets.setAccessible(true);
        synchronized (EventLoop.class) {
            Map<?, ?> map = (Map<?, ?>) targets.get(null);
            return map == null ? 0 : map.size();
        }
    }

    /** The pipes the JVM holds now. */
    private static long pipes() throws IOException {
        try (Stream<Path> fds = Files.list(Path.of("/proc/self/fd"))) {
            return fds.filter(fd -> {
                try {
                    return Files.readSymbolicLink(fd).toString().startsWith("pipe:");
                } catch (IOException gone) {
                    return false;
                }
            }).count();
        }
    }

    @ParameterizedTest(name = "streams handed out: {0}")
    @ValueSource(booleans = {false, true})
    void closeGivesBackEveryPipeOfARunningProgram(boolean handedOut) throws Exception {
        long before = pipes();
        NativeProcess process = new Launcher("sleep", "30").start();
        ProcessHandle handle = process.toHandle();
        if (handedOut) {
            process.getOutputStream();
            process.getInputStream();
            process.getErrorStream();
        }
        assertEquals(before + 3, pipes());
        process.close();
        assertEquals(before, pipes(), "stdin's, stdout's and stderr's pipes");
        handle.destroyForcibly();
    }

    /** Several objects follow one process: closing one leaves the others following it to its end. */
    @ParameterizedTest(name = "closed first: {0}")
    @ValueSource(strings = {"an adoption", "the launched one"})
    void closingOneOfSeveralObjectsOfAProcessLeavesTheOthersFollowingIt(String closed) throws Exception {
        NativeProcess launched = new Launcher("sleep", "30").start();
        NativeProcess first = NativeProcess.adopt(launched.pid());
        NativeProcess second = NativeProcess.adopt(launched.pid());
        ProcessHandle handle = launched.toHandle();
        List<CompletableFuture<Process>> exits = new ArrayList<>(List.of(second.onExit()));
        if (closed.equals("an adoption")) {
            exits.add(launched.onExit());
            first.close();
        } else {
            exits.add(first.onExit());
            launched.close();
        }
        handle.destroyForcibly();
        for (CompletableFuture<Process> exit : exits) {
            assertFalse(exit.get(10, TimeUnit.SECONDS).isAlive());
        }
        for (NativeProcess process : List.of(launched, first, second)) {
            process.close();
        }
    }

    /**
     * What close finds unflushed still reaches the program, also when its pipe is full and the program reads
     * only later: close never waits for that.
     */
    @ParameterizedTest(name = "pipe full: {0}")
    @ValueSource(booleans = {false, true})
    void closeHandsTheUnflushedTailToTheProgramWithoutWaitingForItToRead(boolean full, @TempDir Path dir)
        throws Exception {
        Path go = dir.resolve("go");
        assertEquals(0, new ProcessBuilder("mkfifo", go.toString()).start().waitFor());
        Path out = dir.resolve("out");
        NativeProcess cat = new Launcher("/bin/sh", "-c", "read go < " + go + "; exec cat")
                                .redirectOutput(out.toFile())
                                .start();
        ProcessHandle handle = cat.toHandle();
        OutputStream stdin = cat.getOutputStream();
        byte[] filling = new byte[full ? 65536 : 0]; // what the kernel's pipe holds
        stdin.write(filling);
        stdin.flush();
        stdin.write("the tail of the input".getBytes(StandardCharsets.UTF_8));
        try {
            assertTimeoutPreemptively(Duration.ofSeconds(10), cat::close,
                                      "close waited for the program to read");
        } finally {
            Files.writeString(go, "go\n");
        }
        handle.onExit().get(10, TimeUnit.SECONDS);
        assertEquals(new String(filling, StandardCharsets.UTF_8) + "the tail of the input",
                     Files.readString(out));
    }

    /** Each racer, a read of stdout among them, either completes or meets the close; nothing else, nothing hangs. */
    @Test
    void closeWaitsAndOnExitRacingOnManyProcesses() throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(6);
        try {
            for (int i = 0; i < 300; i++) {
                NativeProcess process = new Launcher("/bin/sh", "-c", i % 2 == 0 ? "exit 3" : "sleep 0.01").start();
                List<Callable<Object>> racers = List.of(process::waitFor, () -> process.waitFor(5, TimeUnit.MILLISECONDS),
                        () -> process.onExit().get(), process::isAlive, () -> {
                            process.close();
                            return null;
                        }, () -> process.getInputStream().read());
                for (Future<Object> outcome : pool.invokeAll(racers, 10, TimeUnit.SECONDS)) {
                    try {
                        outcome.get();
                    } catch (ExecutionException e) {
                        Throwable cause = e.getCause() instanceof ExecutionException inner ? inner.getCause() : e.getCause();
                        if (!(cause instanceof IllegalStateException) && !(cause instanceof IOException
                                && "Stream closed".equals(cause.getMessage()))) {
                            fail("unexpected outcome", cause);
                        }
                    }
                }
            }
        } finally {
            pool.shutdown();
        }
    }

    /** Launches echo from eight threads; every tenth process is dropped unread, unwaited and unclosed. */
    private static void launchMany(int count) throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(8);
        List<Future<?>> runs = new ArrayList<>();
        for (int t = 0; t < 8; t++) {
            final int thread = t;
            runs.add(pool.submit(() -> {
                for (int n = thread; n < count; n += 8) {
                    NativeProcess process = new Launcher("/bin/echo", "hi", Integer.toString(n)).start();
                    if (n % 10 == 0) {
                        continue; // left to the watcher and the garbage collector
                    }
                    try (process) {
                        assertEquals("hi " + n + "\n",
                                new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8));
                        assertEquals(0, process.waitFor());
                    }
                }
                return null;
            }));
        }
        for (Future<?> run : runs) {
            run.get();
        }
        pool.shutdown();
        assertTrue(pool.awaitTermination(10, TimeUnit.SECONDS));
    }

    @Test
    void tenThousandLaunchesFromEightThreadsLeaveNoDescriptorThreadOrZombieBehind() throws Exception {
        launchMany(200); // starts the watcher and cleaner threads, opens what the JVM opens lazily
        System.gc();
        Thread.sleep(500);
        long zombies = ProcessCounts.zombieChildren(); // first: its first read opens what the JDK keeps for good
        long fds = ProcessCounts.descriptors();
        int threads = Thread.getAllStackTraces().size();
        launchMany(10_000);
        boolean settled = false;
        for (int i = 0; i < 100 && !settled; i++) { // the dropped ones go with the garbage
            System.gc();
            Thread.sleep(100);
            settled = ProcessCounts.descriptors() <= fds && Thread.getAllStackTraces().size() <= threads &&
                      ProcessCounts.zombieChildren() <= zombies;
        }
        assertEquals(fds, Math.max(fds, ProcessCounts.descriptors()), "descriptors");
        assertEquals(threads, Math.max(threads, Thread.getAllStackTraces().size()),
                () -> "threads: " + Thread.getAllStackTraces().keySet());
        assertEquals(zombies, Math.max(zombies, ProcessCounts.zombieChildren()), "zombie children");
        assertFalse(zombies > 0, "zombie children before");
    }
}
