// The simulator's side of the hardware-layer contract beyond what the
// conformance suite checks on it: buffer states, frame conditions, stop
// paths, GetConfig, PSoC, InitHWLayer and the tools' C interface.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "Simulator.h"
#include "sim_harness.h"
#include "vqxsim_c.h"

using namespace simtest;
using vqxsim::Buffer_state;

TEST(SimContract, BuffersFilledOnlyWhenArmedInOrder)
{
    vqxsim::Config c = step_config();
    c.buffers = 3;
    auto sim = make_sim(c);
    IHwl& hwl = *sim->hwl();
    uint64_t n = 0;
    IHwl::Image_buffer_pointers* b = hwl.GetImageBuffers(n);
    ASSERT_EQ(3u, n);
    size_t size = size_t(hwl.GetScanWidth()) * hwl.GetScanHeight();
    for (unsigned i = 0; i < n; ++i) {
        EXPECT_EQ(b[i].image, b[i].capture);
        std::memset(b[i].image, 0x5A, size);
    }

    Vsync_log log;
    start_streaming(hwl, log);
    EXPECT_EQ(0u, sim->step(1, 30)) << "no armed buffer, no frame";
    ASSERT_TRUE(hwl.InitCapture(b[2].handle));
    ASSERT_TRUE(hwl.InitCapture(b[0].handle));
    EXPECT_TRUE(hwl.InitCapture(b[0].handle)) << "arming twice is harmless";
    EXPECT_EQ(2u, sim->step(2));
    EXPECT_EQ((std::vector<int>{b[2].handle, b[0].handle}), log.take());
    EXPECT_TRUE(b[1].image[0] == 0x5A && b[1].image[size - 1] == 0x5A) << "an unarmed buffer is never written";
    EXPECT_NE(0x5A, b[2].image[size - 1]);
    EXPECT_EQ((std::vector<Buffer_state>{Buffer_state::delivered, Buffer_state::free, Buffer_state::delivered}),
              sim->buffer_states());

    // Released buffers come back; a delivered one may be re-armed directly.
    hwl.ReleaseBuffer(b[2].handle);
    EXPECT_EQ(Buffer_state::free, sim->buffer_state(b[2].handle));
    ASSERT_TRUE(hwl.InitCapture(b[0].handle));
    EXPECT_EQ(1u, sim->step(1));
    EXPECT_EQ(std::vector<int>{b[0].handle}, log.take());

    // Releasing an armed buffer takes it back unfilled.
    ASSERT_TRUE(hwl.InitCapture(b[1].handle));
    hwl.ReleaseBuffer(b[1].handle);
    EXPECT_EQ(0u, sim->step(1, 30));
    EXPECT_EQ(0x5A, b[1].image[0]);

    // Bad handles are refused and counted.
    EXPECT_FALSE(hwl.InitCapture(0));
    EXPECT_FALSE(hwl.InitCapture(0x7FFF));
    hwl.ReleaseBuffer(b[1].handle);  // already free
    hwl.ReleaseBuffer(-1);
    vqxsim::Counters k = sim->counters();
    EXPECT_EQ((std::vector<uint64_t>{2, 2, 3, 3}),
              (std::vector<uint64_t>{k.bad_captures, k.bad_releases, k.frames_delivered, k.vsyncs}));
    hwl.ReleaseBuffer(b[0].handle);
    EXPECT_EQ(3u, sim->buffers_in(Buffer_state::free));
}

