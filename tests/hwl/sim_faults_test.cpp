// Every injected fault fires when, and only when, it is configured, and no
// buffer is lost on the way.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "Simulator.h"
#include "sim_harness.h"

using namespace simtest;
using vqxsim::Buffer_state;

namespace {

constexpr int H0 = 0x1001;

// Four frames in step mode, arming buffer i before frame i and giving every
// delivered buffer back; returns the vsync handles of each frame.
std::vector<std::vector<int>> run_four_frames(vqxsim::Simulator& sim)
{
    IHwl& hwl = *sim.hwl();
    Vsync_log log;
    start_streaming(hwl, log);
    std::vector<std::vector<int>> events;
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(hwl.InitCapture(H0 + i));
        EXPECT_EQ(1u, sim.step(1));
        events.push_back(log.take());
        for (int h : events.back())
            if (sim.buffer_state(h) == Buffer_state::delivered)
                hwl.ReleaseBuffer(h);
    }
    return events;
}

}  // namespace

TEST(SimFaults, FrameFaultsFireOnlyOnTheirFrame)
{
    using E = std::vector<std::vector<int>>;
    struct Case {
        const char* faults;
        E expected;
    };
    const Case cases[] = {
        {"", E{{H0}, {H0 + 1}, {H0 + 2}, {H0 + 3}}},
        {"drop=2", E{{H0}, {}, {H0 + 1}, {H0 + 2}}},  // the dropped buffer stays armed and fills next
        {"zero_handle=2", E{{H0}, {H0 + 1, 0}, {H0 + 2}, {H0 + 3}}},
        {"duplicate=2", E{{H0}, {H0 + 1, H0 + 1}, {H0 + 2}, {H0 + 3}}},
        {"unknown_handle=2", E{{H0}, {H0 + 1, 0x0BAD}, {H0 + 2}, {H0 + 3}}},
    };
    for (const Case& k : cases) {
        auto sim = make_sim(step_config(k.faults));
        EXPECT_EQ(k.expected, run_four_frames(*sim)) << k.faults;
        vqxsim::Counters n = sim->counters();
        std::string f = k.faults;
        EXPECT_EQ((std::vector<uint64_t>{f == "drop=2", f == "zero_handle=2", f == "duplicate=2", f == "unknown_handle=2"}),
                  (std::vector<uint64_t>{n.frames_dropped, n.zero_handle_events, n.duplicate_events, n.unknown_handle_events}))
            << f;
        EXPECT_EQ(0u, n.stalls + n.register_read_failures + n.register_write_failures + n.psoc_failures) << f;
        std::vector<vqxsim::Frame_record> frames = sim->frames();
        ASSERT_EQ(4u, frames.size());
        EXPECT_EQ(f != "drop=2", frames[1].delivered);
        // No buffer lost: only the re-armed dropped buffer is still out.
        EXPECT_EQ(f == "drop=2" ? 1u : 0u, sim->buffers_in(Buffer_state::armed)) << f;
        EXPECT_EQ(0u, sim->buffers_in(Buffer_state::delivered)) << f;
    }
}

