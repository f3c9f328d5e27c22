// Sim_core.h: the simulated scan engine behind every simulated hardware layer.
//
// Sim_core owns the sensor model, the capture buffers, the lights, the PSoC,
// the scene, the renderer, the fault gates and the frame thread. The
// engine's IHwl object (Hwl_face) forwards every hardware-layer operation to
// the member of the same name here; Simulator is the public handle.
//
// Buffers: an array of Config::buffers buffers of width x height bytes, with
// handles 0x1001, 0x1002, ... Each is free, armed (InitCapture) or delivered
// (filled and announced, until ReleaseBuffer). Armed buffers fill in the
// order they were armed. InitCapture re-arms a delivered buffer, and is a
// no-op returning true on an armed one. ReleaseBuffer of an armed buffer
// takes it back before it fills. Capture modes 4 and 6 let the transfer
// hardware pick free buffers itself (mode 6: one per StartSnapshot).
//
// Power: ImagerPowerOn/Off switch the supply (registers return to their
// power-on values both ways; switching the supply off also clears the PSoC
// light control); ImagerPowerUp/Down leave and enter standby. The sensor's
// registers answer only while it is supplied.
//
// Stopping: RequestStopScanning returns true (the transfer stops at once;
// the sensor keeps streaming until the driver stops it, so captures already
// armed still complete) unless a deferred or never-confirmed stop fault is
// configured: then it returns false and the stop callback comes from the
// frame thread after the configured delay (or never). A second request
// while one is pending replaces the callback and keeps the deadline.
//
// Faults may change while the instance runs (update_faults). With
// hold_frames on, a filled buffer is delivered without its vsync (held);
// release_held_frames announces the held frames late, lose_held_frames
// forgets them (the buffer is free again where the transfer fills free
// buffers itself, else armed again). A buffer that comes back (ReleaseBuffer,
// or InitCapture of a filled one) while held loses its frame. A stop the
// never_confirm_stop fault keeps can still be confirmed by confirm_stop_now.
//
// Stall: after Faults::stall_after delivered frames the transfer stalls
// once: no frames, the frame counter stops, the status still shows
// streaming with the PLL locked, 0x306A shows 0x0100. StopScanning then
// StartScanning followed by a write to the streaming control, or
// ResetTransferHardware, or switching the supply off, clears it.
//
// Readout: a frame is rendered outside the lock into a private frame, then
// written into its buffer in strips of rows, in row order, like the
// transfer hardware's DMA: in real time over most of the frame period, in
// step mode with short real pauses between strips. The vsync follows the
// last strip. A buffer taken back (ReleaseBuffer) during the readout loses
// the frame; no strip is written into it after that. Buffer memory changes
// only between arming a buffer and its vsync, so capture modes 1-3 can poll
// an armed buffer's row markers to see how far the frame has come.
//
// Memory ordering: the transfer writes while the driver polls, so rows are
// written with atomic stores; each row's first 4-byte word and the frame's
// last word are release stores (see publish_rows in Sim_core.cpp). A reader
// that observes such a word overwritten with a 4-byte acquire load of the
// same word may read all earlier rows with plain loads.
//
// Threads: one mutex guards all state; it is never held while a callback
// runs, nor during the render or the pauses between strips.
#ifndef VQXSIM_SIM_CORE_H
#define VQXSIM_SIM_CORE_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Control_pipeline.h"
#include "Fault_gate.h"
#include "Psoc_model.h"
#include "Renderer.h"
#include "Scene.h"
#include "Sensor_model.h"
#include "Sim_trace.h"
#include "Simulator.h"
#include "vqxsim_c.h"

namespace vqxsim {

class Sim_core {
public:
    static std::unique_ptr<Sim_core> create(const Config& config, std::string* error);
    ~Sim_core();

    Sim_core(const Sim_core&) = delete;
    Sim_core& operator=(const Sim_core&) = delete;

    IHwl* hwl() { return face.get(); }
    const Config& config() const { return cfg; }

    // Hardware-layer operations (see IHwl).
    bool IsPsocSupported();
    bool WriteIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count);
    bool ReadIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count);
    void EngineType(const char* result);
    IHwl::Image_buffer_pointers* GetImageBuffers(uint64_t& count);
    void ReleaseBuffer(int buffer);
    bool RegisterVsyncNotification(IHwl::Vsync_callback callback, void* context);
    unsigned int GetScanHeight();
    unsigned int GetScanWidth();
    bool ImagerPowerUp();
    bool ImagerPowerDown();
    bool ImagerPowerOn();
    bool ImagerPowerOff();
    bool InitCapture(int buffer);
    void StartSnapshot();
    bool ResetTransferHardware();
    bool AimOn();
    bool AimOff();
    bool IllumConfig(unsigned int config);
    bool IllumOn();
    bool IllumOff();
    bool WriteReg(unsigned int address, uint16_t* values, uint64_t length);
    bool ReadReg(unsigned int address, uint16_t* values, uint64_t length);
    void GetConfig(IHwl::Config* config);
    bool LoadCaptureInfo();
    bool EnableVsyncProcessing();
    bool StartScanning();
    bool StopScanning();
    bool OpenSession();
    void CloseSession();
    bool RequestStopScanning(IHwl::Stop_callback callback, void* context);
    /// An engine's own operation beyond IHwl (IHwl_aptina's): @p op runs on
    /// the sensor model under the lock (only while the sensor is supplied;
    /// else the result is 0), counted and traced under @p name.
    unsigned engine_operation(const char* name, const std::function<unsigned(Sensor_model&)>& op);

    // Control and inspection (Simulator).
    unsigned step(unsigned frames, unsigned timeout_ms);
    void shutdown();
    uint16_t reg(unsigned address);
    bool supplied() const;
    bool standby() const;
    bool streaming() const;
    bool transfer_started() const;
    bool stalled() const;
    bool aimer() const;
    bool illumination() const;
    unsigned illum_config() const;
    uint8_t psoc(unsigned address) const;
    std::vector<Psoc_write> psoc_writes() const;
    std::vector<Buffer_state> buffer_states() const;
    Buffer_state buffer_state(int handle) const;
    Counters counters() const;
    std::vector<Frame_record> frames() const;
    Frame_record controls() const;
    uint64_t calls(const std::string& operation) const;
    void set_ambient(double ambient);
    void set_scene_scale(double scale);
    bool buffer_at(const void* address, Buffer_view* out) const;
    std::vector<unsigned char*> buffer_images() const;
    Faults faults_now() const;
    void update_faults(const std::function<void(Faults&)>& change);
    unsigned release_held_frames();
    unsigned lose_held_frames();
    unsigned confirm_stop_now(bool also_never);
    bool stop_pending_now() const;
    void set_event_guard(std::function<void(const std::function<void()>&)> guard);
    /// Frame currently in the buffer holding @p address; false if none.
    bool frame_info(const void* address, struct vqxsim_frame_info* out) const;
    /// The same over every live instance.
    static bool find_frame_info(const void* address, struct vqxsim_frame_info* out);

