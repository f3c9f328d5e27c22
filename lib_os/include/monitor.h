// monitor.h - the driver's concurrency framework: monitors, conditions and
// alarms.
//
// Every stateful object that several threads touch is a monitor: one
// recursive lock with an entry count, the conditions (predicates over the
// object's state) on which threads wait, a "something changed" flag and a
// private timer thread for alarms.
//
//  - Monitor_base: the lock, the list of waited-on conditions, the notify
//    flag and the timer. enter/leave nest; only the outermost leave
//    re-evaluates the waited-on conditions (when notify() was called) and
//    gives the lock up. wait() gives the monitor up completely while it
//    sleeps and restores the caller's depth afterwards.
//  - Condition: a predicate handle. While threads wait on it, it borrows a
//    manual-reset event from the process-wide Condition_event_pool; the
//    monitor sets or resets that event when it re-evaluates the predicate.
//  - IMonitor<T>: the interface of a monitored class T, with get_lock()
//    returning a scoped Monitor_lock<T>. Monitor<T> owns its Monitor_base;
//    Forward_monitor<T> shares another object's Monitor_base.
//  - Alarm: the user's handle on a delayed or periodic callback that runs on
//    the monitor's timer thread while that thread holds the monitor (see
//    Timer.h for the thread and the alarm heap).
//
// Conventions: a monitored class offers each operation twice, a plain form
// that requires the monitor to be held and a `volatile` form that takes it
// through get_lock(), calls the plain form and leaves. State changes call
// notify(). The templates always enter with an infinite wait, whatever
// time-out they are given.
//
// Threading: enter/leave/wait/notify/notify_check must be called by the
// thread that holds the monitor (enter excepted). Everything a Monitor_base
// keeps (entry count, waiting list, notify flag, timer pointer) is guarded by
// its mutex. A leave or wait by a thread that does not hold the monitor is
// reported as an assertion and changes nothing.
//
// Alarm handles may outlive the monitor they were set on: destroying the
// monitor detaches the remaining alarm bodies from it, and such detached
// handles keep working (cancel does nothing, the counters keep their last
// values) under a small process-wide guard.
//
// A monitor must not be destroyed by a thread that holds it, from one of its
// own alarm callbacks, nor while one of them waits inside it.
//
// Decision: get_lock() returns a Monitor_lock<T>, a movable scoped pointer
// that leaves the monitor when destroyed (or on unlock()); a const volatile
// object gives a Monitor_lock<const T>, so read-only volatile forms can be
// written without casts.
#ifndef VQX_LIB_OS_MONITOR_H
#define VQX_LIB_OS_MONITOR_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Diagnostics.h"
#include "Synchronization.h"

class Monitor_base;
class Condition;
class Alarm;

// Source labels of the framework's messages.
#define VQX_MONITOR_HEADER_LABEL "jni/../../lib_os/include/monitor"
#define VQX_MONITOR_LABEL "jni/../monitor"
#define VQX_TIMER_LABEL "jni/../Timer"
#define VQX_HEAP_LABEL "jni/../Heap"

// ---------------------------------------------------------------------------
// Guarded callbacks
// ---------------------------------------------------------------------------

/// An abstract callable run by Exception_trap_base.
struct EFunction {
    virtual ~EFunction() {}
    virtual void run() = 0;
};

/// Runs @p f. The label and the flag document the call site only; no
/// exception handling is installed (the driver throws none).
void Exception_trap_base(const char* name, EFunction& f, bool flag);

/// Runs (obj.*method)() through Exception_trap_base.
template <class T>
void Exception_trap(const char* name, T& obj, void (T::*method)(), bool flag = false)
{
    struct func_t : EFunction {
        func_t(T& o, void (T::*m)()) : object(o), method(m) {}
        void run() override { (object.*method)(); }
        T& object;
        void (T::*method)();
    };
    func_t f(obj, method);
    Exception_trap_base(name, f, flag);
}

/// Runs fn(arg) through Exception_trap_base.
template <class A>
void Exception_trap(const char* name, void (*fn)(A&), A& arg, bool flag = false)
{
    struct func_t : EFunction {
        func_t(void (*f)(A&), A& a) : function(f), argument(a) {}
        void run() override { function(argument); }
        void (*function)(A&);
        A& argument;
    };
    func_t f(fn, arg);
    Exception_trap_base(name, f, flag);
}

