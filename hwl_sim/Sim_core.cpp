// Sim_core.cpp: creation and shutdown of the simulated scan engine, call
// accounting, the hardware-layer operations that only report or identify,
// and the observation and control accessors behind Simulator.
//
// The other concerns are in Sim_transfer.cpp (buffers, capture, the
// transfer and stopping it), Sim_power.cpp (supply, lights, PSoC, sensor
// registers), Sim_faults.cpp (fault settings, the stall, held frames) and
// Sim_frame_thread.cpp (the frame thread and the readout).
#include "Sim_core.h"

#include <algorithm>
#include <cstring>

namespace vqxsim {
namespace {

// Longest real pause between readout strips in step mode
// (Config::strip_pause_us): longer would let a polling driver time out.
constexpr unsigned kMaxStripPauseUs = 100000;

// The operations whose calls are counted (calls()), the engines' own
// operations beyond IHwl included, so that each reads 0 before its first call.
const char* const kOperations[] = {
    "IsPsocSupported", "WriteIIC_PSOC", "ReadIIC_PSOC", "EngineType", "GetImageBuffers", "ReleaseBuffer",
    "RegisterVsyncNotification", "GetScanHeight", "GetScanWidth", "ImagerPowerUp", "ImagerPowerDown",
    "ImagerPowerOn", "ImagerPowerOff", "InitCapture", "StartSnapshot", "ResetTransferHardware", "AimOn",
    "AimOff", "IllumConfig", "IllumOn", "IllumOff", "WriteReg", "ReadReg", "GetConfig", "LoadCaptureInfo",
    "EnableVsyncProcessing", "StartScanning", "StopScanning", "OpenSession", "CloseSession",
    "RequestStopScanning", "LedControlState", "SetExposureGain", "RowTime", "CancelDeferredInitCapture",
};

// Live instances, for vqxsim_frame_info. Taken before any instance's lock.
std::mutex registry_mutex;
std::vector<const Sim_core*> registry;

// Gives the reason a configuration is refused, when the caller asked for it.
bool config_error(std::string* error, const std::string& text)
{
    if (error)
        *error = text;
    return false;
}

// Refuses a configuration outside what the simulator can run.
bool valid_config(const Config& c, std::string* error)
{
    if (!(c.fps >= 1.0 && c.fps <= 1000.0))
        return config_error(error, "frame rate must be 1 to 1000 frames a second");
    if (c.buffers < 1 || c.buffers > 64)
        return config_error(error, "buffer count must be 1 to 64");
    if (c.strip_pause_us > kMaxStripPauseUs)
        return config_error(error, "strip pause must be at most 100000 microseconds");
    if (c.latency_offset < -4 || c.latency_offset > 4)
        return config_error(error, "latency offset must be -4 to 4");
    if (c.capture_mode > 7)
        return config_error(error, "capture mode must be 0 to 7");
    if (c.orientation != 0 && c.orientation != 180)
        return config_error(error, "orientation must be 0 or 180");
    if (c.serial.size() > 10)
        return config_error(error, "serial number has at most 10 characters");
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------

std::unique_ptr<Sim_core> Sim_core::create(const Config& config, std::string* error)
{
    if (!valid_config(config, error))
        return nullptr;
    std::unique_ptr<Sensor_model> model = make_sensor_model(config, error);
    if (!model)
        return nullptr;
    std::shared_ptr<const Scene> scene = Scene::build(config, model->width(), model->height(), error);
    if (!scene)
        return nullptr;
    std::unique_ptr<Sim_core> core(new Sim_core(config, std::move(model), std::move(scene)));
    if (core->trace.failed()) {
        config_error(error, "cannot open the trace file " + config.trace_file);
        return nullptr;
    }
    return core;
}

Sim_core::Sim_core(const Config& config, std::unique_ptr<Sensor_model> sensor, std::shared_ptr<const Scene> view)
    : cfg(config),
      start(Clock::now()),
      model(std::move(sensor)),
      trace(config.trace_file),
      renderer(model->width(), model->height(), config.seed),
      psoc_model(config),
      scene(std::move(view)),
      ambient(config.ambient),
      scene_scale(config.scene_scale),
      faults(config.faults),
      drop_gate(config.faults.drop, config.seed, "drop"),
      zero_gate(config.faults.zero_handle, config.seed, "zero_handle"),
      duplicate_gate(config.faults.duplicate, config.seed, "duplicate"),
      unknown_gate(config.faults.unknown_handle, config.seed, "unknown_handle"),
      storm_gate(config.faults.storm, config.seed, "storm"),
      read_gate(config.faults.regfail_read, config.seed, "regfail_read"),
      write_gate(config.faults.regfail_write, config.seed, "regfail_write"),
      psoc_gate(config.faults.psocfail, config.seed, "psocfail"),
      random(config.seed)
{
    face = model->make_hwl(*this);
    size_t frame_size = size_t(model->width()) * model->height();
    memory.assign(frame_size * cfg.buffers, 0);
    frame.assign(frame_size, 0);
    buffers.resize(cfg.buffers);
    for (unsigned i = 0; i < cfg.buffers; ++i) {
        IHwl::Image_buffer_pointers p{};
        p.image = p.capture = memory.data() + i * frame_size;
        p.handle = first_handle + int(i);
        pointers.push_back(p);
    }
    for (const char* op : kOperations)
        call_counts.emplace_back(op, 0);
    {
        std::lock_guard<std::mutex> hold(registry_mutex);
        registry.push_back(this);
    }
    thread = std::thread(&Sim_core::run, this);
}

Sim_core::~Sim_core()
{
    shutdown();
    std::lock_guard<std::mutex> hold(registry_mutex);
    registry.erase(std::remove(registry.begin(), registry.end(), this), registry.end());
}

// Stops the frame thread and joins it, unless already joined or called on
// the frame thread itself (from a callback); step() callers are released.
void Sim_core::shutdown()
{
    bool join = false;
    {
        std::lock_guard<std::mutex> hold(mutex);
        quit = true;
        join = !joined && thread.joinable() && thread.get_id() != std::this_thread::get_id();
        joined = joined || join;
    }
    wake.notify_all();
    step_done.notify_all();
    if (join)
        thread.join();
}

// ---------------------------------------------------------------------------
// Bookkeeping
// ---------------------------------------------------------------------------

void Sim_core::note(const char* operation)
{
    for (auto& c : call_counts)
        if (std::strcmp(c.first, operation) == 0) {
            ++c.second;
            return;
        }
}

uint64_t Sim_core::elapsed_us() const
{
    return uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
}

// The exposure and gain part of a frame record.
void Sim_core::record_controls(const Frame_settings& f, Frame_record& record)
{
    record.rows = f.rows;
    record.fine = f.fine;
    record.line_time_us = f.line_time_us;
    record.exposure_us = f.exposure_us;
    record.analog_gain = f.analog_gain;
    record.digital_gain = f.digital_gain;
    record.gain = f.analog_gain * f.digital_gain;
    record.analog_gain_code = f.analog_code;
    record.digital_gain_code = f.digital_code;
}

// ---------------------------------------------------------------------------
// Identity, callbacks and session
// ---------------------------------------------------------------------------

void Sim_core::EngineType(const char* result)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("EngineType");
    trace.line("EngineType() = \"%s\"", result);
}

bool Sim_core::RegisterVsyncNotification(IHwl::Vsync_callback callback, void* context)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("RegisterVsyncNotification");
    vsync = callback;
    vsync_context = context;
    trace.line("RegisterVsyncNotification(%p, %p) = 1", reinterpret_cast<void*>(callback), context);
    return true;
}

unsigned int Sim_core::GetScanHeight()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("GetScanHeight");
    trace.line("GetScanHeight() = %u", model->height());
    return model->height();
}

