// Kelp_trait: see Kelp_trait.h; docs/engines/KELP.md describes the engine.
#include "Kelp_trait.h"

#include <algorithm>

#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "Psoc.h"

namespace {

constexpr unsigned START_EXPOSURE_US = 520;
constexpr unsigned MAX_REGISTER = 65535;
constexpr unsigned MAX_RESUME_MS = 300;

// Power-up: reset, stand by, then a starting exposure and gain (about
// 520 us at 1x) until the first scan programs its own.
const Register_pair init_table[] = {
    {Kelp_trait::REG_RESET.address, 1},
    {Kelp_trait::REG_MODE.address, 0},
    {Kelp_trait::REG_EXPOSURE.address, 21},
    {Kelp_trait::REG_GAIN.address, 256},
};
constexpr size_t init_table_size = sizeof init_table / sizeof init_table[0];

// Exposure and gain shape the frame two after the one of their write; the
// gain unit is the settings' own (at least 1).
constexpr Control_history::Delays kelp_delays{Kelp_trait::FRAME_LATENCY, Kelp_trait::FRAME_LATENCY};

} // namespace

uint32_t Kelp_trait::exposure_rows(const Kelp_trait&, uint32_t us)
{
    return rows_kelp(us);
}

Kelp_trait::Kelp_trait(IHwl_kelp& hwl_, const Trait_context& context_)
    : Sensor_trait(hwl_, context_, Properties{kelp_delays, {1, 1, ~0u}, Register_burst::sixteen_bit, reg8(0)}),
      lights(hwl_, nullptr)
{
    count_frames_by(REG_FRAME_COUNT);
}

// ---------------------------------------------------------------------------
// Power
// ---------------------------------------------------------------------------

bool Kelp_trait::power_up_init()
{
    hwl.ImagerPowerOn();
    hwl.ImagerPowerUp();
    controls.halt();
    powered = registers.write_table(init_table, init_table_size);
    if (powered)
        controls.program(table_value(init_table, init_table_size, REG_EXPOSURE.address),
                         table_value(init_table, init_table_size, REG_GAIN.address));
    wake();
    return powered;
}

void Kelp_trait::wake()
{
    awake = true;
    hwl.IllumConfig(lighting.level_b);
    lights.show(lights_in_force());
}

void Kelp_trait::power_on()
{
    power_up_init();
}

void Kelp_trait::power_off()
{
    lights.off();
    hwl.ImagerPowerDown();
    hwl.ImagerPowerOff();
    powered = false;
    controls.halt();
    awake = false;
}

void Kelp_trait::sleep()
{
    hwl.ImagerPowerDown();
    controls.halt();
    awake = false;
}

bool Kelp_trait::initialize_scanning()
{
    if (!powered)
        return power_up_init();
    const bool up = hwl.ImagerPowerUp();
    wake();
    return up;
}

bool Kelp_trait::deinitialize_scanning()
{
    return lights.show(Psoc::get_lights_mode(lighting.idle_mode));
}

// ---------------------------------------------------------------------------
// Streaming
// ---------------------------------------------------------------------------

void Kelp_trait::start_frames()
{
    // The frames to come are taken with what the registers hold now.
    if (!controls.running())
        controls.restart(read_frame_counter());
}

void Kelp_trait::trigger_on()
{
    start_frames();
    if (!registers.write(REG_MODE, MODE_STREAM))
        controls.halt();
    single_frames = false;
}

void Kelp_trait::trigger_off()
{
    registers.write(REG_MODE, 0);
    controls.halt();
}

void Kelp_trait::trigger_once()
{
    start_frames();
    registers.write(REG_MODE, MODE_SINGLE_FRAME);
    controls.halt();  // the sensor stands by again after the frame
    single_frames = true;
}

bool Kelp_trait::check_stall(int8_t)
{
    // A lost single frame is triggered again by the driver; streaming here
    // would run frames through the two-frame pipeline single frames do not
    // credit.
    const bool single = single_frames;
    trigger_off();
    if (!single)
        trigger_on();
    return true;
}

unsigned int Kelp_trait::GetMaxResumeTime()
{
    return MAX_RESUME_MS;
}

bool Kelp_trait::init_capture(const IHwl::Image_buffer_pointers* buffer)
{
    return buffer != nullptr && hwl.InitCapture(buffer->handle);
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

bool Kelp_trait::set_exposure_gain(unsigned rows, unsigned gain)
{
    const uint16_t values[2] = {static_cast<uint16_t>(std::min(std::max(rows, 1u), MAX_REGISTER)),
                                static_cast<uint16_t>(std::min(std::max(gain, 1u), MAX_REGISTER))};
    // Credit the values to the frame during which they are written.
    follow_frame_counter();
    if (!registers.write_run(REG_EXPOSURE, values, 2))  // exposure and gain, one burst
        return false;
    controls.program(values[0], values[1]);
    return true;
}

bool Kelp_trait::program(const Exposure_point& point)
{
    return set_exposure_gain(point.rows, point.gain);
}

unsigned Kelp_trait::row_limit()
{
    return controller->max_rows() & 0xFFFF;
}

void Kelp_trait::update_exposure_settings(Exposure_settings& settings_)
{
    settings_.start_exposure = START_EXPOSURE_US;
}

// ---------------------------------------------------------------------------
// Lights
// ---------------------------------------------------------------------------

uint8_t Kelp_trait::lights_in_force() const
{
    return Psoc::get_lights_mode(scanning_initialised ? lighting.scanning_mode : lighting.idle_mode);
}

bool Kelp_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& wanted)
{
    lighting = wanted;
    if (!awake)
        return Lights::held();  // shown when the engine wakes
    hwl.IllumConfig(wanted.level_b);
    return lights.show(lights_in_force());
}
