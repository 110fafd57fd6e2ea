package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.norvane.quillon.process.exception.ProcessOpException;
import com.norvane.quillon.process.linuxutil.ThreadUtil;
import java.io.IOException;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Every glue native driven with nulls, empty and huge strings and arrays, unpaired surrogates, NULs, odd array
 * lengths, extreme numbers and stale handles: each call gives a result or an exception, and the JVM lives on. It
 * runs in a JVM of its own as nobody, where a random adoption can signal nothing of anyone else's.
 */
class FuzzTest {
    @ParameterizedTest(name = "seed {0}")
    @ValueSource(longs = {1, 2, 3})
    void everyNativeSurvivesWhateverItIsGiven(long seed) throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to start the JVM as nobody");
        String out = ChildJvm.run(true, Fuzz.class, Long.toString(seed), "1500");
        assertTrue(out.contains("survived 1500 calls"), out.length() > 3000 ? out.substring(out.length() - 3000) : out);
    }

    /** The fuzzing JVM: argument 0 the seed, argument 1 the number of calls. */
    public static final class Fuzz {
        private Fuzz() {}

        private static final UnixProcessGlue GLUE = UnixProcessGlue.get();
        private static final NativeProcessGlue API = NativeProcessGlue.get();
        private static final ThreadUtil THREADS = ThreadUtil.get();
        private static final EnvUtilGlue ENV = EnvUtilGlue.get();
        private static final List<Long> HANDLES = new ArrayList<>();
        private static final List<Long> MUTEXES = new ArrayList<>();
        private static final List<Integer> FDS = new ArrayList<>();
        private static final List<Long> SELF = new ArrayList<>(); // handles on this JVM: never signalled
        private static Random random;

        private static String string() {
            return switch (random.nextInt(10)) {
                case 0 -> null;
                case 1 -> "";
                case 2 -> "x".repeat(random.nextInt(200_000));
                case 3 -> "a\0b";
                case 4 -> "\uD800" + random.nextInt();
                case 5 -> "\uD83D\uDE00 " + random.nextInt(100);
                case 6 -> "/bin/true";
                case 7 -> "nobody";
                case 8 -> Integer.toString(random.nextInt(100_000));
                default -> Long.toString(ProcessHandle.current().pid());
            };
        }

        private static String[] strings() {
            if (random.nextInt(6) == 0) {
                return null;
            }
            String[] array = new String[random.nextInt(8) == 0 ? 20_000 : random.nextInt(5)];
            for (int i = 0; i < array.length; i++) {
                array[i] = i < 8 ? string() : "k" + i + "=v";
            }
            return array;
        }

        private static int number() {
            return switch (random.nextInt(6)) {
                case 0 -> Integer.MIN_VALUE;
                case 1 -> Integer.MAX_VALUE;
                case 2 -> -1;
                case 3 -> 0;
                default -> random.nextInt(64);
            };
        }

        private static long handle(List<Long> live) {
            return switch (random.nextInt(5)) {
                case 0 -> 0;
                case 1 -> random.nextLong();
                case 2 -> -1;
                default -> live.isEmpty() ? random.nextLong() : live.get(random.nextInt(live.size()));
            };
        }

        private static String executable() {
            return random.nextBoolean() ? "/bin/true" : string();
        }

        /** A handle of another process, or the JVM's own kept apart. */
        private static void keep(long handle) {
            boolean self = false;
            try {
                self = GLUE.id(handle).equals(Long.toString(ProcessHandle.current().pid()));
            } catch (Exception stale) { // id declares none, and throws ProcessOpException for a stale handle
                // kept as it is
            }
            (self ? SELF : HANDLES).add(handle);
        }

        private static void call(int kind) throws Exception {
            long handle = handle(HANDLES);
            switch (kind) {
                case 0 -> keep(GLUE.create(random.nextBoolean() ? "/bin/sh" : executable(),
                        random.nextBoolean() ? new String[] {"-c", "exit 3"} : strings(), strings(),
                        random.nextBoolean() ? null : string(), number(), strings(), number(),
                        random.nextBoolean() ? null : string(), random.nextBoolean() ? null : string(), number(), string(),
                        random.nextBoolean(), random.nextBoolean()));
                case 1 -> keep(GLUE.recreate(string()));
                case 2 -> keep(GLUE.createSelf());
                case 3 -> GLUE.id(random.nextBoolean() ? handle : handle(SELF));
                case 4 -> GLUE.ping(random.nextBoolean() ? handle : handle(SELF));
                case 5 -> GLUE.waitForTerminationWithTimeout(random.nextBoolean() ? handle : handle(SELF), random.nextInt(2));
                case 6 -> GLUE.getExitCode(random.nextBoolean() ? handle : handle(SELF));
                case 7 -> GLUE.stop(handle);
                case 8 -> GLUE.kill(handle);
                case 9 -> {
                    GLUE.done(handle);
                    HANDLES.remove(handle); // now stale, and still used now and then
                }
                case 10 -> GLUE.setCurrentProcessUser(string());
                case 11 -> GLUE.setCurrentProcessGroup(string());
                case 12 -> ENV.native_getenv(string());
                case 13 -> MUTEXES.add(THREADS.createMutex());
                case 14 -> {
                    long mutex = handle(MUTEXES);
                    if (THREADS.mutexTrylock(mutex) == 0) {
                        THREADS.mutexUnlock(mutex);
                    }
                }
                case 15 -> {
                    long mutex = handle(MUTEXES);
                    if (THREADS.freeMutex(mutex) == 0) {
                        MUTEXES.remove(mutex);
                    }
                }
                case 16 -> {
                    long[] launched = new long[random.nextBoolean() ? NativeProcessGlue.LAUNCHED : random.nextInt(7)];
                    int[] modes = new int[random.nextBoolean() ? 3 : random.nextInt(4)];
                    for (int i = 0; i < modes.length; i++) {
                        modes[i] = random.nextInt(9) - 1;
                    }
                    long[] settings =
                        new long[random.nextBoolean() ? NativeProcessGlue.SETTINGS : random.nextInt(5)];
                    for (int i = 0; i < settings.length; i++) {
                        settings[i] = random.nextBoolean() ? NativeProcessGlue.UNSET : number();
                    }
                    long[] limits = new long[random.nextInt(4) * (random.nextBoolean() ? 3 : 2)];
                    for (int i = 0; i < limits.length; i++) {
                        limits[i] = number();
                    }
                    keep(API.launch(
                        executable(), strings(), strings(), random.nextBoolean() ? null : strings(), string(),
                        random.nextBoolean() ? null : modes, strings(), null, null,
                        random.nextBoolean() ? null : settings, random.nextBoolean() ? null : limits,
                        random.nextBoolean() ? null : launched));
                    for (int i = 0; launched.length == NativeProcessGlue.LAUNCHED && i < 3; i++) {
                        int fd = (int)launched[NativeProcessGlue.LAUNCHED_PIPES + i];
                        if (fd > 2) {
                            FDS.add(fd);
                        }
                    }
                }
                case 17 -> {
                    // Pipe ends of launched programs, or numbers far above any descriptor of the JVM's own.
                    int fd = FDS.isEmpty() || random.nextInt(4) == 0 ? 100_000 + random.nextInt(1000)
                            : FDS.remove(random.nextInt(FDS.size()));
                    byte[] buffer = new byte[random.nextInt(3) == 0 ? 0 : 64];
                    try {
                        switch (random.nextInt(3)) {
                            case 0 -> API.read(fd, random.nextBoolean() ? null : buffer, number(), number());
                            case 1 -> API.write(fd, buffer, 0, buffer.length);
                            default -> API.available(fd);
                        }
                    } finally {
                        API.close(fd);
                    }
                }
                case 18 -> API.waitFor(handle, random.nextInt(20));
                case 19 -> API.terminationSignal(handle);
                case 20 -> API.watch(handle);
                case 21 -> API.awaitEvents(new long[random.nextInt(4)], new int[random.nextInt(4)], random.nextInt(5));
                case 22 -> API.killTree(handle);
                default -> ENV.native_getentireenv();
            }
        }

        public static void main(String[] args) throws Exception {
            random = new Random(Long.parseLong(args[0]));
            int calls = Integer.parseInt(args[1]);
            java.util.Map<String, Integer> answers = new java.util.TreeMap<>();
            for (int i = 0; i < calls; i++) {
                String answer = "result";
                try {
                    call(random.nextInt(24));
                } catch (ProcessOpException | IOException | RuntimeException e) { // an answer too; a crash is not
                    answer = e.getClass().getSimpleName();
                }
                answers.merge(answer, 1, Integer::sum);
            }
            for (long handle : HANDLES) {
                try {
                    GLUE.kill(handle);
                } catch (ProcessOpException notOurs) {
                    // adopted processes of others, refused
                }
                GLUE.done(handle);
            }
            SELF.forEach(GLUE::done);
            System.out.println("survived " + calls + " calls: " + answers);
        }
    }
}