TEST(SimFaults, RegisterAndPsocFailures)
{
    auto sim = make_sim(step_config("regfail_write=2,regfail_read=*2,psocfail=1"));
    IHwl& hwl = *sim->hwl();
    ASSERT_TRUE(hwl.ImagerPowerOn());
    EXPECT_TRUE(write16(hwl, 0x3012, 11));
    EXPECT_FALSE(write16(hwl, 0x3012, 22));
    EXPECT_TRUE(write16(hwl, 0x3014, 33));
    EXPECT_EQ(11, sim->reg(0x3012)) << "a failed write writes nothing";
    uint16_t v = 0xAAAA;
    EXPECT_TRUE(hwl.ReadReg(0x3012, &v, 2));
    v = 0xAAAA;
    EXPECT_FALSE(hwl.ReadReg(0x3012, &v, 2));
    EXPECT_EQ(0xAAAA, v) << "a failed read reads nothing";
    EXPECT_TRUE(hwl.ReadReg(0x3012, &v, 2));
    EXPECT_FALSE(hwl.ReadReg(0x3012, &v, 2));
    unsigned char byte = 0;
    EXPECT_FALSE(hwl.ReadIIC_PSOC(0x32, &byte, 1));
    EXPECT_TRUE(hwl.ReadIIC_PSOC(0x32, &byte, 1));
    EXPECT_TRUE(hwl.WriteIIC_PSOC(0x32, &byte, 1));
    vqxsim::Counters n = sim->counters();
    EXPECT_EQ(1u, n.register_write_failures);
    EXPECT_EQ(2u, n.register_read_failures);
    EXPECT_EQ(1u, n.psoc_failures);

    // Probabilities are reproducible under a seed.
    auto pattern = [](uint64_t seed) {
        vqxsim::Config p = step_config();
        p.seed = seed;
        p.faults.regfail_write = vqxsim::Trigger::with_probability(0.5);
        auto s = make_sim(p);
        s->hwl()->ImagerPowerOn();
        std::vector<bool> ok;
        for (int i = 0; i < 200; ++i)
            ok.push_back(write16(*s->hwl(), 0x3012, uint16_t(i)));
        return ok;
    };
    std::vector<bool> a = pattern(7);
    EXPECT_EQ(a, pattern(7));
    EXPECT_NE(a, pattern(8));
    auto failures = std::count(a.begin(), a.end(), false);
    EXPECT_GT(failures, 60);
    EXPECT_LT(failures, 140);
}

TEST(SimFaults, StallAfterFramesAndTheDriversRecovery)
{
    auto sim = make_sim(step_config("stall_after=2"));
    IHwl& hwl = *sim->hwl();
    Vsync_log log;
    start_streaming(hwl, log);
    for (int i = 0; i < 2; ++i) {
        capture(*sim, unsigned(i));
        hwl.ReleaseBuffer(H0 + i);
    }
    ASSERT_TRUE(hwl.InitCapture(H0));
    EXPECT_EQ(0u, sim->step(1, 30));
    EXPECT_TRUE(sim->stalled());
    EXPECT_EQ(0x0008, read16(hwl, 0x303C) & 0x000A) << "streaming with the PLL locked";
    uint16_t frames = read16(hwl, 0x303A);
    EXPECT_EQ(0x0100, read16(hwl, 0x306A));
    ASSERT_TRUE(write16(hwl, 0x301A, 0x30DC));
    EXPECT_EQ(0u, sim->step(1, 20)) << "rewriting the stream bit alone does not help";
    EXPECT_EQ(frames, read16(hwl, 0x303A));

    // check_stall's last try: stop, restart the transfer, restart streaming.
    EXPECT_TRUE(hwl.RequestStopScanning(nullptr, nullptr));
    ASSERT_TRUE(hwl.StopScanning());
    ASSERT_TRUE(hwl.StartScanning());
    ASSERT_TRUE(write16(hwl, 0x301A, 0x185C));
    ASSERT_TRUE(write16(hwl, 0x301A, 0x085C));
    EXPECT_FALSE(sim->stalled());
    EXPECT_EQ(0, read16(hwl, 0x306A));
    EXPECT_EQ(1u, sim->step(1)) << "the armed buffer fills after recovery";
    hwl.ReleaseBuffer(H0);
    capture(*sim, 1);
    EXPECT_EQ(1u, sim->counters().stalls) << "the stall happens once";
    hwl.ReleaseBuffer(H0 + 1);
    EXPECT_EQ(4u, sim->buffers_in(Buffer_state::free));
}

