package org.vqxscan;

import java.lang.ref.Cleaner;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;

/**
 * A session with the scan engine: the Java form of a {@code VQXSI_HANDLE}.
 *
 * <pre>
 * try (ScanSession s = ScanSession.open()) {
 *     s.setLights(s.lights().withScanningMode(LightsMode.ILLUMINATION));
 *     s.startScanning();
 *     for (Frame f; (f = s.nextFrame()) != null;) {
 *         try (f) { decode(f.pixels(), f.width(), f.height()); }
 *     }
 *     s.stopScanning();
 * }
 * </pre>
 *
 * Calls on one session are serialised (as in C): a {@link #nextFrame()}
 * waiting in one thread (up to 30 s) delays the session's other calls, but
 * closing a frame never waits. Sessions are independent of each other. A
 * call after {@link #close()} throws {@link IllegalStateException}; a C
 * function's failure throws {@link ScanException} with its errno's name.
 * A session collected without close is closed by its cleaner.
 */
public final class ScanSession implements AutoCloseable {
    /** Gives back frames and closes sessions their clients forgot. */
    static final Cleaner CLEANER = Cleaner.create();

    private final SessionCore core;

    private ScanSession(long handle) {
        core = new SessionCore(handle);
        CLEANER.register(this, core);
    }

    /**
     * Opens a session (the first in the process starts the driver).
     *
     * @throws ScanException when there is no engine: no hardware layer, an
     *         engine type this build does not support, a refused register
     *         table, or an engine that did not open
     */
    public static ScanSession open() {
        long handle = Native.open();
        if (handle == 0)
            throw new ScanException("No scan engine: VQXSI_OpenSessionWithScanEngine returned NULL (no hardware "
                + "layer, an unsupported engine type, a refused register table or an engine that did not open; "
                + "the platform log, tag ScnDrv, says which)", null);
        return new ScanSession(handle);
    }

    /** Starts scanning; starts nest, each needs one {@link #stopScanning()}. */
    public void startScanning() {
        core.enter();
        try {
            ScanException.check(Native.start(core.handle), "VQXSI_StartScanning");
            core.starts++;
        } finally {
            core.leave();
        }
    }

    /**
     * Ends one start; the last one takes back every frame the client holds
     * (unless a single frame's scan lock is held, until close).
     *
     * @throws ScanException when the session was not scanning
     */
    public void stopScanning() {
        core.enter();
        try {
            ScanException.check(Native.stop(core.handle), "VQXSI_StopScanning");
            if (core.starts > 0 && --core.starts == 0 && !core.singleLock)
                core.reclaimAll();
        } finally {
            core.leave();
        }
    }

    /**
     * Waits (up to 30 s) for the next frame.
     *
     * @return the frame, or null when none came: the session is not
     *         scanning, a time-out or stall, a stopped stream, or every
     *         buffer held (see {@code VQXSI_GetNewScan})
     */
    public Frame nextFrame() {
        return take(false);
    }

    /**
     * Takes one frame with a single-image scan ({@code VQXSI_GetSingleFrame}):
     * scanning stays started, so call {@link #stopScanning()}; its extra
     * scan lock is held until close.
     *
     * @return the frame, or null when none came
     */
    public Frame singleFrame() {
        return take(true);
    }

    private Frame take(boolean single) {
        long[] out = new long[Native.FRAME_OUT];
        core.enter();
        try {
            ByteBuffer pixels = Native.nextFrame(core.handle, single, out);
            if (out[Native.ERROR] != 0)
                throw new ScanException(single ? "VQXSI_GetSingleFrame failed" : "VQXSI_GetNewScan failed",
                    ScanException.nameOf((int) out[Native.ERROR]));
            if (single) {
                core.starts++;
                core.singleLock = true;
            }
            if (pixels == null)
                return null;
            FrameAttributes a = new FrameAttributes(out[Native.EXPOSURE], out[Native.GAIN],
                (int) out[Native.WHITE], (int) out[Native.HEIGHT], (int) out[Native.WIDTH],
                out[Native.FRAME_NUMBER], out[Native.DISCARDED] != 0);
            return new Frame(core, out[Native.ADDRESS], pixels, a);
        } finally {
            core.leave();
        }
    }

