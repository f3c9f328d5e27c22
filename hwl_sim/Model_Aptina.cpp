// Model_Aptina.cpp: the sensor behind the "APTINA" engine's hardware layer.
//
// The Aptina engine's hardware layer programs exposure and LEDs itself; the
// driver reaches the sensor only through the layer's four extra operations
// (IHwl_aptina), which this model implements:
//   SetExposureGain(a, rows, code)  exposure rows (0 acts as 1) and an
//       analog gain code; the first argument (0 from the driver) is kept
//       and otherwise unused. Gain of a code (derived from the driver's
//       code arithmetic, where 256 in 1/256 units gives 8 and 2048 gives
//       96): (code & 63) / 8, doubled when bit 6 is set.
//   RowTime()  the row time in nanoseconds: 31000 (31 us).
//   LedControlState(state)  bit 0 aimer, bit 1 illumination (the driver
//       sends 3 for both on and 0 for both off).
//   CancelDeferredInitCapture()  nothing to cancel here.
// 752 x 480, 8-bit output. Exposure and gain take effect at the frame after
// the frame period in which they are set (frame latency 1). The sensor
// streams whenever it is supplied and out of standby. It has no register
// file: WriteReg and ReadReg are refused.
#include <memory>

#include "Hwl_face.h"
#include "Sensor_model.h"

namespace vqxsim {
namespace {

constexpr unsigned kWidth = 752;
constexpr unsigned kHeight = 480;
constexpr unsigned kRowNs = 31000;

class Model_Aptina : public Sensor_model {
public:
    const char* engine_type() const override { return "APTINA"; }
    unsigned width() const override { return kWidth; }
    unsigned height() const override { return kHeight; }
    std::unique_ptr<IHwl> make_hwl(Sim_core& core) override;

    bool write(unsigned, const uint16_t*, uint64_t) override { return false; }
    bool read(unsigned, uint16_t*, uint64_t) override { return false; }
    uint16_t peek(unsigned address) override { return address == 0 ? rows : address == 1 ? code : first; }
    bool is_stream_control(unsigned, uint64_t) const override { return false; }
    void set_supply(bool) override { rows = 100; code = 8; first = 0; }
    void set_standby(bool) override {}
    void set_stalled(bool) override {}
    bool streaming() const override { return true; }
    unsigned frame_latency() const override { return 1; }
    Frame_settings controls() const override
    {
        Frame_settings f;
        f.rows = rows == 0 ? 1 : rows;
        f.line_time_us = kRowNs / 1000.0;
        f.exposure_us = f.rows * f.line_time_us;
        f.analog_code = code;
        f.analog_gain = gain_of_code(code);
        return f;
    }
    void begin_frame(Frame_settings& f) override { f.frame_count = ++frame_count; }

    static double gain_of_code(uint16_t c) { return (c & 63) / 8.0 * ((c & 64) ? 2.0 : 1.0); }
    void set_exposure_gain(uint16_t a, uint16_t r, uint16_t c) { first = a; rows = r; code = c; }

private:
    uint16_t rows = 100;
    uint16_t code = 8;
    uint16_t first = 0;
    uint16_t frame_count = 0;
};

class Aptina_face : public Hwl_face<IHwl_aptina> {
public:
    using Hwl_face<IHwl_aptina>::Hwl_face;

    bool LedControlState(unsigned int state) override
    {
        core.engine_operation("LedControlState", [](Sensor_model&) { return 1u; });
        const bool aim = (state & 1) ? core.AimOn() : core.AimOff();
        const bool illum = (state & 2) ? core.IllumOn() : core.IllumOff();
        return aim && illum;
    }
    bool SetExposureGain(uint16_t a, uint16_t rows, uint16_t code) override
    {
        return core.engine_operation("SetExposureGain", [=](Sensor_model& m) {
            static_cast<Model_Aptina&>(m).set_exposure_gain(a, rows, code);
            return 1u;
        }) != 0;
    }
    unsigned int RowTime() override
    {
        core.engine_operation("RowTime", [](Sensor_model&) { return kRowNs; });
        return kRowNs;
    }
    void CancelDeferredInitCapture() override
    {
        core.engine_operation("CancelDeferredInitCapture", [](Sensor_model&) { return 1u; });
    }
};

std::unique_ptr<IHwl> Model_Aptina::make_hwl(Sim_core& core)
{
    return std::make_unique<Aptina_face>(core);
}

}  // namespace

std::unique_ptr<Sensor_model> make_model_Aptina(const Config&)
{
    return std::make_unique<Model_Aptina>();
}

}  // namespace vqxsim
