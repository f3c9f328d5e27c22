// The driver's frame path against bare baselines, in one program and one
// run (repetitions interleaved at random by bench/run_benchmarks.sh):
//
//  - RoundTrip: one frame from the hardware layer's vsync callback to a
//    client blocked in VQXSI_GetNewScan, which gives it back with
//    VQXSI_UnlockBuffer and tells the hardware thread (the benchmark
//    thread), which waits for that and for an armed capture before the next
//    vsync.
//    The baseline makes the same two cross-thread hand-offs per frame with
//    a bare pthread mutex and two condition variables. Argument: 1 pins the
//    two threads to CPUs 0 and 1, 0 leaves them to the scheduler.
//  - WaitingFrame: VQXSI_GetNewScan plus VQXSI_UnlockBuffer when the frame
//    is already in the hand-off (no wake-up), timed alone; the baseline
//    takes a waiting slot under a pthread mutex and gives it back.
//  - StartLatency: VQXSI_StartScanning until the first frame is in the
//    client's hands, with a hardware layer that fills every armed buffer at
//    once; sensor settle times (46 ms per power-up of the AR0144: 20 + 2 ms
//    table waits and 24 ms settle) are subtracted.
//
// The hardware layer is Bench_hwl: frames cost nothing but the driver.
#include <benchmark/benchmark.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "Bench_support.h"

