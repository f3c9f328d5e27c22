// vqxsoak_load: one segment of the soak (see vqxsoak_load.h).
#include "vqxsoak_load.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <VQXScanInterface.h>

#include "vqxsim_c.h"

namespace vqxsoak {
namespace {

using Clock = std::chrono::steady_clock;

constexpr long kPhaseMs = 5000;
// A stall holds every frame back past the driver's 2 s stall bound.
constexpr long kStallMs = 3000;
// Frames all sessions together keep at once: two of the engine's four
// buffers, so that frames keep reaching every session.
constexpr int kHoldBudget = 2;
constexpr long kHoldMaxMs = 120;
// A session without a frame this long after host command faults counts as
// an engine whose firmware is stuck.
constexpr long kStuckMs = 4000;

// The simulator's control functions, when the hardware layer is the
// simulator (looked up at run time, so the soak also runs on a device).
struct Sim_control {
    decltype(&::vqxsim_counters) counters = nullptr;
    decltype(&::vqxsim_set_faults) set_faults = nullptr;
    decltype(&::vqxsim_end_held_frames) end_held = nullptr;

    void look_up()
    {
        counters = reinterpret_cast<decltype(counters)>(dlsym(RTLD_DEFAULT, "vqxsim_counters"));
        set_faults = reinterpret_cast<decltype(set_faults)>(dlsym(RTLD_DEFAULT, "vqxsim_set_faults"));
        end_held = reinterpret_cast<decltype(end_held)>(dlsym(RTLD_DEFAULT, "vqxsim_end_held_frames"));
    }
    bool present() const { return counters && set_faults && end_held; }
};

// The fault lists a phase picks from: the shared ones, then the engine's own.
std::vector<std::string> fault_lists(const std::string& engine)
{
    std::vector<std::string> lists = {"drop=0.05,duplicate=0.05", "zero_handle=0.05,unknown_handle=0.05",
                                      "storm=0.1", "regfail_write=0.005", "defer_stop=100", "psocfail=0.05"};
    if (engine == "X5501" || engine == "X5503")
        lists.insert(lists.end(), {"command_error=0.3", "command_hang=0.1"});
    else if (engine == "RILO")
        lists.push_back("regfail_read=0.05");
    else if (engine == "KELP")
        lists.push_back("drop=0.3");
    return lists;
}

long resident_kib()
{
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// What had happened when a frame was asked for (see Segment::scan).
struct Epoch {
    uint64_t reclaims = 0;
    uint64_t uncertain = 0;
};

struct Worker {
    std::thread thread;
    std::atomic<bool> active{false};
    std::atomic<bool> open{false};
    std::atomic<bool> scanning{false};
    std::atomic<long> last_frame_ms{0};  ///< or the scan's start, whichever is later
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> gave_up{0};  ///< GetNewScan without a frame while scanning
    std::atomic<uint64_t> opens{0};
    std::atomic<uint64_t> open_failures{0};
    std::atomic<long> longest_wait_ms{0};
    std::atomic<uint64_t> refused{0};  ///< frames refused back: another session's stop took them
};

class Segment {
public:
    explicit Segment(const Segment_options& o) : opt(o), rng(o.seed), workers(kMaxSessions) {}
    int run();

private:
    long now_ms() const
    {
        return static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
    }
    void sleep_ms(long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
    void serve(unsigned slot, uint64_t seed);
    void scan(Worker& w, VQXSI_HANDLE h, std::mt19937_64& r);
    void set_faults(const std::string& list);
    bool stall();
    void power_cycle_if_stuck();
    void close_all();
    void check_streams();
    bool buffers_back(struct vqxsim_counters* n);
    void fail(const std::string& what);
    template <class F>
    void reclaiming(F f)
    {
        ++reclaims;
        f();
        ++reclaims;
    }

    const Segment_options opt;
    std::mt19937_64 rng;
    Clock::time_point begin = Clock::now();
    std::vector<Worker> workers;
    std::atomic<bool> quit{false};
    std::atomic<int> held{0};
    // Moves before and after every start, stop and close: a session's last
    // stop (and a start that fails, which stops again) takes back every
    // frame clients hold, in all sessions.
    std::atomic<uint64_t> reclaims{0};
    std::atomic<uint64_t> uncertain{0};  ///< unlocks of frames that may have been taken back
    Sim_control sim;
    std::mutex failure_mutex;
    std::string failure;  ///< the first failure, under failure_mutex
    std::atomic<bool> failed{false};
    uint64_t stalls = 0, stalls_recovered = 0, power_cycles = 0;
    bool commands_faulted = false;  ///< host command faults on since the last power-up
};

void Segment::fail(const std::string& what)
{
    std::lock_guard<std::mutex> hold(failure_mutex);
    if (failure.empty())
        failure = what + " at " + std::to_string(now_ms() / 1000) + " s";
    failed = true;
}

// One session's client: keeps a session open and scanning while its slot is
// active, closes it when not.
void Segment::serve(unsigned slot, uint64_t seed)
{
    Worker& w = workers[slot];
    std::mt19937_64 r(seed);
    while (!quit) {
        if (!w.active) {
            sleep_ms(20);
            continue;
        }
        VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
        ++w.opens;
        if (!h) {
            ++w.open_failures;
            sleep_ms(100);
            continue;
        }
        w.open = true;
        scan(w, h, r);
        reclaiming([h] { VQXSI_CloseSessionWithScanEngine(h); });
        w.open = false;
    }
}

void Segment::scan(Worker& w, VQXSI_HANDLE h, std::mt19937_64& r)
{
    void* kept = nullptr;
    long keep_until = 0;
    Epoch kept_epoch;
    // A refusal is a lost frame unless a start, stop or close of some
    // session, or an unlock of a frame one may have taken, came since the
    // hand-out. Such an unlock is counted before it is made: the frame may
    // have been taken back and handed to another session since, and the
    // unlock then takes it from that session (clients own frames together).
    auto unlock = [&](void* frame, const Epoch& since) {
        const bool certain = reclaims == since.reclaims;
        if (!certain)
            ++uncertain;
        if (VQXSI_UnlockBuffer(h, frame))
            return;
        ++w.refused;
        if (reclaims == since.reclaims && uncertain == since.uncertain)
            fail("a frame the session held was refused back (errno " + std::to_string(errno) + ")");
    };
    auto give_back = [&] {
        if (kept) {
            unlock(kept, kept_epoch);
            --held;
        }
        kept = nullptr;
    };
    auto restart = [&](long pause_ms) {
        give_back();
        reclaiming([h] { VQXSI_StopScanning(h); });
        sleep_ms(pause_ms);
        reclaiming([h] { VQXSI_StartScanning(h); });
    };
    reclaiming([h] { VQXSI_StartScanning(h); });
    w.last_frame_ms = now_ms();
    w.scanning = true;
    while (w.active && !quit) {
        if (kept && now_ms() >= keep_until)
            give_back();
        const Epoch epoch{reclaims, uncertain};
        const long asked = now_ms();
        void* frame = VQXSI_GetNewScan(h);
        const long waited = now_ms() - asked;
        if (!frame) {
            // A failed start or a stall: stop, wait and start again, as a
            // client does. A stalled stream restarts once every session
            // scanning has stopped, so each waits long enough for the
            // others' stops to meet.
            ++w.gave_up;
            restart(100 + static_cast<long>(r() % 200));
            continue;
        }
        ++w.frames;
        w.last_frame_ms = now_ms();
        w.longest_wait_ms = std::max(w.longest_wait_ms.load(), waited);
        bool keep = !kept && r() % 8 == 0;
        if (keep && ++held > kHoldBudget) {
            --held;
            keep = false;
        }
        if (keep) {
            kept = frame;
            kept_epoch = epoch;
            keep_until = now_ms() + static_cast<long>(r() % kHoldMaxMs);
            continue;
        }
        unlock(frame, epoch);
        if (r() % 500 == 0)  // now and then a new scan
            restart(0);
    }
    w.scanning = false;
    give_back();
    reclaiming([h] { VQXSI_StopScanning(h); });
}

void Segment::set_faults(const std::string& list)
{
    // Before the first open the driver has not loaded the simulator yet,
    // and there is no fault to change.
    struct vqxsim_counters n {};
    if (sim.present() && sim.set_faults(list.c_str()) != 0 && sim.counters(&n) == 0)
        fail("the simulator refused the faults \"" + list + "\"");
}

// Holds every frame back past the stall bound, then announces them late or
// loses them; true when every scanning session had a frame again within
// kRecoveryMs.
bool Segment::stall()
{
    ++stalls;
    set_faults("hold_frames");
    sleep_ms(kStallMs);
    set_faults("");
    const int late = static_cast<int>(rng() % 2);
    std::fprintf(stderr, "vqxsoak: stall ends, frames %s: %d\n", late ? "late" : "lost", sim.end_held(late));
    const long ended = now_ms();
    while (now_ms() - ended < kRecoveryMs && !quit) {
        bool all = true;
        for (Worker& w : workers)
            all = all && (!w.scanning || w.last_frame_ms >= ended);
        if (all)
            return ++stalls_recovered, true;
        sleep_ms(20);
    }
    return false;
}

// The MT9M114's firmware answers no host command after one hung or failed
// until it is powered up again, and the driver retries none: a client gets
// its engine back by closing every session, which powers the engine down.
// Done only after command faults were on; any other stream that stops is
// left to the dead-stream check.
void Segment::power_cycle_if_stuck()
{
    bool stuck = false;
    for (Worker& w : workers)
        stuck = stuck || (w.scanning && now_ms() - w.last_frame_ms > kStuckMs);
    if (!commands_faulted || !stuck)
        return;
    close_all();
    commands_faulted = false;
    ++power_cycles;
}

// Every session closes (the engine powers down) and the active ones open
// again.
void Segment::close_all()
{
    std::vector<bool> was(workers.size());
    for (size_t i = 0; i < workers.size(); ++i) {
        was[i] = workers[i].active;
        workers[i].active = false;
    }
    for (int i = 0; i < 1000; ++i) {
        bool closed = true;
        for (Worker& w : workers)
            closed = closed && !w.open;
        if (closed)
            break;
        sleep_ms(10);
    }
    for (size_t i = 0; i < workers.size(); ++i)
        workers[i].active = was[i];
}

void Segment::check_streams()
{
    const long now = now_ms();
    for (unsigned i = 0; i < workers.size(); ++i)
        if (workers[i].scanning && now - workers[i].last_frame_ms > kDeadStreamMs)
            fail("dead stream: session " + std::to_string(i + 1) + " had no frame for " +
                 std::to_string((now - workers[i].last_frame_ms) / 1000) + " s");
}

// Every buffer the hardware layer lent is back, within a second of the last
// close (a late stop confirmation may still be on its way).
bool Segment::buffers_back(struct vqxsim_counters* n)
{
    for (int i = 0; i < 100; ++i) {
        if (sim.counters(n) == 0 && n->buffers_lent == 0 && n->frames_delivered == n->frames_returned)
            return true;
        sleep_ms(10);
    }
    return false;
}

int Segment::run()
{
    sim.look_up();
    const std::vector<std::string> lists = fault_lists(opt.engine);
    for (unsigned i = 0; i < workers.size(); ++i)
        workers[i].thread = std::thread(&Segment::serve, this, i, opt.seed * 31 + i);
    const long kib_start = resident_kib();
    long kib_minute = -1;
    const long end = static_cast<long>(opt.seconds) * 1000;
    for (unsigned phase = 0; now_ms() < end && !failed; ++phase) {
        const unsigned sessions = 1 + static_cast<unsigned>(rng() % opt.sessions);
        for (unsigned i = 0; i < workers.size(); ++i)
            workers[i].active = i < sessions;
        // Odd phases run faults; every third of them is a stall.
        const bool faulty = opt.faults && sim.present() && phase % 2 == 1;
        if (faulty && phase % 6 == 5) {
            if (!stall())
                fail("dead stream: no frame within " + std::to_string(kRecoveryMs / 1000) + " s of a stall's end");
        } else {
            const std::string list = faulty ? lists[(phase / 2 + opt.seed) % lists.size()] : "";
            std::fprintf(stderr, "vqxsoak: phase %u at %ld ms: %u sessions, faults \"%s\"\n", phase, now_ms(),
                         sessions, list.c_str());
            set_faults(list);
            if (list.find("command_") != std::string::npos) {
                // Host commands come at power-up and at a stream's start and
                // stop: every session closes and opens again under them.
                commands_faulted = true;
                close_all();
            }
            for (long t = 0; t < kPhaseMs && now_ms() < end; t += 100) {
                sleep_ms(100);
                if (kib_minute < 0 && now_ms() >= 60000)
                    kib_minute = resident_kib();
            }
        }
        power_cycle_if_stuck();
        check_streams();
    }
    const long kib_end = resident_kib();
    set_faults("");
    if (sim.present())
        sim.end_held(0);
    quit = true;
    for (Worker& w : workers)
        w.thread.join();

    struct vqxsim_counters n {};
    const bool counted = sim.present();
    if (counted && !buffers_back(&n))
        fail("buffers not returned: " + std::to_string(n.buffers_lent) + " still lent, " +
             std::to_string(n.frames_delivered - n.frames_returned) + " frames not given back");
    if (kib_minute >= 0 && opt.seconds >= 120 && kib_end > kib_minute + kMemorySlackKiB)
        fail("resident memory grew from " + std::to_string(kib_minute) + " KiB after the first minute to " +
             std::to_string(kib_end) + " KiB");

    // The result line: vqxsoak.cpp reads it back.
    uint64_t refused = 0;
    for (const Worker& w : workers)
        refused += w.refused;
    std::printf("vqxsoak-segment seconds=%ld refused=%llu cycles=%llu stalls=%llu recovered=%llu lent=%lld "
                "returned=%lld kib_start=%ld kib_minute=%ld kib_end=%ld",
                now_ms() / 1000, static_cast<unsigned long long>(refused),
                static_cast<unsigned long long>(power_cycles), static_cast<unsigned long long>(stalls),
                static_cast<unsigned long long>(stalls_recovered),
                counted ? static_cast<long long>(n.frames_delivered) : -1LL,
                counted ? static_cast<long long>(n.frames_returned) : -1LL, kib_start, kib_minute, kib_end);
    for (unsigned i = 0; i < workers.size(); ++i)
        std::printf(" s%u=%llu/%ld/%llu/%llu", i + 1, static_cast<unsigned long long>(workers[i].frames.load()),
                    workers[i].longest_wait_ms.load(), static_cast<unsigned long long>(workers[i].gave_up.load()),
                    static_cast<unsigned long long>(workers[i].open_failures.load()));
    std::lock_guard<std::mutex> hold(failure_mutex);
    std::printf(" failure=%s\n", failure.empty() ? "-" : failure.c_str());
    std::fflush(stdout);
    return failed ? 1 : 0;
}

} // namespace

int run_segment(const Segment_options& options)
{
    Segment segment(options);
    return segment.run();
}

} // namespace vqxsoak