TEST(SimContract, FramesNeedSupplyWakeStreamingAndTransfer)
{
    auto sim = make_sim(step_config());
    IHwl& hwl = *sim->hwl();
    Vsync_log log;
    start_streaming(hwl, log);
    IHwl::Image_buffer_pointers* b = buffers(hwl);
    ASSERT_TRUE(hwl.InitCapture(b[0].handle));
    ASSERT_TRUE(hwl.StopScanning());  // transfer stopped
    EXPECT_EQ(0u, sim->step(1, 30));
    ASSERT_TRUE(hwl.StartScanning());
    ASSERT_TRUE(write16(hwl, 0x301A, 0x30D8));  // not streaming
    EXPECT_FALSE(sim->streaming());
    EXPECT_EQ(0u, sim->step(1, 30));
    uint16_t mode = 1;
    ASSERT_TRUE(hwl.WriteReg(0x301C, &mode, 1));  // mode select streams too
    EXPECT_TRUE(sim->streaming());
    EXPECT_EQ(1u, sim->step(1));
    EXPECT_EQ(std::vector<int>{b[0].handle}, log.take());

    // Supply off: registers back to power-on values, no access, no frames.
    ASSERT_TRUE(hwl.InitCapture(b[0].handle));
    ASSERT_TRUE(hwl.ImagerPowerOff());
    uint16_t v = 0;
    EXPECT_FALSE(hwl.ReadReg(0x3012, &v, 2));
    EXPECT_FALSE(write16(hwl, 0x301A, 0x30DC));
    EXPECT_EQ(0u, sim->step(1, 30));
    ASSERT_TRUE(hwl.ImagerPowerOn());
    EXPECT_EQ(0x0010, read16(hwl, 0x3012));
    EXPECT_FALSE(sim->streaming());
}

