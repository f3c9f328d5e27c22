// Progress_tracker: row markers planted before capture, checked later.
#include "Progress_tracker.h"

#include <cstring>

#include "Diagnostics.h"
#include "Scan_driver.h"

namespace {

const char* const source = "jni/../Progress_tracker";

const unsigned char marker[4] = {0xFF, 0x00, 0xFF, 0x00};

unsigned int trace_address(const void* p)
{
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(p));
}

// The frame geometry, or false when it cannot hold the markers.
bool frame_geometry(size_t& width, size_t& height)
{
    width = the_scan_driver->capabilities.width;
    height = the_scan_driver->capabilities.height;
    return width >= sizeof(marker) && height > 0;
}

} // namespace

Progress_tracker::Progress_tracker() : row_step(4), tracking{nullptr, nullptr}, n_tracking(0) {}

// The transfer hardware writes a buffer while the driver polls its markers,
// so every marker access is atomic. The hardware writes each row's first
// 4-byte word with a release store; check_pattern reads a marker as that
// same aligned 4-byte word with an acquire load. Seeing a marker overwritten
// thus also makes every row the hardware wrote before it visible to the
// exposure sampling (which reads pixels with relaxed atomic loads, since a
// transfer that loses a frame may rewrite a buffer unannounced). An unaligned
// marker (a row width that is not a multiple of 4) falls back to byte
// accesses of the same order. Planting needs no ordering of its own: the
// buffer was handed over to the hardware under its lock.
void Progress_tracker::set_pattern(unsigned char* p)
{
    if (reinterpret_cast<uintptr_t>(p) % alignof(uint32_t) == 0) {
        uint32_t word;
        std::memcpy(&word, marker, sizeof word);
        __atomic_store_n(reinterpret_cast<uint32_t*>(p), word, __ATOMIC_RELAXED);
        return;
    }
    for (size_t i = 0; i < sizeof(marker); ++i)
        __atomic_store_n(p + i, marker[i], __ATOMIC_RELAXED);
}

bool Progress_tracker::check_pattern(unsigned char* p)
{
    if (reinterpret_cast<uintptr_t>(p) % alignof(uint32_t) == 0) {
        uint32_t word;
        std::memcpy(&word, marker, sizeof word);
        return __atomic_load_n(reinterpret_cast<const uint32_t*>(p), __ATOMIC_ACQUIRE) == word;
    }
    for (size_t i = 0; i < sizeof(marker); ++i) {
        if (__atomic_load_n(p + i, __ATOMIC_ACQUIRE) != marker[i])
            return false;
    }
    return true;
}

void Progress_tracker::start_tracking(ScanBufferInfo* info)
{
    silent_trace("Progress_tracker::start_tracking(0x%X)", trace_address(info));
    if (n_tracking == 2) {
        SD_ASSERT(0, "0", source, 112);
        return;
    }
    if (n_tracking == 1 && tracking[0] == info) {
        SD_ASSERT(0, "0", source, 120);
        return;
    }
    tracking[n_tracking++] = info;

    size_t width, height;
    unsigned char* buf = info != nullptr ? info->pointers.capture : nullptr;
    if (buf == nullptr || !frame_geometry(width, height))
        return;
    for (size_t r = 0; r < height; r += row_step)
        set_pattern(buf + r * width);
    set_pattern(buf + height * width - sizeof(marker));
}

void Progress_tracker::stop_tracking(ScanBufferInfo* info)
{
    silent_trace("Progress_tracker::stop_tracking(0x%X)", trace_address(info));
    if (n_tracking > 0 && tracking[0] == info) {
        tracking[0] = tracking[1];
        tracking[1] = nullptr;
        --n_tracking;
        return;
    }
    silent_trace("n_tracking = %u", static_cast<unsigned int>(n_tracking));
    if (tracking[0] != nullptr) {
        silent_trace("tracking[0] = 0x%X", trace_address(tracking[0]));
        silent_trace("tracking[0]->pointers.handle = %u",
                     static_cast<unsigned int>(tracking[0]->pointers.handle));
    }
    if (info != nullptr) {
        silent_trace("p_info = 0x%X", trace_address(info));
        silent_trace("p_info->pointers.handle = %u", static_cast<unsigned int>(info->pointers.handle));
    }
    SD_ASSERT(0, "0", source, 36);
}

void Progress_tracker::clear()
{
    silent_trace("Progress_tracker::clear()");
    tracking[0] = nullptr;
    tracking[1] = nullptr;
    n_tracking = 0;
}

void Progress_tracker::get_valid_rows(int& handle, size_t& rows)
{
    handle = 0;
    rows = 0;
    if (n_tracking == 0 || tracking[0] == nullptr)
        return;
    size_t width, height;
    unsigned char* buf = tracking[0]->pointers.capture;
    if (buf == nullptr || !frame_geometry(width, height))
        return;
    if (check_pattern(buf))
        return;  // nothing written yet
    handle = tracking[0]->pointers.handle;
    for (size_t r = row_step; r < height; r += row_step) {
        if (check_pattern(buf + r * width)) {
            rows = r - row_step;  // only rows before the previous checkpoint
            return;
        }
    }
    if (check_pattern(buf + height * width - sizeof(marker)))
        return;  // every row marker gone but the end marker intact: 0 rows
    rows = height;
}
