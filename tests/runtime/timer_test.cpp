// The alarm heap, the timer thread and alarm handles.
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Death_test_style.h"
#include "Heap.h"
#include "Timer.h"
#include "monitor.h"
#include "runtime_test_support.h"

using namespace Synchroniztion_internal;
using internal::Timer_LESS;

namespace {

struct Node {
    unsigned due = 0;
    size_t index = 0;
    int id = 0;
};
struct Node_less {
    static bool x(const Node& a, const Node& b) { return Timer_LESS::x(a.due, b.due); }
};
struct Node_swapper {
    static void swap(Node* ary, size_t a, size_t b)
    {
        std::swap(ary[a], ary[b]);
        ary[a].index = a;
        ary[b].index = b;
    }
};
using Node_heap = Heap<Node, Node_less, Node_swapper>;

void push(Node_heap& h, unsigned due, int id) { h.push(Node{due, h.size(), id}); }

void expect_consistent(Node_heap& h)
{
    for (size_t i = 0; i < h.size(); ++i) {
        EXPECT_EQ(h[i].index, i);
        EXPECT_TRUE(i == 0 || !Timer_LESS::x(h[i].due, h[(i - 1) / 2].due)) << "at " << i;
    }
}

struct Counted {
    explicit Counted(int v) : value(v) { ++live; }
    Counted(const Counted& o) : value(o.value) { ++live; }
    ~Counted() { --live; }
    int value;
    static std::atomic<int> live;
};
std::atomic<int> Counted::live{0};

std::atomic<int> plain_calls{0};
void plain_function() { ++plain_calls; }

class Clock : public Monitor<Clock> {
public:
    void tick()
    {
        dues.push_back(handle.expire_time());
        wakes.push_back(monitor_base().get_timer()->wake_time);
        if (cancel_self)
            handle.cancel();
    }
    void take(Counted c) { taken.push_back(c.value); }
    size_t calls() const volatile { return get_lock()->dues.size(); }

    std::vector<unsigned> dues;   // due time seen by each callback
    std::vector<unsigned> wakes;  // the timer's wake time seen by each callback
    std::vector<int> taken;
    Alarm handle;
    bool cancel_self = false;
};

class Part : public Forward_monitor<Part> {
public:
    explicit Part(Clock& c) : Forward_monitor<Part>(c) {}
    void take(Counted c) { taken.push_back(c.value * (monitor_base().owns() ? 1 : -1)); }
    std::vector<int> taken;
};

size_t task_count()
{
    size_t n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d))
            n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

// Threads of the process once the count holds still: a thread that was
// just joined can stay listed for a moment (under a user-mode emulator the
// host thread behind it ends after the join returns). Bounded: 200 ms.
size_t count_threads()
{
    size_t n = task_count();
    for (int i = 0; i < 100; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        const size_t again = task_count();
        if (again == n)
            break;
        n = again;
    }
    return n;
}

} // namespace

// Due times compare across the 32-bit wrap; the heap keeps the earliest on
// top through pushes and erases anywhere.
TEST(Heap, StaysOrderedAcrossTheWrapUnderMixedOperations)
{
    EXPECT_TRUE(Timer_LESS::x(0xFFFFFFF0u, 5u));
    EXPECT_FALSE(Timer_LESS::x(5u, 0xFFFFFFF0u));
    EXPECT_FALSE(Timer_LESS::x(7u, 7u));
    Node_heap h;
    unsigned seed = 12345;
    auto next = [&] { return seed = seed * 1103515245u + 12345u; };
    for (int i = 0; i < 300; ++i) {
        if (h.size() > 0 && next() % 3 == 0)
            h.erase((next() >> 8) % h.size());
        else
            push(h, 0xFFFFFF00u + (next() >> 8) % 512, i);  // straddles 2^32
    }
    expect_consistent(h);
    unsigned last = h[0].due;
    while (h.size() > 0) {
        EXPECT_FALSE(Timer_LESS::x(h[0].due, last));
        last = h[0].due;
        h.erase(0);
        expect_consistent(h);
    }
}

