package com.norvane.quillon.process.exception;

/** A redirection file could not be opened or assigned. */
public class InvalidFileException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public InvalidFileException(String message) {
        super(message);
    }
}
