// Psoc: see Psoc.h.
#include "Psoc.h"

#include <cstring>

#include "Diagnostics.h"

namespace {

const char* const psoc_source = "jni/../../lib/Psoc";

// Identity registers.
constexpr unsigned char reg_engine_id = 0x00;
constexpr unsigned char reg_serial_no = 0x04;
constexpr unsigned serial_no_length = 10;
constexpr unsigned char reg_aimer_offset = 0x1A;
constexpr unsigned char reg_revision_low = 0x38;
constexpr unsigned char reg_revision_high = 0x39;

// Light control register fields.
constexpr unsigned char lights_mode_mask = 0x03;
constexpr unsigned char boost_mask = 0x1C;
constexpr unsigned boost_shift = 2;
constexpr unsigned char max_boost = 2;

// Bytes of the register image shown by init().
constexpr unsigned dump_length = 64;

// Lights mode 1..8 to PSoC lights code.
constexpr unsigned char lights_codes[8] = {1, 2, 3, 3, 3, 0, 2, 1};

} // namespace

Psoc::Psoc(IHwl_psoc* psoc_)
    : psoc(psoc_), image{}, valid{}
{
}

bool Psoc::init()
{
    if (!psoc->ReadIIC_PSOC(0, image, register_count))
        return false;
    valid[light_control] = true;
    silent_trace("PSOC Actual Registers 0x0 through 0x3f");
    hex_dump_msc(image, dump_length);
    return true;
}

void Psoc::invalidate()
{
    valid[light_control] = false;
}

bool Psoc::read(unsigned char reg, unsigned char* out)
{
    if (reg >= register_count)
        return psoc->ReadIIC_PSOC(reg, out, 1);
    if (!valid[reg]) {
        valid[reg] = psoc->ReadIIC_PSOC(reg, image + reg, 1);
        if (!valid[reg])
            return false;
    }
    *out = image[reg];
    return valid[reg];
}

bool Psoc::write(unsigned char reg, unsigned char value)
{
    if (reg >= register_count)
        return psoc->WriteIIC_PSOC(reg, &value, 1);
    if (valid[reg] && image[reg] == value)
        return true;
    valid[reg] = psoc->WriteIIC_PSOC(reg, &value, 1);
    if (valid[reg])
        image[reg] = value;
    return valid[reg];
}

bool Psoc::set_lights_mode(unsigned char mode)
{
    unsigned char old = 0;
    if (read(light_control, &old))
        write(light_control, static_cast<unsigned char>((old & ~lights_mode_mask) | (mode & lights_mode_mask)));
    return valid[light_control];
}

bool Psoc::set_boost(unsigned char level, bool raise)
{
    if (level > max_boost) {
        sd_assert_function("level <= 2", psoc_source, 120);
        level = max_boost;
    }
    unsigned char value = 0;
    if (!read(light_control, &value))
        return valid[light_control];
    const unsigned current = (value >> boost_shift) & 3;
    if (level < current || (level > current && raise))
        write(light_control, static_cast<unsigned char>((value & ~boost_mask) | (level << boost_shift)));
    return valid[light_control];
}

unsigned char Psoc::get_lights_mode(_tagVQX_SCANNER_LIGHTING::LightsMode mode)
{
    return get_lights_mode(static_cast<uint32_t>(mode));
}

unsigned char Psoc::get_lights_mode(uint32_t mode)
{
    if (mode < 1 || mode > 8)
        return 0;
    return lights_codes[mode - 1];
}

uint32_t Psoc::get_engine_id() const
{
    const unsigned char* p = image + reg_engine_id;
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

uint64_t Psoc::get_revision() const
{
    return uint64_t(image[reg_revision_low]) + (uint64_t(image[reg_revision_high]) << 32);
}

void Psoc::get_serial_no(char* out, unsigned long n) const
{
    if (n == 0)
        return;
    const unsigned long count = (n < serial_no_length + 1 ? n : serial_no_length + 1) - 1;
    std::memcpy(out, image + reg_serial_no, count);
    out[count] = 0;
}

void Psoc::get_engine_aimer_offset(unsigned char* out) const
{
    std::memcpy(out, image + reg_aimer_offset, 4);
}

// ---------------------------------------------------------------------------
