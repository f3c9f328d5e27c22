// Histogram helpers for the auto-exposure statistics.
//
// cumulativeHistogram turns a 256-bin grey-level histogram into running sums;
// percentile finds, by bisection over such a table, the smallest grey level at
// which the running count reaches a given percentage of all samples.
//
// Used by Auto_exposure_accumulator (the histogram white value of exposure
// mode 2). Pure functions on caller memory: reentrant, no allocation.
#ifndef VQX_LIB_HISTOGRAM_H
#define VQX_LIB_HISTOGRAM_H

/// out[i] = in[0] + ... + in[i], in 32-bit unsigned arithmetic (sums wrap).
void cumulativeHistogram(unsigned (&out)[256], const unsigned (&in)[256]);

/// Smallest grey level whose cumulative count reaches pct percent of
/// cumulative[255]. The target count (pct * total) / 100 is computed in
/// 32-bit unsigned arithmetic, so it wraps for very large totals.
/// Results: 0..255 for pct 0..100 (0 for an empty table); 256 when the
/// target exceeds the total, which a pct above 100 can give. Only indexes
/// 0..255 are read.
unsigned percentile(const unsigned (&cumulative)[256], unsigned pct);

#endif // VQX_LIB_HISTOGRAM_H
