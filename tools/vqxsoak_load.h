// vqxsoak_load: one segment of the soak, run in a process of its own.
//
// One to four sessions stream through the exported interface, each on a
// thread of its own: they open, start, take frames, hold some of them for a
// while, give them back, restart a failed scan, stop and close as the
// session count of each phase asks. Every few seconds a new phase changes
// the session count and, on the simulator, the hardware faults: the shared
// ones (lost, doubled and foreign vsyncs, frame storms, failing register
// writes, late stop confirmations, PSoC failures), the engine's own (the
// MT9M114's host commands that hang or fail, the Hi704A's failing exposure
// read-back, the Kelp's frame counter jumping over dropped frames), and a
// stall: every frame held back for longer than the driver's stall bound,
// then announced late (a late vsync) or lost.
//
// An MT9M114 engine left stuck by host command faults is powered down by
// closing every session, as a client gets it back (see
// power_cycle_if_stuck).
//
// The segment fails on a dead stream (a scanning session without a frame
// for kDeadStreamMs, or none within kRecoveryMs of a stall's end), on a
// buffer the hardware layer lent and did not get back once every session is
// closed, on resident memory growing after the first minute, and on a
// frame refused back that nothing could have taken from the session (see
// Segment::scan).
#ifndef VQXSOAK_LOAD_H
#define VQXSOAK_LOAD_H

#include <cstdint>
#include <string>

namespace vqxsoak {

constexpr unsigned kMaxSessions = 4;
constexpr long kDeadStreamMs = 20000;
constexpr long kRecoveryMs = 10000;
/// Resident memory may grow this much after the first minute (allocator
/// arenas of threads that come and go), judged on segments of two minutes
/// or more.
constexpr long kMemorySlackKiB = 2048;

struct Segment_options {
    unsigned seconds = 60;
    unsigned sessions = kMaxSessions;  ///< most sessions open at once (1 to 4)
    uint64_t seed = 1;
    bool faults = true;
    std::string engine;  ///< the simulated engine's type (its own faults); empty on a device
};

/// Runs one segment and prints its result line (see Segment_result in
/// vqxsoak.cpp) on stdout; the process's exit status is the result.
int run_segment(const Segment_options& options);

} // namespace vqxsoak

#endif
