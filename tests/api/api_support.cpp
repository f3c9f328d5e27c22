// The simulated engine shared by the end-to-end tests.
#include "api_support.h"

#include <cstdlib>
#include <string>

namespace api_test {

namespace {

vqxsim::Simulator* build()
{
    vqxsim::Config config;
    config.engine = "X7710";
    config.fps = 120.0;
    config.buffers = 4;
    config.render = vqxsim::Render_mode::fast;
    config.serial = "API0000042";
    config.engine_id = 0x00007710;
    config.revision_low = 7;
    config.revision_high = 3;
    if (const char* trace = std::getenv("VQX_API_TEST_TRACE"))  // hardware-layer call trace for debugging
        config.trace_file = trace;
    // Like real transfer hardware, the stop is confirmed a little later: a
    // single-image scan's frame reaches the client before the stream ends.
    config.faults.defer_stop_ms = 5;
    std::string error;
    std::unique_ptr<vqxsim::Simulator> made = vqxsim::Simulator::create(config, &error);
    if (!made) {
        ADD_FAILURE() << "simulator: " << error;
        std::abort();
    }
    // Kept for the life of the process: the driver holds its hardware layer
    // until the library is unloaded.
    vqxsim::Simulator* instance = made.release();
    vqxsim::set_instance_for_InitHWLayer(instance->hwl());
    return instance;
}

// Stops the simulator's frame thread once every test has run.
class Stop_frames : public testing::Environment {
public:
    void TearDown() override { sim().shutdown(); }
};

[[maybe_unused]] testing::Environment* const stop_frames = testing::AddGlobalTestEnvironment(new Stop_frames);

} // namespace

vqxsim::Simulator& sim()
{
    static vqxsim::Simulator* const instance = build();
    return *instance;
}

unsigned buffers_out()
{
    return sim().buffers_in(vqxsim::Buffer_state::delivered);
}

} // namespace api_test
