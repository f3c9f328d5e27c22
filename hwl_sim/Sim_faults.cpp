// Sim_faults.cpp: the faults in force and their changes, the one-time
// stall of the transfer and its recovery, and frames held back or lost.
//
// Every function here that takes no lock runs with the lock held.
#include "Sim_core.h"

#include <vector>

namespace vqxsim {
namespace {

constexpr int kUnknownHandle = 0x0BAD;  // never a buffer handle

}  // namespace

// ---------------------------------------------------------------------------
// Stall
// ---------------------------------------------------------------------------

// The stall fault: once Faults::stall_after frames have been delivered, the
// transfer stalls (once per instance) instead of taking the next frame. True
// when it stalls now.
bool Sim_core::stall_now()
{
    if (faults.stall_after == 0 || stall_fired || count.frames_delivered < faults.stall_after)
        return false;
    stall_fired = is_stalled = true;
    stall_recovering = stopped_in_stall = false;
    model->set_stalled(true);
    ++count.stalls;
    trace.line("transfer stalled after %llu frames", static_cast<unsigned long long>(count.frames_delivered));
    state_changed();
    return true;
}

// The transfer works again: the stall, a restart in progress and the stop
// seen during it are forgotten, and the sensor's status stops showing it.
void Sim_core::clear_stall()
{
    is_stalled = stall_recovering = stopped_in_stall = false;
    model->set_stalled(false);
}

// A stalled transfer restarted (StopScanning, StartScanning) clears once a
// write to the streaming control has the sensor streaming again; with
// firmware that starts streaming some time after the write, when it does.
void Sim_core::clear_restarted_stall()
{
    if (!is_stalled || !stall_recovering) {
        stream_restarted = false;
        return;
    }
    if (stream_restarted && model->streaming()) {
        clear_stall();
        stream_restarted = false;
        trace.line("stall cleared");
    }
}

// Resetting the transfer hardware clears a stall at once.
bool Sim_core::ResetTransferHardware()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ResetTransferHardware");
    if (is_stalled)
        clear_stall();
    trace.line("ResetTransferHardware() = 1");
    state_changed();
    return true;
}

// ---------------------------------------------------------------------------
// Fault settings and held frames
// ---------------------------------------------------------------------------

Faults Sim_core::faults_now() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return faults;
}

// The gates take the new rates at once; the frame thread is woken, since a
// changed fault may change when the next frame or stop is due.
void Sim_core::update_faults(const std::function<void(Faults&)>& change)
{
    std::lock_guard<std::mutex> hold(mutex);
    change(faults);
    drop_gate.retarget(faults.drop);
    zero_gate.retarget(faults.zero_handle);
    duplicate_gate.retarget(faults.duplicate);
    unknown_gate.retarget(faults.unknown_handle);
    storm_gate.retarget(faults.storm);
    read_gate.retarget(faults.regfail_read);
    write_gate.retarget(faults.regfail_write);
    psoc_gate.retarget(faults.psocfail);
    model->faults_changed(faults);
    trace.line("faults changed");
    wake.notify_all();
}

// Announces every held frame late, as delivered; the callbacks run with the
// lock released.
unsigned Sim_core::release_held_frames()
{
    std::vector<int> handles;
    IHwl::Vsync_callback callback;
    void* context;
    {
        std::lock_guard<std::mutex> hold(mutex);
        callback = vsync;
        context = vsync_context;
        for (size_t i = 0; i < buffers.size(); ++i) {
            Buffer& b = buffers[i];
            if (!b.held)
                continue;
            b.held = false;
            b.announced_frame = b.frame.number;
            ++count.frames_delivered;
            handles.push_back(pointers[i].handle);
        }
        if (callback)
            count.vsyncs += handles.size();
    }
    for (int handle : handles) {
        trace.line("vsync(0x%X) held frame released", unsigned(handle));
        if (callback)
            callback(handle, context);
    }
    return unsigned(handles.size());
}

// Forgets every held frame: its buffer goes back to the transfer (free where
// the transfer fills free buffers itself, else armed again at the end).
unsigned Sim_core::lose_held_frames()
{
    std::lock_guard<std::mutex> hold(mutex);
    unsigned n = 0;
    for (size_t i = 0; i < buffers.size(); ++i) {
        Buffer& b = buffers[i];
        if (!b.held)
            continue;
        b.held = false;
        if (self_filling()) {
            b.state = Buffer_state::free;
        } else {
            b.state = Buffer_state::armed;
            armed.push_back(int(i));
        }
        ++n;
    }
    trace.line("%u held frames lost", n);
    wake.notify_all();
    return n;
}

// Hands the filled buffer over as this frame's fault draws say: dropped (no
// vsync, the buffer stays as it was), held back (delivered without its vsync,
// for release_held_frames), or delivered, its vsync followed by the extra
// events drawn (the same handle again, handle 0, an unknown handle). Returns
// the handles to announce.
std::vector<int> Sim_core::settle_frame(const Frame_job& job)
{
    std::vector<int> events;
    Buffer& buffer = buffers[job.index];
    const Frame_record& record = job.record;
    if (job.drop) {
        ++count.frames_dropped;
    } else if (faults.hold_frames) {
        buffer.state = Buffer_state::delivered;
        buffer.held = true;
        disarm(job.index);
        ++count.frames_held;
        trace.line("frame %llu held back in 0x%X", static_cast<unsigned long long>(record.number),
                   unsigned(record.handle));
    } else {
        buffer.state = Buffer_state::delivered;
        buffer.announced_frame = record.number;
        disarm(job.index);
        ++count.frames_delivered;
        events.push_back(record.handle);
        if (job.twice) {
            events.push_back(record.handle);
            ++count.duplicate_events;
        }
        if (job.zero) {
            events.push_back(0);
            ++count.zero_handle_events;
        }
        if (job.unknown) {
            events.push_back(kUnknownHandle);
            ++count.unknown_handle_events;
        }
    }
    return events;
}

}  // namespace vqxsim
