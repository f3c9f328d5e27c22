// X5501_trait: see X5501_trait.h for the design and its decisions.
#include "X5501_trait.h"

#include <algorithm>
#include <utility>

#include "Diagnostics.h"
#include "Exposure_rules.h"
#include "Scan_driver.h"
#include "Synchronization.h"
#include "X5501_Exposure_controller.h"
#include "X5501_tables.h"

using namespace Synchroniztion_internal;

namespace {

// Sensor registers and firmware variables.
constexpr uint16_t REG_HOST_COMMAND = 0x0080;
constexpr uint16_t REG_LOGICAL_ADDRESS = 0x098E;
constexpr uint16_t REG_RESET = 0x001A;
constexpr uint16_t REG_GAIN = 0x305E;
constexpr uint16_t REG_FRAME_LENGTH = 0x300A;
constexpr uint16_t REG_INTEGRATION = 0x3012;
constexpr uint16_t VAR_SYSTEM_STATE = 0xDC00;
constexpr uint16_t VAR_COMMAND_STATUS = 0xDC02;
constexpr uint16_t CAM_FRAME_LENGTH = 0xC812;
constexpr uint16_t CAM_INTEGRATION = 0xC83C;
constexpr uint16_t CAM_GAIN = 0xC836;

// Host command: set state, with the request (OK) bit.
constexpr uint16_t COMMAND_SET_STATE = 0x8002;
constexpr uint16_t COMMAND_OK_BIT = 0x8000;
constexpr unsigned COMMAND_WAIT_MS = 100;

// System states.
constexpr uint8_t STATE_STREAMING = 0x31;
constexpr uint8_t STATE_ENTER_STANDBY = 0x50;
constexpr uint8_t STATE_STANDBY = 0x52;
constexpr uint8_t STATE_CONFIG_CHANGE = 0x28;
constexpr uint8_t STATE_LEAVE_STANDBY = 0x54;

// Command status bytes.
constexpr unsigned STATUS_INVALID = 12;
constexpr unsigned STATUS_NO_SPACE = 13;

constexpr unsigned RESET_SETTLE_MS = 50;
constexpr unsigned EXPOSURE_HISTORY = 3;
constexpr unsigned GAIN_HISTORY = 2;
constexpr unsigned HISTORY_FILL = 4;
constexpr uint16_t MIN_FRAME_LENGTH = 925;
constexpr unsigned STARTING_EXPOSURE_US = 3000;
constexpr unsigned MAX_RESUME_MS = 300;
constexpr unsigned RESTART_ROWS_LIMIT = 900;
constexpr unsigned RESTART_ROWS = 200;

// Contrast step: gain 512 is unity; one row is 1726 pixel clocks at 96 MHz.
constexpr unsigned UNITY_GAIN = 512;
constexpr unsigned ROW_CLOCKS = 1726;
constexpr unsigned CLOCK_MHZ = 96;
constexpr unsigned MIN_TIME_US = 1000;
constexpr unsigned MAX_TIME_US = 33000;
constexpr unsigned MIN_GAIN = 8;
constexpr unsigned MAX_GAIN = 4032;
constexpr unsigned SHORT_ROWS = 56;

// Light codes: bit 0 aimer, bit 1 illumination.
constexpr uint8_t LIGHT_AIMER = 1;
constexpr uint8_t LIGHT_ILLUMINATION = 2;

} // namespace

// ---------------------------------------------------------------------------
// Encodings
// ---------------------------------------------------------------------------

uint32_t X5501_trait::exposure_rows(const X5501_trait&, uint32_t us)
{
    return rows_x5501(us);
}

uint16_t X5501_trait::gain_register_of(unsigned gain)
{
    unsigned m = (gain >> 3) & 0xFFFF;
    unsigned e = 0;
    while (m > 63) {
        m >>= 1;
        ++e;
    }
    return static_cast<uint16_t>(0x1000 | (e << 6) | m);
}

unsigned X5501_trait::effective_gain(uint16_t reg)
{
    return unsigned(reg & 63) << ((reg >> 6) & 3);
}

// ---------------------------------------------------------------------------
// Construction and power
// ---------------------------------------------------------------------------

X5501_trait::X5501_trait(IHwl_x5501& hwl_, Controller* controller_, std::vector<Register_pair> full)
    : Sensor_trait(hwl_),
      exposure_history(EXPOSURE_HISTORY),
      gain_history(GAIN_HISTORY),
      controller(controller_),
      psoc(&hwl_),
      psoc_fitted(false),
      full_table(std::move(full))
{
    hwl.ImagerPowerOn();
    hwl.ImagerPowerUp();
    power_state = POWER_ON;
    psoc_fitted = hwl.IsPsocSupported();
    if (psoc_fitted)
        psoc.init();
}

