// vqxsoak: runs the driver for a given time, rotating engines, capture
// modes, one to four sessions, held frames and hardware faults, and reports
// what it saw. On a device (--device) it runs the installed hardware layer
// as it is, without faults.
//
//   vqxsoak [--seconds=N] [--engines=all|TYPE,...] [--modes=N,...] [--sessions=N]
//           [--seed=N] [--no-faults] [--device] [--log=FILE]
//
// The driver and its hardware layer are process-wide, so each segment (one
// engine in one capture mode) runs in a child process of its own, forked
// before this process has touched the driver, with the simulator's
// VQXSIM_ENGINE and VQXSIM_CAPTURE_MODE set (see vqxsoak_load.h for what a
// segment does). It is not executed anew, so it also runs where a foreign
// binary needs an emulator.
// An engine's time is split into segments of at least five minutes, one per
// capture mode as far as the time allows; a short run gives each engine one
// mode, chosen by the seed.
//
// The program fails (exit status 1) when a segment reports a dead stream, a
// buffer not returned or memory growing after its first minute, when a
// segment crashes or overruns its time by a minute, and when its output
// carries a sanitizer report. Exit status 2: bad arguments.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "vqxsoak_load.h"

namespace {

struct Engine {
    const char* type;
    std::vector<unsigned> modes;  ///< capture modes the engine streams in
};

const std::vector<Engine> kEngines = {
    {"X7710", {0, 2, 3, 4, 5, 6, 7}}, {"X5501", {0, 2, 3, 4, 5}}, {"X5503", {0, 2, 3, 4, 5}},
    {"MT9V022", {0, 2, 3, 4, 5}},     {"RILO", {0, 2, 3, 4, 5}},  {"KELP", {0, 2, 3, 4, 5, 6, 7}}};

constexpr unsigned kSegmentSeconds = 300;
constexpr unsigned kOverrunSeconds = 60;

const char* const kSanitizerMarks[] = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                       "WARNING: ThreadSanitizer", "runtime error:"};

struct Options {
    unsigned seconds = 60;
    std::vector<std::string> engines;
    std::vector<unsigned> modes;
    vqxsoak::Segment_options segment;
    bool device = false;
    std::string log;
};

std::vector<std::string> split(const std::string& text)
{
    std::vector<std::string> items;
    std::stringstream in(text);
    for (std::string item; std::getline(in, item, ',');)
        if (!item.empty())
            items.push_back(item);
    return items;
}

bool number(const std::string& text, unsigned long long& out)
{
    char* end = nullptr;
    out = std::strtoull(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && text[0] != '-';
}

const Engine* find_engine(const std::string& type)
{
    for (const Engine& e : kEngines)
        if (type == e.type)
            return &e;
    return nullptr;
}

bool parse(int argc, char** argv, Options& o, std::string& error)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const size_t eq = arg.find('=');
        const std::string name = arg.substr(0, eq), value = eq == std::string::npos ? "" : arg.substr(eq + 1);
        unsigned long long n = 0;
        if (name == "--seconds" && number(value, n) && n >= 1 && n <= 7 * 86400)
            o.seconds = static_cast<unsigned>(n);
        else if (name == "--sessions" && number(value, n) && n >= 1 && n <= vqxsoak::kMaxSessions)
            o.segment.sessions = static_cast<unsigned>(n);
        else if (name == "--seed" && number(value, n))
            o.segment.seed = n;
        else if (name == "--engines" && !value.empty())
            o.engines = value == "all" ? std::vector<std::string>() : split(value);
        else if (name == "--modes" && !value.empty()) {
            for (const std::string& m : split(value)) {
                if (!number(m, n) || n > 7)
                    return error = "bad capture mode \"" + m + "\"", false;
                o.modes.push_back(static_cast<unsigned>(n));
            }
        } else if (name == "--log" && !value.empty())
            o.log = value;
        else if (arg == "--no-faults")
            o.segment.faults = false;
        else if (arg == "--device")
            o.device = true;
        else
            return error = "bad argument \"" + arg + "\"", false;
    }
    for (const std::string& e : o.engines)
        if (!find_engine(e))
            return error = "\"" + e + "\" is not a streaming engine type", false;
    return true;
}

struct Segment {
    std::string engine;  ///< empty on a device
    unsigned mode = 0;
    unsigned seconds = 0;
    std::map<std::string, std::string> result;  ///< the child's result line
    std::string failure;
};

