// Power state manager: power on open, sleep after the idle time-out, wake
// for a scan, power off when the last session closes, and the counters.
#include "stream_fixture.h"

#include <future>

class State_test : public Stream_test {
protected:
    void SetUp() override
    {
        Stream_test::SetUp();
        make_stream(4);
        make_state_manager();
        hwl.log.clear();
    }
    void TearDown() override
    {
        Stream_test::TearDown();
        State_manager::g_msSleepTimeout = 0;
    }
    // Runs @p f on the state manager with the sensor's monitor held.
    template <class F>
    auto locked(F f) -> decltype(f(std::declval<State_manager&>()))
    {
        return Stream_test::locked([&] { return f(*state_manager); });
    }
    State_manager::Power_state power() { return locked([](State_manager& m) { return m.get_power(); }); }
    const void* sleep_alarm() { return locked([](State_manager& m) { return m.get_sleep_alarm().get(); }); }
};

TEST_F(State_test, SessionsPowerTheEngineWithoutSleepByDefault)
{
    EXPECT_TRUE(locked([](State_manager& m) { return m.increment_open_count() && m.increment_open_count(); }));
    EXPECT_EQ("OpenSession power_on", calls());
    EXPECT_EQ(State_manager::POWER_ON, power());
    EXPECT_EQ(nullptr, sleep_alarm());
    locked([](State_manager& m) { m.decrement_open_count(true); });
    EXPECT_EQ("", calls());
    locked([](State_manager& m) { m.decrement_open_count(true); });
    EXPECT_EQ("power_off CloseSession", calls());
    EXPECT_EQ(State_manager::POWER_OFF, power());

    // Underflows are reported and change nothing.
    locked([](State_manager& m) {
        m.decrement_open_count(true);
        m.decrement_scanning_count(false);
        m.enable_sleep();
    });
    EXPECT_EQ(1u, Output_capture::count("open_count > 0 @ jni/../State_manager line @55"));
    EXPECT_EQ(1u, Output_capture::count("scanning_count > 0 @ jni/../State_manager line @83"));
    EXPECT_EQ(1u, Output_capture::count("nosleep_count > 0 @ jni/../State_manager line @141"));
    EXPECT_EQ(0u, locked([](State_manager& m) { return m.get_open_count() + m.get_nosleep_count(); }));
    EXPECT_EQ("", calls());

    // The logical lock needs the monitor.
    EXPECT_TRUE(state_manager->get_power_state());
    EXPECT_EQ(1u, Output_capture::count("_p_state_manager->owns() @ jni/../State_manager line @259"));
    EXPECT_EQ(1u, Output_capture::count(" p_state_manager->owns() @ jni/../State_manager line @279"));
}

TEST_F(State_test, IdleEngineSleepsAndAScanWakesIt)
{
    State_manager::g_msSleepTimeout = 20;
    ASSERT_TRUE(locked([](State_manager& m) { return m.increment_open_count(); }));
    State_manager::g_msSleepTimeout = 99;  // only the next first open sees it
    EXPECT_EQ(20u, locked([](State_manager& m) { return m.get_sleep_timeout(); }));
    ASSERT_TRUE(wait_for_call("sleep"));
    EXPECT_EQ("OpenSession power_on sleep", calls());
    EXPECT_EQ(State_manager::POWER_ASLEEP, power());

    ASSERT_TRUE(locked([this](State_manager& m) { return m.increment_scanning_count(lights, exposure, false); }));
    EXPECT_EQ("power_on StartScanning initialize_scanning GetImageBuffers change_lights(5) "
              "set_starting_exposure_gain trigger_on",
              calls());
    vsync(101);
    locked([](State_manager& m) { m.decrement_scanning_count(true); });
    EXPECT_EQ(IStream_driver::STOPPED, state());
    ASSERT_TRUE(wait_for_call("sleep"));  // idle again: asleep after the time-out

    // A sleep hold wakes the engine and keeps it awake.
    locked([](State_manager& m) { m.disable_sleep(); });
    EXPECT_EQ(State_manager::POWER_ON, power());
    locked([](State_manager& m) { m.set_sleep_timeout(60000); });
    EXPECT_EQ(nullptr, sleep_alarm());
    // Released: the idle time starts; the same time-out again does not
    // restart it; time-out 0 cancels it.
    locked([](State_manager& m) { m.enable_sleep(); });
    const unsigned due = locked([](State_manager& m) { return m.get_sleep_alarm().expire_time(); });
    EXPECT_EQ(static_cast<unsigned>(locked([](State_manager& m) { return m.get_idle_since(); }) + 60000), due);
    const void* alarm = sleep_alarm();
    locked([](State_manager& m) { m.set_sleep_timeout(60000); });
    EXPECT_EQ(alarm, sleep_alarm());
    locked([](State_manager& m) { m.set_sleep_timeout(0); });
    EXPECT_EQ(nullptr, sleep_alarm());

    locked([](State_manager& m) { m.decrement_open_count(false); });
    EXPECT_EQ(State_manager::POWER_OFF, power());
    EXPECT_EQ(0u, hwl.log.count("CloseSession"));
}

// Closing the last session while streaming stops the stream, waits for the
// hardware to finish (the monitor is free meanwhile), then powers off.
TEST_F(State_test, ClosingTheLastSessionStopsTheStreamThenPowersOff)
{
    make_stream(0);
    ASSERT_TRUE(locked([this](State_manager& m) {
        return m.increment_open_count() && m.increment_scanning_count(lights, exposure, false);
    }));
    vsync(101);
    ASSERT_TRUE(client_unlock(client_take()));  // 102 is armed
    calls();
    auto hardware = std::async(std::launch::async, [this] {
        if (wait_for_call("RequestStopScanning"))
            vsync(102);  // completes the armed capture
    });
    locked([](State_manager& m) { m.decrement_open_count(true); });
    hardware.get();
    EXPECT_EQ("RequestStopScanning vsync(102) trigger_off deinitialize_scanning StopScanning "
              "ReleaseBuffer(102) power_off CloseSession",
              calls());
    EXPECT_EQ(IStream_driver::STOPPED, state());
    EXPECT_FALSE(locked([](State_manager& m) { return m.is_streaming(); }));
}
