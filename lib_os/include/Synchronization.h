// Synchronization.h - threads, time and synchronization primitives.
//
// The thin operating-system layer under the driver's runtime (monitors,
// timer thread, stream driver, hardware layer):
//
//  - MT_Sync_object_struct: a waitable object with a millisecond time-out.
//    Its state lives in the derived object; the POSIX mutex only guards that
//    state for the few instructions of one operation and the condition
//    variable is what waiters sleep on.
//  - MT_Mutex_struct: a recursive, owner-tracking lock built on that object.
//    "Locked" means taken > 0. A release by a thread that does not own it is
//    reported as an assertion and changes nothing. The owner is the lock
//    word: a free mutex is taken by one compare-and-swap and given up by one
//    store, without the guard, and owns() is one load (the owner is cleared
//    by the thread that gives the mutex up, so a thread can only ever read
//    itself as owner while it owns it). A thread that finds the mutex taken
//    spins briefly before it sleeps on the condition variable: monitors are
//    held for a few hundred nanoseconds, much less than a sleep and a
//    wake-up cost. A release that finds a thread asleep hands the mutex to
//    a sleeper instead of freeing it, so a thread that re-enters at once
//    cannot keep a sleeping one out for good.
//  - MT_Event_struct: an auto-reset (wakes one waiter, the taker resets it)
//    or manual-reset (wakes all, stays set until reset_event) event. Its
//    sleepers are woken after the guard is given up, so one set costs each
//    sleeper one wake-up; set_event therefore still touches the object
//    after a waiter may have returned, and an event must outlive every
//    set_event call, not only its waits.
//  - MT_CreateThread, MT_Delay, MT_GetTickCount and the deadline helpers.
//
// Time-outs are unsigned 32-bit milliseconds: 0 polls, MT_INFINITE waits for
// ever. Deadlines are measured on CLOCK_REALTIME, so a change of the system
// clock shortens or lengthens pending waits. Tick counts are wall-clock
// milliseconds modulo 2^32 and must be compared by unsigned subtraction.
//
// Threading: every operation may be called from any thread. An object must
// not be destroyed while a thread waits on it; its owner guarantees that.
// Failures are reported through the diagnostics (dbg_output and
// sd_assert_function) and never raised.
#ifndef VQX_LIB_OS_SYNCHRONIZATION_H
#define VQX_LIB_OS_SYNCHRONIZATION_H

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdint>

namespace Synchroniztion_internal {

/// Time-out value meaning "wait for ever".
constexpr unsigned MT_INFINITE = 0xFFFFFFFF;

/// Abstract waitable object: a guarded state plus a condition variable.
class MT_Sync_object_struct {
public:
    MT_Sync_object_struct();
    virtual ~MT_Sync_object_struct();

    MT_Sync_object_struct(const MT_Sync_object_struct&) = delete;
    MT_Sync_object_struct& operator=(const MT_Sync_object_struct&) = delete;

    /// Takes the object for the calling thread, waiting at most @p ms
    /// milliseconds (0: poll, MT_INFINITE: for ever). True when taken.
    virtual bool wait(unsigned int ms);

protected:
    /// Can a waiter take the object now? Called with the guard held.
    virtual bool v_signaled() = 0;
    /// Takes the object for the calling thread. Called with the guard held.
    virtual void v_take_object() = 0;

    /// Locks the guard; a failure is reported and otherwise ignored.
    void lock_guard() const;
    void unlock_guard() const;

    mutable pthread_mutex_t mutex;  ///< guards the derived object's state
    pthread_cond_t cond;            ///< waiters sleep here
    unsigned sleepers = 0;          ///< threads asleep on cond (guarded)

private:
    bool wait_poll();
    bool wait_infinite();
    bool wait_until(unsigned int ms);
};

/// Recursive mutex that tracks its owning thread.
class MT_Mutex_struct : public MT_Sync_object_struct {
public:
    explicit MT_Mutex_struct(bool initially_owned);

    /// Gives up one level of ownership. A non-owner's call is reported
    /// ("_owns()") and changes nothing.
    void release();
    /// True when the calling thread owns the mutex (no locking).
    bool owns() const;
    /// Takes the mutex (a nested take by the owner counts one level more),
    /// waiting at most @p ms milliseconds. A free mutex is taken without
    /// the guard; a held one is spun on briefly before the caller sleeps.
    bool wait(unsigned int ms) override;

protected:
    /// Ownership test; needs no lock.
    bool _owns() const;
    bool v_signaled() override;
    void v_take_object() override;

    /// Recursion depth, 0 when free; changed only by the owner.
    std::atomic<uint32_t> taken{0};
    /// The lock word: the owning thread, or 0 when free (no thread handle is
    /// 0). Set by the taker's compare-and-swap, cleared by the owner.
    std::atomic<pthread_t> owner{0};

private:
    /// Takes a free mutex for the calling thread; false when held.
    bool try_take();
    /// Takes a mutex a releaser handed to the sleepers (guard held).
    bool take_handed_off();
    /// The lock word of a mutex given to whichever sleeper wakes first: no
    /// thread handle (they are addresses), and never free to a
    /// compare-and-swap.
    static constexpr pthread_t handed_off = 1;
    /// Threads between their first guarded attempt and giving up or
    /// taking the mutex: a releaser signals only when some exist.
    std::atomic<unsigned> blocked{0};
};

/// Event with auto-reset or manual-reset semantics.
class MT_Event_struct : public MT_Sync_object_struct {
public:
    MT_Event_struct(bool signaled, bool auto_reset);

    /// Sets the event; wakes one waiter (auto-reset) or all (manual reset).
    void set_event();
    /// Clears the event.
    void reset_event();

protected:
    bool v_signaled() override;
    void v_take_object() override;

    bool signaled;
    bool auto_reset;
};

/// Starts a joinable thread running fn(arg); its handle (a pthread_t) is
/// written through @p thread. False when the thread could not be created;
/// a null @p thread creates nothing and gives false.
bool MT_CreateThread(long* thread, unsigned int (*fn)(void*), void* arg);

/// Sleeps for @p ms milliseconds (whole seconds with sleep, the rest with
/// usleep).
void MT_Delay(unsigned int ms);

/// Wall-clock milliseconds modulo 2^32.
unsigned int MT_GetTickCount();

/// The real-time clock now plus @p ms milliseconds.
timespec msec_to_absolute_timespec(unsigned int ms);

/// Adds @p b to @p a with one nanosecond carry step (inputs normalised).
timespec& operator+=(timespec& a, const timespec& b);

} // namespace Synchroniztion_internal

#endif // VQX_LIB_OS_SYNCHRONIZATION_H
