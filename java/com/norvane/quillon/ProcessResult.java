package com.norvane.quillon;

import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.util.List;

/**
 * How a program run by {@link Launcher#run(Duration)} ended, with what it wrote to stdout and stderr.
 * Immutable.
 */
public final class ProcessResult {
    private final List<String> command;
    private final int exitValue;
    private final int exitSignal;
    private final byte[] stdout;
    private final byte[] stderr;
    private final boolean timedOut;
    private final Duration elapsed;
    private final boolean truncated;

    ProcessResult(List<String> command, int exitValue, int exitSignal, byte[] stdout, byte[] stderr, boolean timedOut,
            Duration elapsed, boolean truncated) {
        this.command = List.copyOf(command);
        this.exitValue = exitValue;
        this.exitSignal = exitSignal;
        this.stdout = stdout;
        this.stderr = stderr;
        this.timedOut = timedOut;
        this.elapsed = elapsed;
        this.truncated = truncated;
    }

    /** @return the program and its arguments */
    public List<String> command() {
        return command;
    }

    /**
     * @return the exit status, or 128+N when signal N ended the program (137 when it was killed at the time
     *     limit); -1 when a program killed at the time limit had not ended 100 ms after the kill (its end
     *     is still collected, its status not kept)
     */
    public int exitValue() {
        return exitValue;
    }

    /** @return the signal that ended the program, 0 when it exited */
    public int exitSignal() {
        return exitSignal;
    }

    /** @return stdout as UTF-8 text (malformed bytes become U+FFFD); empty when it was not captured */
    public String stdout() {
        return new String(stdout, StandardCharsets.UTF_8);
    }

    /** @return stderr as UTF-8 text; empty when it was not captured or went with stdout */
    public String stderr() {
        return new String(stderr, StandardCharsets.UTF_8);
    }

    /** @return the bytes of stdout, as a copy */
    public byte[] stdoutBytes() {
        return stdout.clone();
    }

    /** @return the bytes of stderr, as a copy */
    public byte[] stderrBytes() {
        return stderr.clone();
    }

    /** @return whether the time limit passed and the program's tree was killed */
    public boolean timedOut() {
        return timedOut;
    }

    /** @return the time from the start to the end of the run */
    public Duration elapsed() {
        return elapsed;
    }

    /** @return whether a stream wrote more than the capture limit: the rest was read and dropped */
    public boolean truncated() {
        return truncated;
    }

    /**
     * @return this result when the exit value is 0
     * @throws ProcessFailedException otherwise, carrying this result and the tail of stderr
     */
    public ProcessResult checkExit() throws ProcessFailedException {
        if (exitValue != 0 || timedOut) {
            throw new ProcessFailedException(this);
        }
        return this;
    }

    /** @return the command, how it ended and how much it wrote */
    @Override
    public String toString() {
        return "ProcessResult[" + command + ", exitValue=" + exitValue + (timedOut ? ", timed out" : "") + ", stdout "
                + stdout.length + " bytes, stderr " + stderr.length + " bytes" + (truncated ? ", truncated" : "")
                + ", " + elapsed.toMillis() + " ms]";
    }
}