unsigned int Sim_core::GetScanWidth()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("GetScanWidth");
    trace.line("GetScanWidth() = %u", model->width());
    return model->width();
}

void Sim_core::GetConfig(IHwl::Config* config)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("GetConfig");
    trace.line("GetConfig(%p)", static_cast<void*>(config));
    if (!config)
        return;
    // Only the words inside the caller's record size are written.
    uint64_t size = config->size;
    if (size >= offsetof(IHwl::Config, capture_mode) + 4)
        config->capture_mode = cfg.capture_mode;
    if (size >= offsetof(IHwl::Config, engine_variant) + 4)
        config->engine_variant = uint32_t(cfg.variant) | uint32_t(cfg.orientation) << 16;
    if (size >= offsetof(IHwl::Config, imager_link) + 4)
        config->imager_link = cfg.imager_link;
    if (size >= offsetof(IHwl::Config, register_table) + 4)
        config->register_table = cfg.register_table;
}

bool Sim_core::LoadCaptureInfo()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("LoadCaptureInfo");
    trace.line("LoadCaptureInfo() = 1");
    return true;
}

bool Sim_core::EnableVsyncProcessing()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("EnableVsyncProcessing");
    trace.line("EnableVsyncProcessing() = 1");
    return true;
}

bool Sim_core::OpenSession()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("OpenSession");
    trace.line("OpenSession() = 1");
    return true;
}

