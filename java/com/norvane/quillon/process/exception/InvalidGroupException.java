package com.norvane.quillon.process.exception;

/** A group name is unknown, or the group could not be taken on. */
public class InvalidGroupException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public InvalidGroupException(String message) {
        super(message);
    }
}
