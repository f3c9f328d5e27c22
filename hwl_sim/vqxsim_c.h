/* vqxsim_c.h: C interface of the simulated scan engine for tools.
 *
 * libLmoKil.so exports vqxsim_frame_info so that a tool running the driver
 * on the simulator (vqxscan, benchmarks) can learn what really made a frame:
 * the exposure and gain the simulated sensor used, and, for the soak
 * program, what it lent and got back and which faults are on. Nothing in the
 * driver uses them; a real hardware layer does not have them (look them up
 * with dlsym).
 */
#ifndef VQXSIM_C_H
#define VQXSIM_C_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vqxsim_frame_info {
    double exposure_us;          /* rows x line time + fine time, microseconds */
    uint32_t rows;               /* coarse integration time in rows */
    uint32_t fine;               /* fine integration time in pixel clocks */
    float gain;                  /* analog x digital gain, as a multiplier */
    uint16_t gain_code;          /* analog gain register value */
    uint16_t digital_gain_code;  /* digital gain register value (128 = 1.0) */
    uint64_t frame_number;       /* sensor frame number, 1 for the first frame */
};

/* Fills *out for the frame currently in the simulator buffer that contains
 * buffer_address (any address inside a buffer). Returns 0 on success, -1
 * when the address is in no simulator buffer, no frame has been put in that
 * buffer yet, or out is null. Thread-safe. */
__attribute__((visibility("default")))
int vqxsim_frame_info(const void* buffer_address, struct vqxsim_frame_info* out);

/* What the hardware layer lent and got back, for a tool that checks that
 * every buffer returns (the soak program). */
struct vqxsim_counters {
    uint64_t sensor_frames;     /* frames the sensor produced */
    uint64_t frames_delivered;  /* frames announced with their own buffer (lent to the driver) */
    uint64_t frames_returned;   /* announced frames whose buffer came back */
    uint64_t frames_held;       /* frames a hold_frames fault held back */
    uint64_t frames_dropped;    /* drop fault */
    uint32_t buffers_lent;      /* buffers announced and not yet back */
    uint32_t buffers_armed;     /* buffers given to the transfer */
    uint64_t stop_requests;
    uint64_t register_failures; /* injected read and write failures */
};

/* Fills *out with the environment-built instance's counters. Returns 0, or
 * -1 when the process has no such instance or out is null. */
__attribute__((visibility("default")))
int vqxsim_counters(struct vqxsim_counters* out);

/* Replaces the environment-built instance's faults with a fault list in the
 * VQXSIM_FAULTS form ("" clears them all). Returns 0, or -1 (nothing
 * changed) on a malformed list or when there is no such instance. */
__attribute__((visibility("default")))
int vqxsim_set_faults(const char* faults);

/* Ends a hold_frames fault's backlog: announces every held frame late
 * (release != 0) or loses them (release == 0). Returns the number of frames,
 * or -1 when there is no environment-built instance. */
__attribute__((visibility("default")))
int vqxsim_end_held_frames(int release);

#ifdef __cplusplus
}
#endif

#endif
