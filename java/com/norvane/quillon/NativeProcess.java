package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.UnixProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.BufferedInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.Objects;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.Executor;
import java.util.concurrent.ForkJoinPool;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;

/**
 * A process followed through the Quillon native library: one that {@link Launcher} started, one adopted
 * by its PID, or the running JVM itself.
 *
 * <p>It is a {@link Process}, so code written against {@code Process} works unchanged: the streams of a
 * launched program are pipes (buffered, as {@code ProcessBuilder}'s are), {@link #exitValue()} of a program
 * ended by signal N is 128+N, and {@link #onExit()} completes when the process ends. Beyond {@code Process}
 * it sends any signal, tells the signal that ended a program, stops it with a grace period, asks a JVM for
 * a thread dump, and kills a whole process tree.
 *
 * <p>The end of every launched program is collected whether or not anybody waits for it: no program stays
 * a zombie. When a process ends, its object lets go of everything the system lent it, as
 * {@code ProcessBuilder}'s processes do: stdin's pipe is closed, what the program wrote and nobody has read
 * yet is drained into memory (the streams read it on), and the native handle is given back. So a server
 * that never calls {@link #close()} holds no descriptor for a program that has ended, and one (besides the
 * pipes) for a program that runs.
 *
 * <p>For a process that is no child of this JVM (a detached program, an adopted process) the exit status
 * cannot be known: {@link #exitStatusKnown()} says so, and {@link #exitValue()} then reads 0.
 *
 * <p>{@link #close()} flushes and closes the pipes and gives back the native handle; it neither stops nor
 * waits for the process. Calls that start after it throw {@link IllegalStateException}; calls in progress
 * in other threads finish with the process's outcome. A process object that becomes unreachable is closed
 * when it is collected as garbage, but the streams it handed out stay usable. Every method is safe to call
 * from any thread.
 */
public final class NativeProcess extends Process implements AutoCloseable {
    private static final long NATIVE_WAIT_MILLIS = 5;
    private static Cleaner cleaner;

    private final OwnedHandle owner;
    private final Cleaner.Cleanable cleanable;
    private final ProcessHandle processHandle;
    private final Pipe[] pipes;
    private final Deliveries deliveries; // null without output handlers
    private OutputStream stdin;  // buffered views, made at the first call
    private InputStream stdout;
    private InputStream stderr;

    private NativeProcess(OwnedHandle owner, ProcessHandle processHandle, Pipe[] pipes, Deliveries deliveries) {
        this.owner = owner;
        this.processHandle = processHandle;
        this.pipes = pipes;
        this.deliveries = deliveries;
        cleanable = cleaner().register(this, owner);
    }

    /**
     * The cleaner of process objects and streams, with a daemon thread that holds no class loader. Made at
     * the first use rather than in a class initialiser, whose failure would leave the class unusable.
     */
    static synchronized Cleaner cleaner() {
        if (cleaner == null) {
            cleaner = Cleaner.create(action -> {
                Thread thread = new Thread(null, action, "quillon-cleaner", 0, false);
                thread.setDaemon(true);
                thread.setContextClassLoader(null);
                return thread;
            });
        }
        return cleaner;
    }

    /**
     * Runs what depends on {@link #onExit()}: the common pool, which lends a blocked action spare threads,
     * rather than a thread per action; its own default where the pool has been given no threads.
     */
    private static Executor exitActions() {
        return ForkJoinPool.getCommonPoolParallelism() > 0 ? ForkJoinPool.commonPool()
                : new CompletableFuture<Void>().defaultExecutor();
    }

