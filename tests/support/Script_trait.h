// Script_trait: a Fake_trait that also records "start_snapshot" and the
// two-argument starting exposure ("set_starting_exposure_gain(c)"), and
// whose resume time is long enough that no stall alarm disturbs an exact
// call sequence.
//
// Script_controller records "sample_reset(w,h)", "sample_pixels(n)" and
// "sample_wv" and answers `white`; image_at_sample is the image the sampler
// of the exposure mode held at the last sample_pixels.
#ifndef VQX_TESTS_SCRIPT_TRAIT_H
#define VQX_TESTS_SCRIPT_TRAIT_H

#include <atomic>

#include "Exposure_controller.h"
#include "Fake_trait.h"

class Script_trait : public Fake_trait {
public:
    explicit Script_trait(Fake_hwl& fake) : Fake_trait(fake) {}

    void start_snapshot() override { log.record("start_snapshot"); }
    bool set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast) override
    {
        log.record("set_starting_exposure_gain(%u)", exposure);
        return Sensor_trait::set_starting_exposure_gain(exposure, contrast);
    }
    using Fake_trait::set_starting_exposure_gain;
    void exposure_frame() override { log.record("exposure_frame"); }
    unsigned int GetMaxResumeTime() override { return 60000; }
};

class Script_controller : public Exposure_controller_base {
public:
    explicit Script_controller(Call_log& calls) : log(calls) {}
    void sample_reset(unsigned w, unsigned h) override
    {
        log.record("sample_reset(%u,%u)", w, h);
        Exposure_controller_base::sample_reset(w, h);
    }
    void sample_pixels(unsigned rows) override
    {
        log.record("sample_pixels(%u)", rows);
        image_at_sample = settings.mode == 2 ? ae_sampler.image : cs_sampler.image;
    }
    unsigned sample_wv() override
    {
        log.record("sample_wv");
        return white;
    }
    Call_log& log;
    std::atomic<unsigned> white{100};
    std::atomic<const unsigned char*> image_at_sample{nullptr};
};

#endif
