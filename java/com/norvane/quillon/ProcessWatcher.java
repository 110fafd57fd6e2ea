package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.util.HashMap;
import java.util.Map;

/**
 * The one thread that learns of the end of every watched process and completes its waits and
 * {@code onExit} futures. It is started with the first watched process and runs as a daemon for the life of
 * the JVM. It never runs code of the library's users.
 *
 * <p>The library reaps a launched child by itself when it ends, so no child stays a zombie whatever happens
 * here. An {@link Error} while a report is handled (the heap full for a moment) leaves the report for the
 * next round instead of losing it. No static state is made in a class initialiser, whose failure would leave
 * the class unusable for the life of the JVM.
 */
final class ProcessWatcher {
    private static final long PAUSE_AFTER_ERROR_MILLIS = 10;
    private static Map<Long, OwnedHandle> watched; // under the class's lock
    private static Thread thread;

    private ProcessWatcher() {}

    /**
     * Starts the thread unless it runs: before a launch, so that the library's own collection of a child's
     * end, which this thread drives, never waits for a thread that could not be made afterwards.
     */
    static void ensureRunning() {
        synchronized (ProcessWatcher.class) {
            start();
        }
    }

    /** Watches the process of a handle in use; its end is reported once, also when it has ended already. */
    static void watch(OwnedHandle owner) throws ProcessOpException {
        synchronized (ProcessWatcher.class) {
            start();
            if (watched == null) {
                watched = new HashMap<>();
            }
            watched.put(owner.handle, owner);
        }
        try {
            NativeProcessGlue.get().watch(owner.handle);
        } catch (ProcessOpException | RuntimeException | Error e) {
            forget(owner);
            throw e;
        }
    }

    /** Forgets a process object that no longer follows its process; its native watch ends with its handle. */
    static void forget(OwnedHandle owner) {
        synchronized (ProcessWatcher.class) {
            if (watched != null) {
                watched.remove(owner.handle, owner);
            }
        }
    }

    /** Starts the thread once; a failure (no memory for it) is tried again at the next watch. */
    private static void start() {
        if (thread == null) {
            Thread started = new Thread(null, ProcessWatcher::run, "quillon-process-watcher", 0, false);
            started.setDaemon(true);
            started.setContextClassLoader(null); // holds no application's class loader for the life of the JVM
            started.start();
            thread = started;
        }
    }

    private static void run() {
        long[] ended = new long[256];
        int count = 0;
        int next = 0;
        for (;;) {
            try {
                if (next == count) {
                    count = NativeProcessGlue.get().awaitEnded(ended, -1);
                    next = 0;
                }
                for (; next < count; next++) {
                    report(ended[next]);
                }
            } catch (Throwable e) { // the thread outlives any failure: the report at `next` is tried again
                pause();
            }
        }
    }

    /** Hands a reported end to its object, which stays known until it has taken it. */
    private static void report(long handle) {
        OwnedHandle owner;
        synchronized (ProcessWatcher.class) {
            owner = watched.get(handle);
        }
        if (owner != null && owner.collect()) {
            forget(owner);
        }
    }

    private static void pause() {
        try {
            Thread.sleep(PAUSE_AFTER_ERROR_MILLIS);
        } catch (InterruptedException ignored) {
            // The daemon goes on.
        }
    }
}
