package com.norvane.quillon;

import java.io.IOException;

/**
 * A program run by {@link Launcher#run} did not exit with 0 (or ran out of time), as
 * {@link ProcessResult#checkExit()} found. The message ends with the tail of what it wrote to stderr.
 */
public final class ProcessFailedException extends IOException {
    private static final long serialVersionUID = 1L;
    private static final int TAIL_CHARACTERS = 2000;

    private final transient ProcessResult result;

    ProcessFailedException(ProcessResult result) {
        super(message(result));
        this.result = result;
    }

    private static String message(ProcessResult result) {
        String ending = result.timedOut() ? "ran out of time and was killed"
                : result.exitSignal() != 0 ? "ended by signal " + result.exitSignal()
                : "exited with " + result.exitValue();
        String stderr = result.stderr().strip();
        String tail = stderr.length() > TAIL_CHARACTERS ? "..." + stderr.substring(stderr.length() - TAIL_CHARACTERS)
                : stderr;
        return "Program " + result.command() + " " + ending + (tail.isEmpty() ? "" : ": " + tail);
    }

    /** @return the result of the run */
    public ProcessResult result() {
        return result;
    }

    /** @return the last lines of stderr (at most 2000 characters), without surrounding blank space */
    public String stderrTail() {
        String stderr = result.stderr().strip();
        return stderr.length() > TAIL_CHARACTERS ? stderr.substring(stderr.length() - TAIL_CHARACTERS) : stderr;
    }
}
