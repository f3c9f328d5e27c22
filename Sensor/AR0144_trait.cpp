// AR0144_trait: see AR0144_trait.h.
#include "AR0144_trait.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "AR0144_tables.h"
#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "Register_burst.h"
#include "Synchronization.h"

using namespace Synchroniztion_internal;

namespace {

// Sensor registers.
constexpr Register REG_LINE_LENGTH = reg16(0x300C);
constexpr Register REG_COARSE_INTEGRATION = reg16(0x3012);  // followed by the fine time, 0x3014
constexpr Register REG_RESET = reg16(0x301A);
constexpr Register REG_MODE_SELECT = reg8(0x301C);
constexpr Register REG_PIXEL_DIVIDER = reg16(0x302A);
constexpr Register REG_SYSTEM_DIVIDER = reg16(0x302C);
constexpr Register REG_PRE_PLL_DIVIDER = reg16(0x302E);
constexpr Register REG_PLL_MULTIPLIER = reg16(0x3030);
constexpr Register REG_OUTPUT_DIVIDER_1 = reg16(0x3036);
constexpr Register REG_OUTPUT_DIVIDER_2 = reg16(0x3038);
constexpr Register REG_FRAME_COUNT = reg16(0x303A);
constexpr Register REG_FRAME_STATUS = reg16(0x303C);
constexpr Register REG_READ_MODE = reg16(0x3040);
constexpr Register REG_ANALOG_GAIN = reg16(0x3060);
constexpr Register REG_DATAPATH_STATUS = reg16(0x306A);
constexpr Register REG_3270 = reg16(0x3270);  // engine setting, kept opaque

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
constexpr unsigned SATURATED_WHITE = 255;
constexpr unsigned SATURATED_STEP = 8;
constexpr unsigned MAX_STEP_UP = 16;
constexpr uint8_t MAX_BOOST = 2;
// Longest run of table rows between two pauses (the tables hold at most 55
// rows).
constexpr size_t MAX_TABLE_SEGMENT = Register_burst::max_run;

constexpr uint8_t LIGHT_AIMER = Lights::AIMER;
constexpr uint8_t LIGHT_ILLUMINATION = Lights::ILLUMINATION;

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

// Exposure and gain shape the frame two after the period in which they are
// written, and the sensor counts its frames (0x303A), so frames the driver
// never saw still move the history. Gain in 1/256 units, the settings' own.
AR0144_trait::AR0144_trait(IHwl_AR0144& hwl_, const Trait_context& context_)
    : Sensor_trait(hwl_, context_, Properties{{2, 2}, {1, 0, ~0u}, Register_burst::sixteen_bit, reg8(0)}),
      psoc(&hwl_),
      psoc_fitted(false),
      lights(hwl_, nullptr, true)
{
    count_frames_by(REG_FRAME_COUNT);
    controls.program(coarse_rows, gain_of_code(analog_gain));
    hwl.ImagerPowerOn();
    hwl.ImagerPowerUp();
    power_state = POWER_READY;
    psoc_fitted = hwl.IsPsocSupported();
    if (psoc_fitted)
        lights.drive_by(&psoc);
    psoc.init();
}

AR0144_trait::~AR0144_trait()
{
    alarm.cancel();
    once_alarm.cancel();
}

// The configuration word: engine variant in bits 0-15, orientation in
// degrees in bits 16-31. Start-up fills the record after the trait is built,
// so it is read each time.
uint32_t AR0144_trait::engine_variant() const
{
    return context.config->engine_variant & 0xFFFF;
}

uint32_t AR0144_trait::engine_orientation() const
{
    return context.config->engine_variant >> 16;
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
    controls.halt();

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
    controls.program(coarse_rows, gain_of_code(analog_gain));
    const unsigned elapsed = MT_GetTickCount() - start;
    if (elapsed < TABLE_SETTLE_MS)
        MT_Delay(TABLE_SETTLE_MS - elapsed);

    if (lights_mode != 0) {
        if (!registers.write(REG_MODE_SELECT, 1))
            return false;
        if (!(lights_mode & LIGHT_ILLUMINATION) && !registers.write(REG_MODE_SELECT, 0))
            return false;
    }
    getClocks();
    registers_loaded = true;
    return true;
}

bool AR0144_trait::call_aimer()
{
    bool (IHwl::*const operation)() = aimer;
    IHwl& layer = hwl;
    return (layer.*operation)();
}

// The variant's table, a segment between two pauses at a time: a pause
// entry writes the rows before it, then waits its milliseconds. An engine
// mounted at 180 degrees reads out flipped and mirrored. A failed run ends
// the walk.
bool AR0144_trait::write_table()
{
    const AR0144_register_table& table = table_for_variant(engine_variant());
    const bool rotate = engine_orientation() == 180;

    Register_pair segment[MAX_TABLE_SEGMENT];
    size_t rows = 0;
    for (size_t i = 0; i < table.count; ++i) {
        const AR0144_register_entry& e = table.entries[i];
        if (e.address == ar0144_wait_entry) {
            if (!registers.write_table(segment, rows))
                return false;
            rows = 0;
            MT_Delay(e.value);
            continue;
        }
        if (rows == MAX_TABLE_SEGMENT) {
            if (!registers.write_table(segment, rows))
                return false;
            rows = 0;
        }
        uint16_t value = static_cast<uint16_t>(e.value);
        if (e.address == REG_READ_MODE.address && rotate)
            value |= READ_MODE_ROTATE_180;
        segment[rows++] = {static_cast<uint16_t>(e.address), value};
    }
    return registers.write_table(segment, rows);
}

// The exposure shadows: gain, the opaque engine setting, then rows and fine
// time in one run; the first failure ends the sequence.
bool AR0144_trait::write_shadows()
{
    const uint16_t integration[2] = {coarse_rows, fine_time};
    Register_sequence shadows(registers);
    shadows.write(REG_ANALOG_GAIN, analog_gain);
    shadows.write(REG_3270, reg_0x3270);
    shadows.write_run(REG_COARSE_INTEGRATION, integration, 2);
    return shadows.ok();
}

// A failed read of the clock registers leaves the line time as it was. The
// line time arithmetic is unsigned 32-bit, far above the sensor's line
// lengths.
bool AR0144_trait::getClocks()
{
    uint16_t m = 0, p = 0, s = 0, d = 0, unused = 0, length = 0;
    Register_sequence pll(registers);
    pll.read(REG_PLL_MULTIPLIER, m);
    pll.read(REG_PRE_PLL_DIVIDER, p);
    pll.read(REG_SYSTEM_DIVIDER, s);
    pll.read(REG_PIXEL_DIVIDER, d);
    if (!pll.ok())
        return false;
    const uint64_t divider = uint64_t(p) * s * d;
    const uint32_t pixel_clock = divider != 0 ? static_cast<uint32_t>(m * REFERENCE_CLOCK_HZ / divider) : 0;
    registers.read(REG_OUTPUT_DIVIDER_2, unused);
    registers.read(REG_OUTPUT_DIVIDER_1, unused);
    if (!registers.read(REG_LINE_LENGTH, length))
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
    controls.halt();
}

void AR0144_trait::power_down()
{
    alarm.cancel();
    hwl.IllumOff();
    hwl.ImagerPowerDown();
    hwl.ImagerPowerOff();
    power_state = POWER_OFF;
    controls.halt();
    registers_loaded = false;  // the supply is off: the register set is gone
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
    // power_down the sensor is brought up again here. A failed power-up
    // fails the scan start, so the power state manager tries again.
    if (power_state < POWER_READY || !registers_loaded)
        return power_up_init();
    return true;
}

// Standby completes 24 ms after the last streaming stop (time for the frame
// in flight to drain), at once when that has passed already.
bool AR0144_trait::deinitialize_scanning()
{
    const unsigned now = MT_GetTickCount();
    const unsigned due = now - reference_time >= STANDBY_DELAY_MS ? now : reference_time + STANDBY_DELAY_MS;
    alarm = context.monitor->alarm(*this, &AR0144_trait::complete_standby, due, 0);
    return true;
}

// The ready value keeps the stream bit while the idle lights illuminate.
void AR0144_trait::complete_standby()
{
    alarm.cancel();
    uint16_t value = engine_variant() != 0 ? RESET_READY_SERIAL : RESET_READY_PARALLEL;
    if (lights_mode & LIGHT_ILLUMINATION)
        value |= RESET_STREAM_BIT;
    registers.write(REG_RESET, value);
    if (power_state == POWER_STREAMING) {
        power_state = POWER_READY;
        controls.halt();
    }
    lights.show(lights_mode);
}

bool AR0144_trait::start_streaming()
{
    uint16_t mode = 0;
    if (!registers.read(REG_MODE_SELECT, mode))
        return false;
    const bool streaming = power_state == POWER_STREAMING && (mode & 1);
    // A stream that starts takes its first frames with what the registers
    // hold now; a stream already running keeps the frames in flight.
    if (!streaming)
        controls.restart(read_frame_counter());
    const bool ok = registers.write(REG_RESET, engine_variant() != 0 ? RESET_STREAM_SERIAL : RESET_STREAM_PARALLEL);
    if (ok)
        power_state = POWER_STREAMING;
    else if (power_state != POWER_STREAMING)
        controls.halt();
    return ok;
}

// Clears the stream bit (the output interface stays enabled) and stops mode
// select; the sensor finishes the frame in progress. Both writes are made
// whatever the first one answered.
bool AR0144_trait::stop_streaming()
{
    once_alarm.cancel();
    reference_time = MT_GetTickCount();
    const uint16_t stream = engine_variant() != 0 ? RESET_STREAM_SERIAL : RESET_STREAM_PARALLEL;
    const bool reset_ok = registers.write(REG_RESET, static_cast<uint16_t>(stream & ~RESET_STREAM_BIT));
    const bool mode_ok = registers.write(REG_MODE_SELECT, 0);
    const bool ok = reset_ok && mode_ok;
    if (ok && power_state == POWER_STREAMING) {
        power_state = POWER_READY;
        controls.halt();
    }
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

// Streams for 30 ms, then stops. The stop is an alarm, not a wait: in
// capture modes 6 and 7 this runs in the frame callback, and holding the
// callback thread (and the driver's lock) for the window would hold back
// the very frame it triggers. A new trigger extends the window.
void AR0144_trait::trigger_once()
{
    if (!start_streaming())
        return;
    once_alarm.cancel();
    once_alarm = context.monitor->alarm(*this, &AR0144_trait::end_trigger_once, MT_GetTickCount() + TRIGGER_ONCE_MS, 0);
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

// Standby: start streaming again. PLL not locked: keep waiting. Otherwise
// restart the stream, on the last try after restarting the transfer path.
bool AR0144_trait::check_stall(int8_t tries_left)
{
    uint16_t frames = 0, status = 0;
    Register_sequence look(registers);
    look.read(REG_FRAME_COUNT, frames);
    look.read(REG_FRAME_STATUS, status);
    if (!look.ok())
        return false;
    dbg_output("Stall%d: Status = 0x%02X frames = %d\n", int(tries_left), unsigned(status), int(frames));
    if (status & STATUS_STANDBY)
        return start_streaming();
    if (!(status & STATUS_PLL_LOCKED))
        return true;

    uint16_t datapath = 0;
    if (registers.read(REG_DATAPATH_STATUS, datapath))
        dbg_output("Stall%d: datapath_status = 0x%04X\n", int(tries_left), unsigned(datapath));
    if (tries_left == 0) {
        const bool stopped = hwl.RequestStopScanning(nullptr, nullptr);
        const bool transfer_stopped = hwl.StopScanning();
        const bool started = hwl.StartScanning();
        if (!stopped || !transfer_stopped || !started)
            return false;
    }
    const bool serial = engine_variant() != 0;
    registers.write(REG_RESET, serial ? RESET_RESTART_SERIAL : RESET_STREAM_PARALLEL);
    return registers.write(REG_RESET, serial ? RESET_STREAM_SERIAL : RESET_STREAM_PARALLEL);
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

// Gain first, then rows and fine time in one run, back to back at the
// frame's programming point. The history records what the registers hold
// after clamping and quantisation (a failed write leaves the old value).
bool AR0144_trait::set_exposure_gain(unsigned rows, unsigned gain)
{
    const uint16_t programmed_rows = static_cast<uint16_t>(std::min(std::max(rows, 1u), max_rows));
    const uint16_t code = code_of_gain(gain);
    const uint16_t integration[2] = {programmed_rows, fine_time};
    // The values shape the frame two after the one during which they are
    // written, which is not always the one exposure_frame() saw: a frame
    // the transfer lost leaves the sensor running on while the update is
    // computed. Move the history to the frame of the write itself.
    follow_frame_counter();
    bool ok = true;
    if (registers.write(REG_ANALOG_GAIN, code))
        analog_gain = code;
    else
        ok = false;
    if (registers.write_run(REG_COARSE_INTEGRATION, integration, 2))
        coarse_rows = programmed_rows;
    else
        ok = false;
    controls.program(coarse_rows, gain_of_code(analog_gain));
    return ok;
}

bool AR0144_trait::program(const Exposure_point& point)
{
    return set_exposure_gain(point.rows, point.gain);
}

unsigned AR0144_trait::max_gain_setting() const
{
    return std::min<unsigned>(settings().max_gain, gain_of_code(max_gain_code));
}

// Exposure first (less noise): rows at the minimum gain up to the row limit,
// and only beyond it the gain rises, at most ES_MAX_GAIN (and about 30x).
AR0144_trait::Exposure_point AR0144_trait::split(unsigned contrast)
{
    const unsigned limit = std::max(std::min(controller->max_rows(), max_rows), 1u);
    const unsigned min_gain = gain_of_code(min_gain_code);
    const unsigned wanted_rows = (contrast + min_gain / 2) / min_gain;
    if (wanted_rows <= limit)
        return {std::max(wanted_rows, 1u), min_gain};
    return {limit, gain_of_code(code_of_gain(std::min(contrast / limit, max_gain_setting())))};
}

unsigned AR0144_trait::step(unsigned white, unsigned contrast)
{
    // A saturated white value says only that the frame is too bright by some
    // unknown factor of at least 255 / target: step down eight-fold, not by
    // that lower bound, so that a scene many times too bright settles in two
    // updates instead of four or more.
    const unsigned target = settings().target_value;
    if (white >= SATURATED_WHITE && target < SATURATED_WHITE)
        return std::max(contrast / SATURATED_STEP, 1u);
    // Upward the white value is trusted down to a sixteenth of the target
    // (one step up to sixteen-fold): the 97th percentile of a dark frame is
    // still well above the sensor's noise floor there.
    const unsigned floor = std::max(target / MAX_STEP_UP, 1u);
    const uint64_t c = uint64_t(contrast) * target / std::max(white, floor);
    return static_cast<unsigned>(std::min<uint64_t>(std::max<uint64_t>(c, 1), UINT32_MAX));
}

void AR0144_trait::update_exposure_settings(Exposure_settings& settings_)
{
    settings_.start_exposure = START_EXPOSURE_US;
    settings_.fixed_exposure = START_EXPOSURE_US;
}

// ---------------------------------------------------------------------------
// Lights
// ---------------------------------------------------------------------------

// Between scans: idle illumination keeps the sensor streaming, an
// aimer-only code pulses mode select, no lights stop it.
void AR0144_trait::idle_streaming(uint8_t code)
{
    if (code & LIGHT_ILLUMINATION) {
        registers.write(REG_MODE_SELECT, 1);
    } else if (code != 0) {
        registers.write(REG_MODE_SELECT, 1);
        registers.write(REG_MODE_SELECT, 0);
    } else {
        registers.write(REG_MODE_SELECT, 0);
    }
}

// While the sensor is off or asleep the codes are only remembered
// (power_up_init applies them).
bool AR0144_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    lights_mode = Psoc::get_lights_mode(lighting.idle_mode);
    scan_lights = Psoc::get_lights_mode(lighting.scanning_mode);
    boost = static_cast<uint8_t>(std::min<uint32_t>(lighting.boost, MAX_BOOST));
    aimer = (!psoc_fitted && (lights_mode & LIGHT_AIMER)) ? &IHwl::AimOn : &IHwl::AimOff;
    if (power_state < POWER_READY)
        return Lights::held();

    hwl.IllumConfig(lighting.level_b);
    if (scanning_initialised)
        return lights.show(scan_lights, boost);
    const bool ok = lights.show(lights_mode);
    if (power_state == POWER_READY)
        idle_streaming(lights_mode);
    return ok;
}

// ---------------------------------------------------------------------------
// Properties
// ---------------------------------------------------------------------------

// Each field is written only when the caller's size reaches its end. The
// aimer offset (PSoC, two big-endian signed 16-bit values, column then row)
// moves the aimer centre, the other way on an engine mounted at 180 degrees
// (the image is rotated), held inside the image.
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