    /** The session's lights. */
    public Lights lights() {
        int[] record = new int[7];
        record[0] = 28;
        call(h -> Native.getLights(h, record), "VQXSI_GetLights");
        return Lights.fromNative(record);
    }

    /** Sets the session's lights; the engine's follow at once. */
    public void setLights(Lights lights) {
        int[] record = lights.toNative();
        call(h -> Native.setLights(h, record), "VQXSI_SetLights");
    }

    public void setExposureMode(ExposureMode mode) {
        call(h -> Native.setExposureMode(h, mode.code), "VQXSI_SetExposureMode");
    }

    /** Applies the settings in order (a running scan of this session at once). */
    public void setExposureSettings(ExposureSettings settings) {
        int[] pairs = settings.toPairs();
        call(h -> Native.setExposure(h, pairs), "VQXSI_SetExposureSettings");
    }

    /** Reads the given settings, or every tag when none is given. */
    public ExposureSettings exposureSettings(ExposureTag... tags) {
        if (tags.length == 0)
            tags = ExposureTag.values();
        int[] pairs = new int[tags.length * 2];
        for (int i = 0; i < tags.length; i++)
            pairs[2 * i] = tags[i].code;
        call(h -> Native.getExposure(h, pairs), "VQXSI_GetExposureSettings");
        ExposureSettings s = ExposureSettings.of();
        for (int i = 0; i < tags.length; i++)
            s = s.with(tags[i], pairs[2 * i + 1]);
        return s;
    }

    /** The engine's properties (buffer count 0 before the engine first streamed). */
    public EngineProperties properties() {
        int[] v = new int[10];
        byte[] serial = new byte[81];
        call(h -> Native.properties(h, v, serial), "VQXSI_GetScanEnginePropertiesEx");
        int n = 0;
        while (n < serial.length && serial[n] != 0)
            n++;
        return new EngineProperties(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8],
            new String(serial, 0, n, StandardCharsets.ISO_8859_1), v[9]);
    }

    /** Sets the driver's sleep time-out (for every session); 0 never sleeps. */
    public void setSleepTimeoutMs(int milliseconds) {
        call(h -> Native.setSleepTimeout(h, milliseconds), "VQXSI_SetSleepTimeout");
    }

    public int sleepTimeoutMs() {
        int[] ms = new int[1];
        call(h -> Native.getSleepTimeout(h, ms), "VQXSI_GetSleepTimeout");
        return ms[0];
    }

    /** The sleep time-out the driver takes at the next first open. */
    public static void setDefaultSleepTimeoutMs(int milliseconds) {
        ScanException.check(Native.setSleepTimeout(0, milliseconds), "VQXSI_SetSleepTimeout");
    }

    public static int defaultSleepTimeoutMs() {
        int[] ms = new int[1];
        ScanException.check(Native.getSleepTimeout(0, ms), "VQXSI_GetSleepTimeout");
        return ms[0];
    }

    /** The driver's revision, e.g. "2.138". */
    public static String revision() {
        return Native.revision();
    }

    /**
     * Closes the session: a running scan stops and every frame it holds is
     * taken back. Waits for a call in progress in another thread.
     *
     * @throws IllegalStateException when it was closed already
     */
    @Override
    public void close() {
        if (!core.close())
            throw new IllegalStateException("the scan session is closed already");
    }

    /** One native call that reads or sets a value, serialised with the session's other calls. */
    private void call(java.util.function.LongToIntFunction function, String name) {
        int result;
        core.enter();
        try {
            result = function.applyAsInt(core.handle);
        } finally {
            core.leave();
        }
        ScanException.check(result, name);
    }
}
