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
    /** A descriptor of the JVM's (the end of a pipe between two programs), given in the settings. */
    public static final int STD_DESCRIPTOR = 8;

    /** Process group value that keeps the new process in the JVM's group. */
    public static final int GROUP_INHERIT = -1;

    /** A setting that is not given: the new process keeps what the JVM has. */
    public static final long UNSET = Integer.MIN_VALUE;
    /** Index in {@code settings}: flags, {@link #FLAG_DETACHED}. */
    public static final int SETTING_FLAGS = 0;
    /** Index in {@code settings}: the nice value (clamped to -20..19), or {@link #UNSET}. */
    public static final int SETTING_NICE = 1;
    /** Index in {@code settings}: the file-creation mask, or {@link #UNSET}. */
    public static final int SETTING_UMASK = 2;
    /** Index in {@code settings}: the group to join, 0 to lead a new one, {@link #GROUP_INHERIT} to stay. */
    public static final int SETTING_PROCESS_GROUP = 3;
    /** Index in {@code settings}: the descriptor for {@link #STD_DESCRIPTOR} of descriptor 0, then 1 and 2. */
    public static final int SETTING_STD_FDS = 4;
    /** Index in {@code settings}: the memory limit of a contained tree in bytes, or {@link #UNSET}. */
    public static final int SETTING_MEMORY_LIMIT = 7;
    /** Index in {@code settings}: the process limit of a contained tree, or {@link #UNSET}. */
    public static final int SETTING_PROCESS_LIMIT = 8;
    /** The length of {@code settings}. */
    public static final int SETTINGS = 9;
    /** Flag: a program that is no child of the JVM. */
    public static final long FLAG_DETACHED = 1;
    /** Flag: the program and everything it starts live in a group of their own (a contained tree). */
    public static final long FLAG_CONTAINED = 2;
    /** Flag: the program (its whole tree, when contained) is killed when the JVM ends, however it ends. */
    public static final long FLAG_END_WITH_JVM = 4;

    /** Index in {@code launched}: the PID of the new process. */
    public static final int LAUNCHED_PID = 0;
    /** Index in {@code launched}: the JVM's end of the pipe of descriptor 0, then 1 and 2; -1 for none. */
    public static final int LAUNCHED_PIPES = 1;
    /** Index in {@code launched}, set on failure too: the step that failed, a {@code STEP_} value. */
    public static final int LAUNCHED_STEP = 4;
    /** Index in {@code launched}: which descriptor (0 to 2) or group ({@code 1}: the user's own) failed. */
    public static final int LAUNCHED_DETAIL = 5;
    /** Index in {@code launched}: the system's error number of a failure. */
    public static final int LAUNCHED_ERRNO = 6;
    /** Index in {@code launched}: the token of the contained tree, 0 for none. */
    public static final int LAUNCHED_TREE = 7;
    /** Index in {@code launched}: how the tree is contained, a {@code CONTAINMENT_} value. */
    public static final int LAUNCHED_CONTAINMENT = 8;
    /** The length of {@code launched}. */
    public static final int LAUNCHED = 9;

    /** Containment: none. */
    public static final int CONTAINMENT_NONE = 0;
    /** Containment: a cgroup of its own. */
    public static final int CONTAINMENT_CGROUP = 1;
    /** Containment: the process group the program leads. */
    public static final int CONTAINMENT_PROCESS_GROUP = 2;

    /** Failed step: none. */
    public static final int STEP_NONE = 0;
    /** Failed step: the JVM's side of the launch (pipes, process creation, the wait for the exec). */
    public static final int STEP_LAUNCHER = 1;
    /** Failed step: the wait for the exec had no memory. */
    public static final int STEP_WAIT_BUFFER = 2;
    /** Failed step: the nice value. */
    public static final int STEP_PRIORITY = 3;
    /** Failed step: the group, or with detail 1 the primary group of the user. */
    public static final int STEP_GROUP = 4;
    /** Failed step: the user. */
    public static final int STEP_USER = 5;
    /** Failed step: the working directory. */
    public static final int STEP_DIRECTORY = 6;
    /** Failed step: the process group. */
    public static final int STEP_PROCESS_GROUP = 7;
    /** Failed step: the standard descriptor of the detail. */
    public static final int STEP_STD_HANDLE = 8;
    /** Failed step: the exec of the program. */
    public static final int STEP_EXEC = 9;
    /** Failed step: the groups of a contained tree; detail 1: no hierarchy carries memory, 2: none carries pids. */
    public static final int STEP_CGROUP = 10;
    /** Failed step: a resource limit; detail: the resource's number. */
    public static final int STEP_LIMIT = 11;
    /** Failed step: the program could not be made to end with the JVM. */
    public static final int STEP_WATCHDOG = 12;

    private static volatile NativeProcessGlue instance;

    private NativeProcessGlue() {}

    /**
     * @return the one instance through which the natives are called. The library is loaded at the first call,
     *     not when the class is initialised: a failure (no memory for a moment) is tried again at the next call
     *     instead of leaving the class unusable for the life of the JVM
     */
    public static NativeProcessGlue get() {
        NativeProcessGlue glue = instance;
        if (glue == null) {
            synchronized (NativeProcessGlue.class) {
                if (instance == null) {
                    NativeLibrary.load();
                    instance = new NativeProcessGlue();
                }
                glue = instance;
            }
        }
        return glue;
    }

    /**
     * Launches a process and returns once its exec succeeded or failed. Failures are those of
     * {@link UnixProcessGlue#create}, with the same classes and messages, but nothing is written to the JVM's
     * streams: {@code launched} tells the step that failed.
     *
     * @param executable program to run, searched on the resulting PATH when it holds no slash
     * @param arguments arguments after argument 0 (which is the executable text); may be null
     * @param environment key=value entries applied to the base environment, PATH-like keys in front of the
     *     base's value; may be null
     * @param baseEnvironment the whole environment to start from, key=value; null for the JVM's
     * @param workingDirectory directory of the program, or null to inherit it
     * @param stdModes three dispositions ({@code STD_*}) for stdin, stdout and stderr
     * @param stdPaths three paths, used by {@link #STD_READ}, {@link #STD_WRITE} and {@link #STD_APPEND}
     * @param groupName group of the program, or null
     * @param userName user of the program, or null
     * @param settings {@link #SETTINGS} values, indexed by the {@code SETTING_} constants
     * @param limits resource limits the program sets before its exec: triples of the resource's number
     *     ({@code RLIMIT_}), the soft and the hard limit (-1: unlimited); may be null
     * @param launched {@link #LAUNCHED} values, indexed by the {@code LAUNCHED_} constants, filled in
     * @return the handle of the new process; a child's end is collected by the library as soon as it ends,
     *     whether or not anybody asks for it, also after {@link UnixProcessGlue#done}
     * @throws ProcessOpException with the subclass of the failure
     */
    public native long launch(String executable, String[] arguments, String[] environment, String[] baseEnvironment,
            String workingDirectory, int[] stdModes, String[] stdPaths, String groupName, String userName,
            long[] settings, long[] limits, long[] launched) throws ProcessOpException;

    /** @return the system's text for an error number */
    public native String errorText(int errno);

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

    /** Event of {@link #awaitEvents}: the watched process of the handle has ended (a child is collected). */
    public static final int EVENT_ENDED = 1;
    /** Event: a delivery's chunk waits for {@link #takeChunk}, or its pipe has reached its end. */
    public static final int EVENT_CHUNK = 2;
    /** Event: a capture has read its pipe to the end; {@link #takeCaptured} gives what it read. */
    public static final int EVENT_CAPTURED = 3;
    /** Event: a feed has written all its input, or its reader went away; its descriptor is closed. */
    public static final int EVENT_FED = 4;
    /** Event: the last member of a contained tree has ended. */
    public static final int EVENT_TREE = 5;

    /** Watches the process: {@link #awaitEvents} reports the handle once the process has ended. */
    public native void watch(long handle) throws ProcessOpException;

    /**
     * Blocks up to {@code timeoutMillis} (-1: no limit) for events of watched processes and of pipes, each
     * reported once, and serves the pipes meanwhile. One thread calls it for all of them.
     *
     * @param tokens receives the handle or token of each event
     * @param kinds receives the {@code EVENT_} kind of each event
     * @return how many events were stored
     */
    public native int awaitEvents(long[] tokens, int[] kinds, int timeoutMillis);

    /** Ends a wait of {@link #awaitEvents} in progress at once (or the next one, when none is). */
    public native void wakeEvents();

    /**
     * Reads a pipe to its end into memory, at most {@code limit} bytes kept, the rest counted and dropped.
     *
     * @param fd the JVM's end of the pipe, taken over
     * @return the capture's token, reported by {@link #EVENT_CAPTURED}; given back with {@link #release}
     */
    public native long capture(int fd, long limit);

    /**
     * Reads a pipe one chunk at a time, as {@link #EVENT_CHUNK} reports; after a chunk was taken, reading
     * goes on only at {@link #resume}.
     *
     * @param fd the JVM's end of the pipe, taken over
     * @return the delivery's token, given back with {@link #release}
     */
    public native long deliver(int fd);

    /**
     * Writes a copy of the input to a pipe and then closes it; {@link #EVENT_FED} reports the end.
     *
     * @param fd the JVM's end of the pipe, taken over
     * @return the feed's token, given back with {@link #release}
     */
    public native long feed(int fd, byte[] input);

    /** @return the waiting chunk of a delivery, once; an empty array at the end of the pipe; null for none */
    public native byte[] takeChunk(long token);

    /** Reads on after a chunk was taken; with {@code discard}, drops all that comes to the end. */
    public native void resume(long token, boolean discard);

    /**
     * @param dropped receives in its first slot how many bytes went beyond the limit
     * @return what the capture read, once it has ended or was cancelled; null before
     */
    public native byte[] takeCaptured(long token, long[] dropped);

    /** Stops a capture, delivery or feed now and closes its pipe; a capture keeps what it read. */
    public native void cancel(long token);

    /** Forgets a capture, delivery or feed, cancelling it first. Unknown tokens are ignored. */
    public native void release(long token);

    /** Kills every member of a contained tree at once; nothing once it is empty. */
    public native void treeKill(long tree) throws ProcessOpException;

    /** Sends a signal to every member of a contained tree, which is frozen meanwhile where it is a cgroup. */
    public native void treeSignal(long tree, int signal) throws ProcessOpException;

    /**
     * Looks whether a contained tree is empty; then its figures are final.
     *
     * @param usage receives the peak memory in bytes (-1: unknown) and 1 when a member was killed for memory
     * @return whether no member is left
     */
    public native boolean treeEmpty(long tree, long[] usage);

    /** Lets go of a tree: it is freed now if empty, else once it is, its group removed then. */
    public native void treeRelease(long tree);

    /**
     * How an ended process ended, with what it used.
     *
     * @param end receives the exit status, the signal, and the user and system CPU time in microseconds of the
     *     process and the descendants it waited for (-1: unknown, for a process that is no child)
     */
    public native void endOf(long handle, long[] end) throws ProcessOpException;

    /** Makes a pipe, both ends close-on-exec and above 2: {@code ends} receives the read end, then the write end. */
    public native void pipe(int[] ends) throws IOException;

    /**
     * Sends SIGKILL to a process group, unless no process is in it any more: its number may name another group
     * then, once its leader has ended.
     *
     * @return whether it was sent
     */
    public native boolean killGroup(int group);

    /**
     * Sends a signal through the process's pidfd, so never to a process that reused its PID.
     *
     * @param signal the signal's number, 1 to 64
     * @return false when the process has ended and nothing was sent
     * @throws ProcessOpException EINVAL for a number that is no signal, {@code AccessDeniedException} when the
     *     system refuses
     */
    public native boolean signal(long handle, int signal) throws ProcessOpException;

    /**
     * Sends SIGKILL to the process group the process leads and to every descendant, at once. A tree that
     * holds the calling process is refused (EDEADLK) before anything is sent.
     */
    public native void killTree(long handle) throws ProcessOpException;
}
