// Frames per second through the whole driver: vsync, pixel sampling, the
// exposure update, the hand-off to a client waiting in VQXSI_GetNewScan and
// VQXSI_UnlockBuffer, which arms the next capture. The hardware layer
// (Bench_hwl) delivers every armed buffer at once from its own thread, so the
// driver is the only limit. Reported per frame: CPU time of the whole
// process (all threads) and heap allocations in steady state.
//
// The engine geometry is fixed when the driver starts, so one process runs
// one resolution: VQX_BENCH_RESOLUTION=WIDTHxHEIGHT (default 1280x800, the
// AR0144 engine); bench/run_benchmarks.sh runs each resolution in turn.
//
// Allocations are counted by interposing the C library's allocator (every
// C++ allocation goes through malloc): each call that allocates (malloc,
// calloc, realloc, the aligned forms) counts one, in any thread.
#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include <atomic>

#include "Bench_support.h"

// ---------------------------------------------------------------------------
// Allocation counter
// ---------------------------------------------------------------------------

namespace {
std::atomic<unsigned long> allocations{0};
inline void count_one() { allocations.fetch_add(1, std::memory_order_relaxed); }
} // namespace

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void __libc_free(void* p);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size)
{
    count_one();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size)
{
    count_one();
    return __libc_calloc(count, size);
}
void* realloc(void* p, size_t size)
{
    count_one();
    return __libc_realloc(p, size);
}
void free(void* p) { __libc_free(p); }
void* memalign(size_t alignment, size_t size)
{
    count_one();
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size)
{
    count_one();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size)
{
    count_one();
    void* p = __libc_memalign(alignment, size);
    if (!p)
        return ENOMEM;
    *out = p;
    return 0;
}
} // extern "C"

namespace {

unsigned width = 1280, height = 800;

// Argument paced: 1 delivers a frame only once the client took the previous
// one (the bare pipeline's structure: one frame in flight, every frame
// reaches the client); 0 delivers into every armed buffer at once.
void BM_Throughput_Driver(benchmark::State& state)
{
    const bool paced = state.range(0) != 0;
    bench::Bench_hwl& hwl = bench::the_hwl(width, height);
    VQXSI_HANDLE h = bench::open_session();
    VQXSI_StartScanning(h);
    hwl.start_pump(paced);
    // Warm up: the first frames run the exposure start-up.
    for (int i = 0; i < 200; ++i)
        if (void* frame = VQXSI_GetNewScan(h)) {
            hwl.frame_taken();
            VQXSI_UnlockBuffer(h, frame);
        }
    const unsigned long allocs0 = allocations.load();
    const double cpu0 = bench::process_cpu_seconds();
    const double switches0 = bench::process_context_switches();
    const uint64_t delivered0 = hwl.frames_delivered();
    uint64_t lost = 0;
    for (auto _ : state) {
        void* frame = VQXSI_GetNewScan(h);
        if (!frame) {
            ++lost;
            continue;
        }
        if (paced)
            hwl.frame_taken();
        VQXSI_UnlockBuffer(h, frame);
    }
    const double cpu = bench::process_cpu_seconds() - cpu0;
    const double switches = bench::process_context_switches() - switches0;
    const double delivered = double(hwl.frames_delivered() - delivered0);
    const unsigned long allocs = allocations.load() - allocs0;
    hwl.stop_pump();
    VQXSI_StopScanning(h);
    VQXSI_CloseSessionWithScanEngine(h);
    const double frames = double(state.iterations());
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.counters["cpu_us_per_frame"] = cpu * 1e6 / frames;
    state.counters["allocs_per_frame"] = double(allocs) / frames;
    state.counters["switches_per_frame"] = switches / frames;
    state.counters["lost"] = double(lost);
    // The hardware layer delivers a frame whenever a buffer is armed; the
    // driver keeps one armed while the client works, so a frame waiting for
    // the client is replaced by a newer one (the client always gets the
    // newest). Each of those frames is sampled and bookkept too.
    state.counters["sensor_frames_per_frame"] = delivered / frames;
    state.counters["cpu_us_per_sensor_frame"] = delivered > 0 ? cpu * 1e6 / delivered : 0;
    state.SetLabel(std::to_string(width) + "x" + std::to_string(height));
}
BENCHMARK(BM_Throughput_Driver)->ArgName("paced")->Arg(1)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);

