// Kelp_trait: the engine trait of the Kelp engine (engine type "KELP").
//
// The Kelp engine is this project's own design: a 1280 x 800 sensor behind
// a small register map, written through the Kelp logging decorator's
// WriteReg. Registers are 16-bit with 16-bit values, big-endian over two
// bytes (WriteReg/ReadReg lengths count bytes, as on the AR0144):
//
//   0x0000  chip id 0x4B01 (read only)
//   0x0100  mode: bit 0 streaming; bit 1 single frame (the sensor makes one
//           frame and clears the bit; with bit 0 clear it then stands by)
//   0x0102  software reset: writing bit 0 restores the power-on values
//   0x0202  exposure in rows of 1178 / 48 us (about 24.5 us), 1 to 65535
//   0x0204  gain in 1/256 units (256 = 1x), 1 to 65535
//   0x0300  frame counter (read only): +1 per frame the sensor makes
//
// Exposure and gain written during frame k's period (while frame k is read
// out, in its frame callback, or before frame k+1 starts) shape frame k+2.
// The values in the registers when streaming starts apply to the first
// frames at once.
//
// Power: power_on supplies the sensor, wakes it and loads the register
// table (standby, the starting exposure and gain); power_off switches it
// off; sleep puts it in standby (ImagerPowerDown). A scan that finds the
// table not loaded (first scan, after power_off) loads it first.
//
// Exposure: Exposure_converter<Kelp_trait> with the Kelp row rule; the
// shared contrast step; the split keeps the gain at ES_MAX_GAIN (0 taken as
// 1) and puts the rest into rows, up to the max_exposure converter's rows
// (16 bits); fixed modes program the fixed_exposure rows and ES_FIXED_GAIN.
// The starting exposure is 520 us.
//
// Frame latency and the histories (size 4). exposure_frame(), called by
// the stream driver once per frame at its programming point (the
// inter-frame point in capture modes 1 to 3, the frame's callback in the
// others), reads the frame counter and steps both histories by the frames
// the sensor made since the last call (one when the counter cannot be
// read), so frames the driver never saw keep the credit exact. Element 0
// is what this period programs; element 2 (the latency) what the frame
// being delivered was taken with. The histories record what the registers
// hold (rows and gain clamped to 1..65535). While streaming,
// set_exposure_gain() steps by the counter again right before its write,
// so values written after the next frame began (an update computed late
// for a frame the transfer lost) are credited to the frame of the write.
//
// Lights: the hardware layer's AimOn/AimOff and IllumOn/IllumOff, by the
// PSoC lights code of the lighting record's scanning mode while scanning
// and of its idle mode otherwise; IllumConfig gets level B. A change while
// the engine sleeps or is off is only kept: it reaches the lights when the
// engine wakes (power-up, or a scan's start after sleep).
//
// Single frames (capture modes 6 and 7): trigger_once writes the single
// frame bit; the sensor makes one frame and stands by again. A stall in
// single frames only stops the sensor (the driver triggers the lost frame
// again); switching it to continuous streaming in between would run the
// next frames through the two-frame pipeline, which single frames do not
// credit. The first frame after a trigger may take up to 300 ms
// (GetMaxResumeTime) before the driver counts a stall: a trigger repeated
// while the first frame is still on its way makes an extra frame.
//
// Threading: every operation runs with the sensor's monitor held (or
// during start-up).
#ifndef VQX_KELP_TRAIT_H
#define VQX_KELP_TRAIT_H

#include <cstdint>

#include "Frame_counter.h"
#include "IHwl.h"
#include "Sensor_trait.h"
#include "history_queue.h"

template <class Trait>
class Exposure_controller;

class Kelp_trait : public Sensor_trait {
public:
    using Controller = Exposure_controller<Kelp_trait>;

    // Register map (see the file comment).
    static constexpr uint16_t REG_CHIP_ID = 0x0000;
    static constexpr uint16_t REG_MODE = 0x0100;
    static constexpr uint16_t REG_RESET = 0x0102;
    static constexpr uint16_t REG_EXPOSURE = 0x0202;
    static constexpr uint16_t REG_GAIN = 0x0204;
    static constexpr uint16_t REG_FRAME_COUNT = 0x0300;
    static constexpr uint16_t MODE_STREAM = 1;
    static constexpr uint16_t MODE_SINGLE_FRAME = 2;

    static constexpr int FRAME_LATENCY = 2;
    /// History element the delivered frame was taken with (after the step).
    static constexpr int DELIVERED_SLOT = FRAME_LATENCY;

    /// Rows for @p us microseconds (used by Exposure_converter).
    static uint32_t exposure_rows(const Kelp_trait& trait, uint32_t us);

    Kelp_trait(IHwl_kelp& hwl, Controller* controller);

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

    /// Supplies and wakes the sensor and loads the register table.
    bool power_up_init();
    /// Programs @p rows and @p gain (clamped to 1..65535) and records them.
    bool set_exposure_gain(unsigned rows, unsigned gain);
    /// The split of the shared step: gain ES_MAX_GAIN, the rest in rows.
    void contrast_to_exposure_gain(unsigned contrast, unsigned& rows, unsigned& gain);

private:
    bool write_reg(uint16_t address, uint16_t value);
    bool read_reg(uint16_t address, uint16_t& value);
    void step(unsigned frames);
    void restart_histories();
    bool apply_lights(uint8_t code);
    uint8_t lights_in_force() const;
    void wake();

    history_queue<unsigned> exposure_history;
    history_queue<unsigned> gain_history;
    unsigned contrast_now = 1;
    unsigned exposure_now = 1;
    unsigned gain_now = 1;
    Frame_counter frame_counter;  ///< 0x0300 at the last programming point
    bool streaming = false;
    bool single_frames = false;  ///< the last trigger asked for one frame
    bool powered = false;  ///< register table loaded since the supply came on
    bool awake = false;    ///< supplied and out of standby
    _tagVQX_SCANNER_LIGHTING lights{};  ///< the last lighting asked for
    Controller* controller;
};

#endif // VQX_KELP_TRAIT_H