    /**
     * Takes over the handle and pipe ends of a launch, or ends the program, gives everything back and says
     * why it can't. No Error on the way loses the program: its end is collected by the library in any case.
     *
     * @param handlers per descriptor 1 and 2, the output handler that gets its pipe, or null
     * @param keepPipes true: the pipe ends stay the caller's, who takes them over at once; false: they become
     *     the streams, or go to the handlers
     */
    static NativeProcess launched(long handle, long[] launched, boolean detached, OutputHandler[] handlers,
            boolean keepPipes) throws IOException {
        int[] fds = new int[3];
        for (int i = 0; i < 3; i++) {
            fds[i] = (int) launched[NativeProcessGlue.LAUNCHED_PIPES + i];
        }
        Pipe[] pipes = new Pipe[3];
        Deliveries deliveries = null;
        try {
            long pid = launched[NativeProcessGlue.LAUNCHED_PID];
            ProcessHandle processHandle = ProcessHandle.of(pid).orElse(null); // null once its end is collected
            for (int i = 0; i < 3 && !keepPipes; i++) {
                if (fds[i] < 0) {
                    continue;
                }
                if (i > 0 && handlers[i - 1] != null) {
                    deliveries = deliveries != null ? deliveries : new Deliveries();
                    int fd = fds[i];
                    fds[i] = -1; // the delivery's, also when it fails
                    deliveries.add(fd, handlers[i - 1]);
                } else {
                    pipes[i] = new Pipe(fds[i]);
                    fds[i] = -1;
                }
            }
            long treeToken = launched[NativeProcessGlue.LAUNCHED_TREE];
            ContainedTree tree = treeToken != 0
                    ? ContainedTree.follow(treeToken, (int) launched[NativeProcessGlue.LAUNCHED_CONTAINMENT]) : null;
            OwnedHandle owner = new OwnedHandle(handle, pid, !detached, false, pipes, tree);
            NativeProcess process = new NativeProcess(owner, processHandle, pipes, deliveries);
            EventLoop.watch(owner);
            return process;
        } catch (ProcessOpException | RuntimeException | Error e) {
            for (Pipe pipe : pipes) {
                if (pipe != null) {
                    pipe.close();
                }
            }
            if (deliveries != null) {
                deliveries.cancel();
            }
            abandon(handle, detached, fds, launched[NativeProcessGlue.LAUNCHED_TREE]);
            throw new IOException("Cannot follow the new process " + launched[NativeProcessGlue.LAUNCHED_PID] + ": "
                    + e.getMessage(), e);
        }
    }

    /**
     * Ends a launched program that can't be followed and gives everything back, as far as it goes: every
     * step is tried whatever the one before threw. A child the wait here could not collect is collected by
     * the library when it ends.
     */
    private static void abandon(long handle, boolean detached, int[] fds, long tree) {
        try {
            if (tree != 0) {
                NativeProcessGlue.get().treeKill(tree);
            }
            UnixProcessGlue.get().kill(handle);
        } catch (Throwable ignored) {
            // It may run on until its end; the wait below still tries.
        }
        try {
            NativeProcessGlue.get().waitFor(handle, detached ? 0 : -1);
        } catch (Throwable ignored) {
            // Collected by the library's own watch of it.
        }
        try {
            UnixProcessGlue.get().done(handle);
            if (tree != 0) {
                NativeProcessGlue.get().treeRelease(tree);
            }
        } catch (Throwable ignored) {
            // Nothing more can be done for it.
        }
        for (int fd : fds) {
            try {
                if (fd >= 0) {
                    NativeProcessGlue.get().close(fd);
                }
            } catch (Throwable ignored) {
                // Given back as far as possible.
            }
        }
    }

