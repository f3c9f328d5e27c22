// Stopping: deferred stops confirmed by the hardware layer or ended by the
// stall alarm, and the transitions that are refused.
#include "stream_fixture.h"

#include <future>

TEST_F(Stream_test, DeferredStopEndsWithTheHardwareConfirmation)
{
    hwl.request_stop_result = false;
    start(4);
    vsync(101);
    EXPECT_TRUE(stream->stop_scanning());
    EXPECT_EQ(IStream_driver::STOPPING, state());
    EXPECT_FALSE(stream->wait_for_stop_scanning(0));
    calls();

    // A new start waits for the confirmation, then starts.
    auto restart = std::async(std::launch::async, [this] { return stream->start_scanning(lights, exposure, false); });
    void* context = nullptr;
    Sensor_trait::Stop_callback confirm = trait.take_pending_stop(context);
    ASSERT_NE(nullptr, confirm);
    EXPECT_EQ(static_cast<void*>(stream.get()), context);
    confirm(context);
    ASSERT_TRUE(restart.get());
    const std::string log = calls();
    EXPECT_EQ(0u, log.find(std::string("trigger_off deinitialize_scanning StopScanning ReleaseBuffer(101) StartScanning"))) << log;
    EXPECT_EQ(IStream_driver::SCANNING, state());

    // A confirmation nobody waits for is reported and changes nothing.
    Stream_driver::complete_stop_scanning(stream.get());
    EXPECT_EQ(1u, Output_capture::count("scan_state() == STOPPING && deferred_stop_scanning"));
    EXPECT_EQ(IStream_driver::SCANNING, state());
}

// A stop the hardware layer never confirms is ended by the capture stall
// alarm (here before the first frame, after the trait's resume time).
TEST_F(Stream_test, UnconfirmedStopIsEndedByTheStallAlarm)
{
    trait.resume_ms = 5;
    hwl.request_stop_result = false;
    start(0);
    EXPECT_TRUE(stream->stop_scanning());
    EXPECT_TRUE(stream->wait_for_stop_scanning(2000));
    EXPECT_EQ(IStream_driver::STOPPED, state());
    EXPECT_EQ(0u, hwl.log.count_prefix("check_stall"));
    EXPECT_EQ(0u, vstream().get_lock()->get_pending_captures());
    void* context = nullptr;
    trait.take_pending_stop(context);  // the hardware never confirms
}

TEST_F(Stream_test, RefusedTransitions)
{
    make_stream(0);
    EXPECT_FALSE(stream->stop_scanning());
    EXPECT_TRUE(stream->wait_for_stop_scanning(0));
    hwl.start_scanning_result = false;  // the trait cannot start
    EXPECT_FALSE(stream->start_scanning(lights, exposure, false));
    EXPECT_EQ(IStream_driver::STOPPED, state());
    EXPECT_EQ(0u, hwl.log.count("GetImageBuffers"));

    hwl.start_scanning_result = true;
    ASSERT_TRUE(stream->start_scanning(lights, exposure, false));
    EXPECT_FALSE(stream->start_scanning(lights, exposure, false));
    EXPECT_FALSE(stream->wait_for_stop_scanning(0));
    EXPECT_EQ(1u, Output_capture::count("scan_state() != SCANNING @ jni/../Stream_driver"));
}
