// The stress load: several client threads over several sessions issuing
// seeded random valid and invalid calls of the exported interface against
// the simulated engine with faults on, for a bounded time, under a watchdog,
// with invariant checks at quiet points and at the end: any engine type that
// streams on the simulator, in any capture mode it streams in, each with its
// own faults beside the shared ones (stress_load.cpp, kEngines).
//
// Used by stress_test.cpp (the GoogleTest entry and the command line).
//
// Threads: the client threads, a watchdog thread, and the caller's thread,
// which schedules faults and quiet points. At a quiet point every client
// gives its frames back, ends its starts and waits; the scheduler waits for
// the stream to stop, checks the invariants and lets the clients go on.
//
// Frame accounting across threads: any session's stop or close (and any
// unlock of a frame another thread holds) can take a frame back from the
// client while its receiver is still on its way to record it. Such calls
// run exclusively under a reclaim lock and advance a reclaim epoch; a
// receiver that sees the epoch unchanged since before its GetNewScan knows
// the frame is still its own and records it in the simulator's
// frame ledger (Frame_ledger::mark_handed), otherwise it counts the hand-out as
// uncertain. Giving back a frame known to be one's own must succeed.
#ifndef VQX_TESTS_STRESS_LOAD_H
#define VQX_TESTS_STRESS_LOAD_H

#include <cstdint>
#include <set>
#include <string>

namespace stress {

struct Options {
    unsigned seconds = 10;        ///< duration of the load
    uint64_t seed = 1;
    unsigned threads = 4;
    unsigned sessions = 3;
    std::string engine = "X7710"; ///< engine type of the simulated engine
    unsigned capture_mode = 0;    ///< the engine's capture mode (GetConfig)
    unsigned quiet_ms = 4000;     ///< time between quiet points
    /// Fault classes: drop duplicate zero unknown storm regfail defer never
    /// stall hwstall sleep, and the engine's own. Empty: all.
    std::set<std::string> faults;
    bool verbose = false;

    bool fault(const char* name) const { return faults.empty() || faults.count(name) != 0; }
    /// Reads --name=value arguments (and the VQX_STRESS_* environment);
    /// false with a message on a bad argument, an engine that does not
    /// stream, a capture mode it does not stream in or a fault class it
    /// does not have.
    bool parse(int argc, char** argv, std::string* error);
    static const char* usage();
};

struct Result {
    bool passed = false;
    std::string failure;  ///< the first violated invariant, with the states
    std::string summary;  ///< counts of calls, frames and faults
};

/// Runs the load once. The driver is process-wide, so a process runs it
/// once (later runs reuse the driver and hardware layer of the first).
Result run(const Options& options);

} // namespace stress

#endif
