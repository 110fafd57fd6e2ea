package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import java.io.IOException;
import java.io.InputStream;
import java.lang.ref.Reference;
import java.util.Objects;

/** Reads the JVM's end of a pipe from a launched program's stdout or stderr. */
final class PipeInputStream extends InputStream {
    private static final NativeProcessGlue GLUE = NativeProcessGlue.get();

    private final Descriptor descriptor;

    PipeInputStream(int fd) {
        descriptor = Descriptor.ownedBy(this, fd);
    }

    @Override
    public int read() throws IOException {
        byte[] one = new byte[1];
        return read(one, 0, 1) < 0 ? -1 : one[0] & 0xff;
    }

    @Override
    public int read(byte[] buffer, int offset, int length) throws IOException {
        Objects.checkFromIndexSize(offset, length, buffer.length);
        if (length == 0) {
            return 0;
        }
        int fd = descriptor.acquire();
        try {
            return GLUE.read(fd, buffer, offset, length);
        } finally {
            descriptor.release();
            Reference.reachabilityFence(this);
        }
    }

    @Override
    public int available() throws IOException {
        int fd = descriptor.acquire();
        try {
            return GLUE.available(fd);
        } finally {
            descriptor.release();
            Reference.reachabilityFence(this);
        }
    }

    @Override
    public void close() throws IOException {
        descriptor.closeForOwner();
    }
}