namespace {

// Median gap between consecutive frames in real time, in microseconds, with
// all four buffers armed at once.
uint64_t median_period_us(const char* faults)
{
    vqxsim::Config c;
    c.fps = 50;
    c.render = vqxsim::Render_mode::none;
    EXPECT_TRUE(c.faults.parse(faults, nullptr));
    auto sim = make_sim(c);
    Vsync_log log;
    start_streaming(*sim->hwl(), log);
    for (int i = 0; i < 4; ++i)
        sim->hwl()->InitCapture(H0 + i);
    EXPECT_EQ(4u, sim->step(4, 3000));
    sim->shutdown();
    std::vector<uint64_t> periods;
    for (const vqxsim::Frame_record& f : sim->frames())
        periods.push_back(f.period_us);
    std::sort(periods.begin(), periods.end());
    return periods.empty() ? 0 : periods[periods.size() / 2];
}

}  // namespace

TEST(SimFaults, StormRunsFramesTenTimesFaster)
{
    // The frame timing the sensor ran at, not the wall clock (a loaded
    // machine stretches the gaps).
    EXPECT_GE(median_period_us(""), 15000u) << "50 frames a second";
    EXPECT_LT(median_period_us("storm"), 3000u);
}

// Faults switched while frames flow: held frames are announced late or
// lost (capture mode 0: armed again; mode 4: free again); a refused start
// leaves the transfer stopped; a stop kept back is confirmed on demand; and
// every announced frame is counted back when its buffer returns.
TEST(SimFaults, RunTimeSwitches)
{
    for (uint32_t mode : {0u, 4u}) {
        SCOPED_TRACE(mode);
        vqxsim::Config c = step_config();
        c.capture_mode = mode;
        auto sim = make_sim(c);
        IHwl& hwl = *sim->hwl();
        Vsync_log log;
        start_streaming(hwl, log);
        const auto hold = [&](bool on) { sim->update_faults([on](vqxsim::Faults& f) { f.hold_frames = on; }); };
        hold(true);
        for (int i = 0; i < 2; ++i) {
            if (mode == 0) {
                EXPECT_TRUE(hwl.InitCapture(H0 + i));
            }
            EXPECT_EQ(1u, sim->step(1));
        }
        EXPECT_TRUE(log.take().empty());
        vqxsim::Buffer_view view;
        ASSERT_TRUE(sim->buffer_at(sim->buffer_images()[0] + 5, &view));
        EXPECT_EQ(H0, view.handle);
        EXPECT_TRUE(view.held);
        EXPECT_EQ(0u, view.announced_frame);
        hold(false);
        EXPECT_EQ(2u, sim->release_held_frames());
        EXPECT_EQ((std::vector<int>{H0, H0 + 1}), log.take());
        ASSERT_TRUE(sim->buffer_at(sim->buffer_images()[1], &view));
        EXPECT_EQ(2u, view.announced_frame);
        hwl.ReleaseBuffer(H0);
        EXPECT_TRUE(hwl.InitCapture(H0 + 1));  // re-armed: its frame came back too
        EXPECT_EQ(2u, sim->counters().frames_returned);

        hold(true);
        EXPECT_EQ(1u, sim->step(1));
        EXPECT_EQ(1u, sim->lose_held_frames());
        EXPECT_EQ(0u, sim->release_held_frames());
        EXPECT_EQ(mode == 0 ? 1u : 0u, sim->buffers_in(Buffer_state::armed));
        EXPECT_EQ(0u, sim->buffers_in(Buffer_state::delivered));
        const vqxsim::Counters n = sim->counters();
        EXPECT_EQ((std::vector<uint64_t>{3, 2, 2}),
                  (std::vector<uint64_t>{n.frames_held, n.frames_delivered, n.frames_returned}));

        sim->update_faults([](vqxsim::Faults& f) {
            f.start_fail = true;
            f.never_confirm_stop = true;
        });
        EXPECT_TRUE(hwl.StopScanning());
        EXPECT_FALSE(hwl.StartScanning());
        EXPECT_FALSE(sim->transfer_started());
        int confirmed = 0;
        EXPECT_FALSE(hwl.RequestStopScanning([](void* c) { ++*static_cast<int*>(c); }, &confirmed));
        EXPECT_FALSE(sim->stop_pending());
        EXPECT_EQ(0u, sim->confirm_stop_now());
        EXPECT_EQ(1u, sim->confirm_stop_now(true));
        EXPECT_EQ(1, confirmed);
    }
}
