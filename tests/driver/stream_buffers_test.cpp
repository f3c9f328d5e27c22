// Buffer supply of the scan: every buffer with the client, recycling when
// buffers run short, and reclaiming an unread frame.
#include "stream_fixture.h"

TEST_F(Stream_test, ScanResumesWhenTheClientFreesABuffer)
{
    start(0);
    vsync(101);
    ScanBufferInfo* first = client_take();
    ASSERT_EQ(record(0), first);
    ASSERT_TRUE(client_lock(1));
    ASSERT_TRUE(client_lock(2));
    calls();
    // Every buffer is with the client: a waiting client gives up at once and
    // no capture can be armed, so nothing is triggered.
    EXPECT_EQ(nullptr, vavailable().get_available(true));
    stream->buffer_free();
    EXPECT_EQ("", calls());

    EXPECT_TRUE(client_unlock(record(1)));
    EXPECT_EQ("ReleaseBuffer(102) init_capture(102) trigger_on", calls());
    EXPECT_TRUE(client_unlock(record(2)));  // two circulating: frames are kept
    vsync(102);
    EXPECT_EQ(record(1), available_now());
    EXPECT_TRUE(client_unlock(first));
    EXPECT_FALSE(client_unlock(record(2)));  // already unlocked
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