TEST(HeapDeathTest, IndexOutOfRangeStopsTheProcess)
{
    set_death_test_style();
    Node_heap h;
    push(h, 1, 1);
    EXPECT_DEATH(h.erase(1), "n < size\\(\\) @ jni/../Heap line @183");
    Clock c;
    Alarm a = c.monitor_base().alarm(c, &Clock::tick, MT_GetTickCount() + 100000, 0);
    internal::Timer_heap& th = *c.monitor_base().get_timer()->timer_heap;
    EXPECT_DEATH(th[0].get(), "get_monitor\\(\\).owns\\(\\) @ jni/../Timer line @495");
}

TEST(Alarm, LatePeriodicAlarmCatchesUpKeepingItsPhase)
{
    Output_capture log;
    Clock c;
    unsigned due = 0;
    {
        auto l = c.get_lock();
        due = MT_GetTickCount() - 35;
        l->handle = l->monitor_base().alarm(c, &Clock::tick, due, 10);
    }
    ASSERT_TRUE(eventually([&] { return c.calls() >= 5; }));
    c.get_lock()->handle.cancel();
    auto l = c.get_lock();
    for (unsigned k = 0; k < 5; ++k)
        EXPECT_EQ(l->dues[k], due + 10 * k);
    for (unsigned k = 0; k < 4; ++k)
        EXPECT_EQ(l->wakes[k], due) << "the four late expiries fire in one pass";
    EXPECT_TRUE(l->handle.complete());
    EXPECT_TRUE(log.messages().empty());
}

TEST(Alarm, CancelBeforeDuringAndAfterFiring)
{
    Output_capture log;
    Clock c;
    Monitor_base& m = c.monitor_base();

    Alarm far = m.alarm(c, &Clock::tick, MT_GetTickCount() + 100000, 0);
    Alarm pending = m.alarm(c, &Clock::tick, MT_GetTickCount() + 50000, 0);
    pending.cancel();
    EXPECT_TRUE(pending.complete());
    EXPECT_EQ(pending.fired(), 0u);

    // Earlier than the alarm the thread sleeps for: it must wake for it.
    Alarm once = m.alarm(c, &Clock::tick, MT_GetTickCount(), 0);
    ASSERT_TRUE(eventually([&] { return once.complete(); }));
    once.cancel();
    EXPECT_EQ(once.fired(), 1u);
    EXPECT_TRUE(once.complete());

    {
        auto l = c.get_lock();
        l->cancel_self = true;
        l->handle = m.alarm(c, &Clock::tick, MT_GetTickCount(), 2);
    }
    ASSERT_TRUE(eventually([&] { return c.get_lock()->handle.fired() >= 3; }));
    EXPECT_FALSE(c.get_lock()->handle.complete());  // self-cancel does not stop it
    c.get_lock()->handle.cancel();
    uint64_t fired = c.get_lock()->handle.fired();
    EXPECT_TRUE(c.get_lock()->handle.complete());
    MT_Delay(20);
    EXPECT_EQ(c.get_lock()->handle.fired(), fired);
    EXPECT_EQ(far.fired(), 0u);
    EXPECT_FALSE(far.complete());

    Alarm empty;
    empty.cancel();
    EXPECT_EQ(empty.fired(), 0u);
    EXPECT_FALSE(empty.complete());
    EXPECT_EQ(empty.expire_time(), 0u);
    EXPECT_TRUE(log.messages().empty());
}

