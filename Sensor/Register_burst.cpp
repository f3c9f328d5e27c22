// Register_burst: see Register_burst.h.
#include "Register_burst.h"

bool Register_burst::add(uint32_t address, uint16_t value)
{
    const size_t limit = layout.max_run < max_run ? layout.max_run : max_run;
    const bool extends = count != 0 && count < limit && address == first + layout.stride * count;
    if (!extends) {
        if (!flush())
            return false;
        first = address;
    }
    values[count++] = value;
    return true;
}

bool Register_burst::flush()
{
    if (count == 0)
        return true;
    const size_t length = count;
    count = 0;
    if (hwl.WriteReg(first, values, (layout.counts_bytes ? 2 * length : length)))
        return true;
    failed_first = first;
    failed_length = length;
    return false;
}

bool Register_burst::write(const Register_pair* table, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        if (!add(table[i].address, table[i].value))
            return false;
    return flush();
}
