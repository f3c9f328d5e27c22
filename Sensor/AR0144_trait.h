// AR0144_trait: the engine trait of the AR0144 engines (engine type "X7710").
//
// Loads the AR0144's register set at power-up, computes the line time from
// its clock registers, starts and stops streaming through the reset register
// (0x301A) and mode select (0x301C), recovers stalled streaming, switches the
// lights through the engine's PSoC, and programs exposure (coarse rows
// 0x3012, fine time 0x3014) and analog gain (0x3060) from the exposure
// controller's white values. Built once by driver start-up with the AR0144
// logging decorator and the Exposure_controller<AR0144_trait>; the stream
// driver and the sensor call it.
//
// Threading: every operation runs with the sensor's monitor held (the
// complete_standby alarm runs on that monitor's timer thread, holding it),
// except update_exposure_settings and update_properties, which the session
// calls without a lock and which only read data that is fixed after
// start-up (PSoC identity, capabilities, configuration). lineLenght and
// lineTimeUs are shared by all instances and written only by getClocks.
//
// Engine configuration. The engine variant (bits 0-15) and the orientation
// in degrees (bits 16-31) come from the configuration word at offset 12 of
// the driver's IHwl::Config (`the_scan_driver->config`). Start-up fills that
// record with GetConfig only after the trait is built, so the trait reads
// the word each time it needs it (power-up table, streaming values, engine
// id class, aimer offset) rather than at construction. Variant 1 loads
// table A, 2 table B, any other table C; a non-zero variant is an engine
// with the serial interface (streaming value 0x085C), variant 0 the
// parallel one (0x30DC).
//
// Frame latency and the exposure history. The AR0144 applies exposure and
// gain two frames after the frame during which they are written: a frame's
// period runs from the start of its readout to the start of the next
// frame's, and a write made in frame k's period (while k is read out, in
// its frame callback, or between frames) shapes frame k+2. The values in
// the registers when streaming starts apply to the first frames at once.
// The driver programs the sensor once per frame at its programming point:
// the inter-frame point (two thirds of frame k read out) in capture modes
// 1 to 3, frame k's callback in the others; both lie in frame k's period,
// and exposure_frame() runs there, before the frame's attributes are filled
// and before the new values are written. The exposure and gain histories
// step once per sensor frame: element 0 is what is being programmed in the
// current period, element i what the registers held at the end of the
// period i frames back. So frame k, whose values were written in period
// k-2, was taken with element DELIVERED_SLOT (= the latency, 2) after
// exposure_frame() has stepped the histories to frame k's period;
// current_exposure(), current_gain() and current_contrast() report it.
// exposure_frame() reads the sensor's frame counter (0x303A) and steps the
// histories by the sensor frames since its last call, so frames the driver
// never saw (no buffer armed, a frame dropped by the transfer) keep the
// credit exact, and a second call for the same frame steps nothing; without
// a counter reading it steps one frame. set_exposure_gain() follows the
// counter again right before its writes while streaming: the update after
// an inter-frame point is computed on the timer thread, and when the
// transfer lost that frame nothing holds the sensor back, so the next frame
// may begin before the write; the values are credited to the frame during
// which they are written. What remains open is a frame that begins between
// that reading and the end of the two register writes.
// current_exposure() (read when a delivered frame's attributes are filled,
// before current_gain()) follows the counter too: in capture modes 1 to 3 a
// frame lost by the transfer after its inter-frame point leaves its buffer
// armed, the next frame fills it and is delivered without an inter-frame
// point of its own, and the counter has moved on by one. Its white value is
// still sampled partly from the lost frame (the driver cannot tell the two
// apart in the buffer). trigger_on
// steps the histories four times and reads the counter when streaming
// starts, so the first frames report the starting setting. The histories
// record what the registers really hold after clamping and gain
// quantisation (never the unclamped request).
//
// Decisions where the engine's behaviour was open:
//  - Gain unit: 1/256 (256 = 1x), the unit of ES_MAX_GAIN, ES_FIXED_GAIN and
//    the starting gain, so settings apply without conversion. Contrast is
//    rows x gain; at most 824 x 7710, small enough for the contrast step's
//    32-bit arithmetic with any 8-bit target.
//  - Analog gain code (0x3060: coarse bits 6:4, fine bits 3:0) to gain:
//    2^coarse x 32 / (32 - fine), in 1/256 units rounded to nearest. Codes
//    used: 0x0D (1.68x, the sensor's recommended minimum and the power-up
//    shadow) up to 0x4F (coarse 16x, fine 15: about 30x). Their gains rise
//    strictly with the code, so a gain maps back to the largest code whose
//    gain does not exceed it, and code -> gain -> code gives the same code.
//    A requested gain below the minimum gets the minimum code.
//  - Exposure: coarse rows 1 to 824 (frame length 825 lines - 1, so the
//    frame never stretches); the fine time keeps its shadow (10 clocks, the
//    sensor default) and is written with the rows as one 4-byte burst. The
//    gain is written first, then the rows, back to back at the frame's
//    programming point; no grouped parameter hold is used.
//  - update_contrast, automatic modes (2 and above): the wanted contrast c
//    is contrast x target / white, with the white value held at no less
//    than a sixteenth of the target (one step raises the contrast at most
//    sixteen-fold, where the shared step of the other traits allows four),
//    except from a saturated frame (white 255, with a target below 255):
//    the white value then bounds the brightness only from below, and the
//    contrast drops eight-fold. A scene 16 times too dark settles with one
//    update, one 16 times too bright in two (eight-fold, then the exact
//    step) instead of the four halvings of the shared step. The
//    step is computed from the contrast the measured frame was really taken
//    with (current_contrast, above), so updates made while earlier ones are
//    still in the sensor's pipeline aim at the same value and do not
//    overshoot. The split favours exposure (less
//    noise): rows = c / minimum gain (rounded) up to the row limit (the
//    max_exposure converter's rows, at most 824), and only beyond that the
//    gain rises, to c / rows, at most ES_MAX_GAIN (and 30x). Fixed modes (0
//    and 1): rows from the fixed_exposure converter, gain ES_FIXED_GAIN
//    quantised to a code. new_contrast is rows x gain as programmed.
//  - set_starting_exposure_gain(contrast): automatic modes start from the
//    smaller of the start_exposure and max_exposure rows and the smaller of
//    the starting gain (settings offset 36) and ES_MAX_GAIN; fixed modes as
//    in update_contrast. The two-argument form starts an automatic-mode scan
//    from the given contrast (the one the previous scan ended with) split as
//    in update_contrast; a contrast of 0 and the fixed modes behave like the
//    one-argument form. Without a controller both fail and program nothing.
//  - exposure_frame: steps both histories by the sensor frames since its
//    last call (above) and takes element DELIVERED_SLOT as the current
//    exposure and gain.
//  - Lights: the lights mode member holds the PSoC code of the lighting
//    record's idle mode (what the engine shows between scans); the scanning
//    mode's code is used while the scanning-initialised flag is set. With a
//    PSoC fitted the PSoC drives aimer and illumination (light register
//    0x32) and the stored aimer operation is AimOff; without one the
//    hardware layer's AimOn/AimOff and IllumOn/IllumOff follow the code and
//    the stored aimer operation follows the idle code. The record's boost
//    (0 to 2, larger taken as 2) applies while scanning; idle lights run
//    without boost. change_lights while the sensor is off or asleep only
//    remembers the codes (power_up_init applies them) and returns true.
//    Between scans (ready, not scanning) change_lights also sets the
//    mode-select interplay of power-up: idle illumination keeps the sensor
//    streaming (0x301C = 1), an aimer-only code pulses 0x301C (1 then 0),
//    code 0 stops it (0x301C = 0).
//    Returns the lights result (PSoC write, or the hardware layer's lights
//    operations).
//  - trigger_once: streams for 30 ms, then stops, as trigger_on followed by
//    trigger_off; the stop comes from an alarm on the sensor's monitor
//    (once_alarm) instead of a 30 ms wait, because in capture modes 6 and 7
//    trigger_once runs inside the frame callback and a wait there would
//    hold the callback thread and the driver's lock while the triggered
//    frame is due. A trigger while a window is open extends it to 30 ms
//    from the new trigger; any streaming stop cancels the pending end.
//    Without a sensor object (the trait used on its own) it waits.
//  - trigger_off: clears the stream bit of 0x301A (the streaming value
//    without bit 2: 0x0858 or 0x30D8, output interface still enabled) and
//    writes mode select 0x301C = 0; the sensor finishes the frame in
//    progress and stops. On success the power state goes back to 2 from 3.
//    The tick count of the stop is the reference time: deinitialize_scanning
//    schedules complete_standby 24 ms after it (time for the frame in
//    flight to drain; at once when 24 ms have already passed, also for the
//    reference time 0 of a trait that never streamed). complete_standby
//    writes the ready value of 0x301A (0x1858 also disables the serial
//    output; streaming kept for idle illumination) and returns the lights
//    to the idle code. Without a sensor object (the trait used on its own)
//    the standby is completed at once.
//  - update_properties: engine id class 18 for the serial-interface engines
//    (non-zero variant), 17 for the parallel one (variant 0); PSoC revision
//    low and high 32 bits; the 10-character serial number; the PSoC engine
//    id. The aimer offset (PSoC 0x1A-0x1D) is read as two big-endian signed
//    16-bit values, column then row, added to the aimer centre (subtracted
//    when the engine is mounted at 180 degrees, since the image is rotated)
//    and held inside the image. Each field is written only when the
//    caller's size reaches its end.
//  - update_exposure_settings: starting exposure 500 us and ES_FIXED_EXP
//    500 us.
//  - getClocks runs at the end of power_up_init, so the line time follows
//    the table just loaded. A failed clock register read leaves the line
//    time as it was. The line time arithmetic is unsigned 32-bit (wraps
//    beyond 4294 clocks a line, far above the sensor's line lengths).
//  - Register 0x3270 (shadow 508 = 0x01FC) is not described publicly; the
//    trait keeps it as an opaque engine setting that it writes after every
//    table load and never changes.
//  - Table C has 48 entries; the walk stops after a table's own last entry.
//  - init_capture writes the end-of-frame marker only into a frame of at
//    least 4 bytes with a capture address; it arms the capture either way
//    (a null buffer record arms nothing and gives false).
//  - power_on and power_off keep the base behaviour (nothing): the engine
//    is powered by the constructor, and power_up_init / power_down are the
//    trait's own entry points. initialize_scanning (the start of every
//    scan) runs power_up_init when the register set is not loaded: the
//    first scan after construction, after sleep (standby) or after
//    power_down. Sensor_trait's second flag records that the register set
//    is loaded (set by a successful power_up_init, cleared by power_down).
//    A failed power-up fails the scan start, so the power state manager
//    tries again at its next check.
#ifndef VQX_AR0144_TRAIT_H
#define VQX_AR0144_TRAIT_H

