package com.norvane.quillon;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** Everyday jobs in one call: run with a time limit, kernel pipelines, output handlers. */
class RunTest {
    private static final Duration LONG = Duration.ofSeconds(60);

    private static Launcher shell(String script) { return new Launcher("/bin/sh", "-c", script); }

    private static String text(Process process) throws IOException {
        return new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
    }

    @Test
    void tenMegabytesOnStdoutAndStderrAtOnceAreCapturedWhole() throws Exception {
        int size = 10 << 20;
        ProcessResult result = shell("head -c " + size + " /dev/zero | tr '\\0' o & head -c " + size +
                                     " /dev/zero | tr '\\0' e >&2; wait")
                                   .run(LONG);
        assertEquals(0, result.exitValue());
        assertEquals("o".repeat(size), result.stdout());
        assertEquals("e".repeat(size), result.stderr());
        assertFalse(result.truncated());
        assertFalse(result.timedOut());
    }

    @Test
    void atTheLimitTheTreeIsKilledAndTheRunReturnsAlsoWhenAProcessStillHoldsThePipe() throws Exception {
        // The grandchildren hold stdout; one of them leaves the process group and escapes the kill.
        Duration limit = Duration.ofMillis(500);
        long begin = System.nanoTime();
        ProcessResult result = shell("sleep 30 & echo $!; setsid sleep 20 & echo $!; sleep 30").run(limit);
        long took = (System.nanoTime() - begin) / 1_000_000;
        assertTrue(took >= limit.toMillis() && took < 10_000, "took " + took + " ms"); // not the escaped one's 20 s
        assertTrue(result.timedOut());
        assertEquals(137, result.exitValue());
        long[] pids = result.stdout().lines().mapToLong(Long::parseLong).toArray();
        assertEquals(2, pids.length, result.stdout());
        ProcessHandle.of(pids[1]).ifPresent(ProcessHandle::destroy);
        assertTrue(LauncherTest.allEnded(List.of(pids[0]), 5000), "the grandchild in the group was killed");
        ProcessFailedException e = assertThrows(ProcessFailedException.class, result::checkExit);
        assertTrue(e.getMessage().contains("ran out of time"), e.getMessage());
    }

    /** Once the program itself has ended, what is left of its group still dies at the limit. */
    @ParameterizedTest(name = "new process group asked for: {0}")
    @ValueSource(booleans = {false, true})
    void aGrandchildLeftBehindByAnEndedProgramDiesAtTheLimit(boolean asked) throws Exception {
        Launcher launcher = shell("sleep 30 & echo $!");
        ProcessResult result = (asked ? launcher.newProcessGroup() : launcher).run(Duration.ofMillis(300));
        assertTrue(result.timedOut(), "the grandchild held stdout");
        assertEquals(0, result.exitValue(), "the program itself exited");
        assertTrue(LauncherTest.allEnded(List.of(Long.parseLong(result.stdout().strip())), 1000));
    }

    @Test
    void limitsBeyondWhatNanoTimeCountsMeanNoLimitAndLimitsNotPositiveAreRefused() throws Exception {
        for (Duration endless : List.of(Duration.ofSeconds(Long.MAX_VALUE), ChronoUnit.FOREVER.getDuration(),
                                        Duration.ofNanos(Long.MAX_VALUE))) {
            ProcessResult result = new Launcher("true").run(endless);
            assertFalse(result.timedOut(), endless.toString());
            assertEquals(0, result.exitValue(), endless.toString());
        }
        for (Duration refused :
             List.of(Duration.ZERO, Duration.ofNanos(-1), Duration.ofSeconds(Long.MIN_VALUE))) {
            assertThrows(IllegalArgumentException.class,
                         () -> new Launcher("true").run(refused), refused.toString());
        }
    }

    @Test
    void checkExitCarriesTheResultAndTheTailOfStderr() throws Exception {
        ProcessResult result = shell("seq 1 5000 >&2; echo the last words >&2; exit 3").run(LONG);
        ProcessFailedException e = assertThrows(ProcessFailedException.class, result::checkExit);
        assertEquals(3, e.result().exitValue());
        assertTrue(e.getMessage().startsWith(
                       "Program [/bin/sh, -c, seq 1 5000 >&2; echo the last words >&2; exit 3] "
                       + "exited with 3: "),
                   e.getMessage());
        assertTrue(e.getMessage().endsWith("4999\n5000\nthe last words"), e.getMessage());
        assertTrue(e.stderrTail().length() <= 2000);
        ProcessResult success = shell("exit 0").run(LONG);
        assertEquals(success, success.checkExit());
    }

