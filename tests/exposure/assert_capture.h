// Collects the dbg_output lines produced while an Assert_capture is alive.
#ifndef VQX_TESTS_EXPOSURE_ASSERT_CAPTURE_H
#define VQX_TESTS_EXPOSURE_ASSERT_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

#include "Diagnostics.h"

class Assert_capture {
public:
    Assert_capture()
    {
        lines().clear();
        set_dbg_output_hook(&Assert_capture::hook);
    }
    ~Assert_capture() { set_dbg_output_hook(nullptr); }

    std::vector<std::string> take()
    {
        std::lock_guard<std::mutex> lock(mutex());
        std::vector<std::string> out;
        out.swap(lines());
        return out;
    }

    static std::string line(const char* expr, const char* file, unsigned n)
    {
        return std::string("Assertion: ") + expr + " @ " + file + " line @" + std::to_string(n) + "\r\n";
    }

private:
    static void hook(const char* text)
    {
        std::lock_guard<std::mutex> lock(mutex());
        lines().emplace_back(text);
    }
    static std::vector<std::string>& lines()
    {
        static std::vector<std::string> v;
        return v;
    }
    static std::mutex& mutex()
    {
        static std::mutex m;
        return m;
    }
};

#endif
