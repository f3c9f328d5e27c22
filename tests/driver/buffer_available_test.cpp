// Available_buffer: newest frame wins, the client's bounded wait and the
// in-place hand-over to the client.
#include "buffer_fixture.h"

#include <chrono>
#include <future>
#include <thread>

using Owner = ScanBufferInfo;
using std::chrono::steady_clock;

namespace {

// Far below the 30 s time-out: a wait that was not cut short fails this.
constexpr auto prompt = std::chrono::seconds(10);

} // namespace

class Available_test : public Buffer_test {
protected:
    // Runs get_available(true) on another thread once the caller is sure it
    // waits inside; returns the future result.
    std::future<ScanBufferInfo*> waiting_client()
    {
        auto result = std::async(std::launch::async, [this] { return vavailable().get_available(true); });
        for (;;) {
            {
                auto lock = vavailable().get_lock();
                if (lock->threads_inside() == 1)
                    break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return result;
    }
};

TEST_F(Available_test, NewestFrameWinsAndGoesToClient)
{
    ScanBufferInfo* first = vlocker().allocate_buffer(Owner::SCANDRIVER);
    vavailable().set_p_available(first);
    vavailable().set_p_available(first);  // the same frame again changes nothing
    EXPECT_EQ(first->lock_cnt, 1u);
    // A free record is locked for the scan driver when it becomes available.
    vavailable().set_p_available(record(1));
    EXPECT_EQ(hwl.log.entries(), std::vector<std::string>{released(0)});
    EXPECT_EQ(stream.buffer_free_calls, 1);
    EXPECT_EQ("1 SCANDRIVER", held(record(1)));
    EXPECT_EQ(vavailable().peek_available(), record(1));

    ScanBufferInfo* got = vavailable().get_available(true);
    ASSERT_EQ(got, record(1));
    EXPECT_EQ("1 CLIENT", held(got));
    EXPECT_EQ(vavailable().peek_available(), nullptr);
    EXPECT_EQ(vlocker().circulating_buffers(), 2u);
    EXPECT_TRUE(vlocker().UnlockBuffer(got, Owner::CLIENT));
    EXPECT_EQ(hwl.log.count(released(1)), 1u);
    EXPECT_TRUE(Output_capture::take().empty());
}

TEST_F(Available_test, ReclaimAndClearKeepScanDriverOwnership)
{
    vavailable().set_p_available(record(2));
    ScanBufferInfo* got = vavailable().get_available(false);
    ASSERT_EQ(got, record(2));
    EXPECT_EQ("1 SCANDRIVER", held(got));
    EXPECT_EQ(hwl.log.count_prefix("ReleaseBuffer"), 0u);

    vavailable().clear();  // nothing waits: no-op
    vavailable().set_p_available(record(0));
    vavailable().clear();
    EXPECT_EQ("0 NONE", held(record(0)));
    EXPECT_EQ(hwl.log.count(released(0)), 1u);

    // A client-held buffer offered as available is reported, and kept.
    ASSERT_TRUE(vlocker().LockBuffer(record(1), Owner::CLIENT));
    vavailable().set_p_available(record(1));
    auto reports = Output_capture::take();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_NE(reports[0].find("new_waiting_buffer->owner == new_waiting_buffer->SCANDRIVER"),
              std::string::npos);
    EXPECT_NE(reports[0].find("jni/../Available_buffer line @52"), std::string::npos);
}

TEST_F(Available_test, WaitingClientGivesUpWhenNothingCirculates)
{
    client_all(true);
    auto start = steady_clock::now();
    EXPECT_EQ(vavailable().get_available(true), nullptr);
    EXPECT_LT(steady_clock::now() - start, prompt);

    // A waiter already inside is released once the last buffer goes to the
    // client.
    client_all(false);
    auto result = waiting_client();
    client_all(true);
    ASSERT_EQ(result.wait_for(prompt), std::future_status::ready);
    EXPECT_EQ(result.get(), nullptr);
    EXPECT_EQ(vavailable().get_lock()->threads_inside(), 0u);
}

TEST_F(Available_test, WaitingClientWakesForAFrameFromOtherThreadOrAStall)
{
    auto result = waiting_client();
    std::thread vsync([this] {
        ScanBufferInfo* filled = vlocker().allocate_buffer(Owner::SCANDRIVER);
        vavailable().set_p_available(filled);
    });
    vsync.join();
    ASSERT_EQ(result.wait_for(prompt), std::future_status::ready);
    ScanBufferInfo* got = result.get();
    ASSERT_EQ(got, record(0));
    EXPECT_EQ(vavailable().get_lock()->threads_inside(), 0u);
    {
        auto lock = vlocker().get_lock();
        EXPECT_EQ("1 CLIENT", held(got));
    }

    result = waiting_client();
    stream.is_stalled = true;  // announced on the sensor's monitor like the driver's changes
    static_cast<Sensor volatile&>(sensor).get_lock()->notify();
    ASSERT_EQ(result.wait_for(prompt), std::future_status::ready);
    EXPECT_EQ(result.get(), nullptr);
}
