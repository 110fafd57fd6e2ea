package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;

/**
 * The one thread that learns of the end of every watched process: it collects the end of each child, so
 * that none stays a zombie whether or not anybody waits for it, and completes the waits and
 * {@code onExit} futures. It is started with the first watched process and runs as a daemon for the life
 * of the JVM. It never runs code of the library's users.
 */
final class ProcessWatcher {
    private static final NativeProcessGlue NATIVE = NativeProcessGlue.get();
    private static final Map<Long, OwnedHandle> WATCHED = new ConcurrentHashMap<>();
    private static Thread thread;

    private ProcessWatcher() {}

    /** Watches the process of a handle in use. */
    static void watch(OwnedHandle owner) throws ProcessOpException {
        WATCHED.put(owner.handle, owner);
        try {
            NATIVE.watch(owner.handle);
        } catch (ProcessOpException | RuntimeException e) {
            WATCHED.remove(owner.handle, owner);
            throw e;
        }
        start(); // after the first watch, so that the native side has its set to wait on
    }

    /** Forgets a process object that was closed; its native watch ends with its handle. */
    static void forget(OwnedHandle owner) {
        WATCHED.remove(owner.handle, owner);
    }

    private static synchronized void start() {
        if (thread == null) {
            thread = new Thread(null, ProcessWatcher::run, "quillon-process-watcher", 0, false);
            thread.setDaemon(true);
            thread.setContextClassLoader(null); // holds no application's class loader for the life of the JVM
            thread.start();
        }
    }

    private static void run() {
        long[] ended = new long[256];
        for (;;) {
            int count = NATIVE.awaitEnded(ended, -1);
            for (int i = 0; i < count; i++) {
                OwnedHandle owner = WATCHED.remove(ended[i]);
                if (owner == null) {
                    continue;
                }
                try {
                    owner.collect();
                } catch (Throwable e) { // the thread must outlive any failure: without it children stay zombies
                    owner.ended.completeExceptionally(e);
                }
            }
        }
    }
}
