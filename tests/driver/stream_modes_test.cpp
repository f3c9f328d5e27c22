// The trait and hardware-layer calls of a scan start, a stream of frames and
// a stop, in each capture mode.
#include "stream_fixture.h"

#include <cstring>

namespace {

const std::string first_start =
    "StartScanning initialize_scanning GetImageBuffers change_lights(5) set_starting_exposure_gain";
// A later start of the same sensor begins from the last contrast.
const std::string later_start =
    "StartScanning initialize_scanning GetImageBuffers change_lights(5) "
    "set_starting_exposure_gain(1000) set_starting_exposure_gain";
// A frame delivered at vsync: exposure frame, then the whole frame sampled.
const std::string sampled = "exposure_frame sample_reset(8,12) sample_pixels(12) sample_wv";
const std::string update = "update_contrast(100,1000)";
const std::string deinit = "trigger_off deinitialize_scanning StopScanning";

} // namespace

// Modes 0 and 5 arm the next capture as soon as a frame is delivered (the
// sensor streams on by itself), not when the client gives a buffer back.
TEST_F(Stream_test, Modes0And5ArmTheNextCaptureAtEachFrame)
{
    for (unsigned mode : {0u, 5u}) {
        SCOPED_TRACE(mode);
        start(mode);
        EXPECT_EQ((mode == 0 ? first_start : later_start) + " init_capture(101) trigger_on", calls());
        vsync(101);
        EXPECT_EQ("vsync(101) " + sampled + " " + update + " init_capture(102)", calls());
        EXPECT_EQ(hwl.frame(0), controller.image_at_sample.load());
        const _tagImageAttributes a = record(0)->attributes;
        const _tagImageAttributes expected = {40, 100, 10, 100, 255, height, width, a.frame_number, 0, 0, 0};
        EXPECT_EQ(0, memcmp(&expected, &a, sizeof a));

        ScanBufferInfo* got = client_take();
        ASSERT_EQ(record(0), got);
        EXPECT_EQ(ScanBufferInfo::CLIENT, got->owner);
        EXPECT_TRUE(client_unlock(got));
        EXPECT_EQ("ReleaseBuffer(101)", calls());  // a capture is armed already
        vsync(102);  // only every third frame updates the exposure
        EXPECT_EQ("vsync(102) " + sampled + " init_capture(101)", calls());
        EXPECT_EQ(a.frame_number + 1, record(1)->attributes.frame_number);

        EXPECT_TRUE(stream->stop_scanning());  // a capture is still armed
        EXPECT_EQ(IStream_driver::STOPPING, state());
        vsync(101);
        EXPECT_EQ("RequestStopScanning vsync(101) ReleaseBuffer(102) " + deinit + " ReleaseBuffer(101)", calls());
        EXPECT_EQ(IStream_driver::STOPPED, state());
        EXPECT_FALSE(stream->stop_scanning());
        expect_buffers_returned();
    }
}

// Mode 7 arms and triggers once per frame; an unread frame is replaced by
// the next and goes back to the hardware layer.
TEST_F(Stream_test, Mode7TriggersOncePerFrame)
{
    start(7);
    EXPECT_EQ(first_start + " init_capture(101) trigger_once", calls());
    vsync(101);
    EXPECT_EQ("vsync(101) " + sampled + " " + update + " init_capture(102) trigger_once", calls());
    vsync(102);
    EXPECT_EQ("vsync(102) ReleaseBuffer(101) " + sampled + " init_capture(101) trigger_once", calls());
    EXPECT_EQ(record(1), available_now());

    EXPECT_TRUE(stream->stop_scanning());  // a capture is still armed
    EXPECT_EQ(IStream_driver::STOPPING, state());
    EXPECT_TRUE(stream->stop_scanning());
    vsync(101);
    EXPECT_EQ("RequestStopScanning vsync(101) ReleaseBuffer(102) " + deinit + " ReleaseBuffer(101)", calls());
    EXPECT_EQ(IStream_driver::STOPPED, state());
}

// Mode 6 takes snapshots without fill buffers; mode 4 lets the hardware fill
// buffers on its own; mode 1 never triggers.
TEST_F(Stream_test, Modes6And4UseNoFillBuffersAndMode1NeverTriggers)
{
    start(6);
    EXPECT_EQ(first_start + " start_snapshot trigger_once", calls());
    vsync(101);
    EXPECT_EQ("vsync(101) " + sampled + " " + update + " start_snapshot trigger_once", calls());
    vsync(102);
    EXPECT_EQ("vsync(102) ReleaseBuffer(101) " + sampled + " start_snapshot trigger_once", calls());
    EXPECT_TRUE(stream->stop_scanning());
    vsync(103);
    EXPECT_EQ("RequestStopScanning vsync(103) ReleaseBuffer(102) " + deinit + " ReleaseBuffer(103)", calls());
    expect_buffers_returned();

    start(4);
    EXPECT_EQ(later_start + " trigger_on", calls());
    vsync(101);
    EXPECT_EQ("vsync(101) " + sampled + " " + update, calls());
    vsync(102);
    EXPECT_EQ("vsync(102) ReleaseBuffer(101) " + sampled, calls());
    EXPECT_TRUE(stream->stop_scanning());  // nothing pending: stops at once
    EXPECT_EQ("RequestStopScanning " + deinit + " ReleaseBuffer(102)", calls());

    start(1);
    EXPECT_EQ(later_start, calls());
    EXPECT_EQ(1u, Output_capture::count("This capture mode is not implemented."));
    EXPECT_EQ(IStream_driver::SCANNING, state());
}

// Mode 3 polls the buffer being filled; at two thirds of the frame it arms
// the next buffer and updates the exposure, and the vsync only samples the
// rest of the frame.
TEST_F(Stream_test, Mode3ArmsTheNextBufferAtTwoThirdsOfTheFrame)
{
    start(3);
    EXPECT_EQ(first_start + " init_capture(101) trigger_on", calls());
    const std::string inter_frame = "sample_reset(8,12) sample_pixels(8) sample_wv " + update;
    fill(0, 0x11);
    ASSERT_TRUE(wait_for_call(update));
    EXPECT_EQ("exposure_frame init_capture(102) " + inter_frame, calls());
    EXPECT_EQ(hwl.frame(0), controller.image_at_sample.load());
    vsync(101);
    EXPECT_EQ("vsync(101) sample_pixels(12) sample_wv", calls());
    EXPECT_EQ(record(0), available_now());

    fill(1, 0x22);
    ASSERT_TRUE(wait_for_call(update));
    EXPECT_EQ("exposure_frame init_capture(103) " + inter_frame, calls());
    vsync(102);
    EXPECT_EQ("vsync(102) ReleaseBuffer(101) sample_pixels(12) sample_wv", calls());

    EXPECT_TRUE(stream->stop_scanning());
    EXPECT_EQ(IStream_driver::STOPPING, state());
    vsync(103);
    EXPECT_EQ("RequestStopScanning vsync(103) ReleaseBuffer(102) " + deinit + " ReleaseBuffer(103)", calls());
}