#include <cstdint>

#include "Frame_counter.h"
#include "IHwl.h"
#include "Psoc.h"
#include "Sensor_trait.h"
#include "history_queue.h"
#include "monitor.h"

template <class Trait>
class Exposure_controller;

class AR0144_trait : public Sensor_trait {
public:
    using Controller = Exposure_controller<AR0144_trait>;

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
    /// Frames from the period in which exposure and gain are written to the
    /// frame they shape.
    static constexpr int FRAME_LATENCY = 2;
    /// The history element that the frame being delivered was taken with,
    /// once exposure_frame() has stepped to its period (see the file
    /// comment): the values written FRAME_LATENCY periods before.
    static constexpr int DELIVERED_SLOT = FRAME_LATENCY;

    /// Builds the trait on @p hwl (not owned) with @p controller (not
    /// owned), powers the sensor up (state 2) and reads the PSoC.
    AR0144_trait(IHwl_AR0144& hwl, Controller* controller);
    ~AR0144_trait() override;

    // Sensor_trait
    void sleep() override;
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
    /// quantised to a code) and records what was programmed as the newest
    /// history entry. True when all writes succeeded.
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

private:
    uint32_t engine_variant() const;
    uint32_t engine_orientation() const;
    void advance_history(unsigned frames);
    void end_trigger_once();
    void follow_frame_counter();
    bool call_aimer();
    bool write_table();
    bool write_shadows();
    bool write_reg(unsigned address, uint16_t value);
    bool write_reg8(unsigned address, uint8_t value);
    bool read_reg(unsigned address, uint16_t& value);
    void record_programmed();
    bool apply_lights(uint8_t code, uint8_t boost_level);
    void idle_streaming(uint8_t code);
    void split_contrast(unsigned contrast, unsigned& rows, unsigned& gain);
    static unsigned contrast_step(unsigned white, unsigned contrast, const Exposure_settings& settings);
    bool program_fixed(unsigned& contrast);
    unsigned max_gain_setting() const;

    history_queue<unsigned> exposure_history;
    history_queue<unsigned> gain_history;
    unsigned contrast_now = 1;
    unsigned exposure_now = 1;
    unsigned gain_now = 1;
    Frame_counter frame_counter;      ///< 0x303A at the last programming point
    Controller* controller;
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
};

#endif // VQX_AR0144_TRAIT_H
