// Sim_core.h: the simulated scan engine behind every simulated hardware layer.
//
// Sim_core owns the sensor model, the capture buffers, the lights, the PSoC,
// the scene, the renderer, the fault gates and the frame thread. The
// engine's IHwl object (Hwl_face) forwards every hardware-layer operation to
// the member of the same name here; Simulator is the public handle. The
// implementation is split by concern: Sim_core.cpp (creation, accounting,
// accessors), Sim_transfer.cpp, Sim_power.cpp, Sim_faults.cpp and
// Sim_frame_thread.cpp.
//
// Contracts the driver and the tests rely on:
//
// Buffers: Config::buffers buffers of width x height bytes, handles 0x1001,
// 0x1002, ... Each is free, armed (InitCapture) or delivered (filled and
// announced, until ReleaseBuffer). Armed buffers fill in arming order.
// InitCapture re-arms a delivered buffer and is a no-op returning true on an
// armed one. ReleaseBuffer of an armed buffer takes it back before it fills.
// Capture modes 4 and 6 fill free buffers without arming (mode 6: one per
// StartSnapshot).
//
// Power: ImagerPowerOn/Off switch the supply (registers return to their
// power-on values both ways; off also clears the PSoC light control);
// ImagerPowerUp/Down leave and enter standby. Registers answer only while
// the sensor is supplied.
//
// Stopping: RequestStopScanning returns true (the transfer stops at once;
// the sensor keeps streaming, so captures already armed still complete)
// unless a deferred or never-confirmed stop fault is set: then false, and
// the stop callback comes from the frame thread after the delay (or never).
// A second request while one is pending replaces the callback and keeps the
// deadline.
//
// Faults may change while the instance runs (update_faults). With
// hold_frames a filled buffer is delivered without its vsync (held);
// release_held_frames announces held frames late, lose_held_frames forgets
// them (the buffer is free again where the transfer fills free buffers
// itself, else armed again). A held buffer that comes back (ReleaseBuffer,
// InitCapture) loses its frame. confirm_stop_now confirms a stop the
// never_confirm_stop fault keeps.
//
// Stall: after Faults::stall_after delivered frames the transfer stalls
// once: no frames, the frame counter stops, the status shows streaming with
// the PLL locked, 0x306A shows 0x0100. Cleared by StopScanning, StartScanning
// and then a write to the streaming control (the MT9V022, which has none: a
// sensor reset through the PSoC); by ResetTransferHardware; or by switching
// the supply off.
//
// Readout: a frame is rendered outside the lock, then written into its
// buffer in strips of rows in row order: over most of the frame period in
// real time, with short real pauses between strips in step mode. The vsync
// follows the last strip. A buffer taken back during the readout loses the
// frame and gets no further strip. Buffer memory changes only between
// arming and vsync, so capture modes 1-3 can poll an armed buffer's row
// markers.
//
// Memory ordering: rows are written with atomic stores; each row's first
// 4-byte word and the frame's last word are release stores (publish_rows in
// Sim_frame_thread.cpp). A reader that sees such a word overwritten, with a
// 4-byte acquire load of that word, may read all earlier rows with plain
// loads.
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

    // Control and inspection behind Simulator (Simulator.h gives their
    // contracts).
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

    static constexpr int first_handle = 0x1001;  ///< handle of buffer 0

    struct Buffer {
        Buffer_state state = Buffer_state::free;
        bool has_frame = false;
        bool held = false;             ///< filled, vsync held back (hold_frames)
        uint64_t announced_frame = 0;  ///< the last frame announced from it
        Frame_record frame;  ///< the frame last put in it
    };
    /// One frame on its way from the sensor into a buffer (frame thread).
    struct Frame_job {
        int index = -1;             ///< the buffer it goes into
        bool step = false;          ///< a frame that step() asked for
        Clock::duration period{};   ///< its frame period (zero in step mode)
        bool drop = false;          ///< fault draws for this frame
        bool zero = false;
        bool twice = false;
        bool unknown = false;
        Render_params params;
        std::shared_ptr<const Scene> view;
        Frame_record record;
    };

    Sim_core(const Config& config, std::unique_ptr<Sensor_model> model, std::shared_ptr<const Scene> scene);

    // Sim_core.cpp (lock held).
    void note(const char* operation);  ///< counts one call of @p operation
    uint64_t elapsed_us() const;       ///< since creation
    static void record_controls(const Frame_settings& f, Frame_record& record);

    // Sim_transfer.cpp (lock held unless a lock is passed).
    int index_of(int handle) const;           ///< -1 when no buffer has @p handle
    int index_at(const void* address) const;  ///< -1 outside the buffers
    void give_back(Buffer& buffer);           ///< the buffer leaves the driver or is re-armed
    bool self_filling() const { return cfg.capture_mode == 4 || cfg.capture_mode == 6; }
    int pick_target() const;                  ///< the next frame's buffer, or -1
    void disarm(int index);
    void confirm_stop(std::unique_lock<std::mutex>& lock);  ///< deferred stop due: callback unlocked

    // Sim_faults.cpp (lock held).
    bool stall_now();              ///< true when the stall fault fires now
    void clear_stall();            ///< the transfer works again
    void clear_restarted_stall();  ///< ends a stall whose restart is complete
    std::vector<int> settle_frame(const Frame_job& job);  ///< the handles to announce

    // Sim_frame_thread.cpp (lock held; those given the lock release it only
    // where their comments say).
    void run();
    bool sensor_running() const;
    void state_changed();  ///< after every change that may start or stop frames
    bool frame_possible(Clock::time_point now) const;
    Clock::time_point next_wake() const;
    Clock::duration frame_period(bool storm);
    Render_params render_params(const Frame_settings& f) const;
    void produce_frame(std::unique_lock<std::mutex>& lock, bool step_frame, Clock::duration period);
    Frame_settings sensor_frame();
    Frame_job begin_job(int index, const Frame_settings& settings, bool step_frame, Clock::duration period);
    bool fill_buffer(std::unique_lock<std::mutex>& lock, const Frame_job& job, Clock::time_point tick);
    void file_frame(Frame_job& job);
    void announce_frame(std::unique_lock<std::mutex>& lock, const std::vector<int>& events, const Frame_job& job);
    bool still_ours(int index) const;  ///< the readout may still write buffer @p index
    void pause_until(std::unique_lock<std::mutex>& lock, Clock::time_point t);
    bool read_out(std::unique_lock<std::mutex>& lock, int index, Clock::time_point begin, Clock::duration spacing);

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
