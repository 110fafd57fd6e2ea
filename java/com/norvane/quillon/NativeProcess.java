package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.UnixProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.BufferedInputStream;
import java.io.BufferedOutputStream;
import java.io.Closeable;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.time.Duration;
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
 * it tells the signal that ended a program, stops it with a grace period, asks a JVM for a thread dump,
 * and kills a whole process tree.
 *
 * <p>The end of every launched program is collected by one watcher thread for all processes, whether or
 * not anybody waits for it: no program stays a zombie. For a process that is no child of this JVM (a
 * detached program, an adopted process) the exit status cannot be known and reads 0.
 *
 * <p>The object holds a native handle: {@link #close()} gives it back (it neither stops nor waits for the
 * process); a process object that becomes unreachable is closed when it is collected as garbage. After
 * {@code close()}, every method but {@code close()} throws {@link IllegalStateException}, and so do waits
 * in progress in other threads. Every method is safe to call from any thread.
 */
public final class NativeProcess extends Process implements AutoCloseable {
    static final Cleaner CLEANER = Cleaner.create(action -> {
        Thread thread = new Thread(null, action, "quillon-cleaner", 0, false);
        thread.setDaemon(true);
        thread.setContextClassLoader(null);
        return thread;
    });
    private static final UnixProcessGlue UNIX = UnixProcessGlue.get();
    private static final NativeProcessGlue NATIVE = NativeProcessGlue.get();
    private static final long NATIVE_WAIT_MILLIS = 5;
    /**
     * Runs what depends on {@link #onExit()}: the common pool, which lends a blocked action spare threads,
     * rather than a thread per action; its own default where the pool has been given no threads.
     */
    private static final Executor EXIT_ACTIONS = ForkJoinPool.getCommonPoolParallelism() > 0
            ? ForkJoinPool.commonPool() : new CompletableFuture<Void>().defaultExecutor();

    private final OwnedHandle owner;
    private final Cleaner.Cleanable cleanable;
    private final ProcessHandle processHandle;
    private final OutputStream stdin;
    private final InputStream stdout;
    private final InputStream stderr;
    private final Closeable[] pipes; // the unbuffered pipe streams, which close() closes without a flush

    private NativeProcess(OwnedHandle owner, ProcessHandle processHandle, int[] pipeFds) {
        this.owner = owner;
        this.processHandle = processHandle;
        OutputStream in = pipeFds[0] >= 0 ? Pipe.output(pipeFds[0]) : null;
        InputStream out = pipeFds[1] >= 0 ? Pipe.input(pipeFds[1]) : null;
        InputStream err = pipeFds[2] >= 0 ? Pipe.input(pipeFds[2]) : null;
        stdin = in != null ? new BufferedOutputStream(in) : new NullOutputStream();
        stdout = out != null ? new BufferedInputStream(out) : new NullInputStream();
        stderr = err != null ? new BufferedInputStream(err) : new NullInputStream();
        pipes = new Closeable[] {in, out, err};
        cleanable = CLEANER.register(this, owner);
    }

    /** Takes over the handle and pipe ends of a launch, or gives them back and says why it can't. */
    static NativeProcess launched(long handle, long[] launched, boolean detached) throws IOException {
        int[] pipeFds = new int[3];
        for (int i = 0; i < 3; i++) {
            pipeFds[i] = (int) launched[NativeProcessGlue.LAUNCHED_PIPES + i];
        }
        OwnedHandle owner = null;
        ProcessHandle processHandle = null;
        try {
            long pid = launched[NativeProcessGlue.LAUNCHED_PID];
            processHandle = ProcessHandle.of(pid).orElse(null); // before the watcher may reap it
            owner = new OwnedHandle(handle, pid, !detached, false);
            owner.watchedByLaunch();
            ProcessWatcher.watch(owner);
            return new NativeProcess(owner, processHandle, pipeFds);
        } catch (ProcessOpException | RuntimeException | Error e) {
            abandon(handle, detached, pipeFds);
            throw new IOException("Cannot follow the new process: " + e.getMessage(), e);
        }
    }

    /** Ends a launched program that can't be followed, collects it, and gives everything back. */
    private static void abandon(long handle, boolean detached, int[] pipeFds) {
        try {
            UNIX.kill(handle);
            NATIVE.waitFor(handle, detached ? 0 : -1);
        } catch (ProcessOpException ignored) {
            // Nothing more can be done for it.
        }
        UNIX.done(handle);
        for (int fd : pipeFds) {
            if (fd >= 0) {
                try {
                    NATIVE.close(fd);
                } catch (IOException ignored) {
                    // Given back as far as possible.
                }
            }
        }
    }

