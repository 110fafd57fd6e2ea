package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import java.nio.ByteBuffer;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.List;

/**
 * The output handlers of one process: its pipes read natively by the event thread, a chunk at a time, and
 * handed to the handlers in the {@link HandlerPool}, one call at a time for the whole process. A pipe is read
 * on only once its chunk has been handled, so a slow handler slows its own program alone.
 */
final class Deliveries {
    private final ArrayDeque<Runnable> pending = new ArrayDeque<>();
    private final List<Delivery> deliveries = new ArrayList<>(2);
    private boolean running; // a call for this process is in the pool or under way
    private boolean failed;  // a handler threw: the rest is read and dropped

    /** Delivers what the program writes to the pipe {@code fd} (taken over) to {@code handler}. */
    void add(int fd, OutputHandler handler) {
        Delivery delivery = new Delivery(handler);
        EventLoop.serve(token -> delivery.following(token), () -> NativeProcessGlue.get().deliver(fd));
        synchronized (this) {
            deliveries.add(delivery);
        }
    }

    /** Stops reading the pipes now: what was read is still delivered, then each handler's end. */
    void cancel() {
        List<Delivery> all;
        synchronized (this) {
            all = new ArrayList<>(deliveries);
        }
        for (Delivery delivery : all) {
            NativeProcessGlue.get().cancel(delivery.token);
            schedule(delivery::deliver);
        }
    }

    /** Runs the calls of this process one after the other in the pool. */
    private void schedule(Runnable call) {
        synchronized (this) {
            pending.add(call);
            if (running) {
                return;
            }
            running = true;
        }
        HandlerPool.get().execute(this::runPending);
    }

    private void runPending() {
        for (;;) {
            Runnable call;
            synchronized (this) {
                call = pending.poll();
                if (call == null) {
                    running = false;
                    return;
                }
            }
            try {
                call.run();
            } catch (Throwable e) { // the next call of this process must still come
                Log.warning(() -> "an output delivery failed", e);
            }
        }
    }

    private void fail(OutputHandler handler, Throwable e) {
        synchronized (this) {
            failed = true;
        }
        Log.warning(() -> "output handler " + handler + " failed; its process gets no more calls", e);
    }

    private synchronized boolean failed() {
        return failed;
    }

    /** One pipe and its handler. */
    private final class Delivery implements EventLoop.Target {
        private final OutputHandler handler;
        private volatile long token;
        private boolean ended;

        Delivery(OutputHandler handler) {
            this.handler = handler;
        }

        /** Its token, set before any event of it can be handled. */
        Delivery following(long token) {
            this.token = token;
            return this;
        }

        /** A chunk or the end waits (event thread): the handler gets it in the pool. */
        @Override
        public boolean handle(int kind) {
            schedule(this::deliver);
            return false; // the end forgets the token itself
        }

        /** Takes and hands over what waits, until nothing does (in the pool, one call at a time). */
        void deliver() {
            NativeProcessGlue glue = NativeProcessGlue.get();
            while (!ended) {
                byte[] chunk = glue.takeChunk(token);
                if (chunk == null) {
                    return;
                }
                if (chunk.length == 0) {
                    end();
                    return;
                }
                if (!failed()) {
                    try {
                        handler.onOutput(ByteBuffer.wrap(chunk));
                    } catch (Exception | Error e) {
                        fail(handler, e);
                    }
                }
                glue.resume(token, failed());
            }
        }

        private void end() {
            ended = true;
            if (!failed()) {
                try {
                    handler.onEnd();
                } catch (Exception | Error e) {
                    fail(handler, e);
                }
            }
            NativeProcessGlue.get().release(token);
            EventLoop.forget(token, this);
            synchronized (Deliveries.this) {
                deliveries.remove(this);
            }
        }
    }
}
