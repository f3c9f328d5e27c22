// MT9V022_trait: the engine trait of the MT9V022 engines (engine type
// "MT9V022").
//
// The MT9V022 has 8-bit register addresses with 16-bit values; the trait
// writes them one register per WriteReg (length 1: its hardware layer
// counts registers). Exposure is the total shutter width in rows (0x0B,
// 35.25 us a row), gain the analog gain in 1/16 units (0x35). The LEDs are
// switched through the PSoC's light control byte (register 50) kept in the
// process-wide PSOC_Cachex entry; the hardware layer's aimer and
// illumination operations are only ever switched off. A zero byte to PSoC
// device 0x82 resets the sensor. Power: initialize_scanning wakes the
// sensor (ImagerPowerUp), deinitialize_scanning puts it to sleep
// (ImagerPowerDown): frames stop there; trigger_off does nothing.
//
// The trait puts its own end-of-frame callback (eof) between the hardware
// layer and the driver's: it takes the sensor's monitor, cancels the
// late-vsync alarm and calls the driver's callback. trigger_on arms the
// global late_vsync_alarm: when no frame comes within 200 ms, late_vsync()
// reports "A late vsync has occured", resets the sensor through the PSoC and
// loads the register table again. Only the first frame after each
// trigger_on is watched.
//
// Threading: eof runs on the hardware layer's thread and takes the sensor's
// monitor for the whole callback; late_vsync runs on the monitor's timer
// thread with the monitor held; every other operation runs with it held
// (or during start-up).
//
// Frame latency and the histories (both of size 3). The simulated MT9V022
// applies shutter width and gain two frames after the frame period in which
// they are written. The histories step once per frame at the frame's
// programming point, in exposure_frame(), which the stream driver calls
// once per frame before the frame's attributes are filled and before the
// new values are written (at the inter-frame point in capture modes 1 to 3,
// in the frame's callback in the others): after the step, element 0 is the
// slot of this period's write and the oldest element (2) what was written
// two periods back: the values the frame being delivered was taken with.
// current_exposure(), current_gain() and current_contrast() report them.
//
// Decisions where the engine's behaviour was open or had to change:
//  - The histories step in exposure_frame(), not at the start of eof. eof
//    runs at the end of every frame, but the capture modes program the
//    sensor at different points of the frame (at two thirds of it in modes
//    1 to 3, in the frame's callback in the others), so a step in eof would
//    give one history slot a different frame in different modes, and no
//    sensor latency could make every mode's attributes true. Stepping at the
//    programming point makes one slot one frame in every mode.
//  - The histories record what the sensor holds: rows clamped to 1..480 and
//    gain to 16..64 (set_exposure_gain(0, 100) programs and records 1 and
//    64). A record of the unclamped request would report exposures the
//    sensor never made and, fed back into the exposure step, keep asking
//    for more.
//  - Loading the register table (power-up, late vsync) programs shutter
//    width and gain too (0x0B and 0x35, the table's last values for them);
//    the histories take those values, so the frames before the first update
//    report what they were taken with.
//  - set_starting_exposure_gain computes and programs nothing (the scan
//    starts from what the sensor holds), as the engine always has.
//  - power_up_init supplies the sensor and takes it out of standby
//    (ImagerPowerOn, ImagerPowerUp) before the PSoC reset and the register
//    table, so every register write reaches a powered, running sensor.
//    The sensor streams from then on and applies the table's shutter width
//    and gain two frames later; power_up_init waits for that (50 ms), so
//    the first frame of the scan that follows is taken with them.
//  - The values read from registers 0x00 (chip version) and 0xFF at
//    power-up are not used.
//  - The gain split of the shared step: gain (ES_MAX_GAIN + 8) >> 4 below a
//    maximum gain of 512, else 32 (2x); rows up to the max_exposure
//    converter's rows (and the sensor's 480).
//  - GetMaxResumeTime is 300 ms, not the base 100 ms: the driver's stall
//    retries call trigger_on again, which re-arms the 200 ms late-vsync
//    watch, so with 100 ms the watch could never fire while the driver
//    waits for the first frame. 300 ms leaves the watch its 200 ms and the
//    recovery (a 50 ms reset and the table) time before the driver retries.
//  - trigger_once does nothing: capture modes 6 and 7 deliver no frames on
//    this engine; modes 0, 2, 3, 4 and 5 stream.
#ifndef VQX_MT9V022_TRAIT_H
#define VQX_MT9V022_TRAIT_H

#include <cstdint>

#include "IHwl.h"
#include "Register_burst.h"
#include "Sensor_trait.h"
#include "history_queue.h"
#include "monitor.h"

template <class Trait>
class Exposure_controller;

/// Watches the first frame after each trigger_on (see the file comment).
extern Alarm late_vsync_alarm;

class MT9V022_trait : public Sensor_trait {
public:
    using Controller = Exposure_controller<MT9V022_trait>;

    enum : uint8_t { POWER_OFF = 0, POWER_ASLEEP = 1, POWER_ON = 2 };

    static constexpr unsigned min_rows = 1, max_rows = 480;
    static constexpr unsigned min_gain = 16, max_gain = 64;
    /// How long trigger_on waits for the first frame.
    static constexpr unsigned late_vsync_ms = 200;

    /// Rows for @p us microseconds (used by Exposure_converter).
    static uint32_t exposure_rows(const MT9V022_trait& trait, uint32_t us);

    MT9V022_trait(IHwl_MT9V022& hwl, Controller* controller);
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
    bool update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast) override;
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) override;
    IHwl::Image_buffer_pointers* get_image_buffers(uint64_t& count) override;
    bool register_frame_notifications(Frame_callback callback, void* context) override;
    unsigned int current_contrast() override;
    unsigned int current_exposure() override;
    unsigned int current_gain() override;
    void exposure_frame() override;
    bool update_properties(VQX_SCANENGINE_PROPERTIES_EX& properties) override;
    unsigned int GetMaxResumeTime() override;

    bool power_up_init();
    /// Writes the register table; "WriteIIC failed in power_up_init" and
    /// false at the first failure.
    bool iic_initialization();
    /// Programs clamped rows and gain; records them when both writes
    /// succeeded.
    bool set_exposure_gain(unsigned rows, unsigned gain);
    /// Splits @p contrast into rows and gain (shared rule, gain capped at 32).
    void contrast_to_exposure_gain(unsigned contrast, unsigned& rows, unsigned& gain);
    /// Light code into bits 0-1 of the PSoC's light control byte.
    bool set_lights_mode(uint8_t code);
    /// End-of-frame callback registered with the hardware layer.
    static void eof(int handle, void* context);
    /// Alarm: no frame within late_vsync_ms of trigger_on.
    void late_vsync();

    uint8_t get_power_state() const { return power_state; }
    uint8_t get_idle_led() const { return idle_led; }

private:
    void take_oldest();
    void record_table_exposure();
    unsigned auto_gain() const;

    uint8_t power_state = POWER_OFF;
    uint8_t idle_led = 0;
    history_queue<unsigned> exposure_history;
    history_queue<unsigned> gain_history;
    unsigned contrast_now = 1;
    unsigned exposure_now = 1;
    unsigned gain_now = 1;
    Controller* controller;
    Frame_callback client_callback = nullptr;
    void* client_context = nullptr;
};

#endif // VQX_MT9V022_TRAIT_H
