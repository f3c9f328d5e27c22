// MT9V022_trait: see MT9V022_trait.h for the design and its decisions.
#include "MT9V022_trait.h"

#include <algorithm>

#include "Contrast_step.h"
#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "Psoc.h"
#include "Scan_driver.h"
#include "Sensor.h"
#include "Synchronization.h"

using namespace Synchroniztion_internal;

Alarm late_vsync_alarm;

namespace {

constexpr unsigned REG_SHUTTER_WIDTH = 0x0B;
constexpr unsigned REG_ANALOG_GAIN = 0x35;
constexpr unsigned REG_CHIP_VERSION = 0x00;
constexpr unsigned REG_LAST = 0xFF;

// PSoC: light control byte, and the device that resets the sensor.
constexpr unsigned char PSOC_LED_CONTROL = 50;
constexpr unsigned char PSOC_SENSOR_RESET = 0x82;

constexpr unsigned HISTORY_SIZE = 3;
constexpr unsigned POWER_SETTLE_MS = 30;
constexpr unsigned RESET_SETTLE_MS = 50;
// The sensor applies shutter width and gain two frames after they are
// written: two frames of the table's timing (480 + 45 rows of 35.25 us,
// 18.5 ms each) with room for a slower frame rate.
constexpr unsigned TABLE_SETTLE_MS = 50;
constexpr unsigned AUTO_GAIN_LIMIT = 32;
constexpr unsigned MAX_RESUME_MS = 300;

// The register table, written in this order (0x10, 0x15, 0x2C and 0xC2
// twice each).
const Register_pair init_table[] = {
    {0x04, 0x02F0}, {0x05, 0x005E}, {0x06, 0x002D}, {0x10, 0x0028}, {0x15, 0x7F32}, {0x1C, 0x0002},
    {0x20, 0x01D1}, {0x21, 0x0018}, {0x2B, 0x0002}, {0x2C, 0x0000}, {0x31, 0x001F}, {0x32, 0x001A},
    {0x33, 0x0012}, {0x47, 0x8081}, {0x48, 0x0014}, {0x0D, 0x0300}, {0x74, 0x0008}, {0xAF, 0x0000},
    {0xC2, 0x00C0}, {0x10, 0x0040}, {0x13, 0x2D32}, {0x15, 0xFF32}, {0x18, 0x3E3A}, {0x2C, 0x0000},
    {0x0B, 0x0100}, {0x35, 0x0020}, {0xC2, 0x00C0},
};
constexpr size_t init_table_size = sizeof init_table / sizeof init_table[0];
static_assert(init_table_size == 27, "the MT9V022 table has 27 rows");

// Idle modes that keep the LED on between scans.
bool idle_led_mode(uint32_t mode)
{
    return mode == 1 || mode == 3 || mode == 4 || mode == 5 || mode == 8;
}

} // namespace

uint32_t MT9V022_trait::exposure_rows(const MT9V022_trait&, uint32_t us)
{
    return rows_mt9v022(us);
}

MT9V022_trait::MT9V022_trait(IHwl_MT9V022& hwl_, Controller* controller_)
    : Sensor_trait(hwl_),
      exposure_history(HISTORY_SIZE),
      gain_history(HISTORY_SIZE),
      controller(controller_)
{
}

MT9V022_trait::~MT9V022_trait()
{
    late_vsync_alarm.cancel();
    withdraw_own_frame_callback(client_callback, client_context);
}

// ---------------------------------------------------------------------------
// Power and the register table
// ---------------------------------------------------------------------------

void MT9V022_trait::power_on()
{
    power_up_init();
}

void MT9V022_trait::power_off()
{
    hwl.AimOff();
    hwl.IllumOff();
    hwl.ImagerPowerDown();
    hwl.ImagerPowerOff();
    power_state = POWER_OFF;
    PSOC_Cachex::invalidate();
}

bool MT9V022_trait::power_up_init()
{
    if (power_state == POWER_ON)
        return true;
    hwl.ImagerPowerOn();
    hwl.ImagerPowerUp();
    power_state = POWER_ON;
    MT_Delay(POWER_SETTLE_MS);
    set_lights_mode(idle_led);
    unsigned char zero = 0;
    hwl.WriteIIC_PSOC(PSOC_SENSOR_RESET, &zero, 1);
    MT_Delay(RESET_SETTLE_MS);
    const bool ok = iic_initialization();
    if (ok) {
        uint16_t unused = 0;
        if (hwl.ReadReg(REG_CHIP_VERSION, &unused, 1))
            hwl.ReadReg(REG_LAST, &unused, 1);
        MT_Delay(TABLE_SETTLE_MS);  // the first frame of a scan is taken with the table
    }
    return ok;
}

