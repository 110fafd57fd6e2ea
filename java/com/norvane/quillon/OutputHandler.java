package com.norvane.quillon;

import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharsetDecoder;
import java.nio.charset.CoderResult;
import java.nio.charset.CodingErrorAction;
import java.nio.charset.StandardCharsets;
import java.util.Objects;
import java.util.function.Consumer;

/**
 * Receives what a program writes to stdout or stderr as it arrives, without a thread of its own: the library
 * reads the pipes of all programs from one event thread and calls handlers from a small pool (see
 * {@link Launcher#onOutput}).
 *
 * <p>The calls for one process come in order and never overlap, stdout's and stderr's together. While a call
 * runs, the library reads no more of that process's pipes (the program blocks once a pipe is full), so a slow
 * handler holds up its own program, but never another process's handlers, and nothing is lost. A handler
 * that throws is reported to the {@link System.Logger} "com.norvane.quillon", and that process gets no more
 * calls; its output is read on and dropped, so that it never blocks on a full pipe.
 */
@FunctionalInterface
public interface OutputHandler {
    /**
     * Called with each piece of output, in order.
     *
     * @param chunk the bytes, valid only during the call (copy what you keep)
     * @throws Exception to stop the deliveries to this process
     */
    void onOutput(ByteBuffer chunk) throws Exception;

    /**
     * Called once after the last chunk, when the pipe has reached its end.
     *
     * @throws Exception reported as by {@link #onOutput}
     */
    default void onEnd() throws Exception {}

    /**
     * A handler that hands each line of UTF-8 text to {@code consumer}, without its line terminator ("\n" or
     * "\r\n"). Lines may span chunks, and a character's bytes may too; a last line without a terminator is
     * handed over at the end. Malformed bytes become U+FFFD.
     *
     * @param consumer receives each line, in order
     * @return the handler
     */
    static OutputHandler lines(Consumer<String> consumer) {
        Objects.requireNonNull(consumer, "consumer");
        return new OutputHandler() {
            private final CharsetDecoder decoder = StandardCharsets.UTF_8.newDecoder()
                    .onMalformedInput(CodingErrorAction.REPLACE).onUnmappableCharacter(CodingErrorAction.REPLACE);
            private final StringBuilder line = new StringBuilder();
            private ByteBuffer leftover = ByteBuffer.allocate(0);
            private final CharBuffer chars = CharBuffer.allocate(8192);

            @Override
            public void onOutput(ByteBuffer chunk) {
                ByteBuffer input = leftover.hasRemaining()
                        ? ByteBuffer.allocate(leftover.remaining() + chunk.remaining()).put(leftover).put(chunk).flip()
                        : chunk;
                decode(input, false);
                leftover = input.hasRemaining() ? ByteBuffer.allocate(input.remaining()).put(input).flip()
                        : ByteBuffer.allocate(0);
            }

            @Override
            public void onEnd() {
                decode(leftover, true);
                decoder.flush(chars);
                split();
                if (line.length() > 0) {
                    consumer.accept(line.toString());
                    line.setLength(0);
                }
            }

            private void decode(ByteBuffer input, boolean end) {
                for (;;) {
                    CoderResult result = decoder.decode(input, chars, end);
                    split();
                    if (!result.isOverflow()) {
                        return;
                    }
                }
            }

            /** Takes the decoded characters into lines. */
            private void split() {
                chars.flip();
                while (chars.hasRemaining()) {
                    char c = chars.get();
                    if (c == '\n') {
                        int length = line.length();
                        if (length > 0 && line.charAt(length - 1) == '\r') {
                            line.setLength(length - 1);
                        }
                        consumer.accept(line.toString());
                        line.setLength(0);
                    } else {
                        line.append(c);
                    }
                }
                chars.clear();
            }
        };
    }
}
