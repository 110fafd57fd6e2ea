package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.File;
import java.io.IOException;
import java.lang.ProcessBuilder.Redirect;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.EnumMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.concurrent.TimeUnit;

/**
 * Starts programs through the Quillon native library, in the manner of {@link ProcessBuilder}, with what
 * {@code ProcessBuilder} cannot give them: a nice value, a umask, another user and group, a process group,
 * an environment added to the inherited one, and a start detached from the JVM. Code written for
 * {@code ProcessBuilder} compiles against it: it has the same setters and getters.
 *
 * <pre>{@code
 * try (NativeProcess make = new Launcher("make", "all").directory(new File("/srv/build")).nice(10).start()) {
 *     String log = new String(make.getInputStream().readAllBytes());
 *     int status = make.waitFor();
 * }
 * }</pre>
 *
 * <p>A launcher may start any number of processes; its settings are read at each {@link #start()}. It is
 * not safe for use by several threads at once. A failed start throws an {@link IOException} that names
 * what was at fault (the program, the directory, a redirected file, the user or the group), with the
 * library's exception as its cause; nothing is written to the JVM's own streams. Launches are traced at
 * level {@code DEBUG} to the {@link System.Logger} named "com.norvane.quillon".
 */
public final class Launcher {
    private static final String[] STANDARD_NAMES = {"stdin", "stdout", "stderr"};
    private static final long DEFAULT_CAPTURE_LIMIT = 16L << 20;

    private List<String> command;
    private File directory;
    private final Redirect[] redirects = {Redirect.PIPE, Redirect.PIPE, Redirect.PIPE};
    private boolean redirectErrorStream;
    private final Map<String, String> additions = new LinkedHashMap<>();
    private Environment environment; // null: the JVM's own
    private Integer nice;
    private Integer umask;
    private String user;
    private String group;
    private int processGroup = NativeProcessGlue.GROUP_INHERIT;
    private boolean detached;
    private long captureLimit = DEFAULT_CAPTURE_LIMIT;
    private final OutputHandler[] handlers = new OutputHandler[2]; // stdout's, stderr's
    private boolean contained;
    private boolean endWithJvm;
    private long memoryLimit = NativeProcessGlue.UNSET;
    private long processLimit = NativeProcessGlue.UNSET;
    private final Map<ResourceLimit, long[]> limits = new EnumMap<>(ResourceLimit.class);

    /**
     * @param command the program, searched on the program's PATH when it holds no slash, and its arguments
     */
    public Launcher(String... command) {
        command(command);
    }

    /**
     * @param command the program, searched on the program's PATH when it holds no slash, and its arguments;
     *     copied
     */
    public Launcher(List<String> command) {
        command(command);
    }

    /** @return the program and its arguments, as a copy */
    public List<String> command() {
        return List.copyOf(command);
    }

    /**
     * Sets the program and its arguments.
     *
     * @param command the program and its arguments, copied
     * @return this launcher
     */
    public Launcher command(String... command) {
        return command(Arrays.asList(command));
    }

    /**
     * Sets the program and its arguments.
     *
     * @param command the program and its arguments, copied
     * @return this launcher
     */
    public Launcher command(List<String> command) {
        this.command = new ArrayList<>(command);
        return this;
    }

    /** @return the working directory of the program, or null for the JVM's */
    public File directory() {
        return directory;
    }

    /**
     * Sets the working directory of the program.
     *
     * @param directory the directory, or null for the JVM's
     * @return this launcher
     */
    public Launcher directory(File directory) {
        this.directory = directory;
        return this;
    }

    /** @return where stdin comes from */
    public Redirect redirectInput() {
        return redirects[0];
    }

    /** @return where stdout goes */
    public Redirect redirectOutput() {
        return redirects[1];
    }

    /** @return where stderr goes */
    public Redirect redirectError() {
        return redirects[2];
    }

    /** @return whether stderr goes wherever stdout goes */
    public boolean redirectErrorStream() {
        return redirectErrorStream;
    }

