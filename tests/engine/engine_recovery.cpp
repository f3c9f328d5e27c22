// Engine-specific recovery, end to end through the C interface on the
// simulated sensors, one process per case (ctest runs each alone):
//   - MT9V022: no frame within 200 ms of the trigger gives exactly one
//     late-vsync report, one sensor reset and one table reload, and frames
//     flow again; the last close (after a scan or without one) powers the
//     sensor down and off and closes the layer's session once;
//   - RILO: its engine id class; a stop puts the sensor to sleep (its
//     output really stops) and the next start wakes it;
//   - X5501: an automatic scan starts from the exposure the last one ended
//     with;
//   - APTINA: a scan delivers no frame (the trait leaves frame delivery
//     unimplemented) and no call waits for one;
//   - every streaming engine: bad inputs (EngineMisuse, below).
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <VQXScanInterface.h>

#include "Output_capture.h"
#include "Sim_client.h"
#include "vqxsim_c.h"
#include "Simulator.h"

namespace {

using sim_client::Session;
using sim_client::wait_until;

vqxsim::Simulator* start_sim(const char* engine, const char* faults)
{
    setenv("VQX_REGISTER_TABLE_DIR", VQX_TABLE_SOURCE_DIR, 1);
    vqxsim::Config config;
    config.engine = engine;
    config.fps = 120.0;
    config.render = vqxsim::Render_mode::fast;
    config.capture_mode = 3;
    std::string error;
    EXPECT_TRUE(config.faults.parse(faults, &error)) << error;
    return sim_client::kept_simulator(config);
}

size_t count(const std::string& text, const std::string& part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

TEST(EngineRecovery, MT9V022LateVsyncReloadsTheTableOnceAndFramesFlow)
{
    // The sensor streams from its power-up at the open, 130 ms of power-up
    // waits before the scan's trigger: its first frame comes about 270 ms
    // after the trigger, past the 200 ms watch and before the 300 ms stall.
    vqxsim::Simulator* sim = start_sim("MT9V022", "first_frame_delay=400");
    testing::internal::CaptureStderr();
    {
        Session s;
        ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(s));
        ASSERT_EQ(1, VQXSI_StartScanning(s));
        for (int i = 0; i < 10; ++i) {
            void* frame = VQXSI_GetNewScan(s);
            ASSERT_NE(nullptr, frame) << "frame " << i;
            EXPECT_EQ(1, VQXSI_UnlockBuffer(s, frame));
        }
        // The reset returned the sensor to its automatic exposure; the
        // table's reload made it manual again.
        EXPECT_EQ(0, sim->reg(0xAF));
        EXPECT_EQ(1, VQXSI_StopScanning(s));
    }
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(1u, count(log, "A late vsync has occured")) << log;
    // Two sensor resets through the PSoC: power-up and late vsync.
    unsigned resets = 0;
    for (const vqxsim::Psoc_write& w : sim->psoc_writes())
        resets += w.address == 0x82;
    EXPECT_EQ(2u, resets);
    EXPECT_TRUE(wait_until([sim] { return sim->buffers_in(vqxsim::Buffer_state::delivered) == 0; }, 2000));
    // The last close powers the sensor down, then off.
    EXPECT_FALSE(sim->supplied());
    EXPECT_TRUE(sim->standby());
    EXPECT_EQ(1u, sim->calls("OpenSession"));
    EXPECT_EQ(1u, sim->calls("CloseSession"));
    // A session closed without a scan: the open powered the sensor up and
    // took it out of standby; the close puts it back before cutting supply.
    {
        Session s;
        ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(s));
        EXPECT_TRUE(sim->supplied() && !sim->standby());
    }
    EXPECT_FALSE(sim->supplied());
    EXPECT_TRUE(sim->standby());
    sim->shutdown();
}

