// Monitor_base, Condition and the condition event pool (see monitor.h).
//
// The monitor's lock is an MT_Mutex_struct held at depth 1 however deep the
// owner nests; the nesting is counted in entry_cnt. Conditions borrow a
// manual-reset event from the process-wide pool while threads wait on them;
// the monitor sets or resets that event from the predicate whenever the
// outermost holder leaves after a notify(), or a waiter gives the monitor up.
#include "monitor.h"

#include <pthread.h>

#include <utility>

#include "Timer.h"

using namespace Synchroniztion_internal;

namespace {

// Remaining time of a finite wait that started at t0; 0 once the deadline
// has passed (a difference of 0xF0000000 or more is taken as negative).
unsigned remaining_ms(unsigned t0, unsigned ms)
{
    unsigned w = t0 + ms - MT_GetTickCount();
    return w >= 0xF0000000u ? 0 : w;
}

pthread_once_t pool_once = PTHREAD_ONCE_INIT;
Condition_event_pool* the_pool = nullptr;

void create_pool()
{
    the_pool = new Condition_event_pool;
}

} // namespace

// ---------------------------------------------------------------------------
// Guarded callbacks
// ---------------------------------------------------------------------------

void Exception_trap_base(const char* name, EFunction& f, bool flag)
{
    (void)name;
    (void)flag;
    f.run();
}

// ---------------------------------------------------------------------------
// Condition_event_pool
// ---------------------------------------------------------------------------

Condition_event_pool::Condition_event_pool()
    : mutex(new MT_Mutex_struct(false)), free_list(nullptr)
{
}

Condition_event_pool_item* Condition_event_pool::allocate()
{
    mutex->wait(MT_INFINITE);
    Condition_event_pool_item* item = free_list;
    if (item)
        free_list = item->next;
    mutex->release();
    if (!item)
        item = new Condition_event_pool_item{new MT_Event_struct(false, false), nullptr};
    return item;
}

void Condition_event_pool::free(Condition_event_pool_item* item)
{
    mutex->wait(MT_INFINITE);
    item->next = free_list;
    free_list = item;
    mutex->release();
}

size_t Condition_event_pool::free_count() const
{
    mutex->wait(MT_INFINITE);
    size_t n = 0;
    for (Condition_event_pool_item* i = free_list; i; i = i->next)
        ++n;
    mutex->release();
    return n;
}

Condition_event_pool& get_the_condition_event_pool()
{
    pthread_once(&pool_once, create_pool);
    return *the_pool;
}

// ---------------------------------------------------------------------------
// Condition
// ---------------------------------------------------------------------------

Condition::Condition() : pimpl(nullptr), next(nullptr), item(nullptr), wait_cnt(0) {}

Condition::Condition(Condition_impl* impl)
    : pimpl(impl), next(nullptr), item(nullptr), wait_cnt(0)
{
}

Condition::~Condition()
{
    SD_ASSERT(wait_cnt == 0, "wait_cnt == 0", VQX_MONITOR_LABEL, 33);
    delete pimpl;
}

void swap(Condition& a, Condition& b)
{
    std::swap(a.pimpl, b.pimpl);
}

bool Condition::check() const
{
    if (!pimpl) {
        sd_assert_function("pimpl", VQX_MONITOR_LABEL, 54);
        return false;
    }
    return pimpl->check();
}

void Condition::reference()
{
    ++wait_cnt;
    if (!item) {
        item = get_the_condition_event_pool().allocate();
        SD_ASSERT(item, "item", VQX_MONITOR_LABEL, 68);
    }
}

unsigned Condition::unreference()
{
    if (wait_cnt == 0) {
        sd_assert_function("wait_cnt > 0", VQX_MONITOR_LABEL, 74);
        return 0;
    }
    if (--wait_cnt == 0) {
        if (item)
            get_the_condition_event_pool().free(item);
        item = nullptr;
    }
    return wait_cnt;
}

bool Condition::update() const
{
    SD_ASSERT(item, "item", VQX_MONITOR_LABEL, 94);
    bool value = check();
    SD_ASSERT(item != nullptr, "item != 0", VQX_MONITOR_LABEL, 97);
    if (item) {
        if (value)
            item->event->set_event();
        else
            item->event->reset_event();
    }
    return value;
}

bool Condition::wait(unsigned ms)
{
    if (!item) {
        sd_assert_function("item != 0", VQX_MONITOR_LABEL, 108);
        return false;
    }
    bool got = item->event->wait(ms);
    if (!got && ms == MT_INFINITE)
        sd_assert_function("nWait", VQX_MONITOR_LABEL, 111);
    return got;
}

// ---------------------------------------------------------------------------
// Monitor_base
// ---------------------------------------------------------------------------

Monitor_base::Monitor_base()
    : mutex(new MT_Mutex_struct(false)), entry_cnt(0), waiting(nullptr),
      notify_pending(false), timer(nullptr)
{
}

Monitor_base::~Monitor_base()
{
    end_alarms();
    delete mutex;
}

void Monitor_base::end_alarms()
{
    // The timer pointer is read inside the monitor (it is set there); the
    // timer itself stays registered until its thread has ended, so that a
    // callback still running cannot create a second one.
    internal::Timer* t = nullptr;
    if (enter(MT_INFINITE)) {
        t = timer;
        leave();
    }
    if (!t)
        return;
    internal::delete_timer(t);
    if (enter(MT_INFINITE)) {
        timer = nullptr;
        leave();
    }
}

