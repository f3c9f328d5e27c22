// Rilo_trait: see Rilo_trait.h for the design and its decisions.
#include "Rilo_trait.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "Contrast_step.h"
#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "Scan_driver.h"
#include "Sensor.h"

namespace {

constexpr uint8_t REG_PAGE = 3;
constexpr uint8_t PAGE_CONTROL = 0;
constexpr uint8_t REG_POWER = 1;  // bit 0: sleep
constexpr uint8_t PAGE_EXPOSURE = 0x20;
constexpr uint8_t REG_EXPINT = 128;          // 128-130, high byte first
constexpr uint8_t REG_EXPOSURE = 131;        // 131-133, high byte first
constexpr uint8_t REG_GAIN = 176;

constexpr uint32_t ENGINE_ID_CLASS = 15;
constexpr uint32_t MAX_EXPINT = 0xFFFFFE;
constexpr unsigned AUTO_GAIN_LIMIT = 64;

// Exposure values the sensor is given, for rows 300 to 13400 in steps of
// 150 (index (rows - 225) / 150). 8888 is an irregular step of the table.
const uint16_t exposure_table[] = {
    300,   470,   600,   750,   880,   1050,  1200,  1330,  1500,  1650,  1820,  1950,  2100,  2270,  2400,
    2550,  2720,  2850,  3000,  3170,  3300,  3450,  3620,  3750,  3900,  4070,  4200,  4350,  4520,  4650,
    4800,  4970,  5100,  5250,  5420,  5550,  5700,  5870,  6000,  6150,  6300,  6450,  6600,  6750,  6900,
    7050,  7200,  7350,  7500,  7650,  7800,  7950,  8100,  8250,  8400,  8550,  8700,  8888,  9000,  9150,
    9330,  9450,  9600,  9800,  9900,  10050, 10220, 10350, 10500, 10680, 10800, 10950, 11120, 11250, 11400,
    11570, 11700, 11850, 12020, 12150, 12300, 12470, 12600, 12750, 12920, 13050, 13200, 13400,
};
static_assert(sizeof exposure_table / sizeof exposure_table[0] == 88, "88 exposure steps");

} // namespace

// The trait later writes page 0 register 1 and page 0x20 registers 131-133
// and 176: the table must select both pages.
const Register_table_file rilo_init_table = {
    "hi704a_init.regs", "Hi704A initial register table", REG_POWER, REG_POWER, 343, 8, 8,
    REG_PAGE, {PAGE_CONTROL, PAGE_EXPOSURE},
};

uint32_t Rilo_trait::exposure_rows(const Rilo_trait&, uint32_t us)
{
    return rows_rilo(us);
}

unsigned Rilo_trait::quantised_exposure(unsigned rows)
{
    if (rows < min_exposure)
        return min_exposure;
    if (rows > max_exposure)
        return max_exposure;
    return exposure_table[(rows - 225) / 150];
}

uint8_t Rilo_trait::gain_register_of(unsigned g)
{
    return static_cast<uint8_t>(g > 16 ? std::min(g - 16, 255u) : 0);
}

Rilo_trait::Rilo_trait(IHwl_rilo& hwl_, Controller* controller_, std::vector<Register_pair> table)
    : Sensor_trait(hwl_), controller(controller_), init_table(std::move(table))
{
}

// ---------------------------------------------------------------------------
// Register access
// ---------------------------------------------------------------------------

bool Rilo_trait::write8(uint8_t reg, uint8_t value)
{
    uint16_t v = value;
    return hwl.WriteReg(reg, &v, 1);
}

bool Rilo_trait::read8(uint8_t reg, uint8_t& value)
{
    uint16_t v = 0;
    const bool ok = hwl.ReadReg(reg, &v, 1);
    value = static_cast<uint8_t>(v);
    return ok;
}

bool Rilo_trait::select_page(uint8_t page)
{
    return write8(REG_PAGE, page);
}

// ---------------------------------------------------------------------------
// Power and streaming
// ---------------------------------------------------------------------------

void Rilo_trait::power_on()
{
    power_up_init();
}

bool Rilo_trait::power_up_init()
{
    hwl.ImagerPowerOn();
    hwl.ImagerPowerUp();
    Register_burst burst(hwl, Register_burst::one_by_one);
    if (!burst.write(init_table.data(), init_table.size())) {
        dbg_output("WriteReg failed in power_up_init\r\n");
        return false;
    }
    return true;
}

bool Rilo_trait::initialize_scanning()
{
    return true;
}

bool Rilo_trait::deinitialize_scanning()
{
    hwl.AimOff();
    hwl.IllumOff();
    return true;
}

void Rilo_trait::trigger_once()
{
    dbg_output("%s is not supported by Hi704A sensor.  Use streaming mode", "trigger_once");
}

bool Rilo_trait::set_sleep(bool sleep)
{
    uint8_t power = 0;
    select_page(PAGE_CONTROL);
    const bool read = read8(REG_POWER, power);
    if (read)
        write8(REG_POWER, static_cast<uint8_t>(sleep ? power | 1 : power & ~1u));
    return read;
}

void Rilo_trait::trigger_on()
{
    hwl.LoadCaptureInfo();
    hwl.EnableVsyncProcessing();
    set_sleep(false);
}

void Rilo_trait::trigger_off()
{
    set_sleep(true);
}

