// Auto_exposure_accumulator: grey-level histogram of the sampled pixels.
//
// The histogram auto exposure (exposure mode 2) feeds every sampled 4-pixel
// word into accumulate(); at the end of the frame get_white_value() answers
// the grey level at the target percentile of the settings. Besides the
// histogram the accumulator keeps specular statistics: pixels in groups that
// are wholly at or above specular_threshold, and the extremes of the group
// minima of partly specular groups.
//
// Decision: specular_threshold starts at 240 (the default grey level of the
// specular saturation setting) and nothing changes it afterwards. Nothing
// reads the specular statistics when forming the white value, so feeding the
// threshold from the live settings would change no result; it stays a plain
// public member for a caller that wants to set it.
//
// Owned by value by the exposure controller's histogram sampler; used only
// from the frame path, which the sensor's monitor serialises. No locking, no
// allocation.
#ifndef VQX_LIB_AUTO_EXPOSURE_ACCUMULATOR_H
#define VQX_LIB_AUTO_EXPOSURE_ACCUMULATOR_H

#include <cstdint>

#include "Exposure_settings.h"
#include "Histogram.h"

class Auto_exposure_accumulator {
public:
    /// Counts the four pixels of @p word (lowest byte = leftmost pixel).
    void accumulate(unsigned word)
    {
        dirty = true;
        specular_handler(word);
        ++histogram[word & 0xFF];
        ++histogram[(word >> 8) & 0xFF];
        ++histogram[(word >> 16) & 0xFF];
        ++histogram[word >> 24];
        n_pixels += 4;
    }

    /// Updates the specular statistics for one 4-pixel group.
    void specular_handler(unsigned word)
    {
        const unsigned p0 = word & 0xFF;
        const unsigned p1 = (word >> 8) & 0xFF;
        const unsigned p2 = (word >> 16) & 0xFF;
        const unsigned p3 = word >> 24;
        const unsigned n_specular = (p0 >= specular_threshold) + (p1 >= specular_threshold) +
                                    (p2 >= specular_threshold) + (p3 >= specular_threshold);
        if (n_specular == 0)
            return;
        if (n_specular == 4) {
            n_saturated += 4;
            return;
        }
        n_partial += 4;
        unsigned m = p0 < p1 ? p0 : p1;
        const unsigned m2 = p2 < p3 ? p2 : p3;
        m = m < m2 ? m : m2;
        if (m < partial_min)
            partial_min = m;
        if (m > partial_max)
            partial_max = m;
    }

    /// The running sums of histogram, rebuilt first when stale.
    const unsigned (&cumulative_histogram() const)[256]
    {
        if (dirty) {
            cumulativeHistogram(cumulative, histogram);
            dirty = false;
        }
        return cumulative;
    }

    /// Grey level at the target percentile of @p settings.
    unsigned get_white_value(const Exposure_settings& settings) const
    {
        return percentile(cumulative_histogram(), settings.target_percentile);
    }

    /// Starts a new frame. The cumulative table is left stale, not cleared.
    void reset()
    {
        n_saturated = 0;
        partial_min = 255;
        partial_max = 0;
        n_partial = 0;
        n_pixels = 0;
        dirty = true;
        for (unsigned& bin : histogram)
            bin = 0;
    }

    unsigned n_saturated = 0;   ///< pixels in groups wholly at or above the threshold
    unsigned partial_min = 255; ///< smallest group minimum of partly specular groups
    unsigned partial_max = 0;   ///< largest group minimum of partly specular groups
    unsigned n_partial = 0;     ///< pixels in partly specular groups
    unsigned n_pixels = 0;      ///< pixels accumulated since reset
    unsigned histogram[256] = {};
    mutable unsigned cumulative[256] = {}; ///< valid while dirty is false
    unsigned specular_threshold = 240;
    mutable bool dirty = true;
};

static_assert(sizeof(unsigned) == 4, "the accumulator's counters are 32-bit");

#endif // VQX_LIB_AUTO_EXPOSURE_ACCUMULATOR_H
