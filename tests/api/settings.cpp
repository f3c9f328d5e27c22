// End to end through the C interface on the simulated engine: lights,
// exposure settings and tags reaching the engine, the properties record, and
// the sleep time-out. (Record size rules are the misuse suite's subject.)
#include "api_support.h"


#include "vqxsim_c.h"

namespace api_test {
namespace {

class Settings : public Api_test {};

VQX_SCANNER_LIGHTING get_lights(VQXSI_HANDLE h)
{
    VQX_SCANNER_LIGHTING l;
    l.size = sizeof l;
    EXPECT_EQ(1, VQXSI_GetLights(h, &l));
    return l;
}

// Pulls @p n frames, giving each back; the frame info of the last one.
struct vqxsim_frame_info pull_frames(VQXSI_HANDLE h, int n)
{
    struct vqxsim_frame_info info{};
    for (int i = 0; i < n; ++i) {
        void* frame = VQXSI_GetNewScan(h);
        EXPECT_NE(nullptr, frame);
        if (!frame)
            break;
        EXPECT_EQ(0, vqxsim_frame_info(frame, &info));
        VQXSI_UnlockBuffer(h, frame);
    }
    return info;
}

uint32_t get_tag(VQXSI_HANDLE h, uint32_t tag)
{
    uint32_t pair[2] = {tag, 0xDEADBEEF};
    EXPECT_EQ(1, VQXSI_GetExposureSettings(h, pair, sizeof pair));
    return pair[1];
}

TEST_F(Settings, LightsReachTheEngineAndKeepTheRecordSizeRules)
{
    Session s;
    VQX_SCANNER_LIGHTING l = get_lights(s);
    EXPECT_EQ(28u, l.size);
    EXPECT_EQ(5u, l.scanning_mode);
    EXPECT_EQ(0u, l.idle_mode);
    EXPECT_EQ(100u, l.level_a);
    EXPECT_EQ(100u, l.level_b);

    // Idle lights: the aimer (PSoC code 1) while not scanning.
    l.idle_mode = VQX_LIGHTS_AIMER;
    l.scanning_mode = VQX_LIGHTS_ILLUMINATION;
    l.level_b = 77;
    ASSERT_EQ(1, VQXSI_SetLights(s, &l));
    EXPECT_EQ(1, sim().light_register() & 3);
    EXPECT_EQ(77u, sim().illum_config());

    // While scanning the scanning mode shows (illumination, PSoC code 2).
    ASSERT_EQ(1, VQXSI_StartScanning(s));
    pull_frames(s, 2);
    EXPECT_EQ(2, sim().light_register() & 3);
    EXPECT_TRUE(sim().illumination());
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    ASSERT_TRUE(wait_until([] { return !sim().streaming(); }));

    // Idle lights off again.
    l = get_lights(s);
    l.idle_mode = VQX_LIGHTS_OFF;
    ASSERT_EQ(1, VQXSI_SetLights(s, &l));
    EXPECT_EQ(0, sim().light_register() & 3);
}

TEST_F(Settings, TagsRoundTripWithTheirConversionsPerSession)
{
    Session a, b;
    const uint32_t set[] = {ES_MAX_EXP, 100, ES_FIXED_GAIN, 4, ES_TARGET_VALUE, 90, 6, 1, ES_FAST_START, 1};
    ASSERT_EQ(1, VQXSI_SetExposureSettings(a, set, sizeof set));
    EXPECT_EQ(12700u, get_tag(a, ES_MAX_EXP_US));
    EXPECT_EQ(100u, get_tag(a, ES_MAX_EXP));
    EXPECT_EQ(1024u, get_tag(a, ES_FIXED_GAIN_256));
    EXPECT_EQ(4u, get_tag(a, ES_FIXED_GAIN));
    EXPECT_EQ(90u, get_tag(a, ES_TARGET_VALUE));

    const uint32_t more[] = {ES_MAX_EXP_US, 12799, ES_FIXED_GAIN, 16777215};
    ASSERT_EQ(1, VQXSI_SetExposureSettings(a, more, sizeof more));
    EXPECT_EQ(100u, get_tag(a, ES_MAX_EXP));
    EXPECT_EQ(4294967040u, get_tag(a, ES_FIXED_GAIN_256));

    // The other session keeps its own settings.
    EXPECT_EQ(120u, get_tag(b, ES_TARGET_VALUE));
    EXPECT_NE(12799u, get_tag(b, ES_MAX_EXP_US));

    // The exposure mode is a read-modify-write: the tags stay.
    ASSERT_EQ(1, VQXSI_SetExposureMode(a, VQX_EXPOSURE_FIXED));
    EXPECT_EQ(90u, get_tag(a, ES_TARGET_VALUE));
    EXPECT_EQ(12799u, get_tag(a, ES_MAX_EXP_US));
}

TEST_F(Settings, FixedExposureAndGainReachTheSensor)
{
    Session s;
    ASSERT_EQ(1, VQXSI_SetExposureMode(s, VQX_EXPOSURE_FIXED));
    const uint32_t fixed[] = {ES_FIXED_EXP_US, 4000, ES_FIXED_GAIN_256, 512};
    ASSERT_EQ(1, VQXSI_SetExposureSettings(s, fixed, sizeof fixed));
    ASSERT_EQ(1, VQXSI_StartScanning(s));
    struct vqxsim_frame_info info = pull_frames(s, 4);
    EXPECT_NEAR(4000.0, info.exposure_us, 25.0);
    EXPECT_LE(info.gain, 2.0f + 1e-3f);
    EXPECT_GE(info.gain, 1.7f);
    EXPECT_NEAR(4000.0, sim().reg(0x3012) * info.exposure_us / info.rows, 25.0);

    // A change while scanning applies to the running scan.
    const uint32_t shorter[] = {ES_FIXED_EXP_US, 2000, ES_FIXED_GAIN_256, 1024};
    ASSERT_EQ(1, VQXSI_SetExposureSettings(s, shorter, sizeof shorter));
    info = pull_frames(s, 10);
    EXPECT_NEAR(2000.0, info.exposure_us, 25.0);
    EXPECT_LE(info.gain, 4.0f + 1e-3f);
    EXPECT_GE(info.gain, 3.4f);
    EXPECT_EQ(1, VQXSI_StopScanning(s));

    // Changed while not scanning: applied at the next start.
    const uint32_t later[] = {ES_FIXED_EXP_US, 3000};
    ASSERT_EQ(1, VQXSI_SetExposureSettings(s, later, sizeof later));
    ASSERT_EQ(1, VQXSI_StartScanning(s));
    info = pull_frames(s, 4);
    EXPECT_NEAR(3000.0, info.exposure_us, 25.0);
    EXPECT_EQ(1, VQXSI_StopScanning(s));
}

TEST_F(Settings, PropertiesMatchTheSimulatedEngine)
{
    Session a;
    VQX_SCANENGINE_PROPERTIES_EX p;
    ASSERT_EQ(1, VQXSI_GetScanEnginePropertiesEx(a, &p, sizeof p));
    IHwl& hwl = *sim().hwl();
    EXPECT_EQ(224u, p.size);
    EXPECT_EQ(18u, p.engine_id_class);  // serial interface (variant 1)
    EXPECT_EQ(hwl.GetScanHeight(), p.image_height);
    EXPECT_EQ(hwl.GetScanWidth(), p.image_width);
    EXPECT_EQ(8u, p.pixel_depth);
    EXPECT_EQ(0u, p.reserved1);
    EXPECT_EQ(7u, p.psoc_rev_low);
    EXPECT_EQ(3u, p.psoc_rev_high);
    EXPECT_STREQ("API0000042", p.serial_number);
    EXPECT_EQ(0x7710u, p.engine_id);
    // The aimer's centre: the image centre moved by the PSoC's offset.
    EXPECT_EQ(p.image_width / 2 + 12, p.aimer_x);
    EXPECT_EQ(p.image_height / 2 - 10, p.aimer_y);

    // Once the engine has streamed, new sessions see the buffer count.
    ASSERT_EQ(1, VQXSI_StartScanning(a));
    pull_frames(a, 1);
    ASSERT_EQ(1, VQXSI_StopScanning(a));
    Session b;
    VQX_SCANENGINE_PROPERTIES_EX pb;
    ASSERT_EQ(1, VQXSI_GetScanEnginePropertiesEx(b, &pb, sizeof pb));
    EXPECT_EQ(sim().config().buffers, pb.buffer_count);

}

TEST_F(Settings, SleepTimeOutPutsTheIdleEngineToSleepAndScanningWakesIt)
{
    uint32_t ms = 99;
    ASSERT_EQ(1, VQXSI_SetSleepTimeout(nullptr, 100));
    ASSERT_EQ(1, VQXSI_GetSleepTimeout(nullptr, &ms));
    EXPECT_EQ(100u, ms);
    {
        Session s;
        // The first open takes the default; changing the default later does
        // not change the open engine's time-out.
        ASSERT_EQ(1, VQXSI_SetSleepTimeout(nullptr, 0));
        ASSERT_EQ(1, VQXSI_GetSleepTimeout(s, &ms));
        EXPECT_EQ(100u, ms);
        EXPECT_TRUE(wait_until([] { return sim().standby(); }, 2000)) << "idle engine did not sleep";

        ASSERT_EQ(1, VQXSI_StartScanning(s));
        EXPECT_NE(0u, pull_frames(s, 2).frame_number);
        EXPECT_FALSE(sim().standby());
        const auto stopped = std::chrono::steady_clock::now();
        ASSERT_EQ(1, VQXSI_StopScanning(s));
        EXPECT_TRUE(wait_until([] { return sim().standby(); }, 2000)) << "engine did not sleep after the scan";
        EXPECT_GE(std::chrono::steady_clock::now() - stopped, std::chrono::milliseconds(98))
            << "slept before the time-out";

        // Idle lights hold sleep off.
        ASSERT_EQ(1, VQXSI_StartScanning(s));
        pull_frames(s, 1);
        VQX_SCANNER_LIGHTING l = get_lights(s);
        l.idle_mode = VQX_LIGHTS_AIMER;
        ASSERT_EQ(1, VQXSI_SetLights(s, &l));
        ASSERT_EQ(1, VQXSI_StopScanning(s));
        l.idle_mode = VQX_LIGHTS_ILLUMINATION;  // other idle lights: still held awake
        ASSERT_EQ(1, VQXSI_SetLights(s, &l));
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        EXPECT_FALSE(sim().standby()) << "slept despite idle lights";
        l.idle_mode = VQX_LIGHTS_OFF;
        ASSERT_EQ(1, VQXSI_SetLights(s, &l));
        EXPECT_TRUE(wait_until([] { return sim().standby(); }, 2000));

        // Idle lights switched on while asleep hold the engine awake (this
        // engine shows them at its next power-up); switched off, it goes
        // to sleep once more after the time-out.
        const uint64_t downs = sim().calls("ImagerPowerDown");
        l.idle_mode = VQX_LIGHTS_AIMER;
        ASSERT_EQ(1, VQXSI_SetLights(s, &l));
        l.idle_mode = VQX_LIGHTS_OFF;
        ASSERT_EQ(1, VQXSI_SetLights(s, &l));
        EXPECT_TRUE(wait_until([downs] { return sim().calls("ImagerPowerDown") > downs; }, 2000))
            << "the engine held awake did not sleep again";

        ASSERT_EQ(1, VQXSI_SetSleepTimeout(s, 0));
        ASSERT_EQ(1, VQXSI_GetSleepTimeout(s, &ms));
        EXPECT_EQ(0u, ms);
    }
    ASSERT_EQ(1, VQXSI_GetSleepTimeout(nullptr, &ms));
    EXPECT_EQ(0u, ms);
}

} // namespace
} // namespace api_test
