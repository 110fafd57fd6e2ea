package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.io.File;
import java.io.IOException;
import java.lang.ProcessBuilder.Redirect;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Objects;

/**
 * Starts programs through the Quillon native library, in the manner of {@link ProcessBuilder}, with what
 * {@code ProcessBuilder} cannot give them: a nice value, a umask, another user and group, a process group,
 * an environment added to the inherited one, and a start detached from the JVM.
 *
 * <pre>{@code
 * try (NativeProcess make = new Launcher("make", "all").directory(new File("/srv/build")).nice(10).start()) {
 *     String log = new String(make.getInputStream().readAllBytes());
 *     int status = make.waitFor();
 * }
 * }</pre>
 *
 * <p>A launcher may start any number of processes; its settings are read at each {@link #start()}. It is
 * not safe for use by several threads at once.
 */
public final class Launcher {
    private static final NativeProcessGlue NATIVE = NativeProcessGlue.get();

    private final List<String> command;
    private File directory;
    private final Redirect[] redirects = {Redirect.PIPE, Redirect.PIPE, Redirect.PIPE};
    private boolean redirectErrorStream;
    private final Map<String, String> additions = new LinkedHashMap<>();
    private Map<String, String> replacement;
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
        this(List.of(command));
    }

    /**
     * @param command the program, searched on the program's PATH when it holds no slash, and its arguments;
     *     copied
     */
    public Launcher(List<String> command) {
        this.command = new ArrayList<>(command);
    }

    /** @return the program and its arguments, as a copy */
    public List<String> command() {
        return List.copyOf(command);
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
     * Sets where stderr goes, as {@link #redirectOutput} does for stdout; unused while
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
     * Additions apply in the same way to an environment set with {@link #environment(Map)}.
     *
     * @param key the variable's name
     * @param value its value, or the part to put in front of a path-like one
     * @return this launcher
     * @throws IllegalArgumentException for an empty key, or one holding '=' or NUL, or a value holding NUL
     */
    public Launcher addEnvironment(String key, String value) {
        additions.put(checkKey(key), checkValue(value));
        return this;
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
        if (environment == null) {
            replacement = null;
            return this;
        }
        Map<String, String> copy = new LinkedHashMap<>();
        environment.forEach((key, value) -> copy.put(checkKey(key), checkValue(value)));
        replacement = copy;
        return this;
    }

    private static String checkKey(String key) {
        if (key.isEmpty() || key.indexOf('=') >= 0 || key.indexOf('\0') >= 0) {
            throw new IllegalArgumentException("Invalid environment variable name: \"" + key + "\"");
        }
        return key;
    }

    private static String checkValue(String value) {
        if (value.indexOf('\0') >= 0) {
            throw new IllegalArgumentException("Invalid environment variable value: \"" + value + "\"");
        }
        return value;
    }

    /**
     * Sets the program's nice value; by default it has the JVM's. Values outside -20..19 are clamped, and a
     * value the system refuses (a lower one without privilege) leaves the program at the JVM's.
     *
     * @param nice the nice value, from -20 (first) to 19 (last)
     * @return this launcher
     */
    public Launcher nice(int nice) {
        this.nice = nice;
        return this;
    }

    /**
     * Sets the program's file-creation mask; by default it has the JVM's.
     *
     * @param umask the mask, e.g. {@code 027}
     * @return this launcher
     */
    public Launcher umask(int umask) {
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
     * @throws IllegalArgumentException for a negative ID
     */
    public Launcher processGroup(int processGroup) {
        if (processGroup < 0) {
            throw new IllegalArgumentException("not a process group: " + processGroup);
        }
        this.processGroup = processGroup;
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
     * ends. Its exit status can't be known: its exit value reads 0.
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
     * @throws IOException when the program can't be started; the cause is the library's
     *     {@link ProcessOpException} subclass for the failure (e.g. {@code InvalidExecutableException},
     *     {@code InvalidDirectoryException}) with its message
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
        long handle;
        try {
            handle = NATIVE.launch(program, arguments, entries(additions),
                    replacement != null ? entries(replacement) : null, directory != null ? directory.getPath() : null,
                    modes, paths, group, user, settings, launched);
        } catch (ProcessOpException e) {
            throw new IOException("Cannot run program \"" + program + "\""
                    + (directory != null ? " (in directory \"" + directory + "\")" : "") + ": " + e.getMessage(), e);
        }
        return NativeProcess.launched(handle, launched, detached);
    }

    private static int mode(Redirect redirect) {
        if (redirect.equals(Redirect.DISCARD)) {
            return NativeProcessGlue.STD_NULL;
        }
        return switch (redirect.type()) {
            case PIPE -> NativeProcessGlue.STD_PIPE;
            case INHERIT -> NativeProcessGlue.STD_INHERIT;
            case READ -> NativeProcessGlue.STD_READ;
            case WRITE -> NativeProcessGlue.STD_WRITE;
            case APPEND -> NativeProcessGlue.STD_APPEND;
        };
    }

    /** key=value entries of a map, in its order. */
    private static String[] entries(Map<String, String> variables) {
        return variables.entrySet().stream().map(e -> e.getKey() + "=" + e.getValue()).toArray(String[]::new);
    }
}
