// Model_Hi704A.cpp: the Hi704A sensor of the "RILO" engine.
//
// 640 x 480 (VGA), 8-bit output. 8-bit registers in pages: register 3
// selects the page of every other register. A WriteReg/ReadReg of length n
// moves n registers of the selected page at the address, address + 1, ...
// (this engine's hardware layer counts registers; the low byte of each
// value is the register's). Registers the model gives meaning to:
//   page 0:    0x01 power control: bit 0 sleep (set: no output), bit 1
//              software reset (writing it set restores the power-on values
//              of every page but keeps the bit as written); 0x11 bit 0
//              mirror, bit 1 flip
//   page 0x20: 0x10 bit 7 automatic exposure (while set the exposure to
//              apply is ignored: the sensor keeps its power-on exposure, the
//              automatic control itself is not simulated); 0x80-0x82 EXPINT,
//              the exposure of the frame being (or last) read out, 24 bits,
//              high byte first (read only); 0x83-0x85 exposure to apply, 24
//              bits, high byte first; 0xB0 gain: (value + 16) / 32
// Every other register is plain storage with power-on value 0, except
// page 0 register 1 (0xF1: asleep) and the exposure to apply (3000 counts).
//
// Exposure counts are 8 pixel clocks at 12 MHz: 1.5 counts a microsecond,
// the driver's rows-from-microseconds rule. Frame latency: exposure and
// gain take effect at the frame after the frame period in which they are
// written. EXPINT is latched when a frame
// starts, so a read during frame k's period gives frame k's exposure.
#include <algorithm>
#include <memory>

#include "Hwl_face.h"
#include "Sensor_model.h"

namespace vqxsim {
namespace {

constexpr unsigned kWidth = 640;
constexpr unsigned kHeight = 480;
constexpr double kCountsPerUs = 1.5;
constexpr unsigned PAGE_SELECT = 0x03;
constexpr unsigned POWER = 0x01;      // page 0
constexpr unsigned FLIPS = 0x11;      // page 0
constexpr unsigned AE_CONTROL = 0x10; // page 0x20
constexpr unsigned EXPINT = 0x80;     // page 0x20, 3 bytes
constexpr unsigned EXPOSURE = 0x83;   // page 0x20, 3 bytes
constexpr unsigned GAIN = 0xB0;       // page 0x20
constexpr unsigned PAGE_EXPOSURE = 0x20;
constexpr unsigned kPowerOnCounts = 3000;

unsigned at(unsigned page, unsigned reg) { return page << 8 | reg; }

class Model_Hi704A : public Sensor_model {
public:
    Model_Hi704A() { power_on_values(); }

    const char* engine_type() const override { return "RILO"; }
    unsigned width() const override { return kWidth; }
    unsigned height() const override { return kHeight; }
    std::unique_ptr<IHwl> make_hwl(Sim_core& core) override
    { return std::make_unique<Hwl_face<IHwl_rilo>>(core); }

    bool write(unsigned address, const uint16_t* values, uint64_t length) override
    {
        if (!valid(address, length))
            return false;
        for (uint64_t i = 0; i < length; ++i) {
            const unsigned reg = address + unsigned(i);
            const uint8_t value = static_cast<uint8_t>(values[i]);
            if (reg == PAGE_SELECT) {
                page = value;
                continue;
            }
            if (page == PAGE_EXPOSURE && reg >= EXPINT && reg < EXPINT + 3)
                continue;  // read only
            if (page == 0 && reg == POWER && (value & 2)) {
                power_on_values();
                page = 0;
            }
            regs.set_byte(at(page, reg), value);
        }
        return true;
    }
    bool read(unsigned address, uint16_t* values, uint64_t length) override
    {
        if (!valid(address, length))
            return false;
        for (uint64_t i = 0; i < length; ++i) {
            const unsigned reg = address + unsigned(i);
            values[i] = reg == PAGE_SELECT ? page : regs.byte(at(page, reg));
        }
        return true;
    }
    uint16_t peek(unsigned address) override { return regs.byte(address); }  // page << 8 | register
    bool is_stream_control(unsigned address, uint64_t length) const override
    { return page == 0 && overlaps(address, length, POWER, 1); }

    void set_supply(bool) override { power_on_values(); }
    void set_standby(bool) override {}
    void set_stalled(bool) override {}
    bool streaming() const override { return (regs.byte(at(0, POWER)) & 1) == 0; }
    unsigned frame_latency() const override { return 1; }
    Frame_settings controls() const override
    {
        Frame_settings f;
        const bool automatic = (regs.byte(at(PAGE_EXPOSURE, AE_CONTROL)) & 0x80) != 0;
        const unsigned counts = automatic ? kPowerOnCounts : exposure_to_apply();
        f.rows = counts;
        f.line_time_us = 1.0 / kCountsPerUs;
        f.exposure_us = counts / kCountsPerUs;
        f.analog_code = regs.byte(at(PAGE_EXPOSURE, GAIN));
        f.analog_gain = (f.analog_code + 16) / 32.0;
        return f;
    }
    void begin_frame(Frame_settings& f) override
    {
        f.frame_count = ++frame_count;
        const uint8_t flips = regs.byte(at(0, FLIPS));
        f.hflip = (flips & 1) != 0;
        f.vflip = (flips & 2) != 0;
        for (unsigned i = 0; i < 3; ++i)
            regs.set_byte(at(PAGE_EXPOSURE, EXPINT + i), static_cast<uint8_t>(f.rows >> (16 - 8 * i)));
    }

private:
    static bool valid(unsigned address, uint64_t length) { return length != 0 && address < 256 && length <= 256 - address; }
    unsigned exposure_to_apply() const
    {
        return unsigned(regs.byte(at(PAGE_EXPOSURE, EXPOSURE))) << 16 |
               unsigned(regs.byte(at(PAGE_EXPOSURE, EXPOSURE + 1))) << 8 | regs.byte(at(PAGE_EXPOSURE, EXPOSURE + 2));
    }
    void power_on_values()
    {
        regs = Register_file();
        regs.set_byte(at(0, POWER), 0xF1);
        for (unsigned i = 0; i < 3; ++i)
            regs.set_byte(at(PAGE_EXPOSURE, EXPOSURE + i), static_cast<uint8_t>(kPowerOnCounts >> (16 - 8 * i)));
    }

    Register_file regs;  ///< page << 8 | register
    uint8_t page = 0;
    uint16_t frame_count = 0;
};

}  // namespace

std::unique_ptr<Sensor_model> make_model_Hi704A(const Config&)
{
    return std::make_unique<Model_Hi704A>();
}

}  // namespace vqxsim
