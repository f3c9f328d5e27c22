// X5501_trait: see X5501_trait.h.
#include "X5501_trait.h"

#include <algorithm>
#include <utility>

#include "Diagnostics.h"
#include "Exposure_rules.h"
#include "Synchronization.h"
#include "X5501_tables.h"

using namespace Synchroniztion_internal;

namespace {

// Sensor registers and firmware variables. A 16-bit read returns the
// sensor's big-endian register order: the low byte of a read at 0xDC00 is
// the system state, the high byte of a read at 0xDC02 the status of the
// last command.
constexpr Register REG_HOST_COMMAND = reg16(0x0080);
constexpr Register REG_LOGICAL_ADDRESS = reg16(0x098E);  // followed by the value, 0x0990
constexpr Register REG_RESET = reg16(0x001A);
constexpr Register REG_GAIN = reg16(0x305E);
constexpr Register REG_FRAME_LENGTH = reg16(0x300A);
constexpr Register REG_INTEGRATION = reg16(0x3012);
constexpr Register VAR_SYSTEM_STATE = reg16(0xDC00);
constexpr Register VAR_COMMAND_STATUS = reg16(0xDC02);
constexpr Register CAM_FRAME_LENGTH = reg16(0xC812);
constexpr Register CAM_INTEGRATION = reg16(0xC83C);
constexpr Register CAM_GAIN = reg16(0xC836);

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

// Rows take effect three frames after the period in which they are written,
// gain two; no frame counter. Gain in 1/512 units (512 = the sensor's unity
// analog gain), also for the settings' gains, which this engine takes as
// they are.
X5501_trait::X5501_trait(IHwl_x5501& hwl_, const Trait_context& context_, std::vector<Register_pair> full)
    : Sensor_trait(hwl_, context_, Properties{{3, 2}, {1, 0, ~0u}, Register_burst::sixteen_bit, reg8(0)}),
      psoc(&hwl_),
      lights(hwl_, nullptr),
      psoc_fitted(false),
      full_table(std::move(full))
{
    hwl.ImagerPowerOn();
    hwl.ImagerPowerUp();
    power_state = POWER_ON;
    psoc_fitted = hwl.IsPsocSupported();
    if (psoc_fitted) {
        psoc.init();
        lights.drive_by(&psoc);
    }
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
    controls.halt();
    psoc.invalidate();
}

void X5501_trait::sleep()
{
    hwl.ImagerPowerDown();
    power_state = POWER_ASLEEP;
    controls.halt();
}

bool X5501_trait::power_up_init()
{
    const IHwl::Config& config = *context.config;
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
    controls.halt();

    lights.show(lights_code);

    // A sensor that does not stream is reset first.
    uint16_t state = 0;
    if (!registers.read(VAR_SYSTEM_STATE, state))
        dbg_output("PowerUp: Fails to read 0xDC00\r\n");
    if ((state & 0xFF) != STATE_STREAMING) {
        bool failed = false;
        registers.write(REG_RESET, 1, &failed);
        registers.write(REG_RESET, 0, &failed);
        if (failed)
            return false;
        MT_Delay(RESET_SETTLE_MS);
    }

    bool failed = false;
    write_variable(VAR_SYSTEM_STATE.address, STATE_ENTER_STANDBY, &failed);
    registers.write(REG_HOST_COMMAND, COMMAND_SET_STATE, &failed);
    leave_standby_state = STATE_CONFIG_CHANGE;
    return write_tables();
}

// The core table, then the short table when the configuration selects it,
// else the device's full table (start-up refuses the engine when its file is
// missing, so an empty one here is reported and fails the power-up).
bool X5501_trait::write_tables()
{
    if (!write_table(x5501_core_table, x5501_core_table_size))
        return false;
    if (context.config->register_table == x5501_short_table_select)
        return write_table(x5501_short_table, x5501_short_table_size);
    if (full_table.empty()) {
        dbg_output("Full register table not loaded\r\n");
        return false;
    }
    return write_table(full_table.data(), full_table.size());
}

bool X5501_trait::write_table(const Register_pair* table, size_t count)
{
    Register_pair failed{0, 0};
    if (registers.write_table(table, count, &failed))
        return true;
    dbg_output("Fails to write Reg:%04X, n = %d!!!\r\n", unsigned(failed.address), int(failed.value));
    return false;
}

bool X5501_trait::write_variable(uint16_t variable, uint8_t value, bool* error)
{
    const uint16_t pair[2] = {variable, static_cast<uint16_t>(value << 8)};
    return registers.write_run(REG_LOGICAL_ADDRESS, pair, 2, error);
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
        if (!registers.read(REG_HOST_COMMAND, value)) {
            error = COMMAND_IO_ERROR;
            break;
        }
        if ((value & command & 15) == 0) {
            if (value & COMMAND_OK_BIT)
                return COMMAND_OK;
            uint16_t status = 0;
            if (!registers.read(VAR_COMMAND_STATUS, status)) {
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
    if (!registers.read(VAR_SYSTEM_STATE, state))
        return false;
    controls.halt();
    if ((state & 0xFF) == STATE_STANDBY)
        return true;
    bool failed = false;
    write_variable(VAR_SYSTEM_STATE.address, STATE_ENTER_STANDBY, &failed);
    registers.write(REG_HOST_COMMAND, COMMAND_SET_STATE, &failed);
    return !failed;
}

// Leaves standby with 0x28 (apply the configuration, then stream) the first
// time after a power-up, with 0x54 afterwards.
bool X5501_trait::SensorExitStandby()
{
    if (WaitForCompletion(COMMAND_SET_STATE, COMMAND_WAIT_MS) != COMMAND_OK)
        return false;
    uint16_t state = 0;
    if (!registers.read(VAR_SYSTEM_STATE, state))
        return false;
    if ((state & 0xFF) != STATE_STANDBY)
        return true;
    bool failed = false;
    write_variable(VAR_SYSTEM_STATE.address, leave_standby_state, &failed);
    registers.write(REG_HOST_COMMAND, COMMAND_SET_STATE, &failed);
    leave_standby_state = STATE_LEAVE_STANDBY;
    return !failed;
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
    lights.show(lights_code);
    return true;
}

// Capture modes 6 and 7 deliver no frames on this engine; the stall handling
// then ends the scan as stalled.
void X5501_trait::trigger_once()
{
    dbg_output("%s is not supported by MT9M114.  Use streaming mode", "trigger_once");
}

// The stream runs from a successful leave of standby until trigger_off,
// sleep, power-off or a power-up. Leaving standby, every frame to come is
// taken with what the registers hold now; a trigger_on while the sensor
// streams (the stream driver re-triggers when a client gives a buffer back
// after all were held) keeps the history, whose frames are in flight.
void X5501_trait::trigger_on()
{
    const bool starting = !controls.running();
    if (starting) {
        controls.restart();
        frame_count = 0;
    }
    if (!SensorExitStandby() && starting)
        controls.halt();
}

void X5501_trait::trigger_off()
{
    dbg_output("trigger_off()");
    SensorEnterStandby();
    controls.halt();
}

bool X5501_trait::init_capture(const IHwl::Image_buffer_pointers* buffer)
{
    return buffer != nullptr && hwl.InitCapture(buffer->handle);
}

unsigned int X5501_trait::GetMaxResumeTime()
{
    return MAX_RESUME_MS;
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

// The camera-control copies (scan starts only) stop at their first failure;
// gain, frame length and rows are written whatever the others answered. The
// history records the request as given, so a frame's gain can exceed what
// the gain register applies by one mantissa step.
bool X5501_trait::set_exposure_gain(unsigned rows, unsigned gain, bool camera_control)
{
    const uint16_t reg = gain_register_of(gain);
    const uint16_t length = std::max<uint16_t>(static_cast<uint16_t>(rows + 2), MIN_FRAME_LENGTH);
    const uint16_t rows16 = static_cast<uint16_t>(rows);
    if (camera_control) {
        Register_sequence copies(registers);
        copies.write(CAM_FRAME_LENGTH, length);
        copies.write(CAM_INTEGRATION, rows16);
        copies.write(CAM_GAIN, static_cast<uint16_t>(effective_gain(reg)));
    }
    const bool gain_ok = registers.write(REG_GAIN, reg);
    const bool length_ok = registers.write(REG_FRAME_LENGTH, length);
    const bool rows_ok = registers.write(REG_INTEGRATION, rows16);
    if (!(gain_ok && length_ok && rows_ok))
        return false;
    controls.program(rows, gain);
    return true;
}

bool X5501_trait::program_start(const Exposure_point& point)
{
    return set_exposure_gain(point.rows, point.gain, true);
}

// Updates within a scan answer true whatever the writes answered.
bool X5501_trait::program(const Exposure_point& point)
{
    set_exposure_gain(point.rows, point.gain, false);
    return true;
}

// Every 4th frame the aimer flashes when the scanning lights ask for both
// aimer and illumination and the hardware layer drives the lights.
void X5501_trait::exposure_frame()
{
    ++frame_count;
    if (!psoc_fitted && aim_interleave) {
        if (frame_count % 4 == 0)
            hwl.AimOn();
        else if (frame_count % 4 == 1)
            hwl.AimOff();
    }
    Sensor_trait::exposure_frame();
}

// An automatic scan starts from what the last delivered frame was taken
// with (the contrast the caller passes is not used); a long exposure
// (900 rows or more) restarts at 200 rows.
bool X5501_trait::set_starting_exposure_gain(unsigned int, unsigned int& contrast)
{
    if (!controller)
        return false;
    const Control_history::Setting last = controls.delivered();
    Exposure_point point = automatic() ? Exposure_point{last.exposure, last.gain} : fixed_point();
    if (point.rows >= RESTART_ROWS_LIMIT)
        point.rows = RESTART_ROWS;
    return apply(point, contrast, true);
}

// The engine's own step: the contrast scaled by target / white, quartered
// by a saturated frame and quadrupled by a black one. It keeps its own
// limits, not ES_MAX_EXP and ES_MAX_GAIN.
unsigned X5501_trait::step(unsigned white, unsigned contrast)
{
    if (white >= 255)
        return contrast / 4;
    if (white == 0)
        return contrast * 4;
    return (contrast * settings().target_value + white / 2) / white;
}

// The exposure time at unity gain; outside 1 to 33 ms the gain takes over
// (at least 8, at most 4032 = 7.875x), and a time still below 1 ms gets the
// shortest rows.
X5501_trait::Exposure_point X5501_trait::split(unsigned c)
{
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
    return {rows, gain};
}

void X5501_trait::update_exposure_settings(Exposure_settings& settings_)
{
    settings_.start_exposure = STARTING_EXPOSURE_US;
}

bool X5501_trait::update_properties(VQX_SCANENGINE_PROPERTIES_EX&)
{
    return true;
}

// ---------------------------------------------------------------------------
// Lights
// ---------------------------------------------------------------------------

// With a PSoC it drives the lights and there is no interleave; without one
// the hardware layer's lights follow the code. Asleep or off the lighting is
// held until power-up shows it.
bool X5501_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    lights_code = Psoc::get_lights_mode(lighting.idle_mode);
    uint8_t code = lights_code;
    if (scanning_initialised) {
        code = Psoc::get_lights_mode(lighting.scanning_mode);
        aim_interleave = !psoc_fitted && (code & 3) == 3;
    } else if (psoc_fitted) {
        aim_interleave = false;
    }
    if (power_state != POWER_ON)
        return Lights::held();
    hwl.IllumConfig(lighting.level_b);
    return lights.show(code);
}
