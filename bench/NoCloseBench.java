import com.norvane.quillon.Launcher;
import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Stream;

/**
 * What a server that never calls close() holds: 10 000 launches of {@code echo}, output read to the end and
 * waitFor(), the process objects kept reachable and their streams left open, as code written for Process
 * leaves them. Launcher and ProcessBuilder each in a JVM of its own with the default heap, so that the
 * resident memory of one does not count for the other. Prints descriptors and RSS before and after.
 */
public final class NoCloseBench {
    private NoCloseBench() {}

    private static long descriptors() throws Exception {
        try (Stream<Path> fds = Files.list(Path.of("/proc/self/fd"))) {
            return fds.count();
        }
    }

    private static long rssKiB() throws Exception {
        for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
            if (line.startsWith("VmRSS:")) {
                return Long.parseLong(line.replaceAll("\\D", ""));
            }
        }
        return -1;
    }

    private static Process start(boolean launcher, int i) throws Exception {
        return launcher ? new Launcher("/bin/echo", Integer.toString(i)).start()
                : new ProcessBuilder("/bin/echo", Integer.toString(i)).start();
    }

    private static void measureHere(boolean launcher, int count) throws Exception {
        start(launcher, 0).waitFor(); // what the JVM opens once, at the first launch
        long fds = descriptors();
        long rss = rssKiB();
        List<Process> kept = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            Process process = start(launcher, i);
            process.getInputStream().readAllBytes();
            process.waitFor();
            kept.add(process);
        }
        Thread.sleep(200);
        System.out.printf("RESULT %d %d %d %d %d%n", fds, descriptors(), rss, rssKiB(), kept.size());
    }

    private static long[] run(String kind, int count) throws Exception {
        Process jvm = new ProcessBuilder(System.getProperty("java.home") + "/bin/java",
                "-Djava.library.path=" + System.getProperty("java.library.path"), "-cp",
                System.getProperty("java.class.path"), "NoCloseBench", kind, Integer.toString(count))
                .redirectErrorStream(true).start();
        long[] result = null;
        try (BufferedReader out = new BufferedReader(new InputStreamReader(jvm.getInputStream()))) {
            for (String line; (line = out.readLine()) != null;) {
                if (line.startsWith("RESULT ")) {
                    result = Stream.of(line.substring(7).split(" ")).mapToLong(Long::parseLong).toArray();
                }
            }
        }
        if (jvm.waitFor() != 0 || result == null) {
            throw new IllegalStateException("measuring JVM failed for " + kind);
        }
        return result;
    }

    public static void main(String[] args) throws Exception {
        int count = args.length > 1 ? Integer.parseInt(args[1]) : 10_000;
        if (args.length > 0 && (args[0].equals("launcher") || args[0].equals("pb"))) {
            measureHere(args[0].equals("launcher"), count);
            return;
        }
        count = args.length > 0 ? Integer.parseInt(args[0]) : 10_000;
        System.out.printf("%d launches of echo without close(), output read, waitFor(), objects kept%n", count);
        System.out.printf("%-16s %12s %12s %14s %14s%n", "", "fds before", "fds after", "RSS before", "RSS after");
        for (String kind : new String[] {"pb", "launcher"}) {
            long[] r = run(kind, count);
            System.out.printf("%-16s %12d %12d %11d KiB %11d KiB%n", kind.equals("pb") ? "ProcessBuilder" : "Launcher",
                    r[0], r[1], r[2], r[3]);
        }
    }
}
