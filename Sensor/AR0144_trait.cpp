// AR0144_trait: see AR0144_trait.h for the design and its decisions.
#include "AR0144_trait.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "AR0144_tables.h"
#include "Contrast_step.h"
#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "Register_burst.h"
#include "Scan_driver.h"
#include "Sensor.h"
#include "Synchronization.h"

using namespace Synchroniztion_internal;

namespace {

// Sensor registers.
constexpr unsigned REG_LINE_LENGTH = 0x300C;
constexpr unsigned REG_COARSE_INTEGRATION = 0x3012;
constexpr unsigned REG_RESET = 0x301A;
constexpr unsigned REG_MODE_SELECT = 0x301C;  // 8-bit
constexpr unsigned REG_PIXEL_DIVIDER = 0x302A;
constexpr unsigned REG_SYSTEM_DIVIDER = 0x302C;
constexpr unsigned REG_PRE_PLL_DIVIDER = 0x302E;
constexpr unsigned REG_PLL_MULTIPLIER = 0x3030;
constexpr unsigned REG_OUTPUT_DIVIDER_1 = 0x3036;
constexpr unsigned REG_OUTPUT_DIVIDER_2 = 0x3038;
constexpr unsigned REG_FRAME_COUNT = 0x303A;
constexpr unsigned REG_FRAME_STATUS = 0x303C;
constexpr unsigned REG_READ_MODE = 0x3040;
constexpr unsigned REG_ANALOG_GAIN = 0x3060;
constexpr unsigned REG_DATAPATH_STATUS = 0x306A;
constexpr unsigned REG_3270 = 0x3270;  // engine setting, kept opaque

// Reset register values: streaming and ready, serial (non-zero variant)
// and parallel engines.
constexpr uint16_t RESET_STREAM_SERIAL = 0x085C;
constexpr uint16_t RESET_STREAM_PARALLEL = 0x30DC;
constexpr uint16_t RESET_READY_SERIAL = 0x1858;
constexpr uint16_t RESET_READY_PARALLEL = 0x30D8;
constexpr uint16_t RESET_RESTART_SERIAL = 0x185C;
constexpr uint16_t RESET_STREAM_BIT = 0x0004;

constexpr uint16_t READ_MODE_ROTATE_180 = 0xC000;

// Frame status bits.
constexpr uint16_t STATUS_STANDBY = 0x0002;
constexpr uint16_t STATUS_PLL_LOCKED = 0x0008;

// PSoC command register: 1 resets the sensor before its table is loaded.
constexpr unsigned char PSOC_SENSOR_RESET = 55;

constexpr uint64_t REFERENCE_CLOCK_HZ = 8000000;
constexpr unsigned TABLE_SETTLE_MS = 24;
constexpr unsigned STANDBY_DELAY_MS = 24;
constexpr unsigned TRIGGER_ONCE_MS = 30;
constexpr unsigned MAX_RESUME_MS = 150;
constexpr unsigned HISTORY_SIZE = 4;
constexpr unsigned SATURATED_WHITE = 255;
constexpr unsigned SATURATED_STEP = 8;
constexpr unsigned MAX_STEP_UP = 16;
constexpr unsigned HISTORY_FILL = 4;
constexpr uint8_t MAX_BOOST = 2;

// Light codes (PSoC): bit 0 aimer, bit 1 illumination.
constexpr uint8_t LIGHT_AIMER = 1;
constexpr uint8_t LIGHT_ILLUMINATION = 2;

constexpr uint32_t START_EXPOSURE_US = 500;

const AR0144_register_table& table_for_variant(uint32_t variant)
{
    if (variant == 1)
        return ar0144_table_a;
    if (variant == 2)
        return ar0144_table_b;
    return ar0144_table_c;
}

// Big-endian signed 16-bit value of two PSoC bytes.
int32_t be_s16(const unsigned char* p)
{
    return static_cast<int16_t>(static_cast<uint16_t>((p[0] << 8) | p[1]));
}

uint32_t clamp_to_image(uint32_t centre, int32_t offset, uint32_t extent)
{
    int64_t v = int64_t(centre) + offset;
    if (v < 0)
        v = 0;
    if (extent != 0 && v > int64_t(extent) - 1)
        v = int64_t(extent) - 1;
    return static_cast<uint32_t>(v);
}

} // namespace

