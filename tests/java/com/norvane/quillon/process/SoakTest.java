package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.norvane.quillon.soak.Soak;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;

/** Thousands of mixed operations from 8 threads leave nothing behind, with and without faults injected. */
@Tag("soak")
class SoakTest {
    // The classes a fault may give: no descriptor, or no process left to this user.
    private static final List<String> REFUSALS = List.of("refused: OutOfFileHandlesException",
            "refused: ProcessOpException: Error creating new process. 024", "refused: OutOfMemoryException");

    @ParameterizedTest
    @EnumSource(value = Soak.Faults.class, names = {"NONE", "QUICK"})
    void leavesDescriptorsThreadsZombiesAndMemoryWhereTheyWere(Soak.Faults faults) throws Exception {
        for (Soak.Report report : Soak.drive(1500, faults)) {
            assertEquals(List.of(), report.problems, report.toString());
            for (String count : List.of("descriptors", "threads", "zombies")) {
                assertEquals(report.before.get(count), report.after.get(count), count + "\n" + report);
            }
            assertTrue(Math.abs(report.after.get("rss kB") - report.before.get("rss kB")) < 8192, report.toString());
            assertTrue(report.outcomes.getOrDefault("attached", 0L) > 0, report.toString());
            for (Map.Entry<String, Long> outcome : report.outcomes.entrySet()) {
                String kind = outcome.getKey();
                if (kind.startsWith("refused") || kind.startsWith("release refused")) {
                    assertFalse(faults == Soak.Faults.NONE, report.toString());
                    assertTrue(REFUSALS.stream().anyMatch(kind::startsWith) || kind.startsWith("release refused"),
                            kind + "\n" + report);
                }
            }
            if (faults != Soak.Faults.NONE) {
                assertTrue(report.outcomes.keySet().stream().anyMatch(k -> k.startsWith("refused")),
                        "the fault took effect: " + report);
            }
        }
    }
}
