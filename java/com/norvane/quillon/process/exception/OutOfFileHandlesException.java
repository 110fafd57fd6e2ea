package com.norvane.quillon.process.exception;

/** The process or the system ran out of file descriptors. */
public class OutOfFileHandlesException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public OutOfFileHandlesException(String message) {
        super(message);
    }
}
