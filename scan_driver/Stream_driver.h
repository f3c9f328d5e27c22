// Stream_driver: the scan state machine and frame flow of the driver.
//
// Turns the engine's frame events into a flow of filled image buffers. It
// owns the scan state (STOPPED, SCANNING, STOPPING), arms the capture of the
// next buffer according to the engine's capture mode, receives the hardware
// layer's vsync callback for every completed frame, hands the completed
// buffer to Available_buffer and to the Sensor (exposure control), detects
// stalled capture with alarms and performs the deferred stop some hardware
// layers need.
//
// Capture modes (the number comes from the hardware layer's configuration):
//   0, 5  fill buffer armed per capture, trigger_on once; the next buffer
//         is armed as soon as a frame is delivered (or, when none is free,
//         when a client gives one back)
//   1     not implemented: the first capture fails, nothing is triggered,
//         and the scan counts as stalled at once (stalled()), so waiting
//         clients are answered at once
//   2, 3  fill buffer armed per capture, start-of-frame polling every 1 ms;
//         the next buffer is armed (and exposure updated) once two thirds of
//         the frame have arrived; when the poll misses that point (the frame
//         ended first), the next buffer is armed at the frame's vsync and
//         that frame updates no exposure (the trait's exposure_frame still
//         runs there: once per frame in every mode)
//   4     the hardware fills buffers on its own, trigger_on once
//   6     trait start_snapshot per frame, trigger_once per frame
//   7     fill buffer armed per capture, trigger_once per frame
//         In modes 6 and 7 every triggered frame gets the stall retries of
//         a first frame: when it does not come within the engine's resume
//         time, the trait's check_stall runs and the frame is triggered
//         again (mode 6 with a new snapshot request), three times before
//         the scan counts as stalled. (The streaming modes count a gap
//         after frames have flowed as a stall at once.)
//
// Users: the session and the power state manager (start/stop/wait), the
// buffer locker (buffer_free), the hardware layer's callback thread
// (vsync_ist, complete_stop_scanning) and the monitor's timer thread (the
// start-of-frame and capture stall alarms). Peers are reached through
// `the_scan_driver`.
//
// Threading: the monitor forwards to the sensor's monitor, so the stream
// driver, sensor, buffer locker, available buffer and state manager share
// one lock. Every public operation takes it (entry is recursive); alarm
// callbacks run with it held. The buffer locker's lock is that same monitor,
// so "stream monitor, then buffer locker" holds trivially.
//
// The stream driver's own mutex guards its time-stamp trace buffer, the one
// piece of state written outside the monitor: the vsync trampoline stamps
// the time before and after it enters the monitor. The buffer belongs to the
// driver object (not to the source file) so that the driver's own mutex
// covers every writer. The mutex is held only for the formatting and never
// while another lock is taken (inside the monitor it nests as monitor, then
// mutex; outside it is taken alone).
//
// The frame path does no I/O (traces go to the silent channel) and
// allocates nothing of its own; the alarm runtime allocates one alarm body
// per alarm set (the stall alarm re-set by every frame, each start-of-frame
// poll).
//
// Stopping: pending_captures counts armed captures whose vsync has not come.
// A scan that leaves STOPPING through the stall alarm may still have armed
// captures; they are forgotten when the driver is de-initialised (their
// vsyncs, arriving while STOPPED, hand the buffer straight back), so that
// the next scan starts counting from zero.
//
// A stop that still waits (for a pending capture or for the hardware
// layer's confirmation) when no capture stall alarm is pending (the scan had
// already stalled) gets that alarm (after the trait's resume time on a
// stalled scan, else after the 2000 ms stop bound), so every stop ends: the
// alarm de-initialises a driver that is still STOPPING.
//
// Stop after image: the sensor stops the scan from inside the delivery of
// the frame the client asked for. When that stop completes at once (a
// hardware layer whose RequestStopScanning answers true), de-initialisation
// keeps that frame in the hand-off instead of returning it, so the client's
// single frame is not lost; the next stop_scanning (on the stopped driver)
// or start_scanning drops it if nobody took it.
//
// Capture modes above 7 are treated like mode 1: the capture fails with the
// "not implemented" message and nothing is triggered.
//
// A vsync out of arming order (a known buffer that is not the one being
// filled) is reported; the frame is delivered and the buffer that was being
// filled is handed back to the hardware layer without restarting capture,
// so that no record stays locked without an owner.
//
// A repeated vsync for a frame already delivered (the buffer is held by the
// client or waits in the hand-off) is ignored: handing the same buffer out
// twice, or re-arming it under the client, would break its ownership. So is,
// in the modes where the driver arms every capture (0, 2, 3, 5, 7), a vsync
// naming a buffer that is not armed at all: a repeat that arrives after the
// client already gave the frame back. Nothing was captured into it, and
// delivering it would hand out an old picture with the current exposure.
//
// Unknown buffer handles: a vsync naming a buffer the driver does not know
// is reported ("p_info") and handed back to the hardware layer; nothing else
// changes and the pending stall alarm keeps running.
//
// A scan counted as stalled has no stall alarm left; a deferred stop of such
// a scan that the hardware layer never confirms keeps the driver STOPPING
// (waits for it time out after their bound).
#ifndef VQX_STREAM_DRIVER_H
#define VQX_STREAM_DRIVER_H

