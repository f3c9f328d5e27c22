// Microsecond-to-row rules, the contrast step and the history queue.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "Contrast_step.h"
#include "Exposure_rules.h"
#include "history_queue.h"
#include "Output_capture.h"


TEST(ExposureRules, RoundingAndLimits)
{
    struct Case {
        uint32_t rows, expected;
    };
    const Case cases[] = {
        {rows_x5501(0), 1}, {rows_x5501(30480), 1695}, {rows_x5501(44739215), 2488392}, // the product still fits 32 bits
        {rows_x5501(44739216), 0xFFFFFFFF},
        {rows_kelp(37), 2}, {rows_kelp(89478448), 41501}, {rows_kelp(89478449), 65535}, // kept to 16 bits
        {rows_rilo(0), 1}, {rows_rilo(1), 2}, {rows_rilo(0xAAAAAA), 0xFFFFFF}, {rows_rilo(0xAAAAAB), 0xFFFFFF},
        {rows_mt9v022(35), 1}, {rows_mt9v022(53), 2}, {rows_mt9v022(60000), 1702},
        {rows_aptina(1000, 20000), 50}, {rows_aptina(1000, 30000), 33}, {rows_aptina(0, 0), 1},
        {rows_aptina(1000, 0), 0xFFFFFFFF},
        {rows_ar0144(1000, 20), 50}, {rows_ar0144(5000000, 1), 19264}, // 5000000 & 0xFFFF
        {rows_ar0144(65536, 1), 1}, {rows_ar0144(1000, 0), 1},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        EXPECT_EQ(cases[i].rows, cases[i].expected) << "case " << i;
}

TEST(ContrastStep, UpwardStepLimitedToFourFold)
{
    Exposure_settings s;
    s.target_value = 128;
    EXPECT_EQ(shared_contrast_step(0, 1000, s), 4000u);
    EXPECT_EQ(shared_contrast_step(32, 1000, s), 4000u);
    EXPECT_EQ(shared_contrast_step(33, 1000, s), 3878u);
    EXPECT_EQ(shared_contrast_step(255, 1000, s), 501u); // downward not limited
    s.target_value = 3; // a quarter of the target is 0: white held at 1
    EXPECT_EQ(shared_contrast_step(0, 100, s), 300u);
    s.target_value = 0;
    EXPECT_EQ(shared_contrast_step(0, 100, s), 1u);
}

TEST(HistoryQueue, AgesValuesAndReportsBadIndexes)
{
    history_queue<unsigned> q(3);
    auto ages = [&] { return std::vector<unsigned>{q.at(0), q.at(1), q.at(2)}; };
    for (unsigned v : {1u, 2u, 3u}) {
        q.newest() = v;
        if (v < 3)
            q.advance();
    }
    EXPECT_EQ(ages(), (std::vector<unsigned>{3, 2, 1}));
    q.advance();
    EXPECT_EQ(q.at(2), 2u); // 1 dropped

    q.newest() = 9;
    for (int i = 0; i < 3; ++i)
        q.advance();
    EXPECT_EQ(ages(), (std::vector<unsigned>{9, 9, 9}));

    Output_capture capture;
    const char* file = "jni/../../lib/include/history_queue";
    q.at(3) = 8;  // head 0: one subtraction brings 3 back to the newest slot
    q.at(6) = 77; // 6 - 3 stays outside the ring
    EXPECT_EQ(q.at(0) + q.at(1) + q.at(2), 26u);
    q.at(-1); // with head 0 it also falls outside the ring
    EXPECT_EQ(capture.take(), (std::vector<std::string>{Output_capture::assertion("s_idx < size", file, 52),
                                                        Output_capture::assertion("idx >= 0", file, 50),
                                                        Output_capture::assertion("s_idx < size", file, 52)}));

    history_queue<unsigned> empty(0);
    empty.newest() = 5;
    empty.advance();
    EXPECT_EQ(capture.take(), std::vector<std::string>{Output_capture::assertion("s_idx < size", file, 52)});
}
