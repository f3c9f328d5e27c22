// Kelp_trait: see Kelp_trait.h for the design and its register map.
#include "Kelp_trait.h"

#include <algorithm>

#include "Contrast_step.h"
#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "Psoc.h"
#include "Register_burst.h"

namespace {

constexpr unsigned HISTORY_SIZE = 4;
constexpr unsigned START_EXPOSURE_US = 520;
constexpr unsigned MAX_REGISTER = 65535;
constexpr unsigned MAX_RESUME_MS = 300;

// Light codes: bit 0 aimer, bit 1 illumination.
constexpr uint8_t LIGHT_AIMER = 1;
constexpr uint8_t LIGHT_ILLUMINATION = 2;

// Power-up: reset, stand by, then a starting exposure and gain (about
// 520 us at 1x) until the first scan programs its own.
const Register_pair init_table[] = {
    {Kelp_trait::REG_RESET, 1},
    {Kelp_trait::REG_MODE, 0},
    {Kelp_trait::REG_EXPOSURE, 21},
    {Kelp_trait::REG_GAIN, 256},
};
constexpr size_t init_table_size = sizeof init_table / sizeof init_table[0];

} // namespace

uint32_t Kelp_trait::exposure_rows(const Kelp_trait&, uint32_t us)
{
    return rows_kelp(us);
}

Kelp_trait::Kelp_trait(IHwl_kelp& hwl_, Controller* controller_)
    : Sensor_trait(hwl_),
      exposure_history(HISTORY_SIZE),
      gain_history(HISTORY_SIZE),
      controller(controller_)
{
}

bool Kelp_trait::write_reg(uint16_t address, uint16_t value)
{
    return hwl.WriteReg(address, &value, 2);
}

bool Kelp_trait::read_reg(uint16_t address, uint16_t& value)
{
    value = 0;
    return hwl.ReadReg(address, &value, 2);
}

// ---------------------------------------------------------------------------
// Power
// ---------------------------------------------------------------------------

bool Kelp_trait::power_up_init()
{
    hwl.ImagerPowerOn();
    hwl.ImagerPowerUp();
    streaming = false;
    Register_burst burst(hwl);
    powered = burst.write(init_table, init_table_size);
    if (powered) {
        exposure_history.newest() = table_value(init_table, init_table_size, REG_EXPOSURE);
        gain_history.newest() = table_value(init_table, init_table_size, REG_GAIN);
    }
    wake();
    return powered;
}

void Kelp_trait::wake()
{
    awake = true;
    hwl.IllumConfig(lights.level_b);
    apply_lights(lights_in_force());
}

void Kelp_trait::power_on()
{
    power_up_init();
}

void Kelp_trait::power_off()
{
    hwl.AimOff();
    hwl.IllumOff();
    hwl.ImagerPowerDown();
    hwl.ImagerPowerOff();
    powered = false;
    streaming = false;
    awake = false;
}

void Kelp_trait::sleep()
{
    hwl.ImagerPowerDown();
    streaming = false;
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
    return apply_lights(Psoc::get_lights_mode(lights.idle_mode));
}

// ---------------------------------------------------------------------------
// Streaming
// ---------------------------------------------------------------------------

void Kelp_trait::trigger_on()
{
    if (!streaming) {
        restart_histories();
    }
    streaming = write_reg(REG_MODE, MODE_STREAM);
    single_frames = false;
}

void Kelp_trait::trigger_off()
{
    write_reg(REG_MODE, 0);
    streaming = false;
}

void Kelp_trait::trigger_once()
{
    if (!streaming) {
        restart_histories();
    }
    write_reg(REG_MODE, MODE_SINGLE_FRAME);
    streaming = false;  // the sensor stands by again after the frame
    single_frames = true;
}

