// Session_registry: see Session_registry.h.
#include "Session_registry.h"

Session_registry& Session_registry::instance()
{
    // Never destroyed: calls may still arrive while the process exits.
    static Session_registry* const registry = new Session_registry;
    return *registry;
}

Session_registry::Entry* Session_registry::find(const void* handle)
{
    for (Entry& e : entries)
        if (e.session == handle)
            return &e;
    return nullptr;
}

void Session_registry::add(Scan_session* session)
{
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back(Entry{session, 0, false});
}

Scan_session* Session_registry::acquire(const void* handle)
{
    std::lock_guard<std::mutex> lock(mutex);
    Entry* e = find(handle);
    if (!e || e->closing)
        return nullptr;
    ++e->users;
    return e->session;
}

void Session_registry::release(Scan_session* session)
{
    std::lock_guard<std::mutex> lock(mutex);
    Entry* e = find(session);
    if (!e)
        return;
    if (--e->users == 0 && e->closing)
        idle.notify_all();
}

Scan_session* Session_registry::remove(const void* handle)
{
    std::unique_lock<std::mutex> lock(mutex);
    Entry* e = find(handle);
    if (!e || e->closing)
        return nullptr;
    e->closing = true;
    idle.wait(lock, [this, handle] { return find(handle)->users == 0; });
    Scan_session* session = find(handle)->session;
    entries.erase(entries.begin() + (find(handle) - entries.data()));
    return session;
}

size_t Session_registry::size() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return entries.size();
}
