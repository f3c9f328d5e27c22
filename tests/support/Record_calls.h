// Record_calls: the record functions of the exported interface (lights,
// exposure settings and mode, sleep time-out) called with arguments a
// chooser picks, each answer checked against what the interface promises.
// The stress load picks with its random numbers, the fuzz target with its
// input bytes; both run these among their frame calls.
//
// A chooser is a callable `uint32_t pick(uint32_t bound)`: a value below
// @p bound, or any 32-bit value for bound 0. Every function returns an
// empty string, or what the interface got wrong. None of them leaves idle
// lights on (they are set back at once) or turns frame conformity on
// (which can hold every frame back) unless the caller allows it.
#ifndef VQX_TESTS_RECORD_CALLS_H
#define VQX_TESTS_RECORD_CALLS_H

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

#include <VQXScanInterface.h>

namespace record_calls {

/// VQXSI_SetLights or VQXSI_GetLights with a record size from 0 to far past
/// the record; a read reports min(size, 28) as its size.
template <class Pick>
std::string lights(VQXSI_HANDLE h, Pick&& pick)
{
    static const uint32_t sizes[] = {0, 1, 7, 12, 27, 28, 29, 40, 0xFFFFFFFFu};
    const uint32_t size = sizes[pick(9)];
    if (pick(2)) {
        VQX_SCANNER_LIGHTING l = {size, pick(10), pick(4) == 0 ? 1 + pick(8) : 0, pick(0),
                                  pick(200), pick(200), pick(2)};
        if (VQXSI_SetLights(h, &l) != 1)
            return "VQXSI_SetLights failed";
        if (l.idle_mode != 0) {
            VQX_SCANNER_LIGHTING off = {28, 5, 0, 0, 100, 100, 0};
            if (VQXSI_SetLights(h, &off) != 1)
                return "VQXSI_SetLights failed";
        }
        return "";
    }
    unsigned char raw[64];
    std::memcpy(raw, &size, 4);
    if (VQXSI_GetLights(h, reinterpret_cast<VQX_SCANNER_LIGHTING*>(raw)) != 1)
        return "VQXSI_GetLights failed";
    uint32_t reported;
    std::memcpy(&reported, raw, 4);
    return reported == (size < 28 ? size : 28) ? "" : "VQXSI_GetLights reported a wrong size";
}

/// VQXSI_SetExposureSettings or VQXSI_GetExposureSettings with one to four
/// pairs (tags and values mostly in range, sometimes anything; sizes with a
/// partial pair), or VQXSI_SetExposureMode. Unknown and ignored tags read 0.
template <class Pick>
std::string exposure(VQXSI_HANDLE h, Pick&& pick, bool conformity = false)
{
    uint32_t pairs[8];
    const unsigned n = 1 + pick(4);
    for (unsigned k = 0; k < n; ++k) {
        pairs[2 * k] = pick(8) == 0 ? pick(0) : pick(25);
        pairs[2 * k + 1] = pick(8) == 0 ? pick(0) : pick(300);
        if (pairs[2 * k] == ES_CONFORM_IMAGE && !conformity)
            pairs[2 * k + 1] = 0;
    }
    const uint32_t size = 8 * n - (pick(3) == 0 ? pick(8) : 0);
    switch (pick(3)) {
    case 0:
        return VQXSI_SetExposureSettings(h, pairs, size) == 1 ? "" : "VQXSI_SetExposureSettings failed";
    case 1:
        if (VQXSI_GetExposureSettings(h, pairs, size) != 1)
            return "VQXSI_GetExposureSettings failed";
        for (unsigned k = 0; k < size / 8; ++k) {
            const uint32_t tag = pairs[2 * k];
            const bool unknown = tag == 6 || tag == 7 || tag > 23 || tag == ES_FAST_START || tag == ES_DECODE_PARAMETER;
            if (unknown && pairs[2 * k + 1] != 0)
                return "an unknown or ignored tag read back non-zero";
        }
        return "";
    default:
        return VQXSI_SetExposureMode(h, pick(8) == 0 ? pick(0) : pick(5)) == 1 ? "" : "VQXSI_SetExposureMode failed";
    }
}

/// VQXSI_SetSleepTimeout and VQXSI_GetSleepTimeout on the session or (one
/// time in three) on the default; the default reads back what was set.
/// The default is one value for the process: callers on several threads
/// set and read it back one pair at a time.
template <class Pick>
std::string sleep_timeout(VQXSI_HANDLE h, Pick&& pick)
{
    static const uint32_t values[] = {0, 0, 1, 5, 30, 200, 0xFFFFFFFFu};
    static std::mutex default_pair;
    const uint32_t ms = values[pick(7)];
    std::unique_lock<std::mutex> hold(default_pair, std::defer_lock);
    if (pick(3) == 0) {
        h = nullptr;
        hold.lock();
    }
    if (VQXSI_SetSleepTimeout(h, ms) != 1)
        return "VQXSI_SetSleepTimeout failed";
    uint32_t back = 0;
    if (VQXSI_GetSleepTimeout(h, &back) != 1)
        return "VQXSI_GetSleepTimeout failed";
    return h || back == ms ? "" : "the default sleep time-out did not read back";
}

} // namespace record_calls

#endif