    /**
     * Sets where stdin comes from: {@link Redirect#PIPE} (the default, written through
     * {@link NativeProcess#getOutputStream()}), {@link Redirect#INHERIT} or {@link Redirect#from(File)}.
     *
     * @param source where stdin comes from
     * @return this launcher
     * @throws IllegalArgumentException for a redirect that writes
     */
    public Launcher redirectInput(Redirect source) {
        if (source.type() == Redirect.Type.WRITE || source.type() == Redirect.Type.APPEND) {
            throw new IllegalArgumentException("Redirect invalid for reading: " + source);
        }
        redirects[0] = source;
        return this;
    }

    /**
     * Reads stdin from a file, as {@code redirectInput(Redirect.from(file))}.
     *
     * @param file the file
     * @return this launcher
     */
    public Launcher redirectInput(File file) {
        return redirectInput(Redirect.from(file));
    }

    /**
     * Sets where stdout goes: {@link Redirect#PIPE} (the default, read through
     * {@link NativeProcess#getInputStream()}), {@link Redirect#INHERIT}, {@link Redirect#DISCARD},
     * {@link Redirect#to(File)} or {@link Redirect#appendTo(File)}.
     *
     * @param destination where stdout goes
     * @return this launcher
     * @throws IllegalArgumentException for a redirect that reads
     */
    public Launcher redirectOutput(Redirect destination) {
        redirects[1] = writing(destination);
        return this;
    }

    /**
     * Writes stdout to a file, created or truncated, as {@code redirectOutput(Redirect.to(file))}.
     *
     * @param file the file
     * @return this launcher
     */
    public Launcher redirectOutput(File file) {
        return redirectOutput(Redirect.to(file));
    }

    /**
     * Sets where stderr goes, as {@link #redirectOutput(Redirect)} does for stdout; unused while
     * {@link #redirectErrorStream(boolean)} is on.
     *
     * @param destination where stderr goes
     * @return this launcher
     * @throws IllegalArgumentException for a redirect that reads
     */
    public Launcher redirectError(Redirect destination) {
        redirects[2] = writing(destination);
        return this;
    }

    /**
     * Writes stderr to a file, created or truncated, as {@code redirectError(Redirect.to(file))}.
     *
     * @param file the file
     * @return this launcher
     */
    public Launcher redirectError(File file) {
        return redirectError(Redirect.to(file));
    }

    /**
     * Gives the program the JVM's own stdin, stdout and stderr.
     *
     * @return this launcher
     */
    public Launcher inheritIO() {
        Arrays.fill(redirects, Redirect.INHERIT);
        return this;
    }

    private static Redirect writing(Redirect destination) {
        if (destination.type() == Redirect.Type.READ) {
            throw new IllegalArgumentException("Redirect invalid for writing: " + destination);
        }
        return destination;
    }

    /**
     * Sends stderr wherever stdout goes; {@link NativeProcess#getErrorStream()} is then empty.
     *
     * @param redirectErrorStream true to merge stderr into stdout
     * @return this launcher
     */
    public Launcher redirectErrorStream(boolean redirectErrorStream) {
        this.redirectErrorStream = redirectErrorStream;
        return this;
    }

    /**
     * Adds a variable to the program's environment. For the path-like keys PATH, LIBPATH, CLASSPATH,
     * SHLIB_PATH and LD_LIBRARY_PATH the value is put in front of the inherited value with a ':' between;
     * any other key replaces the inherited value. Adding a key again replaces what was added before.
     * Additions apply in the same way to a complete environment ({@link #environment()}).
     *
     * @param key the variable's name
     * @param value its value, or the part to put in front of a path-like one
     * @return this launcher
     * @throws IllegalArgumentException for an empty key, or one holding '=' or NUL, or a value holding NUL
     */
    public Launcher addEnvironment(String key, String value) {
        additions.put(Environment.checkName(key), Environment.checkValue(value));
        return this;
    }

