// Exposure_tags: the (tag, value) view of a session's exposure settings.
//
// Clients never see the Exposure_settings record. VQXSI_SetExposureSettings
// and VQXSI_GetExposureSettings hand in arrays of (tag, value) pairs of
// unsigned 32-bit words; this module maps each tag to a field of the record
// through a fixed table, converting units where a tag names a field in other
// units than the record keeps (exposure in 127 us steps, gain in whole steps).
//
// The table is data: one row per tag, searched linearly in table order.
// Tags 6 and 7 do not exist; ES_FAST_START and ES_DECODE_PARAMETER are
// accepted and ignored (they read back as 0). Unknown tags are skipped and
// read back as 0; nothing is reported to the caller.
//
// Threading: the functions read and write the session through its own
// locked operations (Get_exposure / Set_exposure); the table is constant.
#ifndef VQX_EXPOSURE_TAGS_H
#define VQX_EXPOSURE_TAGS_H

#include <cstdint>

class Scan_session;

/// Conversion of one field value between the client's and the record's units.
typedef uint32_t (*tag_conversion_t)(uint32_t value);

/// One tag of the exposure settings.
struct tag_entry_t {
    const char* name;          ///< the tag's name, as in the public header
    unsigned int tag;          ///< the tag number
    uint32_t offset;           ///< byte offset of the field in Exposure_settings
    bool ignored;              ///< accepted, never stored, reads 0
    tag_conversion_t on_set;   ///< client units to record units, or null
    tag_conversion_t on_get;   ///< record units to client units, or null
};

/// The tag table, in search order, and its length.
extern const tag_entry_t exposure_tag_table[];
extern const unsigned long exposure_tag_count;

/// Units of 127 us to us; saturates at the largest multiple of 127 that fits.
uint32_t exposure_units_to_us(uint32_t units);
/// Microseconds to units of 127 us, truncating.
uint32_t exposure_us_to_units(uint32_t us);
/// Whole gain steps to 1/256 steps; saturates at 0xFFFFFF00.
uint32_t gain_whole_to_256(uint32_t gain);
/// 1/256 gain steps to whole steps, truncating.
uint32_t gain_256_to_whole(uint32_t gain256);

/// The first row of @p table (of @p count rows) whose number is @p tag, or
/// null (null at once when @p count is 0).
const tag_entry_t* find_tag_entry(const tag_entry_t* table, unsigned long count, unsigned int tag);

/// Applies the pairs of @p pairs (@p size bytes, size / 8 pairs; a remainder
/// is ignored) to the session's settings in array order: a later pair for the
/// same field wins. The settings are written back even when nothing changed.
/// Returns 1.
unsigned int ExposureSetTags(Scan_session* session, const unsigned int* pairs, unsigned int size);

/// Fills the value of each pair with the session's setting for its tag
/// (0 for unknown and ignored tags). Returns 1.
unsigned int ExposureGetTags(Scan_session* session, unsigned int* pairs, unsigned int size);

#endif
