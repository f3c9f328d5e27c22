// Exposure_rules: microseconds to exposure rows, one rule per engine family.
//
// Each engine trait's static exposure_rows(const Trait&, uint32_t us) calls
// the matching function here; Exposure_converter<Trait> caches the result.
// Every rule gives at least 1 row. The arithmetic is 32-bit unsigned unless
// stated; the upper limits are where the 32-bit products would wrap.
//
// Pure functions; reentrant.
#ifndef VQX_LIB_EXPOSURE_RULES_H
#define VQX_LIB_EXPOSURE_RULES_H

#include <cstdint>

/// X5501: rows of 1726 pixel clocks at 96 MHz, rounded; 0xFFFFFFFF from
/// 44739216 us on.
inline uint32_t rows_x5501(uint32_t us)
{
    if (us >= 44739216u)
        return 0xFFFFFFFFu;
    const uint32_t rows = (us * 96u + 863u) / 1726u;
    return rows != 0 ? rows : 1;
}

/// Kelp: (us * 48 + 589) / 1178 kept to its low 16 bits; 65535 from
/// 89478449 us on.
inline uint32_t rows_kelp(uint32_t us)
{
    if (us >= 89478449u)
        return 65535u;
    const uint32_t rows = ((us * 48u + 589u) / 1178u) & 0xFFFFu;
    return rows != 0 ? rows : 1;
}

/// Rilo: 1.5 rows per microsecond, rounded; 0xFFFFFF from 0xAAAAAB us on.
inline uint32_t rows_rilo(uint32_t us)
{
    if (us >= 0xAAAAABu)
        return 0xFFFFFFu;
    const uint32_t rows = (us * 3u + 1u) >> 1;
    return rows != 0 ? rows : 1;
}

/// MT9V022: rows of 35.25 us, rounded. The shift is 32-bit, so values from
/// 16777216 us (about 16.8 s, far beyond any exposure setting) wrap.
inline uint32_t rows_mt9v022(uint32_t us)
{
    const uint32_t rows = ((us << 8) + 4512u) / 9024u;
    return rows != 0 ? rows : 1;
}

/// Aptina: us divided by the row time (nanoseconds, reported by the hardware
/// layer) in double precision, truncated. A quotient beyond 32 bits gives
/// 0xFFFFFFFF (a row time of 0 with us > 0 included); one below 1, or 0 / 0,
/// gives 1.
inline uint32_t rows_aptina(uint32_t us, uint32_t line_time_ns)
{
    const double rows = us / (line_time_ns / 1000.0);
    if (!(rows >= 1.0))
        return 1;
    if (rows >= 4294967296.0)
        return 0xFFFFFFFFu;
    return static_cast<uint32_t>(rows);
}

/// AR0144: us divided by the line time in microseconds, kept to 16 bits. A
/// line time of 0 gives 1.
inline uint32_t rows_ar0144(uint32_t us, uint64_t line_time_us)
{
    if (line_time_us == 0)
        return 1;
    const uint32_t rows = static_cast<uint32_t>(us / line_time_us) & 0xFFFFu;
    return rows != 0 ? rows : 1;
}

#endif // VQX_LIB_EXPOSURE_RULES_H
