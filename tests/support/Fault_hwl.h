// Fault_hwl: a fault-injecting AR0144 hardware layer over another hardware
// layer (normally the simulator's), with frame accounting.
//
// Used by the stress test, the misuse suite and the fuzz target. The driver
// keeps the hardware layer it found at start-up for the life of the process,
// so faults that a test wants to switch on and off while the driver runs
// live here, in front of the simulator, as run-time switches:
//   - drop: the frame's vsync is swallowed and its buffer re-armed (the
//     frame is lost, the buffer stays armed);
//   - duplicate, zero_handle, unknown_handle: extra vsyncs right after the
//     frame's own (the same handle again, handle 0, a handle that is no
//     buffer); with an event guard set (see event_guard) the frame's events
//     reach the driver in one piece, as a doubled interrupt would;
//   - stall: every vsync is swallowed and its buffer left filled, so frames
//     stop (release_stalled() announces the held-back frames late);
//   - write_fail: WriteReg fails without reaching the engine;
//   - start_fail: StartScanning (the transfer start) fails;
//   - stop mode: RequestStopScanning answers at once, defers the
//     confirmation (made from this object's own thread after a delay, or by
//     confirm_stops()), or never confirms.
// Probabilities draw from one seeded generator.
//
// Frame accounting. A "life" is one frame in one buffer: it begins with the
// first vsync of an armed buffer and ends when the driver gives the buffer
// back (ReleaseBuffer) or arms it again (InitCapture). A test marks a life
// as handed to a client with mark_handed() when a client received its
// buffer; a life that ends unmarked was dropped by the driver (replaced by a
// newer frame, withdrawn, cleared at a stop). Marking a buffer that holds no
// live frame, or marking a life twice, is counted as an error.
//
// Threading: every operation may be called from any thread. The object's
// mutex is never held while a driver callback runs; the driver calls
// ReleaseBuffer and InitCapture with its own monitor held, so the order is
// driver monitor, then this mutex.
#ifndef VQX_TESTS_FAULT_HWL_H
#define VQX_TESTS_FAULT_HWL_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "IHwl.h"

namespace robust {

class Fault_hwl : public IHwl_AR0144 {
public:
    enum class Stop_mode { at_once, deferred, never };

    /// A handle that is never a buffer of the simulator.
    static constexpr int unknown_handle = 0x0BAD;

    struct Accounting {
        uint64_t lives_begun = 0;
        uint64_t lives_ended = 0;
        uint64_t lives_marked = 0;     ///< lives a client received
        uint64_t ended_unmarked = 0;   ///< lives the driver dropped
        uint64_t frames_dropped = 0;   ///< drop fault
        uint64_t frames_swallowed = 0; ///< stall fault
        uint64_t extra_vsyncs = 0;     ///< duplicate, zero and unknown handles
        uint64_t failed_writes = 0;
        uint64_t failed_starts = 0;
        uint64_t stop_requests = 0;
        uint64_t stops_confirmed = 0;
        uint64_t stops_never_confirmed = 0;
        uint64_t mark_errors = 0;
        std::string first_mark_error;
    };

    /// Fault switches; probabilities are 0 to 1.
    std::atomic<double> p_drop{0}, p_duplicate{0}, p_zero{0}, p_unknown{0}, p_write_fail{0};
    std::atomic<bool> stall{false};
    /// The transfer hardware fills free buffers on its own (capture modes 4
    /// and 6): a frame event for a buffer nobody armed starts a life.
    std::atomic<bool> self_filling{false};
    std::atomic<bool> start_fail{false};
    std::atomic<Stop_mode> stop_mode{Stop_mode::at_once};
    std::atomic<unsigned> defer_ms{20};

    /// Runs a frame's events when it has extra ones. A test that can hold
    /// the driver's monitor sets it (robust::with_driver_monitor), so that no
    /// client call runs between a frame's vsync and its duplicate: otherwise
    /// a client may take the frame and give it back, and the driver arm the
    /// buffer again, before the duplicate arrives, and the driver rightly
    /// takes that late duplicate for the completion of the new capture
    /// (which this layer's accounting cannot tell). The driver's handling of
    /// such late events has unit tests of its own. Set before the driver
    /// starts; read from the frame thread.
    std::function<void(const std::function<void()>&)> event_guard;

    Fault_hwl(IHwl& inner_hwl, uint64_t seed) : inner(inner_hwl), random(seed)
    {
        confirmer = std::thread([this] { run_confirmer(); });
    }

    ~Fault_hwl() override { shutdown(); }

    Fault_hwl(const Fault_hwl&) = delete;
    Fault_hwl& operator=(const Fault_hwl&) = delete;