X5501_trait::~X5501_trait() {}

void X5501_trait::power_on()
{
    power_up_init();
}

void X5501_trait::power_off()
{
    hwl.AimOff();
    hwl.IllumOff();
    hwl.ImagerPowerDown();
    hwl.ImagerPowerOff();
    power_state = POWER_OFF;
    streaming = false;
    psoc.invalidate();
}

void X5501_trait::sleep()
{
    hwl.ImagerPowerDown();
    power_state = POWER_ASLEEP;
    streaming = false;
}

bool X5501_trait::call(bool (IHwl::*operation)())
{
    IHwl& layer = hwl;
    return (layer.*operation)();
}

bool X5501_trait::power_up_init()
{
    const IHwl::Config& config = the_scan_driver->config;
    if (config.imager_link == 0) {
        dbg_output("Parallel interface is not supported!\r\n");
        return false;
    }
    if (config.imager_link != 1) {
        dbg_output("Only 1 data lane is supported.\r\n");
        return false;
    }

    if (power_state == POWER_OFF)
        hwl.ImagerPowerOn();
    if (power_state == POWER_ON && leave_standby_state != 0)
        return true;  // already initialised
    if (power_state != POWER_ON) {
        hwl.ImagerPowerUp();
        leave_standby_state = 0;
        power_state = POWER_ON;
    }
    streaming = false;

    call(idle_aim);
    call(idle_illum);
    if (psoc_fitted)
        psoc.set_lights_mode(lights_code);

    uint16_t state = 0;
    if (!read_reg(VAR_SYSTEM_STATE, state))
        dbg_output("PowerUp: Fails to read 0xDC00\r\n");
    if ((state & 0xFF) != STATE_STREAMING) {
        if (!write_reg(REG_RESET, 1) || !write_reg(REG_RESET, 0))
            return false;
        MT_Delay(RESET_SETTLE_MS);
    }

    if (WriteByteReg(VAR_SYSTEM_STATE, STATE_ENTER_STANDBY))
        write_reg(REG_HOST_COMMAND, COMMAND_SET_STATE);
    leave_standby_state = STATE_CONFIG_CHANGE;
    return write_tables();
}

bool X5501_trait::write_tables()
{
    if (!WriteRegisters(x5501_core_table, x5501_core_table_size))
        return false;
    if (the_scan_driver->config.register_table == x5501_short_table_select)
        return WriteRegisters(x5501_short_table, x5501_short_table_size);
    if (full_table.empty()) {
        dbg_output("Full register table not loaded\r\n");
        return false;
    }
    return WriteRegisters(full_table.data(), full_table.size());
}

bool X5501_trait::WriteRegisters(const Register_pair* table, size_t count)
{
    Register_burst burst(hwl);
    if (burst.write(table, count))
        return true;
    dbg_output("Fails to write Reg:%04X, n = %d!!!\r\n", unsigned(burst.failed_register()),
               int(burst.failed_count()));
    return false;
}

bool X5501_trait::WriteByteReg(uint16_t address, uint8_t value)
{
    uint16_t pair[2] = {address, static_cast<uint16_t>(value << 8)};
    return hwl.WriteReg(REG_LOGICAL_ADDRESS, pair, sizeof pair);
}

// ---------------------------------------------------------------------------
// Host commands and standby
// ---------------------------------------------------------------------------

int X5501_trait::WaitForCompletion(uint16_t command, unsigned timeout_ms)
{
    const unsigned start = MT_GetTickCount();
    int error = COMMAND_OK;
    for (;;) {
        uint16_t value = 0;
        if (!read_reg(REG_HOST_COMMAND, value)) {
            error = COMMAND_IO_ERROR;
            break;
        }
        if ((value & command & 15) == 0) {
            if (value & COMMAND_OK_BIT)
                return COMMAND_OK;
            uint16_t status = 0;
            if (!read_reg(VAR_COMMAND_STATUS, status)) {
                error = COMMAND_IO_ERROR;
                break;
            }
            switch (status >> 8) {
            case 0:
                return COMMAND_OK;
            case STATUS_INVALID:
                error = COMMAND_INVALID;
                break;
            case STATUS_NO_SPACE:
                error = COMMAND_NO_SPACE;
                break;
            default:
                error = COMMAND_FAILED;
                break;
            }
            break;
        }
        MT_Delay(1);
        if (MT_GetTickCount() - start >= timeout_ms) {
            error = COMMAND_TIMED_OUT;
            break;
        }
    }
    dbg_output("ERROR: Command failed, err %d\r\n", error);
    return error;
}

