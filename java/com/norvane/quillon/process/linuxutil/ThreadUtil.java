package com.norvane.quillon.process.linuxutil;

import com.norvane.quillon.process.NativeLibrary;
import com.norvane.quillon.process.exception.ProcessOpException;

/** Native mutexes held by {@code long} handles, and the threading model of the process. */
public final class ThreadUtil {
    static {
        NativeLibrary.load();
    }

    private static final ThreadUtil INSTANCE = new ThreadUtil();

    private ThreadUtil() {}

    /** @return the one instance through which the natives are called */
    public static ThreadUtil get() {
        return INSTANCE;
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
