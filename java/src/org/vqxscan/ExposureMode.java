package org.vqxscan;

/** The exposure modes of {@code VQXSI_SetExposureMode}. */
public enum ExposureMode {
    FIXED(0), FIXED_1(1),
    /** Histogram auto exposure, the session default. */
    HISTOGRAM(2),
    CONTEXT_SENSITIVE(3);

    /** The C value. */
    public final int code;

    ExposureMode(int code) {
        this.code = code;
    }
}
