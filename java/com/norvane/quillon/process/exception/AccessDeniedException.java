package com.norvane.quillon.process.exception;

/** The system refused the operation for lack of rights. */
public class AccessDeniedException extends ProcessOpException {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public AccessDeniedException(String message) {
        super(message);
    }
}