// The engine time split into segments, one capture mode each.
std::vector<Segment> plan(const Options& o)
{
    std::vector<Segment> segments;
    if (o.device)
        return {Segment{"", 0, o.seconds, {}, {}}};
    std::vector<std::string> engines = o.engines;
    if (engines.empty())
        for (const Engine& e : kEngines)
            engines.push_back(e.type);
    const unsigned per_engine = std::max(1u, o.seconds / static_cast<unsigned>(engines.size()));
    for (const std::string& type : engines) {
        std::vector<unsigned> modes;
        for (unsigned m : find_engine(type)->modes)
            if (o.modes.empty() || std::find(o.modes.begin(), o.modes.end(), m) != o.modes.end())
                modes.push_back(m);
        if (modes.empty())
            continue;
        const size_t count = std::max<size_t>(1, std::min<size_t>(modes.size(), per_engine / kSegmentSeconds));
        for (size_t k = 0; k < count; ++k) {
            const unsigned mode = modes[(k + o.segment.seed + segments.size()) % modes.size()];
            segments.push_back(Segment{type, mode, per_engine / static_cast<unsigned>(count), {}, {}});
        }
    }
    return segments;
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs one segment in a child process with its output in a file; fills the
// segment's result and failure.
void run_child(const Options& o, Segment& s, std::ofstream& log)
{
    char path[] = "/tmp/vqxsoak-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) {
        s.failure = "no temporary file";
        return;
    }
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) {
        close(fd);
        unlink(path);
        s.failure = "no child process";
        return;
    }
    if (pid == 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        if (!s.engine.empty()) {
            setenv("VQXSIM_ENGINE", s.engine.c_str(), 1);
            setenv("VQXSIM_CAPTURE_MODE", std::to_string(s.mode).c_str(), 1);
            setenv("VQXSIM_SEED", std::to_string(o.segment.seed).c_str(), 1);
        }
        vqxsoak::Segment_options segment = o.segment;
        segment.seconds = s.seconds;
        segment.engine = s.engine;
        std::exit(vqxsoak::run_segment(segment));
    }
    close(fd);
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(s.seconds + kOverrunSeconds);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGABRT);
            waitpid(pid, &status, 0);
            s.failure = "overran its time by " + std::to_string(kOverrunSeconds) + " s (hung)";
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    const std::string output = read_file(path);
    unlink(path);
    if (log.is_open())
        log << "=== " << (s.engine.empty() ? "device" : s.engine) << " mode " << s.mode << "\n" << output;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        for (const char* mark : kSanitizerMarks)
            if (line.find(mark) != std::string::npos && s.failure.empty())
                s.failure = "sanitizer report: " + line;
        if (line.rfind("vqxsoak-segment ", 0) == 0) {
            // name=value fields, then the failure's text, which has spaces.
            const size_t at = line.find(" failure=");
            std::istringstream fields(line.substr(16, at - 16));
            for (std::string f; fields >> f;)
                s.result[f.substr(0, f.find('='))] = f.substr(f.find('=') + 1);
            if (at != std::string::npos)
                s.result["failure"] = line.substr(at + 9);
        }
    }
    if (s.failure.empty() && WIFSIGNALED(status))
        s.failure = "crashed (signal " + std::to_string(WTERMSIG(status)) + ")";
    if (s.failure.empty() && s.result.count("failure") && s.result["failure"] != "-")
        s.failure = s.result["failure"];
    if (s.failure.empty() && (!WIFEXITED(status) || WEXITSTATUS(status) != 0))
        s.failure = "exited with status " + std::to_string(WEXITSTATUS(status));
}

std::string field(const Segment& s, const char* name)
{
    const auto it = s.result.find(name);
    return it == s.result.end() ? "?" : it->second;
}

std::string mib(const Segment& s, const char* name)
{
    const long kib = std::atol(field(s, name).c_str());
    if (kib < 0)
        return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", kib / 1024.0);
    return text;
}

void report(const std::vector<Segment>& segments)
{
    std::printf("\n%-8s %4s %6s  %-31s %9s %19s %8s %6s %7s  %-18s %s\n", "engine", "mode", "secs",
                "frames per session 1/2/3/4", "wait ms", "lent/returned", "stalls", "cycles", "refused",
                "RSS MiB 0/1min/end", "result");
    for (const Segment& s : segments) {
        std::string frames, wait;
        long longest = 0;
        for (int i = 1; i <= 4; ++i) {
            const std::string f = field(s, ("s" + std::to_string(i)).c_str());
            frames += (i > 1 ? "/" : "") + f.substr(0, f.find('/'));
            const size_t a = f.find('/');
            if (a != std::string::npos)
                longest = std::max(longest, std::atol(f.c_str() + a + 1));
        }
        const std::string lent = field(s, "lent"), returned = field(s, "returned");
        std::printf("%-8s %4u %6s  %-31s %9ld %19s %8s %6s %7s  %-18s %s\n",
                    s.engine.empty() ? "device" : s.engine.c_str(), s.mode, field(s, "seconds").c_str(),
                    frames.c_str(), longest, lent == "-1" ? "n/a" : (lent + "/" + returned).c_str(),
                    (field(s, "recovered") + "/" + field(s, "stalls")).c_str(), field(s, "cycles").c_str(),
                    field(s, "refused").c_str(),
                    (mib(s, "kib_start") + "/" + mib(s, "kib_minute") + "/" + mib(s, "kib_end")).c_str(),
                    s.failure.empty() ? "ok" : ("FAIL: " + s.failure).c_str());
    }
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    std::string error;
    if (!parse(argc, argv, o, error)) {
        std::fprintf(stderr, "vqxsoak: %s\nusage: vqxsoak [--seconds=N] [--engines=all|TYPE,...] "
                             "[--modes=N,...] [--sessions=1-4] [--seed=N] [--no-faults] [--device] [--log=FILE]\n",
                     error.c_str());
        return 2;
    }
    std::vector<Segment> segments = plan(o);
    if (segments.empty()) {
        std::fprintf(stderr, "vqxsoak: no engine streams in the capture modes given\n");
        return 2;
    }
    std::ofstream log;
    if (!o.log.empty())
        log.open(o.log);
    bool passed = true;
    for (Segment& s : segments) {
        std::printf("vqxsoak: %s, capture mode %u, %u s\n", s.engine.empty() ? "device" : s.engine.c_str(), s.mode,
                    s.seconds);
        std::fflush(stdout);
        run_child(o, s, log);
        passed = passed && s.failure.empty();
    }
    report(segments);
    std::printf("vqxsoak: %s\n", passed ? "passed" : "FAILED");
    return passed ? 0 : 1;
}
