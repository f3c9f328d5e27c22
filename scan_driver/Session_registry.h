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
// Cost: one uncontended mutex lock and a search of the open sessions (a
// handful) per call, twice. The table grows only when a session opens;
// calls allocate nothing.
//
// Threading: every operation may be called from any thread.
#ifndef VQX_SESSION_REGISTRY_H
#define VQX_SESSION_REGISTRY_H

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

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
    struct Entry {
        Scan_session* session;
        unsigned users;
        bool closing;
    };
    Entry* find(const void* handle);

    mutable std::mutex mutex;
    std::condition_variable idle;  ///< a closing session's last use left
    std::vector<Entry> entries;
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
