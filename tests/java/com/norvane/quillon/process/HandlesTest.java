package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.norvane.quillon.process.exception.ProcessHasExitedException;
import com.norvane.quillon.process.exception.ProcessOpException;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

class HandlesTest {
    private final UnixProcessGlue glue = UnixProcessGlue.get();

    @Test
    void selfIsAdoptedAliveUnderItsPid() throws Exception {
        long self = glue.createSelf();
        assertEquals(Long.toString(ProcessHandle.current().pid()), glue.id(self));
        assertEquals(1, glue.ping(self));
        glue.done(self);
    }

    // A child of this JVM that the JDK's own reaper does not collect: one the library launched.
    @Test
    void aLiveChildIsFollowedUntilItEndsAndItsExitCodeIsSeen() throws Exception {
        long launched = glue.create("/bin/sh", new String[] {"-c", "sleep 2; exit 4"}, null, null, 20, null, 0,
                null, null, 0, null, true, false);
        long adopted = glue.recreate(glue.id(launched));
        assertEquals(1, glue.ping(adopted));
        glue.waitForTermination(adopted);
        assertEquals(0, glue.ping(adopted));
        assertEquals(4, glue.getExitCode(adopted));
        glue.done(adopted);
        glue.done(launched);
    }

    @Test
    void aVanishedPidHasExited() throws Exception {
        Process child = new ProcessBuilder("true").start();
        child.waitFor();
        ProcessOpException e = assertThrows(ProcessHasExitedException.class,
                () -> glue.recreate(Long.toString(child.pid())));
        assertEquals("Error recreating process object. ", e.getMessage());
    }

    @ParameterizedTest
    @ValueSource(strings = {"0", "-1", "abc", "", " 0"})
    void pidTextsThatWouldNameAProcessGroupAreRefused(String text) {
        ProcessOpException e = assertThrows(ProcessOpException.class, () -> glue.recreate(text));
        assertEquals(ProcessOpException.class, e.getClass());
        assertEquals("Error recreating process object.  022: Invalid argument", e.getMessage());
    }

    @Test
    void aNullPidTextIsAGeneralFailure() {
        ProcessOpException e = assertThrows(ProcessOpException.class, () -> glue.recreate(null));
        assertEquals("Error recreating process object. ", e.getMessage());
    }

    @Test
    void anotherUsersProcessCannotBeAdopted() throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to start a JVM as nobody");
        String out = ChildJvm.run(true, Probe.class, "adopt", "1");
        assertEquals("ProcessOpException: Error recreating process object.  001: Operation not permitted\n", out);
    }
}
