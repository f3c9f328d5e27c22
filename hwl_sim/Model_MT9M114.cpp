// Model_MT9M114.cpp: the MT9M114 sensor of the "X5501" and "X5503" engines.
//
// 1280 x 800, 8-bit output, about 60 frames a second at the engine's 925
// frame lines of 1726 pixel clocks at 96 MHz (the simulator's frame clock
// sets the real rate). Registers the model gives meaning to (16-bit; the
// firmware variables at 0xC800-0xDCFF are 8 or 16 bits, a 16-bit access is
// big-endian over two bytes):
//   0x0000        chip id 0x2481 (read only)
//   0x001A        reset control: bit 0 set restores the power-on values and
//                 restarts the firmware, which then needs Config::boot_ms
//                 (45 ms by default) before it completes commands
//   0x0080        host command: bit 0 apply patch, bit 1 set state, bit 2
//                 refresh, bit 3 wait for event, bit 15 OK. A written
//                 command reads back with its bits set until the firmware
//                 completes it, Config::command_ms later (5 ms by default;
//                 after a reset or power-on not before the boot time is
//                 over); then it reads 0x8000 on success and 0x0000 with the
//                 status in 0xDC02 on failure. Only set state acts; the
//                 others complete with success and no effect.
//   0x098E/0x0990 logical address access: a write of 0x0990 stores into the
//                 variable at the address held in 0x098E, a read reads it
//                 (writing the pair 0x098E, 0x0990 in one transfer selects
//                 the variable and writes it)
//   0xDC00 (8)    system state to request (set state)
//   0xDC01 (8)    current system state (read only): 0x31 streaming, 0x52
//                 standby, 0x41 suspended
//   0xDC02 (8)    status of the last set state (read only): 0x00 no error,
//                 0x0C invalid request
//   0x3012        integration rows; 0x300A frame length lines; 0x305E gain
//                 (bits 15:12 digital gain as a whole multiple, bits 7:6 e,
//                 bits 5:0 m: analog gain (m << e) / 64)
//   0xC812/0xC83C/0xC836  camera-control frame length, integration rows and
//                 analog gain (1/64 units); 0xC834 read mode (bit 0 mirror,
//                 bit 1 flip). A config change (state 0x28) copies them into
//                 the sensor core (the gain encoded as 0x1000 | e << 6 | m).
// Every other register is plain storage with power-on value 0.
//
// System states requested with set state: 0x28 (apply the configuration,
// then stream) and 0x34 go to streaming from any state; 0x50 goes to
// standby; 0x54 leaves standby for streaming and is refused (status 0x0C)
// in any other state; 0x40 suspends; any other request is refused. At
// power-on and after a reset the firmware streams (state 0x31) once it has
// booted. The sensor makes frames only while it streams: standby and
// suspend stop them for real.
//
// Frame latency. The X5501 engine's trait credits a frame with the rows it
// wrote three frame periods before and the gain it wrote two periods before
// (its 3- and 2-deep histories); the model follows that arithmetic:
// integration rows and frame length take effect three frames after the
// period in which they are written, the gain two (Control_pipeline applies
// both).
//
// Faults (Config::faults, counted per host command): command_hang leaves a
// command pending for good (a reset or power cycle clears it);
// command_error completes a set state with status 0x0C.
//
// Where the public facts and the driver's own arithmetic differ, the model
// follows the driver: a row lasts 1726 / 96 microseconds, as the trait's
// rows-from-microseconds rule assumes.
#include <algorithm>
#include <memory>

#include "Fault_gate.h"
#include "Hwl_face.h"
#include "Sensor_model.h"