    /**
     * The complete environment the program will get, as {@link ProcessBuilder#environment()} gives it: a
     * live, mutable map, at first a copy of the JVM's ({@link System#getenv()}). Calling it switches the
     * launcher from adding to the inherited environment to giving this one; additions of
     * {@link #addEnvironment} are merged into it as they would be into the inherited one.
     *
     * @return the map, the same at each call
     */
    public Map<String, String> environment() {
        if (environment == null) {
            environment = new Environment(System.getenv());
        }
        return environment;
    }

    /**
     * Gives the program this environment instead of the JVM's. The additions of
     * {@link #addEnvironment} are merged into it as they would be into the inherited one: a path-like
     * value in front of the map's value, any other replacing it.
     *
     * @param environment the whole environment, copied; null to inherit the JVM's again
     * @return this launcher
     * @throws IllegalArgumentException for a key or value that {@link #addEnvironment} refuses
     */
    public Launcher environment(Map<String, String> environment) {
        this.environment = environment != null ? new Environment(environment) : null;
        return this;
    }

    /**
     * Sets the program's nice value; by default it keeps the JVM's. Values outside -20..19 are clamped, and
     * a value the system refuses (a lower one without privilege) leaves the program at the JVM's.
     *
     * @param nice the nice value, from -20 (first) to 19 (last)
     * @return this launcher
     */
    public Launcher nice(int nice) {
        this.nice = nice;
        return this;
    }

    /**
     * Sets the program's file-creation mask; by default it keeps the JVM's.
     *
     * @param umask the mask, e.g. {@code 027}, from 0 to 0777
     * @return this launcher
     * @throws IllegalArgumentException for a value outside 0..0777
     */
    public Launcher umask(int umask) {
        if (umask < 0 || umask > 0777) {
            throw new IllegalArgumentException("not a file-creation mask: 0" + Integer.toOctalString(umask));
        }
        this.umask = umask;
        return this;
    }

    /**
     * Runs the program as this user (which needs privilege), with the user's group unless
     * {@link #group(String)} names another.
     *
     * @param user the user's name, or null for the JVM's user
     * @return this launcher
     */
    public Launcher user(String user) {
        this.user = user;
        return this;
    }

    /**
     * Runs the program with this group (which needs privilege).
     *
     * @param group the group's name, or null
     * @return this launcher
     */
    public Launcher group(String group) {
        this.group = group;
        return this;
    }

    /**
     * Puts the program into an existing process group.
     *
     * @param processGroup the group's ID; 0 makes the program lead a new group, as {@link #newProcessGroup()}
     * @return this launcher
     * @throws IllegalArgumentException for a negative ID or one above the largest process ID
     */
    public Launcher processGroup(long processGroup) {
        if (processGroup < 0 || processGroup > Integer.MAX_VALUE) {
            throw new IllegalArgumentException("not a process group: " + processGroup);
        }
        this.processGroup = (int) processGroup;
        return this;
    }

    /**
     * Makes the program lead a new process group, which {@link NativeProcess#killTree()} kills with it. By
     * default the program stays in the JVM's group.
     *
     * @return this launcher
     */
    public Launcher newProcessGroup() {
        processGroup = 0;
        return this;
    }

    /**
     * Starts the program detached: it is no child of the JVM, is adopted by init, and runs on when the JVM
     * ends. Its exit status can't be known (see {@link NativeProcess#exitStatusKnown()}).
     *
     * @param detached true for a detached start
     * @return this launcher
     */
    public Launcher detached(boolean detached) {
        this.detached = detached;
        return this;
    }

    /** A resource limit without a bound ({@link #limit}). */
    public static final long UNLIMITED = -1;

    /**
     * Makes the program and everything it starts live in a group of their own, a contained tree: a cgroup
     * where a writable cgroup v2 hierarchy exists (every member stays in it whatever it does), else a new
     * process group the program leads (a member that calls {@code setsid} leaves it).
     * {@link NativeProcess#containment()} tells which; {@link NativeProcess#killTree()},
     * {@link NativeProcess#signalTree(int)}, {@link NativeProcess#waitForTree} and
     * {@link NativeProcess#onTreeExit()} reach the whole tree, also after the program itself has ended. The
     * group is removed once the tree is empty.
     *
     * @return this launcher
     */
    public Launcher contained() {
        contained = true;
        return this;
    }

