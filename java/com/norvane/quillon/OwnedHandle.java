package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.UnixProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.util.concurrent.CompletableFuture;

/**
 * The native handle of one {@link NativeProcess}, given back with {@code done} exactly once, its pipes, and
 * what is known of the process's end.
 *
 * <p>Native calls on the handle are counted as uses, and the watch is one of them: every process but the
 * running JVM is watched from the start, so its end is seen whether or not anybody waits, and a child's end
 * is collected. Once the end is known, it is kept here, the pipes go (stdin closed, unread output drained
 * into memory) and the handle is given back as soon as no call uses it: an ended process holds no
 * descriptor, closed or not.
 *
 * <p>{@link #close} refuses calls that start after it; calls in progress finish with the process's outcome.
 * A child's watch goes on after the close until its end is collected. The watch of any other process ends
 * with the close, or with the last wait in progress at the close.
 */
final class OwnedHandle implements Runnable, EventLoop.Target {
    /**
     * How the process ended: its exit status or 0, the signal that ended it or 0, and the CPU times it used in
     * microseconds (-1 where unknown, for a process that is no child).
     */
    record End(int exitCode, int signal, long userMicros, long systemMicros) {}

    final long handle;
    final long pid;
    /** A child of the JVM, whose exit status can be known. */
    final boolean child;
    /** The running JVM itself. */
    final boolean self;
    /** Completed when the end is known; exceptionally when the process can no longer be followed. */
    final CompletableFuture<Void> ended = new CompletableFuture<>();
    /** stdin, stdout and stderr, null where they are no pipe. */
    private final Pipe[] pipes;
    /** The contained tree of the process, or null. */
    final ContainedTree tree;

    private int users;              // native calls in progress, and the watch
    private int waiters;            // waits in progress
    private boolean watched;        // the watcher reports the end; counts as a use
    private boolean released;       // the handle was given back
    private volatile boolean closed; // no new calls
    private boolean endClaimed;     // a thread is recording the end
    private volatile End end;       // set once the pipes have gone

    OwnedHandle(long handle, long pid, boolean child, boolean self, Pipe[] pipes, ContainedTree tree) {
        this.handle = handle;
        this.pid = pid;
        this.child = child;
        this.self = self;
        this.pipes = pipes;
        this.tree = tree;
        watched = !self;
        users = watched ? 1 : 0;
    }

    UncheckedIOException failure(ProcessOpException e) {
        return new UncheckedIOException(refused(e));
    }

    /** The library's refusal of a call on this process, as the exception that names the process. */
    IOException refused(ProcessOpException e) {
        return new IOException("process " + pid + ": " + e.getMessage(), e);
    }

    private static IllegalStateException closedFailure() {
        return new IllegalStateException("the process object has been closed");
    }

    /** Refuses a call that starts after {@link #close}. */
    void checkOpen() {
        if (closed) {
            throw closedFailure();
        }
    }

    /** Counts a native call in: false when the handle is gone because the end is known (answer from it). */
    boolean enter() {
        return enter(true);
    }

    /** The same for a call in progress at a close, such as a wait, which is not refused. */
    private synchronized boolean enter(boolean refuseClosed) {
        if (refuseClosed) {
            checkOpen();
        }
        if (released) {
            return false;
        }
        users++;
        return true;
    }

    /** Counts a use out; the last one gives the handle back once the object is closed or the end known. */
    void leave() {
        boolean giveBack;
        synchronized (this) {
            users--;
            giveBack = users == 0 && !released && (closed || end != null);
            released |= giveBack;
        }
        if (giveBack) {
            UnixProcessGlue.get().done(handle);
        }
    }

    /** Refuses new calls; stops watching a process that is no child unless waits are in progress. */
    void close() {
        boolean stopWatch;
        boolean giveBack;
        synchronized (this) {
            if (closed) {
                return;
            }
            closed = true;
            stopWatch = watched && !child && waiters == 0 && end == null;
            watched &= !stopWatch;
            giveBack = users == 0 && !released;
            released |= giveBack;
        }
        if (stopWatch) {
            stopWatching();
        } else if (giveBack) {
            UnixProcessGlue.get().done(handle);
        }
        if (tree != null) {
            tree.close();
        }
    }

    private void stopWatching() {
        EventLoop.forget(handle, this);
        ended.completeExceptionally(closedFailure());
        leave();
    }

    /** The cleaning action of a process object that became unreachable; streams handed out stay usable. */
    @Override
    public void run() {
        close();
        for (Pipe pipe : pipes) {
            if (pipe != null) {
                pipe.closeUnlessHandedOut();
            }
        }
    }

