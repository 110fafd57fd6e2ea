package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.norvane.quillon.process.exception.InvalidGroupException;
import com.norvane.quillon.process.exception.InvalidUsernameException;
import com.norvane.quillon.process.exception.ProcessOpException;
import java.util.Map;
import org.junit.jupiter.api.Test;

class IdentityTest {
    private final UnixProcessGlue glue = UnixProcessGlue.get();

    @Test
    void rootIsRootWithItsHome() throws Exception {
        assumeTrue(ChildJvm.isRoot(), "runs as root");
        assertEquals("root root /root true", glue.getCurrentProcessUser() + " " + glue.getCurrentProcessGroup() + " "
                + glue.getCurrentProcessUserOSHomeDir() + " " + glue.isUserPrivileged());
    }

    @Test
    void nobodyIsNobodyAndMayNotBecomeRootAndTheRefusalsAreTraced() throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to start a JVM as nobody");
        String output = ChildJvm.run(true, Probe.class, "whoami", "setuser", "root", "setgroup", "root");
        assertEquals(String.join("\n", "nobody nogroup /nonexistent false",
                "AccessDeniedException: The operating system would not allow assignment of the process to user: "
                        + "[root].  Access Denied.\n 001: Operation not permitted",
                "AccessDeniedException: The operating system would not allow assignment of the process to group: "
                        + "[root].  Access Denied.\n 001: Operation not permitted", ""),
                ChildJvm.withoutTrace(output));
        for (String what : new String[] {"user", "group"}) { // error lines show whatever the trace switches
            assertTrue(output.contains("Failed to set the process current effective " + what + " to [root].  Result "
                    + "was: ["), output);
        }
    }

    @Test
    void aRealChangeOfIdentityHappensInAChildJvmAndItsTraceSaysSo() throws Exception {
        assumeTrue(ChildJvm.isRoot(), "needs root to change identity");
        String output = ChildJvm.run(false, Map.of("__JNI_PROCESS_DEBUG", ""), false, Probe.class, "setgroup",
                "nogroup", "setuser", "nobody");
        assertEquals("group now nogroup\nuser now nobody\n", ChildJvm.withoutTrace(output));
        assertTrue(output.contains("setgid successful, gid=[65534] egid=[65534]\n"), output);
        assertTrue(output.contains("setuid successful, uid=[65534] euid=[65534]\n"), output);
    }

    @Test
    void unknownNamesAreInvalidWithTheirOwnTexts() {
        assertEquals("The operating system would not allow assignment of the process to user: [no-such-user].  "
                + "The user does not exist in the OS group registry\n",
                assertThrows(InvalidUsernameException.class, () -> glue.setCurrentProcessUser("no-such-user"))
                        .getMessage());
        assertEquals("The operating system would not allow assignment of the process to group: [no-such-group].  "
                + "The group does not exist in the OS group registry\n",
                assertThrows(InvalidGroupException.class, () -> glue.setCurrentProcessGroup("no-such-group"))
                        .getMessage());
    }

    @Test
    void nullNamesAreAGeneralFailure() {
        ProcessOpException user = assertThrows(ProcessOpException.class, () -> glue.setCurrentProcessUser(null));
        assertEquals(ProcessOpException.class, user.getClass());
        assertEquals("A NULL java string was passed in for user name.  This is invalid.", user.getMessage());
        ProcessOpException group = assertThrows(ProcessOpException.class, () -> glue.setCurrentProcessGroup(null));
        assertEquals("A NULL java string was passed in for group name.  This is invalid.", group.getMessage());
    }
}
