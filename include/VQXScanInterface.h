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
 *  - A null session handle makes every function that takes one set errno to
 *    EINVAL and return 0 (or NULL), except where a function says otherwise
 *    (close, revision and sleep time-out functions). A NULL record pointer
 *    where a record is needed is EINVAL too. errno is left alone on success
 *    and on the other failures (each function says what 0 means).
 *  - Every function may be called from any thread.
 *
 * Typical sequence
 *     VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
 *     VQXSI_SetLights(h, &lights);             (optional)
 *     VQXSI_SetExposureSettings(h, pairs, n);  (optional)
 *     VQXSI_StartScanning(h);
 *     while (want more) {
 *         void* frame = VQXSI_GetNewScan(h);   (up to 30 s)
 *         ... decode ...
 *         VQXSI_UnlockBuffer(h, frame);
 *     }
 *     VQXSI_StopScanning(h);
 *     VQXSI_CloseSessionWithScanEngine(h);
 */
#ifndef VQX_SCAN_INTERFACE_H
#define VQX_SCAN_INTERFACE_H

#include <stddef.h>
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

/*
 * Sessions serialise their own calls: every call on a handle waits for the
 * call in progress on the same session (from another thread) to finish, so
 * its blocking bound adds to the one given for each function below. A
 * VQXSI_GetNewScan waiting for a frame keeps its session busy for up to
 * 30 s; calls on other sessions are not held up by it.
 *
 * Handles are checked: a handle that is not an open session (NULL, closed
 * already, never opened, or any other value) makes every function that
 * takes one return 0 (or NULL) with errno set to EINVAL, touching nothing
 * ("stale handle" below); the exceptions are the NULL forms of the sleep
 * time-out functions and VQXSI_CloseSessionWithScanEngine(NULL).
 */

/*
 * Opens a session with the scan engine.
 *
 * The first successful open in the process starts the driver: it loads the
 * hardware layer (libLmoKil, InitHWLayer), selects the engine's support from
 * the engine type the layer reports and powers the engine. Each open returns
 * a new handle with its own lights, exposure settings and engine properties
 * (defaults: see VQX_SCANNER_LIGHTING and the ES_* tags).
 *
 * Result: the handle, or NULL when no hardware layer is available, the
 * engine type is not supported (the reason is written to the debug log), or
 * the engine cannot be opened. A failed start-up is tried again by the next
 * open. errno is not set.
 * Blocks: while the driver starts and the engine powers up (the hardware
 * layer's power-up and register loading, tens of milliseconds), and while
 * another thread opens or closes a session.
 */
VQXSI_API VQXSI_HANDLE VQXSI_OpenSessionWithScanEngine(void);

/*
 * Closes a session and destroys the handle; the handle must not be used
 * again. A scan the session left running is stopped, every frame it still
 * holds is given back, an idle-lights hold is released, and the engine is
 * powered down when no other session is open.
 *
 * handle: a handle from VQXSI_OpenSessionWithScanEngine; NULL is accepted
 *         and does nothing. A handle that is not an open session (closed
 *         already, never opened) changes nothing and sets errno to EINVAL.
 *         A call on the session still in progress in another thread
 *         finishes first.
 * Blocks: up to 2 s waiting for a running scan to stop, plus the session's
 * call in progress, and while another thread opens or closes a session.
 */
VQXSI_API void VQXSI_CloseSessionWithScanEngine(VQXSI_HANDLE handle);