bool Rilo_trait::init_capture(const IHwl::Image_buffer_pointers* buffer)
{
    return buffer != nullptr && hwl.InitCapture(buffer->handle);
}

IHwl::Image_buffer_pointers* Rilo_trait::get_image_buffers(uint64_t& count)
{
    return hwl.GetImageBuffers(count);
}

Rilo_trait::~Rilo_trait()
{
    withdraw_own_frame_callback(client_callback, client_context);
}

bool Rilo_trait::register_frame_notifications(Frame_callback callback, void* context)
{
    client_callback = callback;
    client_context = context;
    return hwl.RegisterVsyncNotification(&Rilo_trait::eof, this);
}

void Rilo_trait::eof(int handle, void* context)
{
    auto* self = static_cast<Rilo_trait*>(context);
    if (self->client_callback)
        self->client_callback(handle, self->client_context);
    Sensor* sensor = the_scan_driver ? the_scan_driver->sensor : nullptr;
    if (!sensor) {
        self->expint = expint_unknown;
        return;
    }
    auto hold = sensor->get_lock();
    self->expint = expint_unknown;
}

// ---------------------------------------------------------------------------
// Exposure and gain
// ---------------------------------------------------------------------------

uint32_t Rilo_trait::read_expint()
{
    if (expint != expint_unknown)
        return expint;
    frame_gain = gain;  // the gain in force for the frame being read
    uint8_t high = 0, middle = 0, low = 0;
    if (!select_page(PAGE_EXPOSURE) || !read8(REG_EXPINT, high) || !read8(REG_EXPINT + 1, middle) ||
        !read8(REG_EXPINT + 2, low)) {
        silent_trace("Error reading EXPINT registers\n");
        return 0;
    }
    expint = (uint32_t(high) << 16) | (uint32_t(middle) << 8) | low;
    return expint;
}

bool Rilo_trait::set_exposure_gain(unsigned rows, unsigned g)
{
    const unsigned value = quantised_exposure(rows);
    const bool ok = select_page(PAGE_EXPOSURE) && write8(REG_EXPOSURE, uint8_t(value >> 16)) &&
                    write8(REG_EXPOSURE + 1, uint8_t(value >> 8)) && write8(REG_EXPOSURE + 2, uint8_t(value)) &&
                    write8(REG_GAIN, gain_register_of(g));
    if (ok)
        gain = g;
    return ok;
}

void Rilo_trait::split(unsigned contrast, unsigned& rows, unsigned& g) const
{
    const unsigned max_gain_setting = controller->settings.max_gain;
    g = max_gain_setting < 512 ? (max_gain_setting + 4) >> 3 : AUTO_GAIN_LIMIT;
    const unsigned limit = controller->max_exposure.current_rows();
    rows = g != 0 ? contrast / g : 0;
    rows = rows == 0 ? 1 : std::min(rows, limit);
}

bool Rilo_trait::set_starting_exposure_gain(unsigned int& contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, g;
    if (s.mode >= 2) {
        rows = std::min(controller->start_exposure.current_rows(), controller->max_exposure.current_rows());
        g = (std::min(s.max_gain, s.start_gain) + 4) >> 3;
    } else {
        rows = controller->fixed_exposure.current_rows();
        g = (s.fixed_gain + 4) >> 3;
    }
    contrast = g * rows;
    return set_exposure_gain(rows, g);
}

bool Rilo_trait::set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast)
{
    if (!controller)
        return false;
    if (controller->settings.mode < 2 || exposure == 0)
        return set_starting_exposure_gain(contrast);
    unsigned rows, g;
    split(exposure, rows, g);
    contrast = g * rows;
    return set_exposure_gain(rows, g);
}

bool Rilo_trait::update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast)
{
    if (!controller)
        return false;
    const Exposure_settings& s = controller->settings;
    unsigned rows, g;
    if (s.mode < 2) {
        rows = controller->fixed_exposure.current_rows();
        g = (s.fixed_gain + 4) >> 3;
    } else {
        split(shared_contrast_step(white, contrast, s), rows, g);
    }
    new_contrast = rows * g;
    return set_exposure_gain(rows, g);
}

unsigned int Rilo_trait::current_contrast()
{
    const uint32_t counts = read_expint();
    return counts * frame_gain;
}

unsigned int Rilo_trait::current_exposure()
{
    const uint32_t counts = read_expint();
    return counts > MAX_EXPINT ? 0xAAAAAA : (counts * 2 + 1) / 3;
}

unsigned int Rilo_trait::current_gain()
{
    read_expint();
    return frame_gain * 8;
}

bool Rilo_trait::update_properties(VQX_SCANENGINE_PROPERTIES_EX& p)
{
    if (p.size >= offsetof(VQX_SCANENGINE_PROPERTIES_EX, engine_id_class) + sizeof p.engine_id_class)
        p.engine_id_class = ENGINE_ID_CLASS;
    return true;
}

// ---------------------------------------------------------------------------
// Lights
// ---------------------------------------------------------------------------

bool Rilo_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    if (!scanning_initialised)
        return true;
    hwl.IllumConfig(lighting.level_b);
    switch (lighting.scanning_mode) {
    case 0:
        hwl.IllumOff();
        return hwl.AimOff();
    case 1:
    case 8:
        hwl.IllumOff();
        return hwl.AimOn();
    case 2:
    case 7:
        hwl.IllumOn();
        return hwl.AimOff();
    default:
        hwl.IllumOn();
        return hwl.AimOn();
    }
}
