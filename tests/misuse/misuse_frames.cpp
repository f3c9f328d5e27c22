// Misuse of the frame functions: VQXSI_GetNewScan and VQXSI_UnlockBuffer.
#include <algorithm>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Output_capture.h"
#include "misuse_support.h"

namespace misuse {
namespace {

using robust::snapshot;

TEST_F(Misuse_test, GetNewScan)
{
    Session s;
    // Not scanning: null at once, errno untouched.
    mark_errno();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(VQXSI_GetNewScan(s), nullptr);
    EXPECT_LT(elapsed_ms(start), 1000);
    EXPECT_EQ(errno, 12345);

    // Frames flow; a frame is owned by the client until it is given back.
    void* frame = first_frame(s);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(snapshot().buffers.held, 1u);
    EXPECT_EQ(VQXSI_UnlockBuffer(s, frame), 1);
    for (int i = 0; i < 10; ++i) {
        frame = VQXSI_GetNewScan(s);
        ASSERT_NE(frame, nullptr);
        EXPECT_TRUE(ledger().mark_handed(frame));
        EXPECT_EQ(VQXSI_UnlockBuffer(s, frame), 1);
    }

    // After the last stop the session is not scanning any more.
    ASSERT_EQ(VQXSI_StopScanning(s), 1);
    EXPECT_EQ(VQXSI_GetNewScan(s), nullptr);
}

// Deterministic: every step waits on state it can see (frames held back or
// let through by the simulator, the stream's state and stall read from the
// driver), each wait bounded. Real time remains only in the driver's own
// bounds (the 2000 ms gap, the 150 ms retries against frames every 5 ms);
// the time limits checked only tell the stall's answer from the 30 s
// time-out, the one other end of a wait, since a stalled scan has no alarm
// left and no frame can come.
TEST_F(Misuse_test, GetNewScanGivesUpOnAStalledStream)
{
    const auto stopped = [] { return snapshot().stream == IStream_driver::STOPPED; };
    Session s;
    void* frame = first_frame(s);
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(VQXSI_UnlockBuffer(s, frame), 1);

    // Frames stop after having flowed: the waiting client is released by the
    // stall alarm (2000 ms after the last frame), not by the 30 s time-out.
    hold_frames(true);
    const auto start = std::chrono::steady_clock::now();
    void* got = nullptr;
    for (int i = 0; i < 10 && (got = VQXSI_GetNewScan(s)) != nullptr; ++i)
        VQXSI_UnlockBuffer(s, got);  // frames filled before the stall
    EXPECT_EQ(got, nullptr);
    EXPECT_TRUE(snapshot().stalled);
    EXPECT_LT(elapsed_ms(start), 20000);

    // A stalled stream answers at once from then on.
    const auto again = std::chrono::steady_clock::now();
    EXPECT_EQ(VQXSI_GetNewScan(s), nullptr);
    EXPECT_LT(elapsed_ms(again), 20000);

    // Stop and start recover. The stop ends by the driver's own bound (the
    // held frame's capture never completes): the start waits for it here,
    // not inside its own 2000 ms wait.
    hold_frames(false);
    ASSERT_EQ(VQXSI_StopScanning(s), 1);
    ASSERT_TRUE(wait_until(stopped, 10000));
    frame = first_frame(s);
    EXPECT_NE(frame, nullptr);
    ASSERT_EQ(VQXSI_UnlockBuffer(s, frame), 1);
    ASSERT_EQ(VQXSI_StopScanning(s), 1);

    // No first frame at all: the driver tries three times to get the
    // stream going, the last try restarting the transfer (a second
    // StartScanning of the engine within this scan), then gives up. The
    // last scan's stream must have stopped first, so that this scan starts
    // a new one.
    ASSERT_TRUE(wait_until(stopped, 10000));
    hold_frames(true);
    const uint64_t transfers = sim().calls("StartScanning");
    ASSERT_EQ(VQXSI_StartScanning(s), 1);
    EXPECT_EQ(VQXSI_GetNewScan(s), nullptr);
    EXPECT_TRUE(snapshot().stalled);
    EXPECT_EQ(sim().calls("StartScanning") - transfers, 2u) << "the scan's start and the last try's restart";
    hold_frames(false);
}

TEST_F(Misuse_test, GetNewScanWhileClientsHoldAllButOneBuffer)
{
    // Session A takes every buffer but one: the driver keeps the last one to
    // capture into, and each new frame is taken back at once. Session B's
    // GetNewScan waits (up to its 30 s bound) and gets a frame as soon as A
    // gives one back; the platform log tells what happened.
    Output_capture out;
    auto said = [&out](const char* part) {
        const std::vector<std::string> lines = out.messages();
        return std::count_if(lines.begin(), lines.end(),
                             [part](const std::string& l) { return l.find(part) != std::string::npos; });
    };
    Session a, b;
    ASSERT_EQ(VQXSI_StartScanning(a), 1);
    ASSERT_EQ(VQXSI_StartScanning(b), 1);
    const size_t total = sim().config().buffers;
    std::vector<void*> held;
    while (held.size() + 1 < total) {
        void* frame = VQXSI_GetNewScan(a);
        ASSERT_NE(frame, nullptr) << "after " << held.size() << " frames";
        held.push_back(frame);
    }
    EXPECT_EQ(snapshot().buffers.held, total - 1);
    const uint64_t delivered = sim().counters().frames_delivered;
    auto give_back = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return VQXSI_UnlockBuffer(a, held.back());
    });
    const auto start = std::chrono::steady_clock::now();
    void* frame = VQXSI_GetNewScan(b);
    const long waited = elapsed_ms(start);
    EXPECT_EQ(give_back.get(), 1);
    held.pop_back();
    ASSERT_NE(frame, nullptr);
    EXPECT_GE(waited, 250) << "no frame reaches a client while only one buffer circulates";
    EXPECT_LT(waited, 5000);
    EXPECT_GT(sim().counters().frames_delivered, delivered + 2) << "frames kept coming meanwhile";
    EXPECT_GE(said("All image buffers but one are held by clients"), 1);
    EXPECT_GE(said("A buffer is back"), 1);
    EXPECT_EQ(VQXSI_UnlockBuffer(b, frame), 1);
    for (void* f : held)
        EXPECT_EQ(VQXSI_UnlockBuffer(a, f), 1);
}

