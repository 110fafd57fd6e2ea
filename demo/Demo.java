import com.norvane.quillon.process.UnixProcessGlue;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.nio.file.Files;
import java.nio.file.Path;

/** The library's main job: launch real programs with a full context, supervise them, read how they ended. */
public final class Demo {
    private Demo() {}

    public static void main(String[] args) throws Exception {
        UnixProcessGlue glue = UnixProcessGlue.get();
        Path dir = Files.createTempDirectory("quillon-demo");
        Path out = dir.resolve("out.log");

        // Attached: arguments, an added variable, PATH put in front, a working directory, nice 5, umask 027,
        // stdout and stderr to a file, stdin on /dev/null.
        long attached = glue.create("/bin/sh",
                new String[] {"-c", "echo \"hello from $$ in $(pwd), GREETING=$GREETING, nice $(cut -d' ' -f19 "
                        + "/proc/$$/stat), umask $(umask)\"; echo \"PATH starts ${PATH%%:*}\"; exit 3"},
                new String[] {"GREETING=hi", "PATH=/opt/demo/bin"}, dir.toString(), 25,
                new String[] {null, "!out.log", "out.log"}, 027, null, null, 0, null, false, false);
        System.out.printf("attached pid %s alive %d%n", glue.id(attached), glue.ping(attached));
        glue.waitForTermination(attached);
        System.out.printf("attached exited with %d; its output:%n%s", glue.getExitCode(attached),
                Files.readString(out));
        glue.done(attached);

        // Killed: a long sleeper, stopped by a signal.
        long sleeper = glue.create("/bin/sleep", new String[] {"60"}, null, null, 20, null, 022, null, null, 0, null,
                true, false);
        glue.kill(sleeper);
        glue.waitForTermination(sleeper);
        System.out.printf("sleeper %s ended by signal %d%n", glue.id(sleeper), glue.getExitCode(sleeper));
        glue.done(sleeper);

        // Detached: not a child of this JVM; watched through its PID until it ends.
        long detached = glue.create("/bin/sleep", new String[] {"1"}, null, null, 20, null, 022, null, null, 0, null,
                true, true);
        long pid = Long.parseLong(glue.id(detached));
        System.out.printf("detached pid %d alive %d, child of this JVM: %b%n", pid, glue.ping(detached),
                ProcessHandle.current().children().anyMatch(p -> p.pid() == pid));
        glue.waitForTerminationWithTimeout(detached, 10);
        System.out.printf("detached ended, alive %d%n", glue.ping(detached));
        glue.done(detached);

        // A failed launch arrives as its own exception class with the system's error.
        try {
            glue.create("/no/such/program", null, null, null, 20, null, 022, null, null, 0, null, true, false);
        } catch (ProcessOpException e) {
            System.out.printf("failed launch: %s: %s%n", e.getClass().getSimpleName(), e.getMessage());
        }

        // Adoption of a process the library did not start: this JVM itself.
        long self = glue.createSelf();
        System.out.printf("this JVM: pid %s alive %d, user %s%n", glue.id(self), glue.ping(self),
                glue.getCurrentProcessUser());
        glue.done(self);

        Files.delete(out);
        Files.delete(dir);
    }
}
