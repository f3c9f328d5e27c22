// Frame_ledger: which frames the simulator announced reached a client.
//
// A test marks a frame as handed to a client with mark_handed() when a client
// received the buffer at that address: the frame is the last one the
// simulator announced from that buffer. It may already have come back (a
// stop of another session took it back before the receiver marked it), but
// it must not have been marked before; a buffer that never announced a frame
// cannot be handed out. Violations are counted, the first one kept.
//
// With every buffer back, frames delivered = frames returned (simulator
// counters), and the frames the driver dropped (replaced by a newer frame,
// withdrawn, cleared at a stop) are frames returned - marked().
//
// Thread-safe.
#ifndef VQX_TESTS_FRAME_LEDGER_H
#define VQX_TESTS_FRAME_LEDGER_H

#include <mutex>
#include <set>
#include <string>

#include "Simulator.h"

class Frame_ledger {
public:
    explicit Frame_ledger(vqxsim::Simulator& simulator) : sim(simulator) {}

    bool mark_handed(const void* address)
    {
        vqxsim::Buffer_view view;
        const bool in_buffer = sim.buffer_at(address, &view);
        std::lock_guard<std::mutex> hold(mutex);
        if (!in_buffer)
            return error("a frame address that is no buffer");
        if (view.announced_frame == 0)
            return error("a buffer without a delivered frame was handed out");
        if (!marked_frames.insert(view.announced_frame).second)
            return error("the same frame was handed out twice");
        return true;
    }

    /// Buffers armed or filled for the driver, not back with the simulator.
    unsigned buffers_out() const
    {
        return sim.buffers_in(vqxsim::Buffer_state::armed) + sim.buffers_in(vqxsim::Buffer_state::delivered);
    }
    /// Every frame announced has come back.
    bool all_returned() const
    {
        const vqxsim::Counters n = sim.counters();
        return n.frames_delivered == n.frames_returned;
    }

    uint64_t marked() const
    {
        std::lock_guard<std::mutex> hold(mutex);
        return marked_frames.size();
    }
    uint64_t errors() const
    {
        std::lock_guard<std::mutex> hold(mutex);
        return error_count;
    }
    std::string first_error() const
    {
        std::lock_guard<std::mutex> hold(mutex);
        return first;
    }

private:
    bool error(const char* what)
    {
        if (error_count++ == 0)
            first = what;
        return false;
    }

    vqxsim::Simulator& sim;
    mutable std::mutex mutex;
    std::set<uint64_t> marked_frames;
    uint64_t error_count = 0;
    std::string first;
};

#endif
