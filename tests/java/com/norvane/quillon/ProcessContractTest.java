package com.norvane.quillon;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTimeoutPreemptively;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.norvane.quillon.process.exception.InvalidDirectoryException;
import com.norvane.quillon.process.exception.InvalidExecutableException;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.function.Consumer;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.EnumSource;
import org.junit.jupiter.params.provider.MethodSource;

/** The same checks against ProcessBuilder's processes and Launcher's, which must behave alike. */
class ProcessContractTest {
    enum Kind {
        PROCESS_BUILDER {
            @Override
            Process start(ProcessBuilder builder) throws IOException {
                return builder.start();
            }
        },
        LAUNCHER {
            @Override
            Process start(ProcessBuilder builder) throws IOException {
                return new Launcher(builder.command()).directory(builder.directory())
                        .redirectInput(builder.redirectInput()).redirectOutput(builder.redirectOutput())
                        .redirectError(builder.redirectError()).redirectErrorStream(builder.redirectErrorStream())
                        .start();
            }
        };

        abstract Process start(ProcessBuilder builder) throws IOException;
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

    @ParameterizedTest(name = "{0}")
    @EnumSource(Kind.class)
    void onExitCompletesWithTheProcessWhenItEnds(Kind kind) throws Exception {
        Process process = shell(kind, "sleep 0.3; exit 4");
        CompletableFuture<Process> exit = process.onExit();
        assertFalse(exit.isDone());
        assertSame(process, exit.get(10, TimeUnit.SECONDS));
        assertFalse(process.isAlive());
        assertEquals(4, process.exitValue());
    }

    static Stream<Arguments> failures() {
        return Stream.of(Kind.values()).flatMap(kind -> Stream.of(
                Arguments.of(kind, "missing program", new ProcessBuilder("/no/such/program"),
                        InvalidExecutableException.class),
                Arguments.of(kind, "missing directory", new ProcessBuilder("true").directory(new File("/no/such/dir")),
                        InvalidDirectoryException.class)));
    }

    @ParameterizedTest(name = "{0}: {1}")
    @MethodSource("failures")
    void failuresToStartAreIOExceptions(Kind kind, String name, ProcessBuilder builder, Class<?> cause) {
        IOException e = assertThrows(IOException.class, () -> start(kind, builder));
        assertTrue(e.getMessage().contains("No such file or directory"), e.getMessage());
        if (kind == Kind.LAUNCHER) {
            assertInstanceOf(cause, e.getCause());
            assertEquals("Error creating new process. 002: No such file or directory", e.getCause().getMessage());
        }
    }
}
