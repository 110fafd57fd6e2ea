package com.norvane.quillon.process.exception;

/** The process group of a launch could not be joined. */
public class InvalidProcessGroupException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public InvalidProcessGroupException(String message) {
        super(message);
    }
}