// The bare pipeline with the driver benchmark's thread structure: a producer
// thread (the hardware layer's) "fills" each of 4 buffers the moment it comes
// back and hands it over; the consumer (the client) takes it and gives it
// back, both through one mutex and two condition variables. No sampling, no
// bookkeeping: what any hand-off of 4 buffers between two threads costs.
// Paced, the producer hands the next buffer over only once the consumer
// took the previous one, as the paced hardware layer does: one frame in
// flight, so each side waits for the other once a frame.
class Bare_pipeline {
public:
    explicit Bare_pipeline(bool paced_) : paced(paced_)
    {
        for (int i = 0; i < kBuffers; ++i)
            free_ring[i] = i;
        n_free = kBuffers;
        producer = std::thread([this] { produce(); });
    }
    ~Bare_pipeline()
    {
        {
            std::lock_guard<std::mutex> hold(mutex);
            quit = true;
        }
        free_cv.notify_all();
        producer.join();
    }
    /// Takes the next filled buffer (waits for it).
    int take()
    {
        std::unique_lock<std::mutex> lock(mutex);
        ready_cv.wait(lock, [this] { return n_ready != 0; });
        const int b = ready_ring[ready_first];
        ready_first = (ready_first + 1) % kBuffers;
        --n_ready;
        if (paced) {
            lock.unlock();
            free_cv.notify_one();  // taken: the producer may hand over the next
        }
        return b;
    }
    /// Gives a buffer back to the producer.
    void give_back(int b)
    {
        {
            std::lock_guard<std::mutex> hold(mutex);
            free_ring[(free_first + n_free) % kBuffers] = b;
            ++n_free;
        }
        free_cv.notify_one();
    }

private:
    static constexpr int kBuffers = 4;
    const bool paced;
    void produce()
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            free_cv.wait(lock, [this] { return quit || (n_free != 0 && (!paced || n_ready == 0)); });
            if (quit)
                return;
            const int b = free_ring[free_first];
            free_first = (free_first + 1) % kBuffers;
            --n_free;
            ready_ring[(ready_first + n_ready) % kBuffers] = b;
            ++n_ready;
            lock.unlock();
            ready_cv.notify_one();
            lock.lock();
        }
    }
    std::mutex mutex;
    std::condition_variable free_cv, ready_cv;
    int free_ring[kBuffers] = {}, ready_ring[kBuffers] = {};
    int free_first = 0, n_free = 0, ready_first = 0, n_ready = 0;
    bool quit = false;
    std::thread producer;
};

void BM_Throughput_Bare(benchmark::State& state)
{
    Bare_pipeline pipeline(state.range(0) != 0);
    const unsigned long allocs0 = allocations.load();
    const double cpu0 = bench::process_cpu_seconds();
    const double switches0 = bench::process_context_switches();
    for (auto _ : state)
        pipeline.give_back(pipeline.take());
    const double cpu = bench::process_cpu_seconds() - cpu0;
    const double switches = bench::process_context_switches() - switches0;
    const unsigned long allocs = allocations.load() - allocs0;
    const double frames = double(state.iterations());
    state.SetItemsProcessed(int64_t(state.iterations()));
    // The same counters as the driver's run: the CSV report needs every
    // run of a program to carry the same set.
    state.counters["cpu_us_per_frame"] = cpu * 1e6 / frames;
    state.counters["allocs_per_frame"] = double(allocs) / frames;
    state.counters["switches_per_frame"] = switches / frames;
    state.counters["lost"] = 0;
    state.counters["sensor_frames_per_frame"] = 1;
    state.counters["cpu_us_per_sensor_frame"] = cpu * 1e6 / frames;
    state.SetLabel(std::to_string(width) + "x" + std::to_string(height));
}
BENCHMARK(BM_Throughput_Bare)->ArgName("paced")->Arg(1)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    if (const char* r = std::getenv("VQX_BENCH_RESOLUTION")) {
        if (std::sscanf(r, "%ux%u", &width, &height) != 2 || width < 16 || height < 16) {
            std::fprintf(stderr, "throughput_bench: bad VQX_BENCH_RESOLUTION '%s' (WIDTHxHEIGHT)\n", r);
            return 2;
        }
    }
    return bench::run_benchmarks(argc, argv);
}