    /**
     * Follows a running process by its PID. It need not be a child of this JVM; its exit status then can't
     * be known. It has no streams: they are null streams, as {@code ProcessBuilder} gives for redirected
     * ones. A child that {@code ProcessBuilder} started is collected by the JDK's own reaper and should not
     * be adopted.
     *
     * @param pid the process ID; the running JVM's gives the same as {@link #self()}
     * @return a new process object, to be closed when no longer needed
     * @throws IllegalArgumentException when {@code pid} is not positive
     * @throws IOException when the process does not exist or may not be followed; the cause is the library's
     *     {@link ProcessOpException}, e.g. {@code ProcessHasExitedException}
     */
    public static NativeProcess adopt(long pid) throws IOException {
        if (pid <= 0) {
            throw new IllegalArgumentException("not a process ID: " + pid);
        }
        if (pid == ProcessHandle.current().pid()) {
            return self();
        }
        long handle;
        try {
            handle = UnixProcessGlue.get().recreate(Long.toString(pid));
        } catch (ProcessOpException e) {
            throw new IOException("Cannot adopt process " + pid + ": " + e.getMessage(), e);
        }
        try {
            OwnedHandle owner = new OwnedHandle(handle, pid, false, false, new Pipe[3], null);
            NativeProcess process = new NativeProcess(owner, ProcessHandle.of(pid).orElse(null), new Pipe[3], null);
            EventLoop.watch(owner);
            return process;
        } catch (ProcessOpException | RuntimeException | Error e) {
            UnixProcessGlue.get().done(handle);
            throw new IOException("Cannot adopt process " + pid + ": " + e.getMessage(), e);
        }
    }

    /**
     * The running JVM as a process object: it is alive, can be asked for a thread dump, and refuses what
     * would end or wait for itself ({@link IllegalStateException}, as {@link ProcessHandle#current()} does).
     *
     * @return a new process object, to be closed when no longer needed
     * @throws IOException when the library cannot follow this process; the cause is the library's
     *     {@link ProcessOpException}
     */
    public static NativeProcess self() throws IOException {
        long handle;
        try {
            handle = UnixProcessGlue.get().createSelf();
        } catch (ProcessOpException e) {
            throw new IOException("Cannot follow the running JVM: " + e.getMessage(), e);
        }
        return new NativeProcess(new OwnedHandle(handle, ProcessHandle.current().pid(), false, true, new Pipe[3], null),
                ProcessHandle.current(), new Pipe[3], null);
    }