    @ParameterizedTest(name = "{0} bytes kept of {1}")
    @CsvSource({"0, 10", "100, 100", "100, 101", "65536, 1000000"})
    void theCaptureLimitKeepsTheFirstBytesAndReadsTheRest(long limit, int written) throws Exception {
        ProcessResult result = shell("head -c " + written + " /dev/zero | tr '\\0' x; echo done >&2")
                                   .captureLimit(limit)
                                   .run(LONG);
        assertEquals(0, result.exitValue(), "the program was not blocked on a full pipe");
        assertEquals("x".repeat((int)Math.min(limit, written)), result.stdout());
        assertEquals(written > limit, result.truncated());
        assertEquals("done\n".substring(0, (int)Math.min(limit, 5)), result.stderr(),
                     "the limit is per stream");
    }

    @Test
    void inputIsFedToStdinAndAProgramThatReadsLessIsNoFailure() throws Exception {
        byte[] input = "line\n".repeat(100_000).getBytes(StandardCharsets.UTF_8);
        ProcessResult result = new Launcher("wc", "-l").run(input, LONG);
        assertEquals("100000\n", result.stdout());
        assertEquals(0, shell("head -c 1").run(input, LONG).exitValue());
        assertEquals("", new Launcher("cat").run(LONG).stdout(), "no input: end of file at once");
    }

    @Test
    void aPipelineOfThreeStagesGivesWhatTheShellGives() throws Exception {
        String expected = text(new ProcessBuilder("/bin/sh", "-c", "seq 1 100000 | grep 7 | wc -l").start());
        List<NativeProcess> stages = Launcher.startPipeline(
            List.of(new Launcher("seq", "1", "100000"), new Launcher("grep", "7"), new Launcher("wc", "-l")));
        try {
            assertEquals(expected, text(stages.get(2)));
            assertEquals(-1, stages.get(0).getInputStream().read(),
                         "the pipe between stages is no stream of ours");
            for (NativeProcess stage : stages) {
                assertEquals(0, stage.waitFor());
            }
        } finally {
            stages.forEach(NativeProcess::close);
        }
    }

    @Test
    void theEndOfOneStageEndsTheOthersAtOnce() throws Exception {
        List<NativeProcess> stages =
            Launcher.startPipeline(List.of(new Launcher("yes"), new Launcher("head", "-1")));
        try {
            assertEquals("y\n", text(stages.get(1)));
            assertTrue(stages.get(0).waitFor(5, TimeUnit.SECONDS), "yes saw SIGPIPE");
            assertEquals(128 + 13, stages.get(0).exitValue());
        } finally {
            stages.forEach(NativeProcess::close);
        }
    }

    @Test
    void aPipelineWhoseStageCannotStartLeavesNoDescriptorOpen() throws Exception {
        List<Launcher> stages = List.of(new Launcher("seq", "1", "100000"), new Launcher("/no/such/program"),
                                        new Launcher("wc", "-l"));
        // A first failure opens what the JVM opens lazily for good (classes of the failure path, their jars).
        assertThrows(IOException.class, () -> Launcher.startPipeline(stages));
        long before = ProcessCounts.descriptors();
        for (int i = 0; i < 20; i++) {
            IOException e = assertThrows(IOException.class, () -> Launcher.startPipeline(stages));
            assertTrue(e.getMessage().contains("/no/such/program"), e.getMessage());
        }
        long after = ProcessCounts.descriptors();
        for (int i = 0; i < 50 && after > before; i++) { // the killed first stage's stderr goes with its end
            Thread.sleep(100);
            after = ProcessCounts.descriptors();
        }
        assertTrue(after <= before, "descriptors " + before + " -> " + after);
    }

    @Test
    void aPipelineRefusesRedirectsOfTheStreamsItJoins() {
        assertThrows(IllegalArgumentException.class,
                     ()
                         -> Launcher.startPipeline(
                             List.of(new Launcher("true").redirectOutput(ProcessBuilder.Redirect.DISCARD),
                                     new Launcher("cat"))));
    }

    /** Counts and checks what a handler sees: every line of seq in order, and the end once. */
    private static final class SeqChecker implements OutputHandler {
        private final OutputHandler lines = OutputHandler.lines(this::line);
        private final CompletableFuture<Long> ended = new CompletableFuture<>();
        private long expected = 1;
        private long bytes;

