// Sensor: joins the frame flow of the stream driver to exposure control and
// the engine trait.
//
// For every delivered frame it fills the frame's image attributes, samples
// the pixels for auto exposure, decides whether the frame meets the exposure
// target (withdrawing it for another try when it does not), stops a
// single-image scan at the first good frame and lets the trait program the
// exposure and gain of the following frames. At scan start it applies the
// lighting and exposure settings and carries the last contrast from one scan
// to the next.
//
// Users: the stream driver (vsync_ist, inter_frame_ist, start_scanning), the
// session (change_lights, change_exposure, stalled) and the buffer hand-off
// (stalled). The peers are reached through `the_scan_driver`.
//
// Sampling: the frame's image is given to the exposure controller's sampler
// only in the automatic exposure modes (settings mode 2 and above); in the
// fixed modes (0 and 1) the sampler keeps no image, samples no pixel and the
// white value is 0. The same mode gates the conformity check. The gate reads
// the exposure mode, not the exposure method (ES_EXPOSURE_METHOD): the
// method only picks the sampling pattern (0 uniform, 1 centre, other
// centre-weighted), so that every method a client can choose works; gating
// on the method would leave methods 0 and 1 with a white value of 0 and
// drive the exposure up four-fold at every update. A vsync_ist that finds
// no frame in Available_buffer (the stream driver has already reported
// that) does nothing.
//
// Out of buffers: while clients together hold all image buffers but one,
// every new frame is taken back at once ("ran out of buffers, free
// current"), so that the driver keeps the one buffer it captures into; a
// client waiting in VQXSI_GetNewScan then gets no frame until some client
// gives a buffer back (or its 30 s bound passes). The first frame taken back
// prints "All image buffers but one are held by clients: ..." to the
// platform log, and the first frame kept again "A buffer is back: ...", so
// that a platform engineer can tell this from a stalled engine. These two
// lines, once each per episode, are the only output of the frame path.
//
// Threading: the sensor's own monitor is the driver's central lock; the
// stream driver, buffer locker, available buffer and state manager forward
// their monitors to it. The plain operations require the monitor to be held;
// the volatile forms take it themselves.
#ifndef VQX_SENSOR_H
#define VQX_SENSOR_H

#include <cstdint>

#include "Exposure_settings.h"
#include "VQXScanInterface.h"
#include "monitor.h"

class Sensor : public Monitor<Sensor> {
public:
    Sensor() = default;
    Sensor(const Sensor&) = delete;
    Sensor& operator=(const Sensor&) = delete;
    ~Sensor() override = default;

    // A frame was delivered: its buffer is the available buffer. `sample`
    // asks for an exposure update from this frame.
    virtual void vsync_ist(int buffer, bool sample);
    // Two thirds of the frame in `buffer` have arrived (capture modes 1-3).
    virtual void inter_frame_ist(int buffer);
    // Applies the settings and the starting exposure for a new scan;
    // `stop_after_image` ends the scan at the first conforming frame.
    virtual void start_scanning(const _tagVQX_SCANNER_LIGHTING& lighting,
                                const Exposure_settings& exposure,
                                bool stop_after_image);
    // Forwards to the trait's change_lights and returns its result.
    virtual bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting);
    // Replaces the exposure controller's settings with the whole record.
    virtual void change_exposure(const Exposure_settings& exposure);
    // True when the stream driver counts the capture as stalled.
    virtual bool stalled() const;

    // Forms taking the monitor for callers outside it.
    void vsync_ist(int buffer, bool sample) volatile;
    void inter_frame_ist(int buffer) volatile;
    void start_scanning(const _tagVQX_SCANNER_LIGHTING& lighting,
                        const Exposure_settings& exposure,
                        bool stop_after_image) volatile;
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) volatile;
    void change_exposure(const Exposure_settings& exposure) volatile;
    bool stalled() const volatile;

    // Read-only views for diagnostics and tests (monitor held).
    uint32_t get_contrast() const { return contrast; }
    uint32_t get_nonconform_cnt() const { return nonconform_cnt; }
    uint64_t get_frame_number() const { return frame_number; }
    bool get_stop_after_image() const { return stop_after_image; }

private:
    // Samples the whole frame (or the first two thirds) and returns the
    // white value.
    unsigned sample_frame(const unsigned char* image, unsigned rows,
                          bool reset) const;
    // Exposure conformity of a kept frame; true when the scan was stopped
    // because the frame completes a single-image scan.
    bool check_conformity(unsigned white);
    void update_exposure(unsigned white);

    bool first_start = true;          // no scan has set a starting exposure
    uint32_t contrast = 0;            // last contrast (exposure x gain)
    uint32_t nonconform_cnt = 0;      // consecutive frames missing the target
    bool stop_after_image = false;    // stop at the first conforming frame
    uint64_t frame_number = 0;        // frames seen by vsync_ist
    bool starved = false;             // frames are being taken back (see below)
};

#endif
