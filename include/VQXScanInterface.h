/*
 * VQXScanInterface.h - public C interface of libVQXScanInterface.
 *
 * The library drives the device's built-in area-imaging barcode scan engine
 * and hands its frames to the caller (typically a barcode decoder). A client
 * opens a session, starts scanning, takes frames with VQXSI_GetNewScan, gives
 * every frame back with VQXSI_UnlockBuffer, stops scanning and closes the
 * session.
 *
 * Conventions
 *  - Every record begins with its size in bytes, set by the caller; the
 *    library copies at most the smaller of the caller's size and its own.
 *  - Truth values: 1 success, 0 failure (VQXSI_BOOL).
 *  - A null session handle makes every function that checks it set errno to
 *    EINVAL and return 0 (or NULL); see each function.
 */
#ifndef VQX_SCAN_INTERFACE_H
#define VQX_SCAN_INTERFACE_H

#include <stdint.h>

#if defined(VQX_BUILDING_LIBRARY)
#  define VQXSI_API __attribute__((visibility("default")))
#else
#  define VQXSI_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque session handle. */
typedef struct VQXSI_Session* VQXSI_HANDLE;

/* Truth value: 1 success, 0 failure. */
typedef uint8_t VQXSI_BOOL;

/* ------------------------------------------------------------------------ */
/* Lights                                                                   */
/* ------------------------------------------------------------------------ */

/* Lights modes. Each mode drives the aimer and/or the illumination; any
 * other value (0 included) switches all lights off. */
enum VQX_LIGHTS_MODE {
    VQX_LIGHTS_OFF = 0,
    VQX_LIGHTS_AIMER = 1,              /* aimer only */
    VQX_LIGHTS_ILLUMINATION = 2,       /* illumination only */
    VQX_LIGHTS_AIMER_ILLUMINATION = 3, /* aimer and illumination */
    VQX_LIGHTS_AIMER_ILLUMINATION_4 = 4,
    VQX_LIGHTS_AIMER_ILLUMINATION_5 = 5, /* the session default while scanning */
    VQX_LIGHTS_NONE_6 = 6,             /* no lights */
    VQX_LIGHTS_ILLUMINATION_7 = 7,     /* illumination only */
    VQX_LIGHTS_AIMER_8 = 8             /* aimer only */
};

/* 28 bytes. */
typedef struct _tagVQX_SCANNER_LIGHTING {
    uint32_t size;          /* bytes valid in the caller's record (28) */
    uint32_t scanning_mode; /* VQX_LIGHTS_MODE while scanning (default 5) */
    uint32_t idle_mode;     /* VQX_LIGHTS_MODE while not scanning (default 0);
                               non-zero keeps the engine from sleeping */
    uint32_t reserved;      /* stored and handed on (default 0) */
    uint32_t level_a;       /* stored and handed on to the engine (default 100) */
    uint32_t level_b;       /* illumination configuration for the engine (default 100) */
    uint32_t boost;         /* non-zero asks for the illumination boost (default 0) */
#ifdef __cplusplus
    typedef VQX_LIGHTS_MODE LightsMode;
#endif
} VQX_SCANNER_LIGHTING;

/* ------------------------------------------------------------------------ */
/* Frame attributes                                                         */
/* ------------------------------------------------------------------------ */

/* 40 bytes, filled by the driver for every delivered frame. */
typedef struct _tagImageAttributes {
    uint32_t size;         /* 40 */
    uint32_t exposure;     /* exposure the frame was taken with (engine units) */
    uint32_t gain;         /* gain the frame was taken with (engine units) */
    uint32_t white_value;  /* measured white value, 0-255 */
    uint32_t max_value;    /* largest pixel value, 255 */
    uint32_t height;       /* rows */
    uint32_t width;        /* pixels (bytes) per row */
    uint32_t frame_number; /* running frame number (low 32 bits) */
    uint16_t reserved1;    /* 0 */
    uint16_t reserved2;    /* 0 */
    uint32_t discarded;    /* 1 when the frame missed the exposure target and
                              was held back for another try */
} VQX_IMAGE_ATTRIBUTES;

/* ------------------------------------------------------------------------ */
/* Engine properties                                                        */
/* ------------------------------------------------------------------------ */

/* 224 bytes. */
typedef struct _tagVQX_SCANENGINE_PROPERTIES_EX {
    uint32_t size;            /*   0: 224 */
    uint32_t engine_id_class; /*   4: engine specific */
    uint32_t image_height;    /*   8: rows */
    uint32_t image_width;     /*  12: pixels per row */
    uint32_t pixel_depth;     /*  16: bits per pixel (8) */
    uint32_t reserved1;       /*  20 */
    uint32_t aimer_x;         /*  24: aimer centre column */
    uint32_t aimer_y;         /*  28: aimer centre row */
    uint8_t  reserved2[8];    /*  32 */
    uint32_t buffer_count;    /*  40: number of image buffers */
    uint32_t psoc_rev_low;    /*  44: companion controller revision, low */
    uint32_t psoc_rev_high;   /*  48: companion controller revision, high */
    char     serial_number[81]; /* 52: engine serial number, NUL-terminated */
    uint8_t  reserved3[3];    /* 133 */
    uint32_t engine_id;       /* 136: engine id */
    uint8_t  reserved4[84];   /* 140 */
} VQX_SCANENGINE_PROPERTIES_EX;

/* ------------------------------------------------------------------------ */
/* Exposure settings tags (VQXSI_SetExposureSettings / GetExposureSettings) */
/* ------------------------------------------------------------------------ */

