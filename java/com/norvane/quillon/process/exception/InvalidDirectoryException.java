package com.norvane.quillon.process.exception;

/** The working directory of a launch could not be entered. */
public class InvalidDirectoryException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public InvalidDirectoryException(String message) {
        super(message);
    }
}