/*
 * Waits for the next completed frame and hands it to the client.
 *
 * The frame is height x width bytes, one byte (8-bit grey) per pixel, rows
 * top to bottom (the image_height / image_width of
 * VQXSI_GetScanEnginePropertiesEx). It belongs to the client until
 * VQXSI_UnlockBuffer, or until the session's scanning ends
 * (VQXSI_StopScanning of its last start, or close), when every frame the
 * client still holds is taken back.
 *
 * Result: the frame's address, or NULL when the session is not scanning
 *         (at once), no frame came within 30 s, the capture stalled (before
 *         the first frame after the engine's resume time and its retries,
 *         afterwards 2 s after the last frame; in capture modes 6 and 7
 *         every triggered frame gets the retries), the stream is stopped
 *         (its start failed, or a single-image scan ended it: at once), the
 *         engine's capture mode cannot capture (capture mode 1: at once),
 *         or every buffer is held by the client (at once: give frames back).
 *         While clients (of all sessions together) hold every buffer but
 *         one, the driver keeps that one to capture into and takes each new
 *         frame back at once: this call then waits until some client gives
 *         a buffer back (or 30 s), and the platform log says "All image
 *         buffers but one are held by clients".
 * errno: EINVAL for a handle that is not an open session (NULL, closed,
 *        never opened); otherwise unchanged.
 * Blocks: up to 30 s.
 */
VQXSI_API void* VQXSI_GetNewScan(VQXSI_HANDLE handle);

/*
 * Takes one frame: starts a single-image scan (the driver stops streaming at
 * the first frame that meets the exposure target) and waits for the frame.
 *
 * On success the frame is returned with scanning still started and an extra
 * scan lock held by the session: give the frame back with VQXSI_UnlockBuffer
 * and end the start with VQXSI_StopScanning. The extra scan lock is released
 * only when the session is closed, so frames the client keeps after
 * VQXSI_StopScanning are reclaimed at close.
 * On failure: NULL. If the scan could not be started, the extra scan lock
 * stays held; if no frame came, the scan lock is released but the start is
 * not undone (call VQXSI_StopScanning).
 *
 * errno: EINVAL for a NULL or stale handle.
 * Blocks: as VQXSI_StartScanning followed by VQXSI_GetNewScan (up to 30 s).
 */
VQXSI_API void* VQXSI_GetSingleFrame(VQXSI_HANDLE handle);

/*
 * Starts scanning for this session. Starts nest: each successful
 * VQXSI_StartScanning needs one VQXSI_StopScanning; only the first start of
 * a session switches the engine to streaming (with this session's lights and
 * exposure settings; with several sessions the one that started last sets
 * them).
 *
 * Result: 1 for any valid session: the start is recorded. When the engine
 * refuses to stream, the start stays recorded (the driver tries the stream
 * again at its next power check) and VQXSI_GetNewScan answers NULL at once;
 * so it does when the engine's capture mode cannot capture (capture mode 1,
 * reported as "This capture mode is not implemented." in the platform log).
 * errno: EINVAL for a NULL or stale handle.
 * Blocks: while the engine wakes or powers up (tens of milliseconds).
 */
VQXSI_API VQXSI_BOOL VQXSI_StartScanning(VQXSI_HANDLE handle);

/*
 * Ends one start of scanning. The last one stops the stream (without waiting
 * for the hardware to confirm) and takes back every frame the client still
 * holds, unless an extra scan lock is held (see VQXSI_GetSingleFrame).
 *
 * Result: 1, or 0 when the session was not scanning.
 * errno: EINVAL for a NULL or stale handle.
 * Blocks: no longer than the session's call in progress.
 */
VQXSI_API VQXSI_BOOL VQXSI_StopScanning(VQXSI_HANDLE handle);

/*
 * Gives a frame from VQXSI_GetNewScan or VQXSI_GetSingleFrame back to the
 * driver, which can then capture into it again.
 *
 * Result: 1, or 0 when the address is no frame of the driver, the frame is
 * not held by the client (given back already, or reclaimed when scanning
 * ended).
 * errno: EINVAL for a NULL or stale handle.
 * Blocks: no longer than the session's call in progress.
 */
VQXSI_API VQXSI_BOOL VQXSI_UnlockBuffer(VQXSI_HANDLE handle, void* buffer);

