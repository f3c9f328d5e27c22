package org.vqxscan.test;

import java.nio.ByteBuffer;

/** What the simulated sensor really used for a frame: rows, gain (x), sensor frame number. */
final class SimTruth {
    static {
        System.load(System.getProperty("vqxscan.test.truth"));
    }

    static native boolean frameInfo(ByteBuffer pixels, double[] out);

    static double[] of(ByteBuffer pixels) {
        double[] out = new double[3];
        if (!frameInfo(pixels, out))
            throw new AssertionError("the simulator does not know the frame");
        return out;
    }
}
