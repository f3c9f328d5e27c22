// Aptina_trait: the engine trait of the Aptina engines (engine type
// "APTINA").
//
// The Aptina engine's hardware layer programs exposure and the LEDs itself:
// the trait never touches sensor registers. It hands exposure rows and a
// gain code to the layer's SetExposureGain, converts microseconds to rows
// with the layer's RowTime (nanoseconds), and switches the LEDs with
// LedControlState. Much of the trait contract is not implemented for this
// engine on purpose: trigger_on, init_capture, get_capabilities,
// get_image_buffers, register_frame_notifications and the three current_*
// queries report "Unimplemented <name> at jni/../../Sensor/Aptina_trait :
// <line>" on every call and answer a neutral value (true, false, the
// record left as it is, null, nothing registered, 0). So the driver gets
// no capture buffers and no frame notifications from this engine: a scan
// starts and delivers no frames, and VQXSI_GetNewScan answers NULL when the
// scan counts as stalled.
//
// Gain codes (SetExposureGain's third argument) for a gain in 1/256 units:
// up to 255 gives 8; 256 to 1023 give (gain + 16) >> 5; 1024 to 1055 give
// 32; 1056 to 2048 give ((gain + 32) >> 6) | 64; above 2048 gives 96. Rows:
// 0 becomes 1, above 25000 becomes 25000. SetExposureGain's first argument
// is always 0. LedControlState gets 3 (LEDs on) while scanning with an
// illumination mode (2, 3, 4, 5, 7) and 0 (off) otherwise; what the layer
// does with these values is its own.
//
// Exposure: the shared contrast step, with the gain at ES_MAX_GAIN and the
// rows c / gain (at least 1, no limit); fixed modes program the
// fixed_exposure rows and ES_FIXED_GAIN.
//
// Threading: every operation runs with the sensor's monitor held (or
// during start-up).
#ifndef VQX_APTINA_TRAIT_H
#define VQX_APTINA_TRAIT_H

#include <cstdint>

#include "IHwl.h"
#include "Sensor_trait.h"

template <class Trait>
class Exposure_controller;

class Aptina_trait : public Sensor_trait {
public:
    using Controller = Exposure_controller<Aptina_trait>;

    /// Rows for @p us microseconds at the layer's row time (Exposure_converter).
    static uint32_t exposure_rows(const Aptina_trait& trait, uint32_t us);
    /// SetExposureGain's gain code for @p gain in 1/256 units.
    static uint16_t gain_code(unsigned gain);

    Aptina_trait(IHwl_aptina& hwl, Controller* controller);
    ~Aptina_trait() override;

    // Sensor_trait
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
    void get_capabilities(Capabilities& caps) override;
    IHwl::Image_buffer_pointers* get_image_buffers(uint64_t& count) override;
    bool register_frame_notifications(Frame_callback callback, void* context) override;
    unsigned int current_contrast() override;
    unsigned int current_exposure() override;
    unsigned int current_gain() override;
    bool update_properties(VQX_SCANENGINE_PROPERTIES_EX& properties) override;

    /// Hands @p rows (1..25000) and the code of @p gain to the layer; true
    /// whatever the layer answers.
    bool set_exposure_gain(unsigned rows, unsigned gain);

private:
    static void unimplemented(const char* name, unsigned line);

    IHwl_aptina& aptina;
    Controller* controller;
};

#endif // VQX_APTINA_TRAIT_H
