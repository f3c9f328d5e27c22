// Psoc: register cache of the scan engine's PSoC companion controller.
//
// The PSoC holds the engine's identity (engine id, serial number, revision,
// aimer offset) and drives the lights through one control register (0x32:
// bits 0-1 lights mode, bits 2-4 boost level). Each engine trait owns one
// Psoc built on its hardware layer; it reads the identity from the cached
// register image for the engine properties record and switches lights mode
// and boost through the cache, so an unchanged value costs no bus transfer.
//
// Register map (PSoC addresses):
//   0x00-0x03  engine id, big-endian
//   0x04-0x0D  serial number, 10 characters
//   0x1A-0x1D  aimer offset, 4 bytes
//   0x32       light control
//   0x38/0x39  revision, low and high part
//
// The cache covers registers 0x00 to 0x4F. read() and write() of a register
// beyond the cache go to the bus directly and are never cached.
//
// Every bus failure is returned as false and forgets the register's cached
// value; nothing is retried here.
//
// Threading: a Psoc is used by its trait under the sensor's monitor. The
// identity getters only read bytes that the cache never rewrites after
// init(), so they may be called without that monitor.
#ifndef VQX_PSOC_H
#define VQX_PSOC_H

#include <cstdint>

#include "IHwl.h"
#include "VQXScanInterface.h"

class Psoc {
public:
    /// Number of PSoC registers held in the cache (0x00 to 0x4F).
    static constexpr unsigned register_count = 80;
    /// The light control register.
    static constexpr unsigned char light_control = 0x32;

    /// Stores the interface (not owned); nothing is valid yet.
    explicit Psoc(IHwl_psoc* psoc);

    /// Reads all 80 registers in one transfer. On success the light control
    /// register becomes valid (the others keep their flags). False on a bus
    /// failure.
    bool init();
    /// Forgets the cached light control register (only that register), so
    /// that the next lights change reads it again.
    void invalidate();

    /// Cached read of one register; reads the bus when the register is not
    /// valid. False on a bus failure.
    bool read(unsigned char reg, unsigned char* out);
    /// Writes one register unless the cache already holds that value.
    bool write(unsigned char reg, unsigned char value);

    /// Replaces bits 0-1 of the light control register with @p mode & 3.
    bool set_lights_mode(unsigned char mode);
    /// Sets the boost level (0 to 2; larger levels are reported and taken as
    /// 2) in bits 2-4 of the light control register. Lowering is always
    /// done; raising only when @p raise is true.
    bool set_boost(unsigned char level, bool raise);

    /// PSoC lights code of a lights mode: modes 1..8 give 1, 2, 3, 3, 3, 0,
    /// 2, 1; any other mode 0 (all lights off). Bit 0 is the aimer, bit 1
    /// the illumination.
    static unsigned char get_lights_mode(_tagVQX_SCANNER_LIGHTING::LightsMode mode);
    /// The same for a mode as stored in a lighting record (any 32-bit value;
    /// converting such a value to the enumeration first would not be
    /// defined for values beyond it).
    static unsigned char get_lights_mode(uint32_t mode);

    // Identity, from the register image only (no bus transfer).
    /// Engine id, registers 0x00-0x03 big-endian, in host order.
    uint32_t get_engine_id() const;
    /// Register 0x38 plus register 0x39 times 2^32.
    uint64_t get_revision() const;
    /// Copies min(n, 11) - 1 serial number characters to @p out and ends
    /// them with a 0 byte; nothing when @p n is 0.
    void get_serial_no(char* out, unsigned long n) const;
    /// Copies the 4 aimer offset bytes (registers 0x1A-0x1D) as they are.
    void get_engine_aimer_offset(unsigned char* out) const;

private:
    IHwl_psoc* psoc;
    unsigned char image[register_count];
    bool valid[register_count];
};

#endif // VQX_PSOC_H