bool MT9V022_trait::iic_initialization()
{
    Register_burst burst(hwl, Register_burst::one_by_one);
    if (!burst.write(init_table, init_table_size)) {
        dbg_output("WriteIIC failed in power_up_init\r\n");
        return false;
    }
    record_table_exposure();
    return true;
}

void MT9V022_trait::record_table_exposure()
{
    exposure_history.newest() = table_value(init_table, init_table_size, REG_SHUTTER_WIDTH);
    gain_history.newest() = table_value(init_table, init_table_size, REG_ANALOG_GAIN);
}

void MT9V022_trait::late_vsync()
{
    dbg_output("A late vsync has occured\r\n");
    unsigned char zero = 0;
    hwl.WriteIIC_PSOC(PSOC_SENSOR_RESET, &zero, 1);
    MT_Delay(RESET_SETTLE_MS);
    iic_initialization();
}

// ---------------------------------------------------------------------------
// Scanning and frames
// ---------------------------------------------------------------------------

bool MT9V022_trait::initialize_scanning()
{
    const bool ok = hwl.ImagerPowerUp();
    power_state = POWER_ON;
    return ok;
}

bool MT9V022_trait::deinitialize_scanning()
{
    hwl.AimOff();
    hwl.IllumOff();
    set_lights_mode(idle_led);
    hwl.ImagerPowerDown();
    power_state = POWER_ASLEEP;
    return true;
}

void MT9V022_trait::trigger_once() {}

void MT9V022_trait::trigger_off() {}

void MT9V022_trait::trigger_on()
{
    hwl.LoadCaptureInfo();
    hwl.EnableVsyncProcessing();
    for (unsigned i = 0; i < HISTORY_SIZE; ++i) {
        exposure_history.advance();
        gain_history.advance();
    }
    take_oldest();
    late_vsync_alarm.cancel();
    Sensor* sensor = the_scan_driver ? the_scan_driver->sensor : nullptr;
    if (!sensor)
        return;  // the trait used on its own: nothing to watch with
    // Scheduled inside the monitor; should it not be entered, the alarm is
    // still scheduled.
    auto hold = sensor->get_lock();
    SD_ASSERT(hold, "p_t", "jni/../../Sensor/MT9V022_trait", __LINE__);
    late_vsync_alarm =
        sensor->monitor_base().alarm(*this, &MT9V022_trait::late_vsync, MT_GetTickCount() + late_vsync_ms, 0);
}

void MT9V022_trait::eof(int handle, void* context)
{
    auto* self = static_cast<MT9V022_trait*>(context);
    Sensor* sensor = the_scan_driver ? the_scan_driver->sensor : nullptr;
    if (!sensor) {
        if (self->client_callback)
            self->client_callback(handle, self->client_context);
        return;
    }
    auto hold = sensor->get_lock();
    late_vsync_alarm.cancel();
    if (self->client_callback)
        self->client_callback(handle, self->client_context);
}

bool MT9V022_trait::register_frame_notifications(Frame_callback callback, void* context)
{
    if (!callback)
        return hwl.RegisterVsyncNotification(nullptr, nullptr);
    client_callback = callback;
    client_context = context;
    return hwl.RegisterVsyncNotification(&MT9V022_trait::eof, this);
}

bool MT9V022_trait::init_capture(const IHwl::Image_buffer_pointers* buffer)
{
    return buffer != nullptr && hwl.InitCapture(buffer->handle);
}

