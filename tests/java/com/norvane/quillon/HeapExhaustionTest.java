package com.norvane.quillon;

import static org.junit.jupiter.api.Assertions.assertTrue;

import com.norvane.quillon.process.ChildJvm;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CompletableFuture;
import org.junit.jupiter.api.Test;

/**
 * Launches while another thread fills the heap for moments: no Error loses a child or breaks a class for
 * good.
 */
class HeapExhaustionTest {
    /**
     * In a JVM with a 48 MiB heap: one thread fills the heap until OutOfMemoryError, holds it 30 ms and frees
     * it, again and again; the main thread first uses Launcher inside such a moment, then launches /bin/true
     * and closes in batches of 50 for 8 s. Prints the zombie children left, and whether Launcher still works.
     */
    public static final class Launches {
        private static volatile boolean full;
        private static volatile boolean stop;

        public static void main(String[] args) throws Exception {
            try {
                run();
            } catch (Throwable e) {
                stop = true;
                Thread.sleep(500);
                e.printStackTrace(System.out);
            }
        }

        private static void run() throws Exception {
            Object[] batch =
                new Object[50]; // Launcher and NativeProcess are first used in a moment of a full heap
            // What a JVM has set up long before, as any server's has: a JDK class whose first use falls in
            // such a moment is as unusable for good as any other.
            CompletableFuture.completedFuture(ProcessCounts.zombieChildren())
                .thenApplyAsync(zombies -> zombies)
                .join();
            long launched = 0;
            long failed = 0;
            long end = System.nanoTime() + 8_000_000_000L;
            Thread filler = new Thread(Launches::fill);
            filler.setDaemon(true);
            filler.start();
            while (!full) {
                Thread.onSpinWait();
            }
            while (System.nanoTime() < end) {
                for (int i = 0; i < batch.length; i++) {
                    try {
                        batch[i] = new Launcher("/bin/true").start();
                        launched++;
                    } catch (Throwable e) { // whatever fails, here or in the library, the child is collected
                        failed++;
                    }
                }
                for (int i = 0; i < batch.length; i++) {
                    try {
                        if (batch[i] != null) {
                            ((NativeProcess)batch[i]).close();
                        }
                    } catch (Throwable e) {
                        failed++;
                    }
                    batch[i] = null;
                }
            }
            stop = true;
            filler.join();
            long zombies = ProcessCounts.zombieChildren();
            for (int i = 0; i < 100 && zombies > 0; i++) {
                System.gc();
                Thread.sleep(50);
                zombies = ProcessCounts.zombieChildren();
            }
            System.out.println("launched " + launched + ", failed " + failed);
            System.out.println("zombies " + zombies);
            try (NativeProcess process = new Launcher("/bin/sh", "-c", "exit 3").start()) {
                System.out.println("launcher works: " + (process.waitFor() == 3));
            }
        }

        private static void fill() {
            List<byte[]> hog = new ArrayList<>(1 << 16);
            while (!stop) {
                try {
                    for (;;) {
                        hog.add(new byte[16 * 1024]);
                    }
                } catch (OutOfMemoryError e) {
                    full = true;
                    try {
                        Thread.sleep(30);
                    } catch (InterruptedException ignored) {
                        return;
                    }
                    hog.clear();
                }
            }
        }
    }

    @Test
    void noErrorLosesAChildAndLauncherStaysUsable() throws Exception {
        String output = ChildJvm.run(false, Map.of(), false, List.of("-Xmx48m"), Launches.class);
        assertTrue(output.contains("zombies 0\n"), output);
        assertTrue(output.contains("launcher works: true\n"), output);
    }
}
