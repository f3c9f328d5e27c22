// Exposure tags: the unit conversions and the transfer of
// (tag, value) pairs to and from a session's settings.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <vector>

#include "Exposure_settings.h"
#include "Exposure_tags.h"
#include "scan_session.h"

namespace {

// A session that only keeps exposure settings and counts the transfers.
class Settings_session : public Scan_session {
public:
    bool Get_exposure(Exposure_settings& out) const override { out = settings; return true; }
    bool Set_exposure(const Exposure_settings& in) override
    {
        ++sets;
        settings = in;
        return false;  // the tag functions report 1 whatever this says
    }

    Exposure_settings settings;
    int sets = 0;
};

std::vector<unsigned int> set_and_get(Settings_session& session, std::vector<unsigned int> set,
                                      std::vector<unsigned int> get)
{
    EXPECT_EQ(1u, ExposureSetTags(&session, set.data(), static_cast<unsigned>(set.size() * 4)));
    EXPECT_EQ(1u, ExposureGetTags(&session, get.data(), static_cast<unsigned>(get.size() * 4)));
    return get;
}

TEST(ExposureTags, ConversionsSaturateAtTheirLimits)
{
    EXPECT_EQ(12700u, exposure_units_to_us(100));
    EXPECT_EQ(4294967153u, exposure_units_to_us(33818639));
    EXPECT_EQ(4294967280u, exposure_units_to_us(33818640));
    EXPECT_EQ(4294967280u, exposure_units_to_us(0xFFFFFFFFu));
    EXPECT_EQ(100u, exposure_us_to_units(12799));
    EXPECT_EQ(101u, exposure_us_to_units(12827));
    EXPECT_EQ(0u, exposure_us_to_units(126));

    EXPECT_EQ(1024u, gain_whole_to_256(4));
    EXPECT_EQ(16777214u * 256u, gain_whole_to_256(16777214));
    EXPECT_EQ(4294967040u, gain_whole_to_256(16777215));
    EXPECT_EQ(4294967040u, gain_whole_to_256(0xFFFFFFFFu));
    EXPECT_EQ(4u, gain_256_to_whole(1279));
    EXPECT_EQ(0xFFFFFFu, gain_256_to_whole(0xFFFFFFFFu));
}

// Set stores in record units (in the record's fields) and get converts
// back; a later pair wins and tags sharing a field alias; unknown and
// ignored tags are skipped on set and read 0 on get.
TEST(ExposureTags, SetThenGetPairs)
{
    using V = std::vector<unsigned>;
    const struct { V set, get, expected; } cases[] = {
        {{ES_MAX_EXP, 100, ES_FIXED_GAIN, 3},
         {ES_MAX_EXP_US, 1, ES_MAX_EXP, 1, ES_FIXED_GAIN_256, 1, ES_FIXED_GAIN, 1},
         {ES_MAX_EXP_US, 12700, ES_MAX_EXP, 100, ES_FIXED_GAIN_256, 768, ES_FIXED_GAIN, 3}},
        {{ES_MAX_EXP_US, 12799, ES_FIXED_GAIN, 16777215, ES_FIXED_EXP, 100},
         {ES_MAX_EXP, 0, ES_FIXED_GAIN_256, 0, ES_FIXED_EXP_US, 0},
         {ES_MAX_EXP, 100, ES_FIXED_GAIN_256, 4294967040u, ES_FIXED_EXP_US, 12700}},
        {{ES_FRAME_RATE, 15, ES_FIXED_FRAME_RATE, 20, ES_MAX_GAIN, 2, ES_MAX_GAIN_256, 700},
         {ES_FRAME_RATE, 0, ES_FIXED_FRAME_RATE, 0, ES_MAX_GAIN_256, 0, ES_MAX_GAIN, 0},
         {ES_FRAME_RATE, 20, ES_FIXED_FRAME_RATE, 20, ES_MAX_GAIN_256, 700, ES_MAX_GAIN, 2}},
        {{6, 5, 7, 5, ES_FAST_START, 5, ES_DECODE_PARAMETER, 5, 24, 5, 99, 5},
         {6, 9, ES_FAST_START, 9, ES_DECODE_PARAMETER, 9, 24, 9, 1000, 9, ES_TARGET_VALUE, 9},
         {6, 0, ES_FAST_START, 0, ES_DECODE_PARAMETER, 0, 24, 0, 1000, 0, ES_TARGET_VALUE, 120}},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        SCOPED_TRACE(i);
        Settings_session session;
        const Exposure_settings before = session.settings;
        EXPECT_EQ(cases[i].expected, set_and_get(session, cases[i].set, cases[i].get));
        const Exposure_settings& s = session.settings;
        const V fields[] = {{s.max_exposure, s.fixed_gain},
                            {s.max_exposure, s.fixed_gain, s.fixed_exposure},
                            {s.frame_rate, s.max_gain}};
        const V stored[] = {{12700, 768}, {12799, 4294967040u, 12700}, {20, 700}};
        if (i < 3)
            EXPECT_EQ(stored[i], fields[i]);
        else
            EXPECT_EQ(0, std::memcmp(&before, &s, sizeof before));
    }
}

TEST(ExposureTags, PlainTagsReachTheirFieldsAndNothingElse)
{
    Settings_session session;
    Exposure_settings expected = session.settings;  // fields no tag names stay
    expected.exposure_method = 1;
    expected.target_value = 90;
    expected.target_percentile = 95;
    expected.target_accept_gap = 10;
    expected.conform_image = 1;
    expected.conform_tries = 3;
    expected.specular_exclusion = 1;
    expected.specular_saturation = 200;
    expected.specular_limit = 5;
    expected.adjust_exp_when_illum_off = 0;
    set_and_get(session,
                {ES_EXPOSURE_METHOD, 1, ES_TARGET_VALUE, 90, ES_TARGET_PERCENTILE, 95, ES_TARGET_ACCEPT_GAP, 10,
                 ES_CONFORM_IMAGE, 1, ES_CONFORM_TRIES, 3, ES_SPECULAR_EXCLUSION, 1, ES_SPECULAR_SAT, 200,
                 ES_SPECULAR_LIMIT, 5, ES_ADJUST_EXP_WHEN_ILLUM_OFF, 0},
                {});
    EXPECT_EQ(0, std::memcmp(&expected, &session.settings, sizeof expected));
}

TEST(ExposureTags, SizeCountsWholePairsAndZeroStillWritesBack)
{
    Settings_session session;
    unsigned int pairs[] = {ES_TARGET_VALUE, 50, ES_TARGET_PERCENTILE, 60};
    // 15 bytes: one whole pair; the rest is ignored.
    EXPECT_EQ(1u, ExposureSetTags(&session, pairs, 15));
    EXPECT_EQ(50u, session.settings.target_value);
    EXPECT_EQ(97u, session.settings.target_percentile);

    const int sets = session.sets;
    EXPECT_EQ(1u, ExposureSetTags(&session, pairs, 0));
    EXPECT_EQ(sets + 1, session.sets);
    EXPECT_EQ(50u, session.settings.target_value);

    // Reading 12 bytes fills only the first pair's value.
    unsigned int out[] = {ES_TARGET_VALUE, 7, ES_TARGET_PERCENTILE, 7};
    EXPECT_EQ(1u, ExposureGetTags(&session, out, 12));
    EXPECT_EQ(50u, out[1]);
    EXPECT_EQ(7u, out[3]);
}

} // namespace
