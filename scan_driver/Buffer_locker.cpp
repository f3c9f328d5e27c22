// Buffer_locker: ownership and lock counts of the scan's image buffers.
#include "Buffer_locker.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "Diagnostics.h"
#include "IStream_driver.h"
#include "Scan_driver.h"
#include "Sensor.h"
#include "Sensor_trait.h"

namespace {

const char* const source = "jni/../Buffer_locker";

// Trace argument for an address (the low 32 bits, as the texts print it).
unsigned int trace_address(const void* p)
{
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(p));
}

bool valid_owner(ScanBufferInfo::owner_enum owner)
{
    return owner == ScanBufferInfo::CLIENT || owner == ScanBufferInfo::SCANDRIVER;
}

// The sensor's monitor; a locker built without a sensor (start-up for an
// engine it does not know) locks on a process-wide monitor of its own.
Monitor_base& sensor_monitor(Sensor volatile* sensor)
{
    if (sensor != nullptr)
        return sensor->monitor_base();
    static Monitor_base standalone;
    return standalone;
}

} // namespace

Buffer_locker::Buffer_locker(Sensor volatile* sensor)
    : Forward_monitor<Buffer_locker>(sensor_monitor(sensor))
{
}

Buffer_locker::~Buffer_locker() {}

void Buffer_locker::load_image_buffers()
{
    uint64_t count = 0;
    IHwl::Image_buffer_pointers* pointers = the_scan_driver->trait->get_image_buffers(count);
    // The same buffers as before: keep the records. A client may still hold
    // a frame from the last scan (a single frame keeps its scan lock), and
    // zeroing its record would lose track of that buffer for good.
    if (pointers != nullptr && count == n_buffers && n_buffers != 0) {
        bool same = true;
        for (size_t i = 0; i < n_buffers && same; ++i)
            same = std::memcmp(&buffers[i].pointers, &pointers[i], sizeof pointers[i]) == 0;
        if (same)
            return;
    }
    buffers.reset();
    n_buffers = 0;
    if (pointers == nullptr || count == 0)
        return;
    buffers.reset(new ScanBufferInfo[count]());
    n_buffers = count;
    for (size_t i = 0; i < n_buffers; ++i)
        buffers[i].pointers = pointers[i];
}

ScanBufferInfo* Buffer_locker::get_buffer_ary(size_t& count)
{
    count = n_buffers;
    return buffers.get();
}

ScanBufferInfo* Buffer_locker::get_buffer_ary() { return buffers.get(); }

size_t Buffer_locker::num_buffers() const { return n_buffers; }

size_t Buffer_locker::circulating_buffers() const
{
    size_t count = 0;
    for (size_t i = 0; i < n_buffers; ++i) {
        const ScanBufferInfo* p = &buffers[i];
        if (p->lock_cnt == 0) {
            SD_ASSERT(p->owner == p->NONE, "p->owner == p->NONE", source, 118);
            ++count;
        } else {
            SD_ASSERT(p->owner != p->NONE, "p->owner != p->NONE", source, 112);
            if (p->owner != p->CLIENT)
                ++count;
        }
    }
    return count;
}

ScanBufferInfo* Buffer_locker::find_buffer(void* p)
{
    for (size_t i = 0; i < n_buffers; ++i) {
        ScanBufferInfo* info = &buffers[i];
        if (info == p || info->pointers.image == p || info->pointers.capture == p)
            return info;
    }
    return nullptr;
}

ScanBufferInfo* Buffer_locker::find_buffer_by_handle(int handle)
{
    for (size_t i = 0; i < n_buffers; ++i) {
        if (buffers[i].pointers.handle == handle)
            return &buffers[i];
    }
    return nullptr;
}

bool Buffer_locker::Get_image_attributes(void* p, _tagImageAttributes* attributes) const
{
    // The lookup and the copy both run under the lock: the capture path
    // writes the attributes under the same monitor.
    auto lock = const_cast<Buffer_locker volatile*>(this)->get_lock();
    ScanBufferInfo* info = lock->find_buffer(p);
    if (info == nullptr || attributes == nullptr)
        return false;
    size_t n = std::min<size_t>(attributes->size, sizeof(_tagImageAttributes));
    std::memcpy(attributes, &info->attributes, n);
    attributes->size = static_cast<uint32_t>(n);
    return true;
}

void Buffer_locker::set_lock_cnt(ScanBufferInfo* info, unsigned int count)
{
    unsigned int old_count = info->lock_cnt;
    info->lock_cnt = count;
    if (count == 0 && old_count != 0) {
        info->owner = ScanBufferInfo::NONE;
        if (the_scan_driver->trait != nullptr)
            the_scan_driver->trait->release_buffer(info->pointers.handle);
    }
}

ScanBufferInfo* Buffer_locker::allocate_buffer(owner_enum owner)
{
    if (n_buffers == 0)
        return nullptr;
    ScanBufferInfo* pScanBufferInfo = nullptr;
    for (size_t i = 0; i < n_buffers; ++i) {
        if (buffers[i].pointers.capture == nullptr)
            return nullptr;  // an unloaded entry ends the search
        if (buffers[i].lock_cnt == 0) {
            pScanBufferInfo = &buffers[i];
            break;
        }
    }
    if (pScanBufferInfo == nullptr)
        return nullptr;
    SD_ASSERT(pScanBufferInfo->owner == ScanBufferInfo::NONE,
              "pScanBufferInfo->owner == ScanBufferInfo::NONE", source, 58);
    set_lock_cnt(pScanBufferInfo, 1);
    pScanBufferInfo->owner = owner;
    notify();
    return pScanBufferInfo;
}

