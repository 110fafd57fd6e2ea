package com.norvane.quillon.soak;

import com.norvane.quillon.process.UnixProcessGlue;
import com.norvane.quillon.process.exception.CreateProcessTimeoutException;
import com.norvane.quillon.process.exception.InvalidDirectoryException;
import com.norvane.quillon.process.exception.InvalidExecutableException;
import com.norvane.quillon.process.exception.InvalidFileException;
import com.norvane.quillon.process.exception.InvalidGroupException;
import com.norvane.quillon.process.exception.InvalidProcessGroupException;
import com.norvane.quillon.process.exception.InvalidUsernameException;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.TreeMap;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.LongAdder;

/**
 * Many mixed operations of the glue from several threads: attached and detached launches, every failure
 * class of a launch, kills followed by waits from several threads on one handle, probes, exit-code reads,
 * adoption of a live PID, done. It runs in a JVM of its own with a fixed heap, so that its descriptors,
 * threads, zombie children and resident memory can be compared before and after; optionally with faults
 * injected from outside: the descriptor limit lowered, the process limit reached (as nobody), a program
 * that hangs before its exec.
 */
public final class Soak {
    private Soak() {}

    private static final UnixProcessGlue GLUE = UnixProcessGlue.get();

    /** What a run found: the counts before and after, and how each operation ended. */
    public static final class Report {
        public final Map<String, Long> before = new TreeMap<>();
        public final Map<String, Long> after = new TreeMap<>();
        public final Map<String, Long> outcomes = new TreeMap<>();
        public final List<String> problems = new ArrayList<>();
        public String faults = "";

        @Override
        public String toString() {
            StringBuilder text = new StringBuilder();
            text.append(String.format("%-12s %10s %10s%n", "", "before", "after"));
            for (String key : before.keySet()) {
                text.append(String.format("%-12s %10d %10d%n", key, before.get(key), after.get(key)));
            }
            text.append("outcomes: ").append(outcomes).append('\n');
            if (!faults.isEmpty()) {
                text.append("faults: ").append(faults).append('\n');
            }
            text.append(problems.isEmpty() ? "no problem\n" : "problems: " + problems + "\n");
            return text.toString();
        }
    }

    // ---- In the soaking JVM ----

    private static final Map<String, LongAdder> OUTCOMES = new ConcurrentHashMap<>();
    private static final List<String> PROBLEMS = java.util.Collections.synchronizedList(new ArrayList<>());
    private static ExecutorService waiters;

    private static void count(String outcome) {
        OUTCOMES.computeIfAbsent(outcome, k -> new LongAdder()).increment();
    }

    private static void expect(int expected, int actual, String what) {
        if (expected != actual && PROBLEMS.size() < 20) {
            PROBLEMS.add(what + ": exit code " + actual + ", not " + expected);
        }
    }

    private static long shell(String script, boolean detached) throws ProcessOpException {
        return GLUE.create("/bin/sh", new String[] {"-c", script}, null, null, 20, null, 022, null, null, 0, null, true,
                detached);
    }

    private static final String[][] FAILURES = {
        {"/no/such/program", null, null, null, null}, {"/bin/true", "/no/such/dir", null, null, null},
        {"/bin/true", null, "no-such-user", null, null}, {"/bin/true", null, null, "no-such-group", null},
        {"/bin/true", null, null, null, "999999"}, {"/bin/true", null, null, null, "stdin"},
    };
    private static final List<Class<?>> FAILURE_CLASSES = List.of(InvalidExecutableException.class,
            InvalidDirectoryException.class, InvalidUsernameException.class, InvalidGroupException.class,
            InvalidProcessGroupException.class, InvalidFileException.class);

    private static void failure(int kind, boolean detached) {
        String[] f = FAILURES[kind];
        try {
            long handle = GLUE.create(f[0], null, null, f[1], 20,
                    "stdin".equals(f[4]) ? new String[] {"/no/such/input", null, null} : null, 022, f[3], f[2],
                    f[4] != null && !"stdin".equals(f[4]) ? Integer.parseInt(f[4]) : 0, null, f[4] == null, detached);
            GLUE.done(handle);
            PROBLEMS.add("launch failure " + kind + " succeeded");
        } catch (ProcessOpException e) {
            count(FAILURE_CLASSES.get(kind) == e.getClass() ? "failure as expected"
                    : "refused: " + e.getClass().getSimpleName() + ": " + e.getMessage());
        }
    }