// ---------------------------------------------------------------------------
// Conditions
// ---------------------------------------------------------------------------

/// The predicate behind a Condition.
class Condition_impl {
public:
    virtual ~Condition_impl() {}
    virtual bool check() const = 0;
};

/// A predicate that is a const member function of the monitored object.
template <class T>
class Member_method_condition_impl : public Condition_impl {
public:
    Member_method_condition_impl(const T* obj, bool (T::*pred)() const)
        : object(obj), method(pred) {}
    bool check() const override { return (object->*method)(); }

private:
    const T* object;
    bool (T::*method)() const;
};

/// One pooled manual-reset event, lent to a Condition while threads wait.
struct Condition_event_pool_item {
    Synchroniztion_internal::MT_Event_struct* event;
    Condition_event_pool_item* next;
};

/// The process-wide pool of condition events. It grows on demand and never
/// frees its items. Threading: any thread; its own mutex is held only for a
/// list operation, never while waiting.
class Condition_event_pool {
public:
    Condition_event_pool();
    Condition_event_pool(const Condition_event_pool&) = delete;
    Condition_event_pool& operator=(const Condition_event_pool&) = delete;

    /// Takes an item from the free list, or makes a new one (unsignaled).
    Condition_event_pool_item* allocate();
    /// Gives an item back; its event keeps its state.
    void free(Condition_event_pool_item* item);
    /// Number of items on the free list (diagnostics and tests).
    size_t free_count() const;

private:
    Synchroniztion_internal::MT_Mutex_struct* mutex;
    Condition_event_pool_item* free_list;
};

/// The one pool of the process, created on first use.
Condition_event_pool& get_the_condition_event_pool();

/// A waitable predicate of a monitor. All fields are guarded by the monitor
/// the condition is waited on in.
class Condition {
public:
    Condition();
    /// Takes ownership of @p impl.
    explicit Condition(Condition_impl* impl);
    /// Condition over obj->pred().
    template <class T, class U>
    Condition(const T* obj, bool (U::*pred)() const)
        : Condition(new Member_method_condition_impl<U>(obj, pred)) {}
    ~Condition();

    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    /// Evaluates the predicate.
    bool check() const;
    /// One more waiter; borrows the pool event on the first.
    void reference();
    /// One waiter less; returns the event at the last. Returns the new count.
    unsigned unreference();
    /// Sets (true) or resets (false) the event from the predicate.
    bool update() const;
    /// Waits on the event for at most @p ms milliseconds (monitor released).
    bool wait(unsigned ms);

    friend void swap(Condition& a, Condition& b);

    Condition_impl* pimpl;
    Condition* next;                  ///< link in Monitor_base's waiting list
    Condition_event_pool_item* item;  ///< lent while wait_cnt > 0
    unsigned wait_cnt;
};

// ---------------------------------------------------------------------------
// Alarm bodies (the timer thread itself is in Timer.h)
// ---------------------------------------------------------------------------

namespace internal {

class Timer;

/// One alarm: due time, period, counters and the callback (run()). Heap
/// allocated and reference counted by Alarm and Alarm_ptr handles; every
/// field is guarded by the monitor of p_timer (or by the detached-body guard
/// once that monitor is gone).
class Alarm_body {
public:
    enum { complete_flag = 1 };

    Alarm_body(Timer* timer, unsigned due_ms, unsigned period_ms);
    virtual ~Alarm_body();
    virtual void run() = 0;

    Alarm_body(const Alarm_body&) = delete;
    Alarm_body& operator=(const Alarm_body&) = delete;

    /// Bodies come from a small pool of reused blocks (Timer_alarm_pool.cpp):
    /// the stream driver sets alarms at frame rate.
    static void* operator new(size_t size);
    static void operator delete(void* p, size_t size) noexcept;

    void incr_ref();
    /// Drops one reference; deletes the body at zero.
    void decr_ref();
    /// Puts the body into the timer's heap (monitor held).
    void schedule();
    /// Takes a scheduled body out of the heap and marks it complete
    /// (monitor held). A body not in the heap is left alone.
    void cancel();

    unsigned body_expire_time() const { return due; }
    bool is_complete() const { return (flags & complete_flag) != 0; }