TEST_F(Misuse_test, UnlockBuffer)
{
    int local = 0;
    Session s;
    void* frame = first_frame(s);
    ASSERT_NE(frame, nullptr);
    const auto before = snapshot().buffers;

    // Addresses that are no frame: null, the stack, inside a frame, one past
    // the last buffer. Nothing changes, errno is untouched.
    std::vector<unsigned char*> buffers = sim().buffer_images();
    ASSERT_FALSE(buffers.empty());
    const size_t frame_bytes = size_t(sim().hwl()->GetScanWidth()) * sim().hwl()->GetScanHeight();
    void* not_frames[] = {nullptr, &local, static_cast<unsigned char*>(frame) + 1,
                          buffers.back() + frame_bytes};
    for (void* p : not_frames) {
        SCOPED_TRACE(p);
        EXPECT_ERRNO_KEPT(VQXSI_UnlockBuffer(s, p), 0);
    }
    // Buffers never handed out (free or armed for capture): refused, the
    // scan driver keeps them.
    for (unsigned char* p : buffers) {
        if (p == frame)
            continue;
        EXPECT_EQ(VQXSI_UnlockBuffer(s, p), 0);
    }
    const auto after = snapshot().buffers;
    EXPECT_EQ(after.error, "");
    EXPECT_EQ(after.held, before.held);

    // The client's frame: once, then never again.
    EXPECT_EQ(VQXSI_UnlockBuffer(s, frame), 1);
    EXPECT_EQ(VQXSI_UnlockBuffer(s, frame), 0);

    // A frame reclaimed by the last stop cannot be given back afterwards.
    frame = VQXSI_GetNewScan(s);
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(VQXSI_StopScanning(s), 1);
    EXPECT_EQ(snapshot().buffers.held, 0u);
    EXPECT_EQ(VQXSI_UnlockBuffer(s, frame), 0);

    // The frame of another session is the client's too: any session of the
    // process may give it back (buffers belong to the client, not to one
    // session).
    Session other;
    frame = first_frame(s);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(VQXSI_UnlockBuffer(other, frame), 1);
    EXPECT_EQ(VQXSI_UnlockBuffer(s, frame), 0);
}

} // namespace
} // namespace misuse