bool Buffer_locker::LockBuffer(void* buffer, owner_enum _owner)
{
    SD_ASSERT(valid_owner(_owner),
              "_owner == ScanBufferInfo::CLIENT || _owner == ScanBufferInfo::SCANDRIVER", source, 243);
    ScanBufferInfo* p = find_buffer(buffer);
    if (p == nullptr) {
        silent_trace("Could not find buffer 0x%X at %s : %u", trace_address(buffer), source, 248u);
        return false;
    }
    unsigned int count;
    if (p->lock_cnt != 0) {
        SD_ASSERT(valid_owner(p->owner),
                  "p->owner == ScanBufferInfo::CLIENT || p->owner == ScanBufferInfo::SCANDRIVER", source, 255);
        if (_owner != p->owner) {
            silent_trace("Cannot change buffer owner with LockBuffer orig owner = %u new owner = %u",
                         static_cast<unsigned int>(p->owner), static_cast<unsigned int>(_owner));
            return false;
        }
        count = p->lock_cnt + 1;
    } else {
        SD_ASSERT(p->owner == ScanBufferInfo::NONE, "p->owner == ScanBufferInfo::NONE", source, 266);
        count = 1;
    }
    set_lock_cnt(p, count);
    p->owner = _owner;
    notify();
    return true;
}

bool Buffer_locker::UnlockBuffer(void* buffer, owner_enum _owner)
{
    SD_ASSERT(valid_owner(_owner),
              "_owner == ScanBufferInfo::CLIENT || _owner == ScanBufferInfo::SCANDRIVER", source, 165);
    ScanBufferInfo* p = find_buffer(buffer);
    if (p == nullptr) {
        silent_trace("Could not find buffer 0x%X at %s : %u", trace_address(buffer), source, 170u);
        return false;
    }
    if (p->lock_cnt == 0) {
        silent_trace("Trying to unlock buffer that is already unlocked");
        return false;
    }
    SD_ASSERT(p->owner != ScanBufferInfo::NONE, "p->owner != ScanBufferInfo::NONE", source, 177);
    if (_owner == ScanBufferInfo::CLIENT && p->owner == ScanBufferInfo::SCANDRIVER) {
        silent_trace("The client is trying to unlock a buffer owned by the scan driver.");
        return false;
    }
    if (_owner == ScanBufferInfo::SCANDRIVER && p->owner == ScanBufferInfo::CLIENT) {
        silent_trace("The scan driver is trying to unlock a buffer owned by the client.");
        return false;
    }
    set_lock_cnt(p, p->lock_cnt - 1);
    notify();
    if (p->lock_cnt == 0 && p->suppress_buffer_free == 0 && the_scan_driver->stream_driver != nullptr)
        the_scan_driver->stream_driver->buffer_free();
    return true;
}

void Buffer_locker::reset_buffer_locks()
{
    bool freed = false;
    for (size_t i = 0; i < n_buffers; ++i) {
        if (buffers[i].owner != ScanBufferInfo::SCANDRIVER) {
            freed = freed || buffers[i].lock_cnt != 0;
            set_lock_cnt(&buffers[i], 0);
        }
    }
    notify();
    // Buffers taken back from the client may be what a scan still running
    // for another session was waiting for, as with a client's own unlock.
    if (freed && the_scan_driver->stream_driver != nullptr)
        the_scan_driver->stream_driver->buffer_free();
}

void Buffer_locker::print() const {}

// Forms taking the monitor ---------------------------------------------------

void Buffer_locker::load_image_buffers() volatile { get_lock()->load_image_buffers(); }

ScanBufferInfo* Buffer_locker::get_buffer_ary(size_t& count) volatile
{
    return get_lock()->get_buffer_ary(count);
}

size_t Buffer_locker::num_buffers() const volatile
{
    return get_lock()->num_buffers();
}

size_t Buffer_locker::circulating_buffers() const volatile
{
    return get_lock()->circulating_buffers();
}

ScanBufferInfo* Buffer_locker::find_buffer(void* p) volatile { return get_lock()->find_buffer(p); }

ScanBufferInfo* Buffer_locker::find_buffer_by_handle(int handle) volatile
{
    return get_lock()->find_buffer_by_handle(handle);
}

void Buffer_locker::set_lock_cnt(ScanBufferInfo* info, unsigned int count) volatile
{
    get_lock()->set_lock_cnt(info, count);
}

ScanBufferInfo* Buffer_locker::allocate_buffer(owner_enum owner) volatile
{
    return get_lock()->allocate_buffer(owner);
}

bool Buffer_locker::LockBuffer(void* p, owner_enum owner) volatile
{
    return get_lock()->LockBuffer(p, owner);
}

bool Buffer_locker::UnlockBuffer(void* p, owner_enum owner) volatile
{
    return get_lock()->UnlockBuffer(p, owner);
}

void Buffer_locker::reset_buffer_locks() volatile { get_lock()->reset_buffer_locks(); }
