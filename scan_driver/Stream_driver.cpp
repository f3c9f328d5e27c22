// Stream_driver: scan state machine, capture arming, vsync handling, stall
// detection and stopping.
#include "Stream_driver.h"

#include <cstdio>

#include "Available_buffer.h"
#include "Buffer_locker.h"
#include "Diagnostics.h"
#include "Progress_tracker.h"
#include "Scan_driver.h"
#include "Sensor.h"
#include "Sensor_trait.h"

using namespace Synchroniztion_internal;

#define STREAM_LABEL "jni/../Stream_driver"

namespace {

// Longest wait for a previous stop to complete before a new start.
constexpr unsigned int stop_wait_ms = 2000;
// Once frames flow, a gap this long ends the scan as stalled.
constexpr unsigned int frame_gap_ms = 2000;
// Period of the start-of-frame polling (capture modes 1 to 3).
constexpr unsigned int sof_poll_ms = 1;
// Stall count at and above which the capture counts as stalled.
constexpr int32_t stalled_count = 4;

// The trap runs a free function taking the packed arguments by reference.
void run_vsync_trapped(IStream_driver::trap_params& params)
{
    IStream_driver::vsync_ist_trapped(params);
}

} // namespace

// ---------------------------------------------------------------------------
// The hardware layer's callback
// ---------------------------------------------------------------------------

void IStream_driver::vsync_ist(int buffer, void* context)
{
    trap_params params{buffer, context};
    Exception_trap("vsync_ist", &run_vsync_trapped, params, false);
}

int IStream_driver::vsync_ist_trapped(trap_params& params)
{
    IStream_driver* driver = static_cast<IStream_driver*>(params.context);
    if (driver == nullptr)
        return 0;
    Stream_driver* stream = dynamic_cast<Stream_driver*>(driver);
    if (stream != nullptr)
        stream->stamp_time("vsync_ist enter %s");
    driver->vsync_ist(params.buffer);
    if (stream != nullptr)
        stream->stamp_time("vsync_ist leave %s");
    return 0;
}

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------

Stream_driver::Stream_driver(Sensor volatile* sensor, unsigned int mode)
    : IStream_driver(mode),
      Forward_monitor<Stream_driver>(*sensor),
      mutex(new MT_Mutex_struct(false)),
      not_stopping(this, &Stream_driver::scan_state_not_stopping)
{
}

Stream_driver::~Stream_driver()
{
    {
        // No alarm may call into a destroyed driver.
        auto lock = get_lock();
        sof_alarm.cancel();
        capture_stall_alarm.cancel();
    }
    delete mutex;
}

// ---------------------------------------------------------------------------
// Small helpers
// ---------------------------------------------------------------------------

bool Stream_driver::scan_state_not_stopping() const
{
    return state != STOPPING;
}

bool Stream_driver::sof_polling_mode() const
{
    return capture_mode >= 1 && capture_mode <= 3;
}

bool Stream_driver::triggered_mode() const
{
    return capture_mode == 6 || capture_mode == 7;
}

bool Stream_driver::arms_fill_buffers() const
{
    return capture_mode == 0 || capture_mode == 2 || capture_mode == 3 || capture_mode == 5
           || capture_mode == 7;
}

void Stream_driver::set_scan_state(Scan_state_t s)
{
    state = s;
    notify();
}

void Stream_driver::stamp_time(const char* format)
{
    if (silent_trace_enabled)
        stamp_time(format, MT_GetTickCount());
}

void Stream_driver::stamp_time(const char* format, unsigned int tick)
{
    if (!silent_trace_enabled)
        return;  // the stamp would only feed the silent channel
    mutex->wait(MT_INFINITE);
    snprintf(time_stamp, sizeof time_stamp, "%u.%03u", tick / 1000, tick % 1000);
    silent_trace(format, time_stamp);
    mutex->release();
}

IStream_driver::Scan_state_t Stream_driver::scan_state() const
{
    if (owns())
        return state;
    return get_lock()->state;
}

bool Stream_driver::stalled() const
{
    if (owns())
        return stall_count >= stalled_count;
    return get_lock()->stall_count >= stalled_count;
}

// ---------------------------------------------------------------------------
// Starting and arming captures
// ---------------------------------------------------------------------------

