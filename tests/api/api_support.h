// Support for the end-to-end tests of the C interface over the shared
// libraries: one simulated engine per test program, installed as the
// hardware layer before the first open and kept for the life of the process
// (its frame thread is stopped when the tests end).
#ifndef VQX_TESTS_API_SUPPORT_H
#define VQX_TESTS_API_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "Sim_client.h"

namespace api_test {

using sim_client::Session;
using sim_client::wait_until;

/// The simulator the driver runs on (built on first use).
inline vqxsim::Simulator& sim()
{
    static vqxsim::Simulator* const instance = [] {
        vqxsim::Config config;
        config.engine = "X7710";
        config.fps = 120.0;
        config.buffers = 4;
        config.render = vqxsim::Render_mode::fast;
        config.serial = "API0000042";
        config.engine_id = 0x00007710;
        config.revision_low = 7;
        config.revision_high = 3;
        const uint8_t aimer_offset[4] = {0, 12, 0xFF, 0xF6};  // x +12, y -10 (big-endian)
        std::copy(aimer_offset, aimer_offset + 4, config.aimer_offset);
        // Like real transfer hardware, the stop is confirmed a little later: a
        // single-image scan's frame reaches the client before the stream ends.
        config.faults.defer_stop_ms = 5;
        return sim_client::kept_simulator(config);
    }();
    return *instance;
}

/// Buffers the simulator has handed to the driver and not had back.
inline unsigned buffers_out() { return sim().buffers_in(vqxsim::Buffer_state::delivered); }

// Stops the simulator's frame thread once every test has run.
struct Stop_frames : testing::Environment {
    void TearDown() override { sim().shutdown(); }
};
inline testing::Environment* const stop_frames = testing::AddGlobalTestEnvironment(new Stop_frames);

/// Every test opens and closes its own sessions; afterwards no buffer may be
/// left with the driver or the client.
class Api_test : public testing::Test {
protected:
    void SetUp() override { sim(); }
    void TearDown() override
    {
        EXPECT_TRUE(wait_until([] { return buffers_out() == 0; }, 1000)) << buffers_out() << " buffers not given back";
    }
};

} // namespace api_test

#endif
