// IStream_driver: the interface of the stream driver.
//
// The stream driver turns the engine's frame events into a flow of filled
// image buffers: it owns the scan state machine (STOPPED, SCANNING,
// STOPPING), arms the capture of the next buffer, receives the hardware
// layer's vsync callback, hands completed buffers on, and detects stalled
// capture. Stream_driver is the one implementation; start-up creates it with
// the engine's capture mode and registers the static vsync_ist below with
// the engine trait.
//
// Users: the session (start_scanning, stop_scanning, wait_for_stop_scanning,
// scan_state), Buffer_locker (buffer_free when a client returns a buffer),
// the sensor and the power state manager (stalled), and the hardware layer's
// callback thread (the static vsync_ist).
//
// Threading: the implementation is a monitor sharing the sensor's lock; its
// public operations take that lock themselves and may be called from any
// thread.
#ifndef VQX_ISTREAM_DRIVER_H
#define VQX_ISTREAM_DRIVER_H

#include <cstdint>

#include "Exposure_settings.h"
#include "VQXScanInterface.h"

class IStream_driver {
public:
    enum Scan_state_t { STOPPED = 0, SCANNING = 1, STOPPING = 2 };

    // Arguments of one frame event, packed for the exception trap.
    struct trap_params {
        int buffer;     // the buffer handle of the frame (0: no buffer)
        void* context;  // the IStream_driver the callback was registered with
    };

    explicit IStream_driver(unsigned int mode) : capture_mode(mode) {}
    virtual ~IStream_driver() {}

    IStream_driver(const IStream_driver&) = delete;
    IStream_driver& operator=(const IStream_driver&) = delete;

    /* 1 */ virtual Scan_state_t scan_state() const = 0;
    // True when the driver is, or becomes within @p ms, STOPPED.
    /* 2 */ virtual bool wait_for_stop_scanning(unsigned int ms) = 0;
    /* 3 */ virtual bool start_scanning(const _tagVQX_SCANNER_LIGHTING& lighting,
                                        const Exposure_settings& exposure, bool flag) = 0;
    /* 4 */ virtual bool stop_scanning() = 0;
    // A client gave a buffer back; a scan that ran out of buffers resumes.
    /* 5 */ virtual void buffer_free() = 0;
    // One frame event; @p buffer is the frame's handle (0: none).
    /* 6 */ virtual void vsync_ist(int buffer) = 0;
    // True when consecutive stalls have ended the scan's frame flow.
    /* 7 */ virtual bool stalled() const = 0;

    // The callback given to the hardware layer, with the stream driver as
    // @p context: runs vsync_ist_trapped under the exception trap.
    static void vsync_ist(int buffer, void* context);
    // Stamps the time, calls the member vsync_ist(params.buffer) on the
    // context, stamps the time again; returns 0.
    static int vsync_ist_trapped(trap_params& params);

    // The engine's capture mode (0 to 7), fixed at construction.
    const unsigned int capture_mode;
};

#endif
