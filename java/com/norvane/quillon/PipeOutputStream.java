package com.norvane.quillon;

import com.norvane.quillon.process.NativeProcessGlue;
import java.io.IOException;
import java.io.OutputStream;
import java.lang.ref.Reference;
import java.util.Objects;

/** Writes the JVM's end of a pipe to a launched program's stdin; closing it gives the program end of file. */
final class PipeOutputStream extends OutputStream {
    private static final NativeProcessGlue GLUE = NativeProcessGlue.get();

    private final Descriptor descriptor;

    PipeOutputStream(int fd) {
        descriptor = Descriptor.ownedBy(this, fd);
    }

    @Override
    public void write(int b) throws IOException {
        write(new byte[] {(byte) b}, 0, 1);
    }

    @Override
    public void write(byte[] buffer, int offset, int length) throws IOException {
        Objects.checkFromIndexSize(offset, length, buffer.length);
        int fd = descriptor.acquire();
        try {
            GLUE.write(fd, buffer, offset, length);
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
