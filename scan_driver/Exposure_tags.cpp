// Exposure_tags: tag table and the tag/value transfer to and from a session.
#include "Exposure_tags.h"

#include <cstring>

#include <VQXScanInterface.h>

#include "Diagnostics.h"
#include "Exposure_settings.h"
#include "scan_session.h"

uint32_t exposure_units_to_us(uint32_t units)
{
    // 33818639 * 127 = 4294967153 still fits; the next step would not.
    if (units > 33818639u)
        return 4294967280u;  // largest multiple of 127 below 2^32
    return units * 127u;
}

uint32_t exposure_us_to_units(uint32_t us)
{
    return us / 127u;
}

uint32_t gain_whole_to_256(uint32_t gain)
{
    if (gain < 16777215u)
        return gain * 256u;
    return 4294967040u;  // 0xFFFFFF00
}

uint32_t gain_256_to_whole(uint32_t gain256)
{
    return gain256 >> 8;
}

#define FIELD(f) static_cast<uint32_t>(offsetof(Exposure_settings, f))

// Search order matters: ES_FAST_START (19) stands between ES_SPECULAR_LIMIT
// and ES_FIXED_EXP.
const tag_entry_t exposure_tag_table[] = {
    {"ES_EXPOSURE_METHOD", ES_EXPOSURE_METHOD, FIELD(exposure_method), false, nullptr, nullptr},
    {"ES_TARGET_VALUE", ES_TARGET_VALUE, FIELD(target_value), false, nullptr, nullptr},
    {"ES_TARGET_PERCENTILE", ES_TARGET_PERCENTILE, FIELD(target_percentile), false, nullptr, nullptr},
    {"ES_TARGET_ACCEPT_GAP", ES_TARGET_ACCEPT_GAP, FIELD(target_accept_gap), false, nullptr, nullptr},
    {"ES_MAX_EXP", ES_MAX_EXP, FIELD(max_exposure), false, exposure_units_to_us, exposure_us_to_units},
    {"ES_MAX_GAIN", ES_MAX_GAIN, FIELD(max_gain), false, gain_whole_to_256, gain_256_to_whole},
    {"ES_FRAME_RATE", ES_FRAME_RATE, FIELD(frame_rate), false, nullptr, nullptr},
    {"ES_CONFORM_IMAGE", ES_CONFORM_IMAGE, FIELD(conform_image), false, nullptr, nullptr},
    {"ES_CONFORM_TRIES", ES_CONFORM_TRIES, FIELD(conform_tries), false, nullptr, nullptr},
    {"ES_SPECULAR_EXCLUSION", ES_SPECULAR_EXCLUSION, FIELD(specular_exclusion), false, nullptr, nullptr},
    {"ES_SPECULAR_SAT", ES_SPECULAR_SAT, FIELD(specular_saturation), false, nullptr, nullptr},
    {"ES_SPECULAR_LIMIT", ES_SPECULAR_LIMIT, FIELD(specular_limit), false, nullptr, nullptr},
    {"ES_FAST_START", ES_FAST_START, 0, true, nullptr, nullptr},
    {"ES_FIXED_EXP", ES_FIXED_EXP, FIELD(fixed_exposure), false, exposure_units_to_us, exposure_us_to_units},
    {"ES_FIXED_GAIN", ES_FIXED_GAIN, FIELD(fixed_gain), false, gain_whole_to_256, gain_256_to_whole},
    {"ES_FIXED_FRAME_RATE", ES_FIXED_FRAME_RATE, FIELD(frame_rate), false, nullptr, nullptr},
    {"ES_ADJUST_EXP_WHEN_ILLUM_OFF", ES_ADJUST_EXP_WHEN_ILLUM_OFF, FIELD(adjust_exp_when_illum_off), false, nullptr, nullptr},
    {"ES_DECODE_PARAMETER", ES_DECODE_PARAMETER, 0, true, nullptr, nullptr},
    {"ES_MAX_EXP_US", ES_MAX_EXP_US, FIELD(max_exposure), false, nullptr, nullptr},
    {"ES_MAX_GAIN_256", ES_MAX_GAIN_256, FIELD(max_gain), false, nullptr, nullptr},
    {"ES_FIXED_EXP_US", ES_FIXED_EXP_US, FIELD(fixed_exposure), false, nullptr, nullptr},
    {"ES_FIXED_GAIN_256", ES_FIXED_GAIN_256, FIELD(fixed_gain), false, nullptr, nullptr},
};

#undef FIELD

const unsigned long exposure_tag_count = sizeof(exposure_tag_table) / sizeof(exposure_tag_table[0]);
static_assert(sizeof(exposure_tag_table) / sizeof(exposure_tag_table[0]) == 22, "22 tags");

const tag_entry_t* find_tag_entry(const tag_entry_t* table, unsigned long count, unsigned int tag)
{
    for (unsigned long i = 0; i < count; ++i)
        if (table[i].tag == tag)
            return &table[i];
    return nullptr;
}

namespace {

// Fields are reached by byte offset; copying through memcpy keeps every
// access a well-defined access to a uint32_t member.
uint32_t read_field(const Exposure_settings& settings, uint32_t offset)
{
    uint32_t value;
    std::memcpy(&value, reinterpret_cast<const unsigned char*>(&settings) + offset, sizeof value);
    return value;
}

void write_field(Exposure_settings& settings, uint32_t offset, uint32_t value)
{
    std::memcpy(reinterpret_cast<unsigned char*>(&settings) + offset, &value, sizeof value);
}

void zeroed_settings(Exposure_settings& settings)
{
    std::memset(static_cast<void*>(&settings), 0, sizeof settings);
    settings.size = sizeof settings;
}

// The table row of @p tag when it names a field: null (with the trace) for
// an unknown tag, null for an accepted but ignored one.
const tag_entry_t* field_entry(unsigned int tag)
{
    const tag_entry_t* entry = find_tag_entry(exposure_tag_table, exposure_tag_count, tag);
    if (!entry) {
        silent_trace("Unknown tag: %u", tag);
        return nullptr;
    }
    return entry->ignored ? nullptr : entry;
}

} // namespace

unsigned int ExposureSetTags(Scan_session* session, const unsigned int* pairs, unsigned int size)
{
    Exposure_settings local;
    zeroed_settings(local);
    session->Get_exposure(local);

    const unsigned int count = size >> 3;
    for (unsigned int i = 0; i < count; ++i) {
        const unsigned int tag = pairs[2 * i];
        uint32_t value = pairs[2 * i + 1];
        const tag_entry_t* entry = field_entry(tag);
        if (!entry)
            continue;
        if (entry->on_set)
            value = entry->on_set(value);
        write_field(local, entry->offset, value);
    }

    session->Set_exposure(local);
    return 1;
}

unsigned int ExposureGetTags(Scan_session* session, unsigned int* pairs, unsigned int size)
{
    Exposure_settings local;
    zeroed_settings(local);
    session->Get_exposure(local);

    const unsigned int count = size >> 3;
    for (unsigned int i = 0; i < count; ++i) {
        const unsigned int tag = pairs[2 * i];
        pairs[2 * i + 1] = 0;
        const tag_entry_t* entry = field_entry(tag);
        if (!entry)
            continue;
        uint32_t value = read_field(local, entry->offset);
        if (entry->on_get)
            value = entry->on_get(value);
        pairs[2 * i + 1] = value;
    }
    return 1;
}
