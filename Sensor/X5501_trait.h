// X5501_trait: the engine trait of the MT9M114 engines (engine types "X5501"
// and "X5503", which build the same trait).
//
// The MT9M114 streams over one serial data lane. The trait reaches its
// 16-bit sensor registers with the hardware layer's ReadReg/WriteReg
// (through the X5501 logging decorator) and drives the sensor's firmware
// through the host command register (0x0080) and the system state variable
// (0xDC00): standby is entered with state 0x50 and left with 0x28 (apply
// the configuration, then stream) the first time after a power-up and with
// 0x54 afterwards. Exposure (integration rows 0x3012, frame length 0x300A)
// and gain (0x305E) are programmed per frame from the
// X5501_Exposure_controller's white value by the X5501 contrast step.
// Built once by driver start-up; the stream driver and the sensor call it.
//
// Threading: every operation runs with the sensor's monitor held, except
// update_exposure_settings and update_properties (session calls without
// the lock, which touch no shared state). Host-command waits (at most 100
// ms each, polled every millisecond) run under that monitor.
//
// Register access. ReadReg of a 16-bit register returns the sensor's
// big-endian register order: the low byte of a read at 0xDC00 is the
// current system state (0x31 streaming, 0x52 standby), the high byte of a
// read at 0xDC02 the status of the last command. WriteByteReg(address,
// value) writes the logical-address pair (address, value << 8) from 0x098E
// in one transfer. Tables go out through Register_burst (runs of
// consecutive registers as one transfer); a failed run is reported as
// "Fails to write Reg:%04X, n = %d!!!".
//
// Register tables: the core table, then the short table when the
// configuration word at offset 20 is 42, else the full table. The full
// table is the device's sensor tuning and comes from a file
// (X5501_tables.h, Register_table_file.h): start-up loads it before the
// trait is built and refuses the engine when it is missing or malformed;
// the loaded rows are handed to the constructor. Should power-up find the
// full table selected but none loaded, it reports "Full register table not
// loaded" and fails.
//
// Frame latency and the histories. The trait's arithmetic fixes what the
// sensor does: exposure_frame(), once per frame at the programming point
// (the inter-frame point in capture modes 1 to 3, the frame's callback in
// the others: both in frame k's period), first takes the frame's values
// from the oldest history elements and then steps both histories; the
// following update_contrast writes the newest element. The exposure
// history holds 3 elements and the gain history 2, so the frame delivered
// in period k was taken with the rows written in period k-3 and the gain
// written in period k-2: rows take effect three frames after the period in
// which they are written, gain two (the simulated MT9M114 models exactly
// this). The histories record the arguments of set_exposure_gain as given
// (the gain before its register encoding drops low bits), so a frame's
// gain attribute can exceed the gain the sensor applied by up to 1/32 (one
// step of the 6-bit mantissa; for gains below 512, by up to 7/512).
// The histories step once per call, with no frame counter to correct them:
// a frame the driver never sees (its event lost by the hardware layer)
// shifts the credit by one frame until the next start from standby.
//
// Decisions where the engine's behaviour was open:
//  - trigger_on fills the histories (four alternating steps, so every
//    element holds the newest value) only when it leaves standby. A
//    trigger_on while the sensor streams (the stream driver re-triggers
//    when a client gives a buffer back after all were held) changes
//    nothing in the histories: the frames in flight were taken with what
//    they hold, and refilling them would credit those frames with the
//    newest values. The sensor is taken to stream from a successful
//    SensorExitStandby until trigger_off, sleep, power-off or a power-up.
//  - The gain unit is 1/512 (512 = the sensor's unity analog gain), also
//    for ES_MAX_GAIN, ES_FIXED_GAIN and the starting gain, which this
//    engine takes as they are: an ES_FIXED_GAIN of 512 programs 1x here,
//    2x on the AR0144. The X5501 step ignores ES_MAX_EXP and ES_MAX_GAIN
//    (its own limits: 33 ms at gain 512, at most 4032 = 7.875x).
//  - update_contrast in the fixed modes programs the fixed rows and gain
//    without the camera-control copies and returns true.
//  - Without a controller the exposure operations fail and program nothing.
//  - sleep() returns nothing (the trait contract's sleep is void); power
//    state 1.
//  - trigger_once is refused ("... not supported by MT9M114 ..."): capture
//    modes 6 and 7 deliver no frames on this engine; the stall handling
//    then ends the scan as stalled. Modes 0, 2, 3, 4 and 5 stream.
//  - check_stall is the base behaviour (trigger_off, trigger_on): standby
//    and back, which restarts the sensor's stream.
#ifndef VQX_X5501_TRAIT_H
#define VQX_X5501_TRAIT_H

#include <cstdint>
#include <vector>

#include "IHwl.h"
#include "Psoc.h"
#include "Register_burst.h"
#include "Sensor_trait.h"
#include "history_queue.h"

template <class Trait>
class X5501_Exposure_controller;

