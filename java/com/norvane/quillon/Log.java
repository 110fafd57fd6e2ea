package com.norvane.quillon;

import java.util.function.Supplier;

/**
 * The public API's trace: the {@link System.Logger} "com.norvane.quillon", found at the first use. A trace
 * never fails its caller: a logger that can't be had or can't write (no memory for a moment) is skipped.
 */
final class Log {
    private static volatile System.Logger logger;

    private Log() {}

    static void debug(Supplier<String> message) {
        log(System.Logger.Level.DEBUG, message, null);
    }

    static void warning(Supplier<String> message, Throwable thrown) {
        log(System.Logger.Level.WARNING, message, thrown);
    }

    private static void log(System.Logger.Level level, Supplier<String> message, Throwable thrown) {
        try {
            System.Logger found = logger;
            if (found == null) {
                logger = found = System.getLogger("com.norvane.quillon");
            }
            if (thrown == null) {
                found.log(level, message);
            } else {
                found.log(level, message, thrown);
            }
        } catch (RuntimeException | Error e) {
            // Tracing is not worth a failure of what is traced.
        }
    }
}