namespace {

struct Stop_probe {
    std::atomic<int> calls{0};
    static void done(void* self) { ++static_cast<Stop_probe*>(self)->calls; }
    bool wait_for(int n, int ms)
    {
        for (int i = 0; i < ms && calls < n; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return calls >= n;
    }
};

}  // namespace

TEST(SimContract, ImmediateDeferredAndNeverConfirmedStops)
{
    auto sim = make_sim(step_config());
    Vsync_log log;
    start_streaming(*sim->hwl(), log);
    ASSERT_TRUE(sim->hwl()->InitCapture(buffers(*sim->hwl())[1].handle));
    Stop_probe immediate;
    EXPECT_TRUE(sim->hwl()->RequestStopScanning(&Stop_probe::done, &immediate));
    EXPECT_EQ(1u, sim->step(1)) << "an armed capture still completes";
    EXPECT_FALSE(immediate.wait_for(1, 20));
    EXPECT_EQ(0u, sim->counters().stop_confirmations);

    auto deferred = make_sim(step_config("defer_stop=10"));
    Stop_probe probe;
    EXPECT_FALSE(deferred->hwl()->RequestStopScanning(&Stop_probe::done, &probe));
    EXPECT_TRUE(probe.wait_for(1, 2000));
    EXPECT_FALSE(probe.wait_for(2, 30)) << "confirmed exactly once";
    EXPECT_FALSE(deferred->hwl()->RequestStopScanning(nullptr, nullptr)) << "a null callback is skipped";
    EXPECT_EQ(2u, deferred->counters().stop_requests);

    auto silent = make_sim(step_config("never_confirm_stop"));
    Stop_probe quiet;
    EXPECT_FALSE(silent->hwl()->RequestStopScanning(&Stop_probe::done, &quiet));
    EXPECT_FALSE(quiet.wait_for(1, 40));
}

TEST(SimContract, GetConfigWithinTheCallersSizePsocRegistersLightsAndIdentity)
{
    vqxsim::Config c = step_config();
    c.capture_mode = 5;
    c.variant = 2;
    c.orientation = 180;
    c.engine_id = 0x01020304;
    c.serial = "SN12345";
    c.revision_low = 7;
    c.revision_high = 9;
    c.aimer_offset[1] = 0x42;
    auto sim = make_sim(c);
    IHwl& hwl = *sim->hwl();
    IHwl::Config full{24, 3, 0, 7, 7};
    hwl.GetConfig(&full);
    EXPECT_EQ((std::vector<uint64_t>{24, 5, 2u | 180u << 16, 1, 42}),
              (std::vector<uint64_t>{full.size, full.capture_mode, full.engine_variant, full.imager_link, full.register_table}));
    IHwl::Config part{12, 3, 0xEE, 0xEE, 0xEE};
    hwl.GetConfig(&part);
    EXPECT_EQ((std::vector<uint64_t>{12, 5, 0xEE, 0xEE, 0xEE}),
              (std::vector<uint64_t>{part.size, part.capture_mode, part.engine_variant, part.imager_link, part.register_table}));
    hwl.GetConfig(nullptr);

    ASSERT_TRUE(hwl.IsPsocSupported());
    unsigned char image[80];
    ASSERT_TRUE(hwl.ReadIIC_PSOC(0, image, 80));
    EXPECT_EQ(0, std::memcmp(image, "\x01\x02\x03\x04SN12345   ", 14));
    EXPECT_EQ((std::vector<int>{0x42, 7, 9}), (std::vector<int>{image[0x1B], image[0x38], image[0x39]}));
    EXPECT_FALSE(hwl.ReadIIC_PSOC(79, image, 2)) << "past register 0x4F";
    EXPECT_FALSE(hwl.ReadIIC_PSOC(0, nullptr, 1));

    unsigned char lights = 0x0B;  // aimer, illumination, boost 2
    ASSERT_TRUE(hwl.WriteIIC_PSOC(0x32, &lights, 1));
    EXPECT_TRUE(sim->aimer() && sim->illumination());
    EXPECT_EQ(0x0B, sim->light_register());
    unsigned char reset = 1;
    ASSERT_TRUE(hwl.WriteIIC_PSOC(55, &reset, 1));
    unsigned char back = 0xFF;
    ASSERT_TRUE(hwl.ReadIIC_PSOC(55, &back, 1));
    EXPECT_EQ(0, back) << "the command register reads 0";
    std::vector<vqxsim::Psoc_write> writes = sim->psoc_writes();
    ASSERT_EQ(2u, writes.size());
    EXPECT_EQ(55, writes[1].address);
    EXPECT_EQ(std::vector<uint8_t>{1}, writes[1].bytes);

    ASSERT_TRUE(hwl.ImagerPowerOn());
    ASSERT_TRUE(hwl.ImagerPowerOff());
    EXPECT_EQ(0, sim->light_register()) << "lights go off with the supply";
    EXPECT_TRUE(hwl.AimOn());
    EXPECT_TRUE(sim->aimer());
    EXPECT_TRUE(hwl.IllumConfig(3));
    EXPECT_EQ(3u, sim->illum_config());

    vqxsim::Config none = step_config();
    none.psoc_fitted = false;
    auto bare = make_sim(none);
    EXPECT_FALSE(bare->hwl()->IsPsocSupported() || bare->hwl()->ReadIIC_PSOC(0, image, 1) ||
                 bare->hwl()->WriteIIC_PSOC(0x32, &lights, 1));
}

TEST(SimContract, InitHWLayerInstallationEnvironmentAndFrameInfo)
{
    auto sim = make_sim(step_config());
    vqxsim::set_instance_for_InitHWLayer(sim->hwl());
    EXPECT_EQ(sim->hwl(), InitHWLayer(nullptr));
    vqxsim::set_instance_for_InitHWLayer(nullptr);

    if (!vqxsim::environment_instance()) {
        setenv("VQXSIM_ENGINE", "NO-SUCH-ENGINE", 1);
        EXPECT_EQ(nullptr, InitHWLayer(nullptr)) << "engines without a model are refused";
        setenv("VQXSIM_ENGINE", "X7710", 1);
        setenv("VQXSIM_FPS", "fast", 1);
        EXPECT_EQ(nullptr, InitHWLayer(nullptr)) << "a bad variable is refused";
        unsetenv("VQXSIM_FPS");
        IHwl* env = InitHWLayer(nullptr);
        ASSERT_NE(nullptr, env);
        EXPECT_EQ(env, InitHWLayer(nullptr));
        EXPECT_STREQ("X7710", env->EngineType());
        unsetenv("VQXSIM_ENGINE");
    }

    // The tools' frame information follows the frame in each buffer.
    Vsync_log log;
    start_streaming(*sim->hwl(), log, 75, 0x10);
    const unsigned char* image = capture(*sim, 1);
    struct vqxsim_frame_info info;
    ASSERT_EQ(0, vqxsim_frame_info(image + 1000, &info));
    vqxsim::Frame_record f = sim->frames().back();
    EXPECT_DOUBLE_EQ(f.exposure_us, info.exposure_us);
    EXPECT_FLOAT_EQ(2.0f, info.gain);
    EXPECT_EQ((std::vector<uint64_t>{75, 0x10, 0x80, f.number}),
              (std::vector<uint64_t>{info.rows, uint64_t(info.gain_code), uint64_t(info.digital_gain_code), info.frame_number}));
    EXPECT_EQ(-1, vqxsim_frame_info(buffers(*sim->hwl())[0].image, &info)) << "never filled";
    EXPECT_EQ(-1, vqxsim_frame_info(&info, &info));
    EXPECT_EQ(-1, vqxsim_frame_info(image, nullptr));
}

TEST(SimContract, ConfigurationFromEnvironmentAndFaultLists)
{
    const std::pair<const char*, const char*> vars[] = {
        {"VQXSIM_FPS", "30"}, {"VQXSIM_BUFFERS", "6"}, {"VQXSIM_SCENE", "flat:17"}, {"VQXSIM_FORMAT", "qrcode"},
        {"VQXSIM_FAULTS", "drop=5,stall_after=20,regfail_write=0.01,defer_stop=50,never_confirm_stop,storm"},
        {"VQXSIM_ORIENTATION", "180"}, {"VQXSIM_REVISION", "3,4"}, {"VQXSIM_AIMER_OFFSET", "1,2,0x10,4"}};
    for (auto& v : vars)
        setenv(v.first, v.second, 1);
    vqxsim::Config c;
    std::string error;
    bool ok = vqxsim::Config::from_environment(c, &error);
    for (auto& v : vars)
        unsetenv(v.first);
    ASSERT_TRUE(ok) << error;
    EXPECT_EQ(30.0, c.fps);
    EXPECT_TRUE(c.scene == vqxsim::Scene_kind::flat && c.format == vqxsim::Barcode_format::qr_code);
    EXPECT_EQ((std::vector<long>{6, 17, 180, 3, 4, 0x10, 5, 20, 50}),
              (std::vector<long>{long(c.buffers), long(c.flat_level), long(c.orientation), long(c.revision_low),
                                 long(c.revision_high), long(c.aimer_offset[2]), long(c.faults.drop.n),
                                 long(c.faults.stall_after), long(c.faults.defer_stop_ms)}));
    EXPECT_EQ(vqxsim::Trigger::Kind::nth, c.faults.drop.kind);
    EXPECT_EQ(vqxsim::Trigger::Kind::probability, c.faults.regfail_write.kind);
    EXPECT_EQ(vqxsim::Trigger::Kind::always, c.faults.storm.kind);
    EXPECT_TRUE(c.faults.never_confirm_stop && !c.faults.duplicate.configured());

    vqxsim::Trigger t;
    EXPECT_TRUE(t.parse("*3") && t.kind == vqxsim::Trigger::Kind::every_nth && t.n == 3);
    EXPECT_TRUE(t.parse("4+") && t.kind == vqxsim::Trigger::Kind::from_nth && t.n == 4);
    for (const char* bad : {"0", "-1", "1.5", "*0", "x", "+"})
        EXPECT_FALSE(t.parse(bad)) << bad;
    vqxsim::Faults f;
    EXPECT_FALSE(f.parse("explode=1", &error));
    EXPECT_NE(std::string::npos, error.find("explode"));
    EXPECT_FALSE(f.parse("stall_after", &error));

    setenv("VQXSIM_BUFFERS", "0", 1);
    EXPECT_FALSE(vqxsim::Config::from_environment(c, &error));
    unsetenv("VQXSIM_BUFFERS");
    EXPECT_NE(std::string::npos, error.find("VQXSIM_BUFFERS"));
    vqxsim::Config bad = step_config();
    bad.scene = vqxsim::Scene_kind::image_file;
    bad.image_file = "/nonexistent/scene.pgm";
    EXPECT_EQ(nullptr, vqxsim::Simulator::create(bad, &error));
    EXPECT_NE(std::string::npos, error.find("scene.pgm"));
    bad = step_config();
    bad.strip_pause_us = 100001;  // keeps step() bounded
    EXPECT_EQ(nullptr, vqxsim::Simulator::create(bad, &error));
    EXPECT_NE(std::string::npos, error.find("strip pause"));
}
