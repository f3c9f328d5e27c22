// Misuse of the session functions: open, close, start, stop, single frame.
#include <cstdlib>
#include <cstring>
#include <thread>

#include "Death_test_style.h"
#include "misuse_support.h"
#include "scan_session.h"

namespace misuse {
namespace {

using robust::check_all_closed;
using robust::snapshot;

unsigned scan_locks(VQXSI_HANDLE h)
{
    return reinterpret_cast<Scan_session*>(h)->Get_scan_lock_count();
}

TEST_F(Misuse_test, OpenAndClose)
{
    // Opens and closes a hundred times: every close of the last session
    // powers the engine off again, nothing is left behind.
    for (int i = 0; i < 100; ++i) {
        VQXSI_HANDLE a = VQXSI_OpenSessionWithScanEngine();
        VQXSI_HANDLE b = VQXSI_OpenSessionWithScanEngine();
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        ASSERT_NE(a, b);
        VQXSI_CloseSessionWithScanEngine(a);
        EXPECT_EQ(snapshot().open_count, 1u) << "another session is still open";
        VQXSI_CloseSessionWithScanEngine(b);
        ASSERT_EQ(check_all_closed(snapshot()), "") << "after round " << i;
    }
}

TEST_F(Misuse_test, CloseWhileScanningGivesEverythingBack)
{
    Session s;
    void* frame = first_frame(s);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(snapshot().buffers.held, 1u);
    s.close();  // still scanning, still holding the frame
    EXPECT_EQ(check_all_closed(snapshot()), "");
}

TEST_F(Misuse_test, CloseWhileAnotherThreadWaitsForAFrame)
{
    VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
    ASSERT_NE(h, nullptr);
    hold_frames(true);  // no frame will come
    ASSERT_EQ(VQXSI_StartScanning(h), 1);

    void* result = &result;
    std::thread waiter([&] { result = VQXSI_GetNewScan(h); });
    const bool waiting = wait_until([] { return threads_waiting() == 1; });
    EXPECT_TRUE(waiting) << "the client never waited for a frame";
    const auto start = std::chrono::steady_clock::now();
    VQXSI_CloseSessionWithScanEngine(h);  // waits for the call in progress
    const long closed_after = elapsed_ms(start);
    waiter.join();
    EXPECT_EQ(result, nullptr) << "the stalled stream gave a frame";
    // The waiter gives up on the stall (retries after the first trigger,
    // well under the 30 s wait), and the close follows it.
    EXPECT_LT(closed_after, 15000);
    hold_frames(false);
}

TEST_F(Misuse_test, StartAndStop)
{
    Session s;
    // Stop without start: 0, errno untouched.
    EXPECT_ERRNO_KEPT(VQXSI_StopScanning(s), 0);

    // Starts nest: two starts need two stops; a third stop fails.
    ASSERT_EQ(VQXSI_StartScanning(s), 1);
    ASSERT_EQ(VQXSI_StartScanning(s), 1);
    EXPECT_EQ(VQXSI_StopScanning(s), 1);
    EXPECT_EQ(snapshot().scanning_count, 1u);
    EXPECT_EQ(VQXSI_StopScanning(s), 1);
    EXPECT_EQ(snapshot().scanning_count, 0u);
    EXPECT_EQ(VQXSI_StopScanning(s), 0);

    // A hundred start/stop pairs, every other one with a frame taken and
    // kept: the last stop reclaims it.
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(VQXSI_StartScanning(s), 1) << "round " << i;
        if (i % 2 == 0) {
            void* frame = VQXSI_GetNewScan(s);
            ASSERT_NE(frame, nullptr) << "round " << i;
        }
        ASSERT_EQ(VQXSI_StopScanning(s), 1) << "round " << i;
        EXPECT_EQ(snapshot().buffers.held, 0u) << "round " << i;
    }
    EXPECT_EQ(snapshot().buffers.error, "");
}

TEST_F(Misuse_test, StopsConfirmedLateOrNever)
{
    Session s;
    // Confirmation held back until the test makes it: the stop returns at
    // once and the next start waits for the stop to finish.
    confirm_stops_after(60000);
    ASSERT_NE(first_frame(s), nullptr);
    EXPECT_EQ(VQXSI_StopScanning(s), 1);
    std::thread confirm([] {
        wait_until([] { return sim().stop_pending(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        sim().confirm_stop_now();
    });
    ASSERT_EQ(VQXSI_StartScanning(s), 1);
    confirm.join();
    void* frame = VQXSI_GetNewScan(s);
    ASSERT_NE(frame, nullptr) << "the scan after a late stop delivers frames";
    EXPECT_EQ(VQXSI_UnlockBuffer(s, frame), 1);
    confirm_stops_after(5);
    EXPECT_EQ(VQXSI_StopScanning(s), 1);

    // Never confirmed: stop returns at once; close waits for the stream at
    // most its 2000 ms stop bound (plus the power-down), and the stream ends
    // by its stall alarm, giving every buffer back.
    confirm_stops_after(5, true);
    ASSERT_NE(first_frame(s), nullptr);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(VQXSI_StopScanning(s), 1);
    EXPECT_LT(elapsed_ms(start), 1500);
    start = std::chrono::steady_clock::now();
    s.close();
    EXPECT_LT(elapsed_ms(start), 2000 + 3000);
}

TEST_F(Misuse_test, ExitWithAStopPendingEndsTheSleepAlarmFirst)
{
    // The application exits with a session open, its stop never confirmed
    // and the sleep alarm waiting for that stop: the driver is torn down
    // after the alarm has given up. Any report the driver makes while it is
    // torn down ends the process with code 3.
    if (death_tests_fork())
        GTEST_SKIP() << "the exiting child needs the simulator's frame thread, which a fork leaves behind";
    EXPECT_EXIT(
        {
            set_dbg_output_hook([](const char* text) {
                if (std::strstr(text, "Assertion"))
                    std::_Exit(3);
            });
            confirm_stops_after(5, true);
            Session s;
            VQXSI_SetSleepTimeout(s, 1);
            first_frame(s);
            VQXSI_StopScanning(s);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(Misuse_test, GetSingleFrame)
{
    // The stop the single image triggers is confirmed once the call has
    // returned (a stop completed before the client took the frame is
    // another test's subject).
    confirm_stops_after(3600 * 1000);
    Session s;
    void* frame = VQXSI_GetSingleFrame(s);
    sim().confirm_stop_now();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(scan_locks(s), 2u) << "the start's lock and the extra one";
    EXPECT_EQ(VQXSI_StopScanning(s), 1);
    // The extra scan lock keeps the frame with the client after the stop.
    EXPECT_EQ(snapshot().buffers.held, 1u);
    EXPECT_EQ(VQXSI_UnlockBuffer(s, frame), 1);
    EXPECT_EQ(VQXSI_UnlockBuffer(s, frame), 0);
    EXPECT_EQ(scan_locks(s), 1u);

    // A second single frame on the same session: another extra lock.
    frame = VQXSI_GetSingleFrame(s);
    sim().confirm_stop_now();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(VQXSI_StopScanning(s), 1);
    EXPECT_EQ(scan_locks(s), 2u);
    s.close();  // drops both extra locks and reclaims the frame
}

TEST_F(Misuse_test, GetSingleFrameWithAStopConfirmedAtOnce)
{
    // Hardware that completes a stop at once (the interface's default): the
    // single image must still reach the client.
    confirm_stops_after(-1);
    Session s;
    const auto start = std::chrono::steady_clock::now();
    void* frame = VQXSI_GetSingleFrame(s);
    EXPECT_NE(frame, nullptr) << "the single image was discarded with the stream";
    EXPECT_LT(elapsed_ms(start), 10000);
    EXPECT_EQ(VQXSI_StopScanning(s), 1);
}

TEST_F(Misuse_test, GetSingleFrameOnAnEngineThatCannotStart)
{
    Session s;
    fail_starts(true);
    // The engine refuses to stream. The session's start is still recorded
    // (the power state manager tries the stream again at its next check), so
    // the call succeeds, but no frame is coming: a client asking for one is
    // answered at once, not after the 30 s frame time-out.
    EXPECT_ERRNO_KEPT(VQXSI_StartScanning(s), 1);
    EXPECT_GT(sim().counters().failed_starts, 0u);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(VQXSI_GetNewScan(s), nullptr);
    EXPECT_LT(elapsed_ms(start), 10000);
    EXPECT_EQ(VQXSI_StopScanning(s), 1);

    // The single frame likewise fails at once and keeps its extra scan lock.
    const unsigned before = scan_locks(s);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(VQXSI_GetSingleFrame(s), nullptr);
    EXPECT_LT(elapsed_ms(start), 10000);
    EXPECT_EQ(scan_locks(s), before + 1);
    EXPECT_EQ(VQXSI_StopScanning(s), 1);

    fail_starts(false);
    EXPECT_TRUE(frames_flow(s)) << "the session works once the engine starts";
}

} // namespace
} // namespace misuse