    /// Stops the confirmation thread (pending confirmations are dropped).
    void shutdown()
    {
        {
            std::lock_guard<std::mutex> hold(mutex);
            quit = true;
        }
        wake.notify_all();
        if (confirmer.joinable())
            confirmer.join();
    }

    /// Turns every fault off (stop mode back to at once).
    void clear_faults()
    {
        p_drop = p_duplicate = p_zero = p_unknown = p_write_fail = 0;
        stall = false;
        start_fail = false;
        stop_mode = Stop_mode::at_once;
    }

    /// Makes every deferred stop confirmation now, from the calling thread
    /// (which must hold no driver lock). Returns how many were made.
    /// With @p also_never, the stops that were to be never confirmed are
    /// confirmed too (the hardware recovers very late).
    unsigned confirm_stops(bool also_never = false)
    {
        std::deque<Pending_stop> due;
        {
            std::lock_guard<std::mutex> hold(mutex);
            due.swap(pending_stops);
            if (also_never) {
                due.insert(due.end(), unconfirmed.begin(), unconfirmed.end());
                unconfirmed.clear();
            }
        }
        for (const Pending_stop& p : due)
            p.callback(p.context);
        std::lock_guard<std::mutex> hold(mutex);
        count.stops_confirmed += due.size();
        return unsigned(due.size());
    }

    /// The stalled transfer recovers late: the frames it held back (stall
    /// fault) are announced now, from the calling thread, which must hold
    /// no driver lock. Returns how many.
    unsigned release_stalled()
    {
        std::vector<int> handles;
        Vsync_callback callback;
        void* context;
        {
            std::lock_guard<std::mutex> hold(mutex);
            callback = driver_vsync;
            context = driver_context;
            for (auto& b : buffers)
                if (b.second.state == State::filled) {
                    b.second.state = State::alive;
                    b.second.marked = false;
                    b.second.late_mark_allowed = false;
                    ++count.lives_begun;
                    handles.push_back(b.first);
                }
        }
        for (int handle : handles)
            if (callback)
                callback(handle, context);
        return unsigned(handles.size());
    }

    /// The stalled transfer lost the frames it held back (stall fault). Where
    /// the hardware fills buffers on its own, it frees their buffers again,
    /// since no driver knows of them; elsewhere the driver still has them
    /// armed and takes them back. Returns how many were freed.
    unsigned lose_stalled()
    {
        std::lock_guard<std::mutex> hold(mutex);
        unsigned n = 0;
        if (!self_filling)
            return 0;
        for (auto& b : buffers)
            if (b.second.state == State::filled) {
                b.second.state = State::idle;
                inner.ReleaseBuffer(b.first);  // the simulator never takes this lock
                ++n;
            }
        return n;
    }

    /// Number of stop confirmations still to come.
    size_t stops_pending() const
    {
        std::lock_guard<std::mutex> hold(mutex);
        return pending_stops.size();
    }

    /// Marks the live frame in the buffer holding @p address as received by
    /// a client. False (and an error counted) when that buffer holds no live
    /// frame or its frame was marked already.
    bool mark_handed(const void* address)
    {
        std::lock_guard<std::mutex> hold(mutex);
        int handle = handle_of_locked(address);
        auto it = buffers.find(handle);
        if (it == buffers.end())
            return mark_error("a frame address that is no buffer");
        if (it->second.state != State::alive) {
            if (!it->second.late_mark_allowed)
                return mark_error("a buffer without a delivered frame was handed out");
            // The frame was handed out, then taken back before this mark.
            it->second.late_mark_allowed = false;
            --count.ended_unmarked;
            ++count.lives_marked;
            return true;
        }
        if (it->second.marked)
            return mark_error("the same frame was handed out twice");
        it->second.marked = true;
        ++count.lives_marked;
        return true;
    }

    /// The handle of the buffer holding @p address (any address inside it),
    /// 0 when none.
    int handle_of(const void* address) const
    {
        std::lock_guard<std::mutex> hold(mutex);
        return handle_of_locked(address);
    }

    /// Image addresses of the buffers, in array order (empty before the
    /// driver first asked for them).
    std::vector<unsigned char*> buffer_addresses() const
    {
        std::lock_guard<std::mutex> hold(mutex);
        std::vector<unsigned char*> out;
        for (const auto& r : ranges)
            out.push_back(r.begin);
        return out;
    }

    /// This layer's view of a buffer, for failure messages.
    std::string describe(int handle) const
    {
        static const char* const names[] = {"idle", "armed", "holds a live frame", "filled, held back"};
        std::lock_guard<std::mutex> hold(mutex);
        auto it = buffers.find(handle);
        if (it == buffers.end())
            return "no buffer";
        return std::string(names[int(it->second.state)]) + (it->second.marked ? ", handed out" : "");
    }

