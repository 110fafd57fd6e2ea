package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.util.Arrays;
import java.util.Objects;
import java.util.concurrent.locks.ReentrantLock;

/**
 * The JVM's end of one pipe to a launched program, closed exactly once, read or written through its stream.
 *
 * <p>The kernel hands a closed descriptor number to the next file opened, by any thread. Closing the number
 * while another thread is inside a read or write on it would let that call land on an unrelated file. So
 * every native call on the descriptor is counted, and a close only marks it: when calls are in progress,
 * the last one to leave closes it. New calls are refused from the mark on. A reader blocked on a pipe
 * therefore keeps the number open until data or end of file arrives, at the latest when the program, and
 * whatever inherited the pipe from it, has ended. That is preferred over waking the reader by force, which
 * would need a second descriptor per pipe.
 *
 * <p>When the program ends, the pipe goes away by itself: stdin's is closed, and what stdout or stderr hold
 * unread is drained into memory, where the stream reads it on. A read in progress at that moment finishes
 * first, and the drain follows in its thread.
 */
final class Pipe {
    private final int fd;
    private int users;          // native calls in progress
    private boolean closing;    // no new native calls
    private boolean closed;     // the number was given back
    private boolean drainAtEnd; // the program ended during a read: the reader drains
    private boolean draining;   // readers wait for the drain
    private byte[] drained;     // what was left unread at the end, read from memory from then on
    private int drainedAt;
    private boolean userClosed; // reads and writes fail
    private boolean handedOut;  // the stream exists; it is closed with it, or when it becomes unreachable
    private Cleaner.Cleanable cleanable;

    Pipe(int fd) {
        this.fd = fd;
    }

    /** The stream that reads the pipe from a program's stdout or stderr, once. */
    synchronized InputStream input() {
        return handOut(new Input(this));
    }

    /** The stream that writes the pipe to a program's stdin, once; closing it gives the program end of file. */
    synchronized OutputStream output() {
        return handOut(new Output(this));
    }

    /** {@link #output()} behind a buffer, which {@link BufferedOutput#handOff()} can give away without waiting. */
    BufferedOutput bufferedOutput() {
        return new BufferedOutput(this, output());
    }

    private <T> T handOut(T stream) {
        handedOut = true;
        cleanable = NativeProcess.cleaner().register(stream, this::close);
        return stream;
    }

    private static NativeProcessGlue glue() {
        return NativeProcessGlue.get();
    }

    /** Counts a call in; every successful call must be followed by {@link #release}. @return the number */
    private synchronized int acquire() throws IOException {
        if (closing) {
            throw new IOException("Stream closed");
        }
        users++;
        return fd;
    }

    /** Counts a call out: the last one closes the number when a close was asked for, or drains at the end. */
    private void release() {
        boolean last;
        boolean drain;
        synchronized (this) {
            users--;
            drain = users == 0 && drainAtEnd && !closing;
            last = users == 0 && closing && !closed;
            closed |= last;
        }
        if (drain) {
            drain();
        } else if (last) {
            closeNumber();
        }
    }

    private void closeNumber() {
        try {
            glue().close(fd);
        } catch (IOException ignored) {
            // Whoever asked for the close has returned already; nobody is left to tell.
        }
    }

    /** Closes the pipe for good: later reads and writes fail. Calling it again does nothing. */
    void close() {
        boolean now;
        synchronized (this) {
            userClosed = true;
            drained = null;
            now = !closing && users == 0;
            closing = true;
            closed |= now;
        }
        if (now) {
            closeNumber();
        }
    }

    /**
     * Closes the pipe once the event thread has written {@code rest} to it, as the program reads it; the
     * caller never waits. With a call in progress or nothing to write, it is {@link #close()}.
     */
    void closeAfter(byte[] rest) {
        boolean feed;
        synchronized (this) {
            feed = rest.length > 0 && !closing && users == 0;
            if (feed) { // the number is the feed's from here on
                userClosed = true;
                closing = true;
                closed = true;
            }
        }
        if (!feed) {
            close();
            return;
        }
        // The feed closes the number at its end, also when it can't be made (then the bytes are lost).
        EventLoop.serve(token -> kind -> {
            glue().release(token);
            return true;
        }, () -> glue().feed(fd, rest));
    }

    /** The stream's close: the pipe's, and the stream's cleaning action is no longer needed. */
    private void closeStream() {
        close();
        Cleaner.Cleanable registered;
        synchronized (this) {
            registered = cleanable;
        }
        if (registered != null) {
            registered.clean();
        }
    }

    /** The close of a process object becoming unreachable: a stream that was handed out stays usable. */
    void closeUnlessHandedOut() {
        boolean mine;
        synchronized (this) {
            mine = !handedOut;
        }
        if (mine) {
            close();
        }
    }

    /** The program has ended: stdin's pipe is closed (once writes in progress have left). */
    void closeAtEnd() {
        boolean now;
        synchronized (this) {
            now = !closing && users == 0;
            closing = true;
            closed |= now;
        }
        if (now) {
            closeNumber();
        }
    }

    /**
     * The program has ended: what stdout or stderr hold unread is drained into memory and the number given
     * back; a read in progress drains when it leaves. Only what is there is read, so this never blocks.
     */
    void drain() {
        synchronized (this) {
            if (closing) {
                return;
            }
            if (users > 0) {
                drainAtEnd = true;
                return;
            }
            closing = true; // no other call meanwhile: readers wait for the drain
            draining = true;
        }
        byte[] left = new byte[0];
        try {
            left = readAvailable();
        } catch (IOException | RuntimeException e) {
            // What could not be read is lost with the pipe, as it would be for the program's other readers.
        } finally {
            synchronized (this) {
                if (!userClosed) {
                    drained = left;
                }
                draining = false;
                closed = true;
                notifyAll();
            }
            closeNumber();
        }
    }