    /** Whatever happened to the operation, its process ends and its handle goes. */
    private static void release(long handle) {
        try {
            GLUE.kill(handle);
            GLUE.waitForTermination(handle);
        } catch (ProcessOpException underFaults) {
            count("release refused: " + underFaults.getClass().getSimpleName());
        }
        GLUE.done(handle);
    }

    private static void operation(Random random, int n) throws Exception {
        int kind = random.nextInt(8);
        if (kind == 3) {
            failure(n % FAILURES.length, random.nextBoolean());
            return;
        }
        int code = random.nextInt(256);
        long handle = kind <= 1 ? shell("exit " + code, false)
                : kind == 2 ? shell("exit 3", true)
                : kind == 5 ? shell("exit 7", false)
                : shell("exec sleep 60", false);
        try {
            switch (kind) {
                case 0, 1 -> { // attached: its own exit code
                    GLUE.waitForTermination(handle);
                    expect(code, GLUE.getExitCode(handle), "attached");
                    count("attached");
                }
                case 2 -> { // detached: no child, its code can't be seen
                    GLUE.waitForTerminationWithTimeout(handle, 30);
                    expect(0, GLUE.getExitCode(handle), "detached");
                    count("detached");
                }
                case 4 -> { // killed, and waited for from several threads at once
                    List<Future<Integer>> waits = new ArrayList<>();
                    for (int i = 0; i < 2; i++) {
                        final boolean timed = i == 1;
                        waits.add(waiters.submit(() -> {
                            if (timed) {
                                GLUE.waitForTerminationWithTimeout(handle, 30);
                            } else {
                                GLUE.waitForTermination(handle);
                            }
                            return GLUE.getExitCode(handle);
                        }));
                    }
                    GLUE.kill(handle);
                    GLUE.waitForTermination(handle);
                    expect(9, GLUE.getExitCode(handle), "killed");
                    for (Future<Integer> wait : waits) {
                        expect(9, wait.get(), "killed, another waiter");
                    }
                    count("killed");
                }
                case 5 -> { // probed until the end
                    while (GLUE.ping(handle) == 1) {
                        Thread.sleep(1);
                    }
                    expect(7, GLUE.getExitCode(handle), "probed");
                    count("probed");
                }
                case 6 -> { // the live PID adopted; killed through the adopted handle, waited through the first
                    long adopted = GLUE.recreate(GLUE.id(handle));
                    try {
                        GLUE.kill(adopted);
                        GLUE.waitForTermination(handle);
                        expect(9, GLUE.getExitCode(handle), "launched");
                        expect(9, GLUE.getExitCode(adopted), "adopted");
                        count("adopted");
                    } finally {
                        GLUE.done(adopted);
                    }
                }
                default -> { // a wait of 0 that finds it running, then a stop
                    try {
                        GLUE.waitForTerminationWithTimeout(handle, 0);
                        PROBLEMS.add("a running program ended a wait of 0");
                    } catch (ProcessOpException stillActive) {
                        count("still active");
                    }
                    GLUE.stop(handle);
                    GLUE.waitForTermination(handle);
                    expect(15, GLUE.getExitCode(handle), "stopped");
                }
            }
        } finally {
            release(handle);
        }
    }

    /** A FIFO in a directory of its own, made before the counts (the JDK keeps what it opens for that). */
    private static Path fifo() throws Exception {
        Path fifo = Files.createTempDirectory("quillon-soak").resolve("fifo");
        long mkfifo = GLUE.create("mkfifo", new String[] {fifo.toString()}, null, null, 20, null, 022, null, null, 0,
                null, true, false);
        GLUE.waitForTermination(mkfifo);
        GLUE.done(mkfifo);
        return fifo;
    }

