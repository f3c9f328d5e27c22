// AR0144_trait on the simulated engine: the exposure and gain the trait
// reports for each delivered frame are the ones the sensor really used.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "AR0144_trait.h"
#include "Exposure_controller.h"
#include "Simulator.h"
#include "ar0144_fake.h"

namespace {

struct Seen {
    int handle;
    unsigned exposure, gain;
};

// Plays the stream driver's part for capture mode 0: per frame,
// exposure_frame() first, then the frame's attributes are read, then the
// exposure may be changed and the buffer is armed again.
struct Frame_loop {
    AR0144_trait* trait = nullptr;
    IHwl::Image_buffer_pointers* buffers = nullptr;
    uint64_t buffer_count = 0;
    std::vector<Seen> seen;
    unsigned writes = 0;

    static void on_frame(int handle, void* context)
    {
        Frame_loop& r = *static_cast<Frame_loop*>(context);
        if (handle == 0)
            return;
        r.trait->exposure_frame();
        r.seen.push_back({handle, r.trait->current_exposure(), r.trait->current_gain()});
        const unsigned k = static_cast<unsigned>(r.seen.size());
        if (k % 3 == 0 || k % 5 == 0) {  // every few frames, sometimes on adjacent ones
            r.trait->set_exposure_gain(40 + (k * 97) % 700, 431 + (k * 389) % 4000);
            ++r.writes;
        }
        for (uint64_t i = 0; i < r.buffer_count; ++i)
            if (r.buffers[i].handle == handle)
                r.trait->init_capture(&r.buffers[i]);
    }
};

TEST(AR0144_trait_sim, ReportedExposureIsWhatTheSensorUsed)
{
    vqxsim::Config config;
    config.real_time = false;
    config.render = vqxsim::Render_mode::none;
    config.buffers = 3;
    std::string error;
    std::unique_ptr<vqxsim::Simulator> sim = vqxsim::Simulator::create(config, &error);
    ASSERT_TRUE(sim) << error;

    Driver_scope scope(config.variant, 0);
    Exposure_controller<AR0144_trait> controller;
    AR0144_trait trait(*static_cast<IHwl_AR0144*>(sim->hwl()), &controller);
    controller.bind(&trait);
    ASSERT_TRUE(trait.power_up_init());
    EXPECT_EQ(AR0144_trait::lineTimeUs, 20u);

    Frame_loop run;
    run.trait = &trait;
    run.buffers = trait.get_image_buffers(run.buffer_count);
    ASSERT_TRUE(run.buffers);
    ASSERT_TRUE(trait.register_frame_notifications(&Frame_loop::on_frame, &run));
    ASSERT_TRUE(trait.start_scanning());
    for (uint64_t i = 0; i < run.buffer_count; ++i)
        ASSERT_TRUE(trait.init_capture(&run.buffers[i]));

    // Two streaming runs: the second starts from a new setting after a stop.
    unsigned contrast = 0;
    ASSERT_TRUE(trait.set_starting_exposure_gain(contrast));
    trait.trigger_on();
    EXPECT_EQ(sim->step(30), 30u);
    trait.trigger_off();
    EXPECT_FALSE(sim->streaming());
    ASSERT_TRUE(trait.set_exposure_gain(333, 2000));
    trait.trigger_on();
    EXPECT_EQ(sim->step(20), 20u);
    trait.trigger_off();
    trait.register_frame_notifications(nullptr, nullptr);

    std::vector<vqxsim::Frame_record> frames;
    for (const vqxsim::Frame_record& f : sim->frames())
        if (f.delivered)
            frames.push_back(f);
    ASSERT_EQ(frames.size(), run.seen.size());
    EXPECT_GT(run.writes, 15u);
    std::vector<unsigned> rows_seen;
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(run.seen[i].handle, frames[i].handle) << "frame " << i + 1;
        EXPECT_EQ(run.seen[i].exposure, frames[i].rows) << "frame " << i + 1;
        EXPECT_EQ(run.seen[i].gain, AR0144_trait::gain_of_code(frames[i].analog_gain_code)) << "frame " << i + 1;
        rows_seen.push_back(frames[i].rows);
    }
    EXPECT_EQ(rows_seen.at(30), 333u);  // the restart's setting shapes its first frames
    EXPECT_EQ(rows_seen.at(31), 333u);
}

} // namespace
