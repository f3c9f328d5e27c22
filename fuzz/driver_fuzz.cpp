// libFuzzer target: an input is a sequence of calls of the exported
// interface and of hardware faults, run against a simulated engine (whose
// faults the input switches while the driver runs); after every call and at
// the end of the input the driver's invariants must hold.
//
// Input format: the first byte picks the engine (byte % 6: X7710, X5501 with
// its full register table read from its file, X5503 with the short table,
// MT9V022, RILO, KELP). Then one byte selects an operation (byte % operation
// count); the operation reads its arguments from the bytes that follow (0
// once the input is exhausted). At most 96 operations run per input.
//
// Start-up builds the one driver of a process once. So each engine has its
// own simulator and driver object, built by the start-up code on the
// engine's first input and kept; an input points the_scan_driver at its
// engine's driver. Between inputs every driver is idle (the end-of-input
// checks: sessions closed, engine off, stream stopped, no stop confirmation
// to come): no frame, stop callback or driver alarm reaches a driver while
// another is current; the alarms that stay (MT9V022 late-vsync watch,
// AR0144 standby completion) touch only their own trait and simulator.
//
// The simulator runs in step mode: frames happen only when the input asks
// for one ("frame") or while a call that must wait for a frame runs (a pump
// thread steps the simulator during VQXSI_GetSingleFrame, while a stream is
// stopping with captures still armed, and at the end of the input). VQXSI_GetNewScan is only called when it cannot wait: the
// session is not scanning, a frame waits in the hand-off, the stream is
// stalled or every buffer is with the client (checked, and the call made,
// with the sensor's monitor held, so that no alarm changes the answer in
// between).
//
// At the end of an input the hardware recovers (held-back frames are
// announced, stop confirmations made), every session is closed, and then:
// the counts are zero, the engine is off, the stream stopped, every buffer
// free and back with the hardware layer, every delivered frame came back,
// no frame was handed out twice, and every frame the client held could be
// given back while it was surely its own.
//
// Engine faults: failing reads (RILO), MT9M114 commands that hang or fail,
// dropped frames (the X7710's and KELP's frame counters jump), and a long
// wait while frames are held back (MT9V022 late vsync, stall handling).
//
// Fault classes can be limited with VQX_FUZZ_FAULTS (a comma list of drop,
// duplicate, zero, unknown, regfail, stall, defer, never, startfail, sleep,
// readfail, hang, cmderror, late; default all), and engines with
// VQX_FUZZ_ENGINES (a comma list of engine types; default all), e.g. to
// fuzz past a known defect.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <VQXScanInterface.h>

#include "Driver_invariants.h"
#include "Frame_ledger.h"
#include "Record_calls.h"
#include "Scan_driver_init.h"
#include "Sim_client.h"
#include "scan_session.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kMaxOps = 96;
constexpr unsigned kSlots = 3;
constexpr unsigned kWaitBudgetMs = 40;
constexpr unsigned kEndBoundMs = 2000 + 2000 + 2000;
// A stop waits up to 2 s for captures that a sensor not streaming never
// completes: after this long an input runs no more operations, so that it
// ends well within the fuzzer's time-out.
constexpr unsigned kInputBoundMs = 5000;
constexpr unsigned kEngines = 6;
// Engine types, and the register table select of their configuration (42:
// the X5501's short table; anything else: its full table, from its file).
constexpr struct { const char* type; uint32_t register_table; } kEngineTypes[kEngines] = {
    {"X7710", 42}, {"X5501", 0}, {"X5503", 42}, {"MT9V022", 42}, {"RILO", 42}, {"KELP", 42}};

bool listed(const char* list, const char* name)
{
    return !list || !*list || ("," + std::string(list) + ",").find("," + std::string(name) + ",") != std::string::npos;
}

struct Engine {
    vqxsim::Simulator* sim = nullptr;
    Frame_ledger* ledger = nullptr;
    Scan_driver* driver = nullptr;
};

struct Fuzz {
    Engine engines[kEngines];     // built on first use, kept for the process
    Scan_driver* const initial = the_scan_driver;
    std::atomic<Engine*> current{nullptr};  ///< the running input's engine
    std::atomic<bool> pumping{false};
    std::thread pump;

    bool fault(const char* name) const { return listed(std::getenv("VQX_FUZZ_FAULTS"), name); }