    /**
     * Sets a resource limit of the program, soft and hard alike, before its exec.
     *
     * @param limit the resource
     * @param value the limit, or {@link #UNLIMITED}
     * @return this launcher
     * @throws IllegalArgumentException for a negative value other than {@link #UNLIMITED}
     */
    public Launcher limit(ResourceLimit limit, long value) {
        return limit(limit, value, value);
    }

    /**
     * Sets a resource limit of the program before its exec. Raising a hard limit needs privilege: a value
     * above the JVM's hard limit fails {@link #start()} for a user without it, naming the limit.
     *
     * @param limit the resource
     * @param soft the limit the program meets, or {@link #UNLIMITED}
     * @param hard the most the program may raise the soft limit to, or {@link #UNLIMITED}
     * @return this launcher
     * @throws IllegalArgumentException for a negative value other than {@link #UNLIMITED}, or a soft limit
     *     above the hard one
     */
    public Launcher limit(ResourceLimit limit, long soft, long hard) {
        if (soft < UNLIMITED || hard < UNLIMITED || (hard != UNLIMITED && (soft == UNLIMITED || soft > hard))) {
            throw new IllegalArgumentException("not a limit of " + limit + ": soft " + soft + ", hard " + hard);
        }
        limits.put(limit, new long[] {soft, hard});
        return this;
    }

    /**
     * Limits the memory of the whole contained tree (and makes the launch {@link #contained()}): a member
     * that goes over it is killed, and {@link ProcessUsage#killedForMemory()} says so. It needs a hierarchy
     * with the memory controller (cgroup v2 where this JVM's group hands it down, else v1); without one,
     * {@link #start()} fails naming it. Swap counts towards the limit.
     *
     * @param bytes the limit, at least one page
     * @return this launcher
     * @throws IllegalArgumentException for less than 4096 bytes
     */
    public Launcher memoryLimit(long bytes) {
        if (bytes < 4096) {
            throw new IllegalArgumentException("not a memory limit: " + bytes);
        }
        memoryLimit = bytes;
        contained = true;
        return this;
    }

    /**
     * Limits the number of processes (and threads) of the whole contained tree (and makes the launch
     * {@link #contained()}): a fork beyond it fails. It needs a hierarchy with the pids controller; without
     * one, {@link #start()} fails naming it.
     *
     * @param processes the limit, at least 1
     * @return this launcher
     * @throws IllegalArgumentException for less than 1
     */
    public Launcher processLimit(int processes) {
        if (processes < 1) {
            throw new IllegalArgumentException("not a process limit: " + processes);
        }
        processLimit = processes;
        contained = true;
        return this;
    }

    /**
     * Kills the program when this JVM ends, however it ends: System.exit, a crash or SIGKILL; and not before,
     * whatever becomes of the thread that started it. A contained tree ends whole. The JVM's end is seen by a
     * small watchdog process of the library's own, made at the first such launch; a program that changes its
     * user to another one, or execs a set-user-ID program, can't be killed by it.
     *
     * @param endWithJvm true to have the program end with this JVM
     * @return this launcher
     */
    public Launcher endWithJvm(boolean endWithJvm) {
        this.endWithJvm = endWithJvm;
        return this;
    }

    /**
     * Sets how many bytes {@link #run} keeps of each of stdout and stderr; what comes beyond is read and
     * dropped, and {@link ProcessResult#truncated()} says so. The default is 16 MiB.
     *
     * @param bytes the limit per stream, 0 or more
     * @return this launcher
     * @throws IllegalArgumentException for a negative limit
     */
    public Launcher captureLimit(long bytes) {
        if (bytes < 0 || bytes > Integer.MAX_VALUE - 8) {
            throw new IllegalArgumentException("not a capture limit: " + bytes);
        }
        captureLimit = bytes;
        return this;
    }

    /**
     * Delivers what the program writes to stdout to a handler as it arrives, instead of
     * {@link NativeProcess#getInputStream()} (then an empty stream): no thread per process, and a slow handler
     * slows its own program alone (see {@link OutputHandler}). Only while stdout is a pipe (the default).
     *
     * @param handler the handler, or null for the stream again
     * @return this launcher
     */
    public Launcher onOutput(OutputHandler handler) {
        handlers[0] = handler;
        return this;
    }

