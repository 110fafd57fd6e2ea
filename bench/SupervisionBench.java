import com.norvane.quillon.process.UnixProcessGlue;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.concurrent.TimeUnit;

/**
 * How soon a wait returns after the process has ended, for a child and for a process that is no child,
 * beside ProcessBuilder's waitFor; and what the check of a handle costs per call.
 *
 * <p>Argument 0 is the program that prints the monotonic clock when it exits (bench/exit_at.c).
 */
public final class SupervisionBench {
    private SupervisionBench() {}

    interface Wait {
        /** Starts the program, which writes its end time to the file, and returns once a wait saw it end. */
        void run(String program, Path out) throws Exception;
    }

    private static final UnixProcessGlue GLUE = UnixProcessGlue.get();
    private static final int ROUNDS = 40;

    private static long library(String program, Path out, boolean detached, boolean timed) throws Exception {
        long handle = GLUE.create(program, new String[] {"50"}, null, null, 20, new String[] {null, "!" + out, null},
                022, null, null, 0, null, false, detached);
        if (timed) {
            GLUE.waitForTerminationWithTimeout(handle, 10);
        } else {
            GLUE.waitForTermination(handle);
        }
        long returned = System.nanoTime();
        GLUE.done(handle);
        return returned;
    }

    private static long processBuilder(String program, Path out, boolean timed) throws Exception {
        Process process = new ProcessBuilder(program, "50").redirectOutput(out.toFile()).start();
        if (timed) {
            process.waitFor(10, TimeUnit.SECONDS);
        } else {
            process.waitFor();
        }
        return System.nanoTime();
    }

    interface Returned {
        long run(String program, Path out) throws Exception;
    }

    /** Microseconds from the program's end to the wait's return: p50 and p90. */
    private static long[] latency(Returned returned, String program, Path out) throws Exception {
        long[] micros = new long[ROUNDS];
        for (int i = 0; i < ROUNDS; i++) {
            long back = returned.run(program, out);
            long ended = Long.parseLong(Files.readString(out).trim());
            micros[i] = (back - ended) / 1000;
        }
        Arrays.sort(micros);
        return new long[] {micros[ROUNDS / 2], micros[ROUNDS * 9 / 10]};
    }

    public static void main(String[] args) throws Exception {
        String program = args[0];
        Path out = Files.createTempFile("quillon-bench", ".txt");
        System.out.printf("From the end of a process to the return of the wait, %d rounds, microseconds%n", ROUNDS);
        System.out.printf("%-48s %8s %8s%n", "wait", "p50", "p90");
        Object[][] rows = {
            {"create, child, waitForTermination", (Returned) (p, o) -> library(p, o, false, false)},
            {"create, child, waitForTerminationWithTimeout", (Returned) (p, o) -> library(p, o, false, true)},
            {"create, no child, waitForTermination", (Returned) (p, o) -> library(p, o, true, false)},
            {"create, no child, waitForTerminationWithTimeout", (Returned) (p, o) -> library(p, o, true, true)},
            {"ProcessBuilder, child, waitFor()", (Returned) (p, o) -> processBuilder(p, o, false)},
            {"ProcessBuilder, child, waitFor(10, SECONDS)", (Returned) (p, o) -> processBuilder(p, o, true)},
        };
        for (Object[] row : rows) {
            latency((Returned) row[1], program, out); // warm-up
            long[] result = latency((Returned) row[1], program, out);
            System.out.printf("%-48s %8d %8d%n", row[0], result[0], result[1]);
        }
        Files.delete(out);

        long handle = GLUE.create("/bin/true", null, null, null, 20, null, 022, null, null, 0, null, true, false);
        GLUE.waitForTermination(handle);
        int calls = 2_000_000;
        for (int round = 0; round < 2; round++) {
            long start = System.nanoTime();
            for (int i = 0; i < calls; i++) {
                GLUE.ping(handle);
            }
            if (round == 1) {
                System.out.printf("ping of an ended process (the handle check and no system call): %.0f ns per call%n",
                        (System.nanoTime() - start) / (double) calls);
            }
        }
        GLUE.done(handle);
    }
}
