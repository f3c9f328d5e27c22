// Output_capture.h - collects the dbg_output texts (assertion reports and
// other messages) made while an instance is alive. One instance at a time;
// the texts are shared by all threads.
#ifndef VQX_TESTS_SUPPORT_OUTPUT_CAPTURE_H
#define VQX_TESTS_SUPPORT_OUTPUT_CAPTURE_H

#include "Diagnostics.h"

#include <algorithm>
#include <utility>
#include <mutex>
#include <string>
#include <vector>

class Output_capture {
public:
    Output_capture() { take(); set_dbg_output_hook(&record); }
    ~Output_capture() { set_dbg_output_hook(nullptr); take(); }
    static std::vector<std::string> messages() { std::lock_guard<std::mutex> g(m); return lines; }
    static std::vector<std::string> take() { std::lock_guard<std::mutex> g(m); return std::exchange(lines, {}); }
    /// The assertion reports so far; forgets every text.
    static std::vector<std::string> take_assertions()
    {
        std::vector<std::string> reports;
        for (std::string& text : take())
            if (text.compare(0, 10, "Assertion:") == 0)
                reports.push_back(std::move(text));
        return reports;
    }
    /// Number of texts containing @p part.
    static size_t count(const std::string& part)
    {
        std::lock_guard<std::mutex> g(m);
        return size_t(std::count_if(lines.begin(), lines.end(),
                                    [&](const std::string& t) { return t.find(part) != std::string::npos; }));
    }
    // The text of an assertion report.
    static std::string assertion(const char* expr, const char* file, unsigned n)
    {
        return std::string("Assertion: ") + expr + " @ " + file + " line @" + std::to_string(n) + "\r\n";
    }

private:
    static void record(const char* text) { std::lock_guard<std::mutex> g(m); lines.emplace_back(text); }
    static inline std::mutex m;
    static inline std::vector<std::string> lines;
};

#endif
