import com.norvane.quillon.Launcher;
import com.norvane.quillon.NativeProcess;
import com.norvane.quillon.OutputHandler;
import java.io.File;
import java.io.InputStream;
import java.io.RandomAccessFile;
import java.lang.ProcessBuilder.Redirect;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import java.util.stream.Stream;

/**
 * Thousands of programs at once, each writing 4 KiB to stdout and ending: Launcher with output handlers (the
 * library's event thread reads every pipe) beside ProcessBuilder with a reader thread per stream, in the same
 * benchmark run, each measured in a JVM of its own after a warm-up there. Every program holds three descriptors of the JVM (two pipes and, for Launcher, its pidfd), so
 * as many run at once as the descriptor limit allows: they are started in waves of that many (all of them when
 * they fit), blocked on a FIFO, and each wave is released together once it has started. Prints how many ran
 * at once, the wall time from the first start to the last byte and end, the threads the run added at its
 * peak (and the library's own threads), the peak resident memory above the JVM's own before the run, the
 * descriptors at the peak, and the ratios. Arguments: the program (bench/write_after.c) and the counts.
 */
public final class ConcurrentOutputBench {
    private ConcurrentOutputBench() {}

    private record Measure(int atOnce, long wallMillis, int peakThreads, int ourThreads, long rssAboveKiB, long fds,
            long bytes) {}

    /** How many programs may run at once: three descriptors each, under the limit, with room for the JVM's. */
    private static int window() throws Exception {
        for (String line : Files.readAllLines(Path.of("/proc/self/limits"))) {
            if (line.startsWith("Max open files")) {
                String soft = line.substring(26).trim().split("\\s+")[0];
                return soft.equals("unlimited") ? Integer.MAX_VALUE : (Integer.parseInt(soft) - 1000) / 3;
            }
        }
        return 1000;
    }

