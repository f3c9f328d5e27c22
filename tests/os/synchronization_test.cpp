// Mutex ownership and recursion, event semantics, threads and time helpers.
#include "Output_capture.h"
#include "Synchronization.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace Synchroniztion_internal;
using namespace std::chrono_literals;

namespace {

// Exposes the recursion depth of the mutex under test.
struct Probe_mutex : MT_Mutex_struct {
    using MT_Mutex_struct::MT_Mutex_struct;
    unsigned depth() const { lock_guard(); const unsigned t = taken; unlock_guard(); return t; }
    unsigned asleep() const { lock_guard(); const unsigned n = sleepers; unlock_guard(); return n; }
};

template <class F> bool on_other_thread(F f)
{
    bool result = false;
    std::thread([&] { result = f(); }).join();
    return result;
}

int64_t ns_of(const timespec& t) { return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec; }

const std::string owns_report =
    Output_capture::assertion("_owns()", "jni/../../lib_os/linux/Synchronization", 175);

} // namespace

TEST(Mutex, RecursionOwnershipAndBlockedWaiters)
{
    Output_capture out;
    Probe_mutex m(false);
    EXPECT_TRUE(m.wait(0) && m.wait(0) && m.owns());
    EXPECT_EQ(2u, m.depth());
    EXPECT_FALSE(on_other_thread([&] { return m.owns() || m.wait(0) || m.wait(5); }));
    on_other_thread([&] { m.release(); return true; });  // not the owner: reported, no effect
    EXPECT_EQ(1u, out.count(owns_report));
    EXPECT_EQ(2u, m.depth());

    m.release();
    EXPECT_TRUE(m.owns());
    m.release();
    EXPECT_FALSE(m.owns());
    m.release();  // free: nobody owns it
    EXPECT_EQ(2u, out.count(owns_report));
    EXPECT_EQ(0u, m.depth());
    EXPECT_TRUE(on_other_thread([&] { return m.wait(0) && m.owns() && (m.release(), true); }));
    EXPECT_EQ(2u, out.messages().size());

    Probe_mutex owned(true);
    EXPECT_TRUE(owned.owns() && owned.depth() == 1);
    EXPECT_FALSE(on_other_thread([&] { return owned.wait(0); }));

    // Blocked waiters take it only on the final release.
    ASSERT_TRUE(m.wait(MT_INFINITE) && m.wait(MT_INFINITE));
    std::atomic<int> acquired{0};
    auto waiter = [&](unsigned ms) { if (m.wait(ms)) { acquired++; m.release(); } };
    std::thread infinite(waiter, MT_INFINITE), finite(waiter, 5000u);
    std::this_thread::sleep_for(20ms);
    m.release();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(0, acquired.load());
    m.release();
    infinite.join();
    finite.join();
    EXPECT_EQ(2, acquired.load());
    EXPECT_EQ(0u, m.depth());
}

TEST(Event, WaitsAndResetModes)
{
    MT_Event_struct initially_set(true, true);
    EXPECT_TRUE(initially_set.wait(0));
    EXPECT_FALSE(initially_set.wait(0));

    for (bool auto_reset : {true, false}) {
        MT_Event_struct e(false, auto_reset);
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_FALSE(e.wait(0) || e.wait(5));
        EXPECT_GE(std::chrono::steady_clock::now() - t0, 4ms);
        std::atomic<int> released{0};
        auto wait = [&] { if (e.wait(MT_INFINITE)) released++; };
        std::thread a(wait), b(wait);
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(0, released.load());
        e.set_event();  // auto-reset: one waiter; manual reset: both
        for (int i = 0; i < 2000 && released.load() == 0; ++i)
            std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(auto_reset ? 1 : 2, released.load());
        if (auto_reset)
            e.set_event();
        a.join();
        b.join();
        EXPECT_EQ(2, released.load());
        EXPECT_EQ(!auto_reset, e.wait(0));  // a manual-reset event stays set
        e.reset_event();
        EXPECT_FALSE(e.wait(0));
    }
}

TEST(Time, TimespecTickCountDelayAndThreads)
{
    timespec a{1, 999999999}, b{0, 500000000};
    EXPECT_EQ(2000000000, ns_of(a += timespec{0, 1}));
    EXPECT_EQ(1999999999, ns_of(b += timespec{1, 499999999}));
    EXPECT_TRUE(a.tv_nsec == 0 && b.tv_nsec == 999999999);

    timespec before{}, after{};
    clock_gettime(CLOCK_REALTIME, &before);
    const timespec deadline = msec_to_absolute_timespec(1999);
    const unsigned tick = MT_GetTickCount();
    clock_gettime(CLOCK_REALTIME, &after);
    EXPECT_LT(deadline.tv_nsec, 1000000000);
    EXPECT_GE(ns_of(deadline) - ns_of(before), 1999000000);
    EXPECT_LE(ns_of(deadline) - ns_of(after), 1999000000);
    const auto ms = [](const timespec& t) { return uint32_t(uint64_t(ns_of(t)) / 1000000); };
    EXPECT_LE(tick - ms(before), ms(after) - ms(before));  // wall-clock ms modulo 2^32

    MT_Delay(0);
    const auto t0 = std::chrono::steady_clock::now();
    MT_Delay(15);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 15ms);
    MT_Delay(1001);  // whole seconds, then the rest
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 1016ms);

    // MT_CreateThread runs the function on a joinable thread.
    std::atomic<int> calls{0};
    auto fn = [](void* p) -> unsigned { return ++*static_cast<std::atomic<int>*>(p); };
    long handle = 0;
    ASSERT_TRUE(MT_CreateThread(&handle, fn, &calls));
    EXPECT_EQ(0, pthread_join(static_cast<pthread_t>(handle), nullptr));
    EXPECT_EQ(1, calls.load());
    EXPECT_FALSE(MT_CreateThread(nullptr, fn, &calls));
}

// A release that finds a thread asleep on the mutex hands it over: the
// releasing thread, re-entering at once, finds it taken (it would win the
// free lock word against a sleeper still waking up, every time), and the
// sleeper, bounded or not, gets it.
TEST(Mutex, ReleaseHandsTheMutexToASleeper)
{
    for (unsigned ms : {MT_INFINITE, 5000u}) {
        Probe_mutex m(true);
        std::atomic<bool> got{false}, polled{false};
        std::thread sleeper([&] {
            if (m.wait(ms)) {
                got = true;
                // Held until the releaser has looked (bounded).
                for (int i = 0; i < 2000 && !polled; ++i)
                    std::this_thread::sleep_for(1ms);
                m.release();
            }
        });
        for (int i = 0; i < 2000 && m.asleep() == 0; ++i)
            std::this_thread::sleep_for(1ms);
        ASSERT_EQ(1u, m.asleep());
        m.release();
        if (m.wait(0)) {
            ADD_FAILURE() << "the releaser took back a mutex a thread slept on";
            m.release();
        }
        polled = true;
        sleeper.join();
        EXPECT_TRUE(got.load());
        EXPECT_TRUE(m.wait(0));  // free again after the sleeper's release
        m.release();
        EXPECT_EQ(0u, m.depth());
    }
}
