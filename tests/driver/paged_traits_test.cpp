// The MT9V022 and Rilo traits on their simulated sensors: what the engine
// harness cannot reach. The Rilo's exposure quantisation at the table's
// edges and its gain register, written through the page register; the
// MT9V022's clamped exposure and gain as the sensor holds them.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Exposure_controller.h"
#include "Hwl_logging.h"
#include "MT9V022_trait.h"
#include "Rilo_trait.h"
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

TEST(RiloTrait, ExposureIsQuantisedAndWrittenThroughThePage)
{
    struct Row { unsigned rows, gain, exposure, gain_register; };
    const Row rows[] = {
        {299, 16, 300, 0},        // below the table: its first entry; gain 16 and below: 0
        {300, 17, 300, 1},
        {375, 100, 470, 84},      // index 1
        {8780, 64, 8888, 48},     // the table's irregular step
        {13400, 271, 13400, 255}, // last entry; gain - 16 capped at 255
        {90000, 300, 13400, 255}, // above the table
    };
    Driver_scope scope;
    auto sim = make("RILO");
    Hwl_logging_rilo hwl(static_cast<IHwl_rilo*>(sim->hwl()));
    Exposure_controller<Rilo_trait> controller;
    Rilo_trait trait(hwl, &controller, {});
    controller.bind(&trait);
    hwl.ImagerPowerOn();
    for (const Row& r : rows) {
        SCOPED_TRACE("rows " + std::to_string(r.rows) + " gain " + std::to_string(r.gain));
        ASSERT_TRUE(trait.set_exposure_gain(r.rows, r.gain));
        // Page 0x20, registers 0x83-0x85 (high byte first) and 0xB0.
        const unsigned exposure = unsigned(sim->reg(0x2083)) << 16 | unsigned(sim->reg(0x2084)) << 8 | sim->reg(0x2085);
        EXPECT_EQ(r.exposure, exposure);
        EXPECT_EQ(r.gain_register, sim->reg(0x20B0));
        EXPECT_EQ(0xF1, sim->reg(0x0001)) << "page 0 untouched";
    }
}

TEST(MT9V022Trait, ExposureAndGainAreClampedToWhatTheSensorTakes)
{
    struct Row { unsigned rows, gain, sensor_rows, sensor_gain; };
    const Row rows[] = {
        {0, 100, 1, 64},
        {480, 16, 480, 16},
        {481, 15, 480, 16},
        {57, 32, 57, 32},
    };
    Driver_scope scope;
    auto sim = make("MT9V022");
    Hwl_logging_MT9V022 hwl(static_cast<IHwl_MT9V022*>(sim->hwl()));
    Exposure_controller<MT9V022_trait> controller;
    MT9V022_trait trait(hwl, &controller);
    controller.bind(&trait);
    hwl.ImagerPowerOn();
    for (const Row& r : rows) {
        SCOPED_TRACE("rows " + std::to_string(r.rows) + " gain " + std::to_string(r.gain));
        ASSERT_TRUE(trait.set_exposure_gain(r.rows, r.gain));
        EXPECT_EQ(r.sensor_rows, sim->reg(0x0B));
        EXPECT_EQ(r.sensor_gain, sim->reg(0x35));
        // What the trait will credit the frames with, once they come.
        for (int i = 0; i < 3; ++i)
            trait.exposure_frame();
        EXPECT_EQ(r.sensor_rows, trait.current_exposure());
        EXPECT_EQ(r.sensor_gain, trait.current_gain());
    }
}

}  // namespace
