// Register_burst: writes register tables as runs of consecutive registers.
//
// Every engine trait that loads a table of 16-bit sensor registers writes it
// through one Register_burst: entries are queued in table order, and each
// run of consecutive registers (every register two above the previous one)
// goes to the hardware layer as a single WriteReg(first register, values,
// 2 x count). A run also ends after max_run registers, where the buffer is
// full. A register that does not extend the run writes the run so far
// first; flush() writes what is left.
//
// A failed write stops the walk: add() and flush() return false, the values
// of the failed run are dropped, and failed_register()/failed_count() name
// the run (its first register and length) for the trait's report.
//
// One object per table walk, on the stack of the trait's power-up; no
// locking of its own, no allocation.
#ifndef VQX_REGISTER_BURST_H
#define VQX_REGISTER_BURST_H

#include <cstddef>
#include <cstdint>

#include "IHwl.h"

/// One (register, value) row of a register table.
struct Register_pair {
    uint16_t address;
    uint16_t value;
};

class Register_burst {
public:
    /// Longest run written with one WriteReg.
    static constexpr size_t max_run = 128;

    explicit Register_burst(IHwl& hwl) : hwl(hwl) {}
    Register_burst(const Register_burst&) = delete;
    Register_burst& operator=(const Register_burst&) = delete;

    /// Queues @p value for @p address; writes the queued run first when
    /// @p address does not extend it. False when a write failed.
    bool add(uint32_t address, uint16_t value);
    /// Writes the queued run, if any. False when the write failed.
    bool flush();

    /// Queues a whole table and writes it out. False on the first failure.
    bool write(const Register_pair* table, size_t count);

    uint32_t failed_register() const { return failed_first; }
    size_t failed_count() const { return failed_length; }

private:
    IHwl& hwl;
    uint16_t values[max_run];
    size_t count = 0;
    uint32_t first = 0;
    uint32_t failed_first = 0;
    size_t failed_length = 0;
};

#endif // VQX_REGISTER_BURST_H
