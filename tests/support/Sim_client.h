// Sim_client: what the programs that drive the exported interface on the
// simulated engine share (the end-to-end tests over the shared libraries,
// the misuse suite, the stress test and the fuzz target over the static
// core). Header-only and free of GoogleTest, so that every one of them can
// use it.
//
// The driver keeps the hardware layer it started with until the process
// exits, so the simulator (and any layer put in front of it) is built once
// and never destroyed.
#ifndef VQX_TESTS_SIM_CLIENT_H
#define VQX_TESTS_SIM_CLIENT_H

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <VQXScanInterface.h>

#include "Simulator.h"

namespace sim_client {

/// A simulator built from @p config, installed as the hardware layer the
/// driver loads at its first open, and kept for the life of the process; a
/// configuration the simulator refuses ends the process. VQXSIM_TRACE names
/// a file for the hardware-layer call trace, as for the simulator the driver
/// builds from the environment.
inline vqxsim::Simulator* kept_simulator(vqxsim::Config config)
{
    if (const char* trace = std::getenv("VQXSIM_TRACE"))
        config.trace_file = trace;
    std::string error;
    std::unique_ptr<vqxsim::Simulator> made = vqxsim::Simulator::create(config, &error);
    if (!made) {
        std::fprintf(stderr, "simulator: %s\n", error.c_str());
        std::abort();
    }
    vqxsim::set_instance_for_InitHWLayer(made->hwl());
    // Never destroyed (the driver keeps its hardware layer until the process
    // ends), but kept reachable so that leak checkers see it is still owned.
    static auto* kept = new std::vector<std::unique_ptr<vqxsim::Simulator>>;
    kept->push_back(std::move(made));
    return kept->back().get();
}

/// The name of the first case this process ran (@p name for the first
/// caller). The driver keeps the engine its first case started, so a case
/// of another name cannot run faithfully in the same process; ctest runs
/// each case alone.
inline std::string first_case(const std::string& name)
{
    static const std::string first = name;
    return first;
}

/// Polls @p pred every 2 ms until it holds or @p ms pass; its last value.
template <class Pred>
bool wait_until(Pred pred, unsigned ms = 3000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Milliseconds since @p start.
inline long elapsed_ms(std::chrono::steady_clock::time_point start)
{
    return long(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
                    .count());
}

/// A session closed at scope exit (unless closed before).
class Session {
public:
    Session() : h(VQXSI_OpenSessionWithScanEngine()) {}
    ~Session() { close(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    void close()
    {
        VQXSI_CloseSessionWithScanEngine(h);
        h = nullptr;
    }
    operator VQXSI_HANDLE() const { return h; }

private:
    VQXSI_HANDLE h;
};

} // namespace sim_client

#endif