        private void line(String line) {
            if (!line.equals(Long.toString(expected))) {
                ended.completeExceptionally(new AssertionError("line " + expected + " was " + line));
            }
            expected++;
        }

        @Override
        public void onOutput(ByteBuffer chunk) throws Exception {
            if (!chunk.hasRemaining()) { // the end of the stream is onEnd, never an empty chunk
                ended.completeExceptionally(new AssertionError("an empty chunk after " + bytes + " bytes"));
            }
            bytes += chunk.remaining();
            lines.onOutput(chunk);
        }

        @Override
        public void onEnd() throws Exception {
            lines.onEnd();
            ended.complete(bytes);
        }
    }

    @Test
    void aHandlerSeesEveryByteOf100MiBInOrderWhileOtherProcessesHandlersAreSlow() throws Exception {
        List<NativeProcess> slow = new ArrayList<>();
        try {
            for (int i = 0; i < 2; i++) { // each chunk holds a handler thread for 3 s
                slow.add(shell("while :; do echo slow; sleep 0.1; done").onOutput(chunk -> Thread.sleep(3000)).start());
            }
            Thread.sleep(200); // both slow handlers hold a thread of the pool
            SeqChecker checker = new SeqChecker();
            long count = 13_000_000;
            long begin = System.nanoTime();
            try (NativeProcess seq =
                     new Launcher("seq", "1", Long.toString(count)).onOutput(checker).start()) {
                long bytes = checker.ended.get(120, TimeUnit.SECONDS);
                assertEquals(count + 1, checker.expected);
                assertTrue(bytes > 100L << 20, bytes + " bytes");
                assertEquals(0, seq.waitFor());
                assertEquals(-1, seq.getInputStream().read(), "stdout went to the handler");
            }
            long took = (System.nanoTime() - begin) / 1_000_000;
            assertTrue(slow.stream().allMatch(Process::isAlive) && took < 60_000, "took " + took + " ms");
        } finally {
            for (NativeProcess process : slow) {
                process.destroyForcibly().waitFor();
                process.close();
            }
        }
    }

    @Test
    void aHandlerThatThrowsStopsItsOwnProcessesDeliveriesOnly() throws Exception {
        AtomicLong calls = new AtomicLong();
        SeqChecker other = new SeqChecker();
        try (NativeProcess failing = new Launcher("seq", "1", "1000000")
                                         .onOutput(chunk -> {
                                             calls.incrementAndGet();
                                             throw new IllegalStateException("deliberately");
                                         })
                                         .start();
             NativeProcess fine = new Launcher("seq", "1", "1000").onOutput(other).start()) {
            assertEquals(0, failing.waitFor(), "its output was read on, so it never blocked");
            assertEquals(1, calls.get());
            assertEquals(1001, other.ended.get(10, TimeUnit.SECONDS) > 0 ? other.expected : -1);
        }
    }

    /** Many programs at once, each with handlers on both streams: every byte and every end arrives. */
    @Test
    void everyEndOfManyProcessesDeliveriesArrives() throws Exception {
        int count = 200;
        AtomicLong bytes = new AtomicLong();
        CountDownLatch ends = new CountDownLatch(2 * count);
        OutputHandler counting = new OutputHandler() {
            @Override
            public void onOutput(ByteBuffer chunk) {
                bytes.addAndGet(chunk.remaining());
            }

            @Override
            public void onEnd() {
                ends.countDown();
            }
        };
        List<NativeProcess> processes = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            processes.add(
                shell("sleep 0.2; echo out; echo err >&2").onOutput(counting).onError(counting).start());
        }
        try {
            assertTrue(ends.await(30, TimeUnit.SECONDS), ends.getCount() + " ends missing");
            assertEquals(8L * count, bytes.get());
        } finally {
            processes.forEach(NativeProcess::close);
        }
    }

    @Test
    void linesAreSplitAcrossChunksAndCharactersOverChunkBoundaries() throws Exception {
        List<String> lines = new ArrayList<>();
        OutputHandler handler = OutputHandler.lines(lines::add);
        byte[] text = "één\r\ntwee\n\ndrie".getBytes(StandardCharsets.UTF_8);
        for (byte b : text) {
            handler.onOutput(ByteBuffer.wrap(new byte[] {b}));
        }
        handler.onEnd();
        assertEquals(List.of("één", "twee", "", "drie"), lines);
    }
}