IHwl::Image_buffer_pointers* MT9V022_trait::get_image_buffers(uint64_t& count)
{
    return hwl.GetImageBuffers(count);
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

void MT9V022_trait::take_oldest()
{
    exposure_now = exposure_history.at(HISTORY_SIZE - 1);
    gain_now = gain_history.at(HISTORY_SIZE - 1);
    contrast_now = exposure_now * gain_now;
}

void MT9V022_trait::exposure_frame()
{
    exposure_history.advance();
    gain_history.advance();
    take_oldest();
}

bool MT9V022_trait::set_exposure_gain(unsigned rows, unsigned gain)
{
    uint16_t r = static_cast<uint16_t>(std::min(std::max(rows, min_rows), max_rows));
    uint16_t g = static_cast<uint16_t>(std::min(std::max(gain, min_gain), max_gain));
    if (!hwl.WriteReg(REG_SHUTTER_WIDTH, &r, 1) || !hwl.WriteReg(REG_ANALOG_GAIN, &g, 1))
        return false;
    exposure_history.newest() = r;
    gain_history.newest() = g;
    return true;
}

unsigned MT9V022_trait::auto_gain() const
{
    const unsigned max_gain_setting = controller->settings.max_gain;
    return max_gain_setting < 512 ? (max_gain_setting + 8) >> 4 : AUTO_GAIN_LIMIT;
}

void MT9V022_trait::contrast_to_exposure_gain(unsigned contrast, unsigned& rows, unsigned& gain)
{
    gain = auto_gain();
    const unsigned limit = controller->max_exposure.current_rows();
    rows = gain != 0 ? contrast / gain : 0;
    rows = rows == 0 ? 1 : std::min(rows, limit);
}

bool MT9V022_trait::set_starting_exposure_gain(unsigned int& contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, gain;
    if (s.mode >= 2) {
        rows = std::min(controller->start_exposure.current_rows(), controller->max_exposure.current_rows());
        gain = (std::min(s.start_gain, s.max_gain) + 8) >> 4;
    } else {
        rows = controller->fixed_exposure.current_rows();
        gain = (s.fixed_gain + 8) >> 4;
    }
    contrast = rows * gain;
    return true;
}

bool MT9V022_trait::set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast)
{
    if (!controller)
        return false;
    if (controller->settings.mode >= 2) {
        unsigned rows = 1, gain = 1;
        contrast_to_exposure_gain(exposure, rows, gain);
        contrast = rows * gain;
    }
    return true;
}

bool MT9V022_trait::update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, gain;
    if (s.mode < 2) {
        rows = controller->fixed_exposure.current_rows();
        gain = (s.fixed_gain + 8) >> 4;
    } else {
        contrast_to_exposure_gain(shared_contrast_step(white, contrast, s), rows, gain);
    }
    const bool ok = set_exposure_gain(rows, gain);
    new_contrast = exposure_history.newest() * gain_history.newest();
    return ok;
}

unsigned int MT9V022_trait::current_contrast()
{
    return contrast_now;
}

unsigned int MT9V022_trait::current_exposure()
{
    return exposure_now;
}

unsigned int MT9V022_trait::current_gain()
{
    return gain_now;
}

bool MT9V022_trait::update_properties(VQX_SCANENGINE_PROPERTIES_EX&)
{
    return true;
}

unsigned int MT9V022_trait::GetMaxResumeTime()
{
    return MAX_RESUME_MS;
}

// ---------------------------------------------------------------------------
// Lights
// ---------------------------------------------------------------------------

bool MT9V022_trait::set_lights_mode(uint8_t code)
{
    PSOC_Cachex* cache = PSOC_Cachex::Get_psoc_cache(hwl, PSOC_LED_CONTROL);
    if (!cache)
        return false;
    if (!cache->valid) {
        unsigned char value = 0;
        if (!hwl.ReadIIC_PSOC(PSOC_LED_CONTROL, &value, 1))
            return false;
        cache->value = value;
        cache->valid = true;
    }
    unsigned char wanted = static_cast<unsigned char>((code & 3) | (cache->value & 0xFC));
    if (cache->valid && cache->value == wanted)
        return true;
    if (!hwl.WriteIIC_PSOC(PSOC_LED_CONTROL, &wanted, 1)) {
        cache->valid = false;
        return false;
    }
    cache->value = wanted;
    return true;
}

bool MT9V022_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    idle_led = idle_led_mode(lighting.idle_mode) ? 1 : 0;
    const uint8_t code = scanning_initialised ? Psoc::get_lights_mode(lighting.scanning_mode) : idle_led;
    if (power_state != POWER_ON)
        return true;
    hwl.IllumConfig(lighting.level_b);
    hwl.AimOff();
    hwl.IllumOff();
    return set_lights_mode(code);
}
