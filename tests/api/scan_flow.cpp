// End to end through the C interface on the simulated engine: the frame
// flow, buffer ownership between client and driver, several sessions on one
// engine, and single frames. (Null handles, nested starts and record sizes
// are the misuse suite's subject.)
#include "api_support.h"

#include <vector>

namespace api_test {
namespace {

class ScanFlow : public Api_test {};

// One frame taken and given back; false when none came.
bool one_frame(VQXSI_HANDLE h)
{
    void* frame = VQXSI_GetNewScan(h);
    return frame && VQXSI_UnlockBuffer(h, frame) == 1;
}

TEST_F(ScanFlow, OpenStartGetUnlockStopCloseAndSingleFrames)
{
    Session s;
    ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(s));
    VQX_SCANENGINE_PROPERTIES_EX p;
    ASSERT_EQ(1, VQXSI_GetScanEnginePropertiesEx(s, &p, sizeof p));
    const unsigned bytes = p.image_width * p.image_height;
    ASSERT_GT(bytes, 0u);

    // Not scanning: no frame, at once, and nothing to stop.
    EXPECT_EQ(nullptr, VQXSI_GetNewScan(s));
    EXPECT_EQ(0, VQXSI_StopScanning(s));

    ASSERT_EQ(1, VQXSI_StartScanning(s));
    const uint64_t delivered_before = sim().counters().frames_delivered;
    std::vector<void*> seen;
    for (int i = 0; i < 6; ++i) {
        void* frame = VQXSI_GetNewScan(s);
        ASSERT_NE(nullptr, frame) << "frame " << i;
        const unsigned char* pixels = static_cast<const unsigned char*>(frame);
        volatile unsigned char edge = pixels[0] ^ pixels[bytes - 1];  // the whole frame is readable
        (void)edge;
        EXPECT_EQ(1, VQXSI_UnlockBuffer(s, frame));
        EXPECT_EQ(0, VQXSI_UnlockBuffer(s, frame)) << "a frame is given back once";
        seen.push_back(frame);
    }
    EXPECT_GE(sim().counters().frames_delivered - delivered_before, 6u);
    EXPECT_EQ(0, VQXSI_UnlockBuffer(s, &seen)) << "not a frame of the driver";
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    EXPECT_EQ(0, VQXSI_StopScanning(s));
    EXPECT_EQ(nullptr, VQXSI_GetNewScan(s));

    // A single frame leaves an extra scan lock that keeps it with the client
    // after the stop.
    void* frame = VQXSI_GetSingleFrame(s);
    ASSERT_NE(nullptr, frame);
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    EXPECT_EQ(1, VQXSI_UnlockBuffer(s, frame));
    EXPECT_EQ(0, VQXSI_UnlockBuffer(s, frame));
    // A second single frame, kept: closing the session reclaims it.
    ASSERT_NE(nullptr, VQXSI_GetSingleFrame(s));
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    s.close();
    EXPECT_TRUE(wait_until([] { return buffers_out() == 0; }, 1000));
}

TEST_F(ScanFlow, TwoSessionsShareTheEngineAndACloseWhileScanningGivesEveryBufferBack)
{
    Session a, b;
    ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(a));
    ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(b));
    ASSERT_NE(static_cast<VQXSI_HANDLE>(a), static_cast<VQXSI_HANDLE>(b));

    ASSERT_EQ(1, VQXSI_StartScanning(a));
    ASSERT_EQ(1, VQXSI_StartScanning(b));
    EXPECT_TRUE(one_frame(a));
    EXPECT_TRUE(one_frame(b));
    // A's stop leaves B's scan running.
    EXPECT_EQ(1, VQXSI_StopScanning(a));
    EXPECT_EQ(nullptr, VQXSI_GetNewScan(a));
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(one_frame(b)) << "frame " << i;
    EXPECT_TRUE(sim().streaming());
    EXPECT_EQ(1, VQXSI_StopScanning(b));
    EXPECT_TRUE(wait_until([] { return !sim().streaming(); }, 1000));

    // Closing one session leaves the other usable.
    a.close();
    ASSERT_EQ(1, VQXSI_StartScanning(b));
    EXPECT_TRUE(one_frame(b));

    // Closed without stopping and without giving the frame back.
    ASSERT_NE(nullptr, VQXSI_GetNewScan(b));
    EXPECT_GT(buffers_out(), 0u);
    b.close();
    EXPECT_TRUE(wait_until([] { return buffers_out() == 0; }, 1000));
    EXPECT_TRUE(wait_until([] { return !sim().streaming(); }, 1000));

    // The engine scans again for the next session.
    Session next;
    ASSERT_EQ(1, VQXSI_StartScanning(next));
    EXPECT_TRUE(one_frame(next));
    EXPECT_EQ(1, VQXSI_StopScanning(next));
}

} // namespace
} // namespace api_test
