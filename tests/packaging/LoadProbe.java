import java.lang.reflect.Method;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.TreeSet;
import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/**
 * Runs /bin/sh -c "exit 3" through the library while another thread first touches another glue class,
 * then prints the exit code and every library file mapped into this JVM. With "loaders JAR", two more
 * class loaders over JAR do the same at the same moment.
 */
public final class LoadProbe {
    private static final String PACKAGE = "com.norvane.quillon.process.";

    public static void main(String[] args) throws Exception {
        List<ClassLoader> loaders = new ArrayList<>(List.of(LoadProbe.class.getClassLoader()));
        if (args.length == 2 && args[0].equals("loaders")) {
            URL jar = Path.of(args[1]).toUri().toURL();
            for (int i = 0; i < 2; i++) {
                loaders.add(new URLClassLoader(new URL[] {jar}, ClassLoader.getPlatformClassLoader()));
            }
        }
        ExecutorService pool = Executors.newFixedThreadPool(2 * loaders.size());
        CyclicBarrier start = new CyclicBarrier(2 * loaders.size());
        List<Future<String>> results = new ArrayList<>();
        for (ClassLoader loader : loaders) {
            results.add(pool.submit(() -> {
                start.await();
                return "exit code " + exitThree(loader);
            }));
            results.add(pool.submit(() -> {
                start.await();
                Class<?> util = Class.forName(PACKAGE + "linuxutil.ThreadUtil", true, loader);
                return "posix threads " + util.getMethod("isPOSIXThreading").invoke(util.getMethod("get").invoke(null));
            }));
        }
        try {
            for (Future<String> result : results) {
                System.out.println(result.get());
            }
        } finally {
            pool.shutdownNow();
        }
        TreeSet<String> libraries = new TreeSet<>();
        for (String line : Files.readAllLines(Path.of("/proc/self/maps"))) {
            if (line.contains("libQuillon60ProcessManagement")) {
                libraries.add(line.substring(line.indexOf('/')));
            }
        }
        libraries.forEach(library -> System.out.println("library " + library));
    }

    private static int exitThree(ClassLoader loader) throws Exception {
        Class<?> glueClass = Class.forName(PACKAGE + "UnixProcessGlue", true, loader);
        Object glue = glueClass.getMethod("get").invoke(null);
        Method create = glueClass.getMethod("create", String.class, String[].class, String[].class, String.class,
                int.class, String[].class, long.class, String.class, String.class, int.class, String.class,
                boolean.class, boolean.class);
        long handle = (long) create.invoke(glue, "/bin/sh", new String[] {"-c", "exit 3"}, null, null, 20, null,
                022L, null, null, 0, null, true, false);
        glueClass.getMethod("waitForTermination", long.class).invoke(glue, handle);
        int code = (int) glueClass.getMethod("getExitCode", long.class).invoke(glue, handle);
        glueClass.getMethod("done", long.class).invoke(glue, handle);
        return code;
    }
}
