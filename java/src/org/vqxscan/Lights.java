package org.vqxscan;

/**
 * A session's lights ({@code VQX_SCANNER_LIGHTING}).
 *
 * @param scanningMode lights while scanning (default {@link LightsMode#AIMER_ILLUMINATION_5})
 * @param idleMode     lights while not scanning (default OFF; anything else keeps the engine awake)
 * @param reserved     stored and handed on
 * @param levelA       stored and handed on to the engine (default 100)
 * @param levelB       illumination configuration for the engine (default 100)
 * @param boost        asks for the illumination boost
 */
public record Lights(LightsMode scanningMode, LightsMode idleMode, int reserved, int levelA, int levelB,
                     boolean boost) {
    /** The same lights with another scanning mode. */
    public Lights withScanningMode(LightsMode mode) {
        return new Lights(mode, idleMode, reserved, levelA, levelB, boost);
    }

    /** The same lights with another idle mode. */
    public Lights withIdleMode(LightsMode mode) {
        return new Lights(scanningMode, mode, reserved, levelA, levelB, boost);
    }

    int[] toNative() {
        return new int[] {28, scanningMode.code, idleMode.code, reserved, levelA, levelB, boost ? 1 : 0};
    }

    static Lights fromNative(int[] r) {
        return new Lights(LightsMode.of(r[1]), LightsMode.of(r[2]), r[3], r[4], r[5], r[6] != 0);
    }
}