bool Stream_driver::start_scanning(const _tagVQX_SCANNER_LIGHTING& lighting,
                                   const Exposure_settings& exposure, bool flag)
{
    auto lock = get_lock();
    if (state == STOPPING && !wait_for_stop_scanning(stop_wait_ms))
        return false;
    if (state == SCANNING)
        return false;
    Scan_driver& driver = *the_scan_driver;
    if (!driver.trait->start_scanning())
        return false;
    driver.buffer_locker->load_image_buffers();
    driver.sensor->start_scanning(lighting, exposure, flag);
    frame_count = 0;
    stall_count = 0;
    reset_buffer_statex();
    set_scan_state(SCANNING);
    driver.available_buffer->clear();
    driver.progress_tracker->clear();
    if (!capture_next())
        return true;
    if (capture_mode == 6 || capture_mode == 7)
        trigger_once();
    else
        trigger_on();
    return true;
}

bool Stream_driver::capture_next()
{
    SD_ASSERT(state == SCANNING, "scan_state() == SCANNING", STREAM_LABEL, __LINE__);
    switch (capture_mode) {
    case 0:
    case 2:
    case 3:
    case 5:
    case 7: {
        ScanBufferInfo* info = GetNextFillBuffer();
        if (info == nullptr) {
            silent_trace("GetNextFillBuffer() returned 0.  Maybe all buffers are locked.");
            return false;
        }
        init_capture(info);
        SD_ASSERT(pending_captures <= 1, "pending_captures <= 1", STREAM_LABEL, __LINE__);
        ++pending_captures;
        return true;
    }
    case 6:
        the_scan_driver->trait->start_snapshot();
        SD_ASSERT(pending_captures == 0, "pending_captures == 0", STREAM_LABEL, __LINE__);
        ++pending_captures;
        return true;
    case 4:
        return true;
    default:
        dbg_output("This capture mode is not implemented.\r\n");
        // No frame will ever come: the scan counts as stalled at once, so a
        // client waiting for a frame gets none at once instead of after its
        // 30 s bound.
        stall_count = stalled_count;
        notify();
        return false;
    }
}

ScanBufferInfo* Stream_driver::GetNextFillBuffer()
{
    if (pPrefill != nullptr)
        return pPrefill;
    Scan_driver& driver = *the_scan_driver;
    Buffer_locker volatile* locker = driver.buffer_locker;
    ScanBufferInfo* info = locker->allocate_buffer(ScanBufferInfo::SCANDRIVER);
    if (info == nullptr) {
        // Rather overwrite an unread frame than let the scan stall.
        Available_buffer& available = *driver.available_buffer;
        if (available.buffer_available() && available.threads_inside() == 0)
            info = available.get_available(false);
    }
    pPrefill = info;
    if (pFilling == nullptr) {
        pFilling = pPrefill;
        pPrefill = nullptr;
    }
    return info;
}

void Stream_driver::init_capture(ScanBufferInfo* info)
{
    Scan_driver& driver = *the_scan_driver;
    const bool armed = driver.trait->init_capture(&info->pointers);
    driver.progress_tracker->start_tracking(info);
    if (armed && sof_polling_mode()) {
        sof_alarm.cancel();
        const monitor_sof_data_info sof{reinterpret_cast<uintptr_t>(info->pointers.capture),
                                        info->pointers.handle};
        sof_alarm = monitor_base().alarm(*this, &Stream_driver::monitor_sof_data, sof,
                                         MT_GetTickCount() + sof_poll_ms, 0);
    }
}

void Stream_driver::monitor_sof_data(monitor_sof_data_info info)
{
    Scan_driver& driver = *the_scan_driver;
    int handle = 0;
    size_t rows = 0;
    driver.progress_tracker->get_valid_rows(handle, rows);
    silent_trace("get_valid_rows() buffer = %u rows = %u", static_cast<unsigned>(handle),
                 static_cast<unsigned>(rows));
    if (handle == info.handle && rows > (2u * driver.capabilities.height) / 3) {
        inter_frame_ist(handle);
        return;
    }
    if (sof_polling_mode())
        sof_alarm = monitor_base().alarm(*this, &Stream_driver::monitor_sof_data, info,
                                         MT_GetTickCount() + sof_poll_ms, 0);
}

void Stream_driver::inter_frame_ist(int buffer)
{
    Scan_driver& driver = *the_scan_driver;
    driver.trait->exposure_frame();
    frame_programmed = true;
    stamp_time("inter_frame_ist enter %s");
    if (state == SCANNING && sof_polling_mode()) {
        capture_next();
        driver.sensor->inter_frame_ist(buffer);
    }
    stamp_time("inter_frame_ist leave %s");
}

// ---------------------------------------------------------------------------
// Frames
// ---------------------------------------------------------------------------

