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
// The simulated engines' register tables (tables/: the MT9M114 full table
// and the Hi704A initial table) are the simulator's own. Unless
// VQX_REGISTER_TABLE_DIR names a table directory already, InitHWLayer sets
// it to the simulator's: share/LmoKil/register-tables of the prefix
// libLmoKil.so is installed under (found from the library's own location)
// when that directory exists, else the source tree's tables/ (a build tree).
//
// The environment-built instance is never destroyed (the driver may still
// call it while the process exits); at exit its frame thread is stopped so
// that no callback reaches a driver being torn down.
#include <dlfcn.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

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

// The simulator's table directory (see the file comment).
std::string table_directory()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&table_directory), &info) && info.dli_fname) {
        std::string dir = info.dli_fname;
        const size_t slash = dir.rfind('/');
        dir = (slash == std::string::npos ? std::string(".") : dir.substr(0, slash)) + "/" VQXSIM_TABLE_RELATIVE_DIR;
        struct stat st;
        if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            return dir;
    }
    return VQXSIM_TABLE_SOURCE_DIR;
}

// Called with environment_mutex held.
void provide_tables()
{
    const char* dir = std::getenv("VQX_REGISTER_TABLE_DIR");
    if (!dir || !*dir)
        setenv("VQX_REGISTER_TABLE_DIR", table_directory().c_str(), 1);
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
    std::lock_guard<std::mutex> hold(environment_mutex);
    provide_tables();
    if (IHwl* hwl = installed.load())
        return hwl;
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

extern "C" int vqxsim_counters(struct vqxsim_counters* out)
{
    vqxsim::Simulator* sim = vqxsim::environment_instance();
    if (!sim || !out)
        return -1;
    const vqxsim::Counters n = sim->counters();
    out->sensor_frames = n.sensor_frames;
    out->frames_delivered = n.frames_delivered;
    out->frames_returned = n.frames_returned;
    out->frames_held = n.frames_held;
    out->frames_dropped = n.frames_dropped;
    out->buffers_lent = sim->buffers_in(vqxsim::Buffer_state::delivered);
    out->buffers_armed = sim->buffers_in(vqxsim::Buffer_state::armed);
    out->stop_requests = n.stop_requests;
    out->register_failures = n.register_read_failures + n.register_write_failures;
    return 0;
}

extern "C" int vqxsim_set_faults(const char* faults)
{
    vqxsim::Simulator* sim = vqxsim::environment_instance();
    vqxsim::Faults parsed;
    std::string error;
    if (!sim || !faults || !parsed.parse(faults, &error))
        return -1;
    sim->update_faults([&parsed](vqxsim::Faults& f) { f = parsed; });
    return 0;
}

extern "C" int vqxsim_end_held_frames(int release)
{
    vqxsim::Simulator* sim = vqxsim::environment_instance();
    if (!sim)
        return -1;
    return static_cast<int>(release ? sim->release_held_frames() : sim->lose_held_frames());
}
