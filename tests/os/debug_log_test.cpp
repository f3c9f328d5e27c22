// The process-wide in-memory log. Every test first settles the log (empty,
// lock free), so the tests run in any order, alone or together, as long as
// all dumps happen on the main thread.
#include "Output_capture.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

const std::string owns_report =
    Output_capture::assertion("_owns()", "jni/../../lib_os/linux/Synchronization", 175);

std::string dump()
{
    testing::internal::CaptureStdout();
    dbg_log_dump();
    return testing::internal::GetCapturedStdout();
}

// "_owns()" reports made by one dbg_log call on this thread.
size_t owns_reports_of_log(const char* text)
{
    Output_capture out;
    dbg_log("%s", text);
    return out.count(owns_report);
}

// Runs f with the platform log's stderr lines (the expected reports) hidden.
template <class F> void quietly(F f)
{
    testing::internal::CaptureStderr();
    f();
    testing::internal::GetCapturedStderr();
}

// Empties the log and releases every level of its lock that this thread holds.
void settle()
{
    dump();
    quietly([] { while (owns_reports_of_log("") == 0) {} });
}

} // namespace

TEST(DebugLog, CutsEntriesAndDumpTakesTheLockWithoutReleasing)
{
    settle();
    quietly([] {
        dbg_log("%s", std::string(300, 'a').c_str());
        dbg_log("line %d\n", 1);
        dbg_log("%s", std::string(600, 'b').c_str());
    });
    EXPECT_EQ(std::string(256, 'a') + "line 1\n" + std::string(256, 'b'), dump());
    EXPECT_EQ("", dump());
    // The lock was free; the two dumps took it 4 + 1 times. Each dbg_log of
    // the owner gives back two levels, so they run out on the third call.
    EXPECT_EQ(0u, owns_reports_of_log("1"));
    EXPECT_EQ(0u, owns_reports_of_log("2"));
    EXPECT_EQ(1u, owns_reports_of_log("3"));
    EXPECT_EQ(2u, owns_reports_of_log("4"));
    EXPECT_EQ("1234", dump());
}

TEST(DebugLog, OtherThreadsNeverBlockAndReportTwice)
{
    settle();
    dbg_log("held\n");
    EXPECT_EQ("held\n", dump());  // the main thread now owns the lock
    size_t reports = 0;
    std::thread([&] { reports = owns_reports_of_log("from a thread\n"); }).join();
    EXPECT_EQ(2u, reports);

    auto writer = [](char c) { for (int i = 0; i < 50; ++i) dbg_log("%c%02d\n", c, i); };
    quietly([&] { std::thread a(writer, 'a'), b(writer, 'b'); a.join(); b.join(); });
    const std::string text = dump();
    EXPECT_EQ(0u, text.find("from a thread\n"));
    EXPECT_EQ(14u + 100 * 4, text.size());
    EXPECT_TRUE(text.find("a49\n") != std::string::npos && text.find("b00\n") != std::string::npos);
}

TEST(DebugLog, FullLogDropsTheExcess)
{
    settle();
    quietly([] {
        const std::string chunk(256, 'f');
        for (int i = 0; i < 1023; ++i)
            dbg_log("%s", chunk.c_str());
        dbg_log("%s", chunk.substr(0, 252).c_str());
        dbg_log("0123456789");
        dbg_log("dropped\n");
    });
    const std::string text = dump();
    ASSERT_EQ(262144u, text.size());
    EXPECT_EQ("ff0123", text.substr(text.size() - 6));
    dbg_log("fresh\n");
    EXPECT_EQ("fresh\n", dump());
}