    size_t ref_cnt;
    size_t heap_index;  ///< position in the timer's heap, ~0 when not in it
    unsigned due;
    unsigned period;    ///< 0 for a one-shot alarm
    uint64_t fired;
    uint16_t flags;
    Timer* p_timer;     ///< null once the monitor has been destroyed

    // The timer's list of live bodies, so that destroying the monitor can
    // detach the bodies that still have handles.
    Alarm_body* prev_body;
    Alarm_body* next_body;
};

/// Holds the lock that guards a body's fields: its monitor, or the
/// detached-body guard. A null body locks nothing. Entry failure is reported
/// with @p text / @p line of the monitor header.
class Body_lock {
public:
    Body_lock(const Alarm_body* body, const char* text, unsigned line);
    ~Body_lock();
    Body_lock(const Body_lock&) = delete;
    Body_lock& operator=(const Body_lock&) = delete;

private:
    Monitor_base* monitor;
    bool detached;
};

/// Scoped access to the body behind a handle, with the body's lock held.
template <class H, class B>
class lock_template {
public:
    explicit lock_template(H& handle)
        : body(handle.get()), lock(check_body(body), "m", 407) {}
    B* operator->() const { return body; }
    B* get() const { return body; }

private:
    static B* check_body(B* b)
    {
        SD_ASSERT(b, "body", VQX_MONITOR_HEADER_LABEL, 403);
        return b;
    }
    B* body;
    Body_lock lock;
};

} // namespace internal

// ---------------------------------------------------------------------------
// Alarm handle
// ---------------------------------------------------------------------------

/// The user's handle on an alarm. Empty by default; copies share the alarm.
/// Threading: a handle object is not itself thread-safe (like any value),
/// but its operations take the alarm's monitor, so copies may be used from
/// different threads.
class Alarm {
public:
    constexpr Alarm() : m_pimpl(nullptr) {}
    explicit Alarm(internal::Alarm_body* body);
    Alarm(const Alarm& other);
    Alarm(Alarm&& other) noexcept : m_pimpl(other.m_pimpl) { other.m_pimpl = nullptr; }
    Alarm& operator=(const Alarm& other);
    Alarm& operator=(Alarm&& other);
    ~Alarm();

    /// Takes a scheduled alarm out of the timer and marks it complete.
    /// Does nothing for an empty handle, an alarm whose callback is running
    /// or a one-shot alarm that has fired.
    void cancel();
    /// Number of expiries so far (0 for an empty handle).
    uint64_t fired() const;
    /// True once a one-shot alarm has fired or an alarm was cancelled.
    bool complete() const;
    /// The current due time (0 for an empty handle).
    unsigned expire_time() const;

    internal::Alarm_body* get() const { return m_pimpl; }

private:
    void release();
    internal::Alarm_body* m_pimpl;
};

// ---------------------------------------------------------------------------
// Monitor_base
// ---------------------------------------------------------------------------

/// The monitor proper. Used through Monitor<T> / Forward_monitor<T>, or
/// directly. Not copyable.
class Monitor_base {
public:
    Monitor_base();
    virtual ~Monitor_base();
    Monitor_base(const Monitor_base&) = delete;
    Monitor_base& operator=(const Monitor_base&) = delete;

    /// Takes the monitor (nested entries by the holder return at once).
    /// Null when the lock could not be taken within @p ms.
    Monitor_base* enter(unsigned ms) volatile;
    /// Leaves one level; the outermost leave re-evaluates the waited-on
    /// conditions (after notify) and gives the lock up.
    void leave();
    /// Waits inside the monitor until @p c holds or @p ms passed. False on
    /// time-out (even when the predicate became true at the last check).
    bool wait(Condition& c, unsigned ms) const;
    /// Marks the state as changed.
    void notify() const { notify_pending = true; }
    /// Re-evaluates the waiting conditions when notify() was called.
    void notify_check() const;
    /// True when the calling thread holds the monitor.
    bool owns() const volatile;

    /// This monitor's timer, created on first use.
    internal::Timer* get_timer();
    /// Ends the timer thread, after the callback it may be running (a
    /// callback waiting inside the monitor ends by its own bound), and
    /// detaches the alarms still set. Call before destroying what the
    /// callbacks use; an alarm set later starts a new timer. Not from a
    /// callback, nor while holding the monitor.
    void end_alarms();