bool X5501_trait::SensorEnterStandby()
{
    if (WaitForCompletion(COMMAND_SET_STATE, COMMAND_WAIT_MS) != COMMAND_OK)
        return false;
    uint16_t state = 0;
    if (!read_reg(VAR_SYSTEM_STATE, state))
        return false;
    streaming = false;
    if ((state & 0xFF) == STATE_STANDBY)
        return true;
    if (!WriteByteReg(VAR_SYSTEM_STATE, STATE_ENTER_STANDBY))
        return false;
    return write_reg(REG_HOST_COMMAND, COMMAND_SET_STATE);
}

bool X5501_trait::SensorExitStandby()
{
    if (WaitForCompletion(COMMAND_SET_STATE, COMMAND_WAIT_MS) != COMMAND_OK)
        return false;
    uint16_t state = 0;
    if (!read_reg(VAR_SYSTEM_STATE, state))
        return false;
    if ((state & 0xFF) != STATE_STANDBY)
        return true;
    bool ok = WriteByteReg(VAR_SYSTEM_STATE, leave_standby_state);
    if (ok)
        ok = write_reg(REG_HOST_COMMAND, COMMAND_SET_STATE);
    leave_standby_state = STATE_LEAVE_STANDBY;
    return ok;
}

// ---------------------------------------------------------------------------
// Scanning
// ---------------------------------------------------------------------------

bool X5501_trait::initialize_scanning()
{
    return true;
}

bool X5501_trait::deinitialize_scanning()
{
    call(idle_aim);
    call(idle_illum);
    if (psoc_fitted)
        psoc.set_lights_mode(lights_code);
    return true;
}

void X5501_trait::trigger_once()
{
    dbg_output("%s is not supported by MT9M114.  Use streaming mode", "trigger_once");
}

void X5501_trait::fill_histories()
{
    for (unsigned i = 0; i < HISTORY_FILL; ++i) {
        exposure_history.advance();
        gain_history.advance();
    }
}

void X5501_trait::trigger_on()
{
    if (!streaming) {
        fill_histories();
        frame_count = 0;
    }
    if (SensorExitStandby())
        streaming = true;
}

void X5501_trait::trigger_off()
{
    dbg_output("trigger_off()");
    SensorEnterStandby();
    streaming = false;
}

bool X5501_trait::init_capture(const IHwl::Image_buffer_pointers* buffer)
{
    return buffer != nullptr && hwl.InitCapture(buffer->handle);
}

IHwl::Image_buffer_pointers* X5501_trait::get_image_buffers(uint64_t& count)
{
    return hwl.GetImageBuffers(count);
}

bool X5501_trait::register_frame_notifications(Frame_callback callback, void* context)
{
    return hwl.RegisterVsyncNotification(callback, context);
}

unsigned int X5501_trait::GetMaxResumeTime()
{
    return MAX_RESUME_MS;
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

bool X5501_trait::set_exposure_gain(unsigned rows, unsigned gain, bool camera_control)
{
    const uint16_t reg = gain_register_of(gain);
    const uint16_t length = std::max<uint16_t>(static_cast<uint16_t>(rows + 2), MIN_FRAME_LENGTH);
    const uint16_t rows16 = static_cast<uint16_t>(rows);
    if (camera_control) {
        const uint16_t effective = static_cast<uint16_t>(effective_gain(reg));
        if (write_reg(CAM_FRAME_LENGTH, length) && write_reg(CAM_INTEGRATION, rows16))
            write_reg(CAM_GAIN, effective);
    }
    const bool gain_ok = write_reg(REG_GAIN, reg);
    if (gain_ok)
        gain_register = reg;
    const bool length_ok = write_reg(REG_FRAME_LENGTH, length);
    if (length_ok)
        frame_length_lines = length;
    const bool rows_ok = write_reg(REG_INTEGRATION, rows16);
    if (rows_ok)
        integration_rows = rows16;
    if (!(gain_ok && length_ok && rows_ok))
        return false;
    exposure_history.newest() = rows;
    gain_history.newest() = gain;
    return true;
}

void X5501_trait::exposure_frame()
{
    ++frame_count;
    if (!psoc_fitted && aim_interleave) {
        if (frame_count % 4 == 0)
            hwl.AimOn();
        else if (frame_count % 4 == 1)
            hwl.AimOff();
    }
    exposure_now = exposure_history.at(EXPOSURE_HISTORY - 1);
    gain_now = gain_history.at(GAIN_HISTORY - 1);
    contrast_now = gain_now * exposure_now;
    exposure_history.advance();
    gain_history.advance();
}

void X5501_trait::program_fixed(unsigned& contrast)
{
    const unsigned rows = controller->fixed_exposure.current_rows();
    const unsigned gain = controller->settings.fixed_gain;
    contrast = rows * gain;
    set_exposure_gain(rows, gain, false);
}

bool X5501_trait::set_starting_exposure_gain(unsigned int& contrast)
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
    contrast = rows * gain;
    return set_exposure_gain(rows, gain, true);
}