// A cancelled alarm's place in the heap goes to the last alarm, which must
// move to where its due time belongs: the rest still fire in due order.
// Made in this order the heap holds them as listed, and the cancelled one
// (10 ms) is the top's right child, with the last (40 ms) below it.
TEST(Alarm, AlarmsLeftAfterACancelFireInDueOrder)
{
    Clock c;
    const unsigned base = MT_GetTickCount() + 100;
    std::vector<Alarm> alarms;
    for (int ms : {1, 50, 10, 60, 70, 20, 30, 80, 90, 95, 99, 40})
        alarms.push_back(c.monitor_base().alarm(c, &Clock::take, Counted(ms), base + ms, 0));
    alarms[2].cancel();
    ASSERT_TRUE(eventually([&] { return c.get_lock()->taken.size() == 11; }));
    EXPECT_EQ(c.get_lock()->taken, (std::vector<int>{1, 20, 30, 40, 50, 60, 70, 80, 90, 95, 99}));
}

TEST(Alarm, MemberFunctionWithArgumentOnAForwardingMonitor)
{
    Clock c;
    Part p(c);
    int calls_before = plain_calls;
    Alarm a = p.monitor_base().alarm(p, &Part::take, Counted(42), MT_GetTickCount() + 5, 0);
    Alarm f = c.alarm(&plain_function, MT_GetTickCount(), 0);
    ASSERT_TRUE(eventually([&] { return a.complete() && f.complete(); }));
    EXPECT_EQ(p.get_lock()->taken, std::vector<int>{42});  // ran holding the monitor
    EXPECT_EQ(plain_calls, calls_before + 1);
}

TEST(Alarm, DestroyingTheMonitorEndsTheTimerAndFreesBodies)
{
    Output_capture log;
    // Sanitizer runtimes start a helper thread of their own at the first
    // thread creation; make sure it exists before counting.
    std::thread([] {}).join();
    size_t threads_before = count_threads();
    Alarm kept;
    {
        auto c = std::make_unique<Clock>();
        unsigned later = MT_GetTickCount() + 100000;
        for (int i = 0; i < 3; ++i)
            c->monitor_base().alarm(*c, &Clock::take, Counted(i), later + i, 0);
        kept = c->monitor_base().alarm(*c, &Clock::take, Counted(9), later, 1000);
        EXPECT_EQ(Counted::live, 4);
        EXPECT_EQ(count_threads(), threads_before + 1);
    }
    EXPECT_EQ(count_threads(), threads_before);
    EXPECT_EQ(Counted::live, 1);  // only the body that still has a handle
    EXPECT_EQ(kept.fired(), 0u);
    kept.cancel();                // detached: nothing left to cancel
    EXPECT_FALSE(kept.complete());
    Alarm copy = kept;
    kept = Alarm();
    EXPECT_EQ(Counted::live, 1);
    copy = Alarm();
    EXPECT_EQ(Counted::live, 0);
    EXPECT_TRUE(log.messages().empty());
}

// Alarm bodies come from a pool of reused blocks; a body too large for a
// block, and more bodies alive at once than the pool keeps, must still be
// made and freed with matching sizes (the sanitizer builds check this).
TEST(Alarm, BodiesOfEverySizeAreMadeAndFreedThroughThePool)
{
    struct Big {
        Counted c{7};
        char payload[512] = {};
    };
    struct Holder : Monitor<Holder> {
        void small(Counted) {}
        void big(Big) {}
    } h;
    const unsigned later = MT_GetTickCount() + 100000;
    for (int round = 0; round < 2; ++round) {
        std::vector<Alarm> alarms;
        for (int i = 0; i < 40; ++i) {
            alarms.push_back(h.monitor_base().alarm(h, &Holder::small, Counted(i), later, 0));
            alarms.push_back(h.monitor_base().alarm(h, &Holder::big, Big{}, later, 0));
        }
        EXPECT_EQ(Counted::live, 80);
        for (Alarm& a : alarms)
            a.cancel();
        alarms.clear();
        EXPECT_EQ(Counted::live, 0);
    }
    Alarm soon = h.monitor_base().alarm(h, &Holder::small, Counted(1), MT_GetTickCount(), 0);
    EXPECT_TRUE(eventually([&] { return soon.complete(); }));
}