    /**
     * Delivers what the program writes to stderr to a handler, as {@link #onOutput} does for stdout.
     *
     * @param handler the handler, or null for the stream again
     * @return this launcher
     */
    public Launcher onError(OutputHandler handler) {
        handlers[1] = handler;
        return this;
    }

    /**
     * Starts the program and returns once it runs the program (its exec succeeded) or has failed.
     *
     * @return the running process, to be closed when no longer needed
     * @throws IOException when the program can't be started, with a message that names the program and what
     *     was at fault, as {@code Cannot run program "x" (in directory "/d"): stdout file "/no/dir/out": No
     *     such file or directory}; the cause is the library's {@link ProcessOpException} subclass for the
     *     failure (e.g. {@code InvalidExecutableException}, {@code InvalidFileException})
     * @throws IndexOutOfBoundsException when the command is empty
     * @throws NullPointerException when an element of the command is null
     */
    public NativeProcess start() throws IOException {
        return launch(modes(), new long[3], processGroup, handlers, false).process();
    }

    /**
     * Runs the program to its end and gives back how it ended and what it wrote, never waiting longer than
     * {@code limit}: stdout and stderr (while they are pipes, the default) are captured up to the
     * {@link #captureLimit}, stdin reads nothing (unless redirected). When the limit passes, the program's whole
     * tree is killed: the process group it leads (it leads a new one unless {@link #processGroup} says
     * otherwise), also what is left of it after the program itself has ended. The call then returns within
     * 100 ms, also when a process that left the group still holds a pipe. No thread is made for the call: the
     * library's event thread reads the pipes.
     *
     * @param limit the longest time the run may take, positive; a limit beyond what {@link System#nanoTime()}
     *     can count (some 292 years) means no limit
     * @return how the program ended and what it wrote
     * @throws IOException when the program can't be started, as {@link #start()} says
     * @throws InterruptedException when the calling thread is interrupted; the tree is killed then
     * @throws IllegalStateException when output handlers are set or the launcher is detached
     * @throws IllegalArgumentException when the limit is zero or negative
     */
    public ProcessResult run(Duration limit) throws IOException, InterruptedException {
        return run(null, limit);
    }

    /**
     * Runs the program as {@link #run(Duration)} does, with {@code input} written to its stdin (a pipe then,
     * closed after the last byte; a program that ends without reading it all is no failure).
     *
     * @param input the bytes for stdin, or null for none
     * @param limit the longest time the run may take, as {@link #run(Duration)} says
     * @return how the program ended and what it wrote
     * @throws IOException when the program can't be started, as {@link #start()} says
     * @throws InterruptedException when the calling thread is interrupted; the tree is killed then
     * @throws IllegalStateException when output handlers are set or the launcher is detached
     * @throws IllegalArgumentException when the limit is zero or negative
     */
    public ProcessResult run(byte[] input, Duration limit) throws IOException, InterruptedException {
        if (limit.isNegative() || limit.isZero()) {
            throw new IllegalArgumentException("not a positive time limit: " + limit);
        }
        long limitNanos = saturatedNanos(limit);
        if (handlers[0] != null || handlers[1] != null || detached) {
            throw new IllegalStateException("run() captures the output of a child: no output handlers, not detached");
        }
        long began = System.nanoTime();
        int[] modes = modes();
        if (input != null) {
            modes[0] = NativeProcessGlue.STD_PIPE;
        } else if (modes[0] == NativeProcessGlue.STD_PIPE) {
            modes[0] = NativeProcessGlue.STD_NULL;
        }
        boolean leads = (processGroup == NativeProcessGlue.GROUP_INHERIT || processGroup == 0) && !contained;
        Started started = launch(modes, new long[3], leads ? 0 : processGroup, new OutputHandler[2], true);
        NativeProcess process = started.process();
        long pid = process.pid();
        Runnable killTree = () -> killTreeOf(process, leads ? pid : 0);
        return Run.run(command, process, started.fds(), input != null ? input : new byte[0], captureLimit,
                limitNanos, began, killTree);
    }

