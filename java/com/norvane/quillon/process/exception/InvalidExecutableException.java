package com.norvane.quillon.process.exception;

/** The executable of a launch is missing or could not be run. */
public class InvalidExecutableException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public InvalidExecutableException(String message) {
        super(message);
    }
}
