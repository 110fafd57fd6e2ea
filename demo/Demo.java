import com.norvane.quillon.Launcher;
import com.norvane.quillon.NativeProcess;
import com.norvane.quillon.ProcessResult;
import com.norvane.quillon.process.UnixProcessGlue;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.util.concurrent.TimeUnit;

/** The library at work: launch real programs with a full context, supervise them, read how they ended. */
public final class Demo {
    private Demo() {}

    private static String output(NativeProcess process) throws IOException {
        return new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
    }

    /** Whether a process runs: it exists and is no zombie waiting for its parent to collect it. */
    private static boolean running(ProcessHandle process) {
        try {
            String stat = java.nio.file.Files.readString(java.nio.file.Path.of("/proc/" + process.pid() + "/stat"));
            return stat.charAt(stat.lastIndexOf(')') + 2) != 'Z';
        } catch (IOException gone) {
            return false;
        }
    }

    public static void main(String[] args) throws Exception {
        // Output capture: stdout and stderr through one pipe, PATH put in front of the inherited one, nice 5,
        // umask 027, a working directory.
        try (NativeProcess hello = new Launcher("/bin/sh", "-c", "echo \"hello from $$ in $(pwd): nice $(cut -d' ' "
                + "-f19 /proc/$$/stat), umask $(umask), PATH starts ${PATH%%:*}\"; echo to stderr >&2; exit 3")
                .directory(new java.io.File("/tmp")).addEnvironment("PATH", "/opt/demo/bin").nice(5).umask(027)
                .redirectErrorStream(true).start()) {
            System.out.print(output(hello));
            System.out.printf("pid %d exited with %d%n", hello.pid(), hello.waitFor());
        }

        // A time limit: wait a second, then SIGTERM, and SIGKILL if it is still running two seconds later.
        try (NativeProcess sleeper = new Launcher("sleep", "60").start()) {
            boolean ended = sleeper.waitFor(1, TimeUnit.SECONDS);
            System.out.printf("sleeper ended within a second: %b; stopped with exit value %d (signal %d)%n", ended,
                    sleeper.stop(Duration.ofSeconds(2)), sleeper.exitSignal());
        }

        // Another user, which needs root.
        if (UnixProcessGlue.get().isUserPrivileged()) {
            try (NativeProcess nobody = new Launcher("id").user("nobody").group("nogroup").start()) {
                System.out.printf("as another user: %s", output(nobody));
                nobody.waitFor();
            }
        } else {
            System.out.println("not root: no run as another user");
        }

        // Detached: no child of this JVM; it would outlive it. Its exit status can't be known.
        try (NativeProcess detached = new Launcher("sleep", "1").detached(true).start()) {
            long pid = detached.pid();
            System.out.printf("detached pid %d alive %b, child of this JVM: %b%n", pid, detached.isAlive(),
                    ProcessHandle.current().children().anyMatch(p -> p.pid() == pid));
            System.out.printf("detached ended: %b, exit status known: %b%n", detached.onExit().get(10, TimeUnit.SECONDS)
                    .waitFor(0, TimeUnit.SECONDS), detached.exitStatusKnown());
        }

        // Run and capture in one call, with a time limit; a pipeline joined by kernel pipes.
        ProcessResult listing = new Launcher("ls", "/").run(Duration.ofSeconds(10));
        System.out.printf("run: ls / gave %d lines in %d ms, exit value %d%n", listing.stdout().lines().count(),
                listing.elapsed().toMillis(), listing.exitValue());
        java.util.List<NativeProcess> stages = Launcher.startPipeline(java.util.List.of(
                new Launcher("seq", "1", "100000"), new Launcher("grep", "7"), new Launcher("wc", "-l")));
        System.out.printf("pipeline: seq 1 100000 | grep 7 | wc -l = %s", output(stages.get(2)));
        stages.forEach(NativeProcess::close);

        // A contained tree with a memory limit, killed whole at its time limit: a job that forks a helper and
        // keeps allocating; the group ends every member, and the run returns at the limit.
        ProcessResult job = new Launcher("/bin/sh", "-c", "sleep 60 & x=$(head -c 16777216 /dev/zero | tr '\\0' a); "
                + "echo allocated ${#x} bytes; sleep 60").contained().memoryLimit(64 << 20).run(Duration.ofSeconds(1));
        System.out.printf("contained job: %s, timed out %b, killed by signal %d after %d ms%n", job.stdout().strip(),
                job.timedOut(), job.exitSignal(), job.elapsed().toMillis());

        // A tree of three generations, one of which left the process group, killed at once (without containment,
        // by a walk of the tree while its root runs).
        try (NativeProcess tree = new Launcher("/bin/sh", "-c", "sh -c 'setsid sleep 60 & sleep 60' & sleep 60")
                .newProcessGroup().start()) {
            Thread.sleep(300);
            java.util.List<ProcessHandle> below = tree.descendants().toList();
            tree.killTree();
            tree.waitFor();
            Thread.sleep(100);
            System.out.printf("tree: %d processes below the root; killed: root ended by signal %d, %d of them still "
                    + "alive%n", below.size(), tree.exitSignal(), below.stream().filter(Demo::running).count());
        }

        // A failed launch arrives as an IOException whose cause is the library's exception for it.
        try {
            new Launcher("/no/such/program").start();
        } catch (IOException e) {
            System.out.printf("failed launch: %s%n  cause %s%n", e.getMessage(), e.getCause().getClass().getSimpleName());
        }

        // This JVM itself, and the original glue beneath the API.
        try (NativeProcess self = NativeProcess.self()) {
            System.out.printf("this JVM: pid %d alive %b, user %s%n", self.pid(), self.isAlive(),
                    UnixProcessGlue.get().getCurrentProcessUser());
        }
    }
}
