import com.norvane.quillon.process.UnixProcessGlue;
import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/**
 * Launch-to-reaped latency of /bin/true, create + waitForTermination + done against
 * ProcessBuilder.start().waitFor(), on one thread and on four, from a JVM with the default heap and from one
 * with a 4 GiB pretouched heap; and the cost of rewriting 1 GiB of that heap right after a launch.
 *
 * <p>Without arguments it runs both JVMs itself and prints the table and the ratios. With "measure" it
 * measures in this JVM and prints "RESULT name value" lines.
 */
public final class LaunchBench {
    private LaunchBench() {}

    interface Launch {
        void run() throws Exception;
    }

    private static final UnixProcessGlue GLUE = UnixProcessGlue.get();
    private static final int PAGE = 4096;

    private static void library() throws Exception {
        long handle = GLUE.create("/bin/true", null, null, null, 20, null, 022, null, null, 0, null, true, false);
        GLUE.waitForTermination(handle);
        GLUE.done(handle);
    }

    private static void processBuilder() throws Exception {
        new ProcessBuilder("/bin/true").start().waitFor();
    }

    /** Microseconds per launch, each thread timing its own launches, sorted. */
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

    /** Writes one byte into every page of the blocks: milliseconds. */
    private static double rewrite(byte[][] blocks, byte value) {
        long start = System.nanoTime();
        for (byte[] block : blocks) {
            for (int i = 0; i < block.length; i += PAGE) {
                block[i] = value;
            }
        }
        return (System.nanoTime() - start) / 1e6;
    }

    private static void measureHere(int count) throws Exception {
        for (int threads : new int[] {1, 4}) {
            measure(LaunchBench::library, 200, threads);
            measure(LaunchBench::processBuilder, 200, threads);
            long[] lib = measure(LaunchBench::library, count, threads);
            long[] pb = measure(LaunchBench::processBuilder, count, threads);
            System.out.printf("RESULT lib.%d.p50 %d%nRESULT lib.%d.p90 %d%nRESULT pb.%d.p50 %d%nRESULT pb.%d.p90 %d%n",
                    threads, lib[lib.length / 2], threads, lib[lib.length * 9 / 10], threads, pb[pb.length / 2], threads,
                    pb[pb.length * 9 / 10]);
        }
        if (Runtime.getRuntime().maxMemory() < (3L << 30)) {
            return;
        }
        // 1 GiB in 1 MiB arrays, each in a region of its own that the collector does not move.
        byte[][] blocks = new byte[1024][];
        for (int i = 0; i < blocks.length; i++) {
            blocks[i] = new byte[1 << 20];
        }
        rewrite(blocks, (byte) 1);
        double[] quiet = new double[5];
        double[] afterLaunch = new double[5];
        for (int round = 0; round < quiet.length; round++) {
            quiet[round] = rewrite(blocks, (byte) (round + 2));
            library();
            afterLaunch[round] = rewrite(blocks, (byte) (round + 3));
        }
        Arrays.sort(quiet);
        Arrays.sort(afterLaunch);
        System.out.printf("RESULT rewrite.quiet %.1f%nRESULT rewrite.afterLaunch %.1f%n", quiet[2], afterLaunch[2]);
    }

    private static Map<String, Double> run(List<String> heap, int count) throws Exception {
        List<String> command = new ArrayList<>(List.of(System.getProperty("java.home") + "/bin/java"));
        command.addAll(heap);
        command.addAll(List.of("-Djava.library.path=" + System.getProperty("java.library.path"),
                "-cp", System.getProperty("java.class.path"), "LaunchBench", "measure", Integer.toString(count)));
        Process jvm = new ProcessBuilder(command).redirectErrorStream(true).start();
        Map<String, Double> results = new LinkedHashMap<>();
        try (BufferedReader out = new BufferedReader(new InputStreamReader(jvm.getInputStream()))) {
            for (String line; (line = out.readLine()) != null;) {
                String[] parts = line.split(" ");
                if (parts.length == 3 && parts[0].equals("RESULT")) {
                    results.put(parts[1], Double.parseDouble(parts[2]));
                }
            }
        }
        if (jvm.waitFor() != 0) {
            throw new IllegalStateException("measuring JVM failed: " + command);
        }
        return results;
    }

    public static void main(String[] args) throws Exception {
        int count = args.length > 1 ? Integer.parseInt(args[1]) : 2000;
        if (args.length > 0 && args[0].equals("measure")) {
            measureHere(count);
            return;
        }
        count = args.length > 0 ? Integer.parseInt(args[0]) : 2000;
        Map<String, List<String>> heaps = new LinkedHashMap<>();
        heaps.put("default heap", List.of());
        heaps.put("4 GiB pretouched heap", List.of("-Xms4g", "-Xmx4g", "-XX:+AlwaysPreTouch"));
        Map<String, Map<String, Double>> results = new LinkedHashMap<>();
        for (Map.Entry<String, List<String>> heap : heaps.entrySet()) {
            results.put(heap.getKey(), run(heap.getValue(), count));
        }
        System.out.printf("Launch of /bin/true to reaped, %d launches per row after warm-up, microseconds%n", count);
        System.out.printf("%-22s %-8s %12s %12s %12s %12s %8s%n", "JVM", "threads", "create p50", "create p90",
                "PB p50", "PB p90", "ratio");
        for (Map.Entry<String, Map<String, Double>> row : results.entrySet()) {
            Map<String, Double> r = row.getValue();
            for (int threads : new int[] {1, 4}) {
                System.out.printf("%-22s %-8d %12.0f %12.0f %12.0f %12.0f %8.2f%n", row.getKey(), threads,
                        r.get("lib." + threads + ".p50"), r.get("lib." + threads + ".p90"), r.get("pb." + threads + ".p50"),
                        r.get("pb." + threads + ".p90"), r.get("lib." + threads + ".p50") / r.get("pb." + threads + ".p50"));
            }
        }
        Map<String, Double> small = results.get("default heap");
        Map<String, Double> big = results.get("4 GiB pretouched heap");
        for (int threads : new int[] {1, 4}) {
            System.out.printf("launch from the 4 GiB heap / from the default heap, %d thread(s), p50: %.2f%n", threads,
                    big.get("lib." + threads + ".p50") / small.get("lib." + threads + ".p50"));
        }
        System.out.printf("rewriting 1 GiB of the heap: %.1f ms quiet, %.1f ms right after a launch: %.2f%n",
                big.get("rewrite.quiet"), big.get("rewrite.afterLaunch"),
                big.get("rewrite.afterLaunch") / big.get("rewrite.quiet"));
    }
}
