// Stall detection: retries before the first frame, an immediate stall once
// frames have flowed, and a waiting client that gives up early.
#include "stream_fixture.h"

#include <future>

namespace {

size_t count_of(const std::string& text, const std::string& word)
{
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++n;
    return n;
}

}  // namespace

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
    const std::string log = calls();
    ASSERT_GE(log.size(), retries.size()) << log;
    EXPECT_EQ(retries, log.substr(log.size() - retries.size()));
    EXPECT_EQ(3u, count_of(log, "check_stall")) << log;
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
    const std::string second = calls();
    EXPECT_EQ(1u, count_of(second, "check_stall")) << second;
    EXPECT_NE(std::string::npos, second.find("check_stall(2)")) << second;
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
