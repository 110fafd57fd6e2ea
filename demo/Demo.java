import com.norvane.quillon.process.UnixProcessGlue;

/** Adopts this JVM and its parent, and reports whether each is alive. */
public final class Demo {
    private Demo() {}

    public static void main(String[] args) throws Exception {
        UnixProcessGlue glue = UnixProcessGlue.get();
        long self = glue.createSelf();
        System.out.printf("self: pid %s alive %d%n", glue.id(self), glue.ping(self));
        glue.done(self);
        long parent = glue.recreate(Long.toString(ProcessHandle.current().parent().orElseThrow().pid()));
        System.out.printf("parent: pid %s alive %d%n", glue.id(parent), glue.ping(parent));
        glue.done(parent);
    }
}
