// The stream driver's frame, buffer and stop paths: buffer supply when the
// client holds buffers, frame events it must tolerate (while stopped,
// without a buffer, unknown handle, out of order, partly written), deferred
// and refused stops, and stall detection with retries before the first
// frame and an immediate stall once frames have flowed.
#include "stream_fixture.h"

#include <cstring>
#include <future>

// While clients hold every buffer but one, each frame is taken back and the
// buffer armed again at once (the platform log says so, once); frames reach
// the client again when it gives a buffer back.
TEST_F(Stream_test, ScanResumesWhenTheClientFreesABuffer)
{
    start(0);
    ASSERT_TRUE(client_lock(1));
    ASSERT_TRUE(client_lock(2));
    calls();
    for (int i = 0; i < 2; ++i) {
        vsync(101);
        EXPECT_EQ(nullptr, available_now());
        EXPECT_EQ(record(0), vstream().get_lock()->filling());
    }
    EXPECT_EQ(2u, hwl.log.count("init_capture(101)"));
    EXPECT_EQ(1u, Output_capture::count("All image buffers but one are held by clients"));
    calls();
    EXPECT_TRUE(client_unlock(record(1)));  // two circulate again
    EXPECT_EQ("ReleaseBuffer(102)", calls());
    vsync(101);
    EXPECT_EQ(record(0), available_now());
    EXPECT_EQ(1u, Output_capture::count("A buffer is back"));
    EXPECT_TRUE(client_unlock(client_take()));
    EXPECT_TRUE(client_unlock(record(2)));
}

// With fewer than two buffers circulating, a frame nobody can take is
// withdrawn so that the driver keeps a buffer to capture into.
TEST_F(Stream_test, FrameIsWithdrawnWhenBuffersRunOut)
{
    start(7);
    vsync(101);
    ScanBufferInfo* held = client_take();
    ASSERT_TRUE(client_lock(2));
    calls();
    vsync(102);
    // Withdrawn and recaptured at once; the frame's own next capture then
    // finds no buffer and triggers nothing.
    EXPECT_EQ("vsync(102) exposure_frame sample_reset(8,12) sample_pixels(12) sample_wv "
              "ReleaseBuffer(102) init_capture(102) trigger_once",
              calls());
    EXPECT_EQ(nullptr, available_now());
    EXPECT_TRUE(client_unlock(held));
    EXPECT_TRUE(client_unlock(record(2)));
}

// With no free buffer left, the unread completed frame is taken back and
// refilled rather than letting the scan stall.
TEST_F(Stream_test, UnreadFrameIsReclaimedForTheNextCapture)
{
    start(3);
    ASSERT_TRUE(client_lock(2));
    fill(0, 0x11);
    ASSERT_TRUE(wait_for_call("update_contrast(100,1000)"));
    vsync(101);
    EXPECT_EQ(record(0), available_now());
    calls();
    fill(1, 0x22);
    ASSERT_TRUE(wait_for_call("update_contrast(100,1000)"));
    EXPECT_EQ("exposure_frame init_capture(101) sample_reset(8,12) sample_pixels(8) sample_wv "
              "update_contrast(100,1000)",
              calls());
    EXPECT_EQ(nullptr, available_now());
    EXPECT_EQ(record(0), vstream().get_lock()->prefill());
    EXPECT_TRUE(record(0)->lock_cnt == 1 && record(0)->owner == ScanBufferInfo::SCANDRIVER);
    EXPECT_TRUE(client_unlock(record(2)));
}

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
    // Retries only while the scan still ran (a slow machine may let the
    // first one in before the stop); a stopping scan never retries.
    const size_t retries = hwl.log.count_prefix("check_stall");
    EXPECT_TRUE(stream->wait_for_stop_scanning(2000));
    EXPECT_EQ(IStream_driver::STOPPED, state());
    EXPECT_EQ(retries, hwl.log.count_prefix("check_stall"));
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

TEST_F(Stream_test, StallBeforeTheFirstFrameRetriesThreeTimes)
{
    trait.resume_ms = 5;
    start(0);
    // A client waiting for a frame is woken by the stall, not by its 30 s
    // time-out.
    auto waiting = std::async(std::launch::async, [this] { return vavailable().get_available(true); });
    ASSERT_TRUE(wait_until([this] { return stalled(); }));
    // The retries may begin before this thread looks, so they are read as
    // the tail of everything since the start.
    const std::string retries = "check_stall(2) trigger_off trigger_on check_stall(1) trigger_off trigger_on "
                                "check_stall(0) trigger_off trigger_on";
    EXPECT_EQ(3u, hwl.log.count_prefix("check_stall"));
    const std::string log = calls();
    ASSERT_GE(log.size(), retries.size()) << log;
    EXPECT_EQ(retries, log.substr(log.size() - retries.size()));
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(nullptr, waiting.get());
    EXPECT_EQ(IStream_driver::SCANNING, state());  // until the session stops it
    EXPECT_TRUE(vsensor().stalled());

    // A trait that gives up ends the retries at once.
    trait.check_stall_result = false;
    stop_and_drain();
    hwl.log.clear();
    ASSERT_TRUE(stream->start_scanning(lights, exposure, false));
    ASSERT_TRUE(wait_until([this] { return stalled(); }));
    EXPECT_EQ(1u, hwl.log.count_prefix("check_stall"));
    EXPECT_EQ(1u, hwl.log.count("check_stall(2)"));
}