namespace vqxsim {
namespace {

constexpr unsigned kWidth = 1280;
constexpr unsigned kHeight = 800;
constexpr double kRowUs = 1726.0 / 96.0;

enum Reg : unsigned {
    CHIP_ID = 0x0000,
    RESET_CONTROL = 0x001A,
    HOST_COMMAND = 0x0080,
    LOGICAL_ADDRESS = 0x098E,
    LOGICAL_DATA = 0x0990,
    FRAME_LENGTH = 0x300A,
    INTEGRATION = 0x3012,
    GAIN = 0x305E,
    CAM_FRAME_LENGTH = 0xC812,
    CAM_LINE_LENGTH = 0xC814,
    CAM_READ_MODE = 0xC834,
    CAM_GAIN = 0xC836,
    CAM_INTEGRATION = 0xC83C,
    NEXT_STATE = 0xDC00,
    CURRENT_STATE = 0xDC01,
    COMMAND_STATUS = 0xDC02,
};

enum State : uint8_t {
    CONFIG_CHANGE = 0x28,
    STREAMING = 0x31,
    START_STREAMING = 0x34,
    ENTER_SUSPEND = 0x40,
    SUSPENDED = 0x41,
    ENTER_STANDBY = 0x50,
    STANDBY = 0x52,
    LEAVE_STANDBY = 0x54,
};

constexpr uint16_t COMMAND_BITS = 0x000F;
constexpr uint16_t SET_STATE = 0x0002;
constexpr uint16_t COMMAND_OK = 0x8000;
constexpr uint8_t STATUS_INVALID = 0x0C;

const Register_value kPowerOn[] = {
    {CHIP_ID, 0x2481},         {FRAME_LENGTH, 925},    {INTEGRATION, 16},
    {GAIN, 0x1060},            {CAM_FRAME_LENGTH, 925}, {CAM_LINE_LENGTH, 1726},
    {CAM_INTEGRATION, 16},     {CAM_GAIN, 64},
};

// The X5503 engine is an X5501 engine in every respect but the type its
// hardware layer reports.
class IHwl_x5503 : public IHwl_x5501 {
public:
    const char* EngineType() override { return "X5503"; }
};

uint16_t encode_gain(unsigned gain_64)
{
    unsigned m = gain_64 & 0xFFFF, e = 0;
    while (m > 63 && e < 3) {
        m >>= 1;
        ++e;
    }
    return static_cast<uint16_t>(0x1000 | (e << 6) | (m & 63));
}

class Model_MT9M114 : public Sensor_model {
public:
    explicit Model_MT9M114(const Config& config)
        : engine(config.engine == "X5503" ? "X5503" : "X5501"),
          command_time(std::chrono::milliseconds(config.command_ms)),
          boot_time(std::chrono::milliseconds(config.boot_ms)),
          hang_gate(config.faults.command_hang, config.seed, "command_hang"),
          error_gate(config.faults.command_error, config.seed, "command_error")
    {
        power_on_values();
    }

    const char* engine_type() const override { return engine; }
    unsigned width() const override { return kWidth; }
    unsigned height() const override { return kHeight; }
    std::unique_ptr<IHwl> make_hwl(Sim_core& core) override
    {
        if (engine[4] == '3')
            return std::make_unique<Hwl_face<IHwl_x5503>>(core);
        return std::make_unique<Hwl_face<IHwl_x5501>>(core);
    }

    bool write(unsigned address, const uint16_t* values, uint64_t length) override;
    bool read(unsigned address, uint16_t* values, uint64_t length) override;
    uint16_t peek(unsigned address) override { return address == HOST_COMMAND ? command_register() : regs.word(address); }
    bool is_stream_control(unsigned address, uint64_t length) const override
    { return overlaps(address, length, HOST_COMMAND, 2); }

    void set_supply(bool) override { power_on_values(); }
    void set_standby(bool) override {}
    void set_stalled(bool) override {}
    bool streaming() const override { return state() == STREAMING && !booting; }
    unsigned frame_latency() const override { return 3; }
    unsigned gain_latency() const override { return 2; }
    Frame_settings controls() const override;
    void begin_frame(Frame_settings& frame) override;
    Clock::time_point next_event() const override;
    void run_until(Clock::time_point now) override;
    void faults_changed(const Faults& faults) override
    {
        hang_gate.retarget(faults.command_hang);
        error_gate.retarget(faults.command_error);
    }

private:
    void power_on_values();
    uint8_t state() const { return regs.byte(CURRENT_STATE); }
    uint16_t command_register() const;
    void store_word(unsigned address, uint16_t value);
    void complete_command();
    uint8_t apply_state_request(uint8_t request);

