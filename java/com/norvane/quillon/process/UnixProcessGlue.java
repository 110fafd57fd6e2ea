package com.norvane.quillon.process;

import com.norvane.quillon.process.exception.ProcessOpException;

/**
 * Native process management on Unix: launch, adopt, supervise and signal processes, and read or change
 * the identity of the running process.
 *
 * <p>Processes are held by {@code long} handles. A handle comes from {@link #create}, {@link #recreate}
 * or {@link #createSelf} and must be given back with {@link #done} exactly once, when no other thread
 * uses it any more. A handle must not be used after {@code done}.
 */
public final class UnixProcessGlue {
    private static volatile UnixProcessGlue instance;

    private UnixProcessGlue() {}

    /**
     * @return the one instance through which the natives are called. The library is loaded at the first call,
     *     not when the class is initialised: a failure (no memory for a moment) is tried again at the next call
     *     instead of leaving the class unusable for the life of the JVM
     */
    public static UnixProcessGlue get() {
        UnixProcessGlue glue = instance;
        if (glue == null) {
            synchronized (UnixProcessGlue.class) {
                if (instance == null) {
                    NativeLibrary.load();
                    instance = new UnixProcessGlue();
                }
                glue = instance;
            }
        }
        return glue;
    }

    /**
     * Launches a process and returns once its exec succeeded or failed.
     *
     * @param executable program to run, searched on PATH when it holds no slash; not null
     * @param arguments argument vector after argument 0 (which is the executable text); a null entry ends it
     * @param environment key=value entries added to the inherited environment; PATH-like keys are
     *     prepended to the inherited value
     * @param workingDirectory directory of the new process, or null to inherit it
     * @param priority nice value plus 20 (20 keeps nice 0)
     * @param stdFiles names for stdin, stdout and stderr (at least three entries); a leading '!' truncates
     *     instead of appending; a null stdin entry gives /dev/null, a null stdout or stderr entry inherits
     * @param fileMask file-creation mask of the new process
     * @param groupName group of the new process, or null
     * @param userName user of the new process, or null
     * @param processGroup process group to join; 0 makes the process lead a new group
     * @param extraName carried along and otherwise unused
     * @param ignoreStdFiles true to inherit all three standard descriptors and ignore {@code stdFiles}
     * @param detached true to start a program that is not a child of this process
     * @return the handle of the new process
     * @throws ProcessOpException with the subclass of the failure
     */
    public native long create(String executable, String[] arguments, String[] environment,
            String workingDirectory, int priority, String[] stdFiles, long fileMask, String groupName,
            String userName, int processGroup, String extraName, boolean ignoreStdFiles, boolean detached)
            throws ProcessOpException;

    /** @return a handle on the running process itself */
    public native long createSelf() throws ProcessOpException;

    /**
     * Adopts a running process by its decimal PID.
     *
     * @throws ProcessOpException {@code ProcessHasExitedException} when no such process exists
     */
    public native long recreate(String pid) throws ProcessOpException;

    /** @return the PID text of the handle */
    public native String id(long handle);

    /** @return 1 while the process is alive, 0 once it has been seen to end */
    public native int ping(long handle) throws ProcessOpException;

    /** Releases the handle. It neither signals nor waits for the process. */
    public native void done(long handle);

    /** Blocks until the process has ended. */
    public native void waitForTermination(long handle) throws ProcessOpException;

    /**
     * Waits up to {@code timeoutSeconds} (-1: no limit) for the process to end.
     *
     * @throws ProcessOpException {@code ProcessStillActiveException} when the time ran out
     */
    public native void waitForTerminationWithTimeout(long handle, int timeoutSeconds)
            throws ProcessOpException;

    /** @return the exit status, or the number of the signal that ended the process */
    public native int getExitCode(long handle) throws ProcessOpException;

    /** Sends SIGTERM. */
    public native void stop(long handle) throws ProcessOpException;

    /** Sends SIGKILL. */
    public native void kill(long handle) throws ProcessOpException;

    /** Sends SIGQUIT, which asks a Java virtual machine for a thread dump. */
    public native void pokeVMThreadDump(long handle) throws ProcessOpException;

    /** @return true when the real user id of this process is 0 */
    public native boolean isUserPrivileged();

    /** @return the name of the real user of this process */
    public native String getCurrentProcessUser() throws ProcessOpException;

    /** @return the name of the real group of this process */
    public native String getCurrentProcessGroup() throws ProcessOpException;

    /** Changes the user of the whole process. */
    public native void setCurrentProcessUser(String userName) throws ProcessOpException;

    /** Changes the group of the whole process. */
    public native void setCurrentProcessGroup(String groupName) throws ProcessOpException;

    /** @return the home directory of the real user of this process */
    public native String getCurrentProcessUserOSHomeDir() throws ProcessOpException;
}