    private byte[] readAvailable() throws IOException {
        byte[] left = new byte[0];
        for (int ready; (ready = glue().available(fd)) > 0;) {
            byte[] grown = Arrays.copyOf(left, left.length + ready);
            int got = glue().read(fd, grown, left.length, ready);
            if (got <= 0) {
                break;
            }
            left = got == ready ? grown : Arrays.copyOf(grown, left.length + got);
        }
        return left;
    }

    /** Waits while a drain is running; the caller holds the monitor. */
    private void awaitDrain() {
        boolean interrupted = false;
        while (draining) {
            try {
                wait();
            } catch (InterruptedException e) {
                interrupted = true;
            }
        }
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    /** Reads from memory after the drain: the count, -1 at the end, or null while the pipe is still open. */
    private synchronized Integer readDrained(byte[] buffer, int offset, int length) throws IOException {
        awaitDrain();
        if (userClosed) {
            throw new IOException("Stream closed");
        }
        if (drained == null) {
            return null;
        }
        int count = Math.min(length, drained.length - drainedAt);
        if (count <= 0) {
            return -1;
        }
        System.arraycopy(drained, drainedAt, buffer, offset, count);
        drainedAt += count;
        return count;
    }

    private int read(byte[] buffer, int offset, int length) throws IOException {
        Objects.checkFromIndexSize(offset, length, buffer.length);
        if (length == 0) {
            return 0;
        }
        Integer fromMemory = readDrained(buffer, offset, length);
        if (fromMemory != null) {
            return fromMemory;
        }
        int number;
        try {
            number = acquire();
        } catch (IOException e) {
            fromMemory = readDrained(buffer, offset, length); // drained meanwhile
            if (fromMemory != null) {
                return fromMemory;
            }
            throw e;
        }
        try {
            return glue().read(number, buffer, offset, length);
        } finally {
            release();
        }
    }

    /** What can be read without blocking: from memory after the drain, else -1 while the pipe is open. */
    private synchronized int availableDrained() throws IOException {
        awaitDrain();
        if (userClosed) {
            throw new IOException("Stream closed");
        }
        return drained != null ? drained.length - drainedAt : -1;
    }

    private int available() throws IOException {
        int fromMemory = availableDrained();
        if (fromMemory >= 0) {
            return fromMemory;
        }
        int number;
        try {
            number = acquire();
        } catch (IOException e) {
            fromMemory = availableDrained(); // drained meanwhile
            if (fromMemory >= 0) {
                return fromMemory;
            }
            throw e;
        }
        try {
            return glue().available(number);
        } finally {
            release();
        }
    }

    private void write(byte[] buffer, int offset, int length) throws IOException {
        Objects.checkFromIndexSize(offset, length, buffer.length);
        int number = acquire();
        try {
            glue().write(number, buffer, offset, length);
        } finally {
            release();
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
            try {
                return pipe.read(buffer, offset, length);
            } finally {
                Reference.reachabilityFence(this);
            }
        }

        @Override
        public int available() throws IOException {
            try {
                return pipe.available();
            } finally {
                Reference.reachabilityFence(this);
            }
        }

        @Override
        public void close() {
            pipe.closeStream();
        }
    }

    /**
     * A buffered stream to a program's stdin, as {@link java.io.BufferedOutputStream} is, which the close of
     * its process object can take apart without waiting for the program to read: see {@link #handOff()}.
     */
    static final class BufferedOutput extends OutputStream {
        private final Pipe pipe;
        private final OutputStream out;
        private final ReentrantLock lock = new ReentrantLock();
        private final byte[] buffer = new byte[8192];
        private int count;

        private BufferedOutput(Pipe pipe, OutputStream out) {
            this.pipe = pipe;
            this.out = out;
        }

        private void flushBuffer() throws IOException {
            if (count > 0) {
                out.write(buffer, 0, count);
                count = 0;
            }
        }

        @Override
        public void write(int b) throws IOException {
            lock.lock();
            try {
                if (count == buffer.length) {
                    flushBuffer();
                }
                buffer[count++] = (byte) b;
            } finally {
                lock.unlock();
            }
        }

        @Override
        public void write(byte[] bytes, int offset, int length) throws IOException {
            Objects.checkFromIndexSize(offset, length, bytes.length);
            lock.lock();
            try {
                if (length >= buffer.length) {
                    flushBuffer();
                    out.write(bytes, offset, length);
                    return;
                }
                if (length > buffer.length - count) {
                    flushBuffer();
                }
                System.arraycopy(bytes, offset, buffer, count, length);
                count += length;
            } finally {
                lock.unlock();
            }
        }

        @Override
        public void flush() throws IOException {
            lock.lock();
            try {
                flushBuffer();
            } finally {
                lock.unlock();
            }
        }

        @Override
        public void close() throws IOException {
            lock.lock();
            try {
                flushBuffer();
            } finally {
                out.close();
                lock.unlock();
            }
        }

        /**
         * The close of the process object: what is buffered goes to the event thread, which writes it as the
         * program reads and then closes the pipe. Never waits: a write in progress (blocked on a full pipe)
         * keeps the pipe until it returns, and what it leaves in the buffer is dropped.
         */
        void handOff() {
            if (!lock.tryLock()) {
                pipe.close();
                return;
            }
            try {
                byte[] rest = Arrays.copyOf(buffer, count);
                count = 0;
                pipe.closeAfter(rest);
            } finally {
                lock.unlock();
            }
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
            try {
                pipe.write(buffer, offset, length);
            } finally {
                Reference.reachabilityFence(this);
            }
        }

        @Override
        public void close() {
            pipe.closeStream();
        }
    }
}