    /** The duration in nanoseconds, Long.MAX_VALUE for any that has more. */
    static long saturatedNanos(Duration duration) {
        try {
            return duration.toNanos();
        } catch (ArithmeticException tooLong) {
            return duration.isNegative() ? Long.MIN_VALUE : Long.MAX_VALUE;
        }
    }

    /** Kills the process's tree; once it has ended, what is left of the process group it led. */
    private static void killTreeOf(NativeProcess process, long group) {
        try {
            process.killTree();
        } catch (IOException | RuntimeException e) {
            // Refused or closed: the group's kill below is what is left to do.
        }
        if (group > 1) {
            NativeProcessGlue.get().killGroup((int) group);
        }
    }

    /**
     * Starts the programs of a pipeline, each one's stdout joined to the next one's stdin by a kernel pipe,
     * as {@link ProcessBuilder#startPipeline} does: the first's stdin and the last's stdout follow their own
     * redirects, stderr of each its own. A program that ends closes its ends, so its neighbours see end of
     * file or SIGPIPE at once; no thread of the JVM copies anything between them.
     *
     * @param launchers the stages, first to last
     * @return the processes, in the same order; the streams between stages are empty
     * @throws IOException when a stage can't be started: those started already are killed and collected
     * @throws IllegalArgumentException when a redirect other than the first stage's stdin and the last stage's
     *     stdout is not {@link Redirect#PIPE}, or an inner stage has an output handler on stdout
     */
    public static List<NativeProcess> startPipeline(List<Launcher> launchers) throws IOException {
        for (int i = 0; i < launchers.size(); i++) {
            Launcher stage = launchers.get(i);
            boolean first = i == 0;
            boolean last = i == launchers.size() - 1;
            if ((!first && !stage.redirects[0].equals(Redirect.PIPE)) || (!last && !stage.redirects[1].equals(Redirect.PIPE))
                    || (!last && stage.handlers[0] != null)) {
                throw new IllegalArgumentException("stage " + i + " of the pipeline redirects a stream it shares: "
                        + stage.command);
            }
        }
        List<NativeProcess> processes = new ArrayList<>();
        // The pipe ends the JVM holds: the read end from the stage before, the write end to the next, and the
        // read end the next stage will take.
        int[] ends = {-1, -1, -1};
        NativeProcessGlue glue = NativeProcessGlue.get();
        try {
            for (int i = 0; i < launchers.size(); i++) {
                Launcher stage = launchers.get(i);
                int[] modes = stage.modes();
                long[] fds = new long[3];
                if (i > 0) {
                    modes[0] = NativeProcessGlue.STD_DESCRIPTOR;
                    fds[0] = ends[0];
                }
                if (i < launchers.size() - 1) {
                    int[] pipe = {-1, -1};
                    glue.pipe(pipe);
                    ends[1] = pipe[1];
                    ends[2] = pipe[0];
                    modes[1] = NativeProcessGlue.STD_DESCRIPTOR;
                    fds[1] = ends[1];
                }
                processes.add(stage.launch(modes, fds, stage.processGroup, stage.handlers, false).process());
                closeQuietly(ends, 2);
                ends[0] = ends[2];
                ends[2] = -1;
            }
            return processes;
        } catch (IOException | RuntimeException | Error e) {
            closeQuietly(ends, 3);
            for (NativeProcess process : processes) {
                process.destroyForcibly();
                try {
                    process.waitFor(10, TimeUnit.SECONDS);
                } catch (InterruptedException interrupted) {
                    Thread.currentThread().interrupt();
                }
                process.close();
            }
            throw e;
        }
    }

    /** Closes the first {@code count} descriptors that are open and marks them closed. */
    private static void closeQuietly(int[] fds, int count) {
        for (int i = 0; i < count; i++) {
            if (fds[i] >= 0) {
                try {
                    NativeProcessGlue.get().close(fds[i]);
                } catch (IOException ignored) {
                    // Given back as far as possible.
                }
                fds[i] = -1;
            }
        }
    }

