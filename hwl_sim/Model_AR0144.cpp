// Model_AR0144.cpp: the AR0144 sensor of the "X7710" engine.
//
// 1280 x 800, 8-bit output. Registers the model gives meaning to:
//   0x3000        chip id 0x0356 (read only)
//   0x301A        reset register: bit 0 reset (restores the power-on values,
//                 self-clearing), bit 1 restart (self-clearing), bit 2 STREAM
//   0x301C (8)    mode select: bit 0 streaming. The sensor streams while
//                 0x301A bit 2 or a written 0x301C bit 0 is set; reads of
//                 0x301C show bit 0 as the streaming state from either
//                 source (the register is the stream bit's alias).
//   0x301D (8)    image orientation: bit 1 vertical flip, bit 0 mirror
//   0x3040        read mode: bit 15 vertical flip, bit 14 mirror (both
//                 combine with 0x301D by exclusive or)
//   0x3012/0x3014 coarse integration rows / fine integration pixel clocks
//   0x300C        line length in pixel clocks
//   0x302A/0x302C/0x302E/0x3030  pixel divider, system divider, pre-divider,
//                 multiplier: pixel clock = 8 MHz x M / (P x S x D)
//   0x3060        analog gain: 2^coarse(6:4) x 32 / (32 - fine(3:0))
//   0x305E        digital gain, x/128
//   0x303A        frame counter (read only), +1 per sensor frame
//   0x303C        frame status (read only): bit 3 PLL locked (once a PLL
//                 register has been written since power-on or reset),
//                 bit 1 standby status (not streaming, or in standby)
//   0x306A        datapath status (read only): 0x0100 while the transfer is
//                 stalled, else 0
// Every other register is plain storage with power-on value 0.
//
// Exposure and gain (0x3012, 0x3014, 0x3060, 0x305E) take effect two frames
// after the frame during which they are written (frame latency 2): a write
// made while frame N is read out, in its vsync callback or before frame N+1
// begins shapes frame N + 2. The framework's Control_pipeline applies the
// latency; when streaming starts, the values in the registers apply to the
// first frames at once. Orientation changes act on the next frame.
//
// Where the public facts and the driver's own arithmetic differ, the model
// follows the driver: the pixel clock is integer hertz and the line time is
// whole microseconds (1492 clocks at 74 MHz give 20 us, not 20.16 us).
#include <cmath>
#include <memory>

#include "Hwl_face.h"
#include "Sensor_model.h"

namespace vqxsim {
namespace {

constexpr unsigned kWidth = 1280;
constexpr unsigned kHeight = 800;
constexpr uint64_t kReferenceHz = 8000000;

enum Reg : unsigned {
    CHIP_ID = 0x3000,
    COARSE_INTEGRATION = 0x3012,
    FINE_INTEGRATION = 0x3014,
    LINE_LENGTH = 0x300C,
    RESET_REGISTER = 0x301A,
    MODE_SELECT = 0x301C,
    IMAGE_ORIENTATION = 0x301D,
    PLL_PIXEL_DIV = 0x302A,
    PLL_SYSTEM_DIV = 0x302C,
    PLL_PRE_DIV = 0x302E,
    PLL_MULTIPLIER = 0x3030,
    FRAME_COUNT = 0x303A,
    FRAME_STATUS = 0x303C,
    READ_MODE = 0x3040,
    DIGITAL_GAIN = 0x305E,
    ANALOG_GAIN = 0x3060,
    DATAPATH_STATUS = 0x306A,
};

// Power-on values (16-bit registers). The clock and window values are the
// engine's own, so that an engine used without its table still runs at
// about 60 frames a second.
const Register_value kPowerOn[] = {
    {CHIP_ID, 0x0356},        {0x3002, 0x0000},          {0x3004, 0x0004},
    {0x3006, 0x031F},         {0x3008, 0x0503},          {0x300A, 0x0339},
    {LINE_LENGTH, 0x05D4},    {COARSE_INTEGRATION, 0x0010}, {FINE_INTEGRATION, 0x000A},
    {RESET_REGISTER, 0x0058}, {PLL_PIXEL_DIV, 4},        {PLL_SYSTEM_DIV, 2},
    {PLL_PRE_DIV, 1},         {PLL_MULTIPLIER, 0x004A},  {0x3036, 8},
    {0x3038, 1},              {READ_MODE, 0x0000},       {DIGITAL_GAIN, 0x0080},
    {ANALOG_GAIN, 0x000D},
};

// 16-bit registers that ignore writes.
const unsigned kReadOnly[] = {CHIP_ID, FRAME_COUNT, FRAME_STATUS, DATAPATH_STATUS};

constexpr uint16_t STREAM_BIT = 0x0004;
constexpr uint16_t RESET_BIT = 0x0001;
constexpr uint16_t RESTART_BIT = 0x0002;

class Model_AR0144 : public Sensor_model {
public:
    Model_AR0144() { power_on_values(); }

    const char* engine_type() const override { return "X7710"; }
    unsigned width() const override { return kWidth; }
    unsigned height() const override { return kHeight; }
    std::unique_ptr<IHwl> make_hwl(Sim_core& core) override
    { return std::make_unique<Hwl_face<IHwl_AR0144>>(core); }

    bool write(unsigned address, const uint16_t* values, uint64_t length) override;
    bool read(unsigned address, uint16_t* values, uint64_t length) override;
    uint16_t peek(unsigned address) override;
    bool is_stream_control(unsigned address, uint64_t length) const override
    { return overlaps(address, length, RESET_REGISTER, 2) || overlaps(address, length, MODE_SELECT, 1); }

