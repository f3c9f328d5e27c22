// Dbg_output_capture.h - collects dbg_output messages through the output hook
// while an instance is alive (one instance at a time).
#ifndef VQX_TESTS_OS_DBG_OUTPUT_CAPTURE_H
#define VQX_TESTS_OS_DBG_OUTPUT_CAPTURE_H

#include "Diagnostics.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

class Dbg_output_capture {
public:
    Dbg_output_capture() { set_dbg_output_hook(&record); }
    ~Dbg_output_capture() { set_dbg_output_hook(nullptr); std::lock_guard<std::mutex> g(m); lines.clear(); }
    std::vector<std::string> messages() const { std::lock_guard<std::mutex> g(m); return lines; }
    size_t count(const std::string& text) const
    {
        std::lock_guard<std::mutex> g(m);
        return size_t(std::count(lines.begin(), lines.end(), text));
    }

private:
    static void record(const char* text) { std::lock_guard<std::mutex> g(m); lines.emplace_back(text); }
    static inline std::mutex m;
    static inline std::vector<std::string> lines;
};

inline const std::string owns_report =
    "Assertion: _owns() @ jni/../../lib_os/linux/Synchronization line @175\r\n";

#endif