    /** A started process, with the pipe ends the caller takes over when the process did not. */
    private record Started(NativeProcess process, int[] fds) {}

    /** The dispositions of the three descriptors as this launcher's redirects give them. */
    private int[] modes() {
        int[] modes = new int[3];
        for (int i = 0; i < 3; i++) {
            modes[i] = mode(redirects[i]);
        }
        if (redirectErrorStream) {
            modes[2] = NativeProcessGlue.STD_AS_STDOUT;
        }
        return modes;
    }

    /**
     * One launch with these dispositions (and descriptors for {@code STD_DESCRIPTOR}), the rest from this
     * launcher's settings.
     */
    private Started launch(int[] modes, long[] stdFds, int group, OutputHandler[] outputHandlers, boolean keepPipes)
            throws IOException {
        String program = command.get(0);
        String[] arguments = command.subList(1, command.size()).toArray(new String[0]);
        for (String argument : command) {
            Objects.requireNonNull(argument, "command element");
        }
        String[] paths = new String[3];
        for (int i = 0; i < 3; i++) {
            boolean named = modes[i] == NativeProcessGlue.STD_READ || modes[i] == NativeProcessGlue.STD_WRITE
                    || modes[i] == NativeProcessGlue.STD_APPEND;
            paths[i] = named ? redirects[i].file().getAbsolutePath() : null;
        }
        long[] settings = new long[NativeProcessGlue.SETTINGS];
        settings[NativeProcessGlue.SETTING_FLAGS] = (detached ? NativeProcessGlue.FLAG_DETACHED : 0)
                | (contained ? NativeProcessGlue.FLAG_CONTAINED : 0) | (endWithJvm ? NativeProcessGlue.FLAG_END_WITH_JVM : 0);
        settings[NativeProcessGlue.SETTING_MEMORY_LIMIT] = memoryLimit;
        settings[NativeProcessGlue.SETTING_PROCESS_LIMIT] = processLimit;
        settings[NativeProcessGlue.SETTING_NICE] = nice != null ? nice : NativeProcessGlue.UNSET;
        settings[NativeProcessGlue.SETTING_UMASK] = umask != null ? umask : NativeProcessGlue.UNSET;
        settings[NativeProcessGlue.SETTING_PROCESS_GROUP] = group;
        System.arraycopy(stdFds, 0, settings, NativeProcessGlue.SETTING_STD_FDS, 3);
        long[] launched = new long[NativeProcessGlue.LAUNCHED];
        EventLoop.ensureRunning();
        long handle;
        try {
            handle = NativeProcessGlue.get().launch(program, arguments, entries(additions),
                    environment != null ? environment.entries() : null, directory != null ? directory.getPath() : null,
                    modes, paths, this.group, user, settings, limitTriples(), launched);
        } catch (ProcessOpException e) {
            IOException failure = new IOException(cannotRun(program) + culprit(launched, group, e), e);
            Log.debug(() -> "start of " + command + " failed: " + failure.getMessage());
            throw failure;
        }
        NativeProcess process = NativeProcess.launched(handle, launched, detached, outputHandlers, keepPipes);
        traceStarted(launched[NativeProcessGlue.LAUNCHED_PID]);
        int[] fds = new int[3];
        for (int i = 0; i < 3; i++) {
            fds[i] = keepPipes ? (int) launched[NativeProcessGlue.LAUNCHED_PIPES + i] : -1;
        }
        return new Started(process, fds);
    }

    /** The trace of a start: nothing here may cost the caller a process that runs, not even an Error. */
    private void traceStarted(long pid) {
        try {
            List<String> started = command;
            File in = directory;
            Log.debug(() -> "started process " + pid + ": " + started + (in != null ? " in " + in : ""));
        } catch (Throwable ignored) {
            // Not even the message could be made: no trace.
        }
    }

