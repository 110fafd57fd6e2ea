package com.norvane.quillon.process.exception;

/** The process has not ended (yet). */
public class ProcessStillActiveException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public ProcessStillActiveException(String message) {
        super(message);
    }
}
