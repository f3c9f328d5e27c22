// Available_buffer: the hand-off of the latest completed frame to the client.
//
// Holds at most one completed buffer. The stream driver puts every completed
// buffer here (set_p_available); a frame nobody took is replaced and goes
// back to the hardware layer, so the newest frame always wins. While a
// buffer waits here it is locked once by the scan driver.
//
// The client takes the frame with get_available(true), waiting at most
// 30,000 ms; the scan driver's single lock then becomes the client's in
// place (owner SCANDRIVER -> CLIENT) and the client returns it with
// Buffer_locker::UnlockBuffer(p, CLIENT). A waiting client gives up early,
// with a null result, when the sensor reports a stalled capture, when no
// buffer is left circulating (every buffer is with the client), or when the
// stream driver is stopped (its start failed, or another session's stop
// after image ended the shared stream: no frame is coming). The stream
// driver uses get_available(false) to reclaim an unread frame for the next
// capture, but only while no thread is inside get_available
// (threads_inside() is 0).
//
// Threading: a Forward_monitor on the sensor's monitor (shared with the
// stream driver and the sensor). Plain operations require the monitor to be
// held; volatile forms take it. A client blocks in get_available with the
// monitor released; every change calls notify(), so the waiting condition is
// re-evaluated at the next outermost leave.
#ifndef VQX_AVAILABLE_BUFFER_H
#define VQX_AVAILABLE_BUFFER_H

#include <cstdint>

#include "ScanBufferInfo.h"
#include "monitor.h"

class Available_buffer : public Forward_monitor<Available_buffer> {
public:
    // Longest wait of get_available, in milliseconds.
    static constexpr unsigned int wait_ms = 30000;

    // Shares @p monitor (the sensor's); builds the condition over
    // get_available_wakeup.
    explicit Available_buffer(Monitor_base& monitor);
    ~Available_buffer();

    Available_buffer(const Available_buffer&) = delete;
    Available_buffer& operator=(const Available_buffer&) = delete;

    // Makes @p info (a completed buffer, or null) the waiting one, locking it
    // for the scan driver if it is free and unlocking the one it replaces.
    void set_p_available(ScanBufferInfo* info);
    void set_p_available(ScanBufferInfo* info) volatile;

    // Waits for a completed buffer and takes it; with @p to_client the buffer
    // becomes the client's. Null on time-out, stall, or no circulating
    // buffer.
    ScanBufferInfo* get_available(bool to_client);
    ScanBufferInfo* get_available(bool to_client) volatile;

    // The waiting buffer, read under the lock; nothing changes.
    ScanBufferInfo* peek_available() volatile;

    bool buffer_available() const { return p_available != nullptr; }
    /// The waiting buffer (monitor held), or null.
    ScanBufferInfo* waiting() const { return p_available; }

    // The waiting predicate: a buffer waits, or the capture stalled, or no
    // buffer is left circulating.
    bool get_available_wakeup() const;

    // Drops the waiting buffer (unlocking it); no-op when none waits.
    void clear();
    void clear() volatile;

    // Threads currently inside get_available.
    uint32_t threads_inside() const { return n_inside; }

private:
    ScanBufferInfo* p_available = nullptr;
    Condition wakeup;
    uint32_t n_inside = 0;
};

#endif
