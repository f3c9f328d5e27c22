// Cumulative histogram and percentile by bisection; see Histogram.h.
#include "Histogram.h"

void cumulativeHistogram(unsigned (&out)[256], const unsigned (&in)[256])
{
    unsigned sum = 0;
    for (unsigned i = 0; i < 256; ++i) {
        sum += in[i];
        out[i] = sum;
    }
}

unsigned percentile(const unsigned (&cumulative)[256], unsigned pct)
{
    const unsigned target = (pct * cumulative[255]) / 100;

    // Invariant: cumulative[hi] reaches the target (hi == 256 stands for
    // "beyond the table"); the loop narrows [lo, hi] until mid meets an end.
    unsigned hi = 256;
    unsigned lo = 0;
    for (;;) {
        const unsigned mid = (hi + lo) >> 1;
        if (target <= cumulative[mid]) {
            if (mid == hi)
                break;
            hi = mid;
        } else {
            if (mid == lo)
                break;
            lo = mid;
        }
    }
    return hi;
}