uint16_t AR0144_trait::lineLenght = 1492;
uint64_t AR0144_trait::lineTimeUs = 20;

// ---------------------------------------------------------------------------
// Gain codes and rows
// ---------------------------------------------------------------------------

uint32_t AR0144_trait::exposure_rows(const AR0144_trait&, uint32_t us)
{
    return rows_ar0144(us, lineTimeUs);
}

unsigned AR0144_trait::gain_of_code(uint16_t code)
{
    const unsigned coarse = (code >> 4) & 7;
    const unsigned fine = code & 15;
    const unsigned divisor = 32 - fine;
    return ((256u << coarse) * 32u + divisor / 2) / divisor;
}

uint16_t AR0144_trait::code_of_gain(unsigned gain)
{
    // Codes in rising gain order: coarse 0 from the minimum fine step, then
    // every fine step of coarse 1 to 4.
    for (uint16_t code = max_gain_code; code > min_gain_code; --code)
        if (gain_of_code(code) <= gain)
            return code;
    return min_gain_code;
}

// ---------------------------------------------------------------------------
// Construction and power
// ---------------------------------------------------------------------------

AR0144_trait::AR0144_trait(IHwl_AR0144& hwl_, Controller* controller_)
    : Sensor_trait(hwl_),
      exposure_history(HISTORY_SIZE),
      gain_history(HISTORY_SIZE),
      controller(controller_),
      psoc(&hwl_),
      psoc_fitted(false)
{
    record_programmed();
    hwl.ImagerPowerOn();
    hwl.ImagerPowerUp();
    power_state = POWER_READY;
    psoc_fitted = hwl.IsPsocSupported();
    psoc.init();
}

AR0144_trait::~AR0144_trait()
{
    alarm.cancel();
    once_alarm.cancel();
}

uint32_t AR0144_trait::engine_variant() const
{
    return the_scan_driver->config.engine_variant & 0xFFFF;
}

uint32_t AR0144_trait::engine_orientation() const
{
    return the_scan_driver->config.engine_variant >> 16;
}

bool AR0144_trait::power_up_init()
{
    alarm.cancel();
    const uint8_t was = power_state;
    if (was == POWER_OFF) {
        hwl.ImagerPowerOn();
        analog_gain = 13;
        reg_0x3270 = 508;
        coarse_rows = 100;
        fine_time = 10;
    }
    if (was <= POWER_STANDBY)
        hwl.ImagerPowerUp();
    power_state = POWER_READY;

    call_aimer();
    psoc.set_lights_mode(lights_mode);

    unsigned char reset = 1;
    if (!hwl.WriteIIC_PSOC(PSOC_SENSOR_RESET, &reset, 1))
        return false;

    const unsigned start = MT_GetTickCount();
    if (!write_table())
        return false;
    if (!write_shadows())
        return false;
    record_programmed();
    const unsigned elapsed = MT_GetTickCount() - start;
    if (elapsed < TABLE_SETTLE_MS)
        MT_Delay(TABLE_SETTLE_MS - elapsed);

    if (lights_mode != 0) {
        if (!write_reg8(REG_MODE_SELECT, 1))
            return false;
        if (!(lights_mode & LIGHT_ILLUMINATION) && !write_reg8(REG_MODE_SELECT, 0))
            return false;
    }
    getClocks();
    second_flag = true;  // the register set is loaded
    return true;
}

bool AR0144_trait::call_aimer()
{
    bool (IHwl::*const operation)() = aimer;
    IHwl& layer = hwl;
    return (layer.*operation)();
}

