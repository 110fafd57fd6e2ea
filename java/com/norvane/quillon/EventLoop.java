package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.util.HashMap;
import java.util.Map;

/**
 * The one thread that serves every process and pipe the library follows: it learns of the end of watched
 * processes (and completes their waits and {@code onExit} futures), and of the pipes it reads or feeds
 * natively (captures of {@code run}, deliveries to output handlers, input fed to a program). It is started
 * before the first launch and runs as a daemon for the life of the JVM. It never runs code of the library's
 * users: output handlers run in the {@link HandlerPool}.
 *
 * <p>The library reaps a launched child by itself when it ends, so no child stays a zombie whatever happens
 * here. An {@link Error} while an event is handled (the heap full for a moment) leaves the event for the next
 * round instead of losing it. No static state is made in a class initialiser, whose failure would leave the
 * class unusable for the life of the JVM.
 */
final class EventLoop {
    private static final long PAUSE_AFTER_ERROR_MILLIS = 10;
    private static Map<Long, Target> targets; // under the class's lock
    private static Thread thread;

    private EventLoop() {}

    /** What an event is for: a watched process, or a pipe the library serves. */
    interface Target {
        /**
         * Handles an event of the kind given ({@code NativeProcessGlue.EVENT_}); an Error leaves it to be
         * handled again.
         *
         * @return true when the token has no more events to come
         */
        boolean handle(int kind);
    }

    /**
     * Starts the thread unless it runs: before a launch, so that the library's own collection of a child's
     * end, which this thread drives, never waits for a thread that could not be made afterwards.
     */
    static void ensureRunning() {
        synchronized (EventLoop.class) {
            start();
        }
    }

    /** Watches the process of a handle in use; its end is reported once, also when it has ended already. */
    static void watch(OwnedHandle owner) throws ProcessOpException {
        synchronized (EventLoop.class) {
            follow(owner.handle, owner);
            try {
                NativeProcessGlue.get().watch(owner.handle);
            } catch (ProcessOpException | RuntimeException | Error e) {
                targets.remove(owner.handle, owner);
                throw e;
            }
        }
    }

    /**
     * Serves a pipe: {@code open} makes the native source, whose token is returned, while the thread can't
     * yet look for a target; so no event of the source finds none.
     */
    static long serve(java.util.function.LongFunction<Target> target, Source open) {
        synchronized (EventLoop.class) {
            long token = open.make();
            try {
                follow(token, target.apply(token));
            } catch (RuntimeException | Error e) { // nobody would ever release the source
                NativeProcessGlue.get().release(token);
                throw e;
            }
            return token;
        }
    }

    /** Makes a native source and returns its token. */
    interface Source {
        long make();
    }

    private static void follow(long token, Target target) {
        start();
        if (targets == null) {
            targets = new HashMap<>();
        }
        targets.put(token, target);
    }

    /** Forgets a target that expects no more events; its native watch or source ends with it. */
    static void forget(long token, Target target) {
        synchronized (EventLoop.class) {
            if (targets != null) {
                targets.remove(token, target);
            }
        }
    }

    /** Starts the thread once; a failure (no memory for it) is tried again at the next call. */
    private static void start() {
        if (thread == null) {
            Thread started = new Thread(null, EventLoop::run, "quillon-events", 0, false);
            started.setDaemon(true);
            started.setContextClassLoader(null); // holds no application's class loader for the life of the JVM
            started.start();
            thread = started;
        }
    }

    private static void run() {
        long[] tokens = new long[256];
        int[] kinds = new int[256];
        int count = 0;
        int next = 0;
        for (;;) {
            try {
                if (next == count) {
                    count = NativeProcessGlue.get().awaitEvents(tokens, kinds, HandlerPool.get().checkStall());
                    next = 0;
                }
                for (; next < count; next++) {
                    dispatch(tokens[next], kinds[next]);
                }
            } catch (Throwable e) { // the thread outlives any failure: the event at `next` is tried again
                pause();
            }
        }
    }

    private static void dispatch(long token, int kind) {
        Target target;
        synchronized (EventLoop.class) {
            target = targets.get(token);
        }
        if (target != null && target.handle(kind)) {
            forget(token, target);
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