    // The engine's simulator, and its driver built by start-up on it.
    Engine& engine(unsigned i)
    {
        Engine& e = engines[i];
        if (e.driver)
            return e;
        vqxsim::Config c;
        c.engine = kEngineTypes[i].type;
        c.register_table = kEngineTypes[i].register_table;
        c.buffers = 4;
        c.real_time = false;
        c.render = vqxsim::Render_mode::none;
        c.seed = 42;
        e.sim = sim_client::kept_simulator(c);
        e.sim->set_event_guard(robust::with_driver_monitor);
        e.ledger = new Frame_ledger(*e.sim);
        the_scan_driver = e.driver = new Scan_driver;
        // The start-up flag is the process's: engines after the first are
        // built by the start-up's build step itself.
        if (!Initialize_scan_driver(nullptr) ||
            (!e.driver->stream_driver && !Initialize_scan_driver_runonce(nullptr))) {
            std::fprintf(stderr, "driver_fuzz: the %s engine did not start\n", c.engine.c_str());
            std::abort();
        }
        return e;
    }
};

Fuzz& fuzz()
{
    static Fuzz* f = [] {
        setenv("VQX_REGISTER_TABLE_DIR", VQX_TABLE_SOURCE_DIR, 1);
        auto* made = new Fuzz;  // lives until exit: the drivers keep their hardware layers
        made->pump = std::thread([made] {
            for (;;) {
                // Captures still armed when a stream stops complete, as on
                // hardware that keeps streaming until the stop: without them
                // every stop would wait for its 2 s bound.
                Engine* e = made->current;
                const IStream_driver* stream = e ? e->driver->stream_driver : nullptr;
                const bool stopping = stream && stream->scan_state() == IStream_driver::STOPPING;
                if (e && (made->pumping || stopping) && e->sim->buffers_in(vqxsim::Buffer_state::armed) > 0)
                    e->sim->step(1, 5);
                else
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
        made->pump.detach();
        std::atexit([] {  // each driver is taken down as the process's own is
            for (Engine& e : fuzz().engines)
                delete (the_scan_driver = e.driver);
            the_scan_driver = fuzz().initial;
        });
        return made;
    }();
    return *f;
}

[[noreturn]] void violated(const std::string& what)
{
    std::fprintf(stderr, "driver_fuzz: invariant violated: %s\n  driver: %s\n", what.c_str(),
                 robust::snapshot().describe().c_str());
    std::abort();
}

class Input {
public:
    Input(const uint8_t* d, size_t n) : data(d), size(n) {}
    bool more() const { return pos < size; }
    uint8_t byte() { return pos < size ? data[pos++] : 0; }
    uint32_t word()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= uint32_t(byte()) << (8 * i);
        return v;
    }
    /// A chooser for Record_calls.h: a value below @p bound, any for 0.
    uint32_t operator()(uint32_t bound) { return bound ? byte() % bound : word(); }

private:
    const uint8_t* data;
    size_t size;
    size_t pos = 0;
};

struct Held {
    void* frame;
    uint64_t epoch;
};

class Run {
public:
    Run(Fuzz& f, Engine& e) : eng(f), sim(*e.sim), ledger(*e.ledger) {}

    void execute(Input& in)
    {
        const auto end = Clock::now() + std::chrono::milliseconds(kInputBoundMs);
        for (unsigned n = 0; n < kMaxOps && in.more() && Clock::now() < end; ++n) {
            step(in);
            const robust::Buffer_census c = robust::snapshot().buffers;
            if (!c.error.empty())
                violated("buffer records: " + c.error);
        }
        finish();
    }

private:
    VQXSI_HANDLE& slot(Input& in) { return slots[in.byte() % kSlots]; }

    void step(Input& in)
    {
        switch (in.byte() % 17) {
        case 0: open(in); break;
        case 1: close(in); break;
        case 2: start(in); break;
        case 3: stop(in); break;
        case 4: frame(in); break;
        case 5: get_new_scan(in); break;
        case 6: give_back(in); break;
        case 7: bad_unlock(in); break;
        case 8: single_frame(in); break;
        case 9: records(in); break;
        case 10: properties(in); break;
        case 11: sleep_timeout(in); break;
        case 12: fault(in); break;
        case 13: wait(in); break;
        case 14: sim.confirm_stop_now(); break;
        case 15: sim.release_held_frames(); break;
        default: late(in); break;
        }
    }

    void open(Input& in)
    {
        VQXSI_HANDLE& h = slot(in);
        if (h)
            return;
        h = VQXSI_OpenSessionWithScanEngine();
        if (!h)
            violated("VQXSI_OpenSessionWithScanEngine failed");
    }

    void close(Input& in)
    {
        VQXSI_HANDLE& h = slot(in);
        ++epoch;  // takes the session's frames back
        VQXSI_CloseSessionWithScanEngine(h);
        h = nullptr;
    }

    void start(Input& in)
    {
        VQXSI_HANDLE h = slot(in);
        if (!h)
            return;
        ++epoch;  // a failed start undoes itself with a stop
        VQXSI_StartScanning(h);
    }

    void stop(Input& in)
    {
        VQXSI_HANDLE h = slot(in);
        if (!h)
            return;
        const unsigned before = reinterpret_cast<Scan_session*>(h)->Get_scan_count();
        ++epoch;
        const VQXSI_BOOL r = VQXSI_StopScanning(h);
        if ((before != 0) != (r == 1))
            violated("VQXSI_StopScanning result does not match the session's starts");
    }

    void frame(Input& in)
    {
        const unsigned n = 1 + in.byte() % 3;
        for (unsigned i = 0; i < n && sim.buffers_in(vqxsim::Buffer_state::armed) > 0; ++i)
            sim.step(1, 50);
    }

    // Calls VQXSI_GetNewScan only when it returns at once (see the header).
    void get_new_scan(Input& in)
    {
        VQXSI_HANDLE h = slot(in);
        if (!h)
            return;
        Scan_driver& d = *the_scan_driver;
        void* frame = nullptr;
        {
            auto lock = static_cast<Sensor volatile*>(d.sensor)->get_lock();
            const bool scanning = reinterpret_cast<Scan_session*>(h)->Get_scan_count() != 0;
            const bool at_once = !scanning || d.available_buffer->buffer_available() ||
                                 d.stream_driver->stalled() || d.buffer_locker->circulating_buffers() == 0;
            if (!at_once)
                return;
            frame = VQXSI_GetNewScan(h);
        }
        if (!frame)
            return;
        if (!ledger.mark_handed(frame))
            violated("hand-out: " + ledger.first_error());
        held.push_back({frame, epoch});
    }

    void give_back(Input& in)
    {
        if (held.empty())
            return;
        const size_t i = in.byte() % held.size();
        const Held item = held[i];
        held.erase(held.begin() + long(i));
        VQXSI_HANDLE h = slot(in);
        if (!h)
            return;
        const VQXSI_BOOL r = VQXSI_UnlockBuffer(h, item.frame);
        if (item.epoch == epoch && r != 1)
            violated("VQXSI_UnlockBuffer refused a frame the client surely held");
        ++epoch;  // an unlock of a reclaimed frame may take another's
    }

    void bad_unlock(Input& in)
    {
        VQXSI_HANDLE h = slot(in);
        if (!h)
            return;
        int local = 0;
        const unsigned what = in.byte() % 4;
        void* p = nullptr;
        std::vector<unsigned char*> buffers = sim.buffer_images();
        if (what == 0)
            p = &local;
        else if (what == 1 && !buffers.empty())
            p = buffers[in.byte() % buffers.size()] + 1 + in.byte();  // inside a buffer
        if (what <= 1) {
            if (VQXSI_UnlockBuffer(h, p) != 0)
                violated("VQXSI_UnlockBuffer accepted an address that is no frame");
            return;
        }
        if (buffers.empty())
            return;
        ++epoch;  // may take a held frame back
        VQXSI_UnlockBuffer(h, buffers[in.byte() % buffers.size()]);
    }

    void single_frame(Input& in)
    {
        VQXSI_HANDLE h = slot(in);
        // The call waits for its frame: only where one can come. The stop
        // that the frame triggers is confirmed only once the call returned:
        // a stop completed before the client took the frame discards it
        // with the stream (known defect) and the call would wait 30 s.
        const vqxsim::Faults before = sim.faults();
        if (!h || before.hold_frames || before.start_fail || before.never_confirm_stop)
            return;
        if (robust::snapshot().scanning_count != 0)
            return;
        ++epoch;
        sim.update_faults([](vqxsim::Faults& f) { f.defer_stop_ms = 3600 * 1000; });
        eng.pumping = true;
        const auto t0 = Clock::now();
        void* frame = VQXSI_GetSingleFrame(h);
        eng.pumping = false;
        sim.confirm_stop_now();
        sim.update_faults([&before](vqxsim::Faults& f) { f.defer_stop_ms = before.defer_stop_ms; });
        if (Clock::now() - t0 > std::chrono::seconds(10))
            violated("VQXSI_GetSingleFrame waited more than 10 s for a stream that delivers frames");
        if (!frame)
            return;
        if (!ledger.mark_handed(frame))
            violated("single frame hand-out: " + ledger.first_error());
        held.push_back({frame, epoch});
    }

    // Lights, exposure settings and mode (see Record_calls.h).
    void records(Input& in)
    {
        VQXSI_HANDLE h = slot(in);
        const std::string e = !h ? "" : in.byte() % 2 ? record_calls::lights(h, in) : record_calls::exposure(h, in, true);
        if (!e.empty())
            violated(e);
    }

    void properties(Input& in)
    {
        VQXSI_HANDLE h = slot(in);
        if (!h)
            return;
        unsigned char raw[520];
        const uint32_t size = (uint32_t(in.byte()) << 1) % sizeof raw;
        if (VQXSI_GetScanEnginePropertiesEx(h, reinterpret_cast<VQX_SCANENGINE_PROPERTIES_EX*>(raw), size) != 1)
            violated("VQXSI_GetScanEnginePropertiesEx failed");
        char revision[8];
        if (VQXSI_GetScanDriverRevision(h, revision) != 1 || std::strcmp(revision, "2.138") != 0)
            violated("VQXSI_GetScanDriverRevision");
    }

    void sleep_timeout(Input& in)
    {
        if (!eng.fault("sleep"))
            return;
        VQXSI_HANDLE h = slot(in);
        const std::string e = record_calls::sleep_timeout(h, in);
        if (!e.empty())
            violated(e);
    }

    void fault(Input& in)
    {
        using vqxsim::Faults;
        const vqxsim::Trigger p = vqxsim::Trigger::with_probability((in.byte() % 5) * 0.25);
        const unsigned kind = in.byte() % 13;
        static const char* const names[] = {"drop",  "duplicate", "zero",  "unknown", "regfail",
                                            "stall", "defer",     "never", "",        "startfail",
                                            "readfail", "hang",   "cmderror"};
        if (*names[kind] && !eng.fault(names[kind]))
            return;
        const int defer_ms = kind == 6 ? in.byte() % 20 : 0;
        sim.update_faults([&](Faults& f) {
            switch (kind) {
            case 0: f.drop = p; break;
            case 1: f.duplicate = p; break;
            case 2: f.zero_handle = p; break;
            case 3: f.unknown_handle = p; break;
            case 4: f.regfail_write = p; break;
            case 5: f.hold_frames = !f.hold_frames; break;
            case 6: f.defer_stop_ms = defer_ms; f.never_confirm_stop = false; break;
            case 7: f.never_confirm_stop = true; break;
            case 8: f.defer_stop_ms = -1; f.never_confirm_stop = false; break;
            case 9: f.start_fail = !f.start_fail; break;
            case 10: f.regfail_read = p; break;
            case 11: f.command_hang = p; break;
            default: f.command_error = p; break;
            }
        });
    }

    void wait(Input& in)
    {
        const unsigned ms = in.byte() % 20;
        if (waited + ms > kWaitBudgetMs)
            return;
        waited += ms;
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }

    // Once an input, while frames are held back and a scan runs: longer
    // than the late-vsync watch (200 ms) and the stall times (100-300 ms).
    void late(Input& in)
    {
        const unsigned ms = 200 + in.byte() % 8 * 25;
        if (waited_late || !eng.fault("late") || !sim.faults().hold_frames || robust::snapshot().scanning_count == 0)
            return;
        waited_late = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }

    void finish()
    {
        sim.update_faults([](vqxsim::Faults& f) {
            f = vqxsim::Faults{};
            f.defer_stop_ms = 1;
        });
        sim.release_held_frames();
        sim.confirm_stop_now(true);
        for (const Held& item : held)
            for (VQXSI_HANDLE h : slots)
                if (h) {
                    VQXSI_UnlockBuffer(h, item.frame);
                    break;
                }
        held.clear();
        eng.pumping = true;  // captures still armed complete the stops
        for (VQXSI_HANDLE& h : slots) {
            VQXSI_CloseSessionWithScanEngine(h);
            h = nullptr;
        }
        VQXSI_SetSleepTimeout(nullptr, 0);
        const auto deadline = Clock::now() + std::chrono::milliseconds(kEndBoundMs);
        std::string problem;
        for (;;) {
            sim.confirm_stop_now(true);
            problem = robust::check_all_closed(robust::snapshot());
            const unsigned out = ledger.buffers_out();
            if (problem.empty() && out != 0)
                problem = std::to_string(out) + " buffers armed or filled, not back with the hardware layer";
            if (problem.empty() && sim.stop_pending())
                problem = "a stop confirmation still to come";
            if (problem.empty() || Clock::now() > deadline)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        eng.pumping = false;
        if (!problem.empty())
            violated("after the last close: " + problem);
        if (!ledger.all_returned())
            violated("a delivered frame never went back to the hardware layer");
        if (ledger.errors() != 0)
            violated("hand-out: " + ledger.first_error());
    }

    Fuzz& eng;
    vqxsim::Simulator& sim;
    Frame_ledger& ledger;
    VQXSI_HANDLE slots[kSlots] = {};
    std::vector<Held> held;
    uint64_t epoch = 0;
    unsigned waited = 0;
    bool waited_late = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Fuzz& f = fuzz();
    Input in(data, size);
    const unsigned pick = in.byte() % kEngines;
    if (!listed(std::getenv("VQX_FUZZ_ENGINES"), kEngineTypes[pick].type))
        return 0;
    Engine& e = f.engine(pick);
    the_scan_driver = e.driver;
    f.current = &e;
    {
        Run run(f, e);
        run.execute(in);
    }
    f.current = nullptr;
    return 0;
}
