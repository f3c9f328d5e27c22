// Buffer_locker: who holds each image buffer of the current scan.
//
// The hardware layer lends the driver a fixed array of image buffers for the
// life of a scan. Buffer_locker keeps one ScanBufferInfo per buffer (rebuilt
// by load_image_buffers at every scan start) and decides who may hold each:
// nobody, the scan driver (stream driver, Available_buffer) or the client
// (the session). Holders lock a buffer with a count; when the count falls to
// 0 the buffer goes back to the hardware layer through the engine trait's
// release_buffer, and - unless the record suppresses it - the stream driver
// is told with buffer_free() so that a scan that ran out of buffers resumes.
//
// A locked buffer never changes hands through LockBuffer. It changes owner
// only through the in-place hand-over SCANDRIVER -> CLIENT
// (ScanBufferInfo::change_owner, used by Available_buffer) or when
// reset_buffer_locks drops every client lock at once and, when that freed a
// buffer, tells the stream driver (buffer_free) like a client's last unlock,
// so that a scan another session keeps running is not left without buffers.
//
// Lookup failures and ownership conflicts return false (or null) with a
// silent trace and change nothing; inconsistent records are reported as
// assertions and the operation goes on.
//
// Threading: a Forward_monitor on the sensor's monitor, so ownership changes
// are serialised with the stream driver and the sensor. Plain operations
// require the monitor to be held; each has a volatile form that takes it.
// Record pointers are valid until the next load_image_buffers.
#ifndef VQX_BUFFER_LOCKER_H
#define VQX_BUFFER_LOCKER_H

#include <cstddef>
#include <memory>

#include "ScanBufferInfo.h"
#include "VQXScanInterface.h"
#include "monitor.h"

class Sensor;

class Buffer_locker : public Forward_monitor<Buffer_locker> {
public:
    typedef ScanBufferInfo::owner_enum owner_enum;

    // Shares the lock of @p sensor's monitor. No buffers until the first load.
    // Without a sensor (null) the locker uses a process-wide monitor of its
    // own, so that start-up for an unknown engine still gets a working one.
    explicit Buffer_locker(Sensor volatile* sensor);
    ~Buffer_locker();

    Buffer_locker(const Buffer_locker&) = delete;
    Buffer_locker& operator=(const Buffer_locker&) = delete;

    // Replaces the records with one zeroed record per buffer the engine trait
    // reports, each with a copy of the buffer's hardware-layer pointers.
    // When the trait reports the very buffers already loaded, the records
    // (and who holds what) are kept: a frame a client kept across the end of
    // the last scan stays the client's.
    void load_image_buffers();
    void load_image_buffers() volatile;

    ScanBufferInfo* get_buffer_ary(size_t& count);
    ScanBufferInfo* get_buffer_ary(size_t& count) volatile;
    ScanBufferInfo* get_buffer_ary();
    size_t num_buffers() const;
    size_t num_buffers() const volatile;

    // Buffers the scan driver can still use: free ones plus those locked by
    // anyone but the client.
    size_t circulating_buffers() const;
    size_t circulating_buffers() const volatile;

    // The first record whose own address, image address or capture address
    // is @p p; null when none.
    ScanBufferInfo* find_buffer(void* p);
    ScanBufferInfo* find_buffer(void* p) volatile;
    // The first record whose handle is @p handle; null when none.
    ScanBufferInfo* find_buffer_by_handle(int handle);
    ScanBufferInfo* find_buffer_by_handle(int handle) volatile;

    // Copies the attributes of the buffer at @p p into @p attributes, at most
    // attributes->size bytes (and at most 40), then sets attributes->size to
    // the number copied. False when the buffer is unknown or @p attributes is
    // null. Takes the lock itself.
    bool Get_image_attributes(void* p, _tagImageAttributes* attributes) const;

    // Sets the lock count; a count falling to 0 frees the record (owner NONE)
    // and gives the buffer back to the hardware layer.
    void set_lock_cnt(ScanBufferInfo* info, unsigned int count);
    void set_lock_cnt(ScanBufferInfo* info, unsigned int count) volatile;

    // The lowest-index free buffer, locked once for @p owner; null when none
    // is free before the end or before an unloaded entry.
    ScanBufferInfo* allocate_buffer(owner_enum owner);
    ScanBufferInfo* allocate_buffer(owner_enum owner) volatile;

    // Locks the buffer at @p p for @p owner (raising the count when @p owner
    // holds it already). False when unknown or held by the other owner.
    bool LockBuffer(void* p, owner_enum owner);
    bool LockBuffer(void* p, owner_enum owner) volatile;

    // Gives up one lock of @p owner on the buffer at @p p. False when
    // unknown, not locked, or held by the other owner.
    bool UnlockBuffer(void* p, owner_enum owner);
    bool UnlockBuffer(void* p, owner_enum owner) volatile;

    // Drops every lock not held by the scan driver, returning those buffers
    // to the hardware layer.
    void reset_buffer_locks();
    void reset_buffer_locks() volatile;

    void print() const;

private:
    std::unique_ptr<ScanBufferInfo[]> buffers;
    size_t n_buffers = 0;
};

#endif
