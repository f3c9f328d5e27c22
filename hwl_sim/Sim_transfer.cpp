// Sim_transfer.cpp: the capture buffers, arming and releasing them, the
// transfer's start and stop, and the stop request with its deferred
// confirmation.
//
// A buffer is free, armed (InitCapture) or delivered. Armed buffers fill in
// arming order; in capture modes 4 and 6 the transfer fills free buffers
// itself.
#include "Sim_core.h"

#include <algorithm>

namespace vqxsim {

// ---------------------------------------------------------------------------
// Buffer bookkeeping (lock held)
// ---------------------------------------------------------------------------

// The buffer with handle @p handle, or -1.
int Sim_core::index_of(int handle) const
{
    int index = handle - first_handle;
    return index >= 0 && index < int(buffers.size()) ? index : -1;
}

void Sim_core::disarm(int index)
{
    armed.erase(std::remove(armed.begin(), armed.end(), index), armed.end());
}

// The buffer whose memory holds @p address, or -1.
int Sim_core::index_at(const void* address) const
{
    auto p = reinterpret_cast<uintptr_t>(address);
    auto base = reinterpret_cast<uintptr_t>(memory.data());
    if (p < base || p - base >= memory.size())
        return -1;
    return int((p - base) / frame.size());
}

// A buffer leaves the driver (ReleaseBuffer) or is armed again: an
// announced frame in it has come back; a frame held back is gone.
void Sim_core::give_back(Buffer& buffer)
{
    if (buffer.state == Buffer_state::delivered && !buffer.held)
        ++count.frames_returned;
    buffer.held = false;
}

// The buffer the next frame goes into, or -1 for none: the first armed one;
// where the transfer fills free buffers itself and none is armed, the next
// free one after the last filled. Capture mode 6 fills only while a
// StartSnapshot is unused.
int Sim_core::pick_target() const
{
    if (!transfer)
        return -1;
    if (!self_filling() || !armed.empty())
        return armed.empty() || (cfg.capture_mode == 6 && snapshots == 0) ? -1 : armed.front();
    if (cfg.capture_mode == 6 && snapshots == 0)
        return -1;
    int n = int(buffers.size());
    for (int k = 1; k <= n; ++k) {
        int i = (last_filled + k + n) % n;
        if (buffers[i].state == Buffer_state::free)
            return i;
    }
    return -1;
}

// ---------------------------------------------------------------------------
// Buffers
// ---------------------------------------------------------------------------

IHwl::Image_buffer_pointers* Sim_core::GetImageBuffers(uint64_t& n)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("GetImageBuffers");
    n = pointers.size();
    trace.line("GetImageBuffers() = %zu buffers", pointers.size());
    return pointers.data();
}

void Sim_core::ReleaseBuffer(int buffer)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ReleaseBuffer");
    int i = index_of(buffer);
    if (i < 0 || buffers[i].state == Buffer_state::free) {
        ++count.bad_releases;
    } else {
        if (buffers[i].state == Buffer_state::armed)
            disarm(i);
        give_back(buffers[i]);
        buffers[i].state = Buffer_state::free;
    }
    trace.line("ReleaseBuffer(0x%X)%s", unsigned(buffer), i < 0 ? " unknown handle" : "");
    wake.notify_all();
}

bool Sim_core::InitCapture(int buffer)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("InitCapture");
    int i = index_of(buffer);
    bool ok = i >= 0;
    if (!ok) {
        ++count.bad_captures;
    } else if (buffers[i].state != Buffer_state::armed) {
        give_back(buffers[i]);
        buffers[i].state = Buffer_state::armed;
        armed.push_back(i);
    }
    trace.line("InitCapture(0x%X) = %d", unsigned(buffer), ok);
    wake.notify_all();
    return ok;
}

void Sim_core::StartSnapshot()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("StartSnapshot");
    ++snapshots;
    trace.line("StartSnapshot()");
    wake.notify_all();
}

// ---------------------------------------------------------------------------
// Transfer and stopping
// ---------------------------------------------------------------------------

