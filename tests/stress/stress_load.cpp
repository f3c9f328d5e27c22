// The stress load (see stress_load.h).
//
// Bounds the watchdog enforces on one call, measured inside the exported
// function (a test-side lock wait does not count):
//   - VQXSI_GetNewScan and VQXSI_GetSingleFrame: the 30 s frame wait plus a
//     margin; and while the hardware layer holds every frame back (stall
//     fault) and the stream is scanning, the stall must release the caller:
//     2000 ms after the last frame (or the first-frame retries: four times
//     the engine's resume time and what a retry blocks, see kEngines), plus
//     a margin for a call queued behind another one of the same session;
//   - every other call on a session another thread is waiting in: the same
//     30 s plus margin (calls of one session are serialised);
//   - every other call: two 2000 ms stop waits (close of a scanning
//     session) plus a margin.
// A call past its bound fails the run at once: every client's state and the
// driver's are printed and the process exits.
#include "stress_load.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <sstream>
#include <thread>
#include <vector>

#include <VQXScanInterface.h>

#include "Driver_invariants.h"
#include "Frame_ledger.h"
#include "Record_calls.h"
#include "Sim_client.h"
#include "scan_session.h"

namespace stress {
namespace {

using Clock = std::chrono::steady_clock;

constexpr long kFrameWaitBound = 30000 + 6000;
constexpr long kCallBound = 2 * 2000 + 4000;
constexpr long kQuietStopBound = 2000 + 2000 + 3000;
constexpr unsigned kBuffers = 4;
// Frames the clients together hold at most: every buffer but two, so that
// frames keep reaching clients (with all but one held, each new frame is
// taken back until a buffer comes back: the misuse suite and the stream
// tests cover that case on their own, deterministically).
constexpr unsigned kHoldBudget = kBuffers - 2;
// Longest wait for a frame in the liveness probe of a quiet point.
constexpr long kProbeBound = 6000;
constexpr uint64_t kUncertain = ~uint64_t(0);

bool listed(const char* list, const std::string& name)
{
    return (" " + std::string(list) + " ").find(" " + name + " ") != std::string::npos;
}

// An engine that streams on the simulator: capture modes (bit m: mode m),
// own fault classes, the driver's resume time after a trigger and what one
// stall retry (trigger_off, trigger_on) blocks besides, and what shows that
// it cannot stream until it is powered off (null: nothing).
struct Engine {
    const char* type;
    unsigned modes;
    const char* faults;
    unsigned resume_ms, retry_ms;
    bool (*stuck)(vqxsim::Simulator& sim);
};
// MT9M114: trigger_off and trigger_on wait up to 100 ms each for the last
// host command, and write the next only when it succeeded: a hung or failed
// command fails every later wait, until a power-up (after sleep or the last
// close). A settled command completes within boot and command time (50 ms).
bool host_command_stuck(vqxsim::Simulator& sim)
{
    return !sim_client::wait_until([&sim] { return sim.reg(0x0080) == 0x8000; }, 200);
}

const Engine kEngines[] = {
    {"X7710", 0xFD, "", 150, 0, nullptr},
    {"X5501", 0x3D, "command_hang command_error", 300, 2 * 100, host_command_stuck},
    {"X5503", 0x3D, "command_hang command_error", 300, 2 * 100, host_command_stuck},
    // No frame 200 ms after trigger_on: the late-vsync alarm resets the sensor
    // and reloads the table (50 ms and 27 writes) under the sensor's monitor.
    {"MT9V022", 0x3D, "late_vsync", 300, 50 + 50, nullptr},
    // Rilo: the exposure read back from the sensor every frame (EXPINT) fails.
    {"RILO", 0x3D, "regfail_read", 100, 0, nullptr},
    // Kelp: bursts of dropped frames make its frame counter jump.
    {"KELP", 0xFD, "skip", 300, 0, nullptr},
};
const char* const kSharedFaults = "drop duplicate zero unknown storm regfail defer never stall hwstall sleep";

const Engine* find_engine(const std::string& type)
{
    auto e = std::find_if(std::begin(kEngines), std::end(kEngines), [&](const Engine& e) { return type == e.type; });
    return e == std::end(kEngines) ? nullptr : e;
}

// ---------------------------------------------------------------------------
// Shared state
// ---------------------------------------------------------------------------

struct Slot {
    std::shared_mutex use;  // shared by calls, exclusive to close and reopen
    VQXSI_HANDLE handle = nullptr;
    std::atomic<unsigned> waiting{0};  // GetNewScan calls in progress
    std::unique_ptr<std::atomic<int>[]> starts;  // per client thread
};

struct Client_state {
    std::atomic<const char*> op{"idle"};
    std::atomic<long> since{-1};  // ms since the run began; -1 outside a call
    std::atomic<long> bound{0};
    std::atomic<int> slot{-1};
    std::atomic<bool> frame_wait{false};
    std::atomic<uint64_t> calls{0};
};

struct Held {
    void* frame;
    uint64_t epoch;  // reclaim epoch before the GetNewScan; kUncertain if unknown
};

struct Counts {
    std::atomic<uint64_t> calls{0}, handed_certain{0}, handed_uncertain{0}, null_frames{0},
        unlocks{0}, starts{0}, stops{0}, single_frames{0}, reopens{0}, misuses{0},
        quiet_points{0}, probes{0}, storms{0}, power_cycles{0}, skips{0};
};

class Load {
public:
    explicit Load(const Options& o);
    Result run();

private:
    bool fault(const char* name) const { return listed(engine.faults, name) && opt.fault(name); }
    // Set-up and checks.
    void build_engine();
    std::string quiet_check(const char* where);
    std::string liveness_probe();
    // The frames a client holds: client c keeps at most min(c, budget) of
    // them (0 for client 0), all clients together at most kHoldBudget.
    unsigned hold_limit(unsigned me) const { return std::min(me, kHoldBudget); }
    bool reserve_frame()
    {
        unsigned n = held_total.load();
        while (n < kHoldBudget)
            if (held_total.compare_exchange_weak(n, n + 1))
                return true;
        return false;
    }
    void unreserve_frame() { held_total.fetch_sub(1); }
    void power_cycle();
    std::string final_check(const char* where = "after the last close");
    [[noreturn]] void watchdog_failure(const std::string& what);
    void watchdog();
    void fail(const std::string& what);

