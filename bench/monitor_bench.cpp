// Monitor entry and exit against a plain pthread mutex, in one program and
// one run (repetitions interleaved at random by bench/run_benchmarks.sh):
// uncontended, nested (a recursive mutex for the baseline), through the
// Monitor<T> lock holder, and contended by two threads.
#include <benchmark/benchmark.h>

#include <pthread.h>

#include "Bench_support.h"
#include "monitor.h"

namespace {

using Synchroniztion_internal::MT_INFINITE;

struct Counter_object : Monitor<Counter_object> {
    unsigned value = 0;
};

Monitor_base shared_monitor;
pthread_mutex_t shared_mutex = PTHREAD_MUTEX_INITIALIZER;

pthread_mutex_t make_recursive()
{
    pthread_mutex_t m;
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m, &a);
    pthread_mutexattr_destroy(&a);
    return m;
}

void BM_EnterLeave_Monitor(benchmark::State& state)
{
    Monitor_base m;
    for (auto _ : state) {
        m.enter(MT_INFINITE);
        m.leave();
    }
}
BENCHMARK(BM_EnterLeave_Monitor);

void BM_EnterLeave_Pthread(benchmark::State& state)
{
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
    }
    pthread_mutex_destroy(&m);
}
BENCHMARK(BM_EnterLeave_Pthread);

void BM_Nested_Monitor(benchmark::State& state)
{
    Monitor_base m;
    for (auto _ : state) {
        m.enter(MT_INFINITE);
        m.enter(MT_INFINITE);
        m.leave();
        m.leave();
    }
}
BENCHMARK(BM_Nested_Monitor);

void BM_Nested_Pthread(benchmark::State& state)
{
    pthread_mutex_t m = make_recursive();
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
        pthread_mutex_unlock(&m);
    }
    pthread_mutex_destroy(&m);
}
BENCHMARK(BM_Nested_Pthread);

void BM_LockHolder_Monitor(benchmark::State& state)
{
    Counter_object object;
    Counter_object volatile& v = object;
    for (auto _ : state) {
        auto lock = v.get_lock();
        ++lock->value;
    }
    benchmark::DoNotOptimize(object.value);
}
BENCHMARK(BM_LockHolder_Monitor);

void BM_Contended_Monitor(benchmark::State& state)
{
    for (auto _ : state) {
        shared_monitor.enter(MT_INFINITE);
        shared_monitor.leave();
    }
}
BENCHMARK(BM_Contended_Monitor)->Threads(2)->UseRealTime();

void BM_Contended_Pthread(benchmark::State& state)
{
    for (auto _ : state) {
        pthread_mutex_lock(&shared_mutex);
        pthread_mutex_unlock(&shared_mutex);
    }
}
BENCHMARK(BM_Contended_Pthread)->Threads(2)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    return bench::run_benchmarks(argc, argv);
}