    /** The resource limits as triples of resource, soft and hard, for the native launch. */
    private long[] limitTriples() {
        long[] triples = new long[3 * limits.size()];
        int i = 0;
        for (Map.Entry<ResourceLimit, long[]> limit : limits.entrySet()) {
            triples[i++] = limit.getKey().resource;
            triples[i++] = limit.getValue()[0];
            triples[i++] = limit.getValue()[1];
        }
        return triples;
    }

    private String cannotRun(String program) {
        return "Cannot run program \"" + program + "\"" + (directory != null ? " (in directory \"" + directory + "\")" : "")
                + ": ";
    }

    /** What was at fault, from the step of the launch that failed and the system's error. */
    private String culprit(long[] launched, int processGroup, ProcessOpException e) {
        int errno = (int) launched[NativeProcessGlue.LAUNCHED_ERRNO];
        int detail = (int) launched[NativeProcessGlue.LAUNCHED_DETAIL];
        String reason = errno != 0 ? NativeProcessGlue.get().errorText(errno) : null;
        switch ((int) launched[NativeProcessGlue.LAUNCHED_STEP]) {
            case NativeProcessGlue.STEP_EXEC:
                return "error=" + errno + ", " + reason;
            case NativeProcessGlue.STEP_DIRECTORY:
                return "directory \"" + directory + "\": " + reason;
            case NativeProcessGlue.STEP_STD_HANDLE:
                File file = detail >= 0 && detail < 3 ? redirects[detail].file() : null;
                return file != null ? STANDARD_NAMES[detail] + " file \"" + file + "\": " + reason
                        : e.getMessage();
            case NativeProcessGlue.STEP_USER:
                return "user \"" + user + "\": " + (reason != null ? reason : "no such user");
            case NativeProcessGlue.STEP_GROUP:
                return detail == 1 ? "primary group of user \"" + user + "\": " + (reason != null ? reason : "no such user")
                        : "group \"" + group + "\": " + (reason != null ? reason : "no such group");
            case NativeProcessGlue.STEP_PROCESS_GROUP:
                return "process group " + processGroup + ": " + reason;
            case NativeProcessGlue.STEP_PRIORITY:
                return "nice value " + nice + ": " + reason;
            case NativeProcessGlue.STEP_CGROUP:
                return detail == 1 ? "memory limit: no cgroup hierarchy here carries the memory controller"
                        : detail == 2 ? "process limit: no cgroup hierarchy here carries the pids controller"
                        : "the groups of a contained tree: " + reason;
            case NativeProcessGlue.STEP_LIMIT:
                for (Map.Entry<ResourceLimit, long[]> limit : limits.entrySet()) {
                    if (limit.getKey().resource == detail) {
                        return "resource limit " + limit.getKey() + " (soft " + bound(limit.getValue()[0]) + ", hard "
                                + bound(limit.getValue()[1]) + "): " + reason;
                    }
                }
                return "resource limit " + detail + ": " + reason;
            case NativeProcessGlue.STEP_WATCHDOG:
                return "ending with the JVM: " + reason;
            default:
                return e.getMessage();
        }
    }

    private static String bound(long value) {
        return value == UNLIMITED ? "unlimited" : Long.toString(value);
    }

    private static int mode(Redirect redirect) {
        Redirect.Type type = redirect.type();
        if (redirect.equals(Redirect.DISCARD)) {
            return NativeProcessGlue.STD_NULL;
        } else if (type == Redirect.Type.PIPE) {
            return NativeProcessGlue.STD_PIPE;
        } else if (type == Redirect.Type.INHERIT) {
            return NativeProcessGlue.STD_INHERIT;
        } else if (type == Redirect.Type.READ) {
            return NativeProcessGlue.STD_READ;
        } else if (type == Redirect.Type.WRITE) {
            return NativeProcessGlue.STD_WRITE;
        }
        return NativeProcessGlue.STD_APPEND;
    }

    /** key=value entries of a map, in its order. */
    private static String[] entries(Map<String, String> variables) {
        String[] entries = new String[variables.size()];
        int i = 0;
        for (Map.Entry<String, String> variable : variables.entrySet()) {
            entries[i++] = variable.getKey() + "=" + variable.getValue();
        }
        return entries;
    }
}
