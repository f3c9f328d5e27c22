// Streams never die: every capture mode with several sessions and held
// frames, through the C interface over the shared libraries on the simulated
// engine. Each case runs in its own process (ctest runs each test of this
// program alone): the capture mode is fixed when the driver starts.
//   - HeldFrames: session A pulls and gives back frames in one thread while
//     session B, in another, takes two frames, holds them 50 ms and gives
//     them back, over and over. A's stream never dies; after both close, a
//     new session can hold every buffer but one, and every buffer is back
//     with the hardware layer after each close.
//   - Properties: buffer_count reads 0 before the engine first streams and
//     the number of buffers afterwards, for a session opened before the
//     first scan as for one opened after.
//   - StaleHandles: every function refuses a closed session's handle with
//     EINVAL, also while another thread closes it.
//   - NotImplemented (capture mode 1): the start is recorded, and the first
//     VQXSI_GetNewScan answers NULL at once instead of after 30 s.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <sstream>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <VQXScanInterface.h>

#include "Sim_client.h"
#include "Simulator.h"

namespace {

using sim_client::elapsed_ms;
using sim_client::Session;
using sim_client::wait_until;
using Clock = std::chrono::steady_clock;

constexpr unsigned kBuffers = 4;

struct Case {
    std::string check;
    unsigned mode;
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.check << "_mode" << c.mode; }

std::vector<Case> all_cases()
{
    std::vector<Case> cases;
    for (unsigned mode : {0u, 2u, 3u, 4u, 5u, 6u, 7u}) {
        cases.push_back({"HeldFrames", mode});
        cases.push_back({"StaleHandles", mode});
    }
    cases.push_back({"Properties", 3});
    cases.push_back({"NotImplemented", 1});
    return cases;
}

class StreamSurvival : public testing::TestWithParam<Case> {
protected:
    void SetUp() override
    {
        std::ostringstream name;
        PrintTo(GetParam(), &name);
        const std::string first = sim_client::first_case(name.str());
        if (first != name.str())
            GTEST_SKIP() << "run each case in its own process (ctest does): the driver started with " << first;
        vqxsim::Config config;
        config.fps = 120.0;
        config.buffers = kBuffers;
        config.render = vqxsim::Render_mode::fast;
        config.capture_mode = GetParam().mode;
        sim = sim_client::kept_simulator(config);
    }
    void TearDown() override
    {
        if (!sim)
            return;
        EXPECT_TRUE(all_back()) << sim->buffers_in(vqxsim::Buffer_state::delivered)
                                << " buffers not given back to the hardware layer";
        sim->shutdown();
    }
    bool all_back()
    {
        return wait_until([this] { return sim->buffers_in(vqxsim::Buffer_state::delivered) == 0; }, 2000);
    }

