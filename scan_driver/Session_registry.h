// Session_registry: the open sessions of the process, for checking handles.
//
// Every exported function that takes a session handle looks it up here
// before touching it: a handle that is not an open session (closed, never
// opened, or garbage) is refused without being dereferenced, so a client's
// stale handle gets EINVAL instead of a read of freed memory.
//
// A call in progress holds a use of its session (Session_use). Closing
// takes the session out of the registry at once (new calls are refused)
// and then waits until the calls in progress have left before the session
// is destroyed; a call on the session may therefore delay its close, as
// the session's own lock already does (VQXSI_GetNewScan: up to 30 s).
//
// Layout: slots in blocks of 16 that are chained and never freed, so a
// lookup walks them without a lock while a session opens in another thread.
// A slot holds the session's address and one word with the number of calls
// using it and a closing bit. A call's lookup is a search of the open
// sessions (a handful) and one compare-and-swap on that word; giving the
// use back is one atomic decrement (and, only when the session is closing
// and this was its last call, a wake-up of the closing thread). Opening and
// closing sessions take the registry's mutex: they are rare and may
// allocate (a new block when every slot is taken); calls allocate nothing
// and take no lock.
//
// A slot is reused for a later session only after its close has waited out
// every use; a lookup that raced with such a reuse notices that the slot
// now holds another session, gives its use back and looks on.
//
// Threading: every operation may be called from any thread.
#ifndef VQX_SESSION_REGISTRY_H
#define VQX_SESSION_REGISTRY_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

class Scan_session;

class Session_registry {
public:
    static Session_registry& instance();

    /// Registers a session that was just opened.
    void add(Scan_session* session);
    /// The open session at @p handle with one more use, or null when the
    /// handle is not an open session (or its close has begun).
    Scan_session* acquire(const void* handle);
    /// Gives a use back.
    void release(Scan_session* session);
    /// Takes the session at @p handle out of the registry and waits until
    /// no call uses it. Null when the handle is not an open session; the
    /// caller then owns (and destroys) the session returned.
    Scan_session* remove(const void* handle);
    /// Number of open sessions.
    size_t size() const;

private:
    static constexpr uint32_t closing_bit = 0x80000000u;
    static constexpr unsigned block_slots = 16;

    struct Slot {
        std::atomic<Scan_session*> session{nullptr};
        std::atomic<uint32_t> uses{0};  ///< calls using the session | closing_bit
    };
    struct Block {
        Slot slots[block_slots];
        std::atomic<Block*> next{nullptr};
    };

    Slot* find(const void* handle);
    void put_back(Slot& slot);

    mutable std::mutex mutex;      ///< serialises add and remove
    std::condition_variable idle;  ///< a closing session's last use left
    Block first;
    size_t open = 0;               ///< guarded by mutex
};

/// One call's use of a session (see Session_registry).
class Session_use {
public:
    explicit Session_use(const void* handle) : session(Session_registry::instance().acquire(handle)) {}
    ~Session_use()
    {
        if (session)
            Session_registry::instance().release(session);
    }
    Session_use(const Session_use&) = delete;
    Session_use& operator=(const Session_use&) = delete;

    explicit operator bool() const { return session != nullptr; }
    Scan_session* operator->() const { return session; }
    Scan_session* get() const { return session; }

private:
    Scan_session* session;
};

#endif