void Stream_driver::vsync_ist(int buffer)
{
    auto lock = get_lock();
    Scan_driver& driver = *the_scan_driver;
    bool delivered = false;
    if (buffer == 0) {
        silent_trace("vsync_ist bailing, buffer == 0");
    } else {
        if (state == STOPPED) {
            driver.trait->release_buffer(buffer);
            return;
        }
        SD_ASSERT(owns(), "owns()", STREAM_LABEL, __LINE__);
        ScanBufferInfo* p_info = driver.buffer_locker->find_buffer_by_handle(buffer);
        if (p_info == nullptr) {
            SD_ASSERT(p_info, "p_info", STREAM_LABEL, __LINE__);
            driver.trait->release_buffer(buffer);
            return;
        }
        if (p_info->owner == ScanBufferInfo::CLIENT || p_info == driver.available_buffer->waiting()) {
            // A second event for a frame already delivered (held by the
            // client or waiting for it): nothing was filled, nothing changes.
            silent_trace("vsync_ist: buffer %d was already delivered, event ignored", buffer);
            return;
        }
        if (arms_fill_buffers() && p_info != pFilling && p_info != pPrefill) {
            silent_trace("vsync_ist: buffer %d is not armed, event ignored", buffer);
            return;
        }
        // While stopping, the alarm is the stop's bound (ensure_stop_ends):
        // frames that keep coming (the hardware fills buffers on its own in
        // mode 4) must not push it back.
        const bool stopping = state == STOPPING;
        if (!stopping)
            capture_stall_alarm.cancel();
        driver.available_buffer->set_p_available(p_info);

        int tracked = 0;
        size_t rows = 0;
        driver.progress_tracker->get_valid_rows(tracked, rows);
        silent_trace("vsync: get_valid_rows() buffer = %u rows = %u",
                     static_cast<unsigned>(tracked), static_cast<unsigned>(rows));
        if (tracked == buffer && rows < driver.capabilities.height)
            silent_trace("Incomplete frame capture");

        vsync_notify(buffer);
        if (stop_scanning_check())
            return;

        // Streaming modes: once frames flow, a gap ends the scan as stalled
        // without retries. Modes 6 and 7 trigger every frame: each trigger
        // gets the retries of a first frame.
        if (!stopping) {
            stall_count = triggered_mode() ? 0 : stalled_count - 1;
            capture_stall_alarm = monitor_base().alarm(*this, &Stream_driver::capture_stall,
                                                       MT_GetTickCount() + frame_gap_ms, 0);
        }
        SD_ASSERT(driver.available_buffer->buffer_available(), "p_available", STREAM_LABEL,
                  __LINE__);
        // Once per sensor frame the trait steps its exposure bookkeeping:
        // at the inter-frame point in the polling modes, else (and when
        // the poll missed that point) here, still in the frame's period.
        if (!sof_polling_mode() || !frame_programmed)
            driver.trait->exposure_frame();
        frame_programmed = false;
        const bool sample = static_cast<uint32_t>(frame_count) % 3 == 0;
        delivering_frame = true;
        driver.sensor->vsync_ist(buffer, sample);
        delivering_frame = false;
        frame_count = static_cast<int32_t>(static_cast<uint32_t>(frame_count) + 1);
        delivered = true;
    }
    // Modes 6 and 7 trigger one frame at a time; an event without a buffer
    // (a lost frame) triggers another. A frame withdrawn while it was
    // delivered (no buffer to spare) has already armed and triggered the
    // next one through buffer_free: one capture at a time.
    if ((buffer == 0 || (delivered && pending_captures == 0)) && state == SCANNING
        && (capture_mode == 6 || capture_mode == 7)) {
        if (capture_next())
            trigger_once();
    }
    // The streaming modes with fill buffers keep one capture armed: modes 0
    // and 5 arm the next one as soon as a frame is in; modes 2 and 3 do it
    // at the inter-frame point, and here when that point was missed (the
    // poll came late and the frame ended first). Waiting for a client to
    // give a buffer back instead would stop the stream while clients hold
    // frames and buffers are free. Without a free buffer, the next
    // buffer_free resumes the scan.
    if (delivered && state == SCANNING && pending_captures == 0
        && (capture_mode == 0 || capture_mode == 2 || capture_mode == 3 || capture_mode == 5))
        capture_next();
}

