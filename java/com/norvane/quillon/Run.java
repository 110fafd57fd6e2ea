package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import java.io.IOException;
import java.time.Duration;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;

/**
 * One {@link Launcher#run}: the program's stdout and stderr read to their end by the event thread into
 * native memory, its input fed from there, its end awaited by the calling thread, and at the time limit the
 * kill of its whole tree. No thread is made for it.
 */
final class Run {
    /** After the kill at the time limit: how long the pipes may take to reach their end before they are cut. */
    private static final long AFTER_KILL_MILLIS = 20;
    /** After the pipes: how long the killed program may still take to end before its status is given up. */
    private static final long END_AFTER_KILL_MILLIS = 75;
    private static final byte[] NOTHING = new byte[0];

    private final List<String> command;
    private final NativeProcess process;
    private final Runnable killTree;
    private final long[] captures = {0, 0};
    private final CompletableFuture<Void> finished = new CompletableFuture<>();
    private int waitingFor = 1; // the process's end, and the end of each capture

    private Run(List<String> command, NativeProcess process, Runnable killTree) {
        this.command = command;
        this.process = process;
        this.killTree = killTree;
    }

    /**
     * Runs the launched process to its end or the limit.
     *
     * @param fds the JVM's pipe ends of descriptors 0 to 2 (-1 where none), taken over
     * @param input what to write to stdin's pipe, or null
     * @param limitNanos the longest time the run may take, from {@code began}
     * @param killTree kills the process's whole tree, also after the process itself has ended
     */
    static ProcessResult run(List<String> command, NativeProcess process, int[] fds, byte[] input, long captureLimit,
            long limitNanos, long began, Runnable killTree) throws IOException, InterruptedException {
        Run run = new Run(command, process, killTree);
        long feed = 0;
        try {
            for (int i = 1; i < 3; i++) {
                if (fds[i] >= 0) {
                    int fd = fds[i];
                    fds[i] = -1;
                    run.capture(i - 1, fd, captureLimit);
                }
            }
            if (fds[0] >= 0) {
                int fd = fds[0];
                fds[0] = -1;
                feed = EventLoop.serve(token -> kind -> true, () -> NativeProcessGlue.get().feed(fd, input));
            }
            process.owner().ended.whenComplete((ended, failure) -> run.arrived());
            return run.await(limitNanos, began);
        } finally {
            closeAll(fds);
            NativeProcessGlue glue = NativeProcessGlue.get();
            for (long token : run.captures) {
                if (token != 0) {
                    glue.release(token);
                }
            }
            if (feed != 0) {
                glue.release(feed);
            }
            process.close();
        }
    }

    private static void closeAll(int[] fds) {
        for (int fd : fds) {
            if (fd >= 0) {
                try {
                    NativeProcessGlue.get().close(fd);
                } catch (IOException ignored) {
                    // Given back as far as possible.
                }
            }
        }
    }

    private void capture(int stream, int fd, long limit) {
        synchronized (this) {
            waitingFor++;
        }
        captures[stream] = EventLoop.serve(token -> kind -> {
            arrived();
            return true;
        }, () -> NativeProcessGlue.get().capture(fd, limit));
    }

    /** One of the ends the run waits for has come. */
    private void arrived() {
        boolean all;
        synchronized (this) {
            all = --waitingFor == 0;
        }
        if (all) {
            finished.complete(null);
        }
    }

    private ProcessResult await(long limitNanos, long began) throws InterruptedException {
        boolean timedOut = false;
        try {
            finished.get(Math.max(0, limitNanos - (System.nanoTime() - began)), TimeUnit.NANOSECONDS);
        } catch (TimeoutException e) {
            timedOut = true;
            killTree.run();
            try {
                finished.get(AFTER_KILL_MILLIS, TimeUnit.MILLISECONDS);
            } catch (TimeoutException stillOpen) {
                // A process that left the tree holds a pipe: cut it, and keep what was read.
                for (long token : captures) {
                    if (token != 0) {
                        NativeProcessGlue.get().cancel(token);
                    }
                }
            } catch (ExecutionException cannotHappen) {
                throw new IllegalStateException(cannotHappen);
            }
        } catch (ExecutionException cannotHappen) {
            throw new IllegalStateException(cannotHappen);
        } catch (InterruptedException e) {
            killTree.run();
            throw e;
        }
        boolean ended = process.waitFor(END_AFTER_KILL_MILLIS, TimeUnit.MILLISECONDS);
        long[] dropped = new long[1];
        byte[] stdout = taken(captures[0], dropped);
        long droppedOut = dropped[0];
        byte[] stderr = taken(captures[1], dropped);
        return new ProcessResult(command, ended ? process.exitValue() : -1, ended ? process.exitSignal() : 0, stdout,
                stderr, timedOut, Duration.ofNanos(System.nanoTime() - began), droppedOut + dropped[0] > 0);
    }

    private static byte[] taken(long token, long[] dropped) {
        dropped[0] = 0;
        if (token == 0) {
            return NOTHING;
        }
        byte[] bytes = NativeProcessGlue.get().takeCaptured(token, dropped);
        return bytes != null ? bytes : NOTHING;
    }
}
