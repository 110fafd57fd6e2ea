package com.norvane.quillon.process.exception;

/** A launched process did not reach its exec within the time limit. */
public class CreateProcessTimeoutException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public CreateProcessTimeoutException(String message) {
        super(message);
    }
}
