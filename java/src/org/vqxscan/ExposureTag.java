package org.vqxscan;

/** Every tag of {@code VQX_EXPOSURE_TAG}, its unit in its name where it has one. */
public enum ExposureTag {
    /** Sampling pattern: 0 uniform, 1 centre, 2 and more centre-weighted. */
    EXPOSURE_METHOD(0),
    /** Wanted white value, 0-255. */
    TARGET_VALUE(1),
    TARGET_PERCENTILE(2),
    TARGET_ACCEPT_GAP(3),
    MAX_EXPOSURE_127US(4),
    MAX_GAIN_STEPS(5),
    FRAME_RATE_FPS(8),
    CONFORM_IMAGE(9),
    CONFORM_TRIES(10),
    SPECULAR_EXCLUSION(11),
    SPECULAR_SAT(12),
    SPECULAR_LIMIT(13),
    FIXED_EXPOSURE_127US(14),
    FIXED_GAIN_STEPS(15),
    /** The same setting as {@link #FRAME_RATE_FPS}. */
    FIXED_FRAME_RATE_FPS(16),
    ADJUST_EXPOSURE_WHEN_ILLUMINATION_OFF(17),
    /** Accepted and ignored; reads 0. */
    DECODE_PARAMETER(18),
    /** Accepted and ignored; reads 0. */
    FAST_START(19),
    MAX_EXPOSURE_US(20),
    MAX_GAIN_256THS(21),
    FIXED_EXPOSURE_US(22),
    FIXED_GAIN_256THS(23);

    /** The C tag. */
    public final int code;

    ExposureTag(int code) {
        this.code = code;
    }
}
