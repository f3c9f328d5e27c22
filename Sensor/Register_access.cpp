// Register_access: see Register_access.h.
#include "Register_access.h"

bool Register_access::read(Register r, uint16_t& value, bool* error)
{
    value = 0;
    if (error && *error)
        return false;
    const bool ok = hwl.ReadReg(r.address, &value, length(r, 1));
    if (!ok && error)
        *error = true;
    return ok;
}

bool Register_access::write(Register r, uint16_t value, bool* error)
{
    return write_run(r, &value, 1, error);
}

bool Register_access::write_run(Register first, const uint16_t* values, size_t count, bool* error)
{
    if (error && *error)
        return false;
    // The hardware layer takes a mutable pointer; it does not write through
    // it on WriteReg.
    const bool ok = hwl.WriteReg(first.address, const_cast<uint16_t*>(values), length(first, count));
    if (!ok && error)
        *error = true;
    return ok;
}

bool Register_access::write_table(const Register_pair* table, size_t count, Register_pair* failed)
{
    Register_burst burst(hwl, layout);
    if (burst.write(table, count))
        return true;
    if (failed)
        *failed = {static_cast<uint16_t>(burst.failed_register()), static_cast<uint16_t>(burst.failed_count())};
    return false;
}

bool Register_sequence::select(Register r)
{
    if (r.page < 0 || r.page == page)
        return !error;
    if (!access.write(access.pager(), static_cast<uint16_t>(r.page), &error))
        return false;
    page = r.page;
    return true;
}

bool Register_sequence::read(Register r, uint16_t& value)
{
    value = 0;
    return select(r) && access.read(r, value, &error);
}

bool Register_sequence::read8(Register r, uint8_t& value)
{
    uint16_t v = 0;
    const bool ok = read(r, v);
    value = static_cast<uint8_t>(v);
    return ok;
}

bool Register_sequence::write(Register r, uint16_t value)
{
    return select(r) && access.write(r, value, &error);
}

bool Register_sequence::write_run(Register first, const uint16_t* values, size_t count)
{
    return select(first) && access.write_run(first, values, count, &error);
}
