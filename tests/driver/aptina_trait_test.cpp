// The Aptina trait on its simulated sensor, beyond the trait conformance
// suite: its gain codes as its hardware layer receives them and the reports
// of the operations it leaves unimplemented.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "Aptina_trait.h"
#include "Exposure_controller.h"
#include "Hwl_logging.h"
#include "Simulator.h"
#include "test_scope.h"

namespace {

std::unique_ptr<vqxsim::Simulator> make(const char* engine)
{
    vqxsim::Config config;
    config.engine = engine;
    config.real_time = false;
    auto sim = vqxsim::Simulator::create(config);
    EXPECT_NE(nullptr, sim);
    return sim;
}

TEST(AptinaTrait, GainCodesAndRowsReachTheHardwareLayer)
{
    struct Row { unsigned rows, gain, layer_rows, code; double applied; };
    const Row rows[] = {
        {30000, 512, 25000, 16, 2.0},  // rows capped
        {0, 255, 1, 8, 1.0},           // 0 rows become 1; below 1x: code 8
        {100, 256, 100, 8, 1.0},
        {100, 1023, 100, 32, 4.0},
        {100, 1040, 100, 32, 4.0},
        {100, 1056, 100, 64 | 17, 4.25},
        {100, 2048, 100, 64 | 32, 8.0},
        {100, 4000, 100, 96, 8.0},
    };
    Driver_scope scope;
    auto sim = make("APTINA");
    Hwl_logging_aptina hwl(static_cast<IHwl_aptina*>(sim->hwl()));
    Exposure_controller<Aptina_trait> controller;
    Aptina_trait trait(hwl, Trait_context{&controller, nullptr, nullptr});
    controller.bind(&trait);
    hwl.ImagerPowerOn();
    for (const Row& r : rows) {
        SCOPED_TRACE("rows " + std::to_string(r.rows) + " gain " + std::to_string(r.gain));
        EXPECT_TRUE(trait.set_exposure_gain(r.rows, r.gain));
        EXPECT_EQ(r.layer_rows, sim->reg(0));
        EXPECT_EQ(r.code, sim->reg(1));
        EXPECT_EQ(0, sim->reg(2)) << "first argument";
        // The code's gain is the requested gain within one code step.
        const double wanted = std::max(r.gain, 256u) / 256.0;
        EXPECT_NEAR(wanted > 8 ? 8 : wanted, r.applied, r.applied / 16);
    }
    // No gain: the automatic step programs one row.
    controller.settings.mode = 2;
    controller.settings.max_gain = 0;
    unsigned contrast = 0;
    EXPECT_TRUE(trait.update_contrast(controller.settings.target_value, 51200, contrast));
    EXPECT_EQ(1u, sim->reg(0));
}

TEST(AptinaTrait, UnimplementedOperationsReportTheirNamesAndLines)
{
    Driver_scope scope;
    auto sim = make("APTINA");
    Hwl_logging_aptina hwl(static_cast<IHwl_aptina*>(sim->hwl()));
    Aptina_trait trait(hwl, Trait_context{});
    Output_capture out;
    uint64_t count = 0;
    Sensor_trait::Capabilities caps{sizeof caps, 7, 7, 7, 7, 7};
    trait.trigger_on();
    EXPECT_FALSE(trait.init_capture(nullptr));
    trait.get_capabilities(caps);
    EXPECT_EQ(nullptr, trait.get_image_buffers(count));
    EXPECT_FALSE(trait.register_frame_notifications(nullptr, nullptr));
    EXPECT_EQ(0u, trait.current_contrast());
    EXPECT_EQ(0u, trait.current_exposure());
    EXPECT_EQ(0u, trait.current_gain());
    EXPECT_EQ(7u, caps.width) << "record left as it is";
    const std::pair<const char*, unsigned> reports[] = {
        {"trigger_on", 50}, {"init_capture", 54}, {"get_capabilities", 78}, {"get_image_buffers", 83},
        {"register_frame_notifications", 89}, {"current_contrast", 94}, {"current_exposure", 99},
        {"current_gain", 105},
    };
    for (const auto& r : reports)
        EXPECT_EQ(1u, Output_capture::count(std::string("Unimplemented ") + r.first + " at jni/../../Sensor/Aptina_trait : " +
                                            std::to_string(r.second)))
            << r.first;
}

}  // namespace