namespace {

using Clock = std::chrono::steady_clock;

// Every benchmark of the program reports the same counters (the CSV report
// needs one set of columns).
void report(benchmark::State& state, double lost, double raw_us, double settle_us)
{
    state.counters["lost"] = lost;
    state.counters["raw_us"] = raw_us;
    state.counters["settle_us"] = settle_us;
}

constexpr double kSettleSecondsPerPowerUp = (20 + 2 + 24) / 1000.0;

// ---------------------------------------------------------------------------
// Round trip through the driver
// ---------------------------------------------------------------------------

void BM_RoundTrip_Driver(benchmark::State& state)
{
    const bool pinned = state.range(0) != 0;
    if (pinned && bench::usable_cpus() < 2) {
        state.SkipWithError("needs two CPUs");
        report(state, 0, 0, 0);
        return;
    }
    bench::Bench_hwl& hwl = bench::the_hwl();
    VQXSI_HANDLE h = bench::open_session();
    VQXSI_StartScanning(h);
    std::atomic<bool> done{false};
    std::atomic<uint64_t> lost{0};
    std::thread client([&] {
        if (pinned)
            bench::pin_to(1);
        while (!done) {
            void* frame = VQXSI_GetNewScan(h);
            if (!frame) {
                ++lost;
                continue;
            }
            VQXSI_UnlockBuffer(h, frame);
            hwl.frame_taken();  // given back
        }
    });
    if (pinned)
        bench::pin_to(0);
    int handle = hwl.next_armed();
    hwl.reset_taken();
    for (auto _ : state) {
        hwl.deliver(handle);
        // The driver arms the next capture at once (capture mode 0): wait
        // for the client to give the frame back first, as the bare
        // hardware thread does.
        while (!hwl.wait_taken(2000) && !done) {
        }
        handle = hwl.next_armed();
        if (!handle) {
            state.SkipWithError("the driver armed no capture");
            break;
        }
    }
    done = true;
    if (handle)
        hwl.deliver(handle);  // releases the client's last wait
    client.join();
    bench::pin_to(-1);
    VQXSI_StopScanning(h);
    VQXSI_CloseSessionWithScanEngine(h);
    report(state, double(lost.load()), 0, 0);
}
BENCHMARK(BM_RoundTrip_Driver)->ArgName("pinned")->Arg(0)->Arg(1)->UseRealTime();

// ---------------------------------------------------------------------------
// The same round trip, bare
// ---------------------------------------------------------------------------

struct Bare_channel {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t to_client = PTHREAD_COND_INITIALIZER;
    pthread_cond_t to_hardware = PTHREAD_COND_INITIALIZER;
    bool frame = false;
    bool freed = false;
    bool done = false;
};

void BM_RoundTrip_Bare(benchmark::State& state)
{
    const bool pinned = state.range(0) != 0;
    if (pinned && bench::usable_cpus() < 2) {
        state.SkipWithError("needs two CPUs");
        report(state, 0, 0, 0);
        return;
    }
    Bare_channel c;
    std::thread client([&c, pinned] {
        if (pinned)
            bench::pin_to(1);
        pthread_mutex_lock(&c.mutex);
        for (;;) {
            while (!c.frame && !c.done)
                pthread_cond_wait(&c.to_client, &c.mutex);
            if (c.done)
                break;
            c.frame = false;  // the client has the frame ...
            c.freed = true;   // ... and gives it back
            pthread_cond_signal(&c.to_hardware);
        }
        pthread_mutex_unlock(&c.mutex);
    });
    if (pinned)
        bench::pin_to(0);
    for (auto _ : state) {
        pthread_mutex_lock(&c.mutex);
        c.frame = true;
        pthread_cond_signal(&c.to_client);
        while (!c.freed)
            pthread_cond_wait(&c.to_hardware, &c.mutex);
        c.freed = false;
        pthread_mutex_unlock(&c.mutex);
    }
    pthread_mutex_lock(&c.mutex);
    c.done = true;
    pthread_cond_signal(&c.to_client);
    pthread_mutex_unlock(&c.mutex);
    client.join();
    bench::pin_to(-1);
    report(state, 0, 0, 0);
}
BENCHMARK(BM_RoundTrip_Bare)->ArgName("pinned")->Arg(0)->Arg(1)->UseRealTime();

// ---------------------------------------------------------------------------
// The API path with a frame already waiting
// ---------------------------------------------------------------------------

void BM_WaitingFrame_Driver(benchmark::State& state)
{
    bench::Bench_hwl& hwl = bench::the_hwl();
    VQXSI_HANDLE h = bench::open_session();
    VQXSI_StartScanning(h);
    int handle = hwl.next_armed();
    for (auto _ : state) {
        hwl.deliver(handle);  // the frame waits in the hand-off
        const auto t0 = Clock::now();
        void* frame = VQXSI_GetNewScan(h);
        VQXSI_UnlockBuffer(h, frame);
        const auto t1 = Clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        if (!frame) {
            state.SkipWithError("no frame was waiting");
            break;
        }
        handle = hwl.next_armed();
        if (!handle) {
            state.SkipWithError("the driver armed no capture");
            break;
        }
    }
    VQXSI_StopScanning(h);
    VQXSI_CloseSessionWithScanEngine(h);
    report(state, 0, 0, 0);
}
BENCHMARK(BM_WaitingFrame_Driver)->UseManualTime()->Unit(benchmark::kNanosecond);

// The same take and give-back, bare: the frame waits in a slot under a
// pthread mutex; taking it and giving it back (which signals the producer's
// condition variable) is what any hand-off must at least do. Timed the same
// way, clock reads included.
void BM_WaitingFrame_Bare(benchmark::State& state)
{
    Bare_channel c;
    int slot = 0;
    for (auto _ : state) {
        pthread_mutex_lock(&c.mutex);
        c.frame = true;  // the frame waits in the hand-off
        slot = 0x2001;
        pthread_mutex_unlock(&c.mutex);
        const auto t0 = Clock::now();
        pthread_mutex_lock(&c.mutex);
        const int frame = c.frame ? slot : 0;
        c.frame = false;
        pthread_mutex_unlock(&c.mutex);
        pthread_mutex_lock(&c.mutex);
        c.freed = frame != 0;
        pthread_cond_signal(&c.to_hardware);
        pthread_mutex_unlock(&c.mutex);
        const auto t1 = Clock::now();
        benchmark::DoNotOptimize(frame);
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
    }
    report(state, 0, 0, 0);
}
BENCHMARK(BM_WaitingFrame_Bare)->UseManualTime()->Unit(benchmark::kNanosecond);

// ---------------------------------------------------------------------------
// Start latency
// ---------------------------------------------------------------------------

void BM_StartLatency_Driver(benchmark::State& state)
{
    bench::Bench_hwl& hwl = bench::the_hwl();
    VQXSI_HANDLE h = bench::open_session();
    hwl.start_pump();
    double settle = 0;
    double raw = 0;
    for (auto _ : state) {
        const unsigned ups = hwl.power_ups();
        const auto t0 = Clock::now();
        VQXSI_StartScanning(h);
        void* frame = VQXSI_GetNewScan(h);
        const auto t1 = Clock::now();
        const double s = (hwl.power_ups() - ups) * kSettleSecondsPerPowerUp;
        const double t = std::chrono::duration<double>(t1 - t0).count();
        settle += s;
        raw += t;
        state.SetIterationTime(t > s ? t - s : 0.0);
        if (!frame) {
            state.SkipWithError("no first frame");
            break;
        }
        VQXSI_UnlockBuffer(h, frame);
        VQXSI_StopScanning(h);
    }
    hwl.stop_pump();
    VQXSI_CloseSessionWithScanEngine(h);
    const double n = state.iterations() ? double(state.iterations()) : 1.0;
    report(state, 0, raw * 1e6 / n, settle * 1e6 / n);
}
BENCHMARK(BM_StartLatency_Driver)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    return bench::run_benchmarks(argc, argv);
}
