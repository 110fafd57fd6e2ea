package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.util.Objects;

/**
 * The JVM's end of one pipe to a launched program, closed exactly once, read or written through its stream.
 *
 * <p>The kernel hands a closed descriptor number to the next file opened, by any thread. Closing the number
 * while another thread is inside a read or write on it would let that call land on an unrelated file. So
 * every native call on the descriptor is counted, and {@link #close} only marks it: when calls are in
 * progress, the last one to leave closes it. New calls are refused from the mark on. A reader blocked on
 * a pipe therefore keeps the number open until data or end of file arrives, at the latest when the
 * program, and whatever inherited the pipe from it, has ended. That is preferred over waking the reader
 * by force, which would need a second descriptor per pipe.
 */
final class Pipe implements Runnable {
    private static final NativeProcessGlue GLUE = NativeProcessGlue.get();

    private final int fd;
    private int users;         // native calls in progress
    private boolean closing;   // close() was called: no new calls
    private boolean closed;    // the number was given back
    private Cleaner.Cleanable cleanable;

    private Pipe(int fd) {
        this.fd = fd;
    }

    /** The stream that reads the pipe from a program's stdout or stderr; the pipe closes with it. */
    static InputStream input(int fd) {
        Pipe pipe = new Pipe(fd);
        Input stream = new Input(pipe);
        pipe.cleanable = NativeProcess.CLEANER.register(stream, pipe);
        return stream;
    }

    /** The stream that writes the pipe to a program's stdin; closing it gives the program end of file. */
    static OutputStream output(int fd) {
        Pipe pipe = new Pipe(fd);
        Output stream = new Output(pipe);
        pipe.cleanable = NativeProcess.CLEANER.register(stream, pipe);
        return stream;
    }

    /** Counts a call in; every successful call must be followed by {@link #release}. @return the number */
    private synchronized int acquire() throws IOException {
        if (closing) {
            throw new IOException("Stream closed");
        }
        users++;
        return fd;
    }

    /** Counts a call out, closing the number when a close was asked for meanwhile. */
    private void release() {
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
    private void close() throws IOException {
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

    /** The stream's close: the pipe's, and the cleaning action is no longer needed. */
    private void closeForOwner() throws IOException {
        close();
        cleanable.clean();
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

    private static final class Input extends InputStream {
        private final Pipe pipe;

        Input(Pipe pipe) {
            this.pipe = pipe;
        }

        @Override
        public int read() throws IOException {
            byte[] one = new byte[1];
            return read(one, 0, 1) < 0 ? -1 : one[0] & 0xff;
        }

        @Override
        public int read(byte[] buffer, int offset, int length) throws IOException {
            Objects.checkFromIndexSize(offset, length, buffer.length);
            if (length == 0) {
                return 0;
            }
            int fd = pipe.acquire();
            try {
                return GLUE.read(fd, buffer, offset, length);
            } finally {
                pipe.release();
                Reference.reachabilityFence(this);
            }
        }

        @Override
        public int available() throws IOException {
            int fd = pipe.acquire();
            try {
                return GLUE.available(fd);
            } finally {
                pipe.release();
                Reference.reachabilityFence(this);
            }
        }

        @Override
        public void close() throws IOException {
            pipe.closeForOwner();
        }
    }

    private static final class Output extends OutputStream {
        private final Pipe pipe;

        Output(Pipe pipe) {
            this.pipe = pipe;
        }

        @Override
        public void write(int b) throws IOException {
            write(new byte[] {(byte) b}, 0, 1);
        }

        @Override
        public void write(byte[] buffer, int offset, int length) throws IOException {
            Objects.checkFromIndexSize(offset, length, buffer.length);
            int fd = pipe.acquire();
            try {
                GLUE.write(fd, buffer, offset, length);
            } finally {
                pipe.release();
                Reference.reachabilityFence(this);
            }
        }

        @Override
        public void close() throws IOException {
            pipe.closeForOwner();
        }
    }
}
