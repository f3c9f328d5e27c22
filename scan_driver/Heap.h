// Heap: a binary min-heap on a growable array, used by the timer thread to
// keep its alarms ordered by due time.
//
//  - LESS::x(a, b) is the strict order ("a comes strictly before b").
//  - SWAPPER::swap(ary, n1, n2) exchanges two elements and keeps whatever
//    position bookkeeping the elements carry (the alarm bodies record their
//    own index).
//
// Tie rules: sifting up moves an element past an equal parent (the element
// being sifted wins the tie); sifting down stops at an equal child.
//
// Growth: when an append needs more room the capacity becomes 1 if it was 0,
// else it doubles until it fits; the elements are copied into the new array
// and the old one is released.
//
// An index out of range is a broken heap: it is reported ("n < size()") and
// the process is stopped on purpose, since nothing sensible can follow.
//
// Threading: none of its own; the owner guards it (the timer's monitor).
#ifndef VQX_HEAP_H
#define VQX_HEAP_H

#include <cstddef>

#include "Diagnostics.h"
#include "monitor.h"

template <class T, class LESS, class SWAPPER>
class Heap {
public:
    Heap() : ary(nullptr), count(0), capacity(0) {}
    ~Heap() { delete[] ary; }
    Heap(const Heap&) = delete;
    Heap& operator=(const Heap&) = delete;

    size_t size() const { return count; }
    size_t get_capacity() const { return capacity; }
    bool empty() const { return count == 0; }

    T& operator[](size_t n)
    {
        check_index(n, 89);
        return ary[n];
    }

    /// Appends @p v at the end (growing if needed); does not sift.
    void append(const T& v)
    {
        if (count + 1 > capacity)
            grow(count + 1);
        ary[count] = v;
        ++count;
    }

    /// Appends @p v and sifts it up.
    void push(const T& v)
    {
        append(v);
        fix_up(count - 1);
    }

    void fix_up(size_t n)
    {
        check_index(n, 233);
        while (n > 0) {
            size_t parent = (n - 1) / 2;
            if (LESS::x(ary[parent], ary[n]))
                return;
            SWAPPER::swap(ary, parent, n);
            n = parent;
        }
    }

    void fix_down(size_t n)
    {
        check_index(n, 83);
        for (;;) {
            size_t l = 2 * n + 1;
            size_t r = 2 * n + 2;
            if (l >= count)
                return;
            size_t child = (r < count && LESS::x(ary[r], ary[l])) ? r : l;
            if (!LESS::x(ary[child], ary[n]))
                return;
            SWAPPER::swap(ary, n, child);
            n = child;
        }
    }

    /// Removes element @p n: the last element takes its place and is sifted.
    void erase(size_t n)
    {
        check_index(n, 183);
        --count;
        if (n != count)
            SWAPPER::swap(ary, n, count);
        ary[count] = T();
        if (n >= count)
            return;
        if (n > 0 && LESS::x(ary[n], ary[(n - 1) / 2]))
            fix_up(n);
        else
            fix_down(n);
    }

private:
    void check_index(size_t n, unsigned line) const
    {
        if (n < count)
            return;
        sd_assert_function("n < size()", VQX_HEAP_LABEL, line);
        sd_fatal();
    }

    void grow(size_t needed)
    {
        size_t cap = capacity == 0 ? 1 : capacity;
        while (cap < needed)
            cap *= 2;
        T* fresh = new T[cap];
        for (size_t i = 0; i < count; ++i)
            fresh[i] = ary[i];
        delete[] ary;
        ary = fresh;
        capacity = cap;
    }

    T* ary;
    size_t count;
    size_t capacity;
};

#endif // VQX_HEAP_H
