// Storage of alarm bodies: a bounded free list of fixed-size blocks.
//
// The stream driver sets an alarm for every frame (the stall alarm, and the
// start-of-frame poll in capture modes 1 to 3), so alarm bodies are made and
// freed at frame rate, on the frame path. A body of at most kBlockSize bytes
// (every alarm the driver sets) lives in a block that goes back on a free
// list when the body is deleted, so a streaming scan stops allocating once
// the list holds as many blocks as alarms are alive at once. The list keeps
// at most kMaxFree blocks and returns the rest to the C++ heap; a larger
// body (an alarm whose argument is large) uses the heap directly.
//
// Threading: bodies of different monitors are made and freed concurrently,
// each under its own monitor, so the list has a mutex of its own, held only
// to push or pop one block. The mutex is constant-initialised, so bodies may
// be made from static constructors. Blocks on the list at exit stay
// reachable from it.
#include <mutex>
#include <new>

#include "monitor.h"

namespace internal {
namespace {

constexpr size_t kBlockSize = 192;
constexpr size_t kMaxFree = 32;

struct Free_block {
    Free_block* next;
};

std::mutex pool_mutex;
Free_block* free_list = nullptr;
size_t free_count = 0;

} // namespace

void* Alarm_body::operator new(size_t size)
{
    if (size > kBlockSize)
        return ::operator new(size);
    {
        std::lock_guard<std::mutex> hold(pool_mutex);
        if (Free_block* block = free_list) {
            free_list = block->next;
            --free_count;
            return block;
        }
    }
    return ::operator new(kBlockSize);
}

void Alarm_body::operator delete(void* p, size_t size) noexcept
{
    if (p == nullptr)
        return;
    if (size <= kBlockSize) {
        std::lock_guard<std::mutex> hold(pool_mutex);
        if (free_count < kMaxFree) {
            Free_block* block = new (p) Free_block{free_list};
            free_list = block;
            ++free_count;
            return;
        }
    }
    ::operator delete(p);
}

} // namespace internal