class X5501_trait : public Sensor_trait {
public:
    using Controller = X5501_Exposure_controller<X5501_trait>;

    /// Power states.
    enum : uint8_t { POWER_OFF = 0, POWER_ASLEEP = 1, POWER_ON = 2 };

    /// Host-command results of WaitForCompletion.
    enum : int {
        COMMAND_OK = 0,
        COMMAND_IO_ERROR = 5,      ///< a register read failed
        COMMAND_INVALID = 22,      ///< status 0x0C
        COMMAND_NO_SPACE = 28,     ///< status 0x0D
        COMMAND_FAILED = 25,       ///< any other status
        COMMAND_TIMED_OUT = 62,
    };

    /// Rows for @p us microseconds (used by Exposure_converter).
    static uint32_t exposure_rows(const X5501_trait& trait, uint32_t us);
    /// Gain register 0x305E for @p gain (1/512 units): 0x1000 | e << 6 | m,
    /// m = gain / 8 halved e times until it is at most 63.
    static uint16_t gain_register_of(unsigned gain);
    /// The analog gain a gain register applies, in 1/64 units (m << e).
    static unsigned effective_gain(uint16_t gain_register);

    /// Builds the trait on @p hwl (not owned) with @p controller (not
    /// owned) and the device's full register table (empty when the short
    /// table is configured); powers the sensor on and reads the PSoC.
    X5501_trait(IHwl_x5501& hwl, Controller* controller, std::vector<Register_pair> full_table = {});
    ~X5501_trait() override;

    // Sensor_trait
    void power_on() override;
    void power_off() override;
    void sleep() override;
    bool initialize_scanning() override;
    bool deinitialize_scanning() override;
    void trigger_once() override;
    void trigger_on() override;
    bool init_capture(const IHwl::Image_buffer_pointers* buffer) override;
    void trigger_off() override;
    bool set_starting_exposure_gain(unsigned int& contrast) override;
    bool set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast) override;
    bool update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast) override;
    bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) override;
    IHwl::Image_buffer_pointers* get_image_buffers(uint64_t& count) override;
    bool register_frame_notifications(Frame_callback callback, void* context) override;
    unsigned int current_contrast() override;
    unsigned int current_exposure() override;
    unsigned int current_gain() override;
    void exposure_frame() override;
    bool update_properties(VQX_SCANENGINE_PROPERTIES_EX& properties) override;
    void update_exposure_settings(Exposure_settings& settings) override;
    unsigned int GetMaxResumeTime() override;

    /// Powers the sensor up when needed, resets its firmware unless it
    /// streams, puts it in standby and loads the register tables.
    bool power_up_init();
    /// Waits for @p command to finish: 0, or one of the errors above
    /// (reported as "ERROR: Command failed, err %d").
    int WaitForCompletion(uint16_t command, unsigned timeout_ms);
    bool SensorEnterStandby();
    bool SensorExitStandby();
    /// Writes @p count rows as runs of consecutive registers.
    bool WriteRegisters(const Register_pair* table, size_t count);
    /// Writes an 8-bit firmware variable through the logical-address pair.
    bool WriteByteReg(uint16_t address, uint8_t value);
    /// Programs @p rows and @p gain (1/512 units); with @p camera_control
    /// also the camera-control copies. True when the gain, frame length and
    /// rows writes all succeeded (then both histories record the request).
    bool set_exposure_gain(unsigned rows, unsigned gain, bool camera_control);

    // Diagnostics and tests.
    uint8_t get_power_state() const { return power_state; }
    uint8_t get_leave_standby_state() const { return leave_standby_state; }
    uint16_t get_gain_register() const { return gain_register; }
    uint16_t get_frame_length_lines() const { return frame_length_lines; }
    uint16_t get_integration_rows() const { return integration_rows; }

private:
    void fill_histories();
    bool call(bool (IHwl::*operation)());
    bool read_reg(uint16_t address, uint16_t& value);
    bool write_reg(uint16_t address, uint16_t value);
    bool write_tables();
    void program_fixed(unsigned& contrast);

    history_queue<unsigned> exposure_history;
    history_queue<unsigned> gain_history;
    unsigned contrast_now = 1;
    unsigned exposure_now = 1;
    unsigned gain_now = 1;
    Controller* controller;
    Psoc psoc;
    uint8_t power_state = POWER_OFF;
    bool aim_interleave = false;
    uint8_t lights_code = 0;
    bool (IHwl::*idle_aim)() = &IHwl::AimOff;
    bool (IHwl::*idle_illum)() = &IHwl::IllumOff;
    uint8_t leave_standby_state = 0;
    uint32_t frame_count = 0;
    uint16_t frame_length_lines = 925;
    uint16_t integration_rows = 100;
    uint16_t gain_register = 4200;
    bool streaming = false;  ///< out of standby since the last SensorExitStandby
    bool psoc_fitted;
    std::vector<Register_pair> full_table;
};

#endif // VQX_X5501_TRAIT_H