    private static long statusKiB(String field) throws Exception {
        for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
            if (line.startsWith(field + ":")) {
                return Long.parseLong(line.replaceAll("\\D", ""));
            }
        }
        return -1;
    }

    private static long descriptors() throws Exception {
        try (Stream<Path> fds = Files.list(Path.of("/proc/self/fd"))) {
            return fds.count();
        }
    }

    private static int ourThreads() {
        List<String> ours = Thread.getAllStackTraces().keySet().stream().map(Thread::getName)
                .filter(name -> name.startsWith("quillon-")).toList();
        if (ours.size() > 4) {
            System.out.println("threads of the library: " + ours);
        }
        return ours.size();
    }

    private static Measure measure(String program, int count, boolean launcher) throws Exception {
        Path fifo = Path.of(System.getProperty("java.io.tmpdir"), "quillon-bench-" + ProcessHandle.current().pid());
        Files.deleteIfExists(fifo);
        if (new ProcessBuilder("mkfifo", fifo.toString()).start().waitFor() != 0) {
            throw new IllegalStateException("mkfifo failed");
        }
        int atOnce = Math.min(count, window());
        System.gc();
        Thread.sleep(200);
        Files.writeString(Path.of("/proc/self/clear_refs"), "5"); // VmHWM from here on
        ThreadMXBean threads = ManagementFactory.getThreadMXBean();
        int threadsBefore = threads.getThreadCount();
        threads.resetPeakThreadCount();
        long rssBefore = statusKiB("VmRSS");
        AtomicLong bytes = new AtomicLong();
        List<Process> processes = new ArrayList<>(count);
        int ours = 0;
        long fds = 0;
        long begin = System.nanoTime();
        try (RandomAccessFile gate = new RandomAccessFile(fifo.toFile(), "rw")) {
            for (int first = 0; first < count; first += atOnce) { // a wave of programs at once
                int wave = Math.min(atOnce, count - first);
                CountDownLatch ends = new CountDownLatch(2 * wave);
                for (int i = 0; i < wave; i++) {
                    Streams streams = new Streams(bytes, ends);
                    if (launcher) {
                        processes.add(new Launcher(program, fifo.toString())
                                .redirectInput(Redirect.from(new File("/dev/null"))).onOutput(streams).onError(streams).start());
                    } else {
                        Process process = new ProcessBuilder(program, fifo.toString())
                                .redirectInput(Redirect.from(new File("/dev/null"))).start();
                        processes.add(process);
                        for (InputStream stream : new InputStream[] {process.getInputStream(), process.getErrorStream()}) {
                            new Thread(() -> streams.read(stream)).start();
                        }
                    }
                }
                fds = Math.max(fds, descriptors());
                ours = Math.max(ours, ourThreads());
                gate.write(new byte[wave]); // one byte for each program of the wave
                if (!ends.await(Integer.getInteger("wait", 600), TimeUnit.SECONDS)) {
                    throw new IllegalStateException("not every stream ended: " + ends.getCount() + " of " + 2 * wave
                            + " missing, " + bytes.get() + " bytes");
                }
            }
            for (Process process : processes) {
                if (process.waitFor() != 0) {
                    throw new IllegalStateException("a program failed");
                }
            }
        }
        long wall = (System.nanoTime() - begin) / 1_000_000;
        Measure result = new Measure(atOnce, wall, threads.getPeakThreadCount() - threadsBefore, Math.max(ours, ourThreads()),
                statusKiB("VmHWM") - rssBefore, fds, bytes.get());
        for (Process process : processes) {
            if (process instanceof NativeProcess closeable) {
                closeable.close();
            }
        }
        Files.deleteIfExists(fifo);
        return result;
    }

    /** The two streams of one program, counted. */
    private static final class Streams implements OutputHandler {
        private final AtomicLong bytes;
        private final CountDownLatch ends;

        Streams(AtomicLong bytes, CountDownLatch ends) {
            this.bytes = bytes;
            this.ends = ends;
        }

        @Override
        public void onOutput(ByteBuffer chunk) {
            bytes.addAndGet(chunk.remaining());
        }

        @Override
        public void onEnd() {
            ends.countDown();
        }

        /** A reader thread's work for one stream. */
        void read(InputStream stream) {
            try (stream) {
                bytes.addAndGet(stream.readAllBytes().length);
            } catch (Exception e) {
                throw new IllegalStateException(e);
            }
            onEnd();
        }
    }

    /** Measures one kind and count in a JVM of its own, after a warm-up there. */
    private static Measure inOwnJvm(String program, int count, boolean launcher) throws Exception {
        Process jvm = new ProcessBuilder(System.getProperty("java.home") + "/bin/java",
                "-Djava.library.path=" + System.getProperty("java.library.path"), "-cp",
                System.getProperty("java.class.path"), "ConcurrentOutputBench", "measure", program,
                Integer.toString(count), Boolean.toString(launcher)).redirectErrorStream(true).start();
        String out = new String(jvm.getInputStream().readAllBytes());
        if (jvm.waitFor() != 0 || !out.contains("RESULT ")) {
            throw new IllegalStateException("measuring JVM failed: " + out);
        }
        long[] v = Stream.of(out.substring(out.indexOf("RESULT ") + 7).strip().split(" ")).mapToLong(Long::parseLong)
                .toArray();
        return new Measure((int) v[0], v[1], (int) v[2], (int) v[3], v[4], v[5], v[6]);
    }

    public static void main(String[] args) throws Exception {
        if (args[0].equals("measure")) {
            int count = Integer.parseInt(args[2]);
            boolean launcher = Boolean.parseBoolean(args[3]);
            measure(args[1], Math.min(count, 200), launcher); // warm-up
            Measure m = measure(args[1], count, launcher);
            System.out.printf("RESULT %d %d %d %d %d %d %d%n", m.atOnce(), m.wallMillis(), m.peakThreads(),
                    m.ourThreads(), m.rssAboveKiB(), m.fds(), m.bytes());
            return;
        }
        String program = args[0];
        System.out.printf("Programs that each write 4 KiB at once: output handlers against a reader thread per stream%n");
        System.out.printf("%-8s %-16s %8s %9s %9s %7s %13s %13s %9s%n", "count", "", "at once", "wall ms", "+threads",
                "ours", "RSS above KiB", "per process", "fds");
        for (int i = 1; i < args.length; i++) {
            int count = Integer.parseInt(args[i]);
            Measure pb = inOwnJvm(program, count, false);
            Measure ours = inOwnJvm(program, count, true);
            for (Measure m : new Measure[] {pb, ours}) {
                if (m.bytes() != 4096L * count) {
                    throw new IllegalStateException("lost output: " + m.bytes());
                }
                System.out.printf("%-8d %-16s %8d %9d %9d %7s %13d %13d %9d%n", count, m == pb ? "ProcessBuilder" : "Launcher",
                        m.atOnce(), m.wallMillis(), m.peakThreads(), m == pb ? "-" : Integer.toString(m.ourThreads()),
                        m.rssAboveKiB(), m.rssAboveKiB() / m.atOnce(), m.fds());
            }
            System.out.printf("%-8d ratios Launcher / ProcessBuilder: wall %.2f, threads added %.3f, RSS above %.2f%n",
                    count, (double) ours.wallMillis() / pb.wallMillis(), (double) ours.peakThreads() / pb.peakThreads(),
                    (double) ours.rssAboveKiB() / Math.max(1, pb.rssAboveKiB()));
        }
    }
}
