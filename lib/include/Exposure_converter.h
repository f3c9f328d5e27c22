// Exposure_converter<Trait>: cached microseconds-to-rows conversion.
//
// The exposure controller holds three of these (fixed, maximum and starting
// exposure), each following one microsecond member of its settings copy
// through p_us. The engine trait reads the row count when it programs the
// sensor; the conversion itself is the trait's static
// Trait::exposure_rows(const Trait&, uint32_t us).
//
// mode: 0 = compute rows from microseconds; 1 = compute once more, then back
// to 0; any other value = rows was set directly and is used as it is.
//
// current_rows() is the one way to read rows: a changed microsecond setting
// is noticed and converted, mode 1 forces one conversion, other non-zero
// modes return the stored rows. There is no read that skips the setting, so
// a trait can never program rows converted from a stale microsecond value.
//
// Converting needs p_sensor. Without it "p_sensor" is reported and the
// cached rows (at least 1) are returned unchanged. Without p_us (a converter
// not bound to a settings member) exposure_us is taken as the setting.
//
// Lives inside the exposure controller; used from the frame path and from
// the trait's exposure operations, all serialised by the sensor's monitor.
#ifndef VQX_LIB_EXPOSURE_CONVERTER_H
#define VQX_LIB_EXPOSURE_CONVERTER_H

#include <cstdint>

#include "Diagnostics.h"

template <class Trait>
class Exposure_converter {
public:
    explicit Exposure_converter(const uint32_t* us_member = nullptr) : p_us(us_member) {}

    /// Rows for the followed setting, converting when it changed or when
    /// mode asks for it.
    unsigned current_rows()
    {
        const uint32_t us = p_us != nullptr ? *p_us : exposure_us;
        if (us != exposure_us) {
            exposure_us = us;
            mode = 0;
            return compute();
        }
        if (mode == 1) {
            mode = 0;
            return compute();
        }
        if (mode != 0)
            return stored_rows();
        return compute();
    }

    uint32_t mode = 0;         ///< 0 compute, 1 compute once, other: rows as set
    mutable uint32_t rows = 0; ///< cached row count
    uint32_t exposure_us = 0;  ///< microseconds the cache was made from
    Trait* p_sensor = nullptr; ///< the trait that converts
    const uint32_t* p_us;      ///< the followed settings member

private:
    unsigned stored_rows() const
    {
        if (rows == 0)
            rows = 1;
        return rows;
    }

    unsigned compute() const
    {
        if (p_sensor == nullptr) {
            sd_assert_function("p_sensor", "jni/../../lib/include/Exposure_converter", 94);
            return stored_rows();
        }
        rows = Trait::exposure_rows(*p_sensor, exposure_us);
        return rows;
    }
};

#endif // VQX_LIB_EXPOSURE_CONVERTER_H
