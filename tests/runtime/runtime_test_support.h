// Helpers shared by the runtime tests: capture of assertion reports and
// polling with a bound.
#ifndef VQX_RUNTIME_TEST_SUPPORT_H
#define VQX_RUNTIME_TEST_SUPPORT_H

#include <mutex>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "Synchronization.h"

// Collects every dbg_output text while it exists.
class Assertion_log {
public:
    Assertion_log() { set_dbg_output_hook(&hook); }
    ~Assertion_log() { set_dbg_output_hook(nullptr); clear(); }
    static std::vector<std::string> texts()
    {
        std::lock_guard<std::mutex> l(guard());
        return lines();
    }
    static void clear()
    {
        std::lock_guard<std::mutex> l(guard());
        lines().clear();
    }

private:
    static void hook(const char* text)
    {
        std::lock_guard<std::mutex> l(guard());
        lines().push_back(text);
    }
    static std::mutex& guard() { static std::mutex m; return m; }
    static std::vector<std::string>& lines() { static std::vector<std::string> v; return v; }
};

// Polls pred every millisecond until it holds or ms passed.
template <class P>
bool eventually(P pred, unsigned ms = 3000)
{
    unsigned t0 = Synchroniztion_internal::MT_GetTickCount();
    while (!pred()) {
        if (Synchroniztion_internal::MT_GetTickCount() - t0 > ms)
            return false;
        Synchroniztion_internal::MT_Delay(1);
    }
    return true;
}

#endif
