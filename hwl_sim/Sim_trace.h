// Sim_trace.h: the optional trace file of the simulated engine.
//
// When a path is configured, every hardware-layer call (and every callback
// the simulator makes) is written as one line: seconds since the instance
// was built (microsecond resolution), the operation, its arguments and its
// result. Lines are flushed as they are written so that a crash keeps them.
//
// Threads: line() may be called from any thread; it takes only its own
// small lock, never while calling out.
#ifndef VQXSIM_SIM_TRACE_H
#define VQXSIM_SIM_TRACE_H

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

namespace vqxsim {

class Sim_trace {
public:
    /// Opens @p path for writing; an empty path traces nothing.
    explicit Sim_trace(const std::string& path);
    ~Sim_trace();

    Sim_trace(const Sim_trace&) = delete;
    Sim_trace& operator=(const Sim_trace&) = delete;

    bool enabled() const { return file != nullptr; }
    /// True when a path was given but could not be opened.
    bool failed() const { return open_failed; }
    void line(const char* format, ...) __attribute__((format(printf, 2, 3)));

private:
    std::mutex mutex;
    std::FILE* file = nullptr;
    bool open_failed = false;
    std::chrono::steady_clock::time_point start;
};

}  // namespace vqxsim

#endif
