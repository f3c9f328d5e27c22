package org.vqxscan;

/**
 * What the driver recorded for a frame ({@code VQX_IMAGE_ATTRIBUTES}), read
 * through the session's image attributes when the frame was handed over.
 *
 * @param exposure    exposure the frame was taken with, engine units (rows on
 *                    the AR0144, microseconds on the Rilo)
 * @param gain        gain the frame was taken with, engine units (1/256 on the AR0144)
 * @param whiteValue  measured white value, 0-255
 * @param frameNumber running frame number (low 32 bits, unsigned)
 * @param discarded   the frame missed the exposure target and was held back for another try
 */
public record FrameAttributes(long exposure, long gain, int whiteValue, int height, int width, long frameNumber,
                              boolean discarded) {
}
