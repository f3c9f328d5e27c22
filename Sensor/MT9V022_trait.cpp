// MT9V022_trait: see MT9V022_trait.h; docs/engines/MT9V022.md describes the engine.
#include "MT9V022_trait.h"

#include <algorithm>

#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "Psoc.h"
#include "Synchronization.h"

using namespace Synchroniztion_internal;

namespace {

constexpr Register REG_SHUTTER_WIDTH = reg16(0x0B);
constexpr Register REG_ANALOG_GAIN = reg16(0x35);
constexpr Register REG_CHIP_VERSION = reg16(0x00);
constexpr Register REG_LAST = reg16(0xFF);

// The PSoC device that resets the sensor.
constexpr unsigned char PSOC_SENSOR_RESET = 0x82;

constexpr unsigned POWER_SETTLE_MS = 30;
constexpr unsigned RESET_SETTLE_MS = 50;
// The sensor applies shutter width and gain two frames after they are
// written: two frames of the table's timing (480 + 45 rows of 35.25 us,
// 18.5 ms each) with room for a slower frame rate.
constexpr unsigned TABLE_SETTLE_MS = 50;
// Shutter width and gain reach the frame two after the one of their
// write. Gain in 1/16 units; the automatic split uses at most 2x (a
// settings gain of 512).
constexpr Control_history::Delays mt9v022_delays{2, 2};
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

MT9V022_trait::MT9V022_trait(IHwl_MT9V022& hwl_, const Trait_context& context_)
    : Sensor_trait(hwl_, context_, Properties{mt9v022_delays, {16, 0, 512}, Register_burst::one_by_one, reg8(0)}),
      psoc(&hwl_),
      lights(hwl_, &psoc)
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
    lights.off();
    hwl.ImagerPowerDown();
    hwl.ImagerPowerOff();
    power_state = POWER_OFF;
    psoc.invalidate();
}

bool MT9V022_trait::power_up_init()
{
    if (power_state == POWER_ON)
        return true;
    hwl.ImagerPowerOn();
    hwl.ImagerPowerUp();
    power_state = POWER_ON;
    MT_Delay(POWER_SETTLE_MS);
    psoc.set_lights_mode(idle_led);
    unsigned char zero = 0;
    hwl.WriteIIC_PSOC(PSOC_SENSOR_RESET, &zero, 1);
    MT_Delay(RESET_SETTLE_MS);
    const bool ok = iic_initialization();
    if (ok) {
        uint16_t unused = 0;
        if (registers.read(REG_CHIP_VERSION, unused))
            registers.read(REG_LAST, unused);
        MT_Delay(TABLE_SETTLE_MS);  // the first frame of a scan is taken with the table
    }
    return ok;
}

bool MT9V022_trait::iic_initialization()
{
    if (!registers.write_table(init_table, init_table_size)) {
        dbg_output("WriteIIC failed in power_up_init\r\n");
        return false;
    }
    record_table_exposure();
    return true;
}

void MT9V022_trait::record_table_exposure()
{
    controls.program(table_value(init_table, init_table_size, REG_SHUTTER_WIDTH.address),
                     table_value(init_table, init_table_size, REG_ANALOG_GAIN.address));
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
    lights.show(idle_led);
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
    controls.restart();
    late_vsync_alarm.cancel();
    // Scheduled inside the monitor.
    Monitor_entry hold(*context.monitor);
    late_vsync_alarm =
        context.monitor->alarm(*this, &MT9V022_trait::late_vsync, MT_GetTickCount() + late_vsync_ms, 0);
}

void MT9V022_trait::eof(int handle, void* context)
{
    auto* self = static_cast<MT9V022_trait*>(context);
    Monitor_entry hold(*self->context.monitor);
    self->late_vsync_alarm.cancel();
    if (self->client_callback)
        self->client_callback(handle, self->client_context);
}

bool MT9V022_trait::register_frame_notifications(Frame_callback callback, void* context_)
{
    if (!callback)
        return hwl.RegisterVsyncNotification(nullptr, nullptr);
    client_callback = callback;
    client_context = context_;
    return hwl.RegisterVsyncNotification(&MT9V022_trait::eof, this);
}

bool MT9V022_trait::init_capture(const IHwl::Image_buffer_pointers* buffer)
{
    return buffer != nullptr && hwl.InitCapture(buffer->handle);
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

bool MT9V022_trait::set_exposure_gain(unsigned rows, unsigned gain)
{
    const uint16_t r = static_cast<uint16_t>(std::min(std::max(rows, min_rows), max_rows));
    const uint16_t g = static_cast<uint16_t>(std::min(std::max(gain, min_gain), max_gain));
    Register_sequence writes(registers);
    writes.write(REG_SHUTTER_WIDTH, r);
    writes.write(REG_ANALOG_GAIN, g);
    if (!writes.ok())
        return false;
    controls.program(r, g);
    return true;
}

bool MT9V022_trait::program(const Exposure_point& point)
{
    return set_exposure_gain(point.rows, point.gain);
}

// A scan starts from what the sensor holds: the starting setting is only
// reported.
bool MT9V022_trait::set_starting_exposure_gain(unsigned int& contrast)
{
    if (!controller)
        return false;
    const Exposure_point start = automatic() ? start_point() : fixed_point();
    contrast = start.rows * start.gain;
    return true;
}

bool MT9V022_trait::set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast)
{
    if (!controller)
        return false;
    if (automatic()) {
        const Exposure_point start = split(exposure);
        contrast = start.rows * start.gain;
    }
    return true;
}

unsigned int MT9V022_trait::GetMaxResumeTime()
{
    return MAX_RESUME_MS;
}

// ---------------------------------------------------------------------------
// Lights
// ---------------------------------------------------------------------------

bool MT9V022_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    idle_led = idle_led_mode(lighting.idle_mode) ? 1 : 0;
    const uint8_t code = scanning_initialised ? Psoc::get_lights_mode(lighting.scanning_mode) : idle_led;
    if (power_state != POWER_ON)
        return Lights::held();
    hwl.IllumConfig(lighting.level_b);
    return lights.show(code);
}
