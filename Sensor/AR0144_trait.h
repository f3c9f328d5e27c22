// AR0144_trait: the engine trait of the AR0144 engines (engine type "X7710").
//
// Loads the sensor's register set at power-up, starts and stops streaming
// through the reset register and mode select, recovers stalled streaming,
// switches the lights through the engine's PSoC (or the hardware layer's
// lights without one) and programs exposure and analog gain through the
// base's exposure skeleton. Built once by driver start-up with the AR0144
// logging decorator and its Trait_context; the stream driver and the sensor
// call it.
//
// Threading: every operation runs with the sensor's monitor held; the
// standby and trigger-once alarms run on that monitor's timer thread,
// holding it. update_exposure_settings and update_properties are called
// without the lock and read only what is fixed after start-up. lineLenght
// and lineTimeUs are shared by all instances, written only by getClocks.
#ifndef VQX_AR0144_TRAIT_H
#define VQX_AR0144_TRAIT_H

#include <cstdint>

#include "IHwl.h"
#include "Lights.h"
#include "Psoc.h"
#include "Sensor_trait.h"
#include "monitor.h"

class AR0144_trait : public Sensor_trait {
public:
    /// Power states.
    enum : uint8_t { POWER_OFF = 0, POWER_STANDBY = 1, POWER_READY = 2, POWER_STREAMING = 3 };

    /// Line length in pixel clocks (register 0x300C), shared by all instances.
    static uint16_t lineLenght;
    /// Line time in microseconds, shared by all instances.
    static uint64_t lineTimeUs;

    /// Rows for @p us microseconds at the current line time (used by
    /// Exposure_converter<AR0144_trait>).
    static uint32_t exposure_rows(const AR0144_trait& trait, uint32_t us);

    // Analog gain codes (register 0x3060) and gains in 1/256 units.
    static constexpr uint16_t min_gain_code = 0x0D;
    static constexpr uint16_t max_gain_code = 0x4F;
    /// Gain of an analog gain code, 1/256 units.
    static unsigned gain_of_code(uint16_t code);
    /// The largest usable code whose gain does not exceed @p gain (the
    /// minimum code for smaller gains).
    static uint16_t code_of_gain(unsigned gain);
    /// Largest coarse integration time in rows (frame length lines - 1).
    static constexpr unsigned max_rows = 824;

    /// Builds the trait on @p hwl (not owned) with @p context, powers the
    /// sensor up (state 2) and reads the PSoC.
    AR0144_trait(IHwl_AR0144& hwl, const Trait_context& context);
    ~AR0144_trait() override;

    // Sensor_trait
    void sleep() override;
    bool initialize_scanning() override;
    bool deinitialize_scanning() override;
    void trigger_once() override;
    void trigger_on() override;
    bool init_capture(const IHwl::Image_buffer_pointers* buffer) override;
    void trigger_off() override;
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) override;
    bool update_properties(VQX_SCANENGINE_PROPERTIES_EX& properties) override;
    void update_exposure_settings(Exposure_settings& settings) override;
    bool check_stall(int8_t tries_left) override;
    unsigned int GetMaxResumeTime() override;

    /// Ends streaming while keeping the sensor ready (alarm callback of
    /// deinitialize_scanning).
    /* 32 */ virtual void complete_standby();

    /// Powers the sensor up from any state, loads the register table of the
    /// engine variant and the exposure shadows, and reads the line time.
    bool power_up_init();
    /// Lights off, sensor powered down and off (state 0).
    void power_down();
    /// Reads the clock registers into lineLenght and lineTimeUs.
    bool getClocks();
    /// Programs @p rows (clamped to 1..824) and @p gain (1/256 units,
    /// quantised to a code) and records in the control history what the
    /// registers now hold. True when both writes succeeded.
    bool set_exposure_gain(unsigned rows, unsigned gain);

    /// Streaming start with its result (trigger_on).
    bool start_streaming();
    /// Streaming stop with its result (trigger_off).
    bool stop_streaming();

    // Diagnostics and tests.
    uint8_t get_power_state() const { return power_state; }
    uint8_t get_lights_mode() const { return lights_mode; }
    uint32_t get_reference_time() const { return reference_time; }
    const Alarm& get_alarm() const { return alarm; }
    const Alarm& get_once_alarm() const { return once_alarm; }

protected:
    // Exposure skeleton hooks.
    bool program(const Exposure_point& point) override;
    unsigned step(unsigned white, unsigned contrast) override;
    Exposure_point split(unsigned contrast) override;

private:
    uint32_t engine_variant() const;
    uint32_t engine_orientation() const;
    void end_trigger_once();
    bool call_aimer();
    bool write_table();
    bool write_shadows();
    void idle_streaming(uint8_t code);
    unsigned max_gain_setting() const;

    Psoc psoc;
    uint8_t power_state = POWER_OFF;
    uint8_t lights_mode = 0;          ///< PSoC code of the idle lights
    bool (IHwl::*aimer)() = &IHwl::AimOff;
    uint16_t analog_gain = 13;        ///< 0x3060
    uint16_t reg_0x3270 = 508;        ///< 0x3270
    uint16_t coarse_rows = 100;       ///< 0x3012
    uint16_t fine_time = 10;          ///< 0x3014
    uint32_t reference_time = 0;      ///< tick of the last streaming stop
    Alarm alarm;
    Alarm once_alarm;                 ///< ends a trigger_once window
    uint8_t scan_lights = 0;          ///< PSoC code of the scanning lights
    uint8_t boost = 0;                ///< boost level while scanning
    bool psoc_fitted;
    Lights lights;
    bool registers_loaded = false;    ///< the register set is in the sensor
};

#endif // VQX_AR0144_TRAIT_H
