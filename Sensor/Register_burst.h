// Register_burst: writes register tables as runs of consecutive registers.
//
// Every engine trait that loads a register table writes it through one
// Register_burst: entries are queued in table order, and each run of
// consecutive registers goes to the hardware layer as a single
// WriteReg(first register, values, length). The engine's register layout
// says what consecutive means and how a length counts:
//   - sixteen_bit (AR0144, MT9M114): 16-bit registers at even addresses,
//     each two above the previous; the length counts bytes (2 x values);
//     runs of up to 128 registers;
//   - one_by_one (MT9V022, Hi704A): every register in a transfer of its own
//     with length 1 (their hardware layers count registers; their tables
//     write some registers twice, and in an order that matters).
// A run also ends where the buffer is full. A register that does not
// extend the run writes the run so far first; flush() writes what is left.
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

/// How an engine's registers are addressed and counted in a transfer.
struct Register_layout {
    unsigned stride;   ///< address step between consecutive registers
    bool counts_bytes; ///< transfer lengths count bytes (else registers)
    size_t max_run;    ///< most registers in one WriteReg
};

/// The value the last row for @p address in @p table gives it (0 if none):
/// what a register holds once the table is written.
inline uint16_t table_value(const Register_pair* table, size_t count, uint16_t address)
{
    uint16_t value = 0;
    for (size_t i = 0; i < count; ++i)
        if (table[i].address == address)
            value = table[i].value;
    return value;
}

class Register_burst {
public:
    /// Longest run any layout may ask for.
    static constexpr size_t max_run = 128;
    static constexpr Register_layout sixteen_bit{2, true, max_run};
    static constexpr Register_layout one_by_one{1, false, 1};

    explicit Register_burst(IHwl& hwl, const Register_layout& layout = sixteen_bit)
        : hwl(hwl), layout(layout) {}
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
    const Register_layout layout;
    uint16_t values[max_run];
    size_t count = 0;
    uint32_t first = 0;
    uint32_t failed_first = 0;
    size_t failed_length = 0;
};

#endif // VQX_REGISTER_BURST_H
