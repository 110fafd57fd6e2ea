package com.norvane.quillon.process.exception;

/** A thread tried to wait for the end of its own process. */
public class WaitForSelfTerminationException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public WaitForSelfTerminationException(String message) {
        super(message);
    }
}
