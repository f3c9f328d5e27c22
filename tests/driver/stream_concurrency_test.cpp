// Concurrency: a hardware callback thread, the monitor's timer thread (start
// of frame polling, stall and sleep alarms) and two client threads starting
// and stopping scans and taking frames, against one engine for about 2 s.
// Run under ThreadSanitizer to catch races and lock-order faults.
#include "stream_fixture.h"

#include <random>

TEST_F(Stream_test, ClientsHardwareAndTimerShareOneEngine)
{
    State_manager::g_msSleepTimeout = 3;  // the idle engine sleeps between scans
    hwl.request_stop_result = false;     // every stop is confirmed by the engine
    make_stream(3);
    make_state_manager();
    Engine_thread engine(hwl, trait, sensor.monitor_base());
    State_manager& manager = *state_manager;
    ASSERT_TRUE(locked([&] { return manager.increment_open_count(); }));

    std::atomic<unsigned> frames{0}, faults{0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2000);
    auto client = [&](unsigned seed) {
        std::mt19937 random(seed);
        while (std::chrono::steady_clock::now() < deadline) {
            faults += !locked([&] { return manager.increment_scanning_count(lights, exposure, false); });
            for (unsigned n = random() % 4; n > 0; --n) {
                ScanBufferInfo* frame = vavailable().get_available(true);
                if (frame == nullptr)
                    continue;  // stalled: nothing to take
                faults += locked([&] { return frame->owner != ScanBufferInfo::CLIENT || frame->lock_cnt != 1; });
                // The frame is the client's: nobody writes it any more.
                for (size_t i = 0; i < size_t(width) * height; ++i)
                    faults += frame->pointers.image[i] != frame->pointers.image[0];
                faults += !vlocker().UnlockBuffer(frame, ScanBufferInfo::CLIENT);
                ++frames;
            }
            const bool wait = random() % 2 == 0;
            locked([&] { manager.decrement_scanning_count(wait); });
            if (random() % 3 == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 6));
        }
    };
    std::thread a(client, 1), b(client, 2);
    a.join();
    b.join();

    EXPECT_EQ(0u, faults.load());
    EXPECT_GT(frames.load(), 0u);
    EXPECT_EQ(0u, Output_capture::count("Assertion"));
    EXPECT_TRUE(stream->wait_for_stop_scanning(2000));
    locked([&] { manager.decrement_open_count(true); });
    EXPECT_EQ(State_manager::POWER_OFF, locked([&] { return manager.get_power(); }));
    engine.stop();
    State_manager::g_msSleepTimeout = 0;
}
