// Monitors and conditions: nesting, notification at the outermost leave,
// waits with and without time-out, and the sharing of pooled events.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "monitor.h"
#include "runtime_test_support.h"

using namespace Synchroniztion_internal;

namespace {

class Box : public Monitor<Box> {
public:
    bool ready() const { return value != 0; }
    unsigned waiters() const { return ready_cond.wait_cnt; }
    int value = 0;
    Condition ready_cond{this, &Box::ready};
};

class Part : public Forward_monitor<Part> {
public:
    explicit Part(Box& box) : Forward_monitor<Part>(box) {}
};

// A predicate that the waiting thread always finds false, while every other
// thread (the one that re-evaluates it at leave) sees `flag`: each pulse
// wakes the waiter without letting it through.
class Pulse : public Monitor<Pulse> {
public:
    bool raised() const
    {
        if (pthread_equal(pthread_self(), waiter)) {
            ++waiter_checks;
            return false;
        }
        return flag;
    }
    bool flag = false;
    pthread_t waiter{};
    mutable std::atomic<int> waiter_checks{0};
    Condition cond{this, &Pulse::raised};
};

} // namespace

TEST(Monitor, WaiterWakesOnlyAtOutermostLeaveAfterNotify)
{
    Output_capture log;
    Box box;
    std::atomic<int> woke{0};
    bool result = false;
    std::thread waiter([&] {
        auto l = box.get_lock();
        result = l->wait(l->ready_cond, MT_INFINITE);
        woke = 1;
    });
    ASSERT_TRUE(eventually([&] { return box.get_lock()->waiters() == 1; }));

    // A change without notify() wakes nobody.
    box.get_lock()->value = 1;
    MT_Delay(20);
    EXPECT_EQ(woke, 0);

    // Nested entry: the inner leave neither wakes nor unlocks.
    ASSERT_EQ(box.enter(0), &box);
    ASSERT_EQ(box.enter(0), &box);
    box.notify();
    box.leave();
    EXPECT_TRUE(box.owns());
    bool other_entered = true;
    std::thread([&] { other_entered = box.monitor_base().enter(0) != nullptr; }).join();
    EXPECT_FALSE(other_entered);
    MT_Delay(20);
    EXPECT_EQ(woke, 0);

    box.leave();
    waiter.join();
    EXPECT_TRUE(result);
    EXPECT_FALSE(box.owns());
    EXPECT_TRUE(log.messages().empty());
}

TEST(Monitor, WaitOnTrueConditionAndPollKeepTheDepthMisuseIsReported)
{
    Output_capture log;
    Box box;
    Part part(box);
    Condition_event_pool& pool = get_the_condition_event_pool();
    size_t free_before = pool.free_count();

    {
        // A forwarding monitor takes the same lock; the const form too.
        auto l = part.get_lock();
        EXPECT_TRUE(box.owns());
        auto r = static_cast<const volatile Box&>(box).get_lock();
        EXPECT_EQ(r.get(), &box);
    }
    EXPECT_FALSE(box.owns());

    box.enter(0);
    box.enter(0);
    box.value = 1;
    EXPECT_TRUE(box.wait(box.ready_cond, 0));
    EXPECT_EQ(box.ready_cond.item, nullptr);  // never gave the monitor up

    box.value = 0;
    EXPECT_FALSE(box.wait(box.ready_cond, 0));
    EXPECT_EQ(box.ready_cond.wait_cnt, 0u);
    EXPECT_EQ(box.ready_cond.item, nullptr);
    EXPECT_EQ(pool.free_count(), std::max<size_t>(free_before, 1));

    box.leave();
    EXPECT_TRUE(box.owns());  // depth 2 restored by the wait
    box.leave();
    EXPECT_FALSE(box.owns());
    EXPECT_TRUE(log.messages().empty());

    // Misuse is reported and changes nothing.
    box.leave();
    EXPECT_FALSE(box.wait(box.ready_cond, 0));
    auto texts = log.messages();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_NE(texts[0].find("Assertion: owns() @ jni/../monitor line @190"), std::string::npos);
    EXPECT_NE(texts[1].find("Assertion: 0 @ jni/../monitor line @216"), std::string::npos);
    EXPECT_EQ(box.ready_cond.wait_cnt, 0u);
}

TEST(Monitor, FiniteWaitMeasuresItsTimeOutFromItsOwnStart)
{
    Pulse p;
    std::atomic<bool> done{false};
    std::thread pulser([&] {
        unsigned t0 = MT_GetTickCount();
        while (!done && MT_GetTickCount() - t0 < 2000) {
            { auto l = p.get_lock(); l->flag = true; l->notify(); }
            MT_Delay(2);
            { auto l = p.get_lock(); l->flag = false; l->notify(); }
            MT_Delay(1);
        }
    });
    unsigned start = 0, elapsed = 0;
    bool got = true;
    {
        auto l = p.get_lock();
        l->waiter = pthread_self();
        start = MT_GetTickCount();
        got = l->wait(l->cond, 50);
        elapsed = MT_GetTickCount() - start;
    }
    done = true;
    pulser.join();
    EXPECT_FALSE(got);
    EXPECT_GE(elapsed, 50u);
    EXPECT_LT(elapsed, 1500u);        // not restarted by the pulses (they last 2 s)
    EXPECT_GE(p.waiter_checks, 3);    // woken at least once before the deadline
}

TEST(Monitor, TwoWaitersShareOnePooledEvent)
{
    Output_capture log;
    Box box;
    Condition_event_pool& pool = get_the_condition_event_pool();
    box.get_lock()->wait(box.ready_cond, 0);  // the pool now has an item
    size_t free_before = pool.free_count();

    std::atomic<int> woken{0};
    auto waiter = [&] {
        auto l = box.get_lock();
        if (l->wait(l->ready_cond, MT_INFINITE) && l->value == 1)
            ++woken;
    };
    std::thread a(waiter), b(waiter);
    ASSERT_TRUE(eventually([&] { return box.get_lock()->waiters() == 2; }));
    {
        auto l = box.get_lock();
        EXPECT_NE(l->ready_cond.item, nullptr);
        EXPECT_EQ(pool.free_count(), free_before - 1);
        l->value = 1;
        l->notify();
    }
    a.join();
    b.join();
    EXPECT_EQ(woken, 2);
    {
        auto l = box.get_lock();
        EXPECT_EQ(l->ready_cond.item, nullptr);
        EXPECT_EQ(l->waiters(), 0u);
        EXPECT_EQ(pool.free_count(), free_before);
        l->notify();  // a condition left in the waiting list would report "item"
    }
    EXPECT_TRUE(log.messages().empty());
}
