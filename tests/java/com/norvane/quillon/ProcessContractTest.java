package com.norvane.quillon;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTimeoutPreemptively;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.norvane.quillon.process.exception.InvalidDirectoryException;
import com.norvane.quillon.process.exception.InvalidExecutableException;
import com.norvane.quillon.process.exception.InvalidFileException;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.function.Consumer;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.EnumSource;
import org.junit.jupiter.params.provider.MethodSource;

/** The same checks against ProcessBuilder's processes and Launcher's, which must behave alike. */
class ProcessContractTest {
    enum Kind {
        PROCESS_BUILDER,
        LAUNCHER;

        /** Starts what the builder describes, with a Launcher set up alike for LAUNCHER. */
        Process start(ProcessBuilder builder) throws IOException {
            if (this == PROCESS_BUILDER) {
                return builder.start();
            }
            Launcher launcher = new Launcher().command(builder.command()).directory(builder.directory())
                    .redirectInput(builder.redirectInput()).redirectOutput(builder.redirectOutput())
                    .redirectError(builder.redirectError()).redirectErrorStream(builder.redirectErrorStream());
            if (!builder.environment().equals(System.getenv())) {
                launcher.environment().clear();
                launcher.environment().putAll(builder.environment());
            }
            return launcher.start();
        }
    }

    private final List<Process> started = new ArrayList<>();

    private Process start(Kind kind, ProcessBuilder builder) throws IOException {
        Process process = kind.start(builder);
        started.add(process);
        return process;
    }

    private Process shell(Kind kind, String script) throws IOException {
        return start(kind, new ProcessBuilder("/bin/sh", "-c", script));
    }

    @AfterEach
    void endEverything() throws Exception {
        for (Process process : started) {
            process.destroyForcibly().waitFor();
            if (process instanceof AutoCloseable closeable) {
                closeable.close();
            }
        }
    }