    /// Alarm calling fn() at the absolute tick @p due_ms, then every
    /// @p period_ms (0: once).
    Alarm alarm(void (*fn)(), unsigned due_ms, unsigned period_ms);
    /// Alarm calling (obj.*method)().
    template <class T>
    Alarm alarm(T volatile& obj, void (T::*method)(), unsigned due_ms, unsigned period_ms);
    /// Alarm calling (obj.*method)(arg) with a copy of @p arg.
    template <class T, class A>
    Alarm alarm(T volatile& obj, void (T::*method)(A), const A& arg, unsigned due_ms,
                unsigned period_ms);

private:
    Monitor_base* self() const volatile { return const_cast<Monitor_base*>(this); }
    /// Schedules a new body inside the monitor and returns its handle.
    Alarm schedule_alarm(internal::Alarm_body* body);
    bool in_waiting(const Condition& c) const;
    void unlink_waiting(Condition& c) const;

    // The events a re-evaluation found true. They are set once the lock is
    // given up, so that a woken waiter finds the monitor free instead of
    // going back to sleep on its lock; events found false are reset at
    // once, under the lock. A set that arrives after the state changed
    // again only wakes a waiter that finds its predicate false, resets the
    // event and sleeps again.
    struct Pending_sets {
        static constexpr int capacity = 8;
        Synchroniztion_internal::MT_Event_struct* events[capacity];
        int count = 0;
        void run() const;
    };
    /// notify_check with the sets held back in @p later (more than its
    /// capacity are set at once).
    void notify_check(Pending_sets& later) const;

    Synchroniztion_internal::MT_Mutex_struct* mutex;
    mutable unsigned entry_cnt;
    mutable Condition* waiting;
    mutable bool notify_pending;
    internal::Timer* timer;
};

template <class T>
Alarm Monitor_base::alarm(T volatile& obj, void (T::*method)(), unsigned due_ms, unsigned period_ms)
{
    struct am : internal::Alarm_body {
        am(internal::Timer* t, unsigned d, unsigned p, T volatile& o, void (T::*m)())
            : Alarm_body(t, d, p), object(o), method(m) {}
        void run() override { (const_cast<T&>(object).*method)(); }
        T volatile& object;
        void (T::*method)();
    };
    return schedule_alarm(new am(get_timer(), due_ms, period_ms, obj, method));
}

template <class T, class A>
Alarm Monitor_base::alarm(T volatile& obj, void (T::*method)(A), const A& arg, unsigned due_ms,
                          unsigned period_ms)
{
    struct am : internal::Alarm_body {
        am(internal::Timer* t, unsigned d, unsigned p, T volatile& o, void (T::*m)(A), const A& a)
            : Alarm_body(t, d, p), object(o), method(m), argument(a) {}
        void run() override { (const_cast<T&>(object).*method)(argument); }
        T volatile& object;
        void (T::*method)(A);
        A argument;
    };
    return schedule_alarm(new am(get_timer(), due_ms, period_ms, obj, method, arg));
}

/// Scoped entry of a Monitor_base, waiting without bound; leaves it when
/// destroyed.
class Monitor_entry {
public:
    explicit Monitor_entry(Monitor_base& monitor) : entered(monitor.enter(Synchroniztion_internal::MT_INFINITE)) {}
    ~Monitor_entry()
    {
        if (entered)
            entered->leave();
    }
    Monitor_entry(const Monitor_entry&) = delete;
    Monitor_entry& operator=(const Monitor_entry&) = delete;

private:
    Monitor_base* entered;
};

// ---------------------------------------------------------------------------
// Monitored classes
// ---------------------------------------------------------------------------

template <class T> class IMonitor;

/// Scoped holder of a monitor entry: gives access to the object and leaves
/// the monitor when destroyed. Movable, not copyable. T may be const.
template <class T>
class Monitor_lock {
public:
    explicit Monitor_lock(T* p) : p_t(p) {}
    Monitor_lock(Monitor_lock&& other) noexcept : p_t(other.p_t) { other.p_t = nullptr; }
    Monitor_lock(const Monitor_lock&) = delete;
    Monitor_lock& operator=(const Monitor_lock&) = delete;
    Monitor_lock& operator=(Monitor_lock&&) = delete;
    ~Monitor_lock() { unlock(); }

    T* operator->() const { return p_t; }
    T& operator*() const { return *p_t; }
    T* get() const { return p_t; }
    explicit operator bool() const { return p_t != nullptr; }

