// Timer: the private timer thread of a monitor and the alarm heap it serves.
//
// Each Monitor_base that sets an alarm gets one internal::Timer, created on
// the first alarm (Monitor_base::get_timer -> new_timer) and ended when the
// monitor is destroyed (delete_timer, which joins the thread). The thread
// holds the monitor at all times except while it waits for the earliest due
// time, so alarm callbacks are serialised with every other operation on the
// monitored object and may call its plain operations directly.
//
// Due times are absolute MT_GetTickCount() values compared with wrap-around
// (Timer_LESS). A periodic alarm is rescheduled from its previous due time,
// so it keeps its phase and fires repeatedly to catch up when it is late.
//
// Alarm_ptr is the heap's handle on a body. It may only be used with the
// body's monitor held; any other use is a broken invariant that is reported
// and stops the process on purpose.
//
// Threading: every field of Timer, of the heap and of the bodies is guarded
// by the owning monitor. `exited` is written by the thread as it ends and
// read by delete_timer after joining it.
//
// Decision: a thread that could not be created is reported ("hThread"); the
// timer then keeps its alarms without ever firing them, and delete_timer
// skips the join (and its "exited" check) for it. The thread gets no name
// and keeps the platform's default priority.
#ifndef VQX_TIMER_H
#define VQX_TIMER_H

#include <cstddef>

#include "Heap.h"
#include "monitor.h"

namespace internal {

/// The heap's reference-counting handle on an alarm body.
class Alarm_ptr {
public:
    Alarm_ptr() : m_pimpl(nullptr) {}
    /// First handle on a fresh body (monitor held, no other handle yet).
    explicit Alarm_ptr(Alarm_body* p_alarm_body);
    Alarm_ptr(const Alarm_ptr& other);
    Alarm_ptr& operator=(const Alarm_ptr& other);
    virtual ~Alarm_ptr();

    Alarm_body* get() const
    {
        check();
        return m_pimpl;
    }
    Alarm_body* operator->() const { return get(); }
    Alarm_body& operator*() const { return *get(); }

    Alarm_body* m_pimpl;

private:
    /// The body's monitor must be held by the caller; fatal otherwise.
    void check() const;
};

/// Strict wrap-around order of due times: a is strictly earlier than b.
struct Timer_LESS {
    static bool x(unsigned a, unsigned b) { return static_cast<int32_t>(b - a) > 0; }
    static bool x(const Alarm_ptr& a, const Alarm_ptr& b)
    {
        return x(a->body_expire_time(), b->body_expire_time());
    }
};

/// Swaps two heap slots and their bodies' heap_index values.
struct Timer_swapper {
    static void swap(Alarm_ptr* ary, size_t n1, size_t n2);
};

typedef Heap<Alarm_ptr, Timer_LESS, Timer_swapper> Timer_heap;

/// One monitor's timer thread and its alarms.
class Timer {
public:
    explicit Timer(Monitor_base& owner);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    Monitor_base& get_monitor() const { return monitor; }

    /// The thread's wake-up predicate: stopping, or an alarm earlier than
    /// the one it sleeps for (or any alarm when it sleeps without one).
    bool run_thread_proc() const;

    /// Links a new body into the list of live bodies (monitor held).
    void adopt(Alarm_body* body);
    /// Unlinks a body that is being destroyed (monitor held).
    void forget(Alarm_body* body);

    Monitor_base& monitor;
    Timer_heap* timer_heap;
    long hThread;
    bool has_deadline;
    unsigned wake_time;
    bool stop;
    bool exited;
    Alarm_body* bodies;  ///< live bodies, for detaching them at the end

private:
    friend Timer* new_timer(Monitor_base& monitor);
    static unsigned thread_trampoline(void* self);
    void thread_proc();
    /// Runs every alarm that is due; returns when the earliest is not.
    void fire_due_alarms();
    /// Puts a periodic alarm back one period later.
    void reschedule(Alarm_ptr& a);
};

/// Creates the timer of @p monitor and starts its thread.
Timer* new_timer(Monitor_base& monitor);
/// Stops and joins the thread, releases the heap, detaches the bodies that
/// still have handles and frees the timer.
void delete_timer(Timer* timer);

} // namespace internal

#endif // VQX_TIMER_H