    // Scheduling.
    void plan_phase(std::mt19937_64& rng);
    bool holding() const { return sim->faults().hold_frames; }
    void hold(bool on) { sim->update_faults([on](vqxsim::Faults& f) { f.hold_frames = on; }); }
    void end_stall(bool recovers)
    {
        hold(false);
        stall_since = -1;
        if (recovers)
            sim->release_held_frames();
        else
            sim->lose_held_frames();
    }
    void quiet_point();
    void set_drop(bool all)
    {
        const vqxsim::Trigger drop = all ? vqxsim::Trigger::all() : sim->config().faults.drop;
        sim->update_faults([drop](vqxsim::Faults& f) { f.drop = drop; });
    }

    // Clients.
    void client(unsigned me);
    void drain(unsigned me, std::vector<Held>& held, std::mt19937_64& rng);
    void pause_here(unsigned me, std::vector<Held>& held, std::mt19937_64& rng);
    template <class F> auto call(unsigned me, const char* op, int slot, long bound, F f) -> decltype(f());
    long bound_for(unsigned slot) { return slots[slot].waiting ? kFrameWaitBound : kCallBound; }

    void op_get_new_scan(unsigned me, std::vector<Held>& held, std::mt19937_64& rng);
    void give_back(unsigned me, Held item, std::mt19937_64& rng);
    void op_start(unsigned me, std::mt19937_64& rng);
    bool start_one(unsigned me, unsigned i, const char* op);
    void op_stop(unsigned me, std::mt19937_64& rng);
    void stop_started(unsigned me, unsigned i, const char* op);
    void op_single_frame(unsigned me, std::vector<Held>& held, std::mt19937_64& rng);
    void op_reopen(unsigned me, std::mt19937_64& rng);
    void op_records(unsigned me, std::mt19937_64& rng);
    void op_bad_unlock(unsigned me, std::vector<Held>& held, std::mt19937_64& rng);
    void op_storm(unsigned me, std::mt19937_64& rng);

    long now_ms() const { return sim_client::elapsed_ms(begin); }

    const Options opt;
    const Engine& engine;
    const Clock::time_point begin = Clock::now();
    std::atomic<unsigned> held_total{0};  ///< frames in the clients' held lists
    vqxsim::Simulator* sim = nullptr;
    Frame_ledger* ledger = nullptr;

    std::vector<Slot> slots;
    std::vector<Client_state> clients;
    std::shared_mutex reclaim;
    std::atomic<uint64_t> epoch{0};
    Counts count;

    std::atomic<bool> stop{false};
    std::atomic<bool> failed{false};
    std::mutex failure_mutex;
    std::string failure;

    // Quiet points.
    std::mutex pause_mutex;
    std::condition_variable pause_cv;
    bool pause_requested = false;  // guarded by pause_mutex
    unsigned arrived = 0;          // guarded by pause_mutex
    uint64_t pause_generation = 0; // guarded by pause_mutex
    std::atomic<bool> pause_flag{false};