#include <cstdint>

#include "IStream_driver.h"
#include "ScanBufferInfo.h"
#include "Synchronization.h"
#include "monitor.h"

class Sensor;

class Stream_driver : public IStream_driver, public Forward_monitor<Stream_driver> {
public:
    // Argument of the start-of-frame alarm: the buffer being polled.
    struct monitor_sof_data_info {
        uint64_t capture;  // the buffer's capture address
        int32_t handle;    // the buffer's handle
    };

    Stream_driver(Sensor volatile* sensor, unsigned int capture_mode);
    ~Stream_driver() override;

    Scan_state_t scan_state() const override;
    bool wait_for_stop_scanning(unsigned int ms) override;
    bool start_scanning(const _tagVQX_SCANNER_LIGHTING& lighting,
                        const Exposure_settings& exposure, bool flag) override;
    bool stop_scanning() override;
    void buffer_free() override;
    void vsync_ist(int buffer) override;
    bool stalled() const override;

    // Called by the hardware layer (with this as context) once a deferred
    // stop has completed.
    static void complete_stop_scanning(void* self);
    void complete_stop_scanning();

    // Forms that take the lock themselves.
    void vsync_notify(int buffer) volatile;
    void reset_prefill_state() volatile;
    void reset_buffer_statex() volatile;

    // Read-only views for diagnostics and tests (monitor held).
    ScanBufferInfo* filling() const { return pFilling; }
    ScanBufferInfo* prefill() const { return pPrefill; }
    uint32_t get_pending_captures() const { return pending_captures; }
    bool get_deferred_stop_scanning() const { return deferred_stop_scanning; }
    int32_t get_stall_count() const { return stall_count; }
    int32_t get_frame_count() const { return frame_count; }

private:
    bool capture_next();
    ScanBufferInfo* GetNextFillBuffer();
    void init_capture(ScanBufferInfo* info);
    void vsync_notify(int buffer);
    void inter_frame_ist(int buffer);
    void monitor_sof_data(monitor_sof_data_info info);
    void schedule_capture_stall();
    void ensure_stop_ends();
    void capture_stall();
    void trigger_once();
    void trigger_on();
    void trigger_off();
    bool stop_scanning_check();
    void deinitialize_scanning();
    void set_scan_state(Scan_state_t state);
    void reset_prefill_state();
    void reset_buffer_statex();
    void give_back(ScanBufferInfo*& slot, const char* owner_text, const char* lock_text, unsigned int line);
    // Gives a buffer the scan driver holds back without telling
    // buffer_free (so capture is not restarted from inside a reset).
    void release_quietly(ScanBufferInfo* info);

    bool scan_state_not_stopping() const;
    bool sof_polling_mode() const;
    bool triggered_mode() const;  // capture modes 6 and 7
    bool arms_fill_buffers() const;  // capture modes 0, 2, 3, 5 and 7
    // Formats @p tick (default: now) as "seconds.milliseconds" into the
    // time-stamp buffer, under the own mutex, and traces it with @p format.
    // Does nothing while the silent channel is compiled out: the stamps run
    // up to three times a frame and nobody could read them.
    void stamp_time(const char* format);
    void stamp_time(const char* format, unsigned int tick);

    Synchroniztion_internal::MT_Mutex_struct* mutex;
    ScanBufferInfo* pFilling = nullptr;
    ScanBufferInfo* pPrefill = nullptr;
    uint32_t pending_captures = 0;
    bool deferred_stop_scanning = false;
    bool delivering_frame = false;  // inside the sensor's vsync_ist
    bool frame_programmed = false;  // exposure_frame ran at this frame's inter-frame point
    Alarm sof_alarm;
    Alarm capture_stall_alarm;
    Scan_state_t state = STOPPED;
    Condition not_stopping;
    int32_t stall_count = 0;
    int32_t frame_count = 0;
    char time_stamp[24] = {};  // guarded by mutex

    friend class IStream_driver;  // the vsync trampoline stamps the time
};

#endif
