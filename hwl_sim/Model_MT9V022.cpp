// Model_MT9V022.cpp: the MT9V022 sensor of the "MT9V022" engine.
//
// 752 x 480, 8-bit output. 8-bit register addresses with 16-bit values: a
// WriteReg/ReadReg of length n moves n registers at the address, address +
// 1, ... (this engine's hardware layer counts registers, not bytes); the
// addresses must stay within 0x00-0xFF. Registers the model gives meaning
// to:
//   0x0B  total shutter width in rows (1 to 32767; 0 is taken as 1). A
//         shutter longer than the frame lengthens the frame.
//   0x35  analog gain, 16 = 1x to 64 = 4x (clamped to that range); above
//         32 only even values change the gain (an odd value acts as the
//         even one below it)
//   0xAF  bit 0 automatic exposure, bit 1 automatic gain: while a bit is
//         set the sensor's own control holds that value at its power-on
//         setting (480 rows, gain 16) and the manual register is ignored
//         (the automatic control itself is not simulated)
//   0x0D  read mode: bit 4 row flip (upside down), bit 5 column flip
//   0x0C  reset: a write with bit 0 set restores the power-on values
// Every other register is plain storage with power-on value 0 (the window,
// blanking and analog registers of the engine's table are accepted and
// kept; the chip version at 0x00 is not modelled and reads 0). The PSoC's
// sensor reset line (device 0x82) also restores the power-on values.
//
// The registers live in the shared Register_file, register r as the 16-bit
// word at byte address 2r, so that the 256 registers keep their full 16
// bits while the addresses the driver uses stay 8-bit.
//
// Row time: (752 + 94) master clocks at 24 MHz = 35.25 us, the row the
// driver's rows-from-microseconds rule assumes. Frame latency: shutter
// width and gain take effect two frames after the frame period in which
// they are written, the latency the engine's trait credits its frames with.
// The sensor streams whenever it is powered and out of standby.
#include <algorithm>
#include <memory>

#include "Hwl_face.h"
#include "Sensor_model.h"

namespace vqxsim {
namespace {

constexpr unsigned kWidth = 752;
constexpr unsigned kHeight = 480;
constexpr double kRowUs = 35.25;
constexpr unsigned kRegisters = 256;

enum Reg : unsigned {
    WINDOW_WIDTH = 0x04,
    HORIZONTAL_BLANK = 0x05,
    VERTICAL_BLANK = 0x06,
    SHUTTER_WIDTH = 0x0B,
    RESET = 0x0C,
    READ_MODE = 0x0D,
    ANALOG_GAIN = 0x35,
    AEC_AGC = 0xAF,
};

const Register_value kPowerOn[] = {
    {WINDOW_WIDTH, 752}, {HORIZONTAL_BLANK, 94}, {VERTICAL_BLANK, 45}, {SHUTTER_WIDTH, 480},
    {READ_MODE, 0x0300}, {ANALOG_GAIN, 16},      {AEC_AGC, 0x0003},
};

class Model_MT9V022 : public Sensor_model {
public:
    Model_MT9V022() { power_on_values(); }

    const char* engine_type() const override { return "MT9V022"; }
    unsigned width() const override { return kWidth; }
    unsigned height() const override { return kHeight; }
    std::unique_ptr<IHwl> make_hwl(Sim_core& core) override
    { return std::make_unique<Hwl_face<IHwl_MT9V022>>(core); }

    // Registers are written in address order, so that registers after a
    // reset in the same transfer keep the values written to them.
    bool write(unsigned address, const uint16_t* values, uint64_t length) override
    {
        if (!valid(address, length))
            return false;
        for (uint64_t i = 0; i < length; ++i) {
            const unsigned reg = address + unsigned(i);
            set(reg, values[i]);
            if (reg == RESET && (values[i] & 1))
                power_on_values();
        }
        return true;
    }
    bool read(unsigned address, uint16_t* values, uint64_t length) override
    {
        if (!valid(address, length))
            return false;
        for (uint64_t i = 0; i < length; ++i)
            values[i] = get(address + unsigned(i));
        return true;
    }
    uint16_t peek(unsigned address) override { return address < kRegisters ? get(address) : 0; }
    bool is_stream_control(unsigned, uint64_t) const override { return false; }

    void set_supply(bool) override { power_on_values(); }
    void set_standby(bool) override {}
    void set_stalled(bool) override {}
    bool streaming() const override { return true; }
    unsigned frame_latency() const override { return 2; }
    Frame_settings controls() const override
    {
        Frame_settings f;
        const bool auto_exposure = (get(AEC_AGC) & 1) != 0;
        const bool auto_gain = (get(AEC_AGC) & 2) != 0;
        f.rows = auto_exposure ? 480 : std::max<unsigned>(get(SHUTTER_WIDTH) & 0x7FFF, 1);
        f.line_time_us = kRowUs;
        f.exposure_us = f.rows * kRowUs;
        unsigned gain = auto_gain ? 16 : std::min<unsigned>(std::max<unsigned>(get(ANALOG_GAIN), 16), 64);
        if (gain > 32)
            gain &= ~1u;
        f.analog_code = static_cast<uint16_t>(gain);
        f.analog_gain = gain / 16.0;
        return f;
    }
    void begin_frame(Frame_settings& f) override
    {
        f.frame_count = ++frame_count;
        f.vflip = (get(READ_MODE) & 0x10) != 0;
        f.hflip = (get(READ_MODE) & 0x20) != 0;
    }

private:
    // A transfer must lie within the 256 registers.
    static bool valid(unsigned address, uint64_t length)
    { return length != 0 && address < kRegisters && length <= kRegisters - address; }
    uint16_t get(unsigned reg) const { return regs.word(2 * reg); }
    void set(unsigned reg, uint16_t value) { regs.set_word(2 * reg, value); }
    // Every register 0, then the table's values.
    void power_on_values()
    {
        regs = Register_file();
        for (const Register_value& r : kPowerOn)
            set(r.address, r.value);
    }

    Register_file regs;  ///< register r at byte address 2r
    uint16_t frame_count = 0;
};

}  // namespace

std::unique_ptr<Sensor_model> make_model_MT9V022(const Config&)
{
    return std::make_unique<Model_MT9V022>();
}

}  // namespace vqxsim
