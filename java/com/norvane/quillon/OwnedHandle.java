package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.UnixProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.locks.ReentrantReadWriteLock;

/**
 * The native handle of one {@link NativeProcess}, given back with {@code done} exactly once.
 *
 * <p>Native calls on the handle are counted. {@link #close} refuses new calls at once, but the handle is
 * released only when the last call in progress has left, so no call ever meets a released handle. The
 * watcher counts as a caller of a child of the JVM until it has collected the child's end: a child whose
 * object is closed or collected as garbage is still reaped and never stays a zombie. Other processes
 * need no collection; the watcher looks their handle up and steps aside once it is closed.
 *
 * <p>The end, once known, is kept here, so that waits and exit values need no native call any more.
 */
final class OwnedHandle implements Runnable {
    private static final UnixProcessGlue UNIX = UnixProcessGlue.get();
    private static final NativeProcessGlue NATIVE = NativeProcessGlue.get();

    /** How the process ended: its exit status or 0, and the signal that ended it or 0. */
    private record End(int exitCode, int signal) {}

    final long handle;
    final long pid;
    /** A child of the JVM, whose end the watcher must collect. */
    final boolean child;
    /** The running JVM itself. */
    final boolean self;
    /** Completed when the end is known, or exceptionally by close. */
    final CompletableFuture<Void> ended = new CompletableFuture<>();

    /**
     * Looks that may collect a child's end hold it shared; a tree kill holds it alone, so that the PID it
     * walks /proc for can't be collected and given to another process meanwhile.
     */
    private final ReentrantReadWriteLock collection = new ReentrantReadWriteLock();
    private int users;         // native calls in progress, the watcher's use of a child included
    private boolean closed;    // no new calls
    private boolean watched;   // handed to the watcher
    private volatile End end;

    OwnedHandle(long handle, long pid, boolean child, boolean self) {
        this.handle = handle;
        this.pid = pid;
        this.child = child;
        this.self = self;
        users = child ? 1 : 0;
    }

    static UncheckedIOException failure(ProcessOpException e) {
        return new UncheckedIOException(new IOException(e.getMessage(), e));
    }

    /** Counts a call in; every call must be followed by {@link #release}. */
    synchronized void acquire() {
        if (closed) {
            throw new IllegalStateException("the process object has been closed");
        }
        users++;
    }

    private synchronized boolean tryAcquire() {
        if (closed) {
            return false;
        }
        users++;
        return true;
    }

    /** Counts a call out; the last one after a close releases the handle. */
    void release() {
        boolean last;
        synchronized (this) {
            last = --users == 0 && closed;
        }
        if (last) {
            UNIX.done(handle);
        }
    }

    /** Refuses new calls, fails pending waits, and releases the handle now or after the last call. */
    void close() {
        boolean last;
        synchronized (this) {
            if (closed) {
                return;
            }
            closed = true;
            last = users == 0;
        }
        ended.completeExceptionally(new IllegalStateException("the process object has been closed"));
        if (!child) {
            ProcessWatcher.forget(this);
        }
        if (last) {
            UNIX.done(handle);
        }
    }

    /** The cleaning action of a process object that became unreachable. */
    @Override
    public void run() {
        close();
    }

    /**
     * Looks once whether the process has ended, collecting a child's end without waiting. The running JVM
     * has not.
     *
     * @throws IllegalStateException after close
     */
    boolean hasEnded() {
        return endsWithin(0);
    }

    /**
     * Waits natively, which the end of the process wakes at once, but not an interrupt: for short times only.
     *
     * @return whether the process ended within {@code millis}
     * @throws IllegalStateException after close
     */
    boolean endsWithin(long millis) {
        acquire();
        try {
            return end != null || (!self && look(millis));
        } catch (ProcessOpException e) {
            throw failure(e);
        } finally {
            release();
        }
    }

    /** Waits natively for up to {@code millis}, collecting a child's end; the caller holds a use. */
    private boolean look(long millis) throws ProcessOpException {
        collection.readLock().lock();
        try {
            return NATIVE.waitFor(handle, millis) && recordEnd();
        } finally {
            collection.readLock().unlock();
        }
    }

    /**
     * Kills the process, its group and its descendants, unless it has ended: then its children have passed
     * to init and its PID may name another process, whose children the native walk would take for its own.
     */
    void killTree() throws ProcessOpException {
        acquire();
        collection.writeLock().lock();
        try {
            if (end == null && !look(0)) {
                NATIVE.killTree(handle);
            }
        } finally {
            collection.writeLock().unlock();
            release();
        }
    }

    /** Reads the end of an ended process; the caller holds a use. */
    private boolean recordEnd() throws ProcessOpException {
        End known = new End(UNIX.getExitCode(handle), NATIVE.terminationSignal(handle));
        synchronized (this) {
            if (end == null) {
                end = known;
            }
        }
        ended.complete(null);
        return true;
    }

    /** The exit value of an ended process: the status, or 128 plus the signal. */
    int exitValue() {
        End known = end;
        return known.signal() != 0 ? 128 + known.signal() : known.exitCode();
    }

    int exitSignal() {
        return end.signal();
    }

    /** Hands a process that was not launched to the watcher, once, so that {@link #ended} completes. */
    void ensureWatched() {
        synchronized (this) {
            if (watched) {
                return;
            }
            watched = true;
        }
        acquire();
        try {
            ProcessWatcher.watch(this);
        } catch (ProcessOpException e) {
            synchronized (this) {
                watched = false;
            }
            throw failure(e);
        } finally {
            release();
        }
    }

    /** Marks a launched process as handed to the watcher by its launch. */
    synchronized void watchedByLaunch() {
        watched = true;
    }

    /**
     * Called by the watcher once the process has been seen to end: collects the end, completes
     * {@link #ended} and drops the watcher's use of a child.
     */
    void collect() {
        if (!child && !tryAcquire()) {
            return; // closed meanwhile: nobody is waiting any more
        }
        boolean again = false;
        try {
            again = !look(0);
        } catch (ProcessOpException e) {
            ended.completeExceptionally(failure(e));
        } finally {
            if (again) {
                again = rewatch();
            }
            if (!again) {
                release();
            }
        }
    }

    /** The process was reported but is still there: back to the watcher, keeping the use. */
    private boolean rewatch() {
        try {
            ProcessWatcher.watch(this);
            return true;
        } catch (ProcessOpException e) {
            ended.completeExceptionally(failure(e));
            return false;
        }
    }
}