TEST(EngineRecovery, RiloSleepsWhenStoppedAndWakesOnStart)
{
    vqxsim::Simulator* sim = start_sim("RILO", "");
    Session s;
    ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(s));
    // The engine's id class (15), also in a record of 8 bytes.
    for (unsigned size : {8u, unsigned(sizeof(VQX_SCANENGINE_PROPERTIES_EX))}) {
        VQX_SCANENGINE_PROPERTIES_EX p{};
        ASSERT_EQ(1, VQXSI_GetScanEnginePropertiesEx(s, &p, size));
        EXPECT_EQ(15u, p.engine_id_class) << size;
    }
    for (int scan = 0; scan < 2; ++scan) {
        SCOPED_TRACE("scan " + std::to_string(scan));
        ASSERT_EQ(1, VQXSI_StartScanning(s));
        for (int i = 0; i < 5; ++i) {
            void* frame = VQXSI_GetNewScan(s);
            ASSERT_NE(nullptr, frame);
            EXPECT_EQ(1, VQXSI_UnlockBuffer(s, frame));
        }
        EXPECT_TRUE(sim->streaming());
        EXPECT_EQ(1, VQXSI_StopScanning(s));
        // Asleep: the sensor makes no frames at all.
        EXPECT_TRUE(wait_until([sim] { return !sim->streaming(); }, 1000));
        const uint64_t made = sim->counters().sensor_frames;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(made, sim->counters().sensor_frames);
    }
    EXPECT_TRUE(wait_until([sim] { return sim->buffers_in(vqxsim::Buffer_state::delivered) == 0; }, 2000));
    sim->shutdown();
}

// The Aptina engine leaves frame delivery to operations it does not
// implement: a scan starts, delivers nothing, and nothing waits for it.
TEST(EngineRecovery, AptinaScansDeliverNoFrameAndNothingWaits)
{
    vqxsim::Simulator* sim = start_sim("APTINA", "");
    Session s;
    ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(s));
    EXPECT_EQ(1, VQXSI_StartScanning(s));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(nullptr, VQXSI_GetNewScan(s));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_TRUE(sim->aimer() && sim->illumination()) << "the scanning lights are on";
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    EXPECT_TRUE(wait_until([sim] { return !sim->aimer() && !sim->illumination(); }, 1000)) << "lights off";
    EXPECT_GT(sim->calls("SetExposureGain"), 0u) << "the starting exposure reached the layer";
    sim->shutdown();
}

// X5501: an automatic scan starts from the exposure and gain the sensor
// ended the last scan with (rows from 900 up restart at 200), not from the
// fixed settings.
TEST(EngineRecovery, X5501ScanStartsFromTheExposureTheLastEndedWith)
{
    vqxsim::Simulator* sim = start_sim("X5501", "");
    Session s;
    ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(s));
    struct vqxsim_frame_info last{}, info{};
    for (int scan = 0; scan < 2; ++scan) {
        ASSERT_EQ(1, VQXSI_StartScanning(s));
        for (int i = 0; i < 40; ++i) {
            void* frame = VQXSI_GetNewScan(s);
            ASSERT_NE(nullptr, frame);
            ASSERT_EQ(0, vqxsim_frame_info(frame, &info));
            // The first frame may have been exposed before the start's
            // write; the next ones carry it. A scene on target changes
            // little in two frames.
            if (scan == 1 && (i == 1 || i == 2)) {
                const double expected = last.rows >= 900 ? 200 : last.rows;
                EXPECT_NEAR(expected, info.rows, expected / 10 + 2) << "frame " << i;
                EXPECT_NEAR(last.gain, info.gain, last.gain / 8) << "frame " << i;
            }
            EXPECT_EQ(1, VQXSI_UnlockBuffer(s, frame));
        }
        if (scan == 0)
            last = info;
        EXPECT_EQ(1, VQXSI_StopScanning(s));
    }
    sim->shutdown();
}

}  // namespace

