// Kelp_trait: the engine trait of the Kelp engine (engine type "KELP").
//
// A 1280 x 800 sensor behind a small map of 16-bit registers: mode, reset,
// exposure rows, gain (1/256) and a frame counter. Exposure and gain reach
// the frame two after the one during which they are written; the frame
// counter credits frames the driver did not see. Lights go through the
// hardware layer and follow the lighting record's scanning or idle mode.
// docs/engines/KELP.md describes the engine.
//
// Threading: every operation runs with the sensor's monitor held (or during
// start-up).
#ifndef VQX_KELP_TRAIT_H
#define VQX_KELP_TRAIT_H

#include <cstdint>

#include "IHwl.h"
#include "Lights.h"
#include "Sensor_trait.h"

class Kelp_trait : public Sensor_trait {
public:
    static constexpr Register REG_CHIP_ID = reg16(0x0000);
    static constexpr Register REG_MODE = reg16(0x0100);
    static constexpr Register REG_RESET = reg16(0x0102);
    static constexpr Register REG_EXPOSURE = reg16(0x0202);  // rows; the gain follows at 0x0204
    static constexpr Register REG_GAIN = reg16(0x0204);
    static constexpr Register REG_FRAME_COUNT = reg16(0x0300);
    static constexpr uint16_t MODE_STREAM = 1;
    static constexpr uint16_t MODE_SINGLE_FRAME = 2;

    /// Frames from a write to the frame it shapes.
    static constexpr unsigned FRAME_LATENCY = 2;

    /// Rows for @p us microseconds (used by Exposure_converter).
    static uint32_t exposure_rows(const Kelp_trait& trait, uint32_t us);

    Kelp_trait(IHwl_kelp& hwl, const Trait_context& context);

    // Sensor_trait
    void power_on() override;
    void power_off() override;
    void sleep() override;
    bool initialize_scanning() override;
    bool deinitialize_scanning() override;
    void trigger_once() override;
    void trigger_on() override;
    bool init_capture(const IHwl::Image_buffer_pointers* buffer) override;
    void trigger_off() override;
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) override;
    void update_exposure_settings(Exposure_settings& settings) override;
    bool check_stall(int8_t tries_left) override;
    unsigned int GetMaxResumeTime() override;

    /// Supplies and wakes the sensor and loads the register table.
    bool power_up_init();
    /// Programs @p rows and @p gain (clamped to 1..65535) and records them.
    bool set_exposure_gain(unsigned rows, unsigned gain);

protected:
    bool program(const Exposure_point& point) override;
    unsigned row_limit() override;

private:
    void start_frames();
    uint8_t lights_in_force() const;
    void wake();

    bool single_frames = false;  ///< the last trigger asked for one frame
    bool powered = false;  ///< register table loaded since the supply came on
    bool awake = false;    ///< supplied and out of standby
    _tagVQX_SCANNER_LIGHTING lighting{};  ///< the last lighting asked for
    Lights lights;
};

#endif // VQX_KELP_TRAIT_H