    private static String text(InputStream in) {
        try {
            return new String(in.readAllBytes(), StandardCharsets.UTF_8);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    @ParameterizedTest(name = "{0}")
    @EnumSource(Kind.class)
    void largeOutputOnStdoutAndStderrAtOnceDoesNotDeadlock(Kind kind) throws Exception {
        int size = 3_000_000;
        Process process = shell(kind, "head -c " + size + " /dev/zero | tr '\\0' o & head -c " + size
                + " /dev/zero | tr '\\0' e >&2; wait");
        assertTimeoutPreemptively(Duration.ofSeconds(60), () -> {
            CompletableFuture<String> err = CompletableFuture.supplyAsync(() -> text(process.getErrorStream()));
            String out = text(process.getInputStream());
            assertEquals("o".repeat(size), out);
            assertEquals("e".repeat(size), err.get());
            assertEquals(0, process.waitFor());
        });
    }

    @ParameterizedTest(name = "{0}")
    @EnumSource(Kind.class)
    void closingStdinGivesTheProgramEndOfFile(Kind kind) throws Exception {
        Process process = shell(kind, "cat; echo end");
        try (OutputStream in = process.getOutputStream()) {
            in.write("line\n".repeat(20_000).getBytes(StandardCharsets.UTF_8));
        }
        assertEquals("line\n".repeat(20_000) + "end\n", text(process.getInputStream()));
        assertEquals(0, process.waitFor());
    }

    @ParameterizedTest(name = "{0}")
    @EnumSource(Kind.class)
    void outputStaysReadableAfterTheEnd(Kind kind) throws Exception {
        Process process = shell(kind, "echo out; echo err >&2");
        assertEquals(0, process.waitFor());
        Thread.sleep(100);
        assertEquals("out\n", text(process.getInputStream()));
        assertEquals("err\n", text(process.getErrorStream()));
    }

    @ParameterizedTest(name = "{0}")
    @EnumSource(Kind.class)
    void mergedStderrArrivesOnStdout(Kind kind) throws Exception {
        Process process = start(kind,
                new ProcessBuilder("/bin/sh", "-c", "echo out; echo err >&2").redirectErrorStream(true));
        assertEquals("out\nerr\n", text(process.getInputStream()));
        assertEquals(-1, process.getErrorStream().read());
        assertEquals(0, process.waitFor());
    }

    static Stream<Arguments> endings() {
        return Stream.of(Kind.values()).flatMap(kind -> Stream.of(
                Arguments.of(kind, "exit 0", 0),
                Arguments.of(kind, "exit 3", 3),
                Arguments.of(kind, "kill -TERM $$", 128 + 15),
                Arguments.of(kind, "kill -KILL $$", 128 + 9)));
    }

    @ParameterizedTest(name = "{0}: {1} gives {2}")
    @MethodSource("endings")
    void exitValueOfAnExitOrASignal(Kind kind, String script, int expected) throws Exception {
        Process process = shell(kind, script);
        assertEquals(expected, process.waitFor());
        assertEquals(expected, process.exitValue());
        assertFalse(process.isAlive());
    }

    static Stream<Arguments> destroys() {
        return Stream.of(Kind.values()).flatMap(kind -> Stream.of(
                Arguments.of(kind, "destroy", (Consumer<Process>) Process::destroy, 128 + 15),
                Arguments.of(kind, "destroyForcibly", (Consumer<Process>) Process::destroyForcibly, 128 + 9)));
    }

    @ParameterizedTest(name = "{0}: {1} gives {3}")
    @MethodSource("destroys")
    void timedWaitsOfARunningProgramThenItsDestruction(Kind kind, String name, Consumer<Process> destruction,
            int expected) throws Exception {
        Process process = start(kind, new ProcessBuilder("sleep", "30"));
        assertTrue(process.isAlive());
        assertThrows(IllegalThreadStateException.class, process::exitValue);
        assertFalse(process.waitFor(0, TimeUnit.SECONDS));
        long begin = System.nanoTime();
        assertFalse(process.waitFor(300, TimeUnit.MILLISECONDS));
        long waited = (System.nanoTime() - begin) / 1_000_000;
        assertTrue(waited >= 300 && waited < 2000, "waited " + waited + " ms");
        assertTrue(process.supportsNormalTermination());
        destruction.accept(process);
        assertTrue(process.waitFor(10, TimeUnit.SECONDS));
        assertEquals(expected, process.exitValue());
        assertFalse(process.isAlive());
    }

    static Stream<Arguments> failures() {
        return Stream.of(Kind.values()).flatMap(kind -> Stream.of(
                Arguments.of(kind, "missing program", new ProcessBuilder("/no/such/program"), "/no/such/program",
                        InvalidExecutableException.class),
                Arguments.of(kind, "missing directory", new ProcessBuilder("true").directory(new File("/no/such/dir")),
                        "/no/such/dir", InvalidDirectoryException.class),
                Arguments.of(kind, "stdout in a missing directory",
                        new ProcessBuilder("true").redirectOutput(new File("/no/dir/out")), "/no/dir/out",
                        InvalidFileException.class),
                Arguments.of(kind, "missing stdin file", new ProcessBuilder("cat").redirectInput(new File("/no/in")),
                        "/no/in", InvalidFileException.class)));
    }

    @ParameterizedTest(name = "{0}: {1}")
    @MethodSource("failures")
    void failuresToStartNameWhatWasAtFault(Kind kind, String name, ProcessBuilder builder, String culprit,
                                           Class<?> cause) {
        IOException e = assertThrows(IOException.class, () -> start(kind, builder));
        assertTrue(e.getMessage().startsWith("Cannot run program \"" + builder.command().get(0) + "\""),
                   e.getMessage());
        assertTrue(e.getMessage().contains(culprit), e.getMessage());
        assertTrue(e.getMessage().contains("No such file or directory"), e.getMessage());
        if (kind == Kind.LAUNCHER) {
            assertInstanceOf(cause, e.getCause());
            assertEquals("Error creating new process. 002: No such file or directory", e.getCause().getMessage());
        }
    }

    /** A file that holds content already: Redirect.to truncates it, Redirect.appendTo adds behind it. */
    @ParameterizedTest(name = "{0}: {1} of {2}")
    @CsvSource({"PROCESS_BUILDER, to, stdout", "PROCESS_BUILDER, appendTo, stdout",
                "PROCESS_BUILDER, to, stderr", "PROCESS_BUILDER, appendTo, stderr", "LAUNCHER, to, stdout",
                "LAUNCHER, appendTo, stdout", "LAUNCHER, to, stderr", "LAUNCHER, appendTo, stderr"})
    void redirectsToAFileThatHoldsContentTruncateOrAppend(Kind kind, String how, String stream, @TempDir Path dir)
            throws Exception {
        Path file = Files.writeString(dir.resolve("out"), "old content that is longer\n");
        ProcessBuilder.Redirect redirect = how.equals("to") ? ProcessBuilder.Redirect.to(file.toFile())
                                                            : ProcessBuilder.Redirect.appendTo(file.toFile());
        ProcessBuilder builder =
            new ProcessBuilder("/bin/sh", "-c", "echo new" + (stream.equals("stderr") ? " >&2" : ""));
        Process process =
            start(kind, stream.equals("stdout") ? builder.redirectOutput(redirect) : builder.redirectError(redirect));
        assertEquals(0, process.waitFor());
        assertEquals(how.equals("to") ? "new\n" : "old content that is longer\nnew\n", Files.readString(file));
    }

    /**
     * An ended process lets go of its descriptors without close() and without the garbage collector: the
     * objects stay reachable and the streams open, as code written for Process leaves them.
     */
    @ParameterizedTest(name = "{0}: {1}")
    @CsvSource({"PROCESS_BUILDER, read to the end", "LAUNCHER, read to the end",
                "PROCESS_BUILDER, destroyForcibly", "LAUNCHER, destroyForcibly"})
    void twoThousandEndedProcessesHoldNoDescriptor(Kind kind, String ending) throws Exception {
        boolean killed = ending.equals("destroyForcibly");
        shell(kind, "true").waitFor(); // what the JVM opens once, at the first launch
        long before = ProcessCounts.descriptors();
        List<Process> kept = new ArrayList<>();
        for (int i = 0; i < 2000; i++) {
            Process process = killed ? shell(kind, "exec sleep 30") : shell(kind, "echo " + i);
            kept.add(process);
            if (killed) {
                process.destroyForcibly();
            } else {
                assertEquals(i + "\n", text(process.getInputStream()));
            }
            assertEquals(killed ? 137 : 0, process.waitFor());
        }
        long after = ProcessCounts.descriptors();
        for (int i = 0; i < 100 && after > before + 10; i++) { // the ended ones' descriptors take a moment to go
            Thread.sleep(20);
            after = ProcessCounts.descriptors();
        }
        assertTrue(after <= before + 10, "descriptors: " + before + " -> " + after);
        started.removeAll(kept); // ended already
    }

    @ParameterizedTest(name = "{0}")
    @EnumSource(Kind.class)
    void stdinIsClosedWhenTheProgramEnds(Kind kind) throws Exception {
        Process process = shell(kind, "exit 0");
        OutputStream stdin = process.getOutputStream();
        assertEquals(0, process.waitFor());
        if (kind == Kind.PROCESS_BUILDER) {
            Thread.sleep(100); // its reaper closes stdin after it has told the waiters; the Launcher's before
        }
        stdin.write('x');
        IOException e = assertThrows(IOException.class, stdin::flush);
        assertEquals("Stream closed", e.getMessage());
    }

    @ParameterizedTest(name = "{0}")
    @EnumSource(Kind.class)
    void theEnvironmentMapIsAllTheProgramSees(Kind kind) throws Exception {
        ProcessBuilder builder = new ProcessBuilder("/usr/bin/env");
        builder.environment().clear();
        builder.environment().put("ONLY", "1");
        builder.environment().put("LANGUAGE", "de");
        assertThrows(IllegalArgumentException.class, () -> builder.environment().put("A=B", "x"));
        Process process = start(kind, builder);
        assertEquals(Set.of("ONLY=1", "LANGUAGE=de"), Set.of(text(process.getInputStream()).split("\n")));
        assertEquals(0, process.waitFor());
    }

    /**
     * Job control behaves the same: signals ignored or blocked in the program as in a ProcessBuilder child.
     */
    @ParameterizedTest(name = "{0}")
    @EnumSource(Kind.class)
    void signalDispositionsAreThoseOfAProcessBuilderChild(Kind kind) throws Exception {
        String script = "grep -E '^Sig(Blk|Ign)' /proc/self/status";
        String expected =
            standardSignals(text(new ProcessBuilder("/bin/sh", "-c", script).start().getInputStream()));
        assertEquals(expected, standardSignals(text(shell(kind, script).getInputStream())));
    }

    /**
     * The masks of signals 1 to 31. Above them, ProcessBuilder's children inherit 32 and 33 ignored: glibc's
     * own signals, which the C library's spawn sets so in its child.
     */
    private static String standardSignals(String status) {
        StringBuilder masks = new StringBuilder();
        for (String line : status.strip().split("\n")) {
            String[] field = line.split(":\\s*");
            masks.append(field[0]).append(':').append(Long.parseLong(field[1], 16) & 0x7fffffffL).append(' ');
        }
        return masks.toString().strip();
    }
}