    // Stall window of the current phase.
    std::atomic<long> stall_since{-1};
    std::atomic<bool> watchdog_quit{false};
};

// ---------------------------------------------------------------------------
// Set-up
// ---------------------------------------------------------------------------

Load::Load(const Options& o) : opt(o), engine(*find_engine(o.engine)), slots(o.sessions), clients(o.threads)
{
    for (Slot& s : slots) {
        s.starts.reset(new std::atomic<int>[o.threads]);
        for (unsigned t = 0; t < o.threads; ++t)
            s.starts[t] = 0;
    }
}

void Load::build_engine()
{
    static vqxsim::Simulator* shared_sim = nullptr;
    static Frame_ledger* shared_ledger = nullptr;
    if (!shared_sim) {
        vqxsim::Config c;
        c.engine = engine.type;
        c.fps = 250.0;
        c.buffers = kBuffers;
        c.render = vqxsim::Render_mode::none;
        c.capture_mode = opt.capture_mode;
        c.seed = opt.seed;
        if (opt.fault("storm"))
            c.faults.storm = vqxsim::Trigger::with_probability(0.1);
        if (opt.fault("hwstall"))
            c.faults.stall_after = 150 + opt.seed % 100;
        const vqxsim::Trigger p = vqxsim::Trigger::with_probability(0.02);
        if (opt.fault("drop"))
            c.faults.drop = p;
        if (opt.fault("duplicate"))
            c.faults.duplicate = p;
        if (opt.fault("zero"))
            c.faults.zero_handle = p;
        if (opt.fault("unknown"))
            c.faults.unknown_handle = p;
        if (opt.fault("regfail"))
            c.faults.regfail_write = vqxsim::Trigger::with_probability(0.01);
        if (fault("regfail_read"))
            c.faults.regfail_read = vqxsim::Trigger::with_probability(0.02);
        if (fault("command_hang"))
            c.faults.command_hang = vqxsim::Trigger::with_probability(0.05);
        if (fault("command_error"))
            c.faults.command_error = vqxsim::Trigger::with_probability(0.05);
        // Both live until the process exits: the driver keeps its hardware
        // layer for good.
        shared_sim = sim_client::kept_simulator(c);
        shared_sim->set_event_guard(robust::with_driver_monitor);
        shared_ledger = new Frame_ledger(*shared_sim);
    }
    sim = shared_sim;
    ledger = shared_ledger;
}

void Load::fail(const std::string& what)
{
    std::lock_guard<std::mutex> hold(failure_mutex);
    if (failure.empty())
        failure = what;
    failed = true;
    stop = true;
    pause_cv.notify_all();
}

// ---------------------------------------------------------------------------
// Watchdog
// ---------------------------------------------------------------------------

// The driver's state, if its monitor can be had within half a second.
std::string driver_state_or_deadlock()
{
    auto shared = std::make_shared<std::string>();
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread([shared, done] {
        *shared = robust::snapshot().describe();
        done->store(true);
    }).detach();
    for (int i = 0; i < 50 && !done->load(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done->load() ? *shared : std::string("driver monitor not available (deadlock?)");
}

void Load::watchdog_failure(const std::string& what)
{
    std::fprintf(stderr, "\nstress: WATCHDOG: %s (seed %llu, at %ld ms)\n", what.c_str(),
                 static_cast<unsigned long long>(opt.seed), now_ms());
    const long now = now_ms();
    for (unsigned i = 0; i < clients.size(); ++i) {
        const Client_state& c = clients[i];
        const long since = c.since;
        std::fprintf(stderr, "  client %u: %s on session %d, %s, %llu calls\n", i, c.op.load(),
                     c.slot.load(), since < 0 ? "not in a call" : (std::to_string(now - since) + " ms in the call").c_str(),
                     static_cast<unsigned long long>(c.calls.load()));
    }
    std::fprintf(stderr, "  driver: %s\n", driver_state_or_deadlock().c_str());
    const vqxsim::Counters n = sim->counters();
    std::fprintf(stderr, "  hardware layer: %u buffers out, frames held %s, stop confirmation %s\n",
                 ledger->buffers_out(), holding() ? "on" : "off", sim->stop_pending() ? "pending" : "not pending");
    std::fprintf(stderr, "  frames: %llu delivered, %llu returned\n",
                 static_cast<unsigned long long>(n.frames_delivered), static_cast<unsigned long long>(n.frames_returned));
    std::fflush(stderr);
    std::_Exit(3);
}

void Load::watchdog()
{
    const long stall_bound = 2000 + 4 * long(engine.resume_ms + engine.retry_ms) + 8000;
    while (!watchdog_quit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const long now = now_ms();
        const long stalled_from = stall_since;
        for (unsigned i = 0; i < clients.size(); ++i) {
            const Client_state& c = clients[i];
            const long since = c.since;
            if (since < 0)
                continue;
            if (now - since > c.bound)
                watchdog_failure(std::string(c.op.load()) + " of client " + std::to_string(i) +
                                 " blocked past its bound of " + std::to_string(c.bound.load()) + " ms");
            if (c.frame_wait && stalled_from >= 0 && now - std::max(since, stalled_from) > stall_bound &&
                robust::snapshot().stream == IStream_driver::SCANNING)
                watchdog_failure(std::string(c.op.load()) + " of client " + std::to_string(i) +
                                 " did not give up on a stalled stream within " +
                                 std::to_string(stall_bound) + " ms");
        }
    }
}

template <class F>
auto Load::call(unsigned me, const char* op, int slot, long bound, F f) -> decltype(f())
{
    Client_state& c = clients[me];
    c.op = op;
    c.slot = slot;
    c.bound = bound;
    c.since = now_ms();
    ++c.calls;
    ++count.calls;
    auto result = f();
    c.since = -1;
    c.frame_wait = false;
    c.op = "idle";
    return result;
}

// ---------------------------------------------------------------------------
// Checks
// ---------------------------------------------------------------------------

// Every buffer is free and no stall is on: a scan must deliver a frame.
// Register faults may refuse a start or stall the stream, and a stop the
// hardware never confirms holds the next start back up to 2 s, so the
// probe starts again until the bound, power-cycling an engine stuck until then.
std::string Load::liveness_probe()
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(kProbeBound);
    ++count.probes;
    while (Clock::now() < deadline && !failed) {
        if (engine.stuck && engine.stuck(*sim))
            power_cycle();
        Slot& s = slots[0];
        if (VQXSI_StartScanning(s.handle) != 1)
            return "liveness probe: VQXSI_StartScanning failed";
        void* frame = VQXSI_GetNewScan(s.handle);
        if (frame) {
            if (!ledger->mark_handed(frame))
                return "liveness probe hand-out: " + ledger->first_error();
            ++count.handed_certain;
            VQXSI_UnlockBuffer(s.handle, frame);
        }
        VQXSI_StopScanning(s.handle);
        if (frame)
            return "";
    }
    return "stream dead: no frame within " + std::to_string(kProbeBound) +
           " ms while every buffer was free (" + robust::snapshot().describe() + ")";
}

std::string Load::quiet_check(const char* where)
{
    // Every client has given its frames back and ended its starts; the
    // stream must come to a stop (a stop never confirmed ends by the stall
    // alarm). A frame the engine was reading out when its transfer stopped
    // still arrives (where the engine fills buffers on its own) and goes
    // straight back, so the simulator's buffers are waited for too.
    const auto deadline = Clock::now() + std::chrono::milliseconds(kQuietStopBound);
    const auto all_back = [this] { return ledger->buffers_out() == 0 && ledger->all_returned(); };
    robust::Driver_snapshot s = robust::snapshot();
    while (Clock::now() < deadline && (s.stream != IStream_driver::STOPPED || !all_back())) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        s = robust::snapshot();
    }
    std::string e;
    if (!s.buffers.error.empty())
        e += "buffer records inconsistent: " + s.buffers.error + "; ";
    if (s.stream != IStream_driver::STOPPED)
        e += "stream did not stop within " + std::to_string(kQuietStopBound) + " ms; ";
    if (s.scanning_count != 0)
        e += "scanning count not zero; ";
    if (s.buffers.free != s.buffers.total)
        e += "a buffer is not free after every client gave its frames back; ";
    const unsigned sim_out = ledger->buffers_out();
    if (sim_out != 0)
        e += std::to_string(sim_out) + " buffers armed or filled, not back with the hardware layer; ";
    const vqxsim::Counters n = sim->counters();
    if (n.frames_delivered != n.frames_returned)
        e += "frames delivered " + std::to_string(n.frames_delivered) + " but " +
             std::to_string(n.frames_returned) + " came back; ";
    if (ledger->errors() != 0)
        e += "frame hand-out error: " + ledger->first_error() + "; ";
    const uint64_t marked = ledger->marked();
    if (marked != count.handed_certain)
        e += "frames received " + std::to_string(count.handed_certain) + " but " + std::to_string(marked) +
             " recorded; ";
    if (n.frames_returned < marked || n.frames_returned - marked < count.handed_uncertain)
        e += "more frames handed out than delivered; ";
    if (e.empty())
        return e;
    return std::string(where) + ": " + e + "[" + s.describe() + "]";
}

// Closes every session (the last close powers the engine off).
std::string Load::final_check(const char* where)
{
    for (Slot& s : slots) {
        VQXSI_CloseSessionWithScanEngine(s.handle);
        s.handle = nullptr;
    }
    const auto deadline = Clock::now() + std::chrono::milliseconds(kQuietStopBound);
    std::string e = robust::check_all_closed(robust::snapshot());
    while (!e.empty() && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        e = robust::check_all_closed(robust::snapshot());
    }
    if (!e.empty())
        return std::string(where) + ": " + e;
    return quiet_check(where);
}

// With every client paused, holding nothing: powers the engine off and up.
void Load::power_cycle()
{
    ++count.power_cycles;
    std::string e = final_check("power cycle");
    for (Slot& s : slots)
        if (e.empty() && !(s.handle = VQXSI_OpenSessionWithScanEngine()))
            e = "power cycle: VQXSI_OpenSessionWithScanEngine failed";
    if (!e.empty())
        fail(e);
}

// ---------------------------------------------------------------------------
// Scheduling
// ---------------------------------------------------------------------------

void Load::plan_phase(std::mt19937_64& rng)
{
    const double r = std::uniform_real_distribution<double>(0, 1)(rng);
    bool never = false;
    int defer_ms = -1;  // at once
    if (opt.fault("never") && r < 0.2)
        never = true;
    else if (opt.fault("defer") && r < 0.6)
        defer_ms = int(1 + rng() % 40);
    else if (r < 0.8 || !opt.fault("defer"))
        defer_ms = 5;  // real transfer hardware confirms a stop a little later
    // MT9V022: in some phases the first frame after leaving standby comes
    // past the 200 ms late-vsync watch, some also past the 300 ms resume time.
    unsigned late_ms = 0;
    if (fault("late_vsync") && rng() % 100 < 40)
        late_ms = unsigned(220 + rng() % 160);
    sim->update_faults([never, defer_ms, late_ms](vqxsim::Faults& f) {
        f.never_confirm_stop = never;
        f.defer_stop_ms = defer_ms;
        f.first_frame_delay_ms = late_ms;
    });
}

void Load::quiet_point()
{
    {
        std::unique_lock<std::mutex> lock(pause_mutex);
        pause_requested = true;
        pause_flag = true;
        arrived = 0;
        const bool all = pause_cv.wait_for(lock, std::chrono::milliseconds(2 * kFrameWaitBound), [this] {
            return arrived == clients.size() || failed;
        });
        if (!all && !failed)
            watchdog_failure("the clients did not reach the quiet point");
    }
    if (!failed) {
        ++count.quiet_points;
        std::string e = quiet_check("quiet point");
        if (e.empty())
            e = liveness_probe();
        if (!e.empty())
            fail(e);
    }
    std::lock_guard<std::mutex> lock(pause_mutex);
    pause_requested = false;
    pause_flag = false;
    ++pause_generation;
    pause_cv.notify_all();
}

Result Load::run()
{
    build_engine();
    std::mt19937_64 rng(opt.seed);
    for (Slot& s : slots) {
        s.handle = VQXSI_OpenSessionWithScanEngine();
        if (!s.handle) {
            Result r;
            r.failure = "no session could be opened";
            return r;
        }
    }
    std::thread dog([this] { watchdog(); });
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < opt.threads; ++i)
        threads.emplace_back([this, i] { client(i); });

