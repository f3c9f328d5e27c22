// Synchronization.cpp - POSIX implementation of the synchronization layer.
//
// See Synchronization.h. The system mutex of each object is held only for
// the duration of one operation; waiting happens on the condition variable.
#include "Synchronization.h"

#include "Diagnostics.h"

#include <errno.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <type_traits>

namespace Synchroniztion_internal {

namespace {

const char* const source_file = "jni/../../lib_os/linux/Synchronization";

constexpr long nsec_per_sec = 1000000000L;

// Looks at a held mutex this many times before sleeping on it (a few
// microseconds at most).
constexpr int spin_limit = 200;

// Tells the processor that this is a spin-wait loop.
inline void cpu_relax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    __asm__ __volatile__("yield");
#endif
}

// Start record of a new thread; owned by the new thread once it runs.
struct Thread_start {
    unsigned int (*fn)(void*);
    void* arg;
};

void* thread_trampoline(void* p)
{
    auto* record = static_cast<Thread_start*>(p);
    unsigned int (*fn)(void*) = record->fn;
    void* arg = record->arg;
    delete record;
    (void)fn(arg);
    return nullptr;
}

} // namespace

// ---------------------------------------------------------------------------
// MT_Sync_object_struct
// ---------------------------------------------------------------------------

MT_Sync_object_struct::MT_Sync_object_struct()
{
    std::memset(&mutex, 0, sizeof(mutex));
    std::memset(&cond, 0, sizeof(cond));
    pthread_mutex_init(&mutex, nullptr);
    pthread_cond_init(&cond, nullptr);
}

MT_Sync_object_struct::~MT_Sync_object_struct()
{
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&mutex);
}

void MT_Sync_object_struct::lock_guard() const
{
    if (pthread_mutex_lock(&mutex) != 0)
        dbg_output("Error waiting on mutex at %s : %u", source_file, 43u);
}

void MT_Sync_object_struct::unlock_guard() const
{
    pthread_mutex_unlock(&mutex);
}

bool MT_Sync_object_struct::wait(unsigned int ms)
{
    lock_guard();
    if (ms == 0)
        return wait_poll();
    if (ms == MT_INFINITE)
        return wait_infinite();
    return wait_until(ms);
}

// The three wait forms are entered with the guard held and leave it unlocked.

bool MT_Sync_object_struct::wait_poll()
{
    const bool signaled = v_signaled();
    if (signaled)
        v_take_object();
    unlock_guard();
    return signaled;
}

bool MT_Sync_object_struct::wait_infinite()
{
    for (;;) {
        if (v_signaled()) {
            v_take_object();
            unlock_guard();
            return true;
        }
        ++sleepers;
        const int status = pthread_cond_wait(&cond, &mutex);
        --sleepers;
        if (status != 0) {
            SD_ASSERT(status == 0, "status == 0", source_file, 94);
            if (v_signaled()) {
                unlock_guard();
                return false;
            }
        }
    }
}

bool MT_Sync_object_struct::wait_until(unsigned int ms)
{
    const timespec deadline = msec_to_absolute_timespec(ms);
    int status = 0;
    while (!v_signaled()) {
        ++sleepers;
        status = pthread_cond_timedwait(&cond, &mutex, &deadline);
        --sleepers;
        if (status == ETIMEDOUT) {
            unlock_guard();
            return false;
        }
        SD_ASSERT(status == 0 || status == ETIMEDOUT,
                  "status == 0 || status == ETIMEDOUT", source_file, 105);
    }
    const bool taken = status == 0;
    if (taken)
        v_take_object();
    unlock_guard();
    return taken;
}

// ---------------------------------------------------------------------------
// MT_Mutex_struct
// ---------------------------------------------------------------------------

MT_Mutex_struct::MT_Mutex_struct(bool initially_owned)
{
    if (!initially_owned)
        return;
    owner.store(pthread_self(), std::memory_order_relaxed);
    taken.store(1, std::memory_order_relaxed);
}