void Sim_core::CloseSession()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("CloseSession");
    trace.line("CloseSession()");
}

// ---------------------------------------------------------------------------
// Control and inspection
// ---------------------------------------------------------------------------

unsigned Sim_core::step(unsigned frames, unsigned timeout_ms)
{
    std::unique_lock<std::mutex> lock(mutex);
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    if (cfg.real_time) {
        uint64_t base = count.frames_filled;
        step_done.wait_until(lock, deadline, [&] { return quit || count.frames_filled >= base + frames; });
        return unsigned(std::min<uint64_t>(frames, count.frames_filled - base));
    }
    step_done.wait_until(lock, deadline, [&] { return quit || steps_done == steps_begun; });
    uint64_t base = steps_done;
    steps_wanted = frames;
    wake.notify_all();
    bool all = step_done.wait_until(lock, deadline, [&] { return quit || steps_done >= base + frames; });
    if (!all) {
        steps_wanted = 0;
        // A frame already begun still completes, callbacks included.
        step_done.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [&] { return quit || steps_done == steps_begun; });
    }
    return unsigned(steps_done - base);
}

uint16_t Sim_core::reg(unsigned address)
{
    std::lock_guard<std::mutex> hold(mutex);
    return model->peek(address);
}

bool Sim_core::supplied() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return is_supplied;
}

bool Sim_core::standby() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return is_standby;
}

bool Sim_core::streaming() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return is_supplied && model->streaming();
}

bool Sim_core::transfer_started() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return transfer;
}

bool Sim_core::stalled() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return is_stalled;
}

bool Sim_core::aimer() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return aim_on || (psoc_model.reg(Psoc_model::light_control) & 1) != 0;
}

bool Sim_core::illumination() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return illum_on || (psoc_model.reg(Psoc_model::light_control) & 2) != 0;
}

unsigned Sim_core::illum_config() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return illum_cfg;
}

uint8_t Sim_core::psoc(unsigned address) const
{
    std::lock_guard<std::mutex> hold(mutex);
    return psoc_model.reg(address);
}

std::vector<Psoc_write> Sim_core::psoc_writes() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return psoc_model.writes();
}


Counters Sim_core::counters() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return count;
}

std::vector<Frame_record> Sim_core::frames() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return {history.begin(), history.end()};
}

Frame_record Sim_core::controls() const
{
    std::lock_guard<std::mutex> hold(mutex);
    Frame_record record;
    if (!is_supplied)
        return record;
    record_controls(model->controls(), record);
    return record;
}

uint64_t Sim_core::calls(const std::string& operation) const
{
    std::lock_guard<std::mutex> hold(mutex);
    for (const auto& c : call_counts)
        if (operation == c.first)
            return c.second;
    return 0;
}

void Sim_core::set_ambient(double value)
{
    std::lock_guard<std::mutex> hold(mutex);
    ambient = value;
}

void Sim_core::set_scene_scale(double value)
{
    std::lock_guard<std::mutex> hold(mutex);
    scene_scale = value;
}


void Sim_core::set_event_guard(std::function<void(const std::function<void()>&)> guard)
{
    std::lock_guard<std::mutex> hold(mutex);
    event_guard = std::move(guard);
}

bool Sim_core::frame_info(const void* address, struct vqxsim_frame_info* out) const
{
    std::lock_guard<std::mutex> hold(mutex);
    int i = index_at(address);
    if (i < 0)
        return false;
    const Buffer& b = buffers[size_t(i)];
    if (!b.has_frame)
        return false;
    out->exposure_us = b.frame.exposure_us;
    out->rows = b.frame.rows;
    out->fine = b.frame.fine;
    out->gain = float(b.frame.gain);
    out->gain_code = b.frame.analog_gain_code;
    out->digital_gain_code = b.frame.digital_gain_code;
    out->frame_number = b.frame.number;
    return true;
}

bool Sim_core::find_frame_info(const void* address, struct vqxsim_frame_info* out)
{
    if (!address || !out)
        return false;
    std::lock_guard<std::mutex> hold(registry_mutex);
    for (const Sim_core* core : registry)
        if (core->frame_info(address, out))
            return true;
    return false;
}

}  // namespace vqxsim