    const auto end = begin + std::chrono::seconds(opt.seconds);
    while (Clock::now() < end && !failed) {
        plan_phase(rng);
        const auto phase_end = std::min(end, Clock::now() + std::chrono::milliseconds(opt.quiet_ms));
        // A stall window: the hardware holds every frame back for a while,
        // then either announces them late or loses them for good.
        const bool stall = opt.fault("stall") && rng() % 100 < 40;
        const auto stall_at = Clock::now() + std::chrono::milliseconds(100 + rng() % 400);
        const auto stall_end = stall_at + std::chrono::milliseconds(2200 + rng() % 600);
        const bool recovers = rng() % 2 == 0;
        // Kelp: every frame dropped for 20 to 100 ms (up to 25 frames: past
        // the three frames of the counter the trait follows at most).
        const bool skip = fault("skip") && rng() % 100 < 80;
        const auto skip_at = Clock::now() + std::chrono::milliseconds(skip ? rng() % 3000 : 0);
        const auto skip_end = skip_at + std::chrono::milliseconds(skip ? 20 + rng() % 80 : 0);
        bool skipping = false;
        while (Clock::now() < phase_end && !failed) {
            const auto now = Clock::now();
            if (stall && now >= stall_at && now < stall_end && !holding()) {
                stall_since = now_ms();
                hold(true);
            } else if (holding() && now >= stall_end) {
                end_stall(recovers);
            }
            if (skip && (now >= skip_at && now < skip_end) != skipping) {
                set_drop(skipping = !skipping);
                count.skips += skipping;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (opt.verbose && now_ms() % 500 < 10) {
                std::printf("%6ld ms: %s; frames %llu\n", now_ms(), robust::snapshot().describe().c_str(),
                            static_cast<unsigned long long>(sim->counters().frames_delivered));
                for (unsigned c = 0; c < clients.size(); ++c)
                    std::printf("    client %u: %s on %d since %ld\n", c, clients[c].op.load(),
                                clients[c].slot.load(), clients[c].since.load());
            }
        }
        if (holding())
            end_stall(recovers);
        if (skipping)
            set_drop(false);
        if (!failed && Clock::now() < end)
            quiet_point();
    }
    stop = true;
    {
        std::lock_guard<std::mutex> lock(pause_mutex);
        pause_cv.notify_all();
    }
    for (std::thread& t : threads)
        t.join();
    Result result;
    if (!failed) {
        std::string e = final_check();
        if (!e.empty())
            fail(e);
    }
    watchdog_quit = true;
    dog.join();

    const vqxsim::Counters n = sim->counters();
    const uint64_t handed = count.handed_certain + count.handed_uncertain;
    uint64_t resets = 0;  // MT9V022: sensor resets through the PSoC, one a power-up, one a late vsync
    for (const vqxsim::Psoc_write& w : sim->psoc_writes())
        resets += w.address == 0x82;
    std::ostringstream text;
    text << "seed " << opt.seed << ", " << opt.seconds << " s, " << opt.threads << " threads, " << opt.sessions
         << " sessions, capture mode " << opt.capture_mode << ": " << count.calls << " calls, " << count.quiet_points
         << " quiet points; frames delivered " << n.frames_delivered << " = handed out " << handed << " ("
         << count.handed_certain << " certain) + dropped " << int64_t(n.frames_delivered - handed) << "; starts "
         << count.starts << ", stops " << count.stops << ", single frames " << count.single_frames << ", reopens "
         << count.reopens << ", misuses " << count.misuses << ", start/stop storms " << count.storms
         << ", liveness probes " << count.probes << "; faults: " << n.frames_dropped << " dropped, "
         << n.frames_held << " held back by stalls, "
         << n.duplicate_events + n.zero_handle_events + n.unknown_handle_events << " extra vsyncs, "
         << n.register_write_failures << " failed writes, " << n.stop_requests << " stop requests ("
         << n.stop_confirmations << " confirmed late); " << engine.type << ": " << n.register_read_failures
         << " failed reads, " << count.skips << " bursts of dropped frames, " << count.power_cycles
         << " power cycles after a stuck host command, " << resets - std::min(resets, sim->calls("ImagerPowerOn"))
         << " late-vsync sensor resets";
    result.summary = text.str();
    result.passed = !failed;
    result.failure = failure;
    sim->shutdown();
    return result;
}

// ---------------------------------------------------------------------------
// Clients
// ---------------------------------------------------------------------------

void Load::client(unsigned me)
{
    std::mt19937_64 rng(opt.seed * 1000003 + me + 1);
    std::vector<Held> held;
    while (!stop) {
        if (pause_flag) {
            pause_here(me, held, rng);
            continue;
        }
        const unsigned r = unsigned(rng() % 86);
        if (r < 30)
            op_get_new_scan(me, held, rng);
        else if (r < 44) {
            if (!held.empty()) {
                Held item = held.front();
                held.erase(held.begin());
                give_back(me, item, rng);
            }
        } else if (r < 52)
            op_start(me, rng);
        else if (r < 60)
            op_stop(me, rng);
        else if (r < 62)
            op_single_frame(me, held, rng);
        else if (r < 63)
            op_reopen(me, rng);
        else if (r < 77)
            op_records(me, rng);
        else if (r < 80)
            op_storm(me, rng);
        else
            op_bad_unlock(me, held, rng);
    }
    drain(me, held, rng);
}

void Load::pause_here(unsigned me, std::vector<Held>& held, std::mt19937_64& rng)
{
    drain(me, held, rng);
    std::unique_lock<std::mutex> lock(pause_mutex);
    if (!pause_requested)
        return;
    const uint64_t generation = pause_generation;
    ++arrived;
    pause_cv.notify_all();
    pause_cv.wait(lock, [&] { return pause_generation != generation || stop; });
}

void Load::drain(unsigned me, std::vector<Held>& held, std::mt19937_64& rng)
{
    for (const Held& item : held)
        give_back(me, item, rng);
    held.clear();
    for (unsigned i = 0; i < slots.size(); ++i) {
        Slot& s = slots[i];
        std::shared_lock<std::shared_mutex> use(s.use);
        while (s.starts[me] > 0)
            stop_started(me, i, "StopScanning (drain)");
    }
    // Idle lights hold sleep off only while set; a client leaves none.
}

void Load::op_get_new_scan(unsigned me, std::vector<Held>& held, std::mt19937_64& rng)
{
    // Each client keeps up to its own number of frames (0 to the budget),
    // giving the oldest back first; all clients together stay within the
    // budget, so that a free buffer always remains.
    while (!held.empty() && held.size() >= std::max(1u, hold_limit(me))) {
        Held item = held.front();
        held.erase(held.begin());
        give_back(me, item, rng);
    }
    if (!reserve_frame())
        return;
    const unsigned i = unsigned(rng() % slots.size());
    Slot& s = slots[i];
    void* frame;
    uint64_t before;
    {
        std::shared_lock<std::shared_mutex> use(s.use);
        {
            // Read while no reclaiming call is in progress: one that had
            // already moved the epoch could still take back the frame this
            // call is about to receive, after it is received.
            std::shared_lock<std::shared_mutex> settled(reclaim);
            before = epoch;
        }
        ++s.waiting;
        clients[me].frame_wait = true;
        frame = call(me, "GetNewScan", int(i), kFrameWaitBound, [&] { return VQXSI_GetNewScan(s.handle); });
        --s.waiting;
    }
    if (!frame) {
        unreserve_frame();
        ++count.null_frames;
        return;
    }
    vqxsim::Buffer_view view;
    if (!sim->buffer_at(frame, &view)) {
        fail("VQXSI_GetNewScan returned an address that is no buffer");
        return;
    }
    {
        std::shared_lock<std::shared_mutex> lock(reclaim);
        if (epoch == before) {
            if (!ledger->mark_handed(frame))
                fail("frame hand-out: " + ledger->first_error());
            ++count.handed_certain;
            held.push_back({frame, before});
        } else {
            ++count.handed_uncertain;
            held.push_back({frame, kUncertain});
        }
    }
    while (held.size() > hold_limit(me)) {
        Held item = held.front();
        held.erase(held.begin());
        give_back(me, item, rng);
    }
    // Sometimes keep the frames a while, as a slow decoder does.
    if (!held.empty() && rng() % 4 == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(10 + rng() % 50));
}

// Any session may give a frame back (frames belong to the client). A
// session another thread waits in for a frame is busy until that wait ends
// (its calls are serialised), so a free one is preferred.
void Load::give_back(unsigned me, Held item, std::mt19937_64& rng)
{
    unreserve_frame();
    unsigned i = unsigned(rng() % slots.size());
    for (unsigned k = 0; k < slots.size() && slots[i].waiting != 0; ++k)
        i = (i + 1) % unsigned(slots.size());
    Slot& s = slots[i];
    std::shared_lock<std::shared_mutex> use(s.use);
    ++count.unlocks;
    {
        std::shared_lock<std::shared_mutex> lock(reclaim);
        if (item.epoch != kUncertain && epoch == item.epoch) {
            const bool ok = call(me, "UnlockBuffer", int(i), bound_for(i),
                                 [&] { return VQXSI_UnlockBuffer(s.handle, item.frame); }) == 1;
            if (!ok) {
                vqxsim::Buffer_view view;
                sim->buffer_at(item.frame, &view);
                static const char* const states[] = {"free", "armed", "delivered"};
                fail("VQXSI_UnlockBuffer refused a frame the client surely held (buffer " +
                     std::to_string(view.handle) + ": " + states[int(view.state)] + (view.held ? ", held back" : "") +
                     ", frame " + std::to_string(view.announced_frame) + "; " + robust::snapshot().describe() + ")");
            }
            return;
        }
    }
    // The frame may have been taken back and handed to another thread:
    // giving it back may take that thread's frame.
    std::unique_lock<std::shared_mutex> lock(reclaim);
    ++epoch;
    call(me, "UnlockBuffer (uncertain)", int(i), bound_for(i),
         [&] { return VQXSI_UnlockBuffer(s.handle, item.frame); });
}

void Load::op_start(unsigned me, std::mt19937_64& rng)
{
    const unsigned i = unsigned(rng() % slots.size());
    std::shared_lock<std::shared_mutex> use(slots[i].use);
    if (slots[i].starts[me] < 2)
        start_one(me, i, "StartScanning");
}

// Starts slot @p i (whose use lock the caller holds) for this client; true
// when the start took.
bool Load::start_one(unsigned me, unsigned i, const char* op)
{
    Slot& s = slots[i];
    // A failed start undoes itself with a stop, which may take frames back.
    std::unique_lock<std::shared_mutex> lock(reclaim);
    ++epoch;
    if (call(me, op, int(i), bound_for(i), [&] { return VQXSI_StartScanning(s.handle); }) != 1)
        return false;
    ++s.starts[me];
    ++count.starts;
    return true;
}

void Load::op_stop(unsigned me, std::mt19937_64& rng)
{
    const unsigned i = unsigned(rng() % slots.size());
    Slot& s = slots[i];
    std::shared_lock<std::shared_mutex> use(s.use);
    if (s.starts[me] != 0)
        stop_started(me, i, "StopScanning");
}

// Ends one of this client's starts on slot @p i (whose use lock it holds).
void Load::stop_started(unsigned me, unsigned i, const char* op)
{
    Slot& s = slots[i];
    std::unique_lock<std::shared_mutex> lock(reclaim);
    ++epoch;
    const bool ok = call(me, op, int(i), bound_for(i), [&] { return VQXSI_StopScanning(s.handle); }) == 1;
    --s.starts[me];
    ++count.stops;
    if (!ok)
        fail(std::string("VQXSI_StopScanning of a started session failed (") + op + ")");
}

void Load::op_single_frame(unsigned me, std::vector<Held>& held, std::mt19937_64& rng)
{
    // A single-image scan needs the stop confirmed after the frame reached
    // the hand-off; with a stop confirmed at once the driver discards the
    // frame with the stream and the call waits out its 30 s (known defect,
    // exercised by the misuse suite), which would stretch the run.
    const vqxsim::Faults faults = sim->faults();
    if (faults.never_confirm_stop || faults.defer_stop_ms < 0)
        return;
    const unsigned i = unsigned(rng() % slots.size());
    Slot& s = slots[i];
    std::unique_lock<std::shared_mutex> use(s.use);  // scan count read exactly
    std::unique_lock<std::shared_mutex> lock(reclaim);  // no start or stop elsewhere
    // The single image ends the stream it runs on: only when no other scan
    // runs (a running scan of another session would lose its stream, known
    // defect), and its start is ended right after, as the interface asks.
    if (robust::snapshot().scanning_count != 0)
        return;
    if (!reserve_frame())
        return;
    ++epoch;
    Scan_session* session = reinterpret_cast<Scan_session*>(s.handle);
    const unsigned before = session->Get_scan_count();
    clients[me].frame_wait = true;
    void* frame = call(me, "GetSingleFrame", int(i), kFrameWaitBound, [&] { return VQXSI_GetSingleFrame(s.handle); });
    const unsigned after = session->Get_scan_count();
    ++count.single_frames;
    if (after > before &&
        call(me, "StopScanning (single frame)", int(i), kCallBound, [&] { return VQXSI_StopScanning(s.handle); }) != 1)
        fail("VQXSI_StopScanning after a single frame failed");
    if (!frame) {
        unreserve_frame();
        ++count.null_frames;
        return;
    }
    if (!ledger->mark_handed(frame))
        fail("single frame hand-out: " + ledger->first_error());
    ++count.handed_certain;
    held.push_back({frame, epoch.load()});
}

void Load::op_reopen(unsigned me, std::mt19937_64& rng)
{
    const unsigned i = unsigned(rng() % slots.size());
    Slot& s = slots[i];
    std::unique_lock<std::shared_mutex> use(s.use);
    std::unique_lock<std::shared_mutex> lock(reclaim);
    ++epoch;
    call(me, "CloseSessionWithScanEngine", int(i), kCallBound, [&] {
        VQXSI_CloseSessionWithScanEngine(s.handle);
        return 0;
    });
    for (unsigned t = 0; t < clients.size(); ++t)
        s.starts[t] = 0;
    s.handle = call(me, "OpenSessionWithScanEngine", int(i), kCallBound,
                    [] { return VQXSI_OpenSessionWithScanEngine(); });
    ++count.reopens;
    if (!s.handle)
        fail("VQXSI_OpenSessionWithScanEngine failed");
}

// Lights, exposure settings and mode, sleep time-out, on any session while
// frames flow (see Record_calls.h).
void Load::op_records(unsigned me, std::mt19937_64& rng)
{
    const unsigned i = unsigned(rng() % slots.size());
    Slot& s = slots[i];
    std::shared_lock<std::shared_mutex> use(s.use);
    auto pick = [&rng](uint32_t bound) { return bound ? uint32_t(rng() % bound) : uint32_t(rng()); };
    const unsigned kind = unsigned(rng() % 14);
    std::string e;
    if (kind < 5)
        e = call(me, "lights", int(i), bound_for(i), [&] { return record_calls::lights(s.handle, pick); });
    else if (kind < 11)
        e = call(me, "exposure settings", int(i), bound_for(i), [&] { return record_calls::exposure(s.handle, pick); });
    else if (opt.fault("sleep"))
        e = call(me, "sleep time-out", int(i), bound_for(i), [&] { return record_calls::sleep_timeout(s.handle, pick); });
    if (!e.empty())
        fail(e);
}

void Load::op_bad_unlock(unsigned me, std::vector<Held>& held, std::mt19937_64& rng)
{
    ++count.misuses;
    const unsigned i = unsigned(rng() % slots.size());
    Slot& s = slots[i];
    std::shared_lock<std::shared_mutex> use(s.use);
    const unsigned what = unsigned(rng() % 3);
    if (what == 0) {
        // An address that is no buffer: refused, nothing changes.
        int local = 0;
        void* p = rng() % 2 ? static_cast<void*>(&local) : nullptr;
        if (call(me, "UnlockBuffer (no buffer)", int(i), bound_for(i),
                 [&] { return VQXSI_UnlockBuffer(s.handle, p); }) != 0)
            fail("VQXSI_UnlockBuffer accepted an address that is no buffer");
        return;
    }
    void* p = nullptr;
    if (what == 1) {
        // A buffer never handed out to this thread (or one another thread
        // holds): may take a frame back.
        std::vector<unsigned char*> all = sim->buffer_images();
        if (all.empty())
            return;
        p = all[rng() % all.size()];
    } else {
        // One of this thread's frames, twice.
        if (held.empty())
            return;
        Held item = held.back();
        held.pop_back();
        use.unlock();
        give_back(me, item, rng);
        use.lock();
        p = item.frame;
    }
    std::unique_lock<std::shared_mutex> lock(reclaim);
    ++epoch;
    call(me, "UnlockBuffer (not held)", int(i), bound_for(i), [&] { return VQXSI_UnlockBuffer(s.handle, p); });
}

// A burst of starts and stops on one session (a client toggling its
// trigger): each start is ended again within the burst.
void Load::op_storm(unsigned me, std::mt19937_64& rng)
{
    const unsigned i = unsigned(rng() % slots.size());
    Slot& s = slots[i];
    std::shared_lock<std::shared_mutex> use(s.use);
    ++count.storms;
    const unsigned n = unsigned(3 + rng() % 6);
    for (unsigned k = 0; k < n && !stop; ++k) {
        if (s.starts[me] >= 2)
            break;
        if (!start_one(me, i, "StartScanning (storm)"))
            continue;
        if (rng() % 2)
            std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
        stop_started(me, i, "StopScanning (storm)");
    }
}

} // namespace

// ---------------------------------------------------------------------------
// Options
// ---------------------------------------------------------------------------

const char* Options::usage()
{
    return "options (or VQX_STRESS_<NAME> environment variables):\n"
           "  --engine=TYPE     engine type (default X7710): X7710 and KELP (capture modes\n"
           "                    0, 2-7), X5501, X5503, MT9V022 and RILO (0, 2-5)\n"
           "  --seconds=N       duration of the load (default 10)\n"
           "  --seed=N          random seed (default 1)\n"
           "  --threads=N       client threads (default 4)\n"
           "  --sessions=N      sessions (default 3)\n"
           "  --capture-mode=N  the simulated engine's capture mode (default 0)\n"
           "  --quiet-ms=N      time between quiet points (default 4000)\n"
           "  --faults=a,b,...  fault classes (default all): drop duplicate zero unknown storm\n"
           "                    regfail defer never stall hwstall sleep; 'none' for none;\n"
           "                    the engine's own: X5501, X5503 command_hang command_error,\n"
           "                    MT9V022 late_vsync, RILO regfail_read, KELP skip\n";
}

bool Options::parse(int argc, char** argv, std::string* error)
{
    struct Item {
        const char* name;
        const char* env;
    };
    static const Item items[] = {{"engine", "VQX_STRESS_ENGINE"}, {"seconds", "VQX_STRESS_SECONDS"},
                                 {"seed", "VQX_STRESS_SEED"}, {"threads", "VQX_STRESS_THREADS"},
                                 {"sessions", "VQX_STRESS_SESSIONS"}, {"capture-mode", "VQX_STRESS_CAPTURE_MODE"},
                                 {"quiet-ms", "VQX_STRESS_QUIET_MS"}, {"faults", "VQX_STRESS_FAULTS"}};
    auto apply = [this, error](const std::string& name, const std::string& value) {
        if (name == "faults") {
            faults.clear();
            std::istringstream list(value);
            for (std::string item; std::getline(list, item, ',');)
                if (!item.empty())
                    faults.insert(item);
            if (faults.count("all"))
                faults.clear();
            return true;
        }
        if (name == "engine")
            return engine = value, true;
        char* end = nullptr;
        const unsigned long long v = std::strtoull(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0') {
            *error = "bad value for " + name + ": " + value;
            return false;
        }
        if (name == "seconds") seconds = unsigned(v);
        else if (name == "seed") seed = v;
        else if (name == "threads") threads = unsigned(std::max<unsigned long long>(1, v));
        else if (name == "sessions") sessions = unsigned(std::max<unsigned long long>(1, v));
        else if (name == "capture-mode") capture_mode = unsigned(v);
        else if (name == "quiet-ms") quiet_ms = unsigned(std::max<unsigned long long>(100, v));
        return true;
    };
    for (const Item& item : items)
        if (const char* env = std::getenv(item.env))
            if (!apply(item.name, env))
                return false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--verbose") {
            verbose = true;
            continue;
        }
        if (arg.compare(0, 2, "--") != 0 || arg.find('=') == std::string::npos) {
            *error = "unknown argument: " + arg;
            return false;
        }
        const std::string name = arg.substr(2, arg.find('=') - 2);
        if (std::none_of(std::begin(items), std::end(items), [&](const Item& item) { return name == item.name; })) {
            *error = "unknown option: " + name;
            return false;
        }
        if (!apply(name, arg.substr(arg.find('=') + 1)))
            return false;
    }
    const Engine* e = find_engine(engine);
    if (!e)
        *error = "engine type " + engine + " does not stream on the simulated engine";
    else if (capture_mode > 31 || !(e->modes >> capture_mode & 1))
        *error = "engine " + engine + " does not stream in capture mode " + std::to_string(capture_mode);
    for (const std::string& f : faults)
        if (e && f != "none" && !listed(e->faults, f) && !listed(kSharedFaults, f))
            *error = "engine " + engine + " has no fault class " + f;
    if (!error->empty())
        return false;
    if (faults.count("none"))
        faults = {"none"};
    return true;
}

Result run(const Options& options)
{
    Load load(options);
    return load.run();
}

} // namespace stress
