// Available_buffer: the latest completed frame and the client's bounded wait.
#include "Available_buffer.h"

#include "Buffer_locker.h"
#include "IStream_driver.h"
#include "Diagnostics.h"
#include "Scan_driver.h"
#include "Sensor.h"

namespace {

const char* const source = "jni/../Available_buffer";

} // namespace

Available_buffer::Available_buffer(Monitor_base& monitor)
    : Forward_monitor<Available_buffer>(monitor),
      wakeup(this, &Available_buffer::get_available_wakeup)
{
}

Available_buffer::~Available_buffer() {}

void Available_buffer::set_p_available(ScanBufferInfo* info)
{
    if (info == p_available)
        return;
    Buffer_locker volatile* locker = the_scan_driver->buffer_locker;
    if (info != nullptr) {
        if (info->lock_cnt == 0) {
            locker->LockBuffer(info, ScanBufferInfo::SCANDRIVER);
        } else {
            SD_ASSERT(info->owner == ScanBufferInfo::SCANDRIVER,
                      "new_waiting_buffer->owner == new_waiting_buffer->SCANDRIVER", source, 52);
        }
    }
    if (p_available != nullptr) {
        SD_ASSERT(p_available->lock_cnt == 1 && p_available->owner == ScanBufferInfo::SCANDRIVER,
                  "p_available->lock_cnt == 1 && p_available->owner == p_available->SCANDRIVER", source, 58);
        // The unread older frame goes back to the hardware layer.
        locker->UnlockBuffer(p_available, ScanBufferInfo::SCANDRIVER);
    }
    p_available = info;
    notify();
}

bool Available_buffer::get_available_wakeup() const
{
    if (p_available != nullptr)
        return true;
    // The monitor is held whenever the predicate is evaluated, and it is the
    // sensor's and the buffer locker's monitor too.
    const Sensor* sensor = the_scan_driver->sensor;
    if (sensor != nullptr && sensor->stalled())
        return true;
    // A stopped stream delivers nothing: its start failed, or another
    // session's stop after image ended it.
    const IStream_driver* stream = the_scan_driver->stream_driver;
    if (stream != nullptr && stream->scan_state() == IStream_driver::STOPPED)
        return true;
    const Buffer_locker* locker = the_scan_driver->buffer_locker;
    return locker == nullptr || locker->circulating_buffers() == 0;
}

ScanBufferInfo* Available_buffer::get_available(bool to_client)
{
    auto lock = get_lock();
    ++n_inside;
    ScanBufferInfo* buffer = nullptr;
    if (!wait(wakeup, wait_ms)) {
        silent_trace("Buffer_manager::GetImage timed out after 30 sec");
    } else if (p_available == nullptr) {
        silent_trace("All buffers are locked or scanning stalled, so get_available is bailing.");
    } else {
        buffer = p_available;
        p_available = nullptr;
        notify();
        SD_ASSERT(buffer->lock_cnt == 1, "buffer->lock_cnt == 1", source, 127);
        SD_ASSERT(buffer->owner == buffer->SCANDRIVER, "buffer->owner == buffer->SCANDRIVER", source, 128);
        if (to_client) {
            buffer->change_owner(ScanBufferInfo::SCANDRIVER, ScanBufferInfo::CLIENT);
            notify();
        }
    }
    --n_inside;
    return buffer;
}

void Available_buffer::clear()
{
    if (p_available == nullptr)
        return;
    SD_ASSERT(p_available->owner == ScanBufferInfo::SCANDRIVER,
              "p_available->owner == ScanBufferInfo::SCANDRIVER", source, 157);
    SD_ASSERT(p_available->lock_cnt >= 1, "p_available->lock_cnt >= 1", source, 158);
    set_p_available(nullptr);
}

// Forms taking the monitor ---------------------------------------------------

void Available_buffer::set_p_available(ScanBufferInfo* info) volatile
{
    get_lock()->set_p_available(info);
}

ScanBufferInfo* Available_buffer::get_available(bool to_client) volatile
{
    return get_lock()->get_available(to_client);
}

ScanBufferInfo* Available_buffer::peek_available() volatile { return get_lock()->p_available; }

void Available_buffer::clear() volatile { get_lock()->clear(); }