// After a frame the stall alarm is 2000 ms away, and the first stall ends
// the flow without any check_stall.
TEST_F(Stream_test, StallAfterFramesHaveFlowedIsImmediate)
{
    start(0);
    vsync(101);
    calls();
    EXPECT_FALSE(stalled());
    ASSERT_TRUE(wait_until([this] { return stalled(); }, 5000));
    EXPECT_EQ("", calls());
    ScanBufferInfo* got = client_take();  // the frame is still there
    ASSERT_EQ(record(0), got);
    EXPECT_TRUE(client_unlock(got));
}

// Frame events the driver must tolerate: while stopped, without a buffer
// (modes 6 and 7 still arm the next capture and trigger once), with an
// unknown handle (reported, returned, the armed buffer kept), and a frame
// whose last rows were never written (delivered all the same).
TEST_F(Stream_test, VsyncWhileStoppedWithoutBufferOrUnknown)
{
    make_stream(0);
    hwl.log.clear();
    vsync(102);  // stopped: the buffer goes straight back
    EXPECT_EQ("vsync(102) ReleaseBuffer(102)", calls());
    EXPECT_EQ(IStream_driver::STOPPED, state());

    start(0);
    calls();
    vsync(0);
    EXPECT_EQ("vsync(0)", calls());
    EXPECT_EQ(nullptr, available_now());
    vsync(999);
    EXPECT_EQ("vsync(999) ReleaseBuffer(999)", calls());
    EXPECT_EQ(1u, Output_capture::count("Assertion: p_info @ jni/../Stream_driver"));
    EXPECT_EQ(record(0), vstream().get_lock()->filling());
    EXPECT_EQ(1u, vstream().get_lock()->get_pending_captures());
    memset(hwl.frame(0), 0x33, width * 5);
    vsync(101);
    EXPECT_EQ(record(0), available_now());
    EXPECT_TRUE(client_unlock(client_take()));

    stop_and_drain();
    start(7);
    calls();
    vsync(0);
    EXPECT_EQ("vsync(0) init_capture(102) trigger_once", calls());
    EXPECT_EQ(nullptr, available_now());
    EXPECT_EQ(1u, Output_capture::count("Assertion"));
}

// An event naming a buffer that is not armed (a repeated event that comes
// after the client gave the frame back) captured nothing: it is ignored, and
// the capture in flight goes on. A frame out of arming order is reported;
// the buffer that was being filled goes back to the hardware layer instead
// of staying locked, and the named buffer leaves the captures in flight (a
// late duplicate event for the buffer armed next must not leave it both
// waiting and being filled).
TEST_F(Stream_test, VsyncOutOfOrderReleasesTheBufferBeingFilled)
{
    start(0);
    calls();
    vsync(102);
    EXPECT_EQ("vsync(102)", calls());
    EXPECT_EQ(nullptr, available_now());
    EXPECT_EQ(record(0), vstream().get_lock()->filling());
    EXPECT_EQ(1u, vstream().get_lock()->get_pending_captures());
    vsync(101);
    EXPECT_EQ(record(0), available_now());
    EXPECT_TRUE(client_unlock(client_take()));
    stop_and_drain();

    start(3);
    fill(0, 0x11);  // the inter-frame point arms the next buffer
    ASSERT_TRUE(wait_for_call("update_contrast(100,1000)"));
    ASSERT_EQ(record(1), vstream().get_lock()->prefill());
    calls();
    vsync(102);
    EXPECT_EQ(1u, Output_capture::count("pFilling->pointers.handle == buffer"));
    EXPECT_EQ(record(1), available_now());
    EXPECT_EQ(1u, hwl.log.count("ReleaseBuffer(101)"));
    // 102 is no longer being filled; 101 went back and is armed again at
    // once as the one capture in flight.
    EXPECT_EQ(record(0), vstream().get_lock()->filling());
    EXPECT_EQ(nullptr, vstream().get_lock()->prefill());
    EXPECT_EQ(1u, vstream().get_lock()->get_pending_captures());
    EXPECT_EQ(1u, tracker.tracked());
    EXPECT_EQ(1u, record(0)->lock_cnt);
    // The frame goes to the client and comes back; the scan goes on.
    ScanBufferInfo* frame = client_take();
    ASSERT_EQ(record(1), frame);
    calls();
    EXPECT_TRUE(client_unlock(frame));
    EXPECT_EQ("ReleaseBuffer(102)", calls());
}
