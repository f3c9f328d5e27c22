package org.vqxscan;

import java.nio.ByteBuffer;

/**
 * The JNI library's functions: each calls one C function (or two, for a
 * frame and its attributes). Results: 1 success, 0 failure, -errno failure
 * with errno set. Only {@link ScanSession} and {@link Frame} call them.
 */
final class Native {
    static {
        String path = System.getProperty("org.vqxscan.library");
        if (path != null)
            System.load(path);
        else
            System.loadLibrary("vqxscan_jni");
    }

    private Native() {
    }

    /** Slots of a frame's out array. */
    static final int ADDRESS = 0, ERROR = 1, EXPOSURE = 2, GAIN = 3, WHITE = 4, HEIGHT = 5, WIDTH = 6,
            FRAME_NUMBER = 7, DISCARDED = 8, FRAME_OUT = 9;

    static native long open();

    static native void close(long handle);

    static native int start(long handle);

    static native int stop(long handle);

    /** The next (or single) frame over the driver's buffer, or null; fills out (slots above). */
    static native ByteBuffer nextFrame(long handle, boolean single, long[] out);

    static native int unlock(long handle, long address);

    static native int setExposureMode(long handle, int mode);

    /** record: the seven words of VQX_SCANNER_LIGHTING. */
    static native int setLights(long handle, int[] record);

    static native int getLights(long handle, int[] record);

    static native int setExposure(long handle, int[] pairs);

    static native int getExposure(long handle, int[] pairs);

    /** out: engine id class, height, width, depth, aimer x, aimer y, buffers, PSoC low, high, engine id. */
    static native int properties(long handle, int[] out, byte[] serial);

    /** handle 0: the default of the next first open. */
    static native int setSleepTimeout(long handle, int milliseconds);

    static native int getSleepTimeout(long handle, int[] milliseconds);

    static native String revision();
}
