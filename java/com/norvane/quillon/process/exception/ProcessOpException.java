package com.norvane.quillon.process.exception;

/**
 * A process operation of the native library failed. The message carries the operation's text and,
 * where the system reported one, the error number and its text ("message NNN: text"). Every more
 * specific failure of the library is a subclass.
 */
public class ProcessOpException extends Exception {
    private static final long serialVersionUID = 1L;

    /** @param message the text built by the native library */
    public ProcessOpException(String message) {
        super(message);
    }
}