    /** Closes the pipes for good, the streams handed out included. */
    void closePipes() {
        for (Pipe pipe : pipes) {
            if (pipe != null) {
                pipe.close();
            }
        }
    }

    /** A wait begins; refused after close. */
    synchronized void beginWait() {
        checkOpen();
        waiters++;
    }

    /** A wait ends; the last one after a close ends the watch of a process that is no child. */
    void endWait() {
        boolean stopWatch;
        synchronized (this) {
            waiters--;
            stopWatch = closed && waiters == 0 && watched && !child && end == null;
            watched &= !stopWatch;
        }
        if (stopWatch) {
            stopWatching();
        }
    }

    /** @throws IllegalStateException after close */
    boolean hasEnded() {
        checkOpen();
        return endsWithin(0);
    }

    /**
     * Waits natively, which the end of the process wakes at once, but not an interrupt: for short times only.
     * A wait in progress calls it after a close too.
     *
     * @return whether the process ended within {@code millis}
     */
    boolean endsWithin(long millis) {
        if (end != null || !enter(false)) {
            return true;
        }
        try {
            return end != null || (!self && look(millis));
        } catch (ProcessOpException e) {
            throw failure(e);
        } finally {
            leave();
        }
    }

    /** Waits natively for up to {@code millis}, collecting a child's end; the caller holds a use. */
    private boolean look(long millis) throws ProcessOpException {
        return NativeProcessGlue.get().waitFor(handle, millis) && recordEnd();
    }

    /**
     * Reads the end of an ended process, once; its pipes go first, so that whoever sees the end finds stdin
     * closed and the output drained. The caller holds a use.
     */
    private boolean recordEnd() throws ProcessOpException {
        if (end == null) {
            long[] values = new long[4];
            NativeProcessGlue.get().endOf(handle, values);
            End known = new End((int) values[0], (int) values[1], values[2], values[3]);
            boolean first;
            synchronized (this) {
                first = !endClaimed;
                endClaimed = true;
            }
            if (!first) {
                while (end == null) { // the pipes' end never blocks: briefly
                    Thread.yield();
                }
                return true;
            }
            try {
                endPipes();
            } finally {
                end = known; // also after an Error: the other waiters must not spin on
                ended.complete(null);
            }
        }
        ended.complete(null);
        return true;
    }

    private void endPipes() {
        if (pipes[0] != null) {
            pipes[0].closeAtEnd();
        }
        for (int i = 1; i < 3; i++) {
            if (pipes[i] != null) {
                pipes[i].drain();
            }
        }
    }

    /**
     * Kills the process, its group and its descendants, unless it has ended: then its children have passed
     * to init and its PID may name another process, whose children the native walk would take for its own
     * (the walk itself stops the process first, and searches nothing when it turns out to have ended).
     */
    void killTree() throws ProcessOpException {
        if (!enter()) {
            return;
        }
        try {
            if (end == null && !look(0)) {
                NativeProcessGlue.get().killTree(handle);
            }
        } finally {
            leave();
        }
    }

    /** Sends a signal unless the process has ended. @return whether it was sent */
    boolean signal(int signal) throws ProcessOpException {
        if (end != null || !enter()) {
            return false;
        }
        try {
            return NativeProcessGlue.get().signal(handle, signal);
        } finally {
            leave();
        }
    }

    /** Calls a native on the handle unless the process has ended (then nothing is done). */
    void unlessEnded(Native call) throws ProcessOpException {
        if (end != null || !enter()) {
            return;
        }
        try {
            call.on(handle);
        } finally {
            leave();
        }
    }

    interface Native {
        void on(long handle) throws ProcessOpException;
    }

    /** The exit value of an ended process: the status, or 128 plus the signal. */
    int exitValue() {
        End known = end;
        return known.signal() != 0 ? 128 + known.signal() : known.exitCode();
    }

    int exitSignal() {
        return end.signal();
    }

    /** How the process ended, once it has: null before. */
    End end() {
        return end;
    }

    /**
     * Called by the event thread once the process has been seen to end: collects the end, completes
     * {@link #ended}, and drops the watch's use. An Error on the way leaves it to be called again.
     *
     * @return false when the process was reported but is still there, and is watched again
     */
    @Override
    public boolean handle(int kind) {
        synchronized (this) {
            if (!watched) {
                return true; // the close took the watch
            }
        }
        try {
            if (!look(0)) {
                EventLoop.watch(this); // keeping the use
                return false;
            }
        } catch (ProcessOpException e) {
            ended.completeExceptionally(failure(e));
        }
        boolean mine;
        synchronized (this) {
            mine = watched;
            watched = false;
        }
        if (mine) {
            leave();
        }
        return true;
    }
}