Monitor_base* Monitor_base::enter(unsigned ms) volatile
{
    Monitor_base* m = self();
    if (m->mutex && m->mutex->owns()) {
        ++m->entry_cnt;  // nesting is counted in entry_cnt only
        return m;
    }
    if (!m->mutex || !m->mutex->wait(ms)) {
        if (ms == MT_INFINITE)
            sd_assert_function("nWait", VQX_MONITOR_LABEL, 164);
        return nullptr;
    }
    SD_ASSERT(m->mutex->owns(), "owns()", VQX_MONITOR_LABEL, 168);
    // A holder's nested entry returned above: this is the outermost one.
    ++m->entry_cnt;
    m->notify_pending = false;
    return m;
}

void Monitor_base::leave()
{
    // The entry count belongs to the holder: a thread that does not hold
    // the monitor is reported and changes nothing.
    if (!owns()) {
        sd_assert_function("owns()", VQX_MONITOR_LABEL, 190);
        return;
    }
    if (entry_cnt == 0) {
        sd_assert_function("entry_cnt >= 1", VQX_MONITOR_LABEL, 189);
        return;
    }
    if (--entry_cnt > 0)
        return;
    Pending_sets later;
    notify_check(later);
    mutex->release();
    later.run();
}

bool Monitor_base::owns() const volatile
{
    MT_Mutex_struct* m = self()->mutex;
    return m != nullptr && m->owns();
}

void Monitor_base::notify_check() const
{
    if (!notify_pending)
        return;
    for (Condition* c = waiting; c; c = c->next)
        c->update();
}

void Monitor_base::notify_check(Pending_sets& later) const
{
    if (!notify_pending)
        return;
    for (Condition* c = waiting; c; c = c->next) {
        if (!c->item) {
            c->update();  // reports the condition without an event
            continue;
        }
        // Each predicate is evaluated once: false resets its event now,
        // true sets it once the lock is given up (or now, when the list of
        // sets to make later is full).
        if (!c->check())
            c->item->event->reset_event();
        else if (later.count == Pending_sets::capacity)
            c->item->event->set_event();
        else
            later.events[later.count++] = c->item->event;
    }
}

// The events stay valid: the pool never frees one. If the condition gave
// its event back meanwhile, the set reaches a waiter of another condition,
// which finds its predicate false and sleeps again.
void Monitor_base::Pending_sets::run() const
{
    for (int i = 0; i < count; ++i)
        events[i]->set_event();
}

bool Monitor_base::in_waiting(const Condition& c) const
{
    for (Condition* i = waiting; i; i = i->next)
        if (i == &c)
            return true;
    return false;
}

void Monitor_base::unlink_waiting(Condition& c) const
{
    for (Condition** link = &waiting; *link; link = &(*link)->next) {
        if (*link == &c) {
            *link = c.next;
            c.next = nullptr;
            return;
        }
    }
    sd_assert_function("0", VQX_MONITOR_LABEL, 283);
}

bool Monitor_base::wait(Condition& c, unsigned ms) const
{
    if (!owns()) {
        sd_assert_function("0", VQX_MONITOR_LABEL, 216);
        return false;
    }
    unsigned t0 = MT_GetTickCount();
    if (c.check())
        return true;

    c.reference();
    if (!in_waiting(c)) {
        if (c.item)
            c.item->event->reset_event();
        else
            sd_assert_function("c.item", VQX_MONITOR_LABEL, 233);
        c.next = waiting;
        waiting = &c;
    }

    SD_ASSERT(mutex->owns(), "owns()", VQX_MONITOR_LABEL, 242);
    unsigned saved_entry_cnt = entry_cnt;
    entry_cnt = 0;

    bool got;
    bool now_true;
    do {
        Pending_sets later;
        notify_check(later);
        mutex->release();
        later.run();
        unsigned w = ms == MT_INFINITE ? MT_INFINITE : ms == 0 ? 0 : remaining_ms(t0, ms);
        got = c.wait(w);
        if (!mutex->wait(MT_INFINITE))
            sd_assert_function("nWait", VQX_MONITOR_LABEL, 265);
        notify_pending = false;
        now_true = c.check();
        // Woken by a set that the state has overtaken: sleep again until a
        // later change sets the event (every such change sets it after
        // this reset, since it is made under the lock held here).
        if (got && !now_true && c.item)
            c.item->event->reset_event();
    } while (got && !now_true);

    SD_ASSERT(mutex->owns(), "owns()", VQX_MONITOR_LABEL, 269);
    entry_cnt = saved_entry_cnt;

    if (c.unreference() != 0)
        return got;
    unlink_waiting(c);
    return got;
}

internal::Timer* Monitor_base::get_timer()
{
    // Created inside the monitor, so that two first alarms set at once from
    // different threads share one timer.
    Monitor_base* m = enter(MT_INFINITE);
    if (!timer)
        timer = internal::new_timer(*this);
    internal::Timer* t = timer;
    if (m)
        leave();
    return t;
}

Alarm Monitor_base::alarm(void (*fn)(), unsigned due_ms, unsigned period_ms)
{
    struct am : internal::Alarm_body {
        am(internal::Timer* t, unsigned d, unsigned p, void (*f)())
            : Alarm_body(t, d, p), function(f) {}
        void run() override { function(); }
        void (*function)();
    };
    return schedule_alarm(new am(get_timer(), due_ms, period_ms, fn));
}

Alarm Monitor_base::schedule_alarm(internal::Alarm_body* body)
{
    Monitor_base* m = enter(MT_INFINITE);
    SD_ASSERT(m, "p_t", VQX_MONITOR_HEADER_LABEL, 234);
    if (body->p_timer)
        body->p_timer->adopt(body);
    body->schedule();
    // The handle is made before leaving: once the monitor is free the timer
    // thread may fire a one-shot alarm and drop the heap's reference.
    Alarm handle(body);
    if (m)
        leave();
    return handle;
}
