// Model_Kelp.cpp: the sensor of the "KELP" engine.
//
// The Kelp engine is this project's own design; this model implements
// exactly the register map given in Sensor/Kelp_trait.h. 1280 x 800,
// 8-bit output. 16-bit registers, big-endian over two bytes; transfers
// count bytes (length 2n moves n registers at the address, address + 2,
// ...):
//   0x0000  chip id 0x4B01 (read only)
//   0x0100  mode: bit 0 streaming; bit 1 single frame: the sensor makes one
//           frame and clears the bit (with bit 0 clear it then stands by)
//   0x0102  software reset: a write with bit 0 set restores the power-on
//           values (the register itself reads 0)
//   0x0202  exposure in rows of 1178 / 48 us (the driver's row rule; 0 acts
//           as 1)
//   0x0204  gain in 1/256 units (0 acts as 1)
//   0x0300  frame counter (read only)
// Every other register is plain storage with power-on value 0. Power-on:
// mode 0, exposure 21 rows, gain 256.
//
// Exposure and gain take effect two frames after the frame period in which
// they are written (Control_pipeline); when streaming starts (also for each
// single frame) the registers apply at once.
//
// Sensitivity: half the simulator's reference (the X7710 engine), a design
// choice for this engine: with its gain fixed at ES_MAX_GAIN (4x by
// default) and rows of about 24.5 us, half the light puts the default label
// at about 20 rows, so scenes 16 times brighter or darker stay within 1 to
// 65535 rows.
#include <algorithm>
#include <memory>

#include "Hwl_face.h"
#include "Sensor_model.h"

namespace vqxsim {
namespace {

constexpr unsigned kWidth = 1280;
constexpr unsigned kHeight = 800;
constexpr double kRowUs = 1178.0 / 48.0;

enum Reg : unsigned {
    CHIP_ID = 0x0000,
    MODE = 0x0100,
    RESET = 0x0102,
    EXPOSURE = 0x0202,
    GAIN = 0x0204,
    FRAME_COUNT = 0x0300,
};

constexpr uint16_t STREAM = 1;
constexpr uint16_t SINGLE_FRAME = 2;

const Register_value kPowerOn[] = {
    {CHIP_ID, 0x4B01}, {MODE, 0}, {EXPOSURE, 21}, {GAIN, 256},
};

class Model_Kelp : public Sensor_model {
public:
    Model_Kelp() { power_on_values(); }

    const char* engine_type() const override { return "KELP"; }
    unsigned width() const override { return kWidth; }
    unsigned height() const override { return kHeight; }
    std::unique_ptr<IHwl> make_hwl(Sim_core& core) override
    { return std::make_unique<Hwl_face<IHwl_kelp>>(core); }

    bool write(unsigned address, const uint16_t* values, uint64_t length) override
    {
        if (length < 2 || Register_file::transfer_bytes(address, length) == 0)
            return false;
        for (uint64_t i = 0; i < length / 2; ++i) {
            const unsigned reg = address + unsigned(2 * i);
            if (reg == CHIP_ID || reg == FRAME_COUNT)
                continue;
            if (reg == RESET) {
                if (values[i] & 1)
                    power_on_values();
                continue;
            }
            regs.set_word(reg, values[i]);
        }
        return true;
    }
    bool read(unsigned address, uint16_t* values, uint64_t length) override
    {
        if (length < 2 || Register_file::transfer_bytes(address, length) == 0)
            return false;
        regs.set_word(FRAME_COUNT, frame_count);
        regs.load(address, values, length);
        return true;
    }
    uint16_t peek(unsigned address) override
    {
        regs.set_word(FRAME_COUNT, frame_count);
        return regs.word(address);
    }
    bool is_stream_control(unsigned address, uint64_t length) const override
    { return overlaps(address, length, MODE, 2); }

    void set_supply(bool) override { power_on_values(); }
    void set_standby(bool) override {}
    void set_stalled(bool) override {}
    bool streaming() const override { return (regs.word(MODE) & (STREAM | SINGLE_FRAME)) != 0; }
    unsigned frame_latency() const override { return 2; }
    double sensitivity() const override { return 0.5; }
    Frame_settings controls() const override
    {
        Frame_settings f;
        f.rows = std::max<unsigned>(regs.word(EXPOSURE), 1);
        f.line_time_us = kRowUs;
        f.exposure_us = f.rows * kRowUs;
        f.analog_code = std::max<uint16_t>(regs.word(GAIN), 1);
        f.analog_gain = f.analog_code / 256.0;
        return f;
    }
    void begin_frame(Frame_settings& f) override
    {
        f.frame_count = ++frame_count;
        const uint16_t mode = regs.word(MODE);
        if (mode & SINGLE_FRAME)
            regs.set_word(MODE, mode & ~SINGLE_FRAME);
    }

private:
    void power_on_values()
    {
        regs = Register_file();
        for (const Register_value& r : kPowerOn)
            regs.set_word(r.address, r.value);
    }

    Register_file regs;
    uint16_t frame_count = 0;
};

}  // namespace

std::unique_ptr<Sensor_model> make_model_Kelp(const Config&)
{
    return std::make_unique<Model_Kelp>();
}

}  // namespace vqxsim
