// The timer thread, alarm bodies and alarm handles (see Timer.h, monitor.h).
#include "Timer.h"

#include <pthread.h>

#include <utility>

using namespace Synchroniztion_internal;

namespace {

constexpr size_t not_in_heap = ~size_t(0);

// Guards the bookkeeping of alarm bodies whose monitor has been destroyed
// while handles on them remained. Never destroyed, so handles that live
// until the end of the process can still use it.
pthread_mutex_t detached_guard = PTHREAD_MUTEX_INITIALIZER;

} // namespace

namespace internal {

// ---------------------------------------------------------------------------
// Alarm_body
// ---------------------------------------------------------------------------

Alarm_body::Alarm_body(Timer* timer, unsigned due_ms, unsigned period_ms)
    : ref_cnt(0), heap_index(not_in_heap), due(due_ms), period(period_ms), fired(0),
      flags(0), p_timer(timer), prev_body(nullptr), next_body(nullptr)
{
}

Alarm_body::~Alarm_body()
{
    SD_ASSERT(ref_cnt == 0, "ref_cnt == 0", VQX_TIMER_LABEL, 613);
    if (p_timer)
        p_timer->forget(this);
}

void Alarm_body::incr_ref()
{
    if (++ref_cnt == 0)
        sd_assert_function("0", VQX_TIMER_LABEL, 599);
}

void Alarm_body::decr_ref()
{
    if (--ref_cnt == 0)
        delete this;
}

void Alarm_body::schedule()
{
    SD_ASSERT(p_timer && p_timer->monitor.owns(), "p_timer->monitor.owns()", VQX_TIMER_LABEL,
              650);
    if (heap_index != not_in_heap) {
        sd_assert_function("heap_index == ~size_t(0)", VQX_TIMER_LABEL, 654);
        return;
    }
    if (!p_timer || !p_timer->timer_heap)
        return;
    Timer_heap& heap = *p_timer->timer_heap;
    Alarm_ptr a(this);
    heap_index = heap.size();
    heap.push(a);
    p_timer->monitor.notify();
}

void Alarm_body::cancel()
{
    if (heap_index == not_in_heap)
        return;
    if (!is_complete() && p_timer && p_timer->timer_heap) {
        Timer_heap& heap = *p_timer->timer_heap;
        Alarm_body* there = heap[heap_index].m_pimpl;
        SD_ASSERT(this == there, "&alarm == (*timer_heap)[alarm.heap_index].m_pimpl",
                  VQX_TIMER_LABEL, 174);
        if (this == there) {
            heap.erase(heap_index);
            heap_index = not_in_heap;
        }
    }
    flags |= complete_flag;
}

// ---------------------------------------------------------------------------
// Body_lock
// ---------------------------------------------------------------------------

Body_lock::Body_lock(const Alarm_body* body, const char* text, unsigned line)
    : monitor(nullptr), detached(false)
{
    if (!body)
        return;
    if (!body->p_timer) {
        pthread_mutex_lock(&detached_guard);
        detached = true;
        return;
    }
    Monitor_base& m = body->p_timer->get_monitor();
    if (m.enter(MT_INFINITE))
        monitor = &m;
    else
        sd_assert_function(text, VQX_MONITOR_HEADER_LABEL, line);
}

Body_lock::~Body_lock()
{
    if (monitor)
        monitor->leave();
    if (detached)
        pthread_mutex_unlock(&detached_guard);
}

// ---------------------------------------------------------------------------
// Alarm_ptr and Timer_swapper
// ---------------------------------------------------------------------------

Alarm_ptr::Alarm_ptr(Alarm_body* p_alarm_body) : m_pimpl(p_alarm_body)
{
    if (!m_pimpl)
        return;
    SD_ASSERT(p_alarm_body->p_timer && p_alarm_body->p_timer->monitor.owns(),
              "p_alarm_body->p_timer->monitor.owns()", VQX_TIMER_LABEL, 451);
    SD_ASSERT(m_pimpl->ref_cnt == 0, "m_pimpl->ref_cnt == 0", VQX_TIMER_LABEL, 458);
    m_pimpl->incr_ref();
}

Alarm_ptr::Alarm_ptr(const Alarm_ptr& other) : m_pimpl(other.get())
{
    if (m_pimpl)
        m_pimpl->incr_ref();
}

Alarm_ptr& Alarm_ptr::operator=(const Alarm_ptr& other)
{
    Alarm_body* fresh = other.get();
    Alarm_body* old = get();
    if (fresh)
        fresh->incr_ref();
    m_pimpl = fresh;
    if (old)
        old->decr_ref();
    return *this;
}

Alarm_ptr::~Alarm_ptr()
{
    if (Alarm_body* body = get())
        body->decr_ref();
}

void Alarm_ptr::check() const
{
    if (!m_pimpl || !m_pimpl->p_timer || m_pimpl->p_timer->get_monitor().owns())
        return;
    sd_assert_function("m_pimpl == 0 || m_pimpl->p_timer->get_monitor().owns()",
                       VQX_TIMER_LABEL, 495);
    sd_fatal();
}

void Timer_swapper::swap(Alarm_ptr* ary, size_t n1, size_t n2)
{
    Alarm_body* b1 = ary[n1].m_pimpl;
    Alarm_body* b2 = ary[n2].m_pimpl;
    SD_ASSERT(n1 == b1->heap_index, "n1 == ary[n1].m_pimpl->heap_index", VQX_TIMER_LABEL, 87);
    SD_ASSERT(n2 == b2->heap_index, "n2 == ary[n2].m_pimpl->heap_index", VQX_TIMER_LABEL, 88);
    std::swap(ary[n1].m_pimpl, ary[n2].m_pimpl);
    std::swap(b1->heap_index, b2->heap_index);
}

// ---------------------------------------------------------------------------
// Timer
// ---------------------------------------------------------------------------

Timer::Timer(Monitor_base& owner)
    : monitor(owner), timer_heap(new Timer_heap), hThread(0), has_deadline(false),
      wake_time(0), stop(false), exited(false), bodies(nullptr)
{
}

Timer::~Timer()
{
    delete timer_heap;  // already released by delete_timer
}

bool Timer::run_thread_proc() const
{
    if (stop)
        return true;
    if (!timer_heap || timer_heap->empty())
        return false;
    return !has_deadline || Timer_LESS::x((*timer_heap)[0]->due, wake_time);
}

void Timer::adopt(Alarm_body* body)
{
    body->prev_body = nullptr;
    body->next_body = bodies;
    if (bodies)
        bodies->prev_body = body;
    bodies = body;
}

void Timer::forget(Alarm_body* body)
{
    if (body->prev_body)
        body->prev_body->next_body = body->next_body;
    else if (bodies == body)
        bodies = body->next_body;
    if (body->next_body)
        body->next_body->prev_body = body->prev_body;
    body->prev_body = body->next_body = nullptr;
}

unsigned Timer::thread_trampoline(void* self)
{
    Timer* timer = static_cast<Timer*>(self);
    timer->thread_proc();
    timer->exited = true;
    return 0;
}

void Timer::thread_proc()
{
    Condition wake_up(this, &Timer::run_thread_proc);
    if (!monitor.enter(MT_INFINITE))
        sd_assert_function("p_t", VQX_MONITOR_HEADER_LABEL, 234);
    while (!stop) {
        if (!timer_heap) {
            sd_assert_function("timer_heap", VQX_TIMER_LABEL, 267);
            has_deadline = false;
        } else if (timer_heap->empty()) {
            has_deadline = false;
        } else {
            wake_time = (*timer_heap)[0]->due;
            has_deadline = true;
        }
        unsigned now = MT_GetTickCount();
        if (has_deadline && !Timer_LESS::x(now, wake_time)) {
            fire_due_alarms();
            continue;
        }
        monitor.wait(wake_up, has_deadline ? wake_time - now : MT_INFINITE);
    }
    monitor.leave();
}

void Timer::fire_due_alarms()
{
    while (timer_heap && !timer_heap->empty()) {
        unsigned now = MT_GetTickCount();
        Alarm_ptr a((*timer_heap)[0]);
        SD_ASSERT(0 == a->heap_index, "0 == a.heap_index", VQX_TIMER_LABEL, 309);
        if (Timer_LESS::x(now, a->due))
            return;
        timer_heap->erase(0);
        Alarm_body& alarm = *a;
        alarm.heap_index = not_in_heap;
        ++alarm.fired;
        if (!alarm.p_timer)
            sd_assert_function("alarm.p_timer", VQX_TIMER_LABEL, 198);
        else
            Exception_trap("Alarm callback", alarm, &Alarm_body::run);
        if (alarm.period != 0)
            reschedule(a);
        else
            alarm.flags |= Alarm_body::complete_flag;
    }
}

void Timer::reschedule(Alarm_ptr& a)
{
    Alarm_body& alarm = *a;
    alarm.due += alarm.period;
    if (alarm.heap_index != not_in_heap) {
        sd_assert_function("alarm.get()->heap_index == ~size_t(0)", VQX_TIMER_LABEL, 152);
        return;
    }
    if (!timer_heap)
        return;
    alarm.heap_index = timer_heap->size();
    timer_heap->push(a);
    monitor.notify();
}

Timer* new_timer(Monitor_base& monitor)
{
    Timer* timer = new Timer(monitor);
    if (!MT_CreateThread(&timer->hThread, &Timer::thread_trampoline, timer))
        timer->hThread = 0;
    SD_ASSERT(timer->hThread, "hThread", VQX_TIMER_LABEL, 123);
    return timer;
}

void delete_timer(Timer* timer)
{
    if (!timer)
        return;
    Monitor_base& monitor = timer->monitor;
    bool entered = monitor.enter(MT_INFINITE) != nullptr;
    SD_ASSERT(entered, "p_t", VQX_MONITOR_HEADER_LABEL, 234);
    timer->stop = true;
    monitor.notify();
    delete timer->timer_heap;  // bodies without handles go here
    timer->timer_heap = nullptr;
    // Bodies that still have handles outlive the monitor: detach them.
    for (Alarm_body* body = timer->bodies; body;) {
        Alarm_body* next = body->next_body;
        body->p_timer = nullptr;
        body->heap_index = not_in_heap;
        body->prev_body = body->next_body = nullptr;
        body = next;
    }
    timer->bodies = nullptr;
    if (entered)
        monitor.leave();  // wakes the thread through its condition
    if (timer->hThread != 0) {
        pthread_join(static_cast<pthread_t>(timer->hThread), nullptr);
        SD_ASSERT(timer->exited, "0", VQX_TIMER_LABEL, 141);
    }
    delete timer;
}

} // namespace internal

