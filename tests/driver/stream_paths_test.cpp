// The stream driver's frame paths that no hardware layer produces on
// demand: an unread frame reclaimed for the next capture, refused
// transitions, and frame events it must tolerate (while stopped, without a
// buffer, unknown handle, out of order, partly written).
// Buffer supply while clients hold buffers, deferred and unconfirmed stops
// and stalls run end to end on the simulated engine (tests/misuse,
// tests/streams).
#include "stream_fixture.h"

#include <cstring>

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
