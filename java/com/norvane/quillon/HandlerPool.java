package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import java.util.ArrayDeque;

/**
 * The threads that run output handlers: two, and one more whenever handlers have been waiting longer than
 * {@value #STALL_MILLIS} ms while every thread is busy (a slow handler holds up no other process's handlers
 * for longer than that). Threads beyond the first two end after {@value #IDLE_MILLIS} ms without work. The
 * event thread asks {@link #checkStall} at each wake, so no thread of its own watches the pool.
 */
final class HandlerPool {
    private static final int CORE = 2;
    private static final int MOST = 256;
    private static final long STALL_MILLIS = 100;
    private static final long IDLE_MILLIS = 30_000;
    private static HandlerPool pool;

    private final ArrayDeque<Runnable> queue = new ArrayDeque<>();
    private int threads;
    private int idle;
    private long lastTaken = System.nanoTime();

    private HandlerPool() {}

    /** The pool, made at the first use. */
    static synchronized HandlerPool get() {
        if (pool == null) {
            pool = new HandlerPool();
        }
        return pool;
    }

    synchronized void execute(Runnable task) {
        queue.add(task);
        if (idle > 0) {
            notify();
        } else if (threads < CORE) {
            startThread();
        } else {
            // Every thread is busy: the event thread, which may wait without a limit, must look at the stall.
            NativeProcessGlue.get().wakeEvents();
        }
    }

    /**
     * Adds a thread when tasks have waited too long for one.
     *
     * @return how long the event thread may wait before it should look again: -1 when nothing waits
     */
    synchronized int checkStall() {
        if (queue.isEmpty() || idle > 0) {
            return -1;
        }
        long waited = (System.nanoTime() - lastTaken) / 1_000_000;
        if (waited < STALL_MILLIS) {
            return (int) (STALL_MILLIS - waited);
        }
        if (threads < MOST) {
            startThread();
            lastTaken = System.nanoTime(); // the new thread's turn
        }
        return (int) STALL_MILLIS;
    }

    private void startThread() {
        Thread thread = new Thread(null, this::work, "quillon-handler-" + threads, 0, false);
        thread.setDaemon(true);
        thread.setContextClassLoader(null);
        thread.start();
        threads++;
    }

    private void work() {
        for (;;) {
            Runnable task;
            synchronized (this) {
                long idleSince = System.nanoTime();
                while (queue.isEmpty()) {
                    if (threads > CORE && System.nanoTime() - idleSince >= IDLE_MILLIS * 1_000_000) {
                        threads--;
                        return;
                    }
                    idle++;
                    try {
                        wait(IDLE_MILLIS);
                    } catch (InterruptedException ignored) {
                        // The daemon goes on.
                    } finally {
                        idle--;
                    }
                }
                task = queue.poll();
                lastTaken = System.nanoTime();
            }
            try {
                task.run();
            } catch (Throwable e) { // a task reports its own failures; the thread outlives any
                Log.warning(() -> "an output task failed", e);
            }
        }
    }
}
