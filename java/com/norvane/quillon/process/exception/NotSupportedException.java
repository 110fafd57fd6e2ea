package com.norvane.quillon.process.exception;

/** The operation is not supported on this system. */
public class NotSupportedException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public NotSupportedException(String message) {
        super(message);
    }
}