void Stream_driver::vsync_notify(int buffer)
{
    if (buffer == 0)
        return;
    if (capture_mode != 1 && capture_mode != 4)
        SD_ASSERT(pending_captures > 0, "pending_captures > 0", STREAM_LABEL, __LINE__);
    if (pending_captures > 0)
        --pending_captures;
    if (capture_mode != 1 && capture_mode != 4 && capture_mode != 6)
        SD_ASSERT(pFilling, "pFilling", STREAM_LABEL, __LINE__);
    if (pFilling == nullptr) {
        pFilling = pPrefill;
        pPrefill = nullptr;
        notify();
        return;
    }
    SD_ASSERT(pFilling->pointers.handle == buffer, "pFilling->pointers.handle == buffer",
              STREAM_LABEL, __LINE__);
    ScanBufferInfo* completed = pFilling;
    the_scan_driver->progress_tracker->stop_tracking(completed);
    if (completed->lock_cnt != 1)
        silent_trace("pFilling->lock_cnt should be 1 not %u at line: %u", completed->lock_cnt,
                     static_cast<unsigned>(__LINE__));
    notify();
    const bool out_of_order = completed->pointers.handle != buffer;
    // An event naming the buffer armed next (a late duplicate, a frame
    // announced late): that buffer now waits for the client, so it is no
    // longer one being filled, nor tracked (a stale tracked buffer would
    // keep the tracker from marking the buffers armed after it).
    if (out_of_order && pPrefill != nullptr && pPrefill->pointers.handle == buffer) {
        the_scan_driver->progress_tracker->stop_tracking(pPrefill);
        pPrefill = nullptr;
    }
    pFilling = pPrefill;
    pPrefill = nullptr;
    notify();
    if (out_of_order) {
        // The capture that was being filled is given up: its buffer goes
        // back, and only the capture still armed (if any) stays pending.
        release_quietly(completed);
        pending_captures = pFilling != nullptr ? 1 : 0;
    }
}

void Stream_driver::release_quietly(ScanBufferInfo* info)
{
    const uint32_t suppress = info->suppress_buffer_free;
    info->suppress_buffer_free = 1;
    the_scan_driver->buffer_locker->UnlockBuffer(info, ScanBufferInfo::SCANDRIVER);
    info->suppress_buffer_free = suppress;
}

void Stream_driver::buffer_free()
{
    auto lock = get_lock();
    if (state != SCANNING || pending_captures != 0 || !capture_next())
        return;
    switch (capture_mode) {
    case 6:
    case 7:
        trigger_once();
        break;
    case 0:
    case 2:
    case 3:
    case 5:
        trigger_on();
        break;
    default:
        break;
    }
}

// ---------------------------------------------------------------------------
// Triggers and stalls
// ---------------------------------------------------------------------------

void Stream_driver::trigger_once()
{
    the_scan_driver->trait->trigger_once();
    schedule_capture_stall();
}

void Stream_driver::trigger_on()
{
    the_scan_driver->trait->trigger_on();
    schedule_capture_stall();
}

void Stream_driver::trigger_off()
{
    the_scan_driver->trait->trigger_off();
}

void Stream_driver::schedule_capture_stall()
{
    const unsigned int due = MT_GetTickCount() + the_scan_driver->trait->GetMaxResumeTime();
    capture_stall_alarm.cancel();
    capture_stall_alarm = monitor_base().alarm(*this, &Stream_driver::capture_stall, due, 0);
    stamp_time("Schedule capture_stall for %s", due);
}

void Stream_driver::capture_stall()
{
    auto lock = get_lock();
    stamp_time("capture_stall at %s");
    if (state == STOPPING) {
        deinitialize_scanning();
        notify();
        return;
    }
    ++stall_count;
    if (stall_count < stalled_count
        && the_scan_driver->trait->check_stall(static_cast<int8_t>(stalled_count - 1 - stall_count))) {
        if (triggered_mode() && pending_captures != 0) {
            // The triggered frame was lost: trigger it again (a snapshot
            // needs a new snapshot request; an armed fill buffer stays armed).
            if (capture_mode == 6)
                the_scan_driver->trait->start_snapshot();
            trigger_once();
            return;
        }
        schedule_capture_stall();
        return;
    }
    stall_count = stalled_count;
    notify();
}

// ---------------------------------------------------------------------------
// Stopping
// ---------------------------------------------------------------------------

bool Stream_driver::stop_scanning()
{
    auto lock = get_lock();
    if (state == STOPPING)
        return true;
    if (state == STOPPED) {
        the_scan_driver->available_buffer->clear();  // a frame kept after a stop after image
        return false;
    }
    SD_ASSERT(owns(), "owns()", STREAM_LABEL, __LINE__);
    set_scan_state(STOPPING);
    deferred_stop_scanning =
        !the_scan_driver->trait->request_stop_scanning(&Stream_driver::complete_stop_scanning, this);
    if (!deferred_stop_scanning)
        stop_scanning_check();
    ensure_stop_ends();
    return true;
}

