package com.norvane.quillon.process;

/** Loads the library's native code once per class loader, for every glue class. */
public final class NativeLibrary {
    private NativeLibrary() {}

    static {
        System.loadLibrary("Quillon60ProcessManagement");
    }

    /** Makes sure the native library is loaded; cheap after the first call. */
    public static void load() {
        // The static initialiser does the work.
    }
}