// ---------------------------------------------------------------------------
// Alarm (the user's handle)
// ---------------------------------------------------------------------------

Alarm::Alarm(internal::Alarm_body* body) : m_pimpl(body)
{
    if (!m_pimpl)
        return;
    internal::Body_lock lock(m_pimpl, "p_t", 234);
    m_pimpl->incr_ref();
}

Alarm::Alarm(const Alarm& other) : Alarm(other.m_pimpl) {}

Alarm& Alarm::operator=(const Alarm& other)
{
    if (m_pimpl != other.m_pimpl) {
        Alarm copy(other);
        std::swap(m_pimpl, copy.m_pimpl);
    }
    return *this;
}

Alarm& Alarm::operator=(Alarm&& other)
{
    if (this != &other) {
        release();
        m_pimpl = other.m_pimpl;
        other.m_pimpl = nullptr;
    }
    return *this;
}

Alarm::~Alarm()
{
    release();
}

void Alarm::release()
{
    internal::Alarm_body* body = m_pimpl;
    if (!body)
        return;
    m_pimpl = nullptr;
    internal::Body_lock lock(body, "p_t", 234);
    body->decr_ref();  // may delete the body; the lock does not touch it
}

void Alarm::cancel()
{
    if (!m_pimpl)
        return;
    internal::Body_lock lock(m_pimpl, "p_t", 234);
    m_pimpl->cancel();
}

uint64_t Alarm::fired() const
{
    if (!m_pimpl)
        return 0;
    internal::lock_template<const Alarm, const internal::Alarm_body> body(*this);
    return body->fired;
}

bool Alarm::complete() const
{
    if (!m_pimpl)
        return false;
    internal::lock_template<const Alarm, const internal::Alarm_body> body(*this);
    return body->is_complete();
}

unsigned Alarm::expire_time() const
{
    if (!m_pimpl)
        return 0;
    internal::lock_template<const Alarm, const internal::Alarm_body> body(*this);
    return body->due;
}
