// Simulator.h: control interface of the simulated scan engine.
//
// The simulator is a complete hardware layer (IHwl) in software: a sensor
// model with its register file (one engine model per engine type), the image
// transfer hardware (a fixed set of capture buffers and the vsync callback),
// aimer and illumination, the PSoC companion controller, a scene in front of
// the engine and a set of injectable faults.
//
// Users:
//   - libLmoKil.so's InitHWLayer builds one Simulator from the VQXSIM_*
//     environment variables (see README.md), or returns the instance a test
//     installed with set_instance_for_InitHWLayer.
//   - Tests build their own instance from a Config, drive it through hwl()
//     like the driver does, and inspect it through the accessors below.
//
// Frames: a frame happens while the sensor is supplied, out of standby,
// streaming, not stalled, and the transfer path has been started
// (StartScanning). It is rendered for the oldest armed buffer (InitCapture),
// written into it strip by strip over the frame's readout time (rows in
// order, so a reader polling the buffer sees the frame grow), and then
// announced with the vsync callback from the simulator's own thread.
//   - Real time (Config::real_time): the sensor runs at Config::fps with a
//     little jitter; a sensor frame with no armed buffer is missed (counted,
//     no callback) but still advances the frame counter and the exposure
//     pipeline.
//     The readout takes 80% of the frame period.
//   - Step mode: frames happen only through step(n), each as soon as its
//     conditions hold (including an armed buffer); step waits, bounded,
//     until the frames' callbacks have returned. The strips of a frame
//     follow each other with short real pauses (16 strips, by default
//     0.6 ms between the end of one and the next: Config::strip_pause_us).
//
// Threads: every accessor and every hardware-layer operation may be called
// from any thread. The simulator never holds its own lock while it calls the
// vsync or stop-complete callback, so a callback may call back into it (but
// must not destroy the instance).
#ifndef VQXSIM_SIMULATOR_H
#define VQXSIM_SIMULATOR_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "IHwl.h"

// A program that builds a source of the simulator into itself defines it
// empty (and hides its symbols) so that its copy does not stand in for the
// library's.
#ifndef VQXSIM_API
#define VQXSIM_API __attribute__((visibility("default")))
#endif

namespace vqxsim {

class Sim_core;

enum class Scene_kind { barcode, flat, ramp, image_file };
enum class Barcode_format { code128, qr_code };
enum class Render_mode {
    full,  ///< per-pixel physics with noise
    fast,  ///< the same physics without noise, reusing the last frame when nothing changed
    none   ///< a constant mid-grey frame, for benchmarks of the frame path only
};
enum class Buffer_state { free, armed, delivered };

/// When a fault fires. Each fault counts its own events (frames that fill a
/// buffer, ReadReg calls, WriteReg calls, PSoC transfers), starting at 1.
/// Text forms (parse): "N" the Nth event only, "N+" the Nth and every later
/// one, "*N" every Nth event, "0.25" (has a decimal point) each event with
/// that probability, "always" (or no value) every event.
struct VQXSIM_API Trigger {
    enum class Kind { never, nth, from_nth, every_nth, probability, always };
    Kind kind = Kind::never;
    uint64_t n = 0;
    double probability = 0.0;

    static Trigger at(uint64_t n) { return {Kind::nth, n, 0.0}; }
    static Trigger from(uint64_t n) { return {Kind::from_nth, n, 0.0}; }
    static Trigger every(uint64_t n) { return {Kind::every_nth, n, 0.0}; }
    static Trigger with_probability(double p) { return {Kind::probability, 0, p}; }
    static Trigger all() { return {Kind::always, 0, 0.0}; }

