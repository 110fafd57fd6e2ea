package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import java.io.IOException;
import java.lang.ref.Cleaner;

/**
 * The JVM's end of one pipe to a launched program, closed exactly once.
 *
 * <p>The kernel hands a closed descriptor number to the next file opened, by any thread. Closing the number
 * while another thread is inside a read or write on it would let that call land on an unrelated file. So
 * every native call on the descriptor is counted, and {@link #close} only marks it: when calls are in
 * progress, the last one to leave closes it. New calls are refused from the mark on. A reader blocked on
 * a pipe therefore keeps the number open until data or end of file arrives, at the latest when the
 * program, and whatever inherited the pipe from it, has ended. That is preferred over waking the reader
 * by force, which would need a second descriptor per pipe.
 */
final class Descriptor implements Runnable {
    private static final NativeProcessGlue GLUE = NativeProcessGlue.get();

    private final int fd;
    private int users;         // native calls in progress
    private boolean closing;   // close() was called: no new calls
    private boolean closed;    // the number was given back
    private Cleaner.Cleanable cleanable;

    private Descriptor(int fd) {
        this.fd = fd;
    }

    /** The descriptor of a stream: closed by {@link #closeForOwner}, or once the stream is unreachable. */
    static Descriptor ownedBy(Object stream, int fd) {
        Descriptor descriptor = new Descriptor(fd);
        descriptor.cleanable = NativeProcess.CLEANER.register(stream, descriptor);
        return descriptor;
    }

    /** The stream's close: the descriptor's, and the cleaning action is no longer needed. */
    void closeForOwner() throws IOException {
        close();
        cleanable.clean();
    }

    /** Counts a call in; every successful call must be followed by {@link #release}. @return the number */
    synchronized int acquire() throws IOException {
        if (closing) {
            throw new IOException("Stream closed");
        }
        users++;
        return fd;
    }

    /** Counts a call out, closing the number when a close was asked for meanwhile. */
    void release() {
        boolean last;
        synchronized (this) {
            last = --users == 0 && closing && !closed;
            closed |= last;
        }
        if (last) {
            try {
                GLUE.close(fd);
            } catch (IOException ignored) {
                // The close() that asked for it has returned already; nobody is left to tell.
            }
        }
    }

    /** Closes the number now, or once the calls in progress have left. Later calls do nothing. */
    void close() throws IOException {
        synchronized (this) {
            if (closing) {
                return;
            }
            closing = true;
            if (users > 0) {
                return;
            }
            closed = true;
        }
        GLUE.close(fd);
    }

    /** The cleaning action of a stream that became unreachable. */
    @Override
    public void run() {
        try {
            close();
        } catch (IOException ignored) {
            // Nobody to tell.
        }
    }
}
