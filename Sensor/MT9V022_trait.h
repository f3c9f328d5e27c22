// MT9V022_trait: the engine trait of the MT9V022 engines (engine type
// "MT9V022").
//
// 8-bit register addresses with 16-bit values, one register per transfer.
// Exposure is the shutter width in rows (0x0B), gain the analog gain in 1/16
// (0x35); both reach the frame two after the one of their write. The LEDs
// go through the PSoC's light control byte. The trait's own end-of-frame
// callback watches the first frame after each trigger: when none comes within
// 200 ms it resets the sensor and loads its table again. A scan starts from
// what the sensor holds. docs/engines/MT9V022.md describes the engine.
//
// Threading: eof runs on the hardware layer's thread and takes the sensor's
// monitor; late_vsync runs on the monitor's timer with it held; every other
// operation runs with it held (or during start-up).
#ifndef VQX_MT9V022_TRAIT_H
#define VQX_MT9V022_TRAIT_H

#include <cstdint>

#include "IHwl.h"
#include "Lights.h"
#include "Psoc.h"
#include "Sensor_trait.h"
#include "monitor.h"

class MT9V022_trait : public Sensor_trait {
public:
    enum : uint8_t { POWER_OFF = 0, POWER_ASLEEP = 1, POWER_ON = 2 };

    static constexpr unsigned min_rows = 1, max_rows = 480;
    static constexpr unsigned min_gain = 16, max_gain = 64;
    /// How long trigger_on waits for the first frame.
    static constexpr unsigned late_vsync_ms = 200;

    /// Rows for @p us microseconds (used by Exposure_converter).
    static uint32_t exposure_rows(const MT9V022_trait& trait, uint32_t us);

    MT9V022_trait(IHwl_MT9V022& hwl, const Trait_context& context);
    ~MT9V022_trait() override;

    // Sensor_trait
    void power_on() override;
    void power_off() override;
    bool initialize_scanning() override;
    bool deinitialize_scanning() override;
    void trigger_once() override;
    void trigger_on() override;
    bool init_capture(const IHwl::Image_buffer_pointers* buffer) override;
    void trigger_off() override;
    bool set_starting_exposure_gain(unsigned int& contrast) override;
    bool set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast) override;
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) override;
    bool register_frame_notifications(Frame_callback callback, void* context) override;
    unsigned int GetMaxResumeTime() override;

    bool power_up_init();
    /// Writes the register table; "WriteIIC failed in power_up_init" and
    /// false at the first failure.
    bool iic_initialization();
    /// Programs clamped rows and gain; records them when both writes
    /// succeeded.
    bool set_exposure_gain(unsigned rows, unsigned gain);
    /// End-of-frame callback registered with the hardware layer.
    static void eof(int handle, void* context);
    /// Alarm: no frame within late_vsync_ms of trigger_on.
    void late_vsync();

    uint8_t get_power_state() const { return power_state; }
    uint8_t get_idle_led() const { return idle_led; }

protected:
    bool program(const Exposure_point& point) override;

private:
    void record_table_exposure();

    uint8_t power_state = POWER_OFF;
    uint8_t idle_led = 0;
    Alarm late_vsync_alarm;  ///< watches the first frame after trigger_on
    Psoc psoc;
    Lights lights;
    Frame_callback client_callback = nullptr;
    void* client_context = nullptr;
};

#endif // VQX_MT9V022_TRAIT_H
