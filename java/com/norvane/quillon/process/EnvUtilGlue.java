package com.norvane.quillon.process;

/** The native environment of the running process, as the system library sees it. */
public final class EnvUtilGlue {
    private static volatile EnvUtilGlue instance;

    private EnvUtilGlue() {}

    /**
     * @return the one instance through which the natives are called. The library is loaded at the first call,
     *     not when the class is initialised: a failure (no memory for a moment) is tried again at the next call
     *     instead of leaving the class unusable for the life of the JVM
     */
    public static EnvUtilGlue get() {
        EnvUtilGlue glue = instance;
        if (glue == null) {
            synchronized (EnvUtilGlue.class) {
                if (instance == null) {
                    NativeLibrary.load();
                    instance = new EnvUtilGlue();
                }
                glue = instance;
            }
        }
        return glue;
    }

    /** @return the value of the variable, or the empty string when it is unset or {@code name} is null */
    public native String native_getenv(String name);

    /** @return every key=value entry of the environment in its order, or null when it is empty */
    public native String[] native_getentireenv();
}