bool AR0144_trait::write_table()
{
    const AR0144_register_table& table = table_for_variant(engine_variant());
    const bool rotate = engine_orientation() == 180;

    Register_burst burst(hwl);
    for (size_t i = 0; i < table.count; ++i) {
        const AR0144_register_entry& e = table.entries[i];
        if (e.address == ar0144_wait_entry) {
            if (!burst.flush())
                return false;
            MT_Delay(e.value);
            continue;
        }
        uint16_t value = static_cast<uint16_t>(e.value);
        if (e.address == REG_READ_MODE && rotate)
            value |= READ_MODE_ROTATE_180;
        if (!burst.add(e.address, value))
            return false;
    }
    return burst.flush();
}

bool AR0144_trait::write_shadows()
{
    uint16_t gain = analog_gain;
    uint16_t setting = reg_0x3270;
    uint16_t integration[2] = {coarse_rows, fine_time};
    return hwl.WriteReg(REG_ANALOG_GAIN, &gain, 2) && hwl.WriteReg(REG_3270, &setting, 2) &&
           hwl.WriteReg(REG_COARSE_INTEGRATION, integration, 4);
}

bool AR0144_trait::getClocks()
{
    uint16_t m = 0, p = 0, s = 0, d = 0, unused = 0, length = 0;
    if (!read_reg(REG_PLL_MULTIPLIER, m) || !read_reg(REG_PRE_PLL_DIVIDER, p) ||
        !read_reg(REG_SYSTEM_DIVIDER, s) || !read_reg(REG_PIXEL_DIVIDER, d))
        return false;
    const uint64_t divider = uint64_t(p) * s * d;
    const uint32_t pixel_clock = divider != 0 ? static_cast<uint32_t>(m * REFERENCE_CLOCK_HZ / divider) : 0;
    read_reg(REG_OUTPUT_DIVIDER_2, unused);
    read_reg(REG_OUTPUT_DIVIDER_1, unused);
    if (!read_reg(REG_LINE_LENGTH, length))
        return false;
    lineLenght = length;
    lineTimeUs = pixel_clock != 0 ? uint32_t(uint32_t(length) * 1000000u) / pixel_clock : 0;
    return true;
}

void AR0144_trait::sleep()
{
    alarm.cancel();
    hwl.ImagerPowerDown();
    power_state = POWER_STANDBY;
}

void AR0144_trait::power_down()
{
    alarm.cancel();
    hwl.IllumOff();
    hwl.ImagerPowerDown();
    hwl.ImagerPowerOff();
    power_state = POWER_OFF;
    second_flag = false;  // the supply is off: the register set is gone
    psoc.invalidate();
}

// ---------------------------------------------------------------------------
// Scanning and streaming
// ---------------------------------------------------------------------------

bool AR0144_trait::initialize_scanning()
{
    alarm.cancel();
    // A scan needs the register set loaded: after construction (the supply
    // is on but no table was written), after sleep (standby) and after
    // power_down the sensor is brought up again here.
    if (power_state < POWER_READY || !second_flag)
        return power_up_init();
    return true;
}

bool AR0144_trait::deinitialize_scanning()
{
    const unsigned now = MT_GetTickCount();
    const unsigned due = now - reference_time >= STANDBY_DELAY_MS ? now : reference_time + STANDBY_DELAY_MS;
    Sensor* sensor = the_scan_driver->sensor;
    if (!sensor) {
        complete_standby();
        return true;
    }
    alarm = sensor->monitor_base().alarm(*this, &AR0144_trait::complete_standby, due, 0);
    return true;
}

void AR0144_trait::complete_standby()
{
    alarm.cancel();
    uint16_t value = engine_variant() != 0 ? RESET_READY_SERIAL : RESET_READY_PARALLEL;
    if (lights_mode & LIGHT_ILLUMINATION)
        value |= RESET_STREAM_BIT;
    write_reg(REG_RESET, value);
    if (power_state == POWER_STREAMING)
        power_state = POWER_READY;
    apply_lights(lights_mode, 0);
}

