// End to end through the C interface on the simulated engine: the frame
// flow, buffer ownership between client and driver, several sessions on one
// engine, and single frames.
#include "api_support.h"

#include <cerrno>
#include <memory>
#include <vector>

namespace api_test {
namespace {

class ScanFlow : public Api_test {};

unsigned frame_bytes(VQXSI_HANDLE h)
{
    VQX_SCANENGINE_PROPERTIES_EX p;
    EXPECT_EQ(1, VQXSI_GetScanEnginePropertiesEx(h, &p, sizeof p));
    return p.image_width * p.image_height;
}

TEST_F(ScanFlow, OpenStartGetUnlockStopClose)
{
    Session s;
    ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(s));
    const unsigned bytes = frame_bytes(s);
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
}

TEST_F(ScanFlow, StartsNestAndTheLastStopReclaimsHeldFrames)
{
    Session s;
    ASSERT_EQ(1, VQXSI_StartScanning(s));
    ASSERT_EQ(1, VQXSI_StartScanning(s));
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    // Still scanning after the inner stop.
    void* held = VQXSI_GetNewScan(s);
    ASSERT_NE(nullptr, held);
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    // The last stop took the frame back from the client.
    EXPECT_EQ(0, VQXSI_UnlockBuffer(s, held));
    EXPECT_EQ(0, VQXSI_StopScanning(s));
}

TEST_F(ScanFlow, ClosingWhileScanningGivesEveryBufferBack)
{
    auto s = std::make_unique<Session>();
    ASSERT_EQ(1, VQXSI_StartScanning(*s));
    void* held = VQXSI_GetNewScan(*s);
    ASSERT_NE(nullptr, held);
    EXPECT_GT(buffers_out(), 0u);
    s.reset();  // closes without stopping and without giving the frame back
    EXPECT_TRUE(wait_until([] { return buffers_out() == 0; }, 1000));
    EXPECT_TRUE(wait_until([] { return !sim().streaming(); }, 1000));

    // The engine scans again for the next session.
    Session next;
    ASSERT_EQ(1, VQXSI_StartScanning(next));
    void* frame = VQXSI_GetNewScan(next);
    ASSERT_NE(nullptr, frame);
    EXPECT_EQ(1, VQXSI_UnlockBuffer(next, frame));
    EXPECT_EQ(1, VQXSI_StopScanning(next));
}

TEST_F(ScanFlow, TwoSessionsShareTheEngine)
{
    Session a, b;
    ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(a));
    ASSERT_NE(nullptr, static_cast<VQXSI_HANDLE>(b));
    ASSERT_NE(static_cast<VQXSI_HANDLE>(a), static_cast<VQXSI_HANDLE>(b));

    ASSERT_EQ(1, VQXSI_StartScanning(a));
    ASSERT_EQ(1, VQXSI_StartScanning(b));
    for (VQXSI_HANDLE h : {static_cast<VQXSI_HANDLE>(a), static_cast<VQXSI_HANDLE>(b)}) {
        void* frame = VQXSI_GetNewScan(h);
        ASSERT_NE(nullptr, frame);
        EXPECT_EQ(1, VQXSI_UnlockBuffer(h, frame));
    }
    // A's stop leaves B's scan running.
    EXPECT_EQ(1, VQXSI_StopScanning(a));
    EXPECT_EQ(nullptr, VQXSI_GetNewScan(a));
    for (int i = 0; i < 3; ++i) {
        void* frame = VQXSI_GetNewScan(b);
        ASSERT_NE(nullptr, frame);
        EXPECT_EQ(1, VQXSI_UnlockBuffer(b, frame));
    }
    EXPECT_TRUE(sim().streaming());
    EXPECT_EQ(1, VQXSI_StopScanning(b));
    EXPECT_TRUE(wait_until([] { return !sim().streaming(); }, 1000));

    // Closing one session leaves the other usable.
    a.close();
    ASSERT_EQ(1, VQXSI_StartScanning(b));
    void* frame = VQXSI_GetNewScan(b);
    ASSERT_NE(nullptr, frame);
    EXPECT_EQ(1, VQXSI_UnlockBuffer(b, frame));
    EXPECT_EQ(1, VQXSI_StopScanning(b));
}

TEST_F(ScanFlow, SingleFrameLeavesAScanLockThatKeepsTheFrameAfterStop)
{
    Session s;
    void* frame = VQXSI_GetSingleFrame(s);
    ASSERT_NE(nullptr, frame);
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    // The extra scan lock keeps the frame with the client after the stop.
    EXPECT_EQ(1, VQXSI_UnlockBuffer(s, frame));
    EXPECT_EQ(0, VQXSI_UnlockBuffer(s, frame));

    // A second single frame, kept: closing the session reclaims it.
    void* kept = VQXSI_GetSingleFrame(s);
    ASSERT_NE(nullptr, kept);
    EXPECT_EQ(1, VQXSI_StopScanning(s));
    s.close();
    EXPECT_TRUE(wait_until([] { return buffers_out() == 0; }, 1000));
}

TEST_F(ScanFlow, NullHandles)
{
    errno = 0;
    EXPECT_EQ(nullptr, VQXSI_GetNewScan(nullptr));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(nullptr, VQXSI_GetSingleFrame(nullptr));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(0, VQXSI_StartScanning(nullptr));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(0, VQXSI_StopScanning(nullptr));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(0, VQXSI_UnlockBuffer(nullptr, nullptr));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(0, VQXSI_SetExposureMode(nullptr, 0));
    EXPECT_EQ(EINVAL, errno);
    VQX_SCANNER_LIGHTING lights{28, 0, 0, 0, 0, 0, 0};
    errno = 0;
    EXPECT_EQ(0, VQXSI_SetLights(nullptr, &lights));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(0, VQXSI_GetLights(nullptr, &lights));
    EXPECT_EQ(EINVAL, errno);
    uint32_t pairs[2] = {ES_TARGET_VALUE, 0};
    errno = 0;
    EXPECT_EQ(0, VQXSI_SetExposureSettings(nullptr, pairs, sizeof pairs));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(0, VQXSI_GetExposureSettings(nullptr, pairs, sizeof pairs));
    EXPECT_EQ(EINVAL, errno);
    VQX_SCANENGINE_PROPERTIES_EX p;
    errno = 0;
    EXPECT_EQ(0, VQXSI_GetScanEnginePropertiesEx(nullptr, &p, sizeof p));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(0, VQXSI_GetSleepTimeout(nullptr, nullptr));
    EXPECT_EQ(EINVAL, errno);
    VQXSI_CloseSessionWithScanEngine(nullptr);

    char revision[6];
    EXPECT_EQ(1, VQXSI_GetScanDriverRevision(nullptr, revision));
    EXPECT_STREQ("2.138", revision);
    EXPECT_STREQ("Revision: 2.138", VQXSI_RevisionString());

    // Null records on a real session are refused too.
    Session s;
    errno = 0;
    EXPECT_EQ(0, VQXSI_SetLights(s, nullptr));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(0, VQXSI_GetSleepTimeout(s, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(1, VQXSI_GetScanEnginePropertiesEx(s, nullptr, 0));
}

} // namespace
} // namespace api_test
