// The simulated engine and the fault layer shared by the misuse suite.
#include "misuse_support.h"

#include <cstdlib>
#include <memory>

namespace misuse {

namespace {

vqxsim::Simulator* build_sim()
{
    vqxsim::Config config;
    config.engine = "X7710";
    config.fps = 200.0;
    config.buffers = 4;
    config.render = vqxsim::Render_mode::none;
    std::string error;
    std::unique_ptr<vqxsim::Simulator> made = vqxsim::Simulator::create(config, &error);
    if (!made) {
        ADD_FAILURE() << "simulator: " << error;
        std::abort();
    }
    return made.release();  // kept: the driver holds its hardware layer until exit
}

robust::Fault_hwl* build_hwl()
{
    auto* layer = new robust::Fault_hwl(*sim().hwl(), 7);
    vqxsim::set_instance_for_InitHWLayer(layer);
    return layer;
}

// Stops frames and stop confirmations once every test has run.
class Stop_frames : public testing::Environment {
public:
    void TearDown() override
    {
        sim().shutdown();
        hwl().shutdown();
    }
};

[[maybe_unused]] testing::Environment* const stop_frames =
    testing::AddGlobalTestEnvironment(new Stop_frames);

} // namespace

vqxsim::Simulator& sim()
{
    static vqxsim::Simulator* const instance = build_sim();
    return *instance;
}

robust::Fault_hwl& hwl()
{
    static robust::Fault_hwl* const instance = build_hwl();
    return *instance;
}

unsigned threads_waiting()
{
    Scan_driver& d = *the_scan_driver;
    if (!d.sensor || !d.available_buffer)
        return 0;
    auto lock = static_cast<Sensor volatile*>(d.sensor)->get_lock();
    return d.available_buffer->threads_inside();
}

void Misuse_test::SetUp()
{
    hwl().clear_faults();
    hwl().stop_mode = robust::Fault_hwl::Stop_mode::deferred;
    hwl().defer_ms = 5;
}

void Misuse_test::TearDown()
{
    hwl().clear_faults();
    hwl().confirm_stops();
    // A transfer a test stalled recovers now, and an engine left in standby
    // is woken behind the driver's back, so that a stream stopped while
    // stalled can finish its stop and a failed test does not leave the next
    // one an engine that cannot deliver frames.
    hwl().release_stalled();
    if (sim().standby())
        sim().hwl()->ImagerPowerUp();
    std::string problem;
    const bool idle = wait_until([&] {
        problem = robust::check_all_closed(robust::snapshot());
        return problem.empty() && hwl().buffers_out() == 0;
    });
    EXPECT_TRUE(idle) << problem << " buffers out at the hardware layer: " << hwl().buffers_out();
    const auto a = hwl().accounting();
    EXPECT_EQ(a.mark_errors, 0u) << a.first_mark_error;
    EXPECT_EQ(a.lives_begun, a.lives_ended) << "a frame never went back to the hardware layer";
}

void* first_frame(VQXSI_HANDLE h)
{
    if (!VQXSI_StartScanning(h))
        return nullptr;
    void* frame = VQXSI_GetNewScan(h);
    if (frame)
        hwl().mark_handed(frame);
    return frame;
}

bool frames_flow(VQXSI_HANDLE h)
{
    void* frame = first_frame(h);
    return frame && VQXSI_UnlockBuffer(h, frame) == 1;
}

} // namespace misuse