private:
    using Clock = std::chrono::steady_clock;

    struct Buffer {
        Buffer_state state = Buffer_state::free;
        bool has_frame = false;
        bool held = false;             ///< filled, vsync held back (hold_frames)
        uint64_t announced_frame = 0;  ///< the last frame announced from it
        Frame_record frame;  ///< the frame last put in it
    };
    struct Event {
        int handle;
    };

    Sim_core(const Config& config, std::unique_ptr<Sensor_model> model, std::shared_ptr<const Scene> scene);

    // Call accounting and tracing (lock held).
    void note(const char* operation);
    // Buffers (lock held).
    int index_of(int handle) const;
    int index_at(const void* address) const;
    void give_back(Buffer& buffer);
    bool self_filling() const { return cfg.capture_mode == 4 || cfg.capture_mode == 6; }
    int pick_target() const;
    void disarm(int index);
    // Frame thread.
    void run();
    bool sensor_running() const;
    void state_changed();
    void clear_restarted_stall();
    bool frame_possible(Clock::time_point now) const;
    Clock::time_point next_wake() const;
    void produce_frame(std::unique_lock<std::mutex>& lock, bool step_frame, Clock::duration period);
    bool still_ours(int index) const;
    void pause_until(std::unique_lock<std::mutex>& lock, Clock::time_point t);
    bool read_out(std::unique_lock<std::mutex>& lock, int index, Clock::time_point begin, Clock::duration spacing);
    void confirm_stop(std::unique_lock<std::mutex>& lock);
    Render_params render_params(const Frame_settings& f) const;
    Clock::duration frame_period(bool storm);
    uint64_t elapsed_us() const;

    const Config cfg;
    const Clock::time_point start;
    std::unique_ptr<Sensor_model> model;
    Control_pipeline pipeline;  ///< the model's frame latency (lock held)
    std::unique_ptr<IHwl> face;
    Sim_trace trace;
    Renderer renderer;

    mutable std::mutex mutex;
    std::condition_variable wake;       ///< the frame thread's
    std::condition_variable step_done;  ///< step() callers'

    // Buffers.
    std::vector<uint8_t> memory;
    std::vector<IHwl::Image_buffer_pointers> pointers;
    std::vector<Buffer> buffers;
    std::deque<int> armed;  ///< indices in arming order
    std::vector<uint8_t> frame;  ///< the renderer's output
    int last_filled = -1;
    unsigned snapshots = 0;

    // Sensor, transfer and lights.
    bool is_supplied = false;
    bool is_standby = true;
    bool transfer = false;
    bool is_stalled = false;
    bool stall_fired = false;
    bool stall_recovering = false;
    bool stopped_in_stall = false;
    bool stream_restarted = false;  ///< streaming control written during a stall restart
    bool joined = false;
    bool running = false;  ///< sensor_running() as last seen
    bool aim_on = false;
    bool illum_on = false;
    unsigned illum_cfg = 0;
    Psoc_model psoc_model;
    std::shared_ptr<const Scene> scene;
    double ambient;
    double scene_scale;

    // Callbacks.
    IHwl::Vsync_callback vsync = nullptr;
    void* vsync_context = nullptr;
    std::function<void(const std::function<void()>&)> event_guard;
    bool stop_pending = false;
    Clock::time_point stop_deadline;
    IHwl::Stop_callback stop_callback = nullptr;
    void* stop_context = nullptr;
    bool never_pending = false;  ///< a stop the never_confirm_stop fault keeps
    IHwl::Stop_callback never_callback = nullptr;
    void* never_context = nullptr;

    // Faults: the ones in force (Config::faults, changed by update_faults).
    Faults faults;
    Fault_gate drop_gate, zero_gate, duplicate_gate, unknown_gate, storm_gate;
    Fault_gate read_gate, write_gate, psoc_gate;
    mutable std::mt19937_64 random;  ///< noise offsets and jitter (lock held)

    // Frame timing and stepping.
    Clock::time_point next_frame;
    Clock::time_point first_frame_at;
    double last_exposure_us = 0.0;
    bool quit = false;
    unsigned steps_wanted = 0;
    uint64_t steps_begun = 0;
    uint64_t steps_done = 0;

    // Records.
    Counters count;
    uint64_t frame_number = 0;
    std::deque<Frame_record> history;
    std::vector<std::pair<const char*, uint64_t>> call_counts;

    std::thread thread;
};

}  // namespace vqxsim

#endif
