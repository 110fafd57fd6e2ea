package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.util.concurrent.CompletableFuture;

/**
 * The contained tree of a launched program, as the library holds it: its token, and a future completed when
 * its last member has ended (the event thread learns it from the group, without polling). The library
 * removes the tree's groups once it is empty; this object lets go of the native tree when its process object
 * is closed or collected and the tree has ended, whichever comes last.
 */
final class ContainedTree implements EventLoop.Target {
    final long token;
    final Containment containment;
    final CompletableFuture<Void> ended = new CompletableFuture<>();
    private boolean closed;
    private boolean released;
    private int uses; // native calls on the token in progress: it is released after the last

    private ContainedTree(long token, Containment containment) {
        this.token = token;
        this.containment = containment;
    }

    /** Follows the tree of a launch; one that ended before it was followed is ended at once. */
    static ContainedTree follow(long token, int kind) {
        ContainedTree tree = new ContainedTree(token,
                kind == NativeProcessGlue.CONTAINMENT_CGROUP ? Containment.CGROUP : Containment.PROCESS_GROUP);
        EventLoop.serve(t -> tree, () -> token);
        if (NativeProcessGlue.get().treeEmpty(token, null)) { // its end was reported before it was followed
            EventLoop.forget(token, tree);
            tree.ended.complete(null);
        }
        return tree;
    }

    /** The event thread: the last member has ended. */
    @Override
    public boolean handle(int kind) {
        ended.complete(null);
        releaseIfDone();
        return true;
    }

    /** The process object is closed or collected: the native tree goes once it has ended too. */
    void close() {
        synchronized (this) {
            closed = true;
        }
        releaseIfDone();
    }

    private void releaseIfDone() {
        synchronized (this) {
            if (released || !closed || !ended.isDone() || uses > 0) {
                return;
            }
            released = true;
        }
        NativeProcessGlue.get().treeRelease(token);
    }

    /** Counts a native call in: false once the token is released. */
    private synchronized boolean use() {
        if (released) {
            return false;
        }
        uses++;
        return true;
    }

    private void done() {
        synchronized (this) {
            uses--;
        }
        releaseIfDone();
    }

    void kill() throws ProcessOpException {
        if (!ended.isDone() && use()) {
            try {
                NativeProcessGlue.get().treeKill(token);
            } finally {
                done();
            }
        }
    }

    void signal(int signal) throws ProcessOpException {
        if (!ended.isDone() && use()) {
            try {
                NativeProcessGlue.get().treeSignal(token, signal);
            } finally {
                done();
            }
        }
    }

    /**
     * @return the tree's peak memory in bytes (-1 unknown), 1 when a member was killed for memory, and 1 when
     *     the tree has ended, so that the figures are final
     */
    long[] usage() {
        long[] usage = {-1, 0, 0};
        if (use()) {
            try {
                usage[2] = NativeProcessGlue.get().treeEmpty(token, usage) ? 1 : 0;
            } finally {
                done();
            }
        }
        return usage;
    }
}