/*
 * Sets the session's exposure mode (VQX_EXPOSURE_MODE; 3 and above select
 * context-sensitive auto exposure). Every other exposure setting is kept.
 * A running scan of this session applies the change at once; otherwise it
 * applies at the next start.
 *
 * Result: 1.
 * errno: EINVAL for a NULL or stale handle (result 0).
 * Blocks: no longer than the session's call in progress.
 */
VQXSI_API VQXSI_BOOL VQXSI_SetExposureMode(VQXSI_HANDLE handle, uint32_t mode);

/*
 * Sets the session's lights. The first lights->size bytes of the record
 * (at most 28) replace the session's values; fields beyond them keep theirs.
 * The engine's lights follow at once. A non-zero idle_mode keeps the engine
 * from sleeping until it is set back to 0 or the session closes.
 *
 * Result: 1.
 * errno: EINVAL for a NULL or stale handle or a NULL lights (result 0).
 * Blocks: no longer than the session's call in progress.
 */
VQXSI_API VQXSI_BOOL VQXSI_SetLights(VQXSI_HANDLE handle, VQX_SCANNER_LIGHTING* lights);

/*
 * Reads the session's lights: copies n = min(lights->size, 28) bytes and sets
 * lights->size to n.
 *
 * Result: 1.
 * errno: EINVAL for a NULL or stale handle or a NULL lights (result 0).
 * Blocks: no longer than the session's call in progress.
 */
VQXSI_API VQXSI_BOOL VQXSI_GetLights(VQXSI_HANDLE handle, VQX_SCANNER_LIGHTING* lights);

/*
 * Sets exposure settings from (tag, value) pairs of VQX_EXPOSURE_TAG tags.
 *
 * pairs: size / 8 pairs of two uint32_t words (a remainder of size is
 *        ignored), applied in order; a later pair for the same setting wins.
 *        Unknown tags, ES_FAST_START and ES_DECODE_PARAMETER are skipped.
 * size:  the array's size in bytes.
 * Result: 1 (also when tags were skipped). A running scan of this session
 * applies the change at once; otherwise it applies at the next start.
 * errno: EINVAL for a NULL or stale handle, or a NULL pairs with size 8 or more
 * (result 0).
 * Blocks: no longer than the session's call in progress.
 */
VQXSI_API VQXSI_BOOL VQXSI_SetExposureSettings(VQXSI_HANDLE handle, const uint32_t* pairs, uint32_t size);

/*
 * Reads exposure settings into (tag, value) pairs: the caller fills in the
 * tags, the library writes each value (0 for unknown and ignored tags).
 * Tags that name a setting in other units convert: ES_MAX_EXP and
 * ES_FIXED_EXP in whole 127 us steps (truncated), ES_MAX_GAIN and
 * ES_FIXED_GAIN in whole gain steps (truncated).
 *
 * Result: 1.
 * errno: EINVAL for a NULL or stale handle, or a NULL pairs with size 8 or more
 * (result 0).
 * Blocks: no longer than the session's call in progress.
 */
VQXSI_API VQXSI_BOOL VQXSI_GetExposureSettings(VQXSI_HANDLE handle, uint32_t* pairs, uint32_t size);

/*
 * Reads the engine's properties.
 *
 * Clears `size` bytes at `properties`, then copies the first min(size, 224)
 * bytes of the session's record: the caller's record may be shorter (only
 * the fields it holds are written) or longer (the bytes past 224 read 0).
 * buffer_count is the number of image buffers the driver has loaded, 0
 * before the engine has streamed for the first time; from then on every
 * session reads the number, also a session opened before that first scan.
 *
 * Result: 1.
 * errno: EINVAL for a NULL or stale handle, or a NULL properties with a non-zero size
 * (result 0).
 * Blocks: no longer than the session's call in progress.
 */
VQXSI_API VQXSI_BOOL VQXSI_GetScanEnginePropertiesEx(VQXSI_HANDLE handle, VQX_SCANENGINE_PROPERTIES_EX* properties, uint32_t size);

