// Support for the misuse suite: the exported functions called the wrong way
// on the simulated engine, whose faults a test switches while the driver
// runs: hold frames back, fail the engine's start, hold back stop
// confirmations. Handles that are no open session (NULL, closed, never
// opened) are the stale-handle cases' subject (tests/streams).
//
// The program links the static driver core, so that a test can look at the
// driver's records (buffer census, counts, power) after each misuse. One
// simulator serves the whole program (the driver keeps the hardware layer
// it started with); it lives until the process exits, and its frame thread
// is stopped once every test has run.
#ifndef VQX_TESTS_MISUSE_SUPPORT_H
#define VQX_TESTS_MISUSE_SUPPORT_H

#include <gtest/gtest.h>

#include <cerrno>

#include "Driver_invariants.h"
#include "Frame_ledger.h"
#include "Sim_client.h"

namespace misuse {

using sim_client::elapsed_ms;
using sim_client::Session;
using sim_client::wait_until;

inline vqxsim::Simulator& sim()
{
    static vqxsim::Simulator* const instance = [] {
        vqxsim::Config config;
        config.engine = "X7710";
        config.fps = 200.0;
        config.buffers = 4;
        config.render = vqxsim::Render_mode::none;
        config.seed = 7;
        return sim_client::kept_simulator(config);
    }();
    return *instance;
}

/// The frames handed to clients.
inline Frame_ledger& ledger()
{
    static Frame_ledger* const instance = new Frame_ledger(sim());  // kept, like the simulator
    return *instance;
}

/// Fault switches of the simulated engine.
inline void hold_frames(bool on) { sim().update_faults([on](vqxsim::Faults& f) { f.hold_frames = on; }); }
inline void fail_starts(bool on) { sim().update_faults([on](vqxsim::Faults& f) { f.start_fail = on; }); }
/// Stop confirmations @p ms late (-1: at once; never: never).
inline void confirm_stops_after(int ms, bool never = false)
{
    sim().update_faults([ms, never](vqxsim::Faults& f) {
        f.defer_stop_ms = ms;
        f.never_confirm_stop = never;
    });
}
/// Buffers the simulator has armed or filled for the driver.
inline unsigned buffers_out() { return ledger().buffers_out(); }

// Stops frames and stop confirmations once every test has run.
struct Stop_frames : testing::Environment {
    void TearDown() override { sim().shutdown(); }
};
inline testing::Environment* const stop_frames = testing::AddGlobalTestEnvironment(new Stop_frames);

/// Number of client threads waiting inside the hand-off.
inline unsigned threads_waiting()
{
    Scan_driver& d = *the_scan_driver;
    if (!d.sensor || !d.available_buffer)
        return 0;
    auto lock = static_cast<Sensor volatile*>(d.sensor)->get_lock();
    return d.available_buffer->threads_inside();
}

/// Clears errno to a marker value that no function sets.
inline void mark_errno() { errno = 12345; }

/// @p call gives @p result and sets errno to EINVAL.
#define EXPECT_EINVAL(call, result)  \
    do {                             \
        misuse::mark_errno();        \
        EXPECT_EQ((call), (result)); \
        EXPECT_EQ(errno, EINVAL);    \
    } while (0)

/// @p call gives @p result and leaves errno alone.
#define EXPECT_ERRNO_KEPT(call, result) \
    do {                                \
        misuse::mark_errno();           \
        EXPECT_EQ((call), (result));    \
        EXPECT_EQ(errno, 12345);        \
    } while (0)

/// Every test starts with the faults off (stops confirmed 5 ms late, as the
/// real transfer hardware does) and ends with every session closed; then no
/// buffer may be left out, the engine must be off and the counts zero.
class Misuse_test : public testing::Test {
protected:
    void SetUp() override
    {
        clear_faults();
    }
    void TearDown() override
    {
        clear_faults();
        sim().confirm_stop_now(true);
        // Frames a test held back are announced now, and an engine left in
        // standby is woken behind the driver's back, so that a stream stopped
        // meanwhile can finish its stop and a failed test does not leave
        // the next one an engine that cannot deliver frames.
        sim().release_held_frames();
        if (sim().standby())
            sim().hwl()->ImagerPowerUp();
        std::string problem;
        const bool idle = wait_until([&] {
            problem = robust::check_all_closed(robust::snapshot());
            return problem.empty() && buffers_out() == 0;
        });
        EXPECT_TRUE(idle) << problem << " buffers out at the hardware layer: " << buffers_out();
        EXPECT_EQ(ledger().errors(), 0u) << ledger().first_error();
        EXPECT_TRUE(ledger().all_returned()) << "a frame never went back to the hardware layer";
    }
    // Every fault off; stops confirmed 5 ms late, as the real transfer
    // hardware does.
    static void clear_faults()
    {
        sim().update_faults([](vqxsim::Faults& f) {
            f = vqxsim::Faults{};
            f.defer_stop_ms = 5;
        });
    }
};

/// Starts scanning and waits for the first frame, which is returned (held).
/// In capture modes 0 and 5 the stream then waits until the client gives a
/// frame back: a client that keeps its only frame sees the stream stall.
inline void* first_frame(VQXSI_HANDLE h)
{
    if (!VQXSI_StartScanning(h))
        return nullptr;
    void* frame = VQXSI_GetNewScan(h);
    if (frame)
        ledger().mark_handed(frame);
    return frame;
}

/// Starts scanning, takes the first frame and gives it back; true when a
/// frame came.
inline bool frames_flow(VQXSI_HANDLE h)
{
    void* frame = first_frame(h);
    return frame && VQXSI_UnlockBuffer(h, frame) == 1;
}

} // namespace misuse

#endif
