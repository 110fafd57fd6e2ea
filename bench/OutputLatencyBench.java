import com.norvane.quillon.Launcher;
import com.norvane.quillon.NativeProcess;
import java.io.InputStream;
import java.time.Duration;
import java.util.concurrent.TimeUnit;
import java.util.Arrays;

/**
 * Launch-to-output latency: start {@code echo hi}, read its stdout to end of file and wait for its end,
 * through Launcher and through ProcessBuilder, in the same JVM and run, alternating so that both see the
 * same machine. Prints p50 and p90 of each and their ratio. Then the cost of {@code Launcher.run} of
 * /bin/true (output captured by the event thread) beside a bare {@code start()} and {@code waitFor()}.
 * Optional argument: the number of runs.
 */
public final class OutputLatencyBench {
    private OutputLatencyBench() {}

    interface Run {
        void once() throws Exception;
    }

    private static final String[] COMMAND = {"/bin/echo", "hi"};

    private static void launcher() throws Exception {
        try (NativeProcess process = new Launcher(COMMAND).start()) {
            check(process.getInputStream(), process.waitFor());
        }
    }

    private static void processBuilder() throws Exception {
        Process process = new ProcessBuilder(COMMAND).start();
        check(process.getInputStream(), process.waitFor());
        process.getOutputStream().close();
        process.getErrorStream().close();
    }

    private static void run() throws Exception {
        if (new Launcher("/bin/true").run(Duration.ofSeconds(10)).exitValue() != 0) {
            throw new IllegalStateException("/bin/true failed");
        }
    }

    private static void startAndWait() throws Exception {
        try (NativeProcess process = new Launcher("/bin/true").start()) {
            if (process.waitFor() != 0) {
                throw new IllegalStateException("/bin/true failed");
            }
        }
    }

    /** A contained launch, waited for until its whole tree has ended (its group is removed then). */
    private static void containedStartAndWait() throws Exception {
        try (NativeProcess process = new Launcher("/bin/true").contained().start()) {
            if (process.waitFor() != 0 || !process.waitForTree(10, TimeUnit.SECONDS)) {
                throw new IllegalStateException("/bin/true failed");
            }
        }
    }

    private static void check(InputStream out, int status) throws Exception {
        if (out.readAllBytes().length != 3 || status != 0) {
            throw new IllegalStateException("echo hi did not say hi");
        }
        out.close();
    }

    private static long time(Run run) throws Exception {
        long start = System.nanoTime();
        run.once();
        return (System.nanoTime() - start) / 1000;
    }

    public static void main(String[] args) throws Exception {
        int runs = args.length > 0 ? Integer.parseInt(args[0]) : 2000;
        for (int i = 0; i < 300; i++) { // warm-up of both paths
            launcher();
            processBuilder();
        }
        long[] library = new long[runs];
        long[] jdk = new long[runs];
        for (int i = 0; i < runs; i++) {
            library[i] = time(OutputLatencyBench::launcher);
            jdk[i] = time(OutputLatencyBench::processBuilder);
        }
        Arrays.sort(library);
        Arrays.sort(jdk);
        System.out.printf("echo hi, read to end of file and waited for; %d runs each%n", runs);
        System.out.printf("%-16s %8s %8s%n", "", "p50 us", "p90 us");
        System.out.printf("%-16s %8d %8d%n", "Launcher", p(library, 50), p(library, 90));
        System.out.printf("%-16s %8d %8d%n", "ProcessBuilder", p(jdk, 50), p(jdk, 90));
        System.out.printf("ratio Launcher / ProcessBuilder: p50 %.2f, p90 %.2f%n",
                (double) p(library, 50) / p(jdk, 50), (double) p(library, 90) / p(jdk, 90));
        compare("/bin/true: run(limit) against start() + waitFor()", "run", OutputLatencyBench::run,
                "start+waitFor", OutputLatencyBench::startAndWait, runs);
        compare("/bin/true: contained start() + waitForTree() against a plain start() + waitFor()", "contained",
                OutputLatencyBench::containedStartAndWait, "plain", OutputLatencyBench::startAndWait, runs);
    }

    /** Alternates two ways of doing the same thing and prints their p50, p90 and ratio. */
    private static void compare(String title, String first, Run one, String second, Run other, int runs)
            throws Exception {
        for (int i = 0; i < 300; i++) {
            one.once();
            other.once();
        }
        long[] a = new long[runs];
        long[] b = new long[runs];
        for (int i = 0; i < runs; i++) {
            a[i] = time(one);
            b[i] = time(other);
        }
        Arrays.sort(a);
        Arrays.sort(b);
        System.out.printf("%s; %d runs each%n", title, runs);
        System.out.printf("%-16s %8s %8s%n", "", "p50 us", "p90 us");
        System.out.printf("%-16s %8d %8d%n", first, p(a, 50), p(a, 90));
        System.out.printf("%-16s %8d %8d%n", second, p(b, 50), p(b, 90));
        System.out.printf("ratio %s / %s: p50 %.2f, p90 %.2f%n", first, second, (double) p(a, 50) / p(b, 50),
                (double) p(a, 90) / p(b, 90));
    }

    private static long p(long[] sorted, int percent) {
        return sorted[Math.min(sorted.length - 1, sorted.length * percent / 100)];
    }
}
