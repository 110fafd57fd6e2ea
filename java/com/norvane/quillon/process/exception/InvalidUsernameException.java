package com.norvane.quillon.process.exception;

/** A user name is unknown, or the user could not be taken on. */
public class InvalidUsernameException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public InvalidUsernameException(String message) {
        super(message);
    }
}