    /**
     * The stream to the program's stdin, buffered: flush it to send, close it to give the program end of
     * file. Once the program has ended, writes to it fail.
     *
     * @return the pipe, or a stream whose writes fail when stdin is not a pipe
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public synchronized OutputStream getOutputStream() {
        owner.checkOpen();
        if (stdin == null) {
            stdin = pipes[0] != null ? pipes[0].bufferedOutput() : new ClosedOutputStream();
        }
        return stdin;
    }

    /**
     * The stream from the program's stdout. What the program wrote stays readable after it ended.
     *
     * @return the pipe, or an empty stream when stdout is not a pipe or goes to an output handler
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public synchronized InputStream getInputStream() {
        owner.checkOpen();
        if (stdout == null) {
            stdout = pipes[1] != null ? new BufferedInputStream(pipes[1].input()) : InputStream.nullInputStream();
        }
        return stdout;
    }

    /**
     * The stream from the program's stderr.
     *
     * @return the pipe, or an empty stream when stderr is not a pipe, goes with stdout or to an output handler
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public synchronized InputStream getErrorStream() {
        owner.checkOpen();
        if (stderr == null) {
            stderr = pipes[2] != null ? new BufferedInputStream(pipes[2].input()) : InputStream.nullInputStream();
        }
        return stderr;
    }

    /**
     * Waits until the process has ended.
     *
     * @return the exit value, as {@link #exitValue()} gives it
     * @throws InterruptedException when the waiting thread is interrupted
     * @throws IllegalStateException when called after {@link #close()} (a wait in progress at the close
     *     finishes normally), and for the running JVM
     */
    @Override
    public int waitFor() throws InterruptedException {
        try {
            if (!owner.hasEnded()) {
                awaitEnd(-1);
            }
            return owner.exitValue();
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /**
     * Waits until the process has ended or the time is up.
     *
     * @param timeout the longest time to wait; 0 or less looks once
     * @param unit the unit of {@code timeout}
     * @return true when the process has ended
     * @throws InterruptedException when the waiting thread is interrupted
     * @throws IllegalStateException when called after {@link #close()} (a wait in progress at the close
     *     finishes normally), and for the running JVM
     */
    @Override
    public boolean waitFor(long timeout, TimeUnit unit) throws InterruptedException {
        try {
            if (owner.hasEnded()) {
                return true;
            }
            long nanos = unit.toNanos(timeout);
            return nanos > 0 && awaitEnd(nanos);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /** Waits for the end: false when {@code nanos} (-1: no limit) ran out first. */
    private boolean awaitEnd(long nanos) throws InterruptedException {
        if (owner.self) {
            throw new IllegalStateException("the running JVM cannot wait for its own end");
        }
        owner.beginWait();
        try {
            // A program whose output has just ended usually ends within a moment. A short native wait sees
            // that without the thread switch through the watcher; it can't be interrupted, hence short.
            boolean forever = nanos < 0;
            long nativeMillis = forever ? NATIVE_WAIT_MILLIS : Math.min(NATIVE_WAIT_MILLIS, nanos / 1_000_000);
            if (owner.endsWithin(nativeMillis)) {
                return true;
            }
            if (Thread.interrupted()) {
                throw new InterruptedException();
            }
            if (forever) {
                owner.ended.get();
            } else {
                owner.ended.get(nanos - nativeMillis * 1_000_000, TimeUnit.NANOSECONDS);
            }
            return true;
        } catch (TimeoutException e) {
            return owner.endsWithin(0); // the last look, at the deadline itself
        } catch (ExecutionException e) {
            if (e.getCause() instanceof RuntimeException cause) {
                throw cause;
            }
            throw new IllegalStateException(e.getCause());
        } finally {
            owner.endWait();
        }
    }

    /**
     * The exit value of the ended process: its exit status, or 128+N when signal N ended it. Meaningless
     * (0) when {@link #exitStatusKnown()} is false.
     *
     * @throws IllegalThreadStateException while the process runs
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public int exitValue() {
        if (owner.self || !owner.hasEnded()) {
            throw new IllegalThreadStateException("process " + owner.pid + " has not exited");
        }
        return owner.exitValue();
    }

    /**
     * Whether the exit status of this process can be known: true for a program that {@link Launcher}
     * started as a child of this JVM; false for a detached program, an adopted process and the running JVM,
     * whose {@link #exitValue()} and {@link #exitSignal()} read 0.
     *
     * @return whether {@link #exitValue()} tells how the process ended
     */
    public boolean exitStatusKnown() {
        return owner.child;
    }

    /**
     * The signal that ended the process.
     *
     * @return the signal number, or 0 when the process exited or its end can't be known (see
     *     {@link #exitStatusKnown()})
     * @throws IllegalThreadStateException while the process runs
     * @throws IllegalStateException after {@link #close()}
     */
    public int exitSignal() {
        exitValue();
        return owner.exitSignal();
    }

    /**
     * Whether the process is still running.
     *
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public boolean isAlive() {
        if (owner.self) {
            owner.checkOpen();
            return true;
        }
        return !owner.hasEnded();
    }

    /**
     * The process ID.
     *
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public long pid() {
        owner.checkOpen();
        return owner.pid;
    }

    /**
     * The JDK's handle of the same process, for its {@code info()}, {@code children()} and
     * {@code descendants()}.
     *
     * @throws UnsupportedOperationException when the process had already ended when this object was made
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public ProcessHandle toHandle() {
        owner.checkOpen();
        if (processHandle == null) {
            throw new UnsupportedOperationException("process " + owner.pid + " ended before it could be followed");
        }
        return processHandle;
    }

    /**
     * A future completed with this object when the process ends, through the one watcher thread of all
     * processes; dependent actions run in the {@link ForkJoinPool#commonPool() common pool}, never in the
     * watcher. For a child of this JVM it completes when the child ends, even after {@link #close()}; for
     * any other process, closing this object completes it exceptionally unless a wait is in progress.
     *
     * @throws IllegalStateException after {@link #close()}, and for the running JVM
     */
    @Override
    public CompletableFuture<Process> onExit() {
        owner.checkOpen();
        if (owner.self) {
            throw new IllegalStateException("the running JVM cannot wait for its own end");
        }
        return owner.ended.thenApplyAsync(ended -> this, exitActions());
    }

    /**
     * Asks the process to end with SIGTERM. Nothing is sent to a process that has ended.
     *
     * @throws IllegalStateException after {@link #close()}, and for the running JVM
     * @throws java.io.UncheckedIOException when the signal is refused (an adopted process of another user);
     *     the cause's cause is the library's {@link ProcessOpException}
     */
    @Override
    public void destroy() {
        try {
            endingCall(UnixProcessGlue.get()::stop);
        } catch (ProcessOpException e) {
            throw owner.failure(e);
        }
    }

    /**
     * Ends the process with SIGKILL. Nothing is sent to a process that has ended.
     *
     * @return this object
     * @throws IllegalStateException after {@link #close()}, and for the running JVM
     * @throws java.io.UncheckedIOException when the signal is refused; the cause's cause is the library's
     *     {@link ProcessOpException}
     */
    @Override
    public NativeProcess destroyForcibly() {
        try {
            endingCall(UnixProcessGlue.get()::kill);
        } catch (ProcessOpException e) {
            throw owner.failure(e);
        }
        return this;
    }

    /** @return true: {@link #destroy()} sends SIGTERM, which a program may handle to end cleanly */
    @Override
    public boolean supportsNormalTermination() {
        return true;
    }

    /**
     * Sends a signal to the process, through a descriptor that names this process for good, so never to
     * another process that reused its PID. Common numbers on Linux: 1 SIGHUP (reload), 2 SIGINT, 3 SIGQUIT,
     * 9 SIGKILL, 10 SIGUSR1, 12 SIGUSR2, 15 SIGTERM, 18 SIGCONT, 19 SIGSTOP.
     *
     * @param signal the signal's number, 1 to 64
     * @return true when the signal was sent; false when the process had ended, and nothing was sent
     * @throws IllegalArgumentException for a number that is no signal
     * @throws IOException when the system refuses the signal (a process of another user); the cause is the
     *     library's {@link ProcessOpException}
     * @throws IllegalStateException after {@link #close()}, and for the running JVM
     */
    public boolean signal(int signal) throws IOException {
        if (signal < 1 || signal > 64) {
            throw new IllegalArgumentException("not a signal: " + signal);
        }
        refuseForSelf();
        try {
            return owner.signal(signal);
        } catch (ProcessOpException e) {
            throw new IOException("Cannot send signal " + signal + " to process " + owner.pid + ": " + e.getMessage(), e);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /**
     * Stops the process: SIGTERM, then SIGKILL when it is still running after the grace period, and waits
     * for its end.
     *
     * @param grace how long the process may take to end after SIGTERM
     * @return the exit value, as {@link #exitValue()} gives it
     * @throws IOException when a signal is refused; the cause is the library's {@link ProcessOpException}
     * @throws InterruptedException when the waiting thread is interrupted
     * @throws IllegalStateException after {@link #close()}, and for the running JVM
     */
    public int stop(Duration grace) throws IOException, InterruptedException {
        long graceNanos = Launcher.saturatedNanos(Objects.requireNonNull(grace, "grace"));
        send(UnixProcessGlue.get()::stop);
        if (!waitFor(graceNanos, TimeUnit.NANOSECONDS)) {
            send(UnixProcessGlue.get()::kill);
            waitFor();
        }
        return exitValue();
    }

    /**
     * Sends SIGQUIT, on which a JVM writes a thread dump to its stdout; the running JVM may ask itself.
     * Nothing is sent to a process that has ended.
     *
     * @throws IOException when the signal is refused; the cause is the library's {@link ProcessOpException}
     * @throws IllegalStateException after {@link #close()}
     */
    public void requestThreadDump() throws IOException {
        try {
            owner.unlessEnded(UnixProcessGlue.get()::pokeVMThreadDump);
        } catch (ProcessOpException e) {
            throw owner.refused(e);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /**
     * Kills the process and everything below it at once with SIGKILL. Of a contained tree (see
     * {@link Launcher#contained()}) every member, also after the process itself has ended, also members that
     * called {@code setsid} or double-forked where the tree is a cgroup. Otherwise the process group it leads
     * (see {@link Launcher#newProcessGroup()}) and every descendant, also those that left the group, the tree
     * frozen first so that no process can escape by forking meanwhile; then nothing is sent once the process
     * has ended: its orphans have passed to init and can no longer be told from unrelated processes.
     *
     * @throws IllegalStateException when the tree holds this JVM (the process is the JVM's parent or another
     *     ancestor, or leads its process group); after {@link #close()}; and for the running JVM
     * @throws IOException when the signal is refused; the cause is the library's {@link ProcessOpException}
     */
    public void killTree() throws IOException {
        refuseForSelf();
        refuseTreeOfThisJvm();
        try {
            if (owner.tree != null) {
                owner.tree.kill();
            } else {
                owner.killTree();
            }
        } catch (ProcessOpException e) {
            throw owner.refused(e);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /**
     * How the tree of this process is held together: {@link Containment#CGROUP} or
     * {@link Containment#PROCESS_GROUP} for a program started {@link Launcher#contained()}, else
     * {@link Containment#NONE}.
     *
     * @throws IllegalStateException after {@link #close()}
     */
    public Containment containment() {
        owner.checkOpen();
        return owner.tree != null ? owner.tree.containment : Containment.NONE;
    }

    private ContainedTree containedTree() {
        owner.checkOpen();
        if (owner.tree == null) {
            throw new IllegalStateException("process " + owner.pid + " was not started contained");
        }
        return owner.tree;
    }

    /**
     * Waits until the last member of the contained tree has ended, the process itself and everything it
     * started; woken by the group itself, not by polling.
     *
     * @param timeout the longest time to wait; 0 or less looks once
     * @param unit the unit of {@code timeout}
     * @return true when the tree is empty
     * @throws InterruptedException when the waiting thread is interrupted
     * @throws IllegalStateException for a process that was not started contained, and after {@link #close()}
     */
    public boolean waitForTree(long timeout, TimeUnit unit) throws InterruptedException {
        ContainedTree tree = containedTree();
        try {
            tree.ended.get(Math.max(0, timeout), unit);
            return true;
        } catch (TimeoutException e) {
            return tree.ended.isDone();
        } catch (ExecutionException e) {
            throw new IllegalStateException(e.getCause());
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /**
     * A future completed with this object when the last member of the contained tree has ended; dependent
     * actions run in the common pool.
     *
     * @throws IllegalStateException for a process that was not started contained, and after {@link #close()}
     */
    public CompletableFuture<NativeProcess> onTreeExit() {
        return containedTree().ended.thenApplyAsync(ended -> this, exitActions());
    }

    /**
     * Sends a signal to every member of the contained tree; a cgroup is frozen meanwhile, so that no member
     * forks a process that misses it. Nothing is sent once the tree is empty.
     *
     * @param signal the signal's number, 1 to 64
     * @throws IOException when the system refuses; the cause is the library's {@link ProcessOpException}
     * @throws IllegalArgumentException for a number that is no signal
     * @throws IllegalStateException for a process that was not started contained, and after {@link #close()}
     */
    public void signalTree(int signal) throws IOException {
        if (signal < 1 || signal > 64) {
            throw new IllegalArgumentException("not a signal: " + signal);
        }
        try {
            containedTree().signal(signal);
        } catch (ProcessOpException e) {
            throw new IOException("Cannot signal the tree of process " + owner.pid + ": " + e.getMessage(), e);
        }
    }

    /**
     * What the ended program used: CPU times and, for a contained tree whose memory is counted (see
     * {@link Launcher#memoryLimit}), its peak memory and whether a member was killed for going over the limit;
     * those are final once the whole tree has ended ({@link ProcessUsage#complete()}).
     *
     * @return the figures
     * @throws IllegalThreadStateException while the process runs
     * @throws UnsupportedOperationException for a process that is no child of this JVM, whose figures can't
     *     be known
     * @throws IllegalStateException after {@link #close()}
     */
    public ProcessUsage usage() {
        if (!owner.child) {
            owner.checkOpen();
            throw new UnsupportedOperationException("the usage of process " + owner.pid + " can't be known: it is no "
                    + "child of this JVM");
        }
        exitValue();
        OwnedHandle.End end = owner.end();
        long peak = -1;
        boolean killedForMemory = false;
        boolean complete = true;
        if (owner.tree != null) {
            long[] tree = owner.tree.usage();
            peak = tree[0];
            killedForMemory = tree[1] != 0;
            complete = tree[2] != 0;
        }
        return new ProcessUsage(Duration.ofNanos(Math.max(0, end.userMicros()) * 1000),
                Duration.ofNanos(Math.max(0, end.systemMicros()) * 1000), peak, killedForMemory, complete);
    }

    private void refuseTreeOfThisJvm() {
        ProcessHandle current = ProcessHandle.current();
        boolean holds = owner.pid == processGroupOfThisJvm();
        for (ProcessHandle ancestor = current.parent().orElse(null); ancestor != null && !holds;
                ancestor = ancestor.parent().orElse(null)) {
            holds = ancestor.pid() == owner.pid;
        }
        if (holds) {
            throw new IllegalStateException("the tree of process " + owner.pid + " holds this JVM (process "
                    + current.pid() + "): nothing was sent");
        }
    }

    /** The process group of the JVM, from /proc/self/stat (its fifth field); 0 when it can't be read. */
    private static long processGroupOfThisJvm() {
        try {
            String stat = Files.readString(Path.of("/proc/self/stat"));
            String[] fields = stat.substring(stat.lastIndexOf(')') + 2).split(" ");
            return Long.parseLong(fields[2]);
        } catch (IOException | RuntimeException e) {
            return 0; // the native kill refuses such a tree all the same
        }
    }

    /**
     * Closes the pipes and gives back the native handle, without waiting for anything. What was written to
     * {@link #getOutputStream()} and not yet flushed is still written, by the library's event thread as the
     * program reads it, before the program sees end of file (unless a write blocked in another thread holds
     * the stream then). The process itself runs on; a launched child is still collected when it ends. Calls
     * that start afterwards throw {@link IllegalStateException}; waits in progress in other threads finish
     * with the process's outcome, and so do the {@link #onExit()} futures of a child. Calling it again
     * does nothing.
     */
    @Override
    public void close() {
        OutputStream buffered;
        synchronized (this) {
            buffered = stdin;
        }
        if (buffered instanceof Pipe.BufferedOutput output) {
            try {
                output.handOff();
            } catch (RuntimeException | Error e) {
                // The feed could not be made: its bytes are lost, the pipe is closed all the same.
            }
        }
        cleanable.clean();
        owner.closePipes();
        if (deliveries != null) {
            deliveries.cancel();
        }
    }

    /** The handle of this process's ownership, for the runs and trees of this package. */
    OwnedHandle owner() {
        return owner;
    }

    /** @return the PID and the exit value, "running", "ended" (status unknown) or "closed" */
    @Override
    public String toString() {
        String state;
        try {
            state = isAlive() ? "running" : exitStatusKnown() ? "exitValue=" + exitValue() : "ended";
        } catch (IllegalStateException e) {
            state = "closed";
        }
        return "NativeProcess[pid=" + owner.pid + ", " + state + "]";
    }

    private void refuseForSelf() {
        owner.checkOpen();
        if (owner.self) {
            throw new IllegalStateException("the running JVM does not end itself through its process object");
        }
    }

    /** A signal that ends the process, sent unless it has ended. */
    private void endingCall(OwnedHandle.Native call) throws ProcessOpException {
        refuseForSelf();
        try {
            owner.unlessEnded(call);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    private void send(OwnedHandle.Native call) throws IOException {
        try {
            endingCall(call);
        } catch (ProcessOpException e) {
            throw owner.refused(e);
        }
    }

    /** stdin that is no pipe: writes fail, as with {@code ProcessBuilder}'s. */
    private static final class ClosedOutputStream extends OutputStream {
        @Override
        public void write(int b) throws IOException {
            throw new IOException("Stream closed");
        }
    }
}