    /**
     * Follows a running process by its PID. It need not be a child of this JVM; its exit status then reads
     * 0. It has no streams: they are null streams, as {@code ProcessBuilder} gives for redirected ones.
     * A child that {@code ProcessBuilder} started is collected by the JDK's own reaper and should not be
     * adopted.
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
        long handle;
        try {
            handle = UNIX.recreate(Long.toString(pid));
        } catch (ProcessOpException e) {
            throw new IOException("Cannot adopt process " + pid + ": " + e.getMessage(), e);
        }
        boolean self = pid == ProcessHandle.current().pid();
        ProcessHandle processHandle = self ? ProcessHandle.current() : ProcessHandle.of(pid).orElse(null);
        return new NativeProcess(new OwnedHandle(handle, pid, false, self), processHandle, new int[] {-1, -1, -1});
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
            handle = UNIX.createSelf();
        } catch (ProcessOpException e) {
            throw new IOException("Cannot follow the running JVM: " + e.getMessage(), e);
        }
        return new NativeProcess(new OwnedHandle(handle, ProcessHandle.current().pid(), false, true),
                ProcessHandle.current(), new int[] {-1, -1, -1});
    }

    /**
     * The stream to the program's stdin, buffered: flush it to send, close it to give the program end of
     * file.
     *
     * @return the pipe, or a stream whose writes fail when stdin is not a pipe
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public OutputStream getOutputStream() {
        checkOpen();
        return stdin;
    }

    /**
     * The stream from the program's stdout. What the program wrote stays readable after it ended.
     *
     * @return the pipe, or an empty stream when stdout is not a pipe
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public InputStream getInputStream() {
        checkOpen();
        return stdout;
    }

    /**
     * The stream from the program's stderr.
     *
     * @return the pipe, or an empty stream when stderr is not a pipe or goes with stdout
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public InputStream getErrorStream() {
        checkOpen();
        return stderr;
    }

    /**
     * Waits until the process has ended.
     *
     * @return the exit value, as {@link #exitValue()} gives it
     * @throws InterruptedException when the waiting thread is interrupted
     * @throws IllegalStateException after {@link #close()}, also when it comes during the wait, and for the
     *     running JVM
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
     * @throws IllegalStateException after {@link #close()}, also when it comes during the wait, and for the
     *     running JVM
     */
    @Override
    public boolean waitFor(long timeout, TimeUnit unit) throws InterruptedException {
        try {
            if (owner.hasEnded()) {
                return true;
            }
            long nanos = unit.toNanos(timeout);
            return nanos > 0 && (awaitEnd(nanos) || owner.hasEnded());
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /** Waits for the watcher to report the end: false when {@code nanos} (-1: no limit) ran out first. */
    private boolean awaitEnd(long nanos) throws InterruptedException {
        if (owner.self) {
            throw new IllegalStateException("the running JVM cannot wait for its own end");
        }
        // A program whose output has just ended usually ends within a moment. A short native wait sees that
        // without the thread switch through the watcher; it can't be interrupted, hence short.
        boolean forever = nanos < 0;
        long nativeMillis = forever ? NATIVE_WAIT_MILLIS : Math.min(NATIVE_WAIT_MILLIS, nanos / 1_000_000);
        if (owner.endsWithin(nativeMillis)) {
            return true;
        }
        if (Thread.interrupted()) {
            throw new InterruptedException();
        }
        owner.ensureWatched();
        try {
            if (forever) {
                owner.ended.get();
            } else {
                owner.ended.get(nanos - nativeMillis * 1_000_000, TimeUnit.NANOSECONDS);
            }
            return true;
        } catch (TimeoutException e) {
            return false;
        } catch (ExecutionException e) {
            if (e.getCause() instanceof RuntimeException cause) {
                throw cause;
            }
            throw new IllegalStateException(e.getCause());
        }
    }

    /**
     * The exit value of the ended process: its exit status, or 128+N when signal N ended it; 0 for a
     * process that is no child of this JVM, whose status can't be known.
     *
     * @throws IllegalThreadStateException while the process runs
     * @throws IllegalStateException after {@link #close()}
     */
    @Override
    public int exitValue() {
        if (owner.self || !owner.hasEnded()) {
            checkOpen();
            throw new IllegalThreadStateException("process " + owner.pid + " has not exited");
        }
        return owner.exitValue();
    }

    /**
     * The signal that ended the process.
     *
     * @return the signal number, or 0 when the process exited or its end can't be known (no child of this JVM)
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
            checkOpen();
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
        checkOpen();
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
        checkOpen();
        if (processHandle == null) {
            throw new UnsupportedOperationException("process " + owner.pid + " ended before it could be followed");
        }
        return processHandle;
    }

    /**
     * A future completed with this object when the process ends, through the one watcher thread of all
     * processes; dependent actions run in the {@link ForkJoinPool#commonPool() common pool}, never in the
     * watcher. Closing this object completes it exceptionally.
     *
     * @throws IllegalStateException after {@link #close()}, and for the running JVM
     */
    @Override
    public CompletableFuture<Process> onExit() {
        checkOpen();
        if (owner.self) {
            throw new IllegalStateException("the running JVM cannot wait for its own end");
        }
        owner.ensureWatched();
        return owner.ended.thenApplyAsync(ended -> this, EXIT_ACTIONS);
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
            signal(UNIX::stop);
        } catch (ProcessOpException e) {
            throw OwnedHandle.failure(e);
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
            signal(UNIX::kill);
        } catch (ProcessOpException e) {
            throw OwnedHandle.failure(e);
        }
        return this;
    }

    /** @return true: {@link #destroy()} sends SIGTERM, which a program may handle to end cleanly */
    @Override
    public boolean supportsNormalTermination() {
        return true;
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
        send(UNIX::stop);
        if (!waitFor(grace.toNanos(), TimeUnit.NANOSECONDS)) {
            send(UNIX::kill);
            waitFor();
        }
        return exitValue();
    }

    /**
     * Sends SIGQUIT, on which a JVM writes a thread dump to its stdout; the running JVM may ask itself.
     *
     * @throws IOException when the signal is refused; the cause is the library's {@link ProcessOpException}
     * @throws IllegalStateException after {@link #close()}
     */
    public void requestThreadDump() throws IOException {
        checkOpen();
        owner.acquire();
        try {
            UNIX.pokeVMThreadDump(owner.handle);
        } catch (ProcessOpException e) {
            throw new IOException(e.getMessage(), e);
        } finally {
            owner.release();
            Reference.reachabilityFence(this);
        }
    }

    /**
     * Kills the process and everything below it at once with SIGKILL: the process group it leads (see
     * {@link Launcher#newProcessGroup()}) and every descendant, also those that left the group. The tree
     * is frozen first, so that no process can escape by forking meanwhile. Nothing is sent once the process
     * has ended: its orphans have passed to init and can no longer be told from unrelated processes.
     *
     * @throws IOException when the signal is refused; the cause is the library's {@link ProcessOpException}
     * @throws IllegalStateException after {@link #close()}, and for the running JVM
     */
    public void killTree() throws IOException {
        send(handle -> owner.killTree());
    }

    /**
     * Gives back the native handle and closes the pipes to the program (unflushed bytes of
     * {@link #getOutputStream()} are dropped). The process itself runs on; a launched child is still
     * collected when it ends. Waits in progress in other threads end with {@link IllegalStateException}, and
     * the {@link #onExit()} futures complete exceptionally. Calling it again does nothing.
     */
    @Override
    public void close() {
        cleanable.clean();
        for (Closeable pipe : pipes) {
            if (pipe != null) {
                try {
                    pipe.close();
                } catch (IOException ignored) {
                    // The descriptor is given back all the same.
                }
            }
        }
    }

    /** @return the PID and the exit value, "running" or "closed" */
    @Override
    public String toString() {
        String state;
        try {
            state = isAlive() ? "running" : "exitValue=" + exitValue();
        } catch (IllegalStateException e) {
            state = "closed";
        }
        return "NativeProcess[pid=" + owner.pid + ", " + state + "]";
    }

    private interface Signal {
        void send(long handle) throws ProcessOpException;
    }

    private void signal(Signal signal) throws ProcessOpException {
        if (owner.self) {
            checkOpen();
            throw new IllegalStateException("the running JVM does not end itself through its process object");
        }
        owner.acquire();
        try {
            signal.send(owner.handle);
        } finally {
            owner.release();
            Reference.reachabilityFence(this);
        }
    }

    private void send(Signal signal) throws IOException {
        try {
            signal(signal);
        } catch (ProcessOpException e) {
            throw new IOException(e.getMessage(), e);
        }
    }

    private void checkOpen() {
        owner.acquire();
        owner.release();
    }

    /** stdout or stderr that is no pipe: always at end of file, as {@code ProcessBuilder}'s. */
    private static final class NullInputStream extends InputStream {
        @Override
        public int read() {
            return -1;
        }

        @Override
        public int available() {
            return 0;
        }
    }

    /** stdin that is no pipe: writes fail, as with {@code ProcessBuilder}'s. */
    private static final class NullOutputStream extends OutputStream {
        @Override
        public void write(int b) throws IOException {
            throw new IOException("Stream closed");
        }
    }
}