    bool configured() const { return kind != Kind::never; }
    /// Parses a text form; false (and *this unchanged) on a malformed text.
    bool parse(const std::string& text);
};

struct VQXSIM_API Faults {
    Trigger drop;            ///< frame rendered into its buffer, no vsync; the buffer stays armed
    Trigger zero_handle;     ///< an extra vsync with handle 0 right after the frame's own
    Trigger duplicate;       ///< the frame's vsync is made twice
    Trigger unknown_handle;  ///< an extra vsync with a handle that is not in the buffer array
    Trigger storm;           ///< the frames that match come at ten times the frame rate
    uint64_t stall_after = 0;  ///< the transfer stalls once, after this many delivered frames (0: never)
    Trigger regfail_read;    ///< ReadReg fails (returns false, nothing read)
    Trigger regfail_write;   ///< WriteReg fails (returns false, nothing written)
    Trigger psocfail;        ///< a PSoC transfer fails
    int defer_stop_ms = -1;  ///< >= 0: RequestStopScanning returns false and confirms after this many ms
    bool never_confirm_stop = false;  ///< RequestStopScanning returns false and never confirms
    unsigned first_frame_delay_ms = 0;  ///< extra delay of the first frame after streaming starts
    Trigger command_hang;    ///< MT9M114: a host command never completes (until a reset or power cycle)
    Trigger command_error;   ///< MT9M114: a host command completes with error status 0x0C (invalid)
    /// The transfer holds every frame back: the frame fills its buffer but
    /// no vsync comes, until Simulator::release_held_frames() announces the
    /// frames late or Simulator::lose_held_frames() loses them.
    bool hold_frames = false;
    bool start_fail = false;  ///< StartScanning fails (the transfer does not start)

    /// Parses a comma list such as "drop=5,stall_after=20,regfail_write=0.01,
    /// defer_stop=50,never_confirm_stop,hold_frames,start_fail". False with a
    /// message on bad input.
    bool parse(const std::string& text, std::string* error);
};

/// Everything an instance is built from. Defaults are those of the
/// environment-built instance.
struct VQXSIM_API Config {
    std::string engine = "X7710";  ///< engine type; only modelled engines are accepted
    double fps = 60.0;             ///< sensor frame rate in real time (1 to 1000)
    unsigned buffers = 4;          ///< capture buffers (1 to 64)
    bool real_time = true;         ///< false: frames only through step()
    /// Step mode: real pause between two of the 16 strips of a frame's
    /// readout, in microseconds (at most 100000). A longer pause gives a
    /// driver polling the buffer a wider window on a loaded machine.
    unsigned strip_pause_us = 600;
    /// Frames added to every sensor model's exposure and gain latency
    /// (-4 to 4; a latency never falls below 1). 0 is the sensor as
    /// modelled; +1 or -1 makes a sensor whose controls take effect a frame
    /// later or earlier than the model's, to show that a driver assuming the
    /// modelled latency reports the frames wrongly.
    int latency_offset = 0;

    Scene_kind scene = Scene_kind::barcode;
    std::string text = "VQX-SIM-0001";           ///< barcode contents
    Barcode_format format = Barcode_format::code128;
    std::string image_file;        ///< PGM or PNG, for Scene_kind::image_file
    uint8_t flat_level = 230;      ///< reflectance (x/255) of the flat scene
    double scene_scale = 1.0;      ///< reflectance factor: a brighter or darker scene
    double ambient = 0.1;          ///< ambient light (units of the illumination)
    double illumination = 1.0;     ///< illumination light when on
    double aimer_light = 3.0;      ///< light of the aimer pattern when on
    Render_mode render = Render_mode::full;

    Faults faults;
    uint64_t seed = 1;             ///< noise, jitter and probabilistic faults
    std::string trace_file;        ///< non-empty: every hardware-layer call is written there

    uint16_t variant = 1;          ///< GetConfig engine variant (bits 0-15)
    uint16_t orientation = 0;      ///< mounting, 0 or 180 degrees (GetConfig bits 16-31)
    uint32_t capture_mode = 0;     ///< GetConfig capture mode (0 to 7); the environment-built instance uses 3
    uint32_t imager_link = 1;      ///< GetConfig word at offset 16: 0 parallel, 1 one serial lane
    uint32_t register_table = 42;  ///< GetConfig word at offset 20: register table select (42: short)
    /// MT9M114: time the firmware takes to complete a host command, and to
    /// answer commands after a soft reset or power-on, in milliseconds.
    unsigned command_ms = 5;
    unsigned boot_ms = 45;

