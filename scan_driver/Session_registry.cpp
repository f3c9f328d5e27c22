// Session_registry: see Session_registry.h.
#include "Session_registry.h"

Session_registry& Session_registry::instance()
{
    // Never destroyed: calls may still arrive while the process exits.
    static Session_registry* const registry = new Session_registry;
    return *registry;
}

Session_registry::Slot* Session_registry::find(const void* handle)
{
    for (Block* b = &first; b != nullptr; b = b->next.load(std::memory_order_acquire))
        for (Slot& s : b->slots)
            if (s.session.load(std::memory_order_acquire) == handle)
                return &s;
    return nullptr;
}

void Session_registry::add(Scan_session* session)
{
    std::lock_guard<std::mutex> lock(mutex);
    Block* b = &first;
    for (;;) {
        for (Slot& s : b->slots) {
            if (s.session.load(std::memory_order_relaxed) == nullptr) {
                // The use count is left alone: a lookup that raced with the
                // slot's last close may hold it up for a moment and gives
                // it back itself.
                s.session.store(session, std::memory_order_release);
                ++open;
                return;
            }
        }
        Block* next = b->next.load(std::memory_order_relaxed);
        if (next == nullptr) {
            next = new Block;
            b->next.store(next, std::memory_order_release);
        }
        b = next;
    }
}

Scan_session* Session_registry::acquire(const void* handle)
{
    if (handle == nullptr)
        return nullptr;
    for (Block* b = &first; b != nullptr; b = b->next.load(std::memory_order_acquire)) {
        for (Slot& s : b->slots) {
            if (s.session.load(std::memory_order_acquire) != handle)
                continue;
            uint32_t uses = s.uses.load(std::memory_order_relaxed);
            do {
                if (uses & closing_bit)
                    return nullptr;
            } while (!s.uses.compare_exchange_weak(uses, uses + 1, std::memory_order_acq_rel,
                                                   std::memory_order_relaxed));
            // The slot may have been emptied and given to another session
            // between the two loads: then this use is not ours to keep.
            Scan_session* session = s.session.load(std::memory_order_acquire);
            if (session == handle)
                return session;
            put_back(s);
        }
    }
    return nullptr;
}

void Session_registry::put_back(Slot& slot)
{
    const uint32_t before = slot.uses.fetch_sub(1, std::memory_order_acq_rel);
    if (before == (closing_bit | 1)) {
        // The closing thread waits for this under the mutex: taking it
        // before the wake-up means the wake-up cannot fall between its
        // check and its wait.
        std::lock_guard<std::mutex> lock(mutex);
        idle.notify_all();
    }
}

void Session_registry::release(Scan_session* session)
{
    // A session in use stays in its slot: its close waits for this use.
    if (Slot* s = find(session))
        put_back(*s);
}

Scan_session* Session_registry::remove(const void* handle)
{
    if (handle == nullptr)
        return nullptr;
    std::unique_lock<std::mutex> lock(mutex);
    Slot* s = find(handle);
    if (s == nullptr)
        return nullptr;
    if (s->uses.fetch_or(closing_bit, std::memory_order_acq_rel) & closing_bit)
        return nullptr;  // another close of the same handle is under way
    idle.wait(lock, [s] { return s->uses.load(std::memory_order_acquire) == closing_bit; });
    Scan_session* session = s->session.load(std::memory_order_relaxed);
    s->session.store(nullptr, std::memory_order_release);
    s->uses.fetch_and(~closing_bit, std::memory_order_acq_rel);
    --open;
    return session;
}

size_t Session_registry::size() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return open;
}
