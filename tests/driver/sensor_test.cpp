// Sensor: exposure conformity, stop after image, starting exposure and the
// settings it applies.
#include "stream_fixture.h"

#include <cstring>

// Frames missing the target are discarded up to the tries limit; later
// misses are kept too (the count is not reset); a hit resets it.
TEST_F(Stream_test, ConformityDiscardsFramesUpToTheTriesLimit)
{
    exposure.conform_image = 1;
    exposure.conform_tries = 2;  // target 120, gap 40
    start(0);
    const struct { unsigned white; bool kept; unsigned count; } cases[] = {
        {10, false, 1}, {200, false, 2}, {10, true, 2}, {161, true, 2}, {80, true, 0}, {10, false, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.white);
        controller.white = c.white;
        ScanBufferInfo* frame = vstream().get_lock()->filling();
        ASSERT_NE(nullptr, frame);
        vsync(frame->pointers.handle);
        EXPECT_EQ(c.kept, available_now() == frame);
        EXPECT_EQ(c.kept ? 0u : 1u, frame->attributes.discarded);
        EXPECT_EQ(c.count, vsensor().get_lock()->get_nonconform_cnt());
        // A kept frame goes to the client and back; a withdrawn one went
        // back at once. Either way the next capture is armed.
        if (c.kept)
            client_unlock(client_take());
        EXPECT_NE(nullptr, vstream().get_lock()->filling());
    }
}

// Tries 0: a miss is kept at once. Target 10, gap 20: the lower bound would
// wrap, so nothing below the target misses; above it, 31 does. Exposure
// method below 2: the sampler gets no image and no frame is judged.
TEST_F(Stream_test, ConformityLimitsAndWrapAround)
{
    exposure.conform_image = 1;
    make_stream(0);
    // The exposure mode gates sampling and conformity (fixed modes 0 and 1:
    // neither); every sampling method of the automatic modes is checked.
    const struct { unsigned tries, target, gap, mode, method, white; bool kept; } cases[] = {
        {0, 120, 40, 2, 2, 0, true}, {5, 10, 20, 2, 2, 0, true}, {5, 10, 20, 2, 2, 30, true},
        {5, 10, 20, 2, 2, 31, false}, {5, 10, 20, 3, 0, 31, false}, {5, 10, 20, 2, 1, 31, false},
        {5, 10, 20, 1, 2, 31, true}, {5, 10, 20, 0, 0, 31, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.tries << " " << c.mode << " " << c.method << " " << c.white);
        exposure.conform_tries = c.tries;
        exposure.target_value = c.target;
        exposure.target_accept_gap = c.gap;
        exposure.mode = c.mode;
        exposure.exposure_method = c.method;
        controller.ae_sampler.image = controller.cs_sampler.image = nullptr;
        controller.image_at_sample = nullptr;
        controller.white = c.white;
        stop_and_drain();
        hwl.log.clear();
        ASSERT_TRUE(stream->start_scanning(lights, exposure, false));
        vsync(101);
        EXPECT_EQ(c.kept, available_now() == record(0));
        EXPECT_EQ(c.mode < 2, controller.image_at_sample.load() == nullptr);
        if (c.tries == 0) {
            EXPECT_EQ(1u, hwl.log.count("update_contrast(0,1000)"));  // the kept miss updates the exposure
        }
        client_unlock(client_take());
    }
}

TEST_F(Stream_test, StopAfterImageEndsTheScanAtTheFirstGoodFrame)
{
    start(0, true);
    vsync(101);
    EXPECT_NE(std::string::npos, calls().find("RequestStopScanning"));
    EXPECT_EQ(IStream_driver::STOPPED, state());
    EXPECT_EQ(0u, hwl.log.count_prefix("update_contrast"));  // no exposure update
    // The stop completed at once, yet the frame stays for the client; the
    // next stop of the stopped driver drops it.
    ScanBufferInfo* kept = vavailable().peek_available();
    ASSERT_NE(nullptr, kept);
    EXPECT_EQ(101, kept->pointers.handle);
    EXPECT_FALSE(stream->stop_scanning());
    EXPECT_EQ(nullptr, vavailable().peek_available());
}

// The first scan lets the trait choose its starting point; later scans start
// from the contrast the previous one ended with. The settings replace the
// controller's whole record.
TEST_F(Stream_test, StartingExposureCarriesTheLastContrast)
{
    exposure.target_value = 77;
    exposure.last_field = 1234;
    start(4);
    EXPECT_EQ(0, memcmp(&exposure, &controller.settings, sizeof exposure));
    EXPECT_EQ(1000u, vsensor().get_lock()->get_contrast());  // the trait's choice
    trait.next_contrast = 777;
    vsync(101);
    EXPECT_EQ(777u, vsensor().get_lock()->get_contrast());
    ASSERT_TRUE(stream->stop_scanning());
    calls();
    lights.scanning_mode = 3;
    ASSERT_TRUE(stream->start_scanning(lights, exposure, false));
    EXPECT_NE(std::string::npos,
              calls().find("change_lights(3) set_starting_exposure_gain(777) set_starting_exposure_gain "));
    EXPECT_EQ(1000u, vsensor().get_lock()->get_contrast());  // the base trait ignores the previous one
}

// A port may leave out the optional operations of the hardware layer: each
// then lets the driver go on as if it had succeeded (sessions open, scans
// start and stop, captures need no preparation), except InitCapture, which
// a streaming layer must provide.
TEST(HardwareLayerDefaults, OmittedOperationsLetTheDriverGoOn)
{
    Fake_hwl fake;
    IHwl& layer = fake;
    IHwl::Config config{};
    layer.IHwl::GetConfig(&config);
    EXPECT_EQ(3u, config.capture_mode);
    EXPECT_TRUE(layer.IHwl::OpenSession());
    EXPECT_TRUE(layer.IHwl::LoadCaptureInfo() && layer.IHwl::EnableVsyncProcessing());
    EXPECT_TRUE(layer.IHwl::StartScanning() && layer.IHwl::StopScanning());
    EXPECT_TRUE(layer.IHwl::RequestStopScanning(nullptr, nullptr));
    EXPECT_FALSE(layer.IHwl::InitCapture(1));
}
