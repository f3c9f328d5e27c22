// InitHWLayer.cpp: the entry points of libLmoKil.so.
//
// InitHWLayer returns, in this order of preference:
//   1. the hardware layer a test installed with set_instance_for_InitHWLayer;
//   2. the environment-built simulator, created on the first call from the
//      VQXSIM_* variables and kept for the life of the process.
// A bad variable or an engine type without a model prints one line on
// stderr ("vqxsim: ...") and returns null; the next call tries again. The
// argument is ignored.
//
// The environment-built instance is never destroyed (the driver may still
// call it while the process exits); at exit its frame thread is stopped so
// that no callback reaches a driver being torn down.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "Sim_core.h"
#include "Simulator.h"
#include "vqxsim_c.h"

namespace vqxsim {
namespace {

// The environment-built engine streams in capture mode 3 unless
// VQXSIM_CAPTURE_MODE says otherwise: the driver's own default mode, in
// which it arms the next buffer while the current frame is still read out.
// (Config keeps 0, which the step-mode tests are written against.)
constexpr uint32_t kEnvironmentCaptureMode = 3;

std::atomic<IHwl*> installed{nullptr};
std::mutex environment_mutex;
std::atomic<Simulator*> environment{nullptr};

void stop_environment_instance()
{
    if (Simulator* sim = environment.load())
        sim->shutdown();
}

}  // namespace

void set_instance_for_InitHWLayer(IHwl* hwl)
{
    installed.store(hwl);
}

Simulator* environment_instance()
{
    return environment.load();
}

}  // namespace vqxsim

extern "C" __attribute__((visibility("default"))) IHwl* InitHWLayer(void* argument)
{
    (void)argument;
    using namespace vqxsim;
    if (IHwl* hwl = installed.load())
        return hwl;
    std::lock_guard<std::mutex> hold(environment_mutex);
    if (Simulator* sim = environment.load())
        return sim->hwl();
    Config config;
    config.capture_mode = kEnvironmentCaptureMode;
    std::string error;
    if (!Config::from_environment(config, &error)) {
        std::fprintf(stderr, "vqxsim: %s\n", error.c_str());
        return nullptr;
    }
    std::unique_ptr<Simulator> sim = Simulator::create(config, &error);
    if (!sim) {
        std::fprintf(stderr, "vqxsim: %s\n", error.c_str());
        return nullptr;
    }
    environment.store(sim.release());
    std::atexit(stop_environment_instance);
    return environment.load()->hwl();
}

extern "C" int vqxsim_frame_info(const void* buffer_address, struct vqxsim_frame_info* out)
{
    return vqxsim::Sim_core::find_frame_info(buffer_address, out) ? 0 : -1;
}
