// Progress_tracker: how far the hardware has written into the buffers being
// filled.
//
// Before a buffer is armed for capture, start_tracking plants a 4-byte
// marker (0xFF 0x00 0xFF 0x00) at the first byte of every fourth row (rows
// 0, 4, 8, ...) of its capture address and once more in the frame's last 4
// bytes. get_valid_rows later looks which markers the image data has
// overwritten and reports a conservative count of rows that are surely
// written in the oldest tracked buffer: only rows before the previous intact
// checkpoint count. Image data that happens to equal the marker counts as
// unwritten. A frame whose row markers are all gone but whose end marker
// survives is reported with 0 rows.
//
// At most two buffers are tracked: the one being filled and the one armed
// after it. Buffers leave the tracker from the front only, in the order they
// were armed (stop_tracking when a frame completes).
//
// The frame geometry is the driver's copy of the engine capabilities (width
// in bytes per row, height in rows). A geometry with fewer than 4 bytes per
// row or no rows cannot hold the markers: such buffers are tracked but get
// no markers, and get_valid_rows reports nothing written (handle 0, 0 rows).
// A buffer without a capture address is handled the same way.
//
// Used by the stream driver only. Threading: a plain object, used under the
// stream driver's (the sensor's) monitor. The hardware may be writing the
// frame while the markers are planted and polled, so they are accessed
// atomically: an aligned marker is one 4-byte store and one 4-byte acquire
// load, which pairs with the transfer's release store of that word, so that
// the rows before a written marker may then be read plainly (exposure
// sampling at the inter-frame point).
#ifndef VQX_PROGRESS_TRACKER_H
#define VQX_PROGRESS_TRACKER_H

#include <cstddef>
#include <cstdint>

#include "ScanBufferInfo.h"

class Progress_tracker {
public:
    Progress_tracker();

    // A buffer was armed for capture: track it and plant its markers.
    void start_tracking(ScanBufferInfo* info);
    // The buffer being filled completed: it must be the oldest tracked one.
    void stop_tracking(ScanBufferInfo* info);
    // Forgets every tracked buffer.
    void clear();
    // Handle and surely written rows of the oldest tracked buffer; handle 0
    // and 0 rows when nothing is tracked or nothing is written yet.
    void get_valid_rows(int& handle, size_t& rows);

    // Writes the marker at @p p (4 bytes).
    static void set_pattern(unsigned char* p);
    // True when the 4 bytes at @p p are exactly the marker.
    static bool check_pattern(unsigned char* p);

    size_t tracked() const { return static_cast<size_t>(n_tracking); }

private:
    uint64_t row_step;
    ScanBufferInfo* tracking[2];
    uint64_t n_tracking;
};

#endif
