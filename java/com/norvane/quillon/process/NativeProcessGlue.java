package com.norvane.quillon.process;

import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.IOException;

/**
 * Natives behind the public {@code com.norvane.quillon} API: a launch with pipes and a complete
 * environment, descriptor I/O, waits in milliseconds, how a process ended, a watcher for process ends,
 * and the kill of a whole process tree.
 *
 * <p>Handles are those of {@link UnixProcessGlue}: a handle from {@link #launch} works with every
 * native there and is released with {@link UnixProcessGlue#done}.
 */
public final class NativeProcessGlue {
    static {
        NativeLibrary.load();
    }

    /** The standard descriptor is the JVM's own. */
    public static final int STD_INHERIT = 0;
    /** A pipe: the JVM's end comes back in {@code pipeFds}. */
    public static final int STD_PIPE = 1;
    /** {@code /dev/null}, read-only for stdin, write-only for stdout and stderr. */
    public static final int STD_NULL = 2;
    /** The path, opened read-only (stdin). */
    public static final int STD_READ = 3;
    /** The path, created or truncated. */
    public static final int STD_WRITE = 4;
    /** The path, created or appended to. */
    public static final int STD_APPEND = 5;
    /** Stderr only: the same file as stdout. */
    public static final int STD_AS_STDOUT = 6;

    /** Process group value that keeps the new process in the JVM's group. */
    public static final int GROUP_INHERIT = -1;

    private static final NativeProcessGlue INSTANCE = new NativeProcessGlue();

    private NativeProcessGlue() {}

    /** @return the one instance through which the natives are called */
    public static NativeProcessGlue get() {
        return INSTANCE;
    }

    /**
     * Launches a process and returns once its exec succeeded or failed. Failures are those of
     * {@link UnixProcessGlue#create}, with the same classes and messages.
     *
     * @param executable program to run, searched on the (resulting) PATH when it holds no slash
     * @param arguments arguments after argument 0 (which is the executable text); may be null
     * @param environment key=value entries; may be null
     * @param replaceEnvironment true: {@code environment} is the whole environment of the program; false:
     *     the entries are added to the inherited environment, PATH-like keys in front of the inherited value
     * @param workingDirectory directory of the program, or null to inherit it
     * @param nice nice value of the program, clamped to -20..19
     * @param stdModes three dispositions ({@code STD_*}) for stdin, stdout and stderr
     * @param stdPaths three paths, used by {@link #STD_READ}, {@link #STD_WRITE} and {@link #STD_APPEND}
     * @param fileMask file-creation mask of the program
     * @param groupName group of the program, or null
     * @param userName user of the program, or null
     * @param processGroup group to join, 0 to lead a new one, {@link #GROUP_INHERIT} to stay in the JVM's
     * @param detached true for a program that is no child of the JVM
     * @param pipeFds three entries that receive the JVM's end of each {@link #STD_PIPE}, -1 elsewhere
     * @return the handle of the new process
     * @throws ProcessOpException with the subclass of the failure
     */
    public native long launch(String executable, String[] arguments, String[] environment,
            boolean replaceEnvironment, String workingDirectory, int nice, int[] stdModes, String[] stdPaths,
            int fileMask, String groupName, String userName, int processGroup, boolean detached, int[] pipeFds)
            throws ProcessOpException;

    /** Reads up to {@code length} bytes; blocks until one is there. @return the count, -1 at end of file */
    public native int read(int fd, byte[] buffer, int offset, int length) throws IOException;

    /** Writes all {@code length} bytes. */
    public native void write(int fd, byte[] buffer, int offset, int length) throws IOException;

    /** @return how many bytes can be read without blocking */
    public native int available(int fd) throws IOException;

    /** Closes the descriptor. */
    public native void close(int fd) throws IOException;

    /**
     * Waits for the end of the process, collecting its status when it is a child.
     *
     * @param timeoutMillis the limit, 0 to look once, -1 for none
     * @return true when the process has ended, false when the limit passed first
     */
    public native boolean waitFor(long handle, long timeoutMillis) throws ProcessOpException;

    /** @return the number of the signal that ended the process; 0 when it exited or its end is unknown */
    public native int terminationSignal(long handle) throws ProcessOpException;

    /** Watches the process: {@link #awaitEnded} reports the handle once the process has ended. */
    public native void watch(long handle) throws ProcessOpException;

    /**
     * Blocks up to {@code timeoutMillis} (-1: no limit) until watched processes have ended.
     *
     * @param ended receives the handles of ended processes; each is reported once
     * @return how many handles were stored
     */
    public native int awaitEnded(long[] ended, int timeoutMillis);

    /** Sends SIGKILL to the process group the process leads and to every descendant, at once. */
    public native void killTree(long handle) throws ProcessOpException;
}
