// Rilo_trait: the engine trait of the Rilo engine (engine type "RILO", a
// Hi704A sensor).
//
// 8-bit registers on pages selected through register 3, one register per
// transfer; the initial register table is device data read from a file at
// start-up. Exposure is written from a table of 88 steps; what a frame was
// taken with is read back from the sensor (EXPINT), once per frame. The
// hardware layer switches the lights while scanning. docs/engines/RILO.md
// describes the engine.
//
// Threading: eof runs on the hardware layer's thread and takes the sensor's
// monitor after the driver's callback; every other operation runs with it
// held (or during start-up).
#ifndef VQX_RILO_TRAIT_H
#define VQX_RILO_TRAIT_H

#include <cstdint>
#include <vector>

#include "IHwl.h"
#include "Lights.h"
#include "Register_burst.h"
#include "Register_table_file.h"
#include "Sensor_trait.h"

/// The Hi704A's initial register table: hi704a_init.regs, 8-bit registers
/// and values, register 1 first and last, 343 rows, selecting (register 3)
/// pages 0 and 0x20.
extern const Register_table_file rilo_init_table;

class Rilo_trait : public Sensor_trait {
public:
    static constexpr uint32_t expint_unknown = 0xFFFFFFFF;
    static constexpr unsigned min_exposure = 300, max_exposure = 13400;

    /// Rows (exposure counts) for @p us microseconds (Exposure_converter).
    static uint32_t exposure_rows(const Rilo_trait& trait, uint32_t us);
    /// The exposure value the sensor is given for @p rows (the table).
    static unsigned quantised_exposure(unsigned rows);
    /// Gain register for @p gain in 1/32 units.
    static uint8_t gain_register_of(unsigned gain);

    Rilo_trait(IHwl_rilo& hwl, const Trait_context& context, std::vector<Register_pair> init_table);
    ~Rilo_trait() override;

    // Sensor_trait
    void power_on() override;
    bool initialize_scanning() override;
    bool deinitialize_scanning() override;
    void trigger_once() override;
    void trigger_on() override;
    bool init_capture(const IHwl::Image_buffer_pointers* buffer) override;
    void trigger_off() override;
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) override;
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

protected:
    bool program(const Exposure_point& point) override;

private:
    uint32_t expint = expint_unknown;
    uint32_t gain = 32;
    uint32_t frame_gain = 32;  ///< gain in force when EXPINT was read
    Lights lights;
    Frame_callback client_callback = nullptr;
    void* client_context = nullptr;
    std::vector<Register_pair> init_table;
};

#endif // VQX_RILO_TRAIT_H