    /// Leaves the monitor early.
    void unlock()
    {
        if (p_t) {
            using U = typename std::remove_const<T>::type;
            static_cast<IMonitor<U>*>(const_cast<U*>(p_t))->leave();
            p_t = nullptr;
        }
    }

private:
    T* p_t;
};

/// Interface of a monitored class T (T derives from Monitor<T> or
/// Forward_monitor<T>).
template <class T>
class IMonitor {
public:
    virtual ~IMonitor() {}
    /// Enters the monitor (for ever, whatever @p ms) and returns the object.
    virtual T* enter(unsigned ms) volatile = 0;
    virtual bool owns() const volatile = 0;
    virtual void leave() = 0;
    virtual void notify() const = 0;
    virtual bool wait(Condition& c, unsigned ms) const = 0;
    virtual Alarm alarm(void (*fn)(), unsigned due_ms, unsigned period_ms) = 0;

    /// Enters the monitor; the holder leaves it.
    virtual Monitor_lock<T> get_lock() volatile
    {
        T* p_t = enter(Synchroniztion_internal::MT_INFINITE);
        SD_ASSERT(p_t, "p_t", VQX_MONITOR_HEADER_LABEL, 452);
        return Monitor_lock<T>(p_t);
    }
    /// Read-only form for const volatile operations.
    Monitor_lock<const T> get_lock() const volatile
    {
        T* p_t = const_cast<IMonitor*>(this)->enter(Synchroniztion_internal::MT_INFINITE);
        SD_ASSERT(p_t, "p_t", VQX_MONITOR_HEADER_LABEL, 452);
        return Monitor_lock<const T>(p_t);
    }
};

/// A monitored class with its own Monitor_base.
template <class T>
class Monitor : public IMonitor<T> {
public:
    Monitor() {}
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    T* enter(unsigned) volatile override
    {
        if (!monitor_base().enter(Synchroniztion_internal::MT_INFINITE))
            return nullptr;
        T* p_vT = static_cast<T*>(const_cast<Monitor*>(this));
        SD_ASSERT(p_vT, "p_vT", VQX_MONITOR_HEADER_LABEL, 615);
        return p_vT;
    }
    bool owns() const volatile override { return monitor_base().owns(); }
    void leave() override { m_base.leave(); }
    void notify() const override { m_base.notify(); }
    bool wait(Condition& c, unsigned ms) const override { return m_base.wait(c, ms); }
    Alarm alarm(void (*fn)(), unsigned due_ms, unsigned period_ms) override
    {
        return m_base.alarm(fn, due_ms, period_ms);
    }

    /// The monitor itself, for the alarm templates and for forwarding.
    Monitor_base& monitor_base() const volatile { return const_cast<Monitor_base&>(m_base); }

private:
    Monitor_base m_base;
};

/// A monitored class that shares another object's Monitor_base.
template <class T>
class Forward_monitor : public IMonitor<T> {
public:
    explicit Forward_monitor(Monitor_base& base) : m_base(&base) {}
    /// Shares the monitor of @p other (a Monitor<U> or Forward_monitor<U>).
    template <class M>
    explicit Forward_monitor(const volatile M& other) : m_base(&other.monitor_base()) {}
    Forward_monitor(const Forward_monitor&) = delete;
    Forward_monitor& operator=(const Forward_monitor&) = delete;

    T* enter(unsigned) volatile override
    {
        if (!monitor_base().enter(Synchroniztion_internal::MT_INFINITE))
            return nullptr;
        T* p_vT = static_cast<T*>(const_cast<Forward_monitor*>(this));
        SD_ASSERT(p_vT, "p_vT", VQX_MONITOR_HEADER_LABEL, 728);
        return p_vT;
    }
    bool owns() const volatile override { return monitor_base().owns(); }
    void leave() override { m_base->leave(); }
    void notify() const override { m_base->notify(); }
    bool wait(Condition& c, unsigned ms) const override { return m_base->wait(c, ms); }
    Alarm alarm(void (*fn)(), unsigned due_ms, unsigned period_ms) override
    {
        return m_base->alarm(fn, due_ms, period_ms);
    }

    Monitor_base& monitor_base() const volatile
    {
        return *const_cast<Forward_monitor*>(this)->m_base;
    }

private:
    Monitor_base* m_base;
};

#endif // VQX_LIB_OS_MONITOR_H
