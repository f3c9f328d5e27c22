// Driver_invariants: consistency checks over the driver's object graph, for
// the stress test, the misuse suite and the fuzz target (programs linked
// with the static driver core, which can reach `the_scan_driver`).
//
// Every check takes a snapshot under the sensor's monitor, the lock that
// guards buffer ownership, the stream state, the hand-off and the power
// state manager, so it sees a state the driver could be in between two of
// its own operations. The calling thread must hold no driver lock.
//
// Buffer census: each buffer record is exactly one of
//   free     lock count 0, owner NONE;
//   armed    held by the scan driver as the buffer being filled or the one
//            armed after it;
//   waiting  held by the scan driver as the completed frame in the hand-off;
//   held     held by the client;
// with a lock count of 1 for every held record (the exported interface has
// no way to lock a buffer twice), and the four counts add up to the number
// of buffers.
#ifndef VQX_TESTS_DRIVER_INVARIANTS_H
#define VQX_TESTS_DRIVER_INVARIANTS_H

#include <cstdio>
#include <functional>
#include <string>

#include "Available_buffer.h"
#include "Buffer_locker.h"
#include "IStream_driver.h"
#include "Scan_driver.h"
#include "ScanBufferInfo.h"
#include "Sensor.h"
#include "State_manager.h"
#include "Stream_driver.h"

namespace robust {

struct Buffer_census {
    size_t total = 0, free = 0, armed = 0, waiting = 0, held = 0;
    std::string error;  ///< empty when the records are consistent
};

struct Driver_snapshot {
    bool started = false;  ///< the driver's object graph exists
    IStream_driver::Scan_state_t stream = IStream_driver::STOPPED;
    bool stalled = false;
    uint32_t pending_captures = 0;
    bool deferred_stop = false;
    uint32_t open_count = 0, scanning_count = 0, nosleep_count = 0;
    unsigned power = 0;  ///< State_manager::Power_state
    bool streaming = false;
    Buffer_census buffers;

    std::string describe() const
    {
        static const char* const states[] = {"STOPPED", "SCANNING", "STOPPING"};
        char text[320];
        std::snprintf(text, sizeof text,
                      "stream %s%s pending %u%s; open %u scanning %u nosleep %u power %u%s; "
                      "buffers %zu: free %zu armed %zu waiting %zu held %zu%s%s",
                      stream <= IStream_driver::STOPPING ? states[stream] : "?",
                      stalled ? " (stalled)" : "", pending_captures,
                      deferred_stop ? " (stop deferred)" : "", open_count, scanning_count,
                      nosleep_count, power, streaming ? " streaming" : "", buffers.total,
                      buffers.free, buffers.armed, buffers.waiting, buffers.held,
                      buffers.error.empty() ? "" : "; ", buffers.error.c_str());
        return text;
    }
};

/// Census of the buffer records; the caller holds the sensor's monitor.
inline Buffer_census census_locked(Scan_driver& d)
{
    Buffer_census c;
    auto* stream = dynamic_cast<Stream_driver*>(d.stream_driver);
    ScanBufferInfo* filling = stream ? stream->filling() : nullptr;
    ScanBufferInfo* prefill = stream ? stream->prefill() : nullptr;
    ScanBufferInfo* waiting =
        static_cast<Available_buffer volatile*>(d.available_buffer)->peek_available();
    size_t n = 0;
    ScanBufferInfo* ary = d.buffer_locker->get_buffer_ary(n);
    c.total = n;
    auto fail = [&c](size_t i, const char* what) {
        if (c.error.empty())
            c.error = "buffer " + std::to_string(i) + ": " + what;
    };
    if ((filling && filling == prefill) || (waiting && (waiting == filling || waiting == prefill)))
        fail(0, "one record is in two scan-driver roles");
    for (size_t i = 0; i < n; ++i) {
        const ScanBufferInfo& b = ary[i];
        const bool armed = &b == filling || &b == prefill;
        const bool is_waiting = &b == waiting;
        if (b.lock_cnt == 0) {
            ++c.free;
            if (b.owner != ScanBufferInfo::NONE)
                fail(i, "free but owned");
            if (armed || is_waiting)
                fail(i, "free but used by the scan driver");
        } else if (b.owner == ScanBufferInfo::CLIENT) {
            ++c.held;
            if (b.lock_cnt != 1)
                fail(i, "held by the client with a lock count other than 1");
            if (armed || is_waiting)
                fail(i, "held by the client and used by the scan driver");
        } else if (b.owner == ScanBufferInfo::SCANDRIVER) {
            if (b.lock_cnt != 1)
                fail(i, "scan driver lock count other than 1");
            if (armed)
                ++c.armed;
            else if (is_waiting)
                ++c.waiting;
            else
                fail(i, "held by the scan driver in no role (lost)");
        } else {
            fail(i, "locked without a valid owner");
        }
    }
    if (c.free + c.armed + c.waiting + c.held != c.total && c.error.empty())
        c.error = "counts do not add up";
    return c;
}

/// A consistent snapshot of the driver (taken under the sensor's monitor).
inline Driver_snapshot snapshot()
{
    Driver_snapshot s;
    Scan_driver& d = *the_scan_driver;
    if (!d.sensor || !d.stream_driver || !d.buffer_locker || !d.state_manager || !d.available_buffer)
        return s;
    s.started = true;
    auto lock = static_cast<Sensor volatile*>(d.sensor)->get_lock();
    auto* stream = dynamic_cast<Stream_driver*>(d.stream_driver);
    s.stream = d.stream_driver->scan_state();
    s.stalled = d.stream_driver->stalled();
    if (stream) {
        s.pending_captures = stream->get_pending_captures();
        s.deferred_stop = stream->get_deferred_stop_scanning();
    }
    const State_manager& m = *d.state_manager;
    s.open_count = m.get_open_count();
    s.scanning_count = m.get_scanning_count();
    s.nosleep_count = m.get_nosleep_count();
    s.power = m.get_power();
    s.streaming = m.is_streaming();
    s.buffers = census_locked(d);
    return s;
}

/// Runs @p f under the sensor's monitor (the driver's outermost lock),
/// entered from a thread that holds no driver lock. Used as the simulator's
/// event guard: the monitor is recursive, so the vsync callbacks run by @p f
/// enter it again.
inline void with_driver_monitor(const std::function<void()>& f)
{
    Scan_driver& d = *the_scan_driver;
    if (!d.sensor) {
        f();
        return;
    }
    auto lock = static_cast<Sensor volatile*>(d.sensor)->get_lock();
    f();
}

/// Empty when the snapshot shows an idle driver after the last session
/// closed: nothing open, scanning or holding sleep off, the engine off, the
/// stream stopped and every buffer free; otherwise what is wrong.
inline std::string check_all_closed(const Driver_snapshot& s)
{
    if (!s.started)
        return "";
    std::string e;
    if (s.open_count || s.scanning_count || s.nosleep_count)
        e += "counts not zero; ";
    if (s.power != State_manager::POWER_OFF)
        e += "engine not powered off; ";
    if (s.stream != IStream_driver::STOPPED)
        e += "stream not stopped; ";
    if (s.buffers.free != s.buffers.total)
        e += "buffers not free; ";
    if (!s.buffers.error.empty())
        e += s.buffers.error;
    return e.empty() ? e : e + " [" + s.describe() + "]";
}

} // namespace robust

#endif
