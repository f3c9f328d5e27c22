// Sensor: frame attributes, exposure sampling, exposure conformity and the
// exposure update of every delivered frame.
#include "Sensor.h"

#include "Available_buffer.h"
#include "Buffer_locker.h"
#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "IStream_driver.h"
#include "ScanBufferInfo.h"
#include "Scan_driver.h"
#include "Sensor_trait.h"

#define SENSOR_LABEL "jni/../Sensor"

namespace {

// Capture modes 1 to 3 sample the first two thirds of a frame while it is
// still arriving (inter_frame_ist) and update the exposure there.
bool inter_frame_mode(unsigned int mode)
{
    return mode >= 1 && mode <= 3;
}

// The white value misses the target by more than the accepted gap. Bounds
// that would wrap around are not applied.
bool nonconforming(unsigned white, const Exposure_settings& settings)
{
    const uint32_t target = settings.target_value;
    const uint32_t gap = settings.target_accept_gap;
    if (white < target)
        return target >= gap && white < target - gap;
    return target + gap >= target && white > target + gap;
}

} // namespace

void Sensor::start_scanning(const _tagVQX_SCANNER_LIGHTING& lighting,
                            const Exposure_settings& exposure, bool stop_after)
{
    Sensor_trait* trait = the_scan_driver->trait;
    change_exposure(exposure);
    change_lights(lighting);
    if (first_start) {
        trait->set_starting_exposure_gain(contrast);
        first_start = false;
    } else {
        trait->set_starting_exposure_gain(contrast, contrast);
    }
    stop_after_image = stop_after;
    starved = false;
    SD_ASSERT(the_scan_driver->stream_driver->scan_state() != IStream_driver::STOPPING,
              "scan_state() != IStream_driver::STOPPING", SENSOR_LABEL, __LINE__);
    nonconform_cnt = 0;
}

unsigned Sensor::sample_frame(const unsigned char* image, unsigned rows, bool reset) const
{
    Exposure_controller_base* controller = the_scan_driver->exposure_controller;
    const Sensor_trait::Capabilities& caps = the_scan_driver->capabilities;
    if (reset) {
        controller->sample_reset(caps.width, caps.height);
        if (controller->settings.mode >= 2)  // automatic exposure (see Sensor.h)
            controller->set_sample_image(image);
    }
    controller->sample_pixels(rows);
    return controller->sample_wv();
}

void Sensor::update_exposure(unsigned white)
{
    Sensor_trait* trait = the_scan_driver->trait;
    contrast = trait->current_contrast();
    trait->update_contrast(white, contrast, contrast);
}

void Sensor::vsync_ist(int buffer, bool sample)
{
    (void)buffer;
    SD_ASSERT(owns(), "owns()", SENSOR_LABEL, __LINE__);
    Scan_driver& driver = *the_scan_driver;
    Available_buffer& available = *driver.available_buffer;
    ScanBufferInfo* frame = available.peek_available();
    if (!frame)
        return;  // nothing was delivered; the stream driver has reported it

    const unsigned mode = driver.stream_driver->capture_mode;
    const Sensor_trait::Capabilities& caps = driver.capabilities;
    const unsigned white = sample_frame(frame->pointers.image, caps.height,
                                        !inter_frame_mode(mode));

    _tagImageAttributes& attributes = frame->attributes;
    attributes.size = 40;
    driver.trait->frame_delivering();
    attributes.exposure = driver.trait->current_exposure();
    attributes.gain = driver.trait->current_gain();
    attributes.white_value = white;
    attributes.max_value = 255;
    attributes.height = caps.height;
    attributes.width = caps.width;
    attributes.frame_number = static_cast<uint32_t>(++frame_number);
    attributes.reserved1 = 0;
    attributes.reserved2 = 0;
    attributes.discarded = 0;

    // Keep a buffer to capture into: a frame nobody can take would hold the
    // last circulating buffer.
    if (available.buffer_available() && driver.buffer_locker->circulating_buffers() < 2
        && frame->owner != ScanBufferInfo::CLIENT) {
        silent_trace("ran out of buffers, free current");
        if (!starved)
            dbg_output("All image buffers but one are held by clients: new frames are taken back "
                       "until a client gives a buffer back (%u buffers).\r\n",
                       static_cast<unsigned>(driver.buffer_locker->num_buffers()));
        starved = true;
        available.set_p_available(nullptr);
    } else if (starved) {
        dbg_output("A buffer is back: frames reach the clients again.\r\n");
        starved = false;
    }

    if (!check_conformity(white))
        return;  // a single-image scan ended with this frame

    if (!inter_frame_mode(mode) && sample)
        update_exposure(white);
}

bool Sensor::check_conformity(unsigned white)
{
    Scan_driver& driver = *the_scan_driver;
    Available_buffer& available = *driver.available_buffer;
    const Exposure_settings& settings = driver.exposure_controller->settings;

    if (settings.conform_image && available.buffer_available()) {
        if (settings.mode >= 2 && nonconforming(white, settings)) {
            if (nonconform_cnt < settings.conform_tries) {
                ++nonconform_cnt;
                silent_trace("nonconform_cnt = %u", nonconform_cnt);
                ScanBufferInfo* frame = available.peek_available();
                frame->attributes.discarded = 1;
                available.set_p_available(nullptr);
            } else {
                silent_trace("Too many conform tries. Keep image.");
            }
            return true;
        }
    }
    nonconform_cnt = 0;
    if (stop_after_image) {
        SD_ASSERT(available.buffer_available(), "available_buffer.peek_available()",
                  SENSOR_LABEL, __LINE__);
        driver.stream_driver->stop_scanning();
        return false;
    }
    return true;
}

void Sensor::inter_frame_ist(int buffer)
{
    Scan_driver& driver = *the_scan_driver;
    ScanBufferInfo* p_filling = driver.buffer_locker->find_buffer_by_handle(buffer);
    SD_ASSERT(p_filling && p_filling->pointers.handle == buffer,
              "p_filling && p_filling->pointers.handle == buffer", SENSOR_LABEL, __LINE__);
    if (!p_filling)
        return;
    if (driver.stream_driver->scan_state() != IStream_driver::SCANNING
        || !inter_frame_mode(driver.stream_driver->capture_mode))
        return;
    const unsigned white = sample_frame(p_filling->pointers.image,
                                        (2 * driver.capabilities.height) / 3, true);
    update_exposure(white);
}

bool Sensor::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    return the_scan_driver->trait->change_lights(lighting);
}

void Sensor::change_exposure(const Exposure_settings& exposure)
{
    the_scan_driver->exposure_controller->settings = exposure;
}

bool Sensor::stalled() const
{
    return the_scan_driver->stream_driver->stalled();
}

// ---------------------------------------------------------------------------
// Forms taking the monitor
// ---------------------------------------------------------------------------

void Sensor::vsync_ist(int buffer, bool sample) volatile
{
    get_lock()->vsync_ist(buffer, sample);
}

void Sensor::inter_frame_ist(int buffer) volatile
{
    get_lock()->inter_frame_ist(buffer);
}

void Sensor::start_scanning(const _tagVQX_SCANNER_LIGHTING& lighting,
                            const Exposure_settings& exposure, bool stop_after) volatile
{
    get_lock()->start_scanning(lighting, exposure, stop_after);
}

bool Sensor::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) volatile
{
    return get_lock()->change_lights(lighting);
}

void Sensor::change_exposure(const Exposure_settings& exposure) volatile
{
    get_lock()->change_exposure(exposure);
}

bool Sensor::stalled() const volatile
{
    return get_lock()->stalled();
}