bool MT_Mutex_struct::try_take()
{
    pthread_t expected = 0;
    if (!owner.compare_exchange_strong(expected, pthread_self(), std::memory_order_seq_cst))
        return false;
    taken.store(1, std::memory_order_relaxed);
    return true;
}

// The lock word is the owner: 0 when free, taken by one compare-and-swap.
// Only a thread that finds it held goes through the guard and sleeps; it
// counts itself in `blocked` before its last attempt, and a releaser that
// clears the owner and then sees `blocked` non-zero signals under the
// guard, so the sleeper either took the mutex in that attempt or is asleep
// and gets the signal (both sides use sequentially consistent operations).
//
// Hand-off: a releaser that finds a thread asleep on the mutex does not
// free it but leaves the lock word at `handed_off` and wakes a sleeper,
// and the first waiter to look under the guard takes it from there. A
// thread that keeps re-entering at once (the hardware layer's thread,
// delivering frame after frame) would otherwise always win the freed lock
// word against a sleeper that takes tens of microseconds to wake, and a
// client waiting for the monitor could wait for as long as frames come.
bool MT_Mutex_struct::wait(unsigned int ms)
{
    if (_owns()) {
        taken.store(taken.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return true;
    }
    if (try_take())
        return true;
    if (ms == 0)
        return false;
    // Another thread holds the mutex: it is likely to give it up within a
    // few hundred nanoseconds, so look again a few times before sleeping.
    for (int i = 0; i < spin_limit; ++i) {
        cpu_relax();
        if (owner.load(std::memory_order_relaxed) == 0 && try_take())
            return true;
    }
    timespec deadline{};
    if (ms != MT_INFINITE)
        deadline = msec_to_absolute_timespec(ms);
    lock_guard();
    blocked.fetch_add(1, std::memory_order_seq_cst);
    bool got = false;
    for (;;) {
        if (take_handed_off() || try_take()) {
            got = true;
            break;
        }
        ++sleepers;
        const int status = ms == MT_INFINITE ? pthread_cond_wait(&cond, &mutex)
                                             : pthread_cond_timedwait(&cond, &mutex, &deadline);
        --sleepers;
        if (status == ETIMEDOUT) {
            got = take_handed_off() || try_take();
            break;
        }
        SD_ASSERT(status == 0, "status == 0", source_file, 94);
    }
    blocked.fetch_sub(1, std::memory_order_seq_cst);
    unlock_guard();
    return got;
}

// Called with the guard held, where every hand-off is made.
bool MT_Mutex_struct::take_handed_off()
{
    if (owner.load(std::memory_order_relaxed) != handed_off)
        return false;
    owner.store(pthread_self(), std::memory_order_seq_cst);
    taken.store(1, std::memory_order_relaxed);
    return true;
}

void MT_Mutex_struct::release()
{
    if (!_owns()) {
        sd_assert_function("_owns()", source_file, 175);
        return;
    }
    const uint32_t depth = taken.load(std::memory_order_relaxed);
    if (depth > 1) {
        taken.store(depth - 1, std::memory_order_relaxed);
        return;
    }
    taken.store(0, std::memory_order_relaxed);
    if (blocked.load(std::memory_order_seq_cst) != 0) {
        // Still the owner: no thread can take the lock word meanwhile. A
        // blocked thread is either asleep (counted in sleepers) or waiting
        // for the guard to make its first attempt, which finds the lock
        // word free. Unlike an event's, this signal is sent under the
        // guard: the sleeper that takes the mutex may give it up and let
        // its owner destroy it at once, before a signal sent after the
        // unlock would have been made.
        lock_guard();
        if (sleepers != 0) {
            owner.store(handed_off, std::memory_order_seq_cst);
            pthread_cond_signal(&cond);
        } else {
            owner.store(0, std::memory_order_seq_cst);
        }
        unlock_guard();
        return;
    }
    owner.store(0, std::memory_order_seq_cst);
    if (blocked.load(std::memory_order_seq_cst) != 0) {
        lock_guard();
        pthread_cond_signal(&cond);
        unlock_guard();
    }
}

bool MT_Mutex_struct::owns() const
{
    return _owns();
}

// Only the owning thread stores its own handle, and it stores 0 before it
// gives the mutex up, so a thread reads its own handle here exactly while it
// owns the mutex, whatever the other threads do.
bool MT_Mutex_struct::_owns() const
{
    return pthread_equal(pthread_self(), owner.load(std::memory_order_relaxed)) != 0;
}

bool MT_Mutex_struct::v_signaled()
{
    return owner.load(std::memory_order_relaxed) == 0 || _owns();
}

void MT_Mutex_struct::v_take_object()
{
    if (_owns())
        taken.store(taken.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    else
        SD_ASSERT(try_take(), "taken == 0 || _owns()", source_file, 195);
}

// ---------------------------------------------------------------------------
// MT_Event_struct
// ---------------------------------------------------------------------------

MT_Event_struct::MT_Event_struct(bool signaled_, bool auto_reset_)
    : signaled(signaled_), auto_reset(auto_reset_)
{
}

// The sleepers are woken once the guard is given up: a sleeper woken while
// the setter still held it would find the guard taken, sleep on it a
// second time and need a second wake-up from the unlock. Waking after the
// unlock is safe because a waiter only returns once it has seen `signaled`
// under the guard, and the object outlives every set_event (see the
// header). An auto-reset event that a poll took before the signal lands
// wakes a sleeper that finds it unsignaled and sleeps again.
void MT_Event_struct::set_event()
{
    lock_guard();
    signaled = true;
    const bool wake = sleepers != 0;
    unlock_guard();
    if (!wake)
        return;
    if (auto_reset)
        pthread_cond_signal(&cond);
    else
        pthread_cond_broadcast(&cond);
}

void MT_Event_struct::reset_event()
{
    lock_guard();
    signaled = false;
    unlock_guard();
}

bool MT_Event_struct::v_signaled()
{
    return signaled;
}

void MT_Event_struct::v_take_object()
{
    if (auto_reset)
        signaled = false;
}

// ---------------------------------------------------------------------------
// Threads and time
// ---------------------------------------------------------------------------

// The handle is a long; pthread_t is the same-sized integer (unsigned long on
// glibc, long on bionic), so pthread_create may write it in place and the new
// thread's handle is stored before the thread starts.
static_assert(std::is_integral<pthread_t>::value && sizeof(pthread_t) == sizeof(long),
              "thread handles are stored in a long");

bool MT_CreateThread(long* thread, unsigned int (*fn)(void*), void* arg)
{
    if (thread == nullptr)
        return false;
    auto* record = new (std::nothrow) Thread_start{fn, arg};
    if (record == nullptr)
        return false;
    if (pthread_create(reinterpret_cast<pthread_t*>(thread), nullptr,
                       thread_trampoline, record) != 0) {
        delete record;
        return false;
    }
    return true;
}

void MT_Delay(unsigned int ms)
{
    if (ms > 1000) {
        unsigned int seconds = ms / 1000;
        while ((seconds = sleep(seconds)) != 0) {
        }
        ms %= 1000;
    }
    usleep(static_cast<useconds_t>(ms) * 1000);
}

unsigned int MT_GetTickCount()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<unsigned int>(now.tv_nsec / 1000000 + now.tv_sec * 1000);
}

timespec msec_to_absolute_timespec(unsigned int ms)
{
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    timespec delta{};
    delta.tv_sec = ms / 1000;
    delta.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    deadline += delta;
    return deadline;
}

timespec& operator+=(timespec& a, const timespec& b)
{
    a.tv_sec += b.tv_sec;
    a.tv_nsec += b.tv_nsec;
    if (a.tv_nsec > nsec_per_sec - 1) {
        a.tv_sec += 1;
        a.tv_nsec -= nsec_per_sec;
    }
    return a;
}

} // namespace Synchroniztion_internal