    /** A launch that hangs before its exec: stdin is a FIFO that nobody writes. */
    private static void hangBeforeExec(Path fifo) throws Exception {
        long start = System.nanoTime();
        try {
            GLUE.create("/bin/true", null, null, null, 20, new String[] {fifo.toString(), null, null}, 022, null, null,
                    0, null, false, false);
            PROBLEMS.add("a launch hanging before its exec succeeded");
        } catch (CreateProcessTimeoutException expected) {
            count(String.format("killed at the deadline after %d s", (System.nanoTime() - start) / 1_000_000_000L));
        }
        Files.delete(fifo);
        Files.delete(fifo.getParent());
    }

    private static String OPEN_BEFORE = "";

    /** What the descriptors of this JVM are, but the one that lists them. */
    private static String openDescriptors() throws IOException {
        StringBuilder open = new StringBuilder();
        try (var fds = Files.newDirectoryStream(Path.of("/proc/self/fd"))) {
            for (Path fd : fds) {
                try {
                    open.append(fd.getFileName()).append('=').append(Files.readSymbolicLink(fd)).append(' ');
                } catch (IOException listing) {
                    // the directory stream's own descriptor, closed by now
                }
            }
        }
        return open.toString();
    }

    static Map<String, Long> counts() throws IOException {
        Map<String, Long> counts = new TreeMap<>();
        String open = openDescriptors();
        counts.put("descriptors", open.chars().filter(c -> c == ' ').count() - 1); // less the listing's own
        if (OPEN_BEFORE.isEmpty()) {
            OPEN_BEFORE = open;
        }
        try (var tasks = Files.list(Path.of("/proc/self/task"))) {
            counts.put("threads", tasks.count());
        }
        long self = ProcessHandle.current().pid();
        long zombies = 0;
        try (var processes = Files.list(Path.of("/proc"))) {
            for (Path process : (Iterable<Path>) processes::iterator) {
                try {
                    String stat = Files.readString(process.resolve("stat"));
                    String[] fields = stat.substring(stat.lastIndexOf(')') + 2).split(" ");
                    if (fields[0].equals("Z") && Long.parseLong(fields[1]) == self) {
                        zombies++;
                    }
                } catch (IOException | RuntimeException notAProcess) {
                    // not a process, or gone meanwhile
                }
            }
        }
        counts.put("zombies", zombies);
        for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
            if (line.startsWith("VmRSS:")) {
                counts.put("rss kB", Long.parseLong(line.replaceAll("[^0-9]", "")));
            }
        }
        return counts;
    }

    private static void soak(int operations, int threads, Path hang, boolean measured) throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(threads);
        waiters = Executors.newFixedThreadPool(4);
        AtomicInteger done = new AtomicInteger();
        List<Future<?>> workers = new ArrayList<>();
        for (int t = 0; t < threads; t++) {
            final long seed = t;
            workers.add(pool.submit(() -> {
                Random random = new Random(seed);
                for (int n; (n = done.getAndIncrement()) < operations;) {
                    try {
                        operation(random, n);
                    } catch (ProcessOpException e) { // under injected faults
                        count("refused: " + e.getClass().getSimpleName() + ": " + e.getMessage());
                    }
                    if (measured && n % 500 == 0) {
                        System.out.println("PROGRESS " + n);
                    }
                }
                return null;
            }));
        }
        if (hang != null) {
            hangBeforeExec(hang);
        }
        for (Future<?> worker : workers) {
            worker.get();
        }
        for (ExecutorService threadsOfTheSoak : List.of(pool, waiters)) {
            threadsOfTheSoak.shutdown();
            threadsOfTheSoak.awaitTermination(1, TimeUnit.MINUTES);
        }
    }

    /** The soaking JVM: a warm-up, the counts, the soak, the counts again; all printed. */
    public static void main(String[] args) throws Exception {
        int operations = Integer.parseInt(args[0]);
        Path hang = args.length > 1 && args[1].equals("hang") ? fifo() : null;
        soak(Math.max(200, operations / 2), 8, null, false); // until the JIT and the heaps of the C library settle
        OUTCOMES.clear();
        counts(); // once for what the JDK opens at its first use
        System.gc();
        OPEN_BEFORE = "";
        Map<String, Long> before = counts();
        soak(operations, 8, hang, true);
        System.gc();
        Thread.sleep(200);
        Map<String, Long> after = counts();
        if (!before.get("descriptors").equals(after.get("descriptors"))) {
            System.out.println("OPEN before " + OPEN_BEFORE + " after " + openDescriptors());
        }
        before.forEach((k, v) -> System.out.println("BEFORE " + k + "=" + v));
        after.forEach((k, v) -> System.out.println("AFTER " + k + "=" + v));
        OUTCOMES.forEach((k, v) -> System.out.println("OUTCOME " + k + "=" + v.sum()));
        PROBLEMS.forEach(p -> System.out.println("PROBLEM " + p));
    }

    // ---- In the driving JVM ----

    /** Faults to inject into a soaking JVM, by what has been done. */
    public enum Faults {
        NONE,
        /** Descriptor limit lowered for a while, a process limit reached as nobody, a hang before an exec. */
        ALL,
        /** The same without the hang, which lasts the 120 s of the exec deadline. */
        QUICK
    }

    private static void run(String... command) throws Exception {
        Process process = new ProcessBuilder(command).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes());
        if (process.waitFor() != 0) {
            throw new IllegalStateException(String.join(" ", command) + ": " + output);
        }
    }

    /** Where this class and the library's are: the test runner names them, else the class path does. */
    private static String classPath() {
        return System.getProperty("quillon.classpath", System.getProperty("java.class.path"));
    }

    /** The classes and library where nobody can read them. */
    private static Path stage() throws IOException {
        Path dir = Files.createTempDirectory("quillon-soak", PosixFilePermissions.asFileAttribute(
                PosixFilePermissions.fromString("rwxr-xr-x")));
        StringBuilder classPath = new StringBuilder();
        for (String entry : classPath().split(":")) {
            Path copy = dir.resolve(classPath.length() + "-" + Path.of(entry).getFileName());
            Files.copy(Path.of(entry), copy);
            Files.setPosixFilePermissions(copy, PosixFilePermissions.fromString("rw-r--r--"));
            classPath.append(classPath.length() == 0 ? "" : ":").append(copy);
        }
        Files.writeString(dir.resolve("classpath"), classPath);
        return dir;
    }

    /** One soaking JVM, with the faults injected when its progress reaches a third of the operations. */
    private static Report soakInJvm(int operations, boolean asNobody, Faults faults) throws Exception {
        List<String> command = new ArrayList<>();
        Path staged = null;
        String classPath = classPath();
        if (asNobody) {
            staged = stage();
            classPath = Files.readString(staged.resolve("classpath"));
            command.addAll(List.of("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"));
        }
        command.addAll(List.of(System.getProperty("java.home") + "/bin/java", "-Xms128m", "-Xmx128m",
                "-XX:+AlwaysPreTouch", "-XX:CICompilerCount=2", "-XX:-UseDynamicNumberOfCompilerThreads",
                "-XX:-UseDynamicNumberOfGCThreads", "-Djava.io.tmpdir=/tmp",
                "-Djava.library.path=" + System.getProperty("java.library.path"), "-cp", classPath,
                Soak.class.getName(), Integer.toString(operations)));
        if (faults == Faults.ALL && !asNobody) {
            command.add("hang");
        }
        Process jvm = new ProcessBuilder(command).redirectErrorStream(true).start();
        Report report = new Report();
        StringBuilder injected = new StringBuilder();
        boolean injectedYet = false;
        try (BufferedReader out = new BufferedReader(new InputStreamReader(jvm.getInputStream()))) {
            for (String line; (line = out.readLine()) != null;) {
                String[] parts = line.split(" ", 2);
                if (parts[0].equals("PROGRESS") && faults != Faults.NONE && !injectedYet
                        && Integer.parseInt(parts[1]) >= operations / 3) {
                    injectedYet = true;
                    injected.append(asNobody ? limitProcesses(jvm.pid()) : limitDescriptors(jvm.pid()));
                } else if (parts.length == 2 && parts[1].contains("=")
                        && List.of("BEFORE", "AFTER", "OUTCOME").contains(parts[0])) {
                    String key = parts[1].substring(0, parts[1].lastIndexOf('='));
                    long value = Long.parseLong(parts[1].substring(parts[1].lastIndexOf('=') + 1));
                    switch (parts[0]) {
                        case "BEFORE" -> report.before.put(key, value);
                        case "AFTER" -> report.after.put(key, value);
                        case "OUTCOME" -> report.outcomes.put(key, value);
                        default -> { }
                    }
                } else if (parts[0].equals("PROBLEM")) {
                    report.problems.add(parts[1]);
                } else if (!parts[0].equals("PROGRESS") && !line.startsWith("Time: ") && !parts[0].equals("OPEN")) {
                    report.problems.add("said: " + line);
                }
            }
        }
        if (jvm.waitFor() != 0) {
            report.problems.add("the soaking JVM ended with " + jvm.exitValue());
        }
        if (staged != null) {
            try (var files = Files.list(staged)) {
                for (Path file : (Iterable<Path>) files::iterator) {
                    Files.delete(file);
                }
            }
            Files.delete(staged);
        }
        report.faults = injected.toString();
        return report;
    }

    private static long openDescriptors(long pid) throws IOException {
        try (var fds = Files.list(Path.of("/proc/" + pid + "/fd"))) {
            return fds.count();
        }
    }

    /** Lowers the JVM's descriptor limit to the count it has open, for a second: launches find no number free. */
    private static String limitDescriptors(long pid) throws Exception {
        long limit = openDescriptors(pid);
        String original = softLimit(pid, "Max open files");
        run("prlimit", "--pid", Long.toString(pid), "--nofile=" + limit + ":");
        Thread.sleep(1000);
        run("prlimit", "--pid", Long.toString(pid), "--nofile=" + original + ":");
        return "descriptor limit " + limit + " for 1 s; ";
    }

    /** A resource limit of a process, as /proc shows it: the soft value. */
    private static String softLimit(long pid, String name) throws IOException {
        return Files.readAllLines(Path.of("/proc/" + pid + "/limits")).stream().filter(l -> l.startsWith(name))
                .findFirst().orElseThrow().substring(26).trim().split("\\s+")[0];
    }

    /**
     * Lowers nobody's process limit to what the JVM has now, for a second. prlimit runs as nobody too: it
     * may change the limits of a process of its own user without any capability.
     */
    private static String limitProcesses(long pid) throws Exception {
        long tasks;
        try (var list = Files.list(Path.of("/proc/" + pid + "/task"))) {
            tasks = list.count();
        }
        String original = softLimit(pid, "Max processes");
        List<String> asNobody = List.of("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "prlimit",
                "--pid", Long.toString(pid));
        run(concat(asNobody, "--nproc=" + tasks + ":"));
        Thread.sleep(1000);
        run(concat(asNobody, "--nproc=" + original + ":"));
        return "process limit " + tasks + " for 1 s; ";
    }

    private static String[] concat(List<String> command, String last) {
        List<String> all = new ArrayList<>(command);
        all.add(last);
        return all.toArray(new String[0]);
    }

    /** The soak with and without faults; the second run goes as nobody for the process limit. */
    public static List<Report> drive(int operations, Faults faults) throws Exception {
        List<Report> reports = new ArrayList<>();
        reports.add(soakInJvm(operations, false, faults));
        if (faults != Faults.NONE && "root".equals(System.getProperty("user.name"))) {
            reports.add(soakInJvm(operations, true, faults));
        }
        return reports;
    }

    /** The bench: full runs without and with faults. */
    public static final class Bench {
        private Bench() {}

        public static void main(String[] args) throws Exception {
            int operations = args.length > 0 ? Integer.parseInt(args[0]) : 10_000;
            System.out.printf("Soak: %d operations from 8 threads%n", operations);
            for (Report report : drive(operations, Faults.NONE)) {
                System.out.print(report);
            }
            System.out.printf("Soak with faults: %d operations from 8 threads%n", operations);
            for (Report report : drive(operations, Faults.ALL)) {
                System.out.print(report);
            }
        }
    }
}