    bool psoc_fitted = true;
    uint32_t engine_id = 0x00007710;  ///< PSoC 0x00-0x03, big-endian
    std::string serial = "VQXSIM0001";  ///< PSoC 0x04-0x0D (10 characters, padded with blanks)
    uint8_t aimer_offset[4] = {0, 0, 0, 0};  ///< PSoC 0x1A-0x1D
    uint8_t revision_low = 1;     ///< PSoC 0x38
    uint8_t revision_high = 0;    ///< PSoC 0x39

    /// Fills @p out from the VQXSIM_* environment variables (unset ones keep
    /// the defaults). False with a message naming the variable on bad input.
    static bool from_environment(Config& out, std::string* error);
};

/// What one frame that filled a buffer really used.
struct Frame_record {
    uint64_t number = 0;       ///< sensor frame number since the instance was built (1, 2, ...)
    uint16_t frame_count = 0;  ///< frame counter register after this frame
    int32_t handle = 0;        ///< buffer filled
    bool delivered = false;    ///< false: dropped by a fault
    uint32_t rows = 0;         ///< coarse integration time in rows
    uint32_t fine = 0;         ///< fine integration time in pixel clocks
    double line_time_us = 0.0;
    double exposure_us = 0.0;  ///< rows x line time + fine / pixel clock
    double analog_gain = 1.0;
    double digital_gain = 1.0;
    double gain = 1.0;         ///< analog x digital
    uint16_t analog_gain_code = 0;
    uint16_t digital_gain_code = 0;
    bool illumination = false;
    bool aimer = false;
    uint64_t time_us = 0;      ///< since the instance was built
    uint64_t period_us = 0;    ///< frame period the sensor was timed with (0 in step mode)
};

struct Counters {
    uint64_t sensor_frames = 0;     ///< frames the sensor produced (frame counter steps)
    uint64_t frames_filled = 0;     ///< frames rendered into a buffer
    uint64_t frames_delivered = 0;  ///< frames announced with their own handle (held ones once released)
    uint64_t frames_held = 0;       ///< frames whose vsync the hold_frames fault held back
    uint64_t frames_returned = 0;   ///< announced frames whose buffer came back (ReleaseBuffer, InitCapture)
    uint64_t frames_dropped = 0;    ///< drop fault
    uint64_t frames_missed = 0;     ///< real time: no armed buffer, or it was released while rendering
    uint64_t vsyncs = 0;            ///< vsync callbacks made, fault events included
    uint64_t zero_handle_events = 0;
    uint64_t duplicate_events = 0;
    uint64_t unknown_handle_events = 0;
    uint64_t stalls = 0;
    uint64_t stop_requests = 0;
    uint64_t stop_confirmations = 0;  ///< deferred stop callbacks made
    uint64_t failed_starts = 0;       ///< StartScanning refused by the start_fail fault
    uint64_t register_read_failures = 0;   ///< injected and bad-argument failures
    uint64_t register_write_failures = 0;
    /// Register transfers made while the sensor was in standby (supplied,
    /// powered down): a power-up that writes before leaving standby.
    uint64_t standby_accesses = 0;
    uint64_t psoc_failures = 0;
    uint64_t bad_captures = 0;  ///< InitCapture with a handle not in the array
    uint64_t bad_releases = 0;  ///< ReleaseBuffer with an unknown handle or of a free buffer
};

/// What a buffer holds (Simulator::buffer_at).
struct Buffer_view {
    int handle = 0;
    Buffer_state state = Buffer_state::free;
    bool held = false;               ///< filled, its vsync held back (hold_frames)
    uint64_t announced_frame = 0;    ///< number of the last frame announced from it (0: none)
};

struct Psoc_write {
    uint8_t address = 0;
    std::vector<uint8_t> bytes;
};

class VQXSIM_API Simulator {
public:
    /// Builds an instance; null (and a message in @p error) when the
    /// configuration is not usable, e.g. an engine type without a model.
    static std::unique_ptr<Simulator> create(const Config& config, std::string* error = nullptr);
    ~Simulator();

    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    /// The hardware layer (an IHwl_AR0144 for "X7710"), owned by the instance.
    IHwl* hwl();
    const Config& config() const;

