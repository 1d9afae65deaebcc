package com.zel.statistics.plugin;

import java.io.EOFException;
import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;

/**
 * The host's message block, of which the string list is wanted. Integers are little-endian. The block comes from
 * outside: it is walked to its end, and one that is not well formed is refused as a whole.
 */
final class MessageBlock {
    private static final int INT_BYTES = 4;
    private static final int DOUBLE_BYTES = 8;
    private static final int HEADER_BYTES = 3 * INT_BYTES; // total length, command action, error code
    private static final int EMPTY_BLOCK_BYTES = HEADER_BYTES + 10 * INT_BYTES; // ten counts and lengths of nothing
    private static final int RECORD_NUMBER_BYTES = 3 * INT_BYTES + DOUBLE_BYTES; // between a record's two texts
    private static final int EMPTY_RECORD_BYTES = RECORD_NUMBER_BYTES + 2 * INT_BYTES;

    private final ByteBuffer rest;

    private MessageBlock(ByteBuffer afterLength) {
        rest = afterLength;
    }

    /** Waits for one block and answers its strings, read as UTF-8. Bytes after the block are left in the stream. */
    static String[] receiveStrings(InputStream in) throws IOException {
        int length = receive(in, INT_BYTES).getInt();
        if (length < EMPTY_BLOCK_BYTES) {
            throw new IOException("it announces a length of " + length + " bytes");
        }
        return new MessageBlock(receive(in, length - INT_BYTES)).strings();
    }

    // Memory is taken as bytes arrive, not as they are announced.
    private static ByteBuffer receive(InputStream in, int length) throws IOException {
        byte[] bytes = in.readNBytes(length);
        if (bytes.length < length) {
            throw new EOFException("the connection ended " + (length - bytes.length) + " bytes too early");
        }
        return ByteBuffer.wrap(bytes).order(ByteOrder.LITTLE_ENDIAN);
    }

    private String[] strings() throws IOException {
        skip(2 * INT_BYTES); // command action, error code
        skipValues(INT_BYTES);
        skipValues(DOUBLE_BYTES);
        String[] strings = textList();
        for (int records = count(EMPTY_RECORD_BYTES); records > 0; --records) {
            text();
            skip(RECORD_NUMBER_BYTES);
            text();
        }
        for (int lists = count(INT_BYTES); lists > 0; --lists) {
            skipValues(INT_BYTES);
        }
        for (int lists = count(INT_BYTES); lists > 0; --lists) {
            skipValues(DOUBLE_BYTES);
        }
        for (int lists = count(INT_BYTES); lists > 0; --lists) {
            textList();
        }
        skipValues(1); // binary data
        skipValues(INT_BYTES); // the wide string's characters
        skipValues(1); // void data
        if (rest.hasRemaining()) {
            throw new IOException("it goes on for " + rest.remaining() + " bytes after its last field");
        }
        return strings;
    }

    private String[] textList() throws IOException {
        String[] texts = new String[count(INT_BYTES)];
        for (int i = 0; i < texts.length; ++i) {
            texts[i] = text();
        }
        return texts;
    }

    private String text() throws IOException {
        byte[] bytes = new byte[count(1)];
        rest.get(bytes);
        return new String(bytes, StandardCharsets.UTF_8);
    }

    private void skipValues(int bytesEach) throws IOException {
        skip(count(bytesEach) * bytesEach);
    }

    private void skip(int bytes) throws IOException {
        require(bytes <= rest.remaining());
        rest.position(rest.position() + bytes);
    }

    /** The number of values that follow, each of which takes at least so many bytes of what is left. */
    private int count(int leastBytes) throws IOException {
        require(INT_BYTES <= rest.remaining());
        int count = rest.getInt();
        require(count >= 0 && count <= rest.remaining() / leastBytes);
        return count;
    }

    private void require(boolean wellFormed) throws IOException {
        if (!wellFormed) {
            throw new IOException("it is malformed before byte " + (INT_BYTES + rest.position()));
        }
    }
}
