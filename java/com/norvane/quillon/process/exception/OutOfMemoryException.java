package com.norvane.quillon.process.exception;

/** Memory ran out, or a process limit was reached. */
public class OutOfMemoryException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public OutOfMemoryException(String message) {
        super(message);
    }
}
