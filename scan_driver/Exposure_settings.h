// Exposure_settings: the parameter set of auto exposure.
//
// Each session keeps one; the power state manager copies it when streaming
// starts; the sensor hands it to the exposure controller; each engine trait
// may adjust the session defaults. Clients reach it only through the exposure
// tags and VQXSI_SetExposureMode. The record is always copied whole: twenty
// unsigned 32-bit fields, 80 bytes, little-endian, size first.
#ifndef VQX_EXPOSURE_SETTINGS_H
#define VQX_EXPOSURE_SETTINGS_H

#include <cstddef>
#include <cstdint>

struct Exposure_settings {
    uint32_t size = 80;                      //  0 bytes valid in the record
    uint32_t mode = 2;                       //  4 0/1 fixed, 2 histogram AE, 3+ context-sensitive AE
    uint32_t exposure_method = 2;            //  8 ES_EXPOSURE_METHOD: 0 uniform, 1 centre, else centre-weighted
    uint32_t target_value = 120;             // 12 ES_TARGET_VALUE
    uint32_t target_percentile = 97;         // 16 ES_TARGET_PERCENTILE
    uint32_t target_accept_gap = 40;         // 20 ES_TARGET_ACCEPT_GAP
    uint32_t max_exposure = 60000;           // 24 ES_MAX_EXP(_US), microseconds
    uint32_t max_gain = 1024;                // 28 ES_MAX_GAIN(_256), 1/256 units
    uint32_t start_exposure = 520;           // 32 microseconds; engine traits overwrite it
    uint32_t start_gain = 1024;              // 36 1/256 units
    uint32_t frame_rate = 30;                // 40 ES_FRAME_RATE, ES_FIXED_FRAME_RATE
    uint32_t conform_image = 0;              // 44 ES_CONFORM_IMAGE
    uint32_t conform_tries = 6;              // 48 ES_CONFORM_TRIES
    uint32_t specular_exclusion = 2;         // 52 ES_SPECULAR_EXCLUSION
    uint32_t specular_saturation = 240;      // 56 ES_SPECULAR_SAT
    uint32_t specular_limit = 3;             // 60 ES_SPECULAR_LIMIT
    uint32_t adjust_exp_when_illum_off = 1;  // 64 ES_ADJUST_EXP_WHEN_ILLUM_OFF
    uint32_t fixed_exposure = 30480;         // 68 ES_FIXED_EXP(_US), microseconds
    uint32_t fixed_gain = 1024;              // 72 ES_FIXED_GAIN(_256), 1/256 units
    uint32_t last_field = 30;                // 76 not reachable by tags; stored and copied whole
};

static_assert(sizeof(Exposure_settings) == 80, "Exposure_settings is 80 bytes");
static_assert(offsetof(Exposure_settings, mode) == 4, "mode at offset 4");
static_assert(offsetof(Exposure_settings, max_exposure) == 24, "max exposure at offset 24");
static_assert(offsetof(Exposure_settings, start_exposure) == 32, "start exposure at offset 32");
static_assert(offsetof(Exposure_settings, frame_rate) == 40, "frame rate at offset 40");
static_assert(offsetof(Exposure_settings, fixed_exposure) == 68, "fixed exposure at offset 68");
static_assert(offsetof(Exposure_settings, last_field) == 76, "last field at offset 76");

#endif