namespace {

// Bad inputs on every streaming engine, one engine a process: a close while
// the client holds every buffer it can (all but the driver's one to capture
// into), a close and a stop in the first stall's recovery (the MT9V022's:
// its late-vsync reset), and every register access failing after the
// power-up. Each ends with the interface's results (errno untouched), the
// engine's own log lines, and every frame back with the simulated transfer.
struct Misuse_engine {
    const char* type;
    const char* retry_line;    ///< the first stall retry's line; X7710: with its status and frame count
    const char* stop_line;     ///< printed at every stop
    const char* regfail_line;  ///< printed when every register access fails
    bool streams_without_registers;
};
const Misuse_engine kMisuseEngines[] = {
    {"X7710", "Stall2: Status = 0x%02X frames = %u\n", "", "", false},
    {"X5501", "trigger_off()", "trigger_off()", "ERROR: Command failed, err 5\r\n", false},
    {"X5503", "trigger_off()", "trigger_off()", "ERROR: Command failed, err 5\r\n", false},
    {"MT9V022", "A late vsync has occured\r\n", "", "", true},
    {"RILO", "", "", "", false},
    {"KELP", "", "", "", false},
};

void PrintTo(const Misuse_engine& e, std::ostream* os) { *os << e.type; }

class EngineMisuse : public testing::TestWithParam<Misuse_engine> {};

TEST_P(EngineMisuse, EndsWithEveryFrameBack)
{
    const Misuse_engine& e = GetParam();
    if (sim_client::first_case(e.type) != e.type)
        GTEST_SKIP() << "one engine a process (ctest runs each case alone)";
    vqxsim::Simulator* sim = start_sim(e.type, "");
    Output_capture out;
    // After each case: every buffer is free again and every frame back, the
    // calls left errno alone, and the log has each of @p lines (or nothing).
    auto ended = [sim](std::vector<std::string> lines) {
        EXPECT_EQ(12345, errno);
        EXPECT_TRUE(wait_until([sim] {
            const vqxsim::Counters c = sim->counters();
            return c.frames_delivered == c.frames_returned
                   && sim->buffers_in(vqxsim::Buffer_state::free) == sim->config().buffers;
        }));
        const std::vector<std::string> log = Output_capture::take();
        lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
        for (const std::string& line : lines)
            EXPECT_NE(0, std::count(log.begin(), log.end(), line)) << line;
        EXPECT_TRUE(!lines.empty() || log.empty()) << log.front();
    };

    VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
    ASSERT_EQ(1, VQXSI_StartScanning(h));
    for (unsigned i = 0; i + 1 < sim->config().buffers; ++i)
        ASSERT_NE(nullptr, VQXSI_GetNewScan(h)) << i;
    // The frame after next comes once the next one has been taken back.
    const uint64_t delivered = sim->counters().frames_delivered;
    ASSERT_TRUE(wait_until([&] { return sim->counters().frames_delivered >= delivered + 2; }));
    errno = 12345;
    VQXSI_CloseSessionWithScanEngine(h);
    ended({"All image buffers but one are held by clients: new frames are taken back until a client gives a "
           "buffer back (4 buffers).\r\n", e.stop_line});

    // No frame comes (the next is a minute away; one the last stream still
    // finishes is held back). The recovery holds the driver's lock: the call
    // made once it has touched the engine waits for it.
    for (bool close : {true, false}) {
        SCOPED_TRACE(close ? "close in the stall recovery" : "stop in the stall recovery");
        sim->update_faults([](vqxsim::Faults& f) { f.first_frame_delay_ms = 60000, f.hold_frames = true; });
        Session s;
        ASSERT_EQ(1, VQXSI_StartScanning(s));
        auto touched = [sim] { return sim->calls("ReadReg") + sim->calls("WriteReg") + sim->calls("WriteIIC_PSOC"); };
        const uint64_t before = touched();
        ASSERT_TRUE(wait_until([&] { return touched() > before; })) << "no stall recovery";
        char retry[80];  // what the sensor shows while no frame comes
        std::snprintf(retry, sizeof retry, e.retry_line, unsigned(sim->reg(0x303C)), unsigned(sim->reg(0x303A)));
        errno = 12345;
        if (close)
            s.close();
        else
            EXPECT_EQ(1, VQXSI_StopScanning(s));
        ended({retry, e.stop_line});
        sim->update_faults([](vqxsim::Faults& f) { f = vqxsim::Faults{}; });
    }

    // Every register access fails from the power-up of the open on.
    Session s;
    sim->update_faults([](vqxsim::Faults& f) { f.regfail_read = f.regfail_write = vqxsim::Trigger::all(); });
    errno = 12345;
    EXPECT_EQ(1, VQXSI_StartScanning(s));
    void* frame = VQXSI_GetNewScan(s);
    EXPECT_EQ(e.streams_without_registers, frame != nullptr);
    EXPECT_EQ(frame != nullptr, VQXSI_UnlockBuffer(s, frame));
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    s.close();
    ended({e.regfail_line, e.stop_line});
    sim->shutdown();
}

INSTANTIATE_TEST_SUITE_P(Engines, EngineMisuse, testing::ValuesIn(kMisuseEngines),
                         [](const testing::TestParamInfo<Misuse_engine>& i) { return std::string(i.param.type); });

}  // namespace