bool Kelp_trait::check_stall(int8_t)
{
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

IHwl::Image_buffer_pointers* Kelp_trait::get_image_buffers(uint64_t& count)
{
    return hwl.GetImageBuffers(count);
}

bool Kelp_trait::register_frame_notifications(Frame_callback callback, void* context)
{
    return hwl.RegisterVsyncNotification(callback, context);
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

void Kelp_trait::step(unsigned frames)
{
    for (unsigned i = 0; i < frames; ++i) {
        exposure_history.advance();
        gain_history.advance();
    }
}

void Kelp_trait::restart_histories()
{
    // The frames to come were taken with what the registers hold now.
    step(HISTORY_SIZE);
    uint16_t count = 0;
    const bool counted = read_reg(REG_FRAME_COUNT, count);
    frame_counter.restart(counted, count);
}

void Kelp_trait::exposure_frame()
{
    uint16_t count = 0;
    const bool counted = read_reg(REG_FRAME_COUNT, count);
    step(frame_counter.since(counted, count, HISTORY_SIZE));
    exposure_now = exposure_history.at(DELIVERED_SLOT);
    gain_now = gain_history.at(DELIVERED_SLOT);
    contrast_now = exposure_now * gain_now;
}

bool Kelp_trait::set_exposure_gain(unsigned rows, unsigned gain)
{
    const uint16_t r = static_cast<uint16_t>(std::min(std::max(rows, 1u), MAX_REGISTER));
    const uint16_t g = static_cast<uint16_t>(std::min(std::max(gain, 1u), MAX_REGISTER));
    uint16_t values[2] = {r, g};  // exposure and gain, one burst
    // Credit the values to the frame during which they are written (see
    // AR0144_trait::set_exposure_gain): step to it first.
    if (streaming && frame_counter.counting())
        exposure_frame();
    if (!hwl.WriteReg(REG_EXPOSURE, values, sizeof values))
        return false;
    exposure_history.newest() = r;
    gain_history.newest() = g;
    return true;
}

void Kelp_trait::contrast_to_exposure_gain(unsigned contrast, unsigned& rows, unsigned& gain)
{
    gain = std::max(controller->settings.max_gain, 1u);
    const unsigned limit = controller->max_exposure.current_rows() & 0xFFFF;
    rows = contrast / gain;
    rows = rows == 0 ? 1 : std::min(rows, limit);
}

bool Kelp_trait::set_starting_exposure_gain(unsigned int& contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, gain;
    if (s.mode >= 2) {
        rows = std::min(controller->start_exposure.current_rows(), controller->max_exposure.current_rows());
        gain = std::max(std::min(s.start_gain, s.max_gain), 1u);
    } else {
        rows = controller->fixed_exposure.current_rows();
        gain = std::max(s.fixed_gain, 1u);
    }
    const bool ok = set_exposure_gain(rows, gain);
    contrast = exposure_history.newest() * gain_history.newest();
    return ok;
}

bool Kelp_trait::set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast)
{
    if (!controller)
        return false;
    if (controller->settings.mode < 2 || exposure == 0)
        return set_starting_exposure_gain(contrast);
    unsigned rows, gain;
    contrast_to_exposure_gain(exposure, rows, gain);
    const bool ok = set_exposure_gain(rows, gain);
    contrast = exposure_history.newest() * gain_history.newest();
    return ok;
}

bool Kelp_trait::update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, gain;
    if (s.mode < 2) {
        rows = controller->fixed_exposure.current_rows();
        gain = std::max(s.fixed_gain, 1u);
    } else {
        contrast_to_exposure_gain(shared_contrast_step(white, contrast, s), rows, gain);
    }
    const bool ok = set_exposure_gain(rows, gain);
    new_contrast = exposure_history.newest() * gain_history.newest();
    return ok;
}

unsigned int Kelp_trait::current_contrast()
{
    return contrast_now;
}

unsigned int Kelp_trait::current_exposure()
{
    return exposure_now;
}

unsigned int Kelp_trait::current_gain()
{
    return gain_now;
}

void Kelp_trait::update_exposure_settings(Exposure_settings& settings)
{
    settings.start_exposure = START_EXPOSURE_US;
}

bool Kelp_trait::update_properties(VQX_SCANENGINE_PROPERTIES_EX&)
{
    return true;
}

// ---------------------------------------------------------------------------
// Lights
// ---------------------------------------------------------------------------

bool Kelp_trait::apply_lights(uint8_t code)
{
    const bool aim = (code & LIGHT_AIMER) ? hwl.AimOn() : hwl.AimOff();
    const bool illum = (code & LIGHT_ILLUMINATION) ? hwl.IllumOn() : hwl.IllumOff();
    return aim && illum;
}

uint8_t Kelp_trait::lights_in_force() const
{
    return Psoc::get_lights_mode(scanning_initialised ? lights.scanning_mode : lights.idle_mode);
}

bool Kelp_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    lights = lighting;
    if (!awake)
        return true;  // held until the engine wakes
    hwl.IllumConfig(lighting.level_b);
    return apply_lights(lights_in_force());
}