bool X5501_trait::set_starting_exposure_gain(unsigned int, unsigned int& contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, gain;
    if (s.mode >= 2) {
        gain = current_gain();
        rows = current_exposure();
    } else {
        rows = controller->fixed_exposure.current_rows();
        gain = s.fixed_gain;
    }
    if (rows >= RESTART_ROWS_LIMIT)
        rows = RESTART_ROWS;
    contrast = rows * gain;
    return set_exposure_gain(rows, gain, true);
}

bool X5501_trait::update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    if (s.mode < 2) {
        program_fixed(new_contrast);
        return true;
    }
    unsigned c;
    if (white >= 255)
        c = contrast / 4;
    else if (white == 0)
        c = contrast * 4;
    else
        c = (contrast * s.target_value + white / 2) / white;

    // Exposure time at unity gain; outside 1 to 33 ms the gain takes over.
    const unsigned t = ((c >> 9) * ROW_CLOCKS + CLOCK_MHZ / 2) / CLOCK_MHZ;
    unsigned gain = UNITY_GAIN;
    unsigned t2 = t;
    const bool outside = t < MIN_TIME_US || t > MAX_TIME_US;
    if (t < MIN_TIME_US) {
        gain = std::max((t << 9) / MIN_TIME_US, MIN_GAIN);
        t2 = (t << 9) / gain;
    } else if (t > MAX_TIME_US) {
        gain = std::min((t << 9) / MAX_TIME_US, MAX_GAIN);
        t2 = (t << 9) / gain;
    }
    unsigned rows;
    if (outside && t2 < MIN_TIME_US)
        rows = SHORT_ROWS;
    else
        rows = (std::min(t2, MAX_TIME_US) * CLOCK_MHZ + ROW_CLOCKS / 2) / ROW_CLOCKS;
    new_contrast = gain * rows;
    set_exposure_gain(rows, gain, false);
    return true;
}

unsigned int X5501_trait::current_contrast()
{
    return contrast_now;
}

unsigned int X5501_trait::current_exposure()
{
    return exposure_now;
}

unsigned int X5501_trait::current_gain()
{
    return gain_now;
}

void X5501_trait::update_exposure_settings(Exposure_settings& settings)
{
    settings.start_exposure = STARTING_EXPOSURE_US;
}

bool X5501_trait::update_properties(VQX_SCANENGINE_PROPERTIES_EX&)
{
    return true;
}

// ---------------------------------------------------------------------------
// Lights
// ---------------------------------------------------------------------------

bool X5501_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    lights_code = Psoc::get_lights_mode(lighting.idle_mode);
    uint8_t code = lights_code;
    if (scanning_initialised) {
        code = Psoc::get_lights_mode(lighting.scanning_mode);
        aim_interleave = (code & 3) == 3;
    }
    bool (IHwl::*aim_now)() = &IHwl::AimOff;
    bool (IHwl::*illum_now)() = &IHwl::IllumOff;
    if (psoc_fitted) {
        idle_aim = &IHwl::AimOff;
        idle_illum = &IHwl::IllumOff;
        aim_interleave = false;
    } else {
        idle_aim = (lights_code & LIGHT_AIMER) ? &IHwl::AimOn : &IHwl::AimOff;
        idle_illum = (lights_code & LIGHT_ILLUMINATION) ? &IHwl::IllumOn : &IHwl::IllumOff;
        aim_now = (code & LIGHT_AIMER) ? &IHwl::AimOn : &IHwl::AimOff;
        illum_now = (code & LIGHT_ILLUMINATION) ? &IHwl::IllumOn : &IHwl::IllumOff;
    }
    if (power_state != POWER_ON)
        return power_state != POWER_OFF;
    hwl.IllumConfig(lighting.level_b);
    call(aim_now);
    call(illum_now);
    if (psoc_fitted)
        return psoc.set_lights_mode(code);
    return false;
}

// ---------------------------------------------------------------------------
// Register access
// ---------------------------------------------------------------------------

bool X5501_trait::read_reg(uint16_t address, uint16_t& value)
{
    value = 0;
    return hwl.ReadReg(address, &value, 2);
}

bool X5501_trait::write_reg(uint16_t address, uint16_t value)
{
    return hwl.WriteReg(address, &value, 2);
}