    void set_supply(bool) override { power_on_values(); }
    void set_standby(bool s) override { standby = s; }
    void set_stalled(bool s) override { stalled = s; }
    bool streaming() const override
    { return (regs.word(RESET_REGISTER) & STREAM_BIT) != 0 || mode_select_stream; }
    unsigned frame_latency() const override { return 2; }
    Frame_settings controls() const override;
    void begin_frame(Frame_settings& frame) override;

private:
    void power_on_values();
    void refresh_status();
    uint64_t pixel_clock_hz() const;

    Register_file regs;
    bool pll_locked = false;
    bool standby = true;
    bool stalled = false;
    uint16_t frame_count = 0;
    bool mode_select_stream = false;  // bit 0 as last written to 0x301C
};

void Model_AR0144::power_on_values()
{
    regs = Register_file();
    for (const Register_value& r : kPowerOn)
        regs.set_word(r.address, r.value);
    pll_locked = false;
    mode_select_stream = false;
    frame_count = 0;
}

void Model_AR0144::refresh_status()
{
    uint16_t status = 0;
    if (pll_locked)
        status |= 0x0008;
    if (!streaming() || standby)
        status |= 0x0002;
    regs.set_word(FRAME_COUNT, frame_count);
    regs.set_word(FRAME_STATUS, status);
    regs.set_byte(MODE_SELECT, static_cast<uint8_t>((regs.byte(MODE_SELECT) & ~1u) | (streaming() ? 1u : 0u)));
    regs.set_word(DATAPATH_STATUS, stalled ? 0x0100 : 0x0000);
}

bool Model_AR0144::write(unsigned address, const uint16_t* values, uint64_t length)
{
    if (Register_file::transfer_bytes(address, length) == 0)
        return false;
    uint16_t kept[sizeof kReadOnly / sizeof kReadOnly[0]];
    for (size_t i = 0; i < sizeof kReadOnly / sizeof kReadOnly[0]; ++i)
        kept[i] = regs.word(kReadOnly[i]);
    regs.store(address, values, length);
    for (size_t i = 0; i < sizeof kReadOnly / sizeof kReadOnly[0]; ++i)
        regs.set_word(kReadOnly[i], kept[i]);

    if (overlaps(address, length, MODE_SELECT, 1))
        mode_select_stream = (regs.byte(MODE_SELECT) & 1) != 0;
    if (overlaps(address, length, PLL_PIXEL_DIV, 8))  // 0x302A to 0x3031
        pll_locked = true;
    if (overlaps(address, length, RESET_REGISTER, 2)) {
        uint16_t reset = regs.word(RESET_REGISTER);
        if (reset & RESET_BIT) {
            power_on_values();
            regs.set_word(RESET_REGISTER, reset & ~(RESET_BIT | RESTART_BIT));
        } else {
            regs.set_word(RESET_REGISTER, reset & ~RESTART_BIT);
        }
    }
    return true;
}

bool Model_AR0144::read(unsigned address, uint16_t* values, uint64_t length)
{
    if (Register_file::transfer_bytes(address, length) == 0)
        return false;
    refresh_status();
    regs.load(address, values, length);
    return true;
}

uint16_t Model_AR0144::peek(unsigned address)
{
    refresh_status();
    bool eight_bit = address == MODE_SELECT || address == IMAGE_ORIENTATION ||
                     (address >= 0x3021 && address <= 0x3024);
    return eight_bit ? regs.byte(address) : regs.word(address);
}

uint64_t Model_AR0144::pixel_clock_hz() const
{
    uint64_t divisor = uint64_t(regs.word(PLL_PRE_DIV)) * regs.word(PLL_SYSTEM_DIV) * regs.word(PLL_PIXEL_DIV);
    return divisor == 0 ? 0 : regs.word(PLL_MULTIPLIER) * kReferenceHz / divisor;
}

Frame_settings Model_AR0144::controls() const
{
    Frame_settings f;
    f.rows = regs.word(COARSE_INTEGRATION);
    f.fine = regs.word(FINE_INTEGRATION);
    uint64_t clock = pixel_clock_hz();
    uint64_t line_us = clock == 0 ? 0 : uint64_t(regs.word(LINE_LENGTH)) * 1000000 / clock;
    f.line_time_us = double(line_us);
    f.exposure_us = clock == 0 ? 0.0 : double(f.rows) * double(line_us) + double(f.fine) * 1e6 / double(clock);
    f.analog_code = regs.word(ANALOG_GAIN);
    unsigned coarse = (f.analog_code >> 4) & 7;
    unsigned fine_gain = f.analog_code & 0xF;
    f.analog_gain = double(1u << coarse) * 32.0 / double(32 - fine_gain);
    f.digital_code = regs.word(DIGITAL_GAIN);
    f.digital_gain = double(f.digital_code) / 128.0;
    return f;
}

void Model_AR0144::begin_frame(Frame_settings& f)
{
    f.frame_count = ++frame_count;
    uint16_t read_mode = regs.word(READ_MODE);
    uint8_t orientation = regs.byte(IMAGE_ORIENTATION);
    f.vflip = (((read_mode >> 15) ^ (orientation >> 1)) & 1) != 0;
    f.hflip = (((read_mode >> 14) ^ orientation) & 1) != 0;
}

}  // namespace

std::unique_ptr<Sensor_model> make_model_AR0144(const Config&)
{
    return std::make_unique<Model_AR0144>();
}

}  // namespace vqxsim