bool AR0144_trait::start_streaming()
{
    uint16_t mode = 0;
    if (!hwl.ReadReg(REG_MODE_SELECT, &mode, 1))
        return false;
    const bool streaming = power_state == POWER_STREAMING && (mode & 1);
    if (!streaming) {
        advance_history(HISTORY_FILL);
        uint16_t count = 0;
        const bool counted = read_reg(REG_FRAME_COUNT, count);
        frame_counter.restart(counted, count);
    }
    const bool ok = write_reg(REG_RESET, engine_variant() != 0 ? RESET_STREAM_SERIAL : RESET_STREAM_PARALLEL);
    if (ok)
        power_state = POWER_STREAMING;
    return ok;
}

bool AR0144_trait::stop_streaming()
{
    once_alarm.cancel();
    reference_time = MT_GetTickCount();
    const uint16_t stream = engine_variant() != 0 ? RESET_STREAM_SERIAL : RESET_STREAM_PARALLEL;
    const bool reset_ok = write_reg(REG_RESET, stream & ~RESET_STREAM_BIT);
    const bool mode_ok = write_reg8(REG_MODE_SELECT, 0);
    const bool ok = reset_ok && mode_ok;
    if (ok && power_state == POWER_STREAMING)
        power_state = POWER_READY;
    return ok;
}

void AR0144_trait::trigger_on()
{
    start_streaming();
}

void AR0144_trait::trigger_off()
{
    stop_streaming();
}

void AR0144_trait::trigger_once()
{
    if (!start_streaming())
        return;
    Sensor* sensor = the_scan_driver ? the_scan_driver->sensor : nullptr;
    if (!sensor) {  // the trait used on its own: nothing else would stop it
        MT_Delay(TRIGGER_ONCE_MS);
        stop_streaming();
        return;
    }
    // The stop is an alarm, not a wait: in capture modes 6 and 7 this runs in
    // the frame callback, and holding the callback thread (and the driver's
    // lock) for the window would hold back the very frame it triggers.
    once_alarm.cancel();
    once_alarm = sensor->monitor_base().alarm(*this, &AR0144_trait::end_trigger_once,
                                              MT_GetTickCount() + TRIGGER_ONCE_MS, 0);
}

void AR0144_trait::end_trigger_once()
{
    stop_streaming();
}

unsigned int AR0144_trait::GetMaxResumeTime()
{
    return MAX_RESUME_MS;
}

bool AR0144_trait::init_capture(const IHwl::Image_buffer_pointers* buffer)
{
    if (!buffer)
        return false;
    const uint64_t frame_bytes = uint64_t(capabilities.width) * capabilities.height;
    if (buffer->capture && frame_bytes >= 4) {
        // Once armed, the transfer hardware overwrites this word while the
        // progress tracker polls it from another thread: every access to it
        // is atomic and of one size, an aligned 4-byte word (bytes when the
        // frame end is not 4-aligned), so the marker goes in the same way.
        static const unsigned char end_marker[4] = {0xFF, 0x00, 0xFF, 0x00};
        unsigned char* end = buffer->capture + frame_bytes - 4;
        if (reinterpret_cast<uintptr_t>(end) % alignof(uint32_t) == 0) {
            uint32_t word;
            std::memcpy(&word, end_marker, sizeof word);
            __atomic_store_n(reinterpret_cast<uint32_t*>(end), word, __ATOMIC_RELAXED);
        } else {
            for (size_t i = 0; i < sizeof end_marker; ++i)
                __atomic_store_n(end + i, end_marker[i], __ATOMIC_RELAXED);
        }
    }
    return hwl.InitCapture(buffer->handle);
}

IHwl::Image_buffer_pointers* AR0144_trait::get_image_buffers(uint64_t& count)
{
    return hwl.GetImageBuffers(count);
}

