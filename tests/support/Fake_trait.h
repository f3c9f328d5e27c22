// Fake_trait: a scriptable engine trait for driver unit tests.
//
// Implements every pure operation of Sensor_trait by recording it in the
// hardware layer's Call_log (lower-case names, e.g. "trigger_on",
// "init_capture(101)", "update_contrast(120,500)"); initialising,
// deinitialising and the starting exposure return settable results, the
// rest succeed (contrast 1000 = exposure 100 x gain 10). The snapshot, the
// frame's exposure point and the two-argument starting exposure
// ("set_starting_exposure_gain(e)") are recorded too, and the resume time is
// long enough that no stall alarm disturbs an exact call sequence.
// get_image_buffers and register_frame_notifications forward to the
// Fake_hwl as engine traits do; the other base behaviours (start/stop
// scanning, check_stall, release_buffer, ...) are inherited untouched, so
// their calls show up as the trait's and the hardware layer's entries in
// one log.
// Capabilities come from the Fake_hwl's geometry at construction (call
// set_buffers first).
#ifndef VQX_TESTS_FAKE_TRAIT_H
#define VQX_TESTS_FAKE_TRAIT_H

#include <atomic>

#include "Fake_hwl.h"
#include "Sensor_trait.h"

class Fake_trait : public Sensor_trait {
public:
    explicit Fake_trait(Fake_hwl& fake)
        : Sensor_trait(fake, Trait_context{}, layer_programmed), fake_hwl(fake), log(fake.log)
    {
    }

    bool initialize_scanning() override { log.record("initialize_scanning"); return initialize_result; }
    bool deinitialize_scanning() override { log.record("deinitialize_scanning"); return deinitialize_result; }
    void trigger_once() override { log.record("trigger_once"); }
    void trigger_on() override { log.record("trigger_on"); }
    bool init_capture(const IHwl::Image_buffer_pointers* buffer) override
    {
        log.record("init_capture(%d)", buffer != nullptr ? buffer->handle : 0);
        return true;
    }
    void trigger_off() override { log.record("trigger_off"); }
    bool set_starting_exposure_gain(unsigned int& contrast) override
    {
        log.record("set_starting_exposure_gain");
        contrast = starting_contrast;
        return starting_result;
    }
    bool set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast) override
    {
        log.record("set_starting_exposure_gain(%u)", exposure);
        return set_starting_exposure_gain(contrast);
    }
    void start_snapshot() override { log.record("start_snapshot"); }
    void exposure_frame() override { log.record("exposure_frame"); }
    unsigned int GetMaxResumeTime() override { return 60000; }
    bool update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast) override
    {
        log.record("update_contrast(%u,%u)", white, contrast);
        new_contrast = next_contrast;
        return true;
    }
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) override
    {
        log.record("change_lights(%u)", lighting.scanning_mode);
        return true;
    }
    IHwl::Image_buffer_pointers* get_image_buffers(uint64_t& count) override
    {
        return fake_hwl.GetImageBuffers(count);
    }
    bool register_frame_notifications(Frame_callback callback, void* context) override
    {
        return fake_hwl.RegisterVsyncNotification(callback, context);
    }
    unsigned int current_contrast() override { return 1000; }
    unsigned int current_exposure() override { return 100; }
    unsigned int current_gain() override { return 10; }
    bool update_properties(VQX_SCANENGINE_PROPERTIES_EX&) override { log.record("update_properties"); return true; }

    Fake_hwl& fake_hwl;
    Call_log& log;
    std::atomic<bool> initialize_result{true};
    std::atomic<bool> deinitialize_result{true};
    std::atomic<bool> starting_result{true};
    std::atomic<unsigned int> starting_contrast{1000};
    std::atomic<unsigned int> next_contrast{1000};
};

#endif
