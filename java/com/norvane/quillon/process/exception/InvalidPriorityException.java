package com.norvane.quillon.process.exception;

/** The priority of a launch could not be read or applied. */
public class InvalidPriorityException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public InvalidPriorityException(String message) {
        super(message);
    }
}