    Accounting accounting() const
    {
        std::lock_guard<std::mutex> hold(mutex);
        return count;
    }

    /// Buffers the driver has not given back (armed, filled or holding a
    /// live frame), as this layer sees them.
    unsigned buffers_out() const
    {
        std::lock_guard<std::mutex> hold(mutex);
        unsigned n = 0;
        for (const auto& b : buffers)
            n += b.second.state != State::idle;
        return n;
    }

    // ----------------------------------------------------------------------
    // IHwl
    // ----------------------------------------------------------------------
    bool IsPsocSupported() override { return inner.IsPsocSupported(); }
    bool WriteIIC_PSOC(unsigned char a, unsigned char* d, unsigned int n) override { return inner.WriteIIC_PSOC(a, d, n); }
    bool ReadIIC_PSOC(unsigned char a, unsigned char* d, unsigned int n) override { return inner.ReadIIC_PSOC(a, d, n); }

    Image_buffer_pointers* GetImageBuffers(uint64_t& n) override
    {
        Image_buffer_pointers* p = inner.GetImageBuffers(n);
        size_t frame = size_t(inner.GetScanWidth()) * inner.GetScanHeight();
        std::lock_guard<std::mutex> hold(mutex);
        ranges.clear();
        for (uint64_t i = 0; p && i < n; ++i) {
            ranges.push_back({p[i].image, p[i].image + frame, p[i].handle});
            buffers.emplace(p[i].handle, Buffer{});
        }
        return p;
    }

    void ReleaseBuffer(int handle) override
    {
        {
            std::lock_guard<std::mutex> hold(mutex);
            auto it = buffers.find(handle);
            if (it != buffers.end()) {
                end_life(it->second);
                it->second.state = State::idle;
            }
        }
        inner.ReleaseBuffer(handle);
    }

    bool RegisterVsyncNotification(Vsync_callback callback, void* context) override
    {
        {
            std::lock_guard<std::mutex> hold(mutex);
            driver_vsync = callback;
            driver_context = context;
        }
        return inner.RegisterVsyncNotification(&Fault_hwl::on_vsync, this);
    }

    unsigned int GetScanHeight() override { return inner.GetScanHeight(); }
    unsigned int GetScanWidth() override { return inner.GetScanWidth(); }
    bool ImagerPowerUp() override { return inner.ImagerPowerUp(); }
    bool ImagerPowerDown() override { return inner.ImagerPowerDown(); }
    bool ImagerPowerOn() override { return inner.ImagerPowerOn(); }
    bool ImagerPowerOff() override { return inner.ImagerPowerOff(); }

    bool InitCapture(int handle) override
    {
        {
            std::lock_guard<std::mutex> hold(mutex);
            auto it = buffers.find(handle);
            if (it != buffers.end()) {
                end_life(it->second);
                it->second.state = State::armed;
            }
        }
        return inner.InitCapture(handle);
    }

    void StartSnapshot() override { inner.StartSnapshot(); }
    bool ResetTransferHardware() override { return inner.ResetTransferHardware(); }
    bool AimOn() override { return inner.AimOn(); }
    bool AimOff() override { return inner.AimOff(); }
    bool IllumConfig(unsigned int c) override { return inner.IllumConfig(c); }
    bool IllumOn() override { return inner.IllumOn(); }
    bool IllumOff() override { return inner.IllumOff(); }

    bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    {
        if (p_write_fail > 0) {
            std::lock_guard<std::mutex> hold(mutex);
            if (chance(p_write_fail)) {
                ++count.failed_writes;
                return false;
            }
        }
        return inner.WriteReg(address, values, length);
    }
    bool ReadReg(unsigned int address, uint16_t* values, uint64_t length) override { return inner.ReadReg(address, values, length); }

    void GetConfig(Config* config) override { inner.GetConfig(config); }
    bool LoadCaptureInfo() override { return inner.LoadCaptureInfo(); }
    bool EnableVsyncProcessing() override { return inner.EnableVsyncProcessing(); }

    bool StartScanning() override
    {
        if (start_fail) {
            std::lock_guard<std::mutex> hold(mutex);
            ++count.failed_starts;
            return false;
        }
        return inner.StartScanning();
    }

    bool StopScanning() override { return inner.StopScanning(); }
    bool OpenSession() override { return inner.OpenSession(); }
    void CloseSession() override { inner.CloseSession(); }

