// Sensor_model.h: the engine models of the simulated scan engine.
//
// A Sensor_model is one engine type's image sensor: its register file and
// what the registers mean (streaming control, frame counter and status,
// exposure, gain, clocks, read-out orientation), its resolution, and the
// hardware-layer interface the engine is reached through. Everything that is
// not the sensor (buffers, frame timing, lights, PSoC, faults, scene) lives in
// Sim_core and is shared by all models. One model per file
// (Model_AR0144.cpp, ...); make_sensor_model picks one by engine type.
//
// Register access follows the I2C byte model of the hardware layer: the
// register file is 64 KiB of bytes; a 16-bit register is two bytes, high
// byte first. WriteReg/ReadReg lengths count bytes: length 1 moves one byte
// (an 8-bit register), length 2n moves n 16-bit words at the address,
// address + 2, ... Any other length is refused.
//
// Threads: a model has no lock; Sim_core calls it with its own lock held.
#ifndef VQXSIM_SENSOR_MODEL_H
#define VQXSIM_SENSOR_MODEL_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "IHwl.h"
#include "Simulator.h"

namespace vqxsim {

class Sim_core;

/// What one sensor frame uses, as the sensor really applied it.
struct Frame_settings {
    uint16_t frame_count = 0;  ///< frame counter after this frame
    uint32_t rows = 0;
    uint32_t fine = 0;
    double line_time_us = 0.0;
    double exposure_us = 0.0;
    double analog_gain = 1.0;
    double digital_gain = 1.0;
    uint16_t analog_code = 0;
    uint16_t digital_code = 0;
    bool vflip = false;  ///< read-out flipped top to bottom
    bool hflip = false;  ///< read-out mirrored left to right
};

/// 64 KiB register file with big-endian 16-bit access.
class Register_file {
public:
    Register_file() : bytes(0x10000, 0) {}
    uint8_t byte(unsigned address) const { return bytes[address & 0xFFFF]; }
    void set_byte(unsigned address, uint8_t value) { bytes[address & 0xFFFF] = value; }
    uint16_t word(unsigned address) const
    { return static_cast<uint16_t>(byte(address) << 8 | byte(address + 1)); }
    void set_word(unsigned address, uint16_t value)
    {
        set_byte(address, static_cast<uint8_t>(value >> 8));
        set_byte(address + 1, static_cast<uint8_t>(value));
    }
    /// Byte count of a transfer, or 0 when the length is refused or the
    /// transfer would run past the end of the register space.
    static uint64_t transfer_bytes(unsigned address, uint64_t length)
    {
        if (length == 0 || (length != 1 && length % 2 != 0))
            return 0;
        return (address > 0xFFFF || length > 0x10000 - address) ? 0 : length;
    }
    /// Copies a transfer in (values as in WriteReg) or out (as in ReadReg).
    void store(unsigned address, const uint16_t* values, uint64_t length);
    void load(unsigned address, uint16_t* values, uint64_t length) const;

private:
    std::vector<uint8_t> bytes;
};

/// One register's power-on value, in a model's table of them.
struct Register_value {
    uint16_t address;
    uint16_t value;
};

/// True when a transfer of @p length bytes at @p address touches the
/// @p reg_bytes bytes of register @p reg.
inline bool overlaps(unsigned address, uint64_t length, unsigned reg, unsigned reg_bytes)
{
    return address < reg + reg_bytes && reg < address + length;
}

class Sensor_model {
public:
    virtual ~Sensor_model() = default;

    virtual const char* engine_type() const = 0;
    virtual unsigned width() const = 0;
    virtual unsigned height() const = 0;
    /// The engine's hardware-layer object, forwarding to @p core.
    virtual std::unique_ptr<IHwl> make_hwl(Sim_core& core) = 0;

    /// Register transfers (see the file comment); false on a refused
    /// length or address. Only called while the sensor is supplied.
    virtual bool write(unsigned address, const uint16_t* values, uint64_t length) = 0;
    virtual bool read(unsigned address, uint16_t* values, uint64_t length) = 0;
    /// Register value for inspection, as a read would return it.
    virtual uint16_t peek(unsigned address) = 0;
    /// True when a transfer touches the streaming control.
    virtual bool is_stream_control(unsigned address, uint64_t length) const = 0;

    /// Supply on or off: both restore the power-on register values.
    virtual void set_supply(bool on) = 0;
    virtual void set_standby(bool standby) = 0;
    /// A stalled transfer shows in the status registers.
    virtual void set_stalled(bool stalled) = 0;
    virtual bool streaming() const = 0;
    /// Frames between a control write and the frame it shapes: a write of
    /// exposure made during sensor frame k's period shapes frame
    /// k + frame_latency(), a write of gain frame k + gain_latency() (see
    /// Control_pipeline.h, which applies both).
    virtual unsigned frame_latency() const = 0;
    virtual unsigned gain_latency() const { return frame_latency(); }
    /// Light the sensor turns into signal, relative to the simulator's
    /// reference engine (X7710: 1): each engine's optics and pixels.
    virtual double sensitivity() const { return 1.0; }

    /// Sensors with firmware of their own act some time after a register
    /// access (a command completes, a reset finishes). next_event() is the
    /// next moment such an action is due (max() when none is), and
    /// run_until(now) carries out what is due by @p now. Sim_core calls
    /// run_until before every register access and when next_event() comes,
    /// and looks at streaming() afterwards.
    using Clock = std::chrono::steady_clock;
    virtual Clock::time_point next_event() const { return Clock::time_point::max(); }
    virtual void run_until(Clock::time_point now) { (void)now; }
    /// The exposure and gain controls as the registers hold them now, in the
    /// form a frame taken with them would use.
    virtual Frame_settings controls() const = 0;
    /// One sensor frame's readout starts: advances the frame counter and
    /// fills what acts at once (frame count, read-out orientation) into
    /// @p frame, which holds the latched controls.
    virtual void begin_frame(Frame_settings& frame) = 0;
    /// The faults in force changed (Simulator::update_faults): a model with
    /// faults of its own takes their new triggers.
    virtual void faults_changed(const Faults& faults) { (void)faults; }
};

/// The model of @p config's engine, or null with a message when none exists.
std::unique_ptr<Sensor_model> make_sensor_model(const Config& config, std::string* error);

std::unique_ptr<Sensor_model> make_model_AR0144(const Config& config);
std::unique_ptr<Sensor_model> make_model_MT9M114(const Config& config);
std::unique_ptr<Sensor_model> make_model_MT9V022(const Config& config);
std::unique_ptr<Sensor_model> make_model_Hi704A(const Config& config);
std::unique_ptr<Sensor_model> make_model_Kelp(const Config& config);
std::unique_ptr<Sensor_model> make_model_Aptina(const Config& config);

}  // namespace vqxsim

#endif
