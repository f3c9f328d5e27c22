// Shared helpers of the driver benchmarks: CPU pinning, the extra thread
// every benchmark process starts before timing anything, the process CPU
// clock, and a driver running on a Bench_hwl.
//
// The C library's locks take a slower path once a process has more than one
// thread, and the driver always has several (timer, hardware callbacks), so
// every benchmark program starts an idle thread before the first timed loop:
// the bare baselines pay the same lock costs as the driver.
#ifndef VQX_BENCH_SUPPORT_H
#define VQX_BENCH_SUPPORT_H

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <time.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>

#include <VQXScanInterface.h>

#include "Bench_hwl.h"
#include "Simulator.h"

namespace bench {

/// Pins the calling thread to @p cpu (-1: any CPU). False if not possible.
inline bool pin_to(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu < 0) {
        for (int i = 0; i < CPU_SETSIZE; ++i)
            CPU_SET(i, &set);
    } else {
        CPU_SET(cpu, &set);
    }
    return pthread_setaffinity_np(pthread_self(), sizeof set, &set) == 0;
}

/// Number of CPUs this process may run on.
inline int usable_cpus()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0)
        return 1;
    return CPU_COUNT(&set);
}

/// Starts, once, an idle thread that lives until the process exits.
inline void start_idle_thread()
{
    static std::once_flag once;
    std::call_once(once, [] {
        std::thread([] {
            std::mutex m;
            std::condition_variable cv;
            std::unique_lock<std::mutex> lock(m);
            cv.wait(lock, [] { return false; });
        }).detach();
    });
}

/// CPU time of the whole process, in seconds.
inline double process_cpu_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

/// Context switches of the whole process so far (all threads, voluntary and
/// involuntary): a thread hand-off costs one switch each way, so switches
/// per frame show how many times a frame puts a thread to sleep.
inline double process_context_switches()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_nvcsw) + double(usage.ru_nivcsw);
}

/// The fake hardware layer every driver benchmark of the process runs on
/// (the driver keeps the first one it finds). Installed on first use.
inline Bench_hwl& the_hwl(unsigned width = 1280, unsigned height = 800)
{
    static Bench_hwl* hwl = [width, height] {
        auto* made = new Bench_hwl(width, height, 4, 0);  // kept: the driver holds it until exit
        vqxsim::set_instance_for_InitHWLayer(made);
        return made;
    }();
    return *hwl;
}

/// Opens a session on the fake engine or stops the program.
inline VQXSI_HANDLE open_session()
{
    the_hwl();
    VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
    if (!h) {
        std::fprintf(stderr, "benchmark: the driver did not start on the fake engine\n");
        std::exit(2);
    }
    return h;
}

/// The body of every driver benchmark program's main: the idle thread, then
/// Google Benchmark with the command line. Returns the exit status.
inline int run_benchmarks(int argc, char** argv)
{
    start_idle_thread();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace bench

#endif