    vqxsim::Simulator* sim = nullptr;
};

TEST_P(StreamSurvival, Run)
{
    const Case& c = GetParam();
    if (c.check == "HeldFrames") {
        {
            Session a, b;
            ASSERT_EQ(1, VQXSI_StartScanning(a));
            ASSERT_EQ(1, VQXSI_StartScanning(b));
            std::atomic<bool> stop{false};
            std::atomic<unsigned> a_frames{0}, a_nulls{0}, b_rounds{0};
            std::thread puller([&] {
                while (!stop) {
                    void* f = VQXSI_GetNewScan(a);
                    if (!f) {
                        ++a_nulls;
                        continue;
                    }
                    ++a_frames;
                    VQXSI_UnlockBuffer(a, f);
                }
            });
            std::thread holder([&] {
                while (!stop) {
                    void* f1 = VQXSI_GetNewScan(b);
                    void* f2 = VQXSI_GetNewScan(b);
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                    if (f1)
                        VQXSI_UnlockBuffer(b, f1);
                    if (f2)
                        VQXSI_UnlockBuffer(b, f2);
                    ++b_rounds;
                }
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(1200));
            const unsigned seen = a_frames;
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
            const unsigned later = a_frames;
            stop = true;
            // The threads may wait for one more frame each.
            puller.join();
            holder.join();
            // Progress, not speed: frames keep reaching A while B holds two
            // (a sanitizer build runs several times slower).
            EXPECT_GE(seen, 5u) << "A's frames in 1.2 s";
            EXPECT_GT(later, seen) << "A's stream died";
            EXPECT_EQ(0u, a_nulls.load());
            EXPECT_GE(b_rounds.load(), 3u);
        }
        EXPECT_TRUE(all_back());
        // A fresh session starts from a clean state: it can hold every
        // buffer but one (the driver keeps one to capture into). The sensor
        // keeps capturing into that one meanwhile, and once one buffer is
        // back a frame reaches the client again.
        Session s;
        ASSERT_EQ(1, VQXSI_StartScanning(s));
        std::vector<void*> held;
        for (unsigned i = 0; i + 1 < kBuffers; ++i) {
            void* f = VQXSI_GetNewScan(s);
            ASSERT_NE(nullptr, f) << "frame " << i;
            held.push_back(f);
        }
        const uint64_t filled = sim->counters().frames_filled;
        EXPECT_TRUE(wait_until([&] { return sim->counters().frames_filled >= filled + 3; }, 2000))
            << "no capture while every buffer but one is held";
        EXPECT_EQ(1, VQXSI_UnlockBuffer(s, held.back()));
        held.pop_back();
        void* f = VQXSI_GetNewScan(s);
        ASSERT_NE(nullptr, f) << "no frame after a buffer came back";
        held.push_back(f);
        for (void* h : held)
            EXPECT_EQ(1, VQXSI_UnlockBuffer(s, h));
    } else if (c.check == "Properties") {
        Session before;
        VQX_SCANENGINE_PROPERTIES_EX p{};
        ASSERT_EQ(1, VQXSI_GetScanEnginePropertiesEx(before, &p, sizeof p));
        EXPECT_EQ(0u, p.buffer_count) << "before the engine first streamed";
        ASSERT_EQ(1, VQXSI_StartScanning(before));
        void* f = VQXSI_GetNewScan(before);
        ASSERT_NE(nullptr, f);
        EXPECT_EQ(1, VQXSI_UnlockBuffer(before, f));
        ASSERT_EQ(1, VQXSI_GetScanEnginePropertiesEx(before, &p, sizeof p));
        EXPECT_EQ(kBuffers, p.buffer_count) << "opened before the first scan";
        EXPECT_EQ(1, VQXSI_StopScanning(before));
        Session after;
        ASSERT_EQ(1, VQXSI_GetScanEnginePropertiesEx(after, &p, sizeof p));
        EXPECT_EQ(kBuffers, p.buffer_count) << "opened after it";
    } else if (c.check == "StaleHandles") {
        VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
        ASSERT_NE(nullptr, h);
        ASSERT_EQ(1, VQXSI_StartScanning(h));
        void* frame = VQXSI_GetNewScan(h);
        ASSERT_NE(nullptr, frame);
        VQXSI_CloseSessionWithScanEngine(h);  // takes the frame back
        VQX_SCANNER_LIGHTING lights{};
        lights.size = sizeof lights;
        uint32_t pairs[2] = {ES_TARGET_VALUE, 0}, ms = 0;
        VQX_SCANENGINE_PROPERTIES_EX p{};
        const struct { const char* name; bool (*refused)(VQXSI_HANDLE, void*, VQX_SCANNER_LIGHTING*, uint32_t*,
                                                         uint32_t*, VQX_SCANENGINE_PROPERTIES_EX*); } calls[] = {
#define CALL(name, expr) {name, [](VQXSI_HANDLE h, void* frame, VQX_SCANNER_LIGHTING* lights, uint32_t* pairs, \
                                    uint32_t* ms, VQX_SCANENGINE_PROPERTIES_EX* p) {                              \
                               (void)frame; (void)lights; (void)pairs; (void)ms; (void)p;                         \
                               return (expr); }}
            CALL("GetNewScan", VQXSI_GetNewScan(h) == nullptr),
            CALL("GetSingleFrame", VQXSI_GetSingleFrame(h) == nullptr),
            CALL("StartScanning", VQXSI_StartScanning(h) == 0),
            CALL("StopScanning", VQXSI_StopScanning(h) == 0),
            CALL("UnlockBuffer", VQXSI_UnlockBuffer(h, frame) == 0),
            CALL("SetExposureMode", VQXSI_SetExposureMode(h, 3) == 0),
            CALL("SetLights", VQXSI_SetLights(h, lights) == 0),
            CALL("GetLights", VQXSI_GetLights(h, lights) == 0),
            CALL("SetExposureSettings", VQXSI_SetExposureSettings(h, pairs, 8) == 0),
            CALL("GetExposureSettings", VQXSI_GetExposureSettings(h, pairs, 8) == 0),
            CALL("GetScanEnginePropertiesEx", VQXSI_GetScanEnginePropertiesEx(h, p, sizeof *p) == 0),
            CALL("SetSleepTimeout", VQXSI_SetSleepTimeout(h, 5) == 0),
            CALL("GetSleepTimeout", VQXSI_GetSleepTimeout(h, ms) == 0),
#undef CALL
        };
        // The closed session's handle, an address that never was a session
        // and NULL are all refused, except that NULL stands for the default
        // sleep time-out; nothing is written to the caller's records.
        int never_open = 0;
        uint32_t default_ms = 0;
        ASSERT_EQ(1, VQXSI_GetSleepTimeout(nullptr, &default_ms));
        for (VQXSI_HANDLE bad : {h, reinterpret_cast<VQXSI_HANDLE>(&never_open), VQXSI_HANDLE(nullptr)}) {
            for (const auto& call : calls) {
                SCOPED_TRACE(call.name);
                const bool default_sleep = !bad && std::string(call.name).find("SleepTimeout") != std::string::npos;
                errno = 0;
                EXPECT_EQ(!default_sleep, call.refused(bad, frame, &lights, pairs, &ms, &p));
                EXPECT_EQ(default_sleep ? 0 : EINVAL, errno);
            }
            errno = 0;
            VQXSI_CloseSessionWithScanEngine(bad);  // a second close, or no session: nothing
            EXPECT_EQ(bad ? EINVAL : 0, errno);
        }
        EXPECT_EQ(1, VQXSI_SetSleepTimeout(nullptr, default_ms));
        EXPECT_EQ(0u, lights.scanning_mode);
        EXPECT_EQ(ES_TARGET_VALUE, pairs[0]);
        EXPECT_EQ(0u, pairs[1]);
        EXPECT_EQ(0u, p.buffer_count);

        // A close while other threads call on the session: each call either
        // runs on the open session or is refused; none touches freed memory
        // (the sanitizer builds check that).
        VQXSI_HANDLE g = VQXSI_OpenSessionWithScanEngine();
        ASSERT_NE(nullptr, g);
        ASSERT_EQ(1, VQXSI_StartScanning(g));
        std::atomic<bool> closed{false};
        std::atomic<unsigned> refused{0};
        std::vector<std::thread> callers;
        for (int t = 0; t < 2; ++t) {
            callers.emplace_back([&] {
                for (;;) {
                    const bool was_closed = closed;
                    errno = 0;
                    void* f = VQXSI_GetNewScan(g);
                    if (f)
                        VQXSI_UnlockBuffer(g, f);
                    else if (errno == EINVAL)
                        ++refused;
                    if (was_closed)
                        return;
                }
            });
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        VQXSI_CloseSessionWithScanEngine(g);
        closed = true;
        for (std::thread& t : callers)
            t.join();
        EXPECT_GE(refused.load(), 2u);
    } else if (c.check == "NotImplemented") {
        Session s;
        ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(s));
        errno = 0;
        EXPECT_EQ(1, VQXSI_StartScanning(s)) << "the start is recorded";
        const auto start = Clock::now();
        EXPECT_EQ(nullptr, VQXSI_GetNewScan(s));
        EXPECT_LT(elapsed_ms(start), 1000) << "no frame can come: NULL at once";
        EXPECT_EQ(0, errno);
        EXPECT_EQ(nullptr, VQXSI_GetSingleFrame(s));
        EXPECT_LT(elapsed_ms(start), 2000);
        EXPECT_EQ(1, VQXSI_StopScanning(s));
        EXPECT_EQ(1, VQXSI_StopScanning(s));  // the single frame's start

        // A stop the hardware layer never confirms still ends, by the
        // driver's own bound: the transfer is stopped.
        sim->update_faults([](vqxsim::Faults& f) { f.never_confirm_stop = true; });
        const uint64_t stops = sim->calls("StopScanning");
        EXPECT_EQ(1, VQXSI_StartScanning(s));
        EXPECT_EQ(1, VQXSI_StopScanning(s));
        EXPECT_TRUE(wait_until([&] { return sim->calls("StopScanning") > stops; }, 3000))
            << "the unconfirmed stop never ended";
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, StreamSurvival, testing::ValuesIn(all_cases()),
                         [](const testing::TestParamInfo<Case>& info) {
                             return info.param.check + "_mode" + std::to_string(info.param.mode);
                         });

}  // namespace