/*
 * Writes the driver's revision "2.138" and its terminating NUL (6 bytes) to
 * `revision`, which must hold them. The handle is not used (NULL is fine).
 *
 * Result: 1.
 * errno: EINVAL for a NULL revision (result 0).
 * Blocks: never.
 */
VQXSI_API VQXSI_BOOL VQXSI_GetScanDriverRevision(VQXSI_HANDLE handle, char* revision);

/*
 * Result: the constant text "Revision: 2.138". Blocks: never.
 */
VQXSI_API const char* VQXSI_RevisionString(void);

/*
 * Sets the sleep time-out: the time an open, idle engine (no session
 * scanning, no idle lights) stays powered before it is put to sleep. 0 turns
 * sleeping off (and wakes a sleeping engine). The next start of scanning
 * wakes a sleeping engine.
 *
 * handle: a session: sets the driver's time-out at once (for every
 *         session); NULL: sets the default that the driver takes when the
 *         first session of the process (or the first after all were closed)
 *         is opened. The default starts as 0.
 * Result: 1 (0 with errno EINVAL for a stale handle).
 * Blocks: with a session, no longer than its call in progress; with NULL,
 * while another thread opens or closes a session.
 */
VQXSI_API VQXSI_BOOL VQXSI_SetSleepTimeout(VQXSI_HANDLE handle, uint32_t milliseconds);

/*
 * Reads the sleep time-out in milliseconds: the driver's (with a session) or
 * the default (with NULL; the last value given to
 * VQXSI_SetSleepTimeout(NULL, ...), 0 if none).
 *
 * Result: 1.
 * errno: EINVAL for a NULL milliseconds (result 0), also with a NULL handle,
 *        and for a stale handle.
 * Blocks: as VQXSI_SetSleepTimeout.
 */
VQXSI_API VQXSI_BOOL VQXSI_GetSleepTimeout(VQXSI_HANDLE handle, uint32_t* milliseconds);

/*
 * Debug output, also exported for the host process.
 *  dbg_output:   one formatted line to the platform log (tag "ScnDrv").
 *  dbg_log:      appends formatted text to the in-memory debug log (256 KiB;
 *                text beyond it is dropped until the next dump).
 *  dbg_log_dump: prints the in-memory log to standard output. Call it from
 *                the thread that writes the log: from any other thread it
 *                may wait for ever.
 */
VQXSI_API void dbg_output(const char* format, ...) __attribute__((format(printf, 1, 2)));
VQXSI_API void dbg_log(const char* format, ...) __attribute__((format(printf, 1, 2)));
VQXSI_API void dbg_log_dump(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

/* Record layouts are part of the ABI (checked in C99 and C++ alike). */
#define VQXSI_LAYOUT_CHECK(name, condition) typedef char name[(condition) ? 1 : -1]
VQXSI_LAYOUT_CHECK(vqxsi_lighting_is_28_bytes, sizeof(VQX_SCANNER_LIGHTING) == 28);
VQXSI_LAYOUT_CHECK(vqxsi_image_attributes_are_40_bytes, sizeof(VQX_IMAGE_ATTRIBUTES) == 40);
VQXSI_LAYOUT_CHECK(vqxsi_properties_are_224_bytes, sizeof(VQX_SCANENGINE_PROPERTIES_EX) == 224);
VQXSI_LAYOUT_CHECK(vqxsi_serial_number_at_52, offsetof(VQX_SCANENGINE_PROPERTIES_EX, serial_number) == 52);
VQXSI_LAYOUT_CHECK(vqxsi_engine_id_at_136, offsetof(VQX_SCANENGINE_PROPERTIES_EX, engine_id) == 136);
VQXSI_LAYOUT_CHECK(vqxsi_discarded_at_36, offsetof(VQX_IMAGE_ATTRIBUTES, discarded) == 36);
#undef VQXSI_LAYOUT_CHECK

#endif /* VQX_SCAN_INTERFACE_H */
