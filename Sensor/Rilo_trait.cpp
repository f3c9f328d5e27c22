// Rilo_trait: see Rilo_trait.h; docs/engines/RILO.md describes the engine.
#include "Rilo_trait.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "Diagnostics.h"
#include "Exposure_rules.h"
#include "monitor.h"

namespace {

constexpr Register REG_PAGE = reg8(3);
constexpr uint8_t PAGE_CONTROL = 0;
constexpr uint8_t PAGE_EXPOSURE = 0x20;
constexpr Register REG_POWER = paged8(PAGE_CONTROL, 1);  // bit 0: sleep
// EXPINT (what the frame was taken with) and the exposure to program, three
// bytes each, high byte first.
constexpr Register REG_EXPINT[3] = {paged8(PAGE_EXPOSURE, 128), paged8(PAGE_EXPOSURE, 129), paged8(PAGE_EXPOSURE, 130)};
constexpr Register REG_EXPOSURE[3] = {paged8(PAGE_EXPOSURE, 131), paged8(PAGE_EXPOSURE, 132), paged8(PAGE_EXPOSURE, 133)};
constexpr Register REG_GAIN = paged8(PAGE_EXPOSURE, 176);

constexpr uint32_t ENGINE_ID_CLASS = 15;
constexpr uint32_t MAX_EXPINT = 0xFFFFFE;
// No history: what a frame was taken with is read back. Gain in 1/32
// units (a settings gain / 8); the automatic split uses at most a settings
// gain of 512.
constexpr Control_history::Delays read_back{0, 0};

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
    "hi704a_init.regs", "Hi704A initial register table", REG_POWER.address, REG_POWER.address, 343, 8, 8,
    REG_PAGE.address, {PAGE_CONTROL, PAGE_EXPOSURE},
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

Rilo_trait::Rilo_trait(IHwl_rilo& hwl_, const Trait_context& context_, std::vector<Register_pair> table)
    : Sensor_trait(hwl_, context_, Properties{read_back, {8, 0, 512}, Register_burst::one_by_one, REG_PAGE}),
      lights(hwl_, nullptr),
      init_table(std::move(table))
{
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
    if (!registers.write_table(init_table.data(), init_table.size())) {
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
    lights.off();
    return true;
}

void Rilo_trait::trigger_once()
{
    dbg_output("%s is not supported by Hi704A sensor.  Use streaming mode", "trigger_once");
}

bool Rilo_trait::set_sleep(bool sleep)
{
    Register_sequence access(registers);
    uint8_t power = 0;
    const bool read = access.read8(REG_POWER, power);
    if (read)
        access.write(REG_POWER, static_cast<uint8_t>(sleep ? power | 1 : power & ~1u));
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
    Monitor_entry hold(*self->context.monitor);
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
    Register_sequence access(registers);
    uint32_t counts = 0;
    for (const Register& r : REG_EXPINT) {
        uint8_t byte = 0;
        access.read8(r, byte);
        counts = (counts << 8) | byte;
    }
    if (!access.ok()) {
        silent_trace("Error reading EXPINT registers\n");
        return 0;
    }
    expint = counts;
    return expint;
}

bool Rilo_trait::set_exposure_gain(unsigned rows, unsigned g)
{
    const unsigned value = quantised_exposure(rows);
    Register_sequence writes(registers);
    for (unsigned i = 0; i < 3; ++i)
        writes.write(REG_EXPOSURE[i], static_cast<uint8_t>(value >> (16 - 8 * i)));
    writes.write(REG_GAIN, gain_register_of(g));
    if (writes.ok())
        gain = g;
    return writes.ok();
}

bool Rilo_trait::program(const Exposure_point& point)
{
    return set_exposure_gain(point.rows, point.gain);
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

// The lights show only while scanning, by the scanning mode: none (0), the
// aimer (1, 8), the illumination (2, 7) or both (every other mode).
bool Rilo_trait::change_lights(const _tagVQX_SCANNER_LIGHTING& lighting)
{
    if (!scanning_initialised)
        return Lights::held();
    hwl.IllumConfig(lighting.level_b);
    switch (lighting.scanning_mode) {
    case 0:
        return lights.show(0);
    case 1:
    case 8:
        return lights.show(Lights::AIMER);
    case 2:
    case 7:
        return lights.show(Lights::ILLUMINATION);
    default:
        return lights.show(Lights::AIMER | Lights::ILLUMINATION);
    }
}