    /// Step mode: produces @p frames frames, each as soon as its conditions
    /// hold, and waits until their callbacks have returned or @p timeout_ms
    /// has passed (frames not begun by then are cancelled). Returns the
    /// number produced. In real time it only waits for that many frames.
    /// One step() caller at a time; a frame counts as produced when it
    /// filled a buffer (a dropped frame included).
    unsigned step(unsigned frames = 1, unsigned timeout_ms = 1000);
    /// Stops the frame thread for good: no more frames or callbacks. The
    /// hardware-layer operations keep working.
    void shutdown();

    // Sensor and lights.
    uint16_t reg(unsigned address) const;  ///< register value (8-bit registers: the byte)
    bool supplied() const;      ///< supply on (ImagerPowerOn .. ImagerPowerOff)
    bool standby() const;       ///< in standby (ImagerPowerDown .. ImagerPowerUp)
    bool streaming() const;     ///< the sensor's streaming control is set
    bool transfer_started() const;  ///< StartScanning .. StopScanning
    bool stalled() const;
    bool aimer() const;         ///< effective aimer (AimOn or the PSoC light register)
    bool illumination() const;  ///< effective illumination
    unsigned illum_config() const;

    // PSoC.
    uint8_t psoc(unsigned address) const;
    uint8_t light_register() const;  ///< PSoC light control (0x32)
    std::vector<Psoc_write> psoc_writes() const;

    // Buffers, frames and calls.
    std::vector<Buffer_state> buffer_states() const;  ///< in array order
    Buffer_state buffer_state(int handle) const;      ///< free for an unknown handle
    unsigned buffers_in(Buffer_state state) const;
    Counters counters() const;
    std::vector<Frame_record> frames() const;  ///< the latest 4096 frames that filled a buffer
    /// The exposure and gain the sensor's registers hold now, as a frame
    /// taken with them would use them (rows, line time, exposure, gains;
    /// the frame fields are 0). Zero rows and exposure while unsupplied.
    Frame_record controls() const;
    uint64_t calls(const std::string& operation) const;  ///< e.g. calls("InitCapture")

    /// The buffer holding @p address (any address inside it); false when
    /// the address is in no buffer.
    bool buffer_at(const void* address, Buffer_view* out) const;
    std::vector<unsigned char*> buffer_images() const;  ///< image addresses, in array order

    // Scene changes while running.
    void set_ambient(double ambient);
    void set_scene_scale(double scale);

    // Faults while running. The fault counters of a trigger that @p change
    // leaves as it was go on counting; a changed trigger starts anew.
    // @p change runs under the simulator's lock: it must not call it.
    Faults faults() const;
    void update_faults(const std::function<void(Faults&)>& change);
    /// Announces the frames the hold_frames fault held back, now, from the
    /// calling thread (which must hold no lock a vsync callback takes).
    /// Returns how many.
    unsigned release_held_frames();
    /// The frames held back are lost for good: where the transfer fills
    /// free buffers on its own (capture modes 4 and 6) their buffers are
    /// free again; elsewhere they stay armed and fill with a later frame.
    /// Returns how many.
    unsigned lose_held_frames();
    /// Makes the pending deferred stop confirmation now, from the calling
    /// thread; with @p also_never, also a stop that was never to be
    /// confirmed. Returns how many callbacks were made.
    unsigned confirm_stop_now(bool also_never = false);
    bool stop_pending() const;  ///< a deferred stop confirmation is still to come
    /// Runs the vsyncs of a frame that has extra events (duplicate, handle 0,
    /// unknown handle) inside @p guard, so that a test holding the driver's
    /// lock there sees them in one piece, as a doubled interrupt would come.
    /// Set before frames flow.
    void set_event_guard(std::function<void(const std::function<void()>&)> guard);

private:
    explicit Simulator(std::unique_ptr<Sim_core> core);
    std::unique_ptr<Sim_core> core;
};

/// Makes InitHWLayer return @p hwl (not owned) from now on; null restores the
/// environment-built instance.
VQXSIM_API void set_instance_for_InitHWLayer(IHwl* hwl);

/// The environment-built instance if InitHWLayer has built it, else null.
VQXSIM_API Simulator* environment_instance();

}  // namespace vqxsim

#endif
