package org.vqxscan;

import java.lang.ref.Cleaner;
import java.nio.ByteBuffer;

/**
 * A frame the client holds: {@link #height()} x {@link #width()} bytes of
 * 8-bit grey, rows top to bottom, in the driver's own buffer (no copy).
 * Close it to give the buffer back; a frame collected unclosed is given back
 * by its cleaner. After close, or when the driver took the frame back (the
 * session's last {@code stopScanning}, or its close), every method but
 * {@code close} throws {@link IllegalStateException}.
 *
 * Not thread-safe: one thread at a time uses a frame.
 */
public final class Frame implements AutoCloseable {
    private final FrameState state;
    private final ByteBuffer pixels;
    private final FrameAttributes attributes;
    private final Cleaner.Cleanable cleanable;

    Frame(SessionCore core, long address, ByteBuffer pixels, FrameAttributes attributes) {
        this.state = new FrameState();
        this.pixels = pixels.asReadOnlyBuffer();
        this.attributes = attributes;
        core.delivered(address, state);
        final FrameState s = state;  // the action holds no frame
        this.cleanable = ScanSession.CLEANER.register(this, () -> core.giveBack(address, s));
    }

    /**
     * The pixels: a read-only direct buffer over the driver's frame buffer,
     * positioned at 0. Valid until the frame is closed or taken back: the
     * driver then captures into that memory again, so a buffer kept past
     * close reads later frames' pixels. Read through the frame's own
     * methods to be told.
     */
    public ByteBuffer pixels() {
        state.check();
        return pixels.duplicate();
    }

    /** The pixel at {@code index} (row x width + column), 0-255. */
    public int get(int index) {
        state.check();
        return pixels.get(index) & 0xFF;
    }

    /** Copies {@code length} pixels from {@code index} into {@code destination} at {@code offset}. */
    public void get(int index, byte[] destination, int offset, int length) {
        state.check();
        ByteBuffer view = pixels.duplicate();
        view.position(index);
        view.get(destination, offset, length);
    }

    /** Exposure, gain, white value and frame number the driver recorded for this frame. */
    public FrameAttributes attributes() {
        state.check();
        return attributes;
    }

    public int width() {
        state.check();
        return attributes.width();
    }

    public int height() {
        state.check();
        return attributes.height();
    }

    /**
     * Gives the frame back to the driver. Throws when the frame is closed
     * already; a frame the driver took back closes quietly.
     */
    @Override
    public void close() {
        if (state.status.compareAndSet(FrameState.HELD, FrameState.CLOSED)
            || state.status.compareAndSet(FrameState.RECLAIMED, FrameState.CLOSED))
            cleanable.clean();
        else
            throw new IllegalStateException("the frame is closed already");
    }
}
