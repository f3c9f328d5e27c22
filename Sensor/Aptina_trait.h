// Aptina_trait: the engine trait of the Aptina engines (engine type
// "APTINA").
//
// The engine's hardware layer programs exposure and the LEDs itself: the
// trait hands rows and a gain code to SetExposureGain, converts microseconds
// with the layer's RowTime and switches the LEDs with LedControlState. It
// arms no capture and registers no frame notification, so a scan delivers no
// frames; the operations it leaves out report "Unimplemented <name> at
// jni/../../Sensor/Aptina_trait : <line>". docs/engines/APTINA.md describes
// the engine.
//
// Threading: every operation runs with the sensor's monitor held (or during
// start-up).
#ifndef VQX_APTINA_TRAIT_H
#define VQX_APTINA_TRAIT_H

#include <cstdint>

#include "IHwl.h"
#include "Sensor_trait.h"

class Aptina_trait : public Sensor_trait {
public:
    /// Rows for @p us microseconds at the layer's row time (Exposure_converter).
    static uint32_t exposure_rows(const Aptina_trait& trait, uint32_t us);
    /// SetExposureGain's gain code for @p gain in 1/256 units.
    static uint16_t gain_code(unsigned gain);

    Aptina_trait(IHwl_aptina& hwl, const Trait_context& context);
    ~Aptina_trait() override;

    // Sensor_trait
    bool initialize_scanning() override;
    bool deinitialize_scanning() override;
    void trigger_once() override;
    void trigger_on() override;
    bool init_capture(const IHwl::Image_buffer_pointers* buffer) override;
    void trigger_off() override;
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) override;
    void get_capabilities(Capabilities& caps) override;
    IHwl::Image_buffer_pointers* get_image_buffers(uint64_t& count) override;
    bool register_frame_notifications(Frame_callback callback, void* context) override;
    unsigned int current_contrast() override;
    unsigned int current_exposure() override;
    unsigned int current_gain() override;

    /// Hands @p rows (1..25000) and the code of @p gain to the layer; true
    /// whatever the layer answers.
    bool set_exposure_gain(unsigned rows, unsigned gain);

protected:
    bool program(const Exposure_point& point) override;
    bool program_start(const Exposure_point& point) override;
    unsigned row_limit() override;

private:
    static void unimplemented(const char* name, unsigned line);

    IHwl_aptina& aptina;
};

#endif // VQX_APTINA_TRAIT_H
