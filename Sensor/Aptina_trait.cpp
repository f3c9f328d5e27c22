// Aptina_trait: see Aptina_trait.h.
#include "Aptina_trait.h"

#include <algorithm>

#include "Diagnostics.h"
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

Aptina_trait::Aptina_trait(IHwl_aptina& hwl_, const Trait_context& context_)
    : Sensor_trait(hwl_, context_, layer_programmed),
      aptina(hwl_)
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

bool Aptina_trait::program(const Exposure_point& point)
{
    return set_exposure_gain(point.rows, point.gain);
}

bool Aptina_trait::program_start(const Exposure_point& point)
{
    silent_trace("set_starting_exposure\nexposure = %u\ngain=%u", point.rows, point.gain);
    return set_exposure_gain(point.rows, point.gain);
}

// The automatic rows are not bounded by the longest exposure setting: the
// layer bounds them (set_exposure_gain).
unsigned Aptina_trait::row_limit()
{
    return ~0u;
}
