package org.vqxscan;

/** The lights modes of {@code VQX_LIGHTS_MODE}. */
public enum LightsMode {
    OFF(0), AIMER(1), ILLUMINATION(2), AIMER_ILLUMINATION(3), AIMER_ILLUMINATION_4(4),
    /** The session default while scanning. */
    AIMER_ILLUMINATION_5(5), NONE_6(6), ILLUMINATION_7(7), AIMER_8(8);

    /** The C value. */
    public final int code;

    LightsMode(int code) {
        this.code = code;
    }

    /** The mode of a C value; any other value switches all lights off, as {@link #OFF}. */
    public static LightsMode of(int code) {
        return code >= 0 && code < values().length ? values()[code] : OFF;
    }
}
