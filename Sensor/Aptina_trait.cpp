// Aptina_trait: see Aptina_trait.h.
#include "Aptina_trait.h"

#include <algorithm>

#include "Contrast_step.h"
#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "Synchronization.h"

using namespace Synchroniztion_internal;

namespace {

constexpr unsigned MAX_ROWS = 25000;
constexpr unsigned LEDS_ON = 3;
constexpr unsigned LEDS_OFF = 0;

bool illuminating(uint32_t mode)
{
    return mode == 2 || mode == 3 || mode == 4 || mode == 5 || mode == 7;
}

} // namespace

uint32_t Aptina_trait::exposure_rows(const Aptina_trait& trait, uint32_t us)
{
    return rows_aptina(us, trait.aptina.RowTime());
}

uint16_t Aptina_trait::gain_code(unsigned gain)
{
    if (gain <= 255)
        return 8;
    if (gain <= 1023)
        return static_cast<uint16_t>((gain + 16) >> 5);
    if (gain <= 1055)
        return 32;
    if (gain <= 2048)
        return static_cast<uint16_t>(((gain + 32) >> 6) | 64);
    return 96;
}

Aptina_trait::Aptina_trait(IHwl_aptina& hwl_, Controller* controller_)
    : Sensor_trait(hwl_), aptina(hwl_), controller(controller_)
{
}

Aptina_trait::~Aptina_trait() {}

void Aptina_trait::unimplemented(const char* name, unsigned line)
{
    dbg_output("Unimplemented %s at %s : %u\r\n", name, "jni/../../Sensor/Aptina_trait", line);
}

// ---------------------------------------------------------------------------
// The operations this engine leaves unimplemented
// ---------------------------------------------------------------------------

void Aptina_trait::trigger_on()
{
    unimplemented("trigger_on", 50);
}

bool Aptina_trait::init_capture(const IHwl::Image_buffer_pointers*)
{
    unimplemented("init_capture", 54);
    return false;
}

void Aptina_trait::get_capabilities(Capabilities&)
{
    unimplemented("get_capabilities", 78);
}

IHwl::Image_buffer_pointers* Aptina_trait::get_image_buffers(uint64_t&)
{
    unimplemented("get_image_buffers", 83);
    return nullptr;
}

bool Aptina_trait::register_frame_notifications(Frame_callback, void*)
{
    unimplemented("register_frame_notifications", 89);
    return false;
}

unsigned int Aptina_trait::current_contrast()
{
    unimplemented("current_contrast", 94);
    return 0;
}

unsigned int Aptina_trait::current_exposure()
{
    unimplemented("current_exposure", 99);
    return 0;
}

unsigned int Aptina_trait::current_gain()
{
    unimplemented("current_gain", 105);
    return 0;
}

// ---------------------------------------------------------------------------
// Scanning, lights, properties
// ---------------------------------------------------------------------------

bool Aptina_trait::initialize_scanning()
{
    aptina.ImagerPowerUp();
    MT_Delay(1);
    return true;
}

bool Aptina_trait::deinitialize_scanning()
{
    aptina.IllumOff();
    aptina.AimOff();
    aptina.ImagerPowerDown();
    return true;
}

void Aptina_trait::trigger_once() {}

void Aptina_trait::trigger_off() {}

bool Aptina_trait::update_properties(VQX_SCANENGINE_PROPERTIES_EX&)
{
    return true;
}

bool Aptina_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    if (!scanning_initialised)
        return true;
    aptina.IllumConfig(lighting.level_b);
    if (illuminating(lighting.scanning_mode)) {
        aptina.LedControlState(LEDS_ON);
        return aptina.IllumOn();
    }
    aptina.LedControlState(LEDS_OFF);
    return aptina.IllumOff();
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

bool Aptina_trait::set_exposure_gain(unsigned rows, unsigned gain)
{
    const uint16_t r = static_cast<uint16_t>(rows == 0 ? 1 : rows > MAX_ROWS ? MAX_ROWS : rows);
    aptina.SetExposureGain(0, r, gain_code(gain));
    return true;
}

bool Aptina_trait::set_starting_exposure_gain(unsigned int& contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, gain;
    if (s.mode >= 2) {
        rows = std::min(controller->start_exposure.current_rows(), controller->max_exposure.current_rows());
        gain = std::min(s.start_gain, s.max_gain);
    } else {
        rows = controller->fixed_exposure.current_rows();
        gain = s.fixed_gain;
    }
    silent_trace("set_starting_exposure\nexposure = %u\nusec=%u\ngain=%u", rows, s.start_exposure, gain);
    const bool ok = set_exposure_gain(rows, gain);
    if (ok)
        contrast = gain * rows;
    return ok;
}

bool Aptina_trait::set_starting_exposure_gain(unsigned int c, unsigned int& contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, gain;
    if (s.mode >= 2) {
        gain = s.max_gain;
        rows = std::max(gain != 0 ? c / gain : 0u, 1u);
    } else {
        rows = controller->fixed_exposure.current_rows();
        gain = s.fixed_gain;
    }
    silent_trace("set_starting_exposure\nexposure = %u\ngain=%u", rows, gain);
    const bool ok = set_exposure_gain(rows, gain);
    if (ok)
        contrast = rows * gain;
    return ok;
}

bool Aptina_trait::update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, gain;
    if (s.mode >= 2) {
        gain = s.max_gain;
        const unsigned c = shared_contrast_step(white, contrast, s);
        rows = std::max(gain != 0 ? c / gain : 0u, 1u);
    } else {
        rows = controller->fixed_exposure.current_rows();
        gain = s.fixed_gain;
    }
    new_contrast = rows * gain;
    return set_exposure_gain(rows, gain);
}