enum VQX_EXPOSURE_TAG {
    ES_EXPOSURE_METHOD = 0,   /* sampling pattern: 0 uniform, 1 centre, 2+ centre-weighted */
    ES_TARGET_VALUE = 1,      /* wanted white value (0-255) */
    ES_TARGET_PERCENTILE = 2, /* percentile of the white value */
    ES_TARGET_ACCEPT_GAP = 3, /* tolerance around the target */
    ES_MAX_EXP = 4,           /* longest exposure, units of 127 us */
    ES_MAX_GAIN = 5,          /* highest gain, whole steps */
    ES_FRAME_RATE = 8,        /* frames per second */
    ES_CONFORM_IMAGE = 9,     /* non-zero: hold back frames outside the target */
    ES_CONFORM_TRIES = 10,    /* frames tried before a non-conforming one is kept */
    ES_SPECULAR_EXCLUSION = 11,
    ES_SPECULAR_SAT = 12,
    ES_SPECULAR_LIMIT = 13,
    ES_FIXED_EXP = 14,        /* exposure of the fixed mode, units of 127 us */
    ES_FIXED_GAIN = 15,       /* gain of the fixed mode, whole steps */
    ES_FIXED_FRAME_RATE = 16, /* same field as ES_FRAME_RATE */
    ES_ADJUST_EXP_WHEN_ILLUM_OFF = 17,
    ES_DECODE_PARAMETER = 18, /* accepted and ignored; reads 0 */
    ES_FAST_START = 19,       /* accepted and ignored; reads 0 */
    ES_MAX_EXP_US = 20,       /* longest exposure, microseconds */
    ES_MAX_GAIN_256 = 21,     /* highest gain, 1/256 steps */
    ES_FIXED_EXP_US = 22,     /* exposure of the fixed mode, microseconds */
    ES_FIXED_GAIN_256 = 23    /* gain of the fixed mode, 1/256 steps */
};

/* Exposure modes (VQXSI_SetExposureMode). */
enum VQX_EXPOSURE_MODE {
    VQX_EXPOSURE_FIXED = 0,
    VQX_EXPOSURE_FIXED_1 = 1,
    VQX_EXPOSURE_HISTOGRAM = 2,        /* the session default */
    VQX_EXPOSURE_CONTEXT_SENSITIVE = 3
};

/* ------------------------------------------------------------------------ */
/* Functions                                                                */
/* ------------------------------------------------------------------------ */

VQXSI_API VQXSI_HANDLE VQXSI_OpenSessionWithScanEngine(void);
VQXSI_API void VQXSI_CloseSessionWithScanEngine(VQXSI_HANDLE handle);
VQXSI_API void* VQXSI_GetNewScan(VQXSI_HANDLE handle);
VQXSI_API void* VQXSI_GetSingleFrame(VQXSI_HANDLE handle);
VQXSI_API VQXSI_BOOL VQXSI_StartScanning(VQXSI_HANDLE handle);
VQXSI_API VQXSI_BOOL VQXSI_StopScanning(VQXSI_HANDLE handle);
VQXSI_API VQXSI_BOOL VQXSI_UnlockBuffer(VQXSI_HANDLE handle, void* buffer);
VQXSI_API VQXSI_BOOL VQXSI_SetExposureMode(VQXSI_HANDLE handle, uint32_t mode);
VQXSI_API VQXSI_BOOL VQXSI_SetLights(VQXSI_HANDLE handle, VQX_SCANNER_LIGHTING* lights);
VQXSI_API VQXSI_BOOL VQXSI_GetLights(VQXSI_HANDLE handle, VQX_SCANNER_LIGHTING* lights);
VQXSI_API VQXSI_BOOL VQXSI_SetExposureSettings(VQXSI_HANDLE handle, const uint32_t* pairs, uint32_t size);
VQXSI_API VQXSI_BOOL VQXSI_GetExposureSettings(VQXSI_HANDLE handle, uint32_t* pairs, uint32_t size);
VQXSI_API VQXSI_BOOL VQXSI_GetScanEnginePropertiesEx(VQXSI_HANDLE handle, VQX_SCANENGINE_PROPERTIES_EX* properties, uint32_t size);
VQXSI_API VQXSI_BOOL VQXSI_GetScanDriverRevision(VQXSI_HANDLE handle, char* revision);
VQXSI_API const char* VQXSI_RevisionString(void);
VQXSI_API VQXSI_BOOL VQXSI_SetSleepTimeout(VQXSI_HANDLE handle, uint32_t milliseconds);
VQXSI_API VQXSI_BOOL VQXSI_GetSleepTimeout(VQXSI_HANDLE handle, uint32_t* milliseconds);

/* Debug output (also exported for the host process). */
VQXSI_API void dbg_output(const char* format, ...) __attribute__((format(printf, 1, 2)));
VQXSI_API void dbg_log(const char* format, ...) __attribute__((format(printf, 1, 2)));
VQXSI_API void dbg_log_dump(void);

#ifdef __cplusplus
} /* extern "C" */

#if defined(VQX_BUILDING_LIBRARY) || defined(VQX_INTERNAL)
/* Record layouts are part of the ABI. */
static_assert(sizeof(VQX_SCANNER_LIGHTING) == 28, "lighting record is 28 bytes");
static_assert(sizeof(VQX_IMAGE_ATTRIBUTES) == 40, "image attributes record is 40 bytes");
static_assert(sizeof(VQX_SCANENGINE_PROPERTIES_EX) == 224, "properties record is 224 bytes");
#endif
#endif

#endif /* VQX_SCAN_INTERFACE_H */