bool AR0144_trait::register_frame_notifications(Frame_callback callback, void* context)
{
    return hwl.RegisterVsyncNotification(callback, context);
}

bool AR0144_trait::check_stall(int8_t tries_left)
{
    uint16_t frames = 0, status = 0;
    if (!read_reg(REG_FRAME_COUNT, frames) || !read_reg(REG_FRAME_STATUS, status))
        return false;
    dbg_output("Stall%d: Status = 0x%02X frames = %d\n", int(tries_left), unsigned(status), int(frames));
    if (status & STATUS_STANDBY)
        return start_streaming();
    if (!(status & STATUS_PLL_LOCKED))
        return true;

    uint16_t datapath = 0;
    if (read_reg(REG_DATAPATH_STATUS, datapath))
        dbg_output("Stall%d: datapath_status = 0x%04X\n", int(tries_left), unsigned(datapath));
    if (tries_left == 0) {
        const bool stopped = hwl.RequestStopScanning(nullptr, nullptr);
        const bool transfer_stopped = hwl.StopScanning();
        const bool started = hwl.StartScanning();
        if (!stopped || !transfer_stopped || !started)
            return false;
    }
    const bool serial = engine_variant() != 0;
    write_reg(REG_RESET, serial ? RESET_RESTART_SERIAL : RESET_STREAM_PARALLEL);
    return write_reg(REG_RESET, serial ? RESET_STREAM_SERIAL : RESET_STREAM_PARALLEL);
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

bool AR0144_trait::set_exposure_gain(unsigned rows, unsigned gain)
{
    const uint16_t programmed_rows = static_cast<uint16_t>(std::min(std::max(rows, 1u), max_rows));
    uint16_t code = code_of_gain(gain);
    uint16_t integration[2] = {programmed_rows, fine_time};
    // The values shape the frame two after the one during which they are
    // written, which is not always the one exposure_frame() saw: a frame
    // the transfer lost leaves the sensor running on while the update is
    // computed. Step the histories to the frame of the write itself.
    if (power_state == POWER_STREAMING && frame_counter.counting())
        follow_frame_counter();
    bool ok = true;
    if (hwl.WriteReg(REG_ANALOG_GAIN, &code, 2))
        analog_gain = code;
    else
        ok = false;
    if (hwl.WriteReg(REG_COARSE_INTEGRATION, integration, 4))
        coarse_rows = programmed_rows;
    else
        ok = false;
    record_programmed();
    return ok;
}

void AR0144_trait::record_programmed()
{
    exposure_history.newest() = coarse_rows;
    gain_history.newest() = gain_of_code(analog_gain);
}

unsigned AR0144_trait::max_gain_setting() const
{
    return std::min<unsigned>(controller->settings.max_gain, gain_of_code(max_gain_code));
}

void AR0144_trait::split_contrast(unsigned contrast, unsigned& rows, unsigned& gain)
{
    const unsigned limit = std::max(std::min(controller->max_exposure.current_rows(), max_rows), 1u);
    const unsigned min_gain = gain_of_code(min_gain_code);
    const unsigned wanted_rows = (contrast + min_gain / 2) / min_gain;
    if (wanted_rows <= limit) {
        rows = std::max(wanted_rows, 1u);
        gain = min_gain;
        return;
    }
    rows = limit;
    gain = gain_of_code(code_of_gain(std::min(contrast / limit, max_gain_setting())));
}

bool AR0144_trait::program_fixed(unsigned& contrast)
{
    const Exposure_settings& s = controller->settings;
    const bool ok = set_exposure_gain(controller->fixed_exposure.current_rows(), s.fixed_gain);
    contrast = exposure_history.newest() * gain_history.newest();
    return ok;
}

bool AR0144_trait::set_starting_exposure_gain(unsigned int& contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    if (s.mode < 2)
        return program_fixed(contrast);
    const unsigned rows = std::min({controller->start_exposure.current_rows(),
                                    controller->max_exposure.current_rows(), max_rows});
    const bool ok = set_exposure_gain(rows, std::min(s.start_gain, max_gain_setting()));
    contrast = exposure_history.newest() * gain_history.newest();
    return ok;
}

bool AR0144_trait::set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast)
{
    if (!controller)
        return false;
    if (controller->settings.mode < 2 || exposure == 0)
        return set_starting_exposure_gain(contrast);
    unsigned rows = 1, gain = 0;
    split_contrast(exposure, rows, gain);
    const bool ok = set_exposure_gain(rows, gain);
    contrast = exposure_history.newest() * gain_history.newest();
    return ok;
}

