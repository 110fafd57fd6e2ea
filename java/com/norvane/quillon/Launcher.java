package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.File;
import java.io.IOException;
import java.lang.ProcessBuilder.Redirect;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Objects;

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
        String program = command.get(0);
        String[] arguments = command.subList(1, command.size()).toArray(new String[0]);
        for (String argument : command) {
            Objects.requireNonNull(argument, "command element");
        }
        int[] modes = new int[3];
        String[] paths = new String[3];
        for (int i = 0; i < 3; i++) {
            modes[i] = mode(redirects[i]);
            paths[i] = redirects[i].file() != null ? redirects[i].file().getAbsolutePath() : null;
        }
        if (redirectErrorStream) {
            modes[2] = NativeProcessGlue.STD_AS_STDOUT;
            paths[2] = null;
        }
        long[] settings = new long[NativeProcessGlue.SETTINGS];
        settings[NativeProcessGlue.SETTING_FLAGS] = detached ? NativeProcessGlue.FLAG_DETACHED : 0;
        settings[NativeProcessGlue.SETTING_NICE] = nice != null ? nice : NativeProcessGlue.UNSET;
        settings[NativeProcessGlue.SETTING_UMASK] = umask != null ? umask : NativeProcessGlue.UNSET;
        settings[NativeProcessGlue.SETTING_PROCESS_GROUP] = processGroup;
        long[] launched = new long[NativeProcessGlue.LAUNCHED];
        ProcessWatcher.ensureRunning();
        long handle;
        try {
            handle = NativeProcessGlue.get().launch(program, arguments, entries(additions),
                    environment != null ? environment.entries() : null, directory != null ? directory.getPath() : null,
                    modes, paths, group, user, settings, launched);
        } catch (ProcessOpException e) {
            IOException failure = new IOException(cannotRun(program) + culprit(launched, e), e);
            Log.debug(() -> "start of " + command + " failed: " + failure.getMessage());
            throw failure;
        }
        NativeProcess process = NativeProcess.launched(handle, launched, detached);
        traceStarted(launched[NativeProcessGlue.LAUNCHED_PID]);
        return process;
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

    private String cannotRun(String program) {
        return "Cannot run program \"" + program + "\"" + (directory != null ? " (in directory \"" + directory + "\")" : "")
                + ": ";
    }

    /** What was at fault, from the step of the launch that failed and the system's error. */
    private String culprit(long[] launched, ProcessOpException e) {
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
            default:
                return e.getMessage();
        }
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
