/* vqxsim_c.h: C interface of the simulated scan engine for tools.
 *
 * libLmoKil.so exports vqxsim_frame_info so that a tool running the driver
 * on the simulator (vqxscan, benchmarks) can learn what really made a frame:
 * the exposure and gain the simulated sensor used. Nothing in the driver
 * uses it; a real hardware layer does not have it (look it up with dlsym).
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

#ifdef __cplusplus
}
#endif

#endif