// Fails while the start_fail fault is set. A start after a stop made during
// a stall begins the stall's recovery (clear_restarted_stall).
bool Sim_core::StartScanning()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("StartScanning");
    if (faults.start_fail) {
        ++count.failed_starts;
        trace.line("StartScanning() = 0 (start_fail)");
        return false;
    }
    transfer = true;
    if (is_stalled && stopped_in_stall)
        stall_recovering = true;
    trace.line("StartScanning() = 1");
    state_changed();
    return true;
}

// The sensor keeps streaming; only the transfer stops. A stop during a
// stall is remembered: it is the first step of the stall's recovery.
bool Sim_core::StopScanning()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("StopScanning");
    transfer = false;
    stopped_in_stall = is_stalled;
    trace.line("StopScanning() = 1");
    state_changed();
    return true;
}

// True when the stop takes effect at once; false when a fault defers its
// confirmation (stop_deadline) or keeps it for good (never_pending).
bool Sim_core::RequestStopScanning(IHwl::Stop_callback callback, void* context)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("RequestStopScanning");
    ++count.stop_requests;
    bool at_once = !faults.never_confirm_stop && faults.defer_stop_ms < 0;
    if (faults.never_confirm_stop) {
        never_pending = true;
        never_callback = callback;
        never_context = context;
    } else if (!at_once) {
        if (!stop_pending)
            stop_deadline = Clock::now() + std::chrono::milliseconds(faults.defer_stop_ms);
        stop_pending = true;
        stop_callback = callback;
        stop_context = context;
        wake.notify_all();
    }
    trace.line("RequestStopScanning(%p, %p) = %d", reinterpret_cast<void*>(callback), context, at_once);
    return at_once;
}

// Confirms a deferred stop from the frame thread: the callback runs with
// the lock released, so that it may call back into the engine.
void Sim_core::confirm_stop(std::unique_lock<std::mutex>& lock)
{
    stop_pending = false;
    IHwl::Stop_callback callback = stop_callback;
    void* context = stop_context;
    ++count.stop_confirmations;
    lock.unlock();
    trace.line("stop confirmed: callback(%p)", context);
    if (callback)
        callback(context);
    lock.lock();
}

// Confirms a pending deferred stop now and, with @p also_never, a stop the
// never_confirm_stop fault keeps; callbacks run with the lock released.
unsigned Sim_core::confirm_stop_now(bool also_never)
{
    std::vector<std::pair<IHwl::Stop_callback, void*>> due;
    {
        std::lock_guard<std::mutex> hold(mutex);
        if (stop_pending) {
            stop_pending = false;
            due.emplace_back(stop_callback, stop_context);
        }
        if (also_never && never_pending) {
            never_pending = false;
            due.emplace_back(never_callback, never_context);
        }
        count.stop_confirmations += due.size();
    }
    for (const auto& d : due) {
        trace.line("stop confirmed now: callback(%p)", d.second);
        if (d.first)
            d.first(d.second);
    }
    return unsigned(due.size());
}

bool Sim_core::stop_pending_now() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return stop_pending;
}

// ---------------------------------------------------------------------------
// Inspection
// ---------------------------------------------------------------------------

std::vector<Buffer_state> Sim_core::buffer_states() const
{
    std::lock_guard<std::mutex> hold(mutex);
    std::vector<Buffer_state> states;
    for (const Buffer& b : buffers)
        states.push_back(b.state);
    return states;
}

Buffer_state Sim_core::buffer_state(int handle) const
{
    std::lock_guard<std::mutex> hold(mutex);
    int i = index_of(handle);
    return i < 0 ? Buffer_state::free : buffers[i].state;
}

bool Sim_core::buffer_at(const void* address, Buffer_view* out) const
{
    std::lock_guard<std::mutex> hold(mutex);
    int i = index_at(address);
    if (i < 0)
        return false;
    out->handle = pointers[i].handle;
    out->state = buffers[i].state;
    out->held = buffers[i].held;
    out->announced_frame = buffers[i].announced_frame;
    return true;
}

std::vector<unsigned char*> Sim_core::buffer_images() const
{
    std::vector<unsigned char*> images;
    for (const IHwl::Image_buffer_pointers& p : pointers)
        images.push_back(p.image);
    return images;
}

}  // namespace vqxsim
