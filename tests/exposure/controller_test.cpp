// Exposure controller: mode dispatch, context-sensitive evaluation and the
// X5501 window.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "X5501_Exposure_controller.h"
#include "Output_capture.h"

namespace {

struct Test_trait {
    static uint32_t exposure_rows(const Test_trait&, uint32_t us) { return rows_x5501(us); }
};
using Controller = Exposure_controller<Test_trait>;
using X5501_controller = X5501_Exposure_controller<Test_trait>;

uint32_t word(unsigned p0, unsigned p1, unsigned p2, unsigned p3)
{
    return p0 | p1 << 8 | p2 << 16 | uint32_t(p3) << 24;
}

void run_frame(Exposure_controller_base& c, const std::vector<uint8_t>& img, unsigned w, unsigned h)
{
    c.sample_reset(w, h);
    c.set_sample_image(img.data());
    for (unsigned rows = 100; rows < h; rows += 100)
        c.sample_pixels(rows);
    c.sample_pixels(h);
}

} // namespace

TEST(ExposureController, FixedModesReadNoPixelHistogramModeFollowsMethodAndPercentile)
{
    auto c = std::make_unique<Controller>();
    std::vector<uint8_t> img(640 * 480, 20);
    std::fill(img.begin() + 640 * 240, img.end(), 220); // bright lower half
    for (uint32_t mode : {0u, 1u}) {
        c->settings.mode = mode;
        run_frame(*c, img, 640, 480);
        EXPECT_EQ(c->sample_wv(), 0u);
        EXPECT_EQ(c->ae_sampler.image, nullptr);
        EXPECT_EQ(c->cs_sampler.image, nullptr);
        EXPECT_EQ(c->ae_sampler.accumulator.n_pixels + c->cs_sampler.accumulator.n_buffered, 0u);
    }
    c->settings.mode = 2;
    for (auto [method, pixels] : {std::pair{0u, 280u}, {1u, 280u}, {7u, 560u}}) {
        c->settings.exposure_method = method;
        run_frame(*c, img, 640, 480);
        EXPECT_EQ(c->ae_sampler.accumulator.n_pixels, pixels) << method;
        EXPECT_EQ(c->cs_sampler.accumulator.n_buffered, 0u);
    }
    c->settings.target_percentile = 97;
    EXPECT_EQ(c->sample_wv(), 220u);
    c->settings.target_percentile = 40;
    EXPECT_EQ(c->sample_wv(), 20u);
}

TEST(ExposureController, ContextSensitiveEvaluation)
{
    auto c = std::make_unique<Controller>();
    c->settings.mode = 3;
    auto& acc = c->cs_sampler.accumulator;
    auto feed = [&](uint32_t w, int times) {
        for (int i = 0; i < times; ++i)
            acc.accumulate(w);
    };

    c->sample_reset(640, 480);
    EXPECT_EQ(c->sample_wv(), 0u); // nothing buffered
    EXPECT_EQ(acc.edge_strength, 0u);
    EXPECT_EQ(acc.edge_count, 0u);

    // Differences 190 and 0 give the threshold 38; a difference of 38 is not
    // an edge. Twelve edge pairs of mean 105: the white value is their mean.
    feed(word(10, 200, 10, 200), 3);
    feed(word(50, 50, 50, 50), 5);
    acc.accumulate(word(0, 38, 0, 38));
    EXPECT_EQ(c->sample_wv(), 105u);
    EXPECT_EQ(acc.edge_count, 12u);
    EXPECT_EQ(acc.edge_strength, 19000u);

    // Eight edge pairs: the mean of all 48 pair means, (8*105 + 40*50) / 48.
    c->sample_reset(640, 480);
    feed(word(10, 200, 10, 200), 2);
    feed(word(50, 50, 50, 50), 10);
    EXPECT_EQ(c->sample_wv(), 59u);
    EXPECT_EQ(acc.edge_count, 8u);
    EXPECT_EQ(acc.edge_strength, 15200u);
    acc.accumulate(word(10, 200, 10, 200)); // every call evaluates afresh
    EXPECT_EQ(c->sample_wv(), 105u);

    // Held to 1..255.
    const std::vector<uint8_t> black(640 * 480, 0), white(640 * 480, 255);
    run_frame(*c, black, 640, 480);
    EXPECT_EQ(c->sample_wv(), 1u);
    run_frame(*c, white, 640, 480);
    EXPECT_EQ(c->sample_wv(), 255u);

    // A sampled frame: the edges between 0 and 200 decide, not the dark area.
    std::vector<uint8_t> marks(640 * 480);
    for (size_t i = 0; i < marks.size(); ++i)
        marks[i] = (i & 3) == 3 ? 200 : 0;
    run_frame(*c, marks, 640, 480);
    EXPECT_EQ(c->sample_wv(), 100u);
    EXPECT_EQ(acc.edge_count, acc.n_buffered / 2);
}

TEST(X5501Controller, WindowStartAndPercentileWalk)
{
    auto c = std::make_unique<X5501_controller>();
    c->settings.mode = 2;
    // Window pixels carry 5 * column index (0..250), everything else 255, so
    // a pixel read outside the window shows up in bin 255.
    std::vector<uint8_t> img(640 * 480, 255);
    for (unsigned r = 140; r <= 336; r += 4)
        for (unsigned j = 0; j < 51; ++j)
            img[r * 640 + 220 + 4 * j] = uint8_t(5 * j);

    c->sample_reset(640, 480);
    c->set_sample_image(img.data());
    c->sample_pixels(340);
    EXPECT_EQ(c->n_samples, 0u);
    c->sample_pixels(341);
    EXPECT_EQ(c->n_samples, 2550u);
    EXPECT_EQ(c->histogram[255], 0u);
    EXPECT_EQ(c->histogram[125], 50u);
    img[140 * 640 + 220] = 251; // one pass per frame
    c->sample_pixels(480);
    EXPECT_EQ(c->histogram[251], 0u);

    // need = (3 * 2550 + 50) / 100 = 77: bin 250 holds 50, bin 245 reaches 100.
    c->settings.target_percentile = 97;
    EXPECT_EQ(c->sample_wv(), 245u);
    c->settings.target_percentile = 100;
    EXPECT_EQ(c->sample_wv(), 255u);
    c->settings.target_percentile = 0; // need 2550: only the whole window reaches it
    EXPECT_EQ(c->sample_wv(), 0u);

    // Context-sensitive mode uses that sampler's geometry; null image reported.
    c->settings.mode = 3;
    Output_capture capture;
    c->sample_reset(752, 480);
    c->sample_pixels(480);
    EXPECT_EQ(c->n_samples, 0u);
    EXPECT_EQ(capture.take(), std::vector<std::string>{Output_capture::assertion("ptr != NULL", "jni/../../Sensor/X5501_trait", 67)});
    const std::vector<uint8_t> grey(752 * 480, 90);
    c->set_sample_image(grey.data());
    c->sample_pixels(480);
    EXPECT_EQ(c->histogram[90], 2550u);
    EXPECT_EQ(c->cs_sampler.accumulator.n_buffered, 0u);
}