// A stop still waiting (for a pending capture, or for the hardware layer's
// confirmation) is ended by the capture stall alarm. When no such alarm is
// pending (the scan had already stalled, or nothing set it), it is set now,
// so that a stop whose frame or confirmation never comes still ends instead
// of leaving the driver STOPPING for good: after the trait's resume time
// when the scan has stalled (no frame is coming), else after the stop bound.
void Stream_driver::ensure_stop_ends()
{
    const bool pending = capture_stall_alarm.expire_time() != 0 && !capture_stall_alarm.complete();
    if (state != STOPPING || pending)
        return;
    const unsigned int delay =
        stall_count >= stalled_count ? the_scan_driver->trait->GetMaxResumeTime() : stop_wait_ms;
    capture_stall_alarm.cancel();
    capture_stall_alarm =
        monitor_base().alarm(*this, &Stream_driver::capture_stall, MT_GetTickCount() + delay, 0);
}

void Stream_driver::complete_stop_scanning(void* self)
{
    if (self != nullptr)
        static_cast<Stream_driver*>(self)->complete_stop_scanning();
}

void Stream_driver::complete_stop_scanning()
{
    auto lock = get_lock();
    SD_ASSERT(state == STOPPING && deferred_stop_scanning,
              "scan_state() == STOPPING && deferred_stop_scanning", STREAM_LABEL, __LINE__);
    deferred_stop_scanning = false;
    stop_scanning_check();
}

bool Stream_driver::stop_scanning_check()
{
    if (state != STOPPING || pending_captures != 0 || deferred_stop_scanning)
        return false;
    deinitialize_scanning();
    return true;
}

void Stream_driver::deinitialize_scanning()
{
    silent_trace("deinitialize_scanning\n");
    Scan_driver& driver = *the_scan_driver;
    capture_stall_alarm.cancel();
    trigger_off();
    driver.trait->stop_scanning();
    sof_alarm.cancel();
    set_scan_state(STOPPED);
    reset_buffer_statex();
    // The frame whose delivery stopped the scan (stop after image) stays in
    // the hand-off for the client that asked for it; any other waiting frame
    // goes back. A kept frame is dropped by the next start or stop.
    if (!delivering_frame)
        driver.available_buffer->clear();
    driver.progress_tracker->clear();
    stall_count = 0;
    // Captures still armed are forgotten: their vsyncs, arriving while
    // STOPPED, hand the buffer straight back.
    pending_captures = 0;
}

bool Stream_driver::wait_for_stop_scanning(unsigned int ms)
{
    auto lock = get_lock();
    if (state == SCANNING) {
        SD_ASSERT(state != SCANNING, "scan_state() != SCANNING", STREAM_LABEL, __LINE__);
        return false;
    }
    if (state == STOPPED)
        return true;
    return wait(not_stopping, ms);
}

// ---------------------------------------------------------------------------
// Giving the scan driver's buffers back
// ---------------------------------------------------------------------------

// Gives the buffer in @p slot (pPrefill or pFilling) back: it must be held
// once or more by the scan driver; the slot is cleared first.
void Stream_driver::give_back(ScanBufferInfo*& slot, const char* owner_text, const char* lock_text,
                              unsigned int line)
{
    if (slot == nullptr)
        return;
    ScanBufferInfo* info = slot;
    SD_ASSERT(info->owner == ScanBufferInfo::SCANDRIVER, owner_text, STREAM_LABEL, line);
    SD_ASSERT(info->lock_cnt >= 1, lock_text, STREAM_LABEL, line + 1);
    slot = nullptr;
    the_scan_driver->buffer_locker->UnlockBuffer(info, ScanBufferInfo::SCANDRIVER);
}

void Stream_driver::reset_prefill_state()
{
    give_back(pPrefill, "pPrefill->owner == ScanBufferInfo::SCANDRIVER", "pPrefill->lock_cnt >= 1",
              __LINE__);
    notify();
}

void Stream_driver::reset_buffer_statex()
{
    reset_prefill_state();
    give_back(pFilling, "pFilling->owner == ScanBufferInfo::SCANDRIVER", "pFilling->lock_cnt >= 1",
              __LINE__);
    notify();
}

void Stream_driver::vsync_notify(int buffer) volatile
{
    get_lock()->vsync_notify(buffer);
}

void Stream_driver::reset_prefill_state() volatile
{
    get_lock()->reset_prefill_state();
}

void Stream_driver::reset_buffer_statex() volatile
{
    get_lock()->reset_buffer_statex();
}
