// Register_access: an engine's register map as the trait sees it.
//
// A Register carries its address, the width of its value and, on a paged
// map, its page, so no call site codes transfer lengths. The engine's
// Register_layout says how the hardware layer counts a transfer (bytes, or
// registers) and which registers form a run for table writes; tables go
// through Register_burst.
//
// Sequences accumulate errors in the manner of the kernel's CCI helpers:
// each operation takes an optional error flag; once it is set the
// following operations do nothing and answer false, so a sequence of writes
// is checked once at its end. A Register_sequence also remembers the page it
// selected, so a run of accesses on one page selects it once.
//
// Used under the sensor's monitor; no state between calls, no allocation.
#ifndef VQX_REGISTER_ACCESS_H
#define VQX_REGISTER_ACCESS_H

#include <cstddef>
#include <cstdint>

#include "IHwl.h"
#include "Register_burst.h"

/// One sensor register: address, value width in bytes (1 or 2), page
/// (negative: the map has no pages).
struct Register {
    uint16_t address;
    uint8_t bytes;
    int16_t page;
};

constexpr Register reg8(uint16_t address) { return {address, 1, -1}; }
constexpr Register reg16(uint16_t address) { return {address, 2, -1}; }
constexpr Register paged8(uint8_t page, uint16_t address) { return {address, 1, page}; }

class Register_access {
public:
    /// @p page_select: the register that selects the page of paged
    /// registers (unused on maps without pages).
    Register_access(IHwl& hwl, const Register_layout& layout, Register page_select = reg8(0))
        : hwl(hwl), layout(layout), page_select(page_select) {}

    /// Reads @p r into @p value (0 on failure).
    bool read(Register r, uint16_t& value, bool* error = nullptr);
    bool write(Register r, uint16_t value, bool* error = nullptr);
    /// Writes @p count consecutive registers from @p first in one transfer.
    bool write_run(Register first, const uint16_t* values, size_t count, bool* error = nullptr);
    /// Writes a register table in runs (Register_burst). On a failure
    /// @p failed (if given) receives the failed run's first register and
    /// its length in registers.
    bool write_table(const Register_pair* table, size_t count, Register_pair* failed = nullptr);

    IHwl& layer() const { return hwl; }
    const Register_layout& map() const { return layout; }
    Register pager() const { return page_select; }

private:
    uint64_t length(Register r, size_t count) const
    {
        return layout.counts_bytes ? uint64_t(r.bytes) * count : count;
    }

    IHwl& hwl;
    const Register_layout layout;
    const Register page_select;
};

/// Accesses to one engine that select a page once for a run on that page
/// and share one error flag.
class Register_sequence {
public:
    explicit Register_sequence(Register_access& access) : access(access) {}

    bool read(Register r, uint16_t& value);
    bool read8(Register r, uint8_t& value);
    bool write(Register r, uint16_t value);
    bool write_run(Register first, const uint16_t* values, size_t count);

    /// No operation of the sequence failed.
    bool ok() const { return !error; }

private:
    bool select(Register r);

    Register_access& access;
    int page = -1;
    bool error = false;
};

#endif // VQX_REGISTER_ACCESS_H