    const char* engine;
    const Clock::duration command_time;
    const Clock::duration boot_time;
    Fault_gate hang_gate;
    Fault_gate error_gate;
    Register_file regs;
    uint16_t frame_count = 0;
    bool booting = false;
    Clock::time_point boot_done;
    uint16_t pending = 0;          ///< command bits not yet completed
    bool hung = false;             ///< the pending command never completes
    Clock::time_point command_due;
    uint16_t command_result = 0;   ///< 0x0080 once no command is pending
    bool vflip = false, hflip = false;
};

void Model_MT9M114::power_on_values()
{
    regs = Register_file();
    for (const Register_value& r : kPowerOn)
        regs.set_word(r.address, r.value);
    regs.set_byte(NEXT_STATE, STREAMING);
    regs.set_byte(CURRENT_STATE, STREAMING);
    pending = 0;
    hung = false;
    command_result = 0;
    frame_count = 0;
    vflip = hflip = false;
    booting = true;
    boot_done = Clock::now() + boot_time;
}

uint16_t Model_MT9M114::command_register() const
{
    return pending != 0 ? pending : command_result;
}

Model_MT9M114::Clock::time_point Model_MT9M114::next_event() const
{
    Clock::time_point t = Clock::time_point::max();
    if (booting)
        t = boot_done;
    if (pending != 0 && !hung)
        t = std::min(t, std::max(command_due, booting ? boot_done : command_due));
    return t;
}

void Model_MT9M114::run_until(Clock::time_point now)
{
    if (booting && now >= boot_done)
        booting = false;
    if (pending != 0 && !hung && !booting && now >= command_due)
        complete_command();
}

uint8_t Model_MT9M114::apply_state_request(uint8_t request)
{
    switch (request) {
    case CONFIG_CHANGE:
        regs.set_word(FRAME_LENGTH, regs.word(CAM_FRAME_LENGTH));
        regs.set_word(INTEGRATION, regs.word(CAM_INTEGRATION));
        regs.set_word(GAIN, encode_gain(regs.word(CAM_GAIN)));
        hflip = (regs.word(CAM_READ_MODE) & 1) != 0;
        vflip = (regs.word(CAM_READ_MODE) & 2) != 0;
        regs.set_byte(CURRENT_STATE, STREAMING);
        return 0;
    case START_STREAMING:
        regs.set_byte(CURRENT_STATE, STREAMING);
        return 0;
    case ENTER_STANDBY:
        regs.set_byte(CURRENT_STATE, STANDBY);
        return 0;
    case LEAVE_STANDBY:
        if (state() != STANDBY)
            return STATUS_INVALID;
        regs.set_byte(CURRENT_STATE, STREAMING);
        return 0;
    case ENTER_SUSPEND:
        regs.set_byte(CURRENT_STATE, SUSPENDED);
        return 0;
    default:
        return STATUS_INVALID;
    }
}

void Model_MT9M114::complete_command()
{
    uint8_t status = 0;
    if (pending & SET_STATE)
        status = error_gate.next() ? STATUS_INVALID : apply_state_request(regs.byte(NEXT_STATE));
    pending = 0;
    regs.set_byte(COMMAND_STATUS, status);
    command_result = status == 0 ? COMMAND_OK : 0;
}

void Model_MT9M114::store_word(unsigned address, uint16_t value)
{
    switch (address) {
    case CHIP_ID:
        return;
    case HOST_COMMAND:
        if ((value & COMMAND_BITS) == 0)
            return;
        pending = value & COMMAND_BITS;
        hung = hang_gate.next();
        command_due = Clock::now() + command_time;
        if (booting)
            command_due = std::max(command_due, boot_done + command_time);
        return;
    case RESET_CONTROL:
        if (value & 1)
            power_on_values();
        regs.set_word(RESET_CONTROL, value);
        return;
    case LOGICAL_DATA: {
        const unsigned target = regs.word(LOGICAL_ADDRESS);
        if (target != LOGICAL_DATA && target != LOGICAL_ADDRESS && target != HOST_COMMAND)
            store_word(target, value);
        return;
    }
    default:
        break;
    }
    // The current state and the command status are the firmware's own.
    const uint8_t current = regs.byte(CURRENT_STATE), status = regs.byte(COMMAND_STATUS);
    regs.set_word(address, value);
    regs.set_byte(CURRENT_STATE, current);
    regs.set_byte(COMMAND_STATUS, status);
}

bool Model_MT9M114::write(unsigned address, const uint16_t* values, uint64_t length)
{
    if (Register_file::transfer_bytes(address, length) == 0)
        return false;
    run_until(Clock::now());
    if (length == 1) {
        if (address != CURRENT_STATE && address != COMMAND_STATUS)
            regs.set_byte(address, static_cast<uint8_t>(values[0]));
        return true;
    }
    for (uint64_t i = 0; i < length / 2; ++i)
        store_word(address + static_cast<unsigned>(2 * i), values[i]);
    return true;
}

bool Model_MT9M114::read(unsigned address, uint16_t* values, uint64_t length)
{
    if (Register_file::transfer_bytes(address, length) == 0)
        return false;
    run_until(Clock::now());
    if (length == 1) {
        values[0] = regs.byte(address);
        return true;
    }
    for (uint64_t i = 0; i < length / 2; ++i) {
        const unsigned a = address + static_cast<unsigned>(2 * i);
        if (a == HOST_COMMAND)
            values[i] = command_register();
        else if (a == LOGICAL_DATA)
            values[i] = regs.word(regs.word(LOGICAL_ADDRESS));
        else
            values[i] = regs.word(a);
    }
    return true;
}

Frame_settings Model_MT9M114::controls() const
{
    Frame_settings f;
    f.rows = regs.word(INTEGRATION);
    f.line_time_us = kRowUs;
    f.exposure_us = double(f.rows) * kRowUs;
    const uint16_t gain = regs.word(GAIN);
    f.analog_code = gain & 0xFF;
    f.digital_code = gain >> 12;
    f.analog_gain = double(unsigned(gain & 63) << ((gain >> 6) & 3)) / 64.0;
    f.digital_gain = double(f.digital_code);
    return f;
}

void Model_MT9M114::begin_frame(Frame_settings& f)
{
    f.frame_count = ++frame_count;
    f.vflip = vflip;
    f.hflip = hflip;
}

}  // namespace

std::unique_ptr<Sensor_model> make_model_MT9M114(const Config& config)
{
    return std::make_unique<Model_MT9M114>(config);
}

}  // namespace vqxsim
