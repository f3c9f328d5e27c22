// Histogram accumulator, percentile and the context-sensitive accumulator.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

#include "Auto_exposure_accumulator.h"
#include "Context_sensitive_accumulator.h"
#include "Histogram.h"
#include "Output_capture.h"

namespace {

uint32_t word(unsigned p0, unsigned p1, unsigned p2, unsigned p3)
{
    return p0 | p1 << 8 | p2 << 16 | uint32_t(p3) << 24;
}

// Smallest level whose running count reaches the target, by linear search.
unsigned linear_percentile(const unsigned (&cum)[256], unsigned pct)
{
    const unsigned target = pct * cum[255] / 100;
    for (unsigned i = 0; i < 256; ++i)
        if (cum[i] >= target)
            return i;
    return 256;
}

using Cs_accumulator = Context_sensitive_accumulator<Context_sensitive_watch_noop>;

} // namespace

TEST(Percentile, EdgesAndAgreementWithLinearSearch)
{
    // Round 0: an empty histogram; round 1: 16 samples at 3, 77 and 200,
    // where 106 % still reaches the top (16 * 106 / 100 = 16) and 107 % does
    // not; then random histograms, whose large counts wrap pct * total.
    unsigned hist[256] = {}, cum[256];
    uint32_t x = 7;
    for (int round = 0; round < 200; ++round) {
        for (unsigned& h : hist) {
            x = x * 1664525u + 1013904223u;
            h = round < 2 ? 0 : (x >> 28) < 3 ? (x >> 8) % (round < 100 ? 50u : 0x2000000u) : 0;
        }
        if (round == 1) {
            hist[3] = 5;
            hist[77] = 10;
            hist[200] = 1;
        }
        cumulativeHistogram(cum, hist);
        for (unsigned pct = 0; pct <= 150; ++pct)
            ASSERT_EQ(percentile(cum, pct), linear_percentile(cum, pct)) << round << " " << pct;
        if (round == 1) {
            EXPECT_EQ(percentile(cum, 106), 200u);
            EXPECT_EQ(percentile(cum, 107), 256u);
        }
    }
}

TEST(AutoExposureAccumulator, HistogramSpecularStatisticsAndReset)
{
    Auto_exposure_accumulator acc;
    acc.accumulate(word(240, 250, 255, 241)); // wholly specular
    acc.accumulate(word(10, 20, 30, 40));     // not specular
    acc.accumulate(word(245, 100, 250, 90));  // partly, group minimum 90
    acc.accumulate(word(239, 240, 250, 250)); // partly, group minimum 239
    EXPECT_EQ(acc.n_saturated, 4u);
    EXPECT_EQ(acc.n_partial, 8u);
    EXPECT_EQ(acc.partial_min, 90u);
    EXPECT_EQ(acc.partial_max, 239u);
    EXPECT_EQ(acc.n_pixels, 16u);
    EXPECT_EQ(acc.histogram[250], 4u);

    Exposure_settings settings;
    settings.target_percentile = 25; // 4th of 16 samples
    EXPECT_EQ(acc.get_white_value(settings), 40u);
    settings.target_percentile = 50;
    EXPECT_EQ(acc.get_white_value(settings), 240u);
    acc.accumulate(word(255, 255, 255, 255)); // the stale table is rebuilt
    EXPECT_EQ(acc.cumulative_histogram()[255], 20u);

    acc.reset();
    EXPECT_EQ(acc.n_pixels, 0u);
    EXPECT_EQ(acc.partial_min, 255u);
    EXPECT_EQ(acc.cumulative_histogram()[255], 0u);
    EXPECT_EQ(acc.specular_threshold, 240u);
}

TEST(ContextSensitiveAccumulator, PairsInRingOrder)
{
    auto acc = std::make_unique<Cs_accumulator>();
    acc->reset();
    acc->accumulate(word(10, 50, 20, 200));
    ASSERT_EQ(acc->n_buffered, 4u);
    const uint32_t deltas[] = {40, 30, 180, 190};
    const uint8_t means[] = {30, 35, 110, 105};
    for (unsigned i = 0; i < 4; ++i) {
        EXPECT_EQ(acc->delta_buffer[i], deltas[i]);
        EXPECT_EQ(acc->mean_buffer[i], means[i]);
    }
    EXPECT_EQ(acc->min_delta, 30);
    EXPECT_EQ(acc->max_delta, 190);
    acc->accumulate(word(77, 77, 77, 77));
    EXPECT_EQ(acc->min_delta, 0);
    EXPECT_EQ(acc->histogram[77], 4u);
}

TEST(ContextSensitiveAccumulator, OverflowReportsEachLostPairAndKeepsExtremes)
{
    auto acc = std::make_unique<Cs_accumulator>();
    acc->reset();
    Output_capture capture;
    for (unsigned i = 0; i < Cs_accumulator::buffer_pairs / 4; ++i)
        acc->accumulate(word(100, 101, 100, 101));
    EXPECT_EQ(acc->n_buffered, 10240u);
    EXPECT_TRUE(capture.take().empty());

    acc->accumulate(word(0, 255, 255, 255));
    const char* file = "jni/../../lib/include/Context_sensitive_accumulator";
    const char* expr = "n_buffered < elementsof(delta_buffer)";
    const std::vector<std::string> expected = {Output_capture::assertion(expr, file, 89), Output_capture::assertion(expr, file, 89),
                                               Output_capture::assertion(expr, file, 89), Output_capture::assertion(expr, file, 109)};
    EXPECT_EQ(capture.take(), expected);
    EXPECT_EQ(acc->n_buffered, 10240u);
    EXPECT_EQ(acc->max_delta, 255);
    EXPECT_EQ(acc->min_delta, 0);
    EXPECT_EQ(acc->delta_buffer[10239], 1u);

    acc->reset();
    EXPECT_EQ(acc->n_buffered, 0u);
    EXPECT_EQ(acc->white_value, 0xFFFFFFFFu);
    EXPECT_EQ(acc->histogram[100], 0u);
}