bool AR0144_trait::update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    if (s.mode < 2)
        return program_fixed(new_contrast);
    unsigned rows = 1, gain = 0;
    split_contrast(contrast_step(white, contrast, s), rows, gain);
    const bool ok = set_exposure_gain(rows, gain);
    new_contrast = exposure_history.newest() * gain_history.newest();
    return ok;
}

unsigned AR0144_trait::contrast_step(unsigned white, unsigned contrast, const Exposure_settings& s)
{
    // A saturated white value says only that the frame is too bright by some
    // unknown factor of at least 255 / target: step down eight-fold, not by
    // that lower bound, so that a scene many times too bright settles in two
    // updates instead of four or more.
    const unsigned target = s.target_value;
    if (white >= SATURATED_WHITE && target < SATURATED_WHITE)
        return std::max(contrast / SATURATED_STEP, 1u);
    // Upward the white value is trusted down to a sixteenth of the target
    // (one step up to sixteen-fold): the 97th percentile of a dark frame is
    // still well above the sensor's noise floor there.
    const unsigned floor = std::max(target / MAX_STEP_UP, 1u);
    const uint64_t c = uint64_t(contrast) * target / std::max(white, floor);
    return static_cast<unsigned>(std::min<uint64_t>(std::max<uint64_t>(c, 1), UINT32_MAX));
}

void AR0144_trait::advance_history(unsigned frames)
{
    for (unsigned i = 0; i < frames; ++i) {
        exposure_history.advance();
        gain_history.advance();
    }
}

void AR0144_trait::exposure_frame()
{
    follow_frame_counter();
}

void AR0144_trait::follow_frame_counter()
{
    // Sensor frames since the last call, from the frame counter: frames the
    // driver never saw (no buffer armed, dropped by the transfer) still
    // moved the sensor's pipeline. A repeated call for the same frame moves
    // nothing. Without a counter reading, one frame.
    uint16_t count = 0;
    const bool counted = read_reg(REG_FRAME_COUNT, count);
    advance_history(frame_counter.since(counted, count, HISTORY_SIZE));
    exposure_now = exposure_history.at(DELIVERED_SLOT);
    gain_now = gain_history.at(DELIVERED_SLOT);
    contrast_now = exposure_now * gain_now;
}

unsigned int AR0144_trait::current_contrast()
{
    return contrast_now;
}

unsigned int AR0144_trait::current_exposure()
{
    // The frame being delivered may not be the one exposure_frame() saw: in
    // capture modes 1 to 3 a frame lost after its inter-frame point is
    // followed in the same buffer by the next one, whose inter-frame point
    // the driver never sees. The counter says so; then step to it.
    if (power_state == POWER_STREAMING && frame_counter.counting())
        follow_frame_counter();
    return exposure_now;
}

unsigned int AR0144_trait::current_gain()
{
    return gain_now;
}

void AR0144_trait::update_exposure_settings(Exposure_settings& settings)
{
    settings.start_exposure = START_EXPOSURE_US;
    settings.fixed_exposure = START_EXPOSURE_US;
}

// ---------------------------------------------------------------------------
// Lights
// ---------------------------------------------------------------------------

