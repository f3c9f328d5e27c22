// Context_sensitive_accumulator: brightness differences between neighbours.
//
// The context-sensitive auto exposure (exposure mode 3 and above) feeds every
// sampled 4-pixel word into accumulate(). Each word gives four neighbour
// pairs, (p0,p1), (p1,p2), (p2,p3) and the closing pair (p3,p0); for each the
// absolute difference and the mean are buffered (at most 10240 pairs, the
// pairs of 2560 words) and the extremes of the differences are tracked, also
// past the end of the buffers. The exposure controller later evaluates the
// buffered pairs (edge threshold, edge means) into the frame's white value
// and stores its results in white_value, edge_strength and edge_count.
//
// A pair that no longer fits is reported once through sd_assert_function and
// dropped; its difference still updates min_delta and max_delta.
//
// Watch is a policy base (Context_sensitive_watch_noop here) where a
// diagnostic variant could watch every edge sample; it has no data.
//
// Owned by value (about 52 KB) by the exposure controller's context-sensitive
// sampler, which also resets it. Used only from the frame path, which the
// sensor's monitor serialises. No locking, no allocation.
#ifndef VQX_LIB_CONTEXT_SENSITIVE_ACCUMULATOR_H
#define VQX_LIB_CONTEXT_SENSITIVE_ACCUMULATOR_H

#include <cstdint>

#include "Diagnostics.h"

/// Watch policy that watches nothing.
class Context_sensitive_watch_noop {
public:
    virtual ~Context_sensitive_watch_noop() = default;
};

template <class Watch>
class Context_sensitive_accumulator : public Watch {
public:
    static constexpr unsigned buffer_pairs = 10240;

    /// Adds the four pixels of @p word (lowest byte = leftmost pixel).
    void accumulate(unsigned word)
    {
        fresh = 1;
        const unsigned p0 = word & 0xFF;
        const unsigned p1 = (word >> 8) & 0xFF;
        const unsigned p2 = (word >> 16) & 0xFF;
        const unsigned p3 = word >> 24;
        ++histogram[p0];
        ++histogram[p1];
        ++histogram[p2];
        ++histogram[p3];

        // Pairs (p0,p1), (p1,p2), (p2,p3) and the closing pair (p3,p0).
        const unsigned d0 = difference(p0, p1);
        const unsigned d1 = difference(p1, p2);
        const unsigned d2 = difference(p2, p3);
        const unsigned d3 = difference(p3, p0);
        const unsigned lo = smaller(smaller(d0, d1), smaller(d2, d3));
        const unsigned hi = larger(larger(d0, d1), larger(d2, d3));
        if (lo < min_delta)
            min_delta = static_cast<uint8_t>(lo);
        if (hi > max_delta)
            max_delta = static_cast<uint8_t>(hi);

        const uint32_t n = n_buffered;
        if (n > buffer_pairs - 4) {
            store_near_full(p0, p1, p2, p3);
            return;
        }
        delta_buffer[n] = d0;
        delta_buffer[n + 1] = d1;
        delta_buffer[n + 2] = d2;
        delta_buffer[n + 3] = d3;
        mean_buffer[n] = static_cast<uint8_t>((p0 + p1) >> 1);
        mean_buffer[n + 1] = static_cast<uint8_t>((p1 + p2) >> 1);
        mean_buffer[n + 2] = static_cast<uint8_t>((p2 + p3) >> 1);
        mean_buffer[n + 3] = static_cast<uint8_t>((p3 + p0) >> 1);
        n_buffered = n + 4;
    }

    /// Starts a new frame. The pair buffers are not cleared: only the first
    /// n_buffered entries are ever read.
    void reset()
    {
        min_delta = 255;
        max_delta = 0;
        n_buffered = 0;
        fresh = 1;
        white_value = 0xFFFFFFFF;
        edge_strength = 0xFFFFFFFF;
        for (uint32_t& bin : histogram)
            bin = 0;
    }

    uint32_t delta_buffer[buffer_pairs] = {}; ///< |a - b| of each buffered pair
    uint8_t mean_buffer[buffer_pairs] = {};   ///< (a + b) >> 1, same index
    uint8_t min_delta = 255;                  ///< smallest difference since reset
    uint8_t max_delta = 0;                    ///< largest difference since reset
    uint32_t n_buffered = 0;                  ///< pairs stored, at most buffer_pairs
    uint32_t histogram[256] = {};             ///< every sampled pixel by grey level
    uint8_t fresh = 1;                        ///< set by reset, accumulate and evaluation
    uint32_t white_value = 0xFFFFFFFF;        ///< results of the last evaluation
    uint32_t edge_strength = 0xFFFFFFFF;
    uint32_t edge_count = 0;

private:
    static unsigned difference(unsigned a, unsigned b) { return a > b ? a - b : b - a; }
    static unsigned smaller(unsigned a, unsigned b) { return a < b ? a : b; }
    static unsigned larger(unsigned a, unsigned b) { return a > b ? a : b; }

    // Stores the pairs that still fit, one by one, and reports each that
    // does not (lines 89 for the first three pairs, 109 for the closing one).
    void store_near_full(unsigned p0, unsigned p1, unsigned p2, unsigned p3)
    {
        const unsigned a[4] = {p0, p1, p2, p3};
        for (unsigned i = 0; i < 4; ++i) {
            const unsigned x = a[i], y = a[(i + 1) & 3];
            if (n_buffered < buffer_pairs) {
                delta_buffer[n_buffered] = difference(x, y);
                mean_buffer[n_buffered] = static_cast<uint8_t>((x + y) >> 1);
                ++n_buffered;
            } else {
                sd_assert_function("n_buffered < elementsof(delta_buffer)",
                                   "jni/../../lib/include/Context_sensitive_accumulator", i < 3 ? 89 : 109);
            }
        }
    }
};

#endif // VQX_LIB_CONTEXT_SENSITIVE_ACCUMULATOR_H
