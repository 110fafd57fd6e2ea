import com.norvane.quillon.process.UnixProcessGlue;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/**
 * Launch-to-reaped latency of /bin/true: create + waitForTermination against ProcessBuilder.start().waitFor(),
 * in the same JVM and run, median over many launches after warm-up, on one thread and on several.
 */
public final class LaunchBench {
    private LaunchBench() {}

    interface Launch {
        void run() throws Exception;
    }

    private static final UnixProcessGlue GLUE = UnixProcessGlue.get();

    private static void library() throws Exception {
        long handle = GLUE.create("/bin/true", null, null, null, 20, null, 022, null, null, 0, null, true, false);
        GLUE.waitForTermination(handle);
        GLUE.done(handle);
    }

    private static void processBuilder() throws Exception {
        new ProcessBuilder("/bin/true").start().waitFor();
    }

    /** Microseconds per launch, each thread timing its own launches. */
    private static long[] measure(Launch launch, int count, int threads) throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(threads);
        List<Future<long[]>> parts = new ArrayList<>();
        for (int t = 0; t < threads; t++) {
            parts.add(pool.submit(() -> {
                long[] times = new long[count / threads];
                for (int i = 0; i < times.length; i++) {
                    long start = System.nanoTime();
                    launch.run();
                    times[i] = (System.nanoTime() - start) / 1000;
                }
                return times;
            }));
        }
        long[] all = new long[0];
        for (Future<long[]> part : parts) {
            long[] times = part.get();
            long[] joined = Arrays.copyOf(all, all.length + times.length);
            System.arraycopy(times, 0, joined, all.length, times.length);
            all = joined;
        }
        pool.shutdown();
        Arrays.sort(all);
        return all;
    }

    public static void main(String[] args) throws Exception {
        int count = args.length > 0 ? Integer.parseInt(args[0]) : 1000;
        System.out.printf("%-8s %-16s %8s %8s %8s%n", "threads", "launcher", "p50 us", "p90 us", "launches");
        for (int threads : new int[] {1, 4}) {
            measure(LaunchBench::library, 200, threads);
            measure(LaunchBench::processBuilder, 200, threads);
            long[] lib = measure(LaunchBench::library, count, threads);
            long[] pb = measure(LaunchBench::processBuilder, count, threads);
            for (Object[] row : new Object[][] {{"create+wait", lib}, {"ProcessBuilder", pb}}) {
                long[] t = (long[]) row[1];
                System.out.printf("%-8d %-16s %8d %8d %8d%n", threads, row[0], t[t.length / 2], t[t.length * 9 / 10],
                        t.length);
            }
            System.out.printf("%-8d ratio create+wait / ProcessBuilder at p50: %.2f%n", threads,
                    (double) lib[lib.length / 2] / pb[pb.length / 2]);
        }
    }
}
