// Sensor_trait base behaviours, seen through a fake engine trait.
#include <gtest/gtest.h>

#include <cstring>

#include "Fake_trait.h"

namespace {

struct Trait_test : ::testing::Test {
    Trait_test() : trait((hwl.set_buffers(1, 640, 480), hwl)) {}
    Fake_hwl hwl;
    Fake_trait trait;
};

using Calls = std::vector<std::string>;

} // namespace

TEST_F(Trait_test, StartAndStopScanning)
{
    hwl.start_scanning_result = false;
    EXPECT_FALSE(trait.start_scanning());
    EXPECT_EQ(hwl.log.entries(), Calls{"StartScanning"});  // not initialised

    hwl.start_scanning_result = true;
    trait.initialize_result = false;
    EXPECT_FALSE(trait.start_scanning());
    EXPECT_FALSE(trait.is_scanning_initialised());
    trait.initialize_result = true;
    EXPECT_TRUE(trait.start_scanning());
    EXPECT_TRUE(trait.is_scanning_initialised());

    // The hardware layer's StopScanning answer is inverted on purpose.
    hwl.log.clear();
    EXPECT_FALSE(trait.stop_scanning());  // StopScanning returned true
    EXPECT_EQ(hwl.log.entries(), (Calls{"deinitialize_scanning", "StopScanning"}));
    EXPECT_FALSE(trait.is_scanning_initialised());
    hwl.stop_scanning_result = false;
    EXPECT_TRUE(trait.stop_scanning());
    trait.deinitialize_result = false;
    EXPECT_FALSE(trait.stop_scanning());
}

TEST_F(Trait_test, StallRetryAndStartingExposureDefaults)
{
    EXPECT_TRUE(trait.check_stall(0));
    EXPECT_EQ(hwl.log.entries(), (Calls{"trigger_off", "trigger_on"}));
    EXPECT_EQ(trait.GetMaxResumeTime(), 100u);

    // The two-argument form ignores its first argument.
    unsigned int a = 0, b = 0;
    trait.starting_contrast = 4321;
    trait.starting_result = false;
    EXPECT_FALSE(trait.set_starting_exposure_gain(a));
    EXPECT_FALSE(trait.set_starting_exposure_gain(999999u, b));
    EXPECT_EQ(a, 4321u);
    EXPECT_EQ(b, 4321u);
}

TEST_F(Trait_test, CapabilitiesCopyIsSizeLimited)
{
    struct { Sensor_trait::Capabilities caps; unsigned char tail[40]; } big;
    std::memset(&big, 0xEE, sizeof big);
    big.caps.size = 64;
    trait.get_capabilities(big.caps);
    EXPECT_EQ(big.caps.size, 32u);
    EXPECT_EQ(big.caps.width, 640u);
    EXPECT_EQ(big.caps.height, 480u);
    EXPECT_EQ(big.caps.width2, 640u);
    EXPECT_EQ(big.caps.height2, 480u);
    EXPECT_EQ(big.caps.flag, 1u);
    for (size_t i = 0; i < 32; ++i)
        EXPECT_EQ(big.tail[i], 0) << i;  // cleared up to the caller's 64 bytes
    EXPECT_EQ(big.tail[32], 0xEE);

    Sensor_trait::Capabilities small;
    std::memset(&small, 0xEE, sizeof small);
    small.size = 16;
    trait.get_capabilities(small);
    EXPECT_EQ(small.size, 16u);
    EXPECT_EQ(small.width, 640u);
    EXPECT_EQ(small.height, 480u);
    EXPECT_EQ(small.width2, 0xEEEEEEEEu);
}