    bool RequestStopScanning(Stop_callback callback, void* context) override
    {
        Stop_mode mode = stop_mode;
        {
            std::lock_guard<std::mutex> hold(mutex);
            ++count.stop_requests;
            if (mode == Stop_mode::never) {
                ++count.stops_never_confirmed;
                if (callback)
                    unconfirmed.push_back({callback, context, Clock::now()});
                return false;
            }
            if (mode == Stop_mode::deferred) {
                if (callback)
                    pending_stops.push_back(
                        {callback, context,
                         Clock::now() + std::chrono::milliseconds(defer_ms.load())});
                wake.notify_all();
                return false;
            }
        }
        return inner.RequestStopScanning(callback, context);
    }

private:
    using Clock = std::chrono::steady_clock;
    enum class State { idle, armed, alive, filled };

    struct Buffer {
        State state = State::idle;
        bool marked = false;
        // The last life ended unmarked: its frame may already be in a
        // client's hands (taken back by another session's stop before the
        // client marked it), so one late mark is still accepted.
        bool late_mark_allowed = false;
    };
    struct Range {
        unsigned char* begin;
        unsigned char* end;
        int handle;
    };
    struct Pending_stop {
        Stop_callback callback;
        void* context;
        Clock::time_point due;
    };

    // A draw with probability @p p; the caller holds the mutex.
    bool chance(const std::atomic<double>& p)
    {
        const double value = p;
        return value > 0 && std::uniform_real_distribution<double>(0.0, 1.0)(random) < value;
    }

    int handle_of_locked(const void* address) const
    {
        auto p = static_cast<const unsigned char*>(address);
        for (const Range& r : ranges)
            if (p >= r.begin && p < r.end)
                return r.handle;
        return 0;
    }

    bool mark_error(const char* what)
    {
        if (count.mark_errors++ == 0)
            count.first_mark_error = what;
        return false;
    }

    void end_life(Buffer& b)
    {
        if (b.state != State::alive)
            return;
        ++count.lives_ended;
        if (!b.marked)
            ++count.ended_unmarked;
        b.late_mark_allowed = !b.marked;
        b.marked = false;
    }

    static void on_vsync(int handle, void* self) { static_cast<Fault_hwl*>(self)->vsync(handle); }

    // The simulator's frame thread, holding none of its locks.
    void vsync(int handle)
    {
        int events[4];
        int n = 0;
        Vsync_callback callback;
        void* context;
        {
            std::unique_lock<std::mutex> hold(mutex);
            callback = driver_vsync;
            context = driver_context;
            auto it = buffers.find(handle);
            const bool fresh = it != buffers.end() &&
                               (it->second.state == State::armed || (self_filling && it->second.state == State::idle));
            if (fresh && stall) {
                it->second.state = State::filled;
                ++count.frames_swallowed;
            } else if (fresh && chance(p_drop)) {
                // Re-armed (or, where the hardware fills buffers on its own,
                // given back to it) under this object's lock, so that a
                // release by the driver cannot slip in between (the
                // simulator never takes this lock).
                if (self_filling)
                    inner.ReleaseBuffer(handle);
                else
                    inner.InitCapture(handle);
                ++count.frames_dropped;
            } else {
                if (fresh) {
                    it->second.state = State::alive;
                    it->second.marked = false;
                    it->second.late_mark_allowed = false;
                    ++count.lives_begun;
                }
                events[n++] = handle;
                if (handle != 0 && chance(p_duplicate))
                    events[n++] = handle;
                if (chance(p_zero))
                    events[n++] = 0;
                if (chance(p_unknown))
                    events[n++] = unknown_handle;
                count.extra_vsyncs += unsigned(n - 1);
            }
        }
        auto dispatch = [&] {
            for (int i = 0; i < n; ++i)
                if (callback)
                    callback(events[i], context);
        };
        if (n > 1 && event_guard)
            event_guard(dispatch);
        else
            dispatch();
    }

    void run_confirmer()
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!quit) {
            if (pending_stops.empty()) {
                wake.wait(lock);
                continue;
            }
            Pending_stop first = pending_stops.front();
            if (Clock::now() < first.due) {
                wake.wait_until(lock, first.due);
                continue;
            }
            pending_stops.pop_front();
            ++count.stops_confirmed;
            lock.unlock();
            first.callback(first.context);
            lock.lock();
        }
    }

    IHwl& inner;
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::mt19937_64 random;
    Vsync_callback driver_vsync = nullptr;
    void* driver_context = nullptr;
    std::map<int, Buffer> buffers;
    std::vector<Range> ranges;
    std::deque<Pending_stop> pending_stops;
    std::deque<Pending_stop> unconfirmed;  // never-confirmed stops, for confirm_stops(true)
    Accounting count;
    bool quit = false;
    std::thread confirmer;
};

} // namespace robust

#endif
