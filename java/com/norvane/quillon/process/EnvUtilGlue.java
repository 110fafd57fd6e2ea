package com.norvane.quillon.process;

/** The native environment of the running process, as the system library sees it. */
public final class EnvUtilGlue {
    static {
        NativeLibrary.load();
    }

    private static final EnvUtilGlue INSTANCE = new EnvUtilGlue();

    private EnvUtilGlue() {}

    /** @return the one instance through which the natives are called */
    public static EnvUtilGlue get() {
        return INSTANCE;
    }

    /** @return the value of the variable, or the empty string when it is unset or {@code name} is null */
    public native String native_getenv(String name);

    /** @return every key=value entry of the environment in its order, or null when it is empty */
    public native String[] native_getentireenv();
}
