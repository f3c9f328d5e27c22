// ScanBufferInfo: the driver's record of one hardware image buffer.
//
// Buffer_locker keeps one record per buffer the hardware layer lends for a
// scan (an array rebuilt by every load_image_buffers). A record tells who
// holds the buffer and how often:
//   - free: lock_cnt 0, owner NONE;
//   - held by the scan driver (SCANDRIVER) while the hardware fills it or
//     while it waits as the latest completed frame in Available_buffer;
//   - held by the client (CLIENT) after the session handed it out.
// owner is NONE exactly when lock_cnt is 0. A buffer goes back to the
// hardware layer when its count falls to 0.
//
// Besides ownership the record carries the frame's image attributes (filled
// by the capture path, copied out by Get_image_attributes), a flag that keeps
// the final unlock from calling the stream driver's buffer_free, and a copy
// of the hardware layer's pointers for the buffer (image address, capture
// address, handle).
//
// Threading: every field is read and written under the sensor's monitor
// (Buffer_locker, Available_buffer and the stream driver all share it).
#ifndef VQX_SCAN_BUFFER_INFO_H
#define VQX_SCAN_BUFFER_INFO_H

#include <cstddef>
#include <cstdint>

#include "Diagnostics.h"
#include "IHwl.h"
#include "VQXScanInterface.h"

struct ScanBufferInfo {
    enum owner_enum : uint32_t { NONE = 0, SCANDRIVER = 1, CLIENT = 2 };

    // Hands a locked buffer from @p old_owner to @p new_owner in place,
    // keeping its lock count (the scan driver's single lock becomes the
    // client's). Reports, and still changes the owner, when the buffer was not
    // held by @p old_owner.
    void change_owner(owner_enum old_owner, owner_enum new_owner)
    {
        SD_ASSERT(owner == old_owner, "owner == old_owner", "jni/../Buffer_locker", 44);
        owner = new_owner;
    }

    uint32_t lock_cnt;                 // 0: free
    owner_enum owner;                  // NONE exactly when lock_cnt is 0
    _tagImageAttributes attributes;    // the frame's attributes, size first
    // Non-zero: the final unlock does not call the stream driver's
    // buffer_free(). Zero after every load; the capture path may set it for a
    // buffer whose release must not restart capture.
    uint32_t suppress_buffer_free;
    IHwl::Image_buffer_pointers pointers;  // copied from the hardware layer at load
};

static_assert(sizeof(_tagImageAttributes) == 40, "image attributes are 40 bytes");
static_assert(offsetof(ScanBufferInfo, attributes) == 8, "attributes follow the lock and owner");
static_assert(offsetof(ScanBufferInfo, suppress_buffer_free) == 48, "suppress flag after the attributes");

#endif
