// Misuse of the record functions: lights, exposure settings, engine
// properties, revision and sleep time-out. Sizes 0, 1, 7, just under and
// just over the record, and very large. (Any exposure mode, known or not,
// set while frames flow is the stress load's subject.)
#include <cstring>
#include <thread>
#include <vector>

#include "misuse_support.h"

namespace misuse {
namespace {

constexpr uint32_t kHuge = 0xFFFFFFFFu;

VQX_SCANNER_LIGHTING lights_of(VQXSI_HANDLE h)
{
    VQX_SCANNER_LIGHTING l;
    std::memset(&l, 0, sizeof l);
    l.size = sizeof l;
    EXPECT_EQ(VQXSI_GetLights(h, &l), 1);
    return l;
}

uint32_t setting(VQXSI_HANDLE h, uint32_t tag)
{
    uint32_t pair[2] = {tag, 0xDEADBEEF};
    EXPECT_EQ(VQXSI_GetExposureSettings(h, pair, sizeof pair), 1);
    return pair[1];
}

TEST_F(Misuse_test, SetLights)
{
    Session s;
    EXPECT_EINVAL(VQXSI_SetLights(s, nullptr), 0);

    const VQX_SCANNER_LIGHTING defaults = lights_of(s);
    EXPECT_EQ(defaults.scanning_mode, 5u);

    // Size 0 and 1: nothing of the caller's record counts.
    for (uint32_t size : {0u, 1u}) {
        VQX_SCANNER_LIGHTING in = {size, 1, 0, 0, 7, 7, 1};
        EXPECT_ERRNO_KEPT(VQXSI_SetLights(s, &in), 1);
        const VQX_SCANNER_LIGHTING now = lights_of(s);
        EXPECT_EQ(std::memcmp(&defaults, &now, sizeof defaults), 0) << "size " << size;
    }
    // Size 7: three bytes of the scanning mode, the fourth kept.
    VQX_SCANNER_LIGHTING seven = {7, 0xAABBCC02u, 0, 0, 7, 7, 1};
    EXPECT_EQ(VQXSI_SetLights(s, &seven), 1);
    EXPECT_EQ(lights_of(s).scanning_mode, 0x00BBCC02u);
    // Just under the record: the boost (last field) is not taken.
    VQX_SCANNER_LIGHTING under = {27, 2, 0, 9, 50, 60, 0x01010101u};
    EXPECT_EQ(VQXSI_SetLights(s, &under), 1);
    VQX_SCANNER_LIGHTING now = lights_of(s);
    EXPECT_EQ(now.scanning_mode, 2u);
    EXPECT_EQ(now.level_b, 60u);
    EXPECT_EQ(now.boost, 0x00010101u);
    // Just over and very large: the 28 bytes of the record, nothing more.
    for (uint32_t size : {29u, kHuge}) {
        VQX_SCANNER_LIGHTING in = {size, 5, 0, 0, 100, 100, 0};
        EXPECT_EQ(VQXSI_SetLights(s, &in), 1);
        const VQX_SCANNER_LIGHTING now = lights_of(s);
        EXPECT_EQ(std::memcmp(&defaults, &now, sizeof defaults), 0) << "size " << size;
    }

    // Lights change while scanning, frames keep coming; idle lights hold
    // sleep off until set back.
    ASSERT_TRUE(frames_flow(s));
    VQX_SCANNER_LIGHTING idle = {28, 2, 1, 0, 100, 100, 1};
    EXPECT_EQ(VQXSI_SetLights(s, &idle), 1);
    EXPECT_EQ(robust::snapshot().nosleep_count, 1u);
    EXPECT_EQ(VQXSI_SetLights(s, &idle), 1);
    EXPECT_EQ(robust::snapshot().nosleep_count, 1u) << "the same values change nothing";
    // Closing with idle lights on gives the hold back (checked at tear-down).
}

TEST_F(Misuse_test, GetLights)
{
    Session s;
    EXPECT_EINVAL(VQXSI_GetLights(s, nullptr), 0);

    // n = min(size, 28) bytes arrive, the size field reads n afterwards.
    const uint32_t sizes[] = {0, 1, 7, 12, 27, 28, 29, 40, kHuge};
    for (uint32_t size : sizes) {
        unsigned char raw[64];
        std::memset(raw, 0xA5, sizeof raw);
        std::memcpy(raw, &size, 4);
        EXPECT_ERRNO_KEPT(VQXSI_GetLights(s, reinterpret_cast<VQX_SCANNER_LIGHTING*>(raw)), 1);
        const uint32_t n = size < 28 ? size : 28;
        uint32_t reported;
        std::memcpy(&reported, raw, 4);
        EXPECT_EQ(reported, n) << "size " << size;
        if (n >= 8) {
            uint32_t mode;
            std::memcpy(&mode, raw + 4, 4);
            EXPECT_EQ(mode, 5u) << "size " << size;
        }
        for (size_t i = n > 4 ? n : 4; i < sizeof raw; ++i)
            ASSERT_EQ(raw[i], 0xA5) << "byte " << i << " written for size " << size;
    }
}

TEST_F(Misuse_test, ExposureSettings)
{
    Session s;
    // A null array: accepted while the size holds no pair, refused beyond.
    for (uint32_t size : {0u, 1u, 7u}) {
        mark_errno();
        EXPECT_EQ(VQXSI_SetExposureSettings(s, nullptr, size), 1);
        EXPECT_EQ(VQXSI_GetExposureSettings(s, nullptr, size), 1);
        EXPECT_EQ(errno, 12345);
    }
    EXPECT_EINVAL(VQXSI_SetExposureSettings(s, nullptr, 8), 0);
    EXPECT_EINVAL(VQXSI_GetExposureSettings(s, nullptr, kHuge), 0);

    // Sizes that hold no whole pair change nothing.
    const uint32_t target = setting(s, ES_TARGET_VALUE);
    uint32_t one[2] = {ES_TARGET_VALUE, target + 1};
    EXPECT_EQ(VQXSI_SetExposureSettings(s, one, 7), 1);
    EXPECT_EQ(setting(s, ES_TARGET_VALUE), target);
    // A pair and a half: the pair applies, the remainder is ignored (read:
    // the third word is not written).
    uint32_t half[3] = {ES_TARGET_VALUE, target + 2, ES_TARGET_ACCEPT_GAP};
    EXPECT_EQ(VQXSI_SetExposureSettings(s, half, 12), 1);
    EXPECT_EQ(setting(s, ES_TARGET_VALUE), target + 2);
    uint32_t read_half[3] = {ES_TARGET_VALUE, 0, 0xCAFEF00D};
    EXPECT_EQ(VQXSI_GetExposureSettings(s, read_half, 12), 1);
    EXPECT_EQ(read_half[1], target + 2);
    EXPECT_EQ(read_half[2], 0xCAFEF00Du);

    // Unknown and ignored tags: accepted, skipped, read back as 0.
    const uint32_t odd_tags[] = {6, 7, 24, 1000, kHuge, ES_FAST_START, ES_DECODE_PARAMETER};
    for (uint32_t tag : odd_tags) {
        uint32_t p[2] = {tag, 55};
        mark_errno();
        EXPECT_EQ(VQXSI_SetExposureSettings(s, p, sizeof p), 1);
        EXPECT_EQ(setting(s, tag), 0u) << "tag " << tag;
        EXPECT_EQ(errno, 12345);
    }
    EXPECT_EQ(setting(s, ES_TARGET_VALUE), target + 2) << "odd tags left the settings alone";

    // A very large array: every pair applies in order, the last one wins.
    std::vector<uint32_t> many(2 * 4096);
    for (size_t i = 0; i < 4096; ++i) {
        many[2 * i] = ES_TARGET_VALUE;
        many[2 * i + 1] = uint32_t(i % 200);
    }
    EXPECT_EQ(VQXSI_SetExposureSettings(s, many.data(), uint32_t(many.size() * 4)), 1);
    EXPECT_EQ(setting(s, ES_TARGET_VALUE), 4095u % 200);
    EXPECT_EQ(VQXSI_GetExposureSettings(s, many.data(), uint32_t(many.size() * 4)), 1);
    EXPECT_EQ(many[2 * 4095 + 1], 4095u % 200);

    // Extreme values are stored (saturating where a unit converts) while a
    // scan runs; frames keep coming.
    ASSERT_TRUE(frames_flow(s));
    uint32_t extreme[] = {ES_MAX_EXP, kHuge, ES_MAX_GAIN, kHuge, ES_TARGET_VALUE, kHuge,
                          ES_TARGET_ACCEPT_GAP, 0, ES_CONFORM_TRIES, 0, ES_FRAME_RATE, 0};
    EXPECT_EQ(VQXSI_SetExposureSettings(s, extreme, sizeof extreme), 1);
    EXPECT_EQ(setting(s, ES_MAX_EXP_US), 4294967280u);
    EXPECT_EQ(setting(s, ES_MAX_GAIN_256), 4294967040u);
    void* frame = VQXSI_GetNewScan(s);
    EXPECT_NE(frame, nullptr);
}

TEST_F(Misuse_test, GetScanEnginePropertiesEx)
{
    unsigned char raw[4096 + 16];
    Session s;
    EXPECT_ERRNO_KEPT(VQXSI_GetScanEnginePropertiesEx(s, nullptr, 0), 1);
    EXPECT_EINVAL(VQXSI_GetScanEnginePropertiesEx(s, nullptr, 8), 0);

    VQX_SCANENGINE_PROPERTIES_EX full;
    ASSERT_EQ(VQXSI_GetScanEnginePropertiesEx(s, &full, sizeof full), 1);
    EXPECT_EQ(full.size, 224u);
    EXPECT_EQ(full.pixel_depth, 8u);

    // Exactly `size` bytes are written: the record's first bytes up to 224,
    // zeros beyond it, nothing past `size`.
    for (uint32_t size : {0u, 1u, 7u, 8u, 223u, 224u, 225u, 4096u}) {
        std::memset(raw, 0xA5, sizeof raw);
        EXPECT_ERRNO_KEPT(VQXSI_GetScanEnginePropertiesEx(s, reinterpret_cast<VQX_SCANENGINE_PROPERTIES_EX*>(raw), size), 1);
        const uint32_t copied = size < 224 ? size : 224;
        EXPECT_EQ(std::memcmp(raw, &full, copied), 0) << "size " << size;
        for (uint32_t i = copied; i < size; ++i)
            ASSERT_EQ(raw[i], 0) << "byte " << i << " of size " << size;
        for (uint32_t i = size; i < size + 16; ++i)
            ASSERT_EQ(raw[i], 0xA5) << "byte " << i << " written past size " << size;
    }
}

TEST_F(Misuse_test, Revision)
{
    char text[16];
    std::memset(text, 'x', sizeof text);
    EXPECT_ERRNO_KEPT(VQXSI_GetScanDriverRevision(nullptr, text), 1);
    EXPECT_STREQ(text, "2.138");
    EXPECT_EQ(text[6], 'x') << "exactly 6 bytes";
    EXPECT_EINVAL(VQXSI_GetScanDriverRevision(nullptr, nullptr), 0);

    const char* a = VQXSI_RevisionString();
    const char* b = VQXSI_RevisionString();
    EXPECT_STREQ(a, "Revision: 2.138");
    EXPECT_EQ(a, b);
}

TEST_F(Misuse_test, SleepTimeout)
{
    uint32_t ms = 99;
    EXPECT_EINVAL(VQXSI_GetSleepTimeout(nullptr, nullptr), 0);
    EXPECT_EQ(VQXSI_GetSleepTimeout(nullptr, &ms), 1);
    EXPECT_EQ(ms, 0u) << "the default starts as 0";

    for (uint32_t value : {1u, kHuge, 0u}) {
        EXPECT_EQ(VQXSI_SetSleepTimeout(nullptr, value), 1);
        EXPECT_EQ(VQXSI_GetSleepTimeout(nullptr, &ms), 1);
        EXPECT_EQ(ms, value);
    }

    Session s;
    EXPECT_EINVAL(VQXSI_GetSleepTimeout(s, nullptr), 0);

    // The longest time-out keeps the idle engine awake after the stop (a
    // short one putting it to sleep is the end-to-end tests' subject).
    EXPECT_TRUE(frames_flow(s));
    EXPECT_EQ(VQXSI_SetSleepTimeout(s, kHuge), 1);
    EXPECT_EQ(VQXSI_GetSleepTimeout(s, &ms), 1);
    EXPECT_EQ(ms, kHuge);
    EXPECT_EQ(VQXSI_StopScanning(s), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(sim().standby()) << "a 49-day time-out put the engine to sleep at once";

    // 0 turns sleeping off again.
    EXPECT_EQ(VQXSI_SetSleepTimeout(s, 0), 1);
    EXPECT_EQ(VQXSI_SetSleepTimeout(nullptr, 0), 1);
}

} // namespace
} // namespace misuse
