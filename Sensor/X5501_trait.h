// X5501_trait: the engine trait of the MT9M114 engines (engine types "X5501"
// and "X5503", which build the same trait).
//
// Reaches the sensor's 16-bit registers and firmware variables through the
// hardware layer (the X5501 logging decorator), drives the firmware's
// standby through host commands, loads the core table and then the short or
// the device's full table at power-up, and programs exposure and gain
// through the base's exposure skeleton with its own contrast step and split.
// Built once by driver start-up with its Trait_context and the full table
// start-up loaded from its file (empty when the short table is configured);
// the stream driver and the sensor call it.
//
// Threading: every operation runs with the sensor's monitor held, except
// update_exposure_settings and update_properties (session calls without the
// lock, which touch no shared state). Host-command waits (at most 100 ms
// each, polled every millisecond) run under that monitor.
#ifndef VQX_X5501_TRAIT_H
#define VQX_X5501_TRAIT_H

#include <cstdint>
#include <vector>

#include "IHwl.h"
#include "Lights.h"
#include "Psoc.h"
#include "Register_burst.h"
#include "Sensor_trait.h"

class X5501_trait : public Sensor_trait {
public:
    /// Power states.
    enum : uint8_t { POWER_OFF = 0, POWER_ASLEEP = 1, POWER_ON = 2 };

    /// Host-command results of WaitForCompletion.
    enum : int {
        COMMAND_OK = 0,
        COMMAND_IO_ERROR = 5,      ///< a register read failed
        COMMAND_INVALID = 22,      ///< status 0x0C
        COMMAND_NO_SPACE = 28,     ///< status 0x0D
        COMMAND_FAILED = 25,       ///< any other status
        COMMAND_TIMED_OUT = 62,
    };

    /// Rows for @p us microseconds (used by Exposure_converter).
    static uint32_t exposure_rows(const X5501_trait& trait, uint32_t us);
    /// Gain register 0x305E for @p gain (1/512 units): 0x1000 | e << 6 | m,
    /// m = gain / 8 halved e times until it is at most 63.
    static uint16_t gain_register_of(unsigned gain);
    /// The analog gain a gain register applies, in 1/64 units (m << e).
    static unsigned effective_gain(uint16_t gain_register);

    /// Builds the trait on @p hwl (not owned) with @p context and the
    /// device's full register table (empty when the short table is
    /// configured); powers the sensor on and reads the PSoC.
    X5501_trait(IHwl_x5501& hwl, const Trait_context& context, std::vector<Register_pair> full_table = {});
    ~X5501_trait() override;

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
    using Sensor_trait::set_starting_exposure_gain;
    bool set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast) override;
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) override;
    void exposure_frame() override;
    bool update_properties(VQX_SCANENGINE_PROPERTIES_EX& properties) override;
    void update_exposure_settings(Exposure_settings& settings) override;
    unsigned int GetMaxResumeTime() override;

    /// Powers the sensor up when needed, resets its firmware unless it
    /// streams, puts it in standby and loads the register tables.
    bool power_up_init();
    /// Waits for @p command to finish: 0, or one of the errors above
    /// (reported as "ERROR: Command failed, err %d").
    int WaitForCompletion(uint16_t command, unsigned timeout_ms);
    bool SensorEnterStandby();
    bool SensorExitStandby();
    /// Writes the 8-bit firmware variable @p variable: the logical-address
    /// pair (variable, value << 8) in one transfer. Does nothing once
    /// @p error is set, and sets it on failure.
    bool write_variable(uint16_t variable, uint8_t value, bool* error = nullptr);
    /// Programs @p rows and @p gain (1/512 units); with @p camera_control
    /// also the camera-control copies. True when the gain, frame length and
    /// rows writes all succeeded (then the history records the request).
    bool set_exposure_gain(unsigned rows, unsigned gain, bool camera_control);

    // Diagnostics and tests.
    uint8_t get_power_state() const { return power_state; }
    uint8_t get_leave_standby_state() const { return leave_standby_state; }

protected:
    // Exposure skeleton hooks.
    bool program_start(const Exposure_point& point) override;
    bool program(const Exposure_point& point) override;
    unsigned step(unsigned white, unsigned contrast) override;
    Exposure_point split(unsigned contrast) override;

private:
    bool write_tables();
    bool write_table(const Register_pair* table, size_t count);

    Psoc psoc;
    Lights lights;
    uint8_t power_state = POWER_OFF;
    bool aim_interleave = false;
    uint8_t lights_code = 0;  ///< the idle lights
    uint8_t leave_standby_state = 0;
    uint32_t frame_count = 0;  ///< frames since the stream left standby (aimer interleave)
    bool psoc_fitted;
    std::vector<Register_pair> full_table;
};

#endif // VQX_X5501_TRAIT_H