bool AR0144_trait::apply_lights(uint8_t code, uint8_t boost_level)
{
    if (psoc_fitted) {
        hwl.AimOff();
        const bool mode_ok = psoc.set_lights_mode(code);
        const bool boost_ok = psoc.set_boost(boost_level, boost_level != 0);
        return mode_ok && boost_ok;
    }
    const bool aim_ok = (code & LIGHT_AIMER) ? hwl.AimOn() : hwl.AimOff();
    const bool illum_ok = (code & LIGHT_ILLUMINATION) ? hwl.IllumOn() : hwl.IllumOff();
    return aim_ok && illum_ok;
}

void AR0144_trait::idle_streaming(uint8_t code)
{
    if (code & LIGHT_ILLUMINATION) {
        write_reg8(REG_MODE_SELECT, 1);
    } else if (code != 0) {
        write_reg8(REG_MODE_SELECT, 1);
        write_reg8(REG_MODE_SELECT, 0);
    } else {
        write_reg8(REG_MODE_SELECT, 0);
    }
}

bool AR0144_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    lights_mode = Psoc::get_lights_mode(lighting.idle_mode);
    scan_lights = Psoc::get_lights_mode(lighting.scanning_mode);
    boost = static_cast<uint8_t>(std::min<uint32_t>(lighting.boost, MAX_BOOST));
    aimer = (!psoc_fitted && (lights_mode & LIGHT_AIMER)) ? &IHwl::AimOn : &IHwl::AimOff;
    if (power_state < POWER_READY)
        return true;

    hwl.IllumConfig(lighting.level_b);
    if (scanning_initialised)
        return apply_lights(scan_lights, boost);
    const bool ok = apply_lights(lights_mode, 0);
    if (power_state == POWER_READY)
        idle_streaming(lights_mode);
    return ok;
}

// ---------------------------------------------------------------------------
// Properties
// ---------------------------------------------------------------------------

bool AR0144_trait::update_properties(VQX_SCANENGINE_PROPERTIES_EX& p)
{
    const uint32_t size = p.size;
    auto reaches = [size](size_t offset, size_t width) { return size >= offset + width; };
    using P = VQX_SCANENGINE_PROPERTIES_EX;

    if (reaches(offsetof(P, engine_id_class), sizeof p.engine_id_class))
        p.engine_id_class = engine_variant() != 0 ? 18 : 17;

    unsigned char offset[4];
    psoc.get_engine_aimer_offset(offset);
    const int32_t sign = engine_orientation() == 180 ? -1 : 1;
    if (reaches(offsetof(P, aimer_x), sizeof p.aimer_x))
        p.aimer_x = clamp_to_image(p.aimer_x, sign * be_s16(offset), capabilities.width);
    if (reaches(offsetof(P, aimer_y), sizeof p.aimer_y))
        p.aimer_y = clamp_to_image(p.aimer_y, sign * be_s16(offset + 2), capabilities.height);

    const uint64_t revision = psoc.get_revision();
    if (reaches(offsetof(P, psoc_rev_low), sizeof p.psoc_rev_low))
        p.psoc_rev_low = static_cast<uint32_t>(revision);
    if (reaches(offsetof(P, psoc_rev_high), sizeof p.psoc_rev_high))
        p.psoc_rev_high = static_cast<uint32_t>(revision >> 32);
    if (reaches(offsetof(P, serial_number), sizeof p.serial_number))
        psoc.get_serial_no(p.serial_number, sizeof p.serial_number);
    if (reaches(offsetof(P, engine_id), sizeof p.engine_id))
        p.engine_id = psoc.get_engine_id();
    return true;
}

// ---------------------------------------------------------------------------
// Register access
// ---------------------------------------------------------------------------

bool AR0144_trait::write_reg(unsigned address, uint16_t value)
{
    return hwl.WriteReg(address, &value, 2);
}

bool AR0144_trait::write_reg8(unsigned address, uint8_t value)
{
    uint16_t v = value;
    return hwl.WriteReg(address, &v, 1);
}

bool AR0144_trait::read_reg(unsigned address, uint16_t& value)
{
    value = 0;
    return hwl.ReadReg(address, &value, 2);
}
