package com.norvane.quillon.process;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.util.Arrays;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** The descriptor natives of the public API on a real pipe: every byte once, in order, where asked. */
class PipeNativesTest {
    private static final NativeProcessGlue GLUE = NativeProcessGlue.get();
    private static final byte UNTOUCHED = 0x5a;

    /** Bytes whose value depends on where they stand, so that a byte read twice or out of place shows. */
    private static byte[] pattern(int size) {
        byte[] bytes = new byte[size];
        for (int i = 0; i < size; i++) {
            bytes[i] = (byte)(i * 31 + i / 251);
        }
        return bytes;
    }

    @Test
    void aPipeNeedsRoomForBothEnds() {
        for (int[] ends : new int[][] {null, new int[0], new int[1]}) {
            assertThrows(IllegalArgumentException.class, () -> GLUE.pipe(ends));
        }
    }

    @ParameterizedTest(name = "reads of up to {0} bytes at offset {1}")
    @CsvSource({"1, 0", "100, 3", "8192, 0", "8193, 5", "3145728, 7"})
    void readsGiveEveryByteOnceInOrderThenEndOfFile(int length, int offset) throws Exception {
        int size = (3 << 20) + 13; // more than one transfer of the native (1 MiB) and than a pipe holds
        byte[] sent = pattern(size);
        int[] ends = new int[2];
        GLUE.pipe(ends);
        Thread writer = new Thread(() -> {
            try {
                GLUE.write(ends[1], sent, 0, size);
                GLUE.close(ends[1]);
            } catch (IOException e) {
                throw new UncheckedIOException(e);
            }
        });
        writer.start();
        byte[] received = new byte[size];
        byte[] buffer = new byte[offset + length + 3];
        int at = 0;
        try {
            for (;;) {
                Arrays.fill(buffer, UNTOUCHED);
                int got = GLUE.read(ends[0], buffer, offset, length);
                if (got == -1) {
                    break;
                }
                assertTrue(got > 0 && got <= length && at + got <= size, "read " + got + " at " + at);
                for (int i = 0; i < buffer.length; i++) {
                    if (i < offset || i >= offset + got) {
                        assertEquals(UNTOUCHED, buffer[i], "byte " + i + " outside the read was written");
                    }
                }
                System.arraycopy(buffer, offset, received, at, got);
                at += got;
            }
            assertEquals(size, at);
            assertArrayEquals(sent, received);
            assertEquals(-1, GLUE.read(ends[0], buffer, offset, length), "end of file stays");
        } finally {
            GLUE.close(ends[0]);
            writer.join();
        }
    }
}
