// history_queue<T>: fixed-size history of per-frame values.
//
// The engine traits record the exposure rows and gain they programmed in the
// newest slot and advance the queue once per frame, so that element i holds
// the value programmed i frames ago (0 = newest, size() - 1 = oldest); the
// frame that arrives now was taken with an older element. advance() starts
// the new newest slot as a copy of the previous newest one, so a queue that
// is advanced without writes keeps repeating the last value written.
//
// Element i is data[(head + i) mod size], the sum reduced by one subtraction.
// An index below 0 reports "idx >= 0" and is still added (wrapping). A sum
// that the one subtraction does not bring into the ring (head + idx of twice
// the size or more, a wrapped negative index, any index when size is 0)
// reports "s_idx < size" and yields a spare element kept past the ring, so
// such an index never touches the history. advance() on a queue of
// size 0 does nothing.
//
// Owned by its trait; used under the sensor's monitor. Not copyable.
#ifndef VQX_LIB_HISTORY_QUEUE_H
#define VQX_LIB_HISTORY_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Diagnostics.h"

template <class T>
class history_queue {
public:
    /// A ring of @p size value-initialised elements.
    explicit history_queue(size_t size) : size_(size), data(new T[size + 1]()) {}
    history_queue(const history_queue&) = delete;
    history_queue& operator=(const history_queue&) = delete;

    /// Element @p idx, 0 = newest.
    T& at(int idx) { return data[slot(idx)]; }
    const T& at(int idx) const { return data[slot(idx)]; }

    /// The newest element; assign to it to record this frame's value.
    T& newest() { return at(0); }
    const T& newest() const { return at(0); }

    /// Moves to a new newest slot that starts as a copy of the previous one;
    /// the oldest element is dropped.
    void advance()
    {
        if (size_ == 0)
            return;
        const uint64_t new_head = (head == 0 ? size_ : head) - 1;
        data[new_head] = data[head];
        head = new_head;
    }

    size_t size() const { return size_; }

private:
    uint64_t slot(int idx) const
    {
        SD_ASSERT(idx >= 0, "idx >= 0", "jni/../../lib/include/history_queue", 50);
        uint64_t s_idx = head + static_cast<uint64_t>(static_cast<int64_t>(idx));
        if (s_idx >= size_)
            s_idx -= size_;
        if (s_idx < size_)
            return s_idx;
        sd_assert_function("s_idx < size", "jni/../../lib/include/history_queue", 52);
        return size_;
    }

    uint64_t head = 0;
    size_t size_;
    std::unique_ptr<T[]> data; ///< size_ ring slots, then the spare element
};

#endif // VQX_LIB_HISTORY_QUEUE_H
