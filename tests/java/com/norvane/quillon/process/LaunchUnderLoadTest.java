package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.norvane.quillon.process.exception.InvalidDirectoryException;
import com.norvane.quillon.process.exception.InvalidExecutableException;
import com.norvane.quillon.process.exception.InvalidFileException;
import com.norvane.quillon.process.exception.InvalidGroupException;
import com.norvane.quillon.process.exception.InvalidProcessGroupException;
import com.norvane.quillon.process.exception.InvalidUsernameException;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicBoolean;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Every outcome of a launch, attached and detached, from four threads at once, while other threads look users up,
 * allocate and change the group of the whole process: from a JVM with the default heap and from one with a 4 GiB
 * pretouched heap.
 */
class LaunchUnderLoadTest {
    @ParameterizedTest(name = "{0}")
    @ValueSource(strings = {"default heap", "4 GiB pretouched heap"})
    void everyOutcomeHoldsFromAnyHeapUnderLoad(String heap) throws Exception {
        List<String> options = heap.startsWith("4") ? List.of("-Xms4g", "-Xmx4g", "-XX:+AlwaysPreTouch") : List.of();
        String out = ChildJvm.run(false, Map.of(), false, options, Outcomes.class);
        assertEquals("every outcome as expected\n", ChildJvm.withoutTrace(out));
    }

    /** The launching JVM: prints "every outcome as expected" or what went otherwise. */
    public static final class Outcomes {
        private Outcomes() {}

        private static final UnixProcessGlue GLUE = UnixProcessGlue.get();

        // executable, directory, user, group, process group, stdin file, expected class (null: success)
        private static final Object[][] CASES = {
            {"/bin/true", null, null, null, 0, null, null},
            {"/no/such/program", null, null, null, 0, null, InvalidExecutableException.class},
            {"/bin/true", "/no/such/dir", null, null, 0, null, InvalidDirectoryException.class},
            {"/bin/true", null, "no-such-user", null, 0, null, InvalidUsernameException.class},
            {"/bin/true", null, null, "no-such-group", 0, null, InvalidGroupException.class},
            {"/bin/true", null, null, null, 999999, null, InvalidProcessGroupException.class},
            {"/bin/true", null, null, null, 0, "/no/such/input", InvalidFileException.class},
            {"/bin/true", null, "nobody", "nogroup", 0, null, null},
        };

        private static String launch(Object[] c, boolean detached) {
            String[] files = c[5] == null ? null : new String[] {(String) c[5], null, null};
            try {
                long handle = GLUE.create((String) c[0], null, null, (String) c[1], 20, files, 022, (String) c[3],
                        (String) c[2], (Integer) c[4], null, files == null, detached);
                GLUE.waitForTermination(handle);
                GLUE.done(handle);
                return c[6] == null ? "" : c[0] + " launched, not " + c[6] + "; ";
            } catch (ProcessOpException e) {
                return e.getClass() == c[6] ? "" : c[0] + " " + c[1] + " " + c[2] + ": " + e + "; ";
            }
        }

        public static void main(String[] args) throws Exception {
            AtomicBoolean stop = new AtomicBoolean();
            List<Probe.Action> loads = List.of(GLUE::getCurrentProcessUser, // the registry's locks
                    EnvUtilGlue.get()::native_getentireenv, // the heap
                    () -> { // a change of group, which the C library carries to every thread
                        GLUE.setCurrentProcessGroup(GLUE.getCurrentProcessGroup());
                        return null;
                    });
            List<Thread> busy = loads.stream().map(load -> new Thread(() -> {
                while (!stop.get()) {
                    try {
                        load.run();
                    } catch (Exception e) {
                        throw new IllegalStateException(e);
                    }
                }
            })).toList();
            busy.forEach(Thread::start);
            ExecutorService launchers = Executors.newFixedThreadPool(4);
            List<Future<String>> results = new ArrayList<>();
            for (int round = 0; round < 25; round++) {
                for (Object[] c : CASES) {
                    boolean detached = round % 2 == 1;
                    results.add(launchers.submit(() -> launch(c, detached)));
                }
            }
            StringBuilder problems = new StringBuilder();
            for (Future<String> result : results) {
                problems.append(result.get());
            }
            stop.set(true);
            for (Thread thread : busy) {
                thread.join();
            }
            launchers.shutdown();
            System.out.println(problems.length() == 0 ? "every outcome as expected" : problems.toString());
        }
    }
}
