package com.norvane.quillon.process.linuxutil;

import com.norvane.quillon.process.NativeLibrary;
import com.norvane.quillon.process.exception.ProcessOpException;

/** Native mutexes held by {@code long} handles, and the threading model of the process. */
public final class ThreadUtil {
    private static volatile ThreadUtil instance;

    private ThreadUtil() {}

    /**
     * @return the one instance through which the natives are called. The library is loaded at the first call,
     *     not when the class is initialised: a failure (no memory for a moment) is tried again at the next call
     *     instead of leaving the class unusable for the life of the JVM
     */
    public static ThreadUtil get() {
        ThreadUtil glue = instance;
        if (glue == null) {
            synchronized (ThreadUtil.class) {
                if (instance == null) {
                    NativeLibrary.load();
                    instance = new ThreadUtil();
                }
                glue = instance;
            }
        }
        return glue;
    }

    /** @return the handle of a new mutex with default attributes */
    public native long createMutex() throws ProcessOpException;

    /** @return 0 when the mutex was taken (or the handle is 0), -1 otherwise */
    public native int mutexTrylock(long handle);

    /** Blocks until the mutex is taken; does nothing for handle 0. */
    public native void mutexLock(long handle);

    /** Releases the mutex; does nothing for handle 0. */
    public native void mutexUnlock(long handle);

    /** @return 0 when the mutex was destroyed and freed (or the handle is 0), 1 when it stays */
    public native int freeMutex(long handle);

    /** @return true when all threads of the process share one process id */
    public native boolean isPOSIXThreading();
}
