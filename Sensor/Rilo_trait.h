// Rilo_trait: the engine trait of the Rilo engine (engine type "RILO"),
// whose sensor is a Hi704A run in streaming mode.
//
// The Hi704A has 8-bit registers in pages: register 3 selects the page, and
// every access to a paged register is preceded by a page write. All
// transfers are one register each (WriteReg/ReadReg length 1: this engine's
// hardware layer counts registers). Streaming is the sleep bit (page 0,
// register 1, bit 0: set stops the output). Exposure is written to page
// 0x20 registers 131-133 (high byte first) in counts of 8 pixel clocks,
// quantised to the engine's 88-entry table; the gain register (176) takes
// gain - 16 for a gain in 1/32 units. The sensor's own exposure counter
// EXPINT (page 0x20, registers 128-130) is read back once per frame and
// cached until the frame's end-of-frame callback: current_exposure()
// (microseconds) and current_contrast() report what the sensor really
// used, so the exposure attributes need no history.
//
// The initial register table (343 rows of register and value bytes, the
// Hi704A's tuning) is device data: start-up loads it from a file
// (hi704a_init.regs, see Register_table_file.h) before the trait is built
// and refuses the engine when it is missing or malformed; the rows go to
// the constructor and are written at power-up.
//
// Threading: eof runs on the hardware layer's thread; it calls the client
// callback (which takes the sensor's monitor itself) and then invalidates
// the EXPINT cache under the sensor's monitor. Every other operation runs
// with the sensor's monitor held, so the cache is only touched under it.
//
// The gain a frame was taken with: the sensor applies a gain write to the
// frame after the period in which it is written, and exposure updates come
// before a frame's attributes are filled in capture modes 1 to 3. So the
// trait latches the last written gain when it reads EXPINT (the first
// exposure query of a frame, in that frame's period): current_gain() and
// current_contrast() report that latched gain, the gain of the frame whose
// EXPINT was read, not a gain written since.
//
// Decisions where the engine's behaviour was open:
//  - set_starting_exposure_gain(exposure, contrast): automatic modes start
//    from the given contrast (the one the previous scan ended with), split
//    as update_contrast splits it; a contrast of 0 and the fixed modes
//    behave like the one-argument form.
//  - The exposure attribute is in microseconds and the gain attribute in
//    1/256 units (current_exposure, current_gain).
//  - trigger_once is refused: capture modes 6 and 7 deliver no frames on
//    this engine; modes 0, 2, 3, 4 and 5 stream.
//  - A failed power-up table write stops the power-up; the next scan's
//    power_on tries again.
#ifndef VQX_RILO_TRAIT_H
#define VQX_RILO_TRAIT_H

#include <cstdint>
#include <vector>

#include "IHwl.h"
#include "Register_burst.h"
#include "Register_table_file.h"
#include "Sensor_trait.h"

template <class Trait>
class Exposure_controller;

/// The Hi704A's initial register table: hi704a_init.regs, 8-bit registers
/// and values, register 1 first and last, 343 rows, selecting (register 3)
/// pages 0 and 0x20.
extern const Register_table_file rilo_init_table;

class Rilo_trait : public Sensor_trait {
public:
    using Controller = Exposure_controller<Rilo_trait>;

    static constexpr uint32_t expint_unknown = 0xFFFFFFFF;
    static constexpr unsigned min_exposure = 300, max_exposure = 13400;

    /// Rows (exposure counts) for @p us microseconds (Exposure_converter).
    static uint32_t exposure_rows(const Rilo_trait& trait, uint32_t us);
    /// The exposure value the sensor is given for @p rows (the table).
    static unsigned quantised_exposure(unsigned rows);
    /// Gain register for @p gain in 1/32 units.
    static uint8_t gain_register_of(unsigned gain);

    Rilo_trait(IHwl_rilo& hwl, Controller* controller, std::vector<Register_pair> init_table);
    ~Rilo_trait() override;

    // Sensor_trait
    void power_on() override;
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
    bool update_properties(VQX_SCANENGINE_PROPERTIES_EX& properties) override;

    bool power_up_init();
    /// EXPINT, read once per frame (0 when the read failed).
    uint32_t read_expint();
    /// Programs the quantised exposure for @p rows and @p gain (1/32).
    bool set_exposure_gain(unsigned rows, unsigned gain);
    /// Sleep bit: the read's result.
    bool set_sleep(bool sleep);
    /// End-of-frame callback registered with the hardware layer.
    static void eof(int handle, void* context);

private:
    bool select_page(uint8_t page);
    bool write8(uint8_t reg, uint8_t value);
    bool read8(uint8_t reg, uint8_t& value);
    void split(unsigned contrast, unsigned& rows, unsigned& gain_out) const;

    uint32_t expint = expint_unknown;
    uint32_t gain = 32;
    uint32_t frame_gain = 32;  ///< gain in force when EXPINT was read
    Controller* controller;
    Frame_callback client_callback = nullptr;
    void* client_context = nullptr;
    std::vector<Register_pair> init_table;
};

#endif // VQX_RILO_TRAIT_H
