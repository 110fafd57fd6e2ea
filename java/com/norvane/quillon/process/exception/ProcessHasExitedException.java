package com.norvane.quillon.process.exception;

/** The process named by a PID no longer exists. */
public class ProcessHasExitedException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public ProcessHasExitedException(String message) {
        super(message);
    }
}
