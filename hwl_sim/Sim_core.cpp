// Sim_core.cpp: buffers, power, lights, PSoC, faults and the frame thread of
// the simulated scan engine.
#include "Sim_core.h"

#include <algorithm>
#include <cstring>

namespace vqxsim {
namespace {

// The exposure and gain part of a frame record.
void record_controls(const Frame_settings& f, Frame_record& record)
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

constexpr int kFirstHandle = 0x1001;
constexpr int kUnknownHandle = 0x0BAD;  // never a buffer handle
constexpr size_t kHistorySize = 4096;
constexpr double kJitter = 0.02;        // +-2% of the frame period
constexpr int kStormFactor = 10;

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

// Readout: the transfer hardware writes a frame into its buffer in strips
// spread over the frame's readout time, the vsync comes after the last one.
// In real time the readout takes this share of the frame period; in step
// mode each strip after the first follows a short real pause
// (Config::strip_pause_us), so that a driver polling the buffer every
// millisecond sees the frame progress.
constexpr unsigned kStrips = 16;
constexpr double kReadoutShare = 0.8;
constexpr unsigned kMaxStripPauseUs = 100000;

// Row stores of the transfer hardware. The driver polls buffer memory while
// it is being written (row markers, exposure sampling of the rows already
// written), so the writes are atomic and ordered: the first 4-byte word of
// every row and the last word of the frame are release stores, the rest of
// the row relaxed stores before the next row's release store. A driver that
// sees a row's first word overwritten with an acquire load of that same
// 4-byte word may then read every earlier row with plain loads. The words
// the driver plants markers in are written with exactly its access size;
// the others use 8-byte stores where aligned, which on the platforms we
// build for compile to plain stores.
void store_word_release(uint8_t* dst, const uint8_t* src)
{
    if (reinterpret_cast<uintptr_t>(dst) % alignof(uint32_t) == 0) {
        uint32_t word;
        std::memcpy(&word, src, sizeof word);
        __atomic_store_n(reinterpret_cast<uint32_t*>(dst), word, __ATOMIC_RELEASE);
        return;
    }
    for (size_t i = 0; i < sizeof(uint32_t); ++i)
        __atomic_store_n(dst + i, src[i], __ATOMIC_RELEASE);
}

void store_relaxed(uint8_t* dst, const uint8_t* src, size_t n)
{
    size_t i = 0;
    for (; i < n && reinterpret_cast<uintptr_t>(dst + i) % alignof(uint64_t) != 0; ++i)
        __atomic_store_n(dst + i, src[i], __ATOMIC_RELAXED);
    for (; i + sizeof(uint64_t) <= n; i += sizeof(uint64_t)) {
        uint64_t word;
        std::memcpy(&word, src + i, sizeof word);
        __atomic_store_n(reinterpret_cast<uint64_t*>(dst + i), word, __ATOMIC_RELAXED);
    }
    for (; i < n; ++i)
        __atomic_store_n(dst + i, src[i], __ATOMIC_RELAXED);
}

// Writes rows [first, end) of a frame of @p rows rows of @p width bytes.
void publish_rows(uint8_t* dst, const uint8_t* src, size_t width, size_t rows, size_t first, size_t end)
{
    const size_t word = sizeof(uint32_t);
    const size_t frame_end = width * rows;
    for (size_t r = first; r < end; ++r) {
        size_t at = r * width;
        size_t row_end = r + 1 == rows && frame_end >= at + 2 * word ? frame_end - word : (r + 1) * width;
        if (width >= word) {
            store_word_release(dst + at, src + at);
            at += word;
        }
        store_relaxed(dst + at, src + at, row_end - at);
        if (row_end != (r + 1) * width)
            store_word_release(dst + row_end, src + row_end);
    }
}

std::string hex_bytes(const unsigned char* data, unsigned count)
{
    std::string text = "[";
    char item[8];
    for (unsigned i = 0; data && i < count && i < 16; ++i) {
        std::snprintf(item, sizeof item, i ? " %02X" : "%02X", data[i]);
        text += item;
    }
    return text + (count > 16 ? " ...]" : "]");
}

std::string hex_words(const uint16_t* values, uint64_t length)
{
    if (!values)
        return "null";
    std::string text = "[";
    char item[12];
    uint64_t n = length == 1 ? 1 : length / 2;
    for (uint64_t i = 0; i < n && i < 8; ++i) {
        std::snprintf(item, sizeof item, i ? " 0x%04X" : "0x%04X", values[i]);
        text += item;
    }
    return text + (n > 8 ? " ...]" : "]");
}

bool config_error(std::string* error, const std::string& text)
{
    if (error)
        *error = text;
    return false;
}

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
        p.handle = kFirstHandle + int(i);
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

int Sim_core::index_of(int handle) const
{
    int index = handle - kFirstHandle;
    return index >= 0 && index < int(buffers.size()) ? index : -1;
}

void Sim_core::disarm(int index)
{
    armed.erase(std::remove(armed.begin(), armed.end(), index), armed.end());
}

int Sim_core::index_at(const void* address) const
{
    auto p = reinterpret_cast<uintptr_t>(address);
    auto base = reinterpret_cast<uintptr_t>(memory.data());
    if (p < base || p - base >= memory.size())
        return -1;
    return int((p - base) / frame.size());
}

// A buffer leaves the driver (ReleaseBuffer) or is armed again: an
// announced frame in it has come back; a frame held back is gone.
void Sim_core::give_back(Buffer& buffer)
{
    if (buffer.state == Buffer_state::delivered && !buffer.held)
        ++count.frames_returned;
    buffer.held = false;
}

int Sim_core::pick_target() const
{
    if (!transfer)
        return -1;
    if (!self_filling() || !armed.empty())
        return armed.empty() || (cfg.capture_mode == 6 && snapshots == 0) ? -1 : armed.front();
    if (cfg.capture_mode == 6 && snapshots == 0)
        return -1;
    int n = int(buffers.size());
    for (int k = 1; k <= n; ++k) {
        int i = (last_filled + k + n) % n;
        if (buffers[i].state == Buffer_state::free)
            return i;
    }
    return -1;
}

bool Sim_core::sensor_running() const
{
    return is_supplied && !is_standby && !is_stalled && model->streaming();
}

// Called after every change that may start or stop frames.
void Sim_core::state_changed()
{
    bool now_running = sensor_running();
    if (now_running && !running) {
        // Config::latency_offset shifts both of the model's latencies alike.
        const auto shifted = [this](unsigned latency) {
            return unsigned(std::max(1, int(latency) + cfg.latency_offset));
        };
        pipeline.restart(model->controls(), shifted(model->frame_latency()), shifted(model->gain_latency()));
        Clock::time_point now = Clock::now();
        first_frame_at = now + std::chrono::milliseconds(faults.first_frame_delay_ms);
        next_frame = first_frame_at + std::chrono::microseconds(int64_t(1e6 / cfg.fps));
    }
    running = now_running;
    wake.notify_all();
}

// A stalled transfer restarted (StopScanning, StartScanning) clears once a
// write to the streaming control has the sensor streaming again; with
// firmware that starts streaming some time after the write, when it does.
void Sim_core::clear_restarted_stall()
{
    if (!is_stalled || !stall_recovering) {
        stream_restarted = false;
        return;
    }
    if (stream_restarted && model->streaming()) {
        is_stalled = stall_recovering = stopped_in_stall = stream_restarted = false;
        model->set_stalled(false);
        trace.line("stall cleared");
    }
}

// ---------------------------------------------------------------------------
// PSoC
// ---------------------------------------------------------------------------

bool Sim_core::IsPsocSupported()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("IsPsocSupported");
    trace.line("IsPsocSupported() = %d", cfg.psoc_fitted);
    return cfg.psoc_fitted;
}

bool Sim_core::WriteIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("WriteIIC_PSOC");
    bool ok = cfg.psoc_fitted && !psoc_gate.next() && psoc_model.write(address, data, count);
    if (!ok)
        ++this->count.psoc_failures;
    if (ok && is_supplied && Psoc_model::sensor_reset(address, count))
        model->set_supply(true);  // the sensor's registers return to their power-on values
    trace.line("WriteIIC_PSOC(0x%02X, %s, %u) = %d", address, hex_bytes(data, count).c_str(), count, ok);
    state_changed();
    return ok;
}

bool Sim_core::ReadIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ReadIIC_PSOC");
    bool ok = cfg.psoc_fitted && !psoc_gate.next() && psoc_model.read(address, data, count);
    if (!ok)
        ++this->count.psoc_failures;
    trace.line("ReadIIC_PSOC(0x%02X, %u) = %d %s", address, count, ok, ok ? hex_bytes(data, count).c_str() : "");
    return ok;
}

// ---------------------------------------------------------------------------
// Identity, buffers and callbacks
// ---------------------------------------------------------------------------

void Sim_core::EngineType(const char* result)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("EngineType");
    trace.line("EngineType() = \"%s\"", result);
}

IHwl::Image_buffer_pointers* Sim_core::GetImageBuffers(uint64_t& n)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("GetImageBuffers");
    n = pointers.size();
    trace.line("GetImageBuffers() = %zu buffers", pointers.size());
    return pointers.data();
}

void Sim_core::ReleaseBuffer(int buffer)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ReleaseBuffer");
    int i = index_of(buffer);
    if (i < 0 || buffers[i].state == Buffer_state::free) {
        ++count.bad_releases;
    } else {
        if (buffers[i].state == Buffer_state::armed)
            disarm(i);
        give_back(buffers[i]);
        buffers[i].state = Buffer_state::free;
    }
    trace.line("ReleaseBuffer(0x%X)%s", unsigned(buffer), i < 0 ? " unknown handle" : "");
    wake.notify_all();
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

bool Sim_core::InitCapture(int buffer)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("InitCapture");
    int i = index_of(buffer);
    bool ok = i >= 0;
    if (!ok) {
        ++count.bad_captures;
    } else if (buffers[i].state != Buffer_state::armed) {
        give_back(buffers[i]);
        buffers[i].state = Buffer_state::armed;
        armed.push_back(i);
    }
    trace.line("InitCapture(0x%X) = %d", unsigned(buffer), ok);
    wake.notify_all();
    return ok;
}

void Sim_core::StartSnapshot()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("StartSnapshot");
    ++snapshots;
    trace.line("StartSnapshot()");
    wake.notify_all();
}

// ---------------------------------------------------------------------------
// Power and lights
// ---------------------------------------------------------------------------

bool Sim_core::ImagerPowerOn()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ImagerPowerOn");
    if (!is_supplied) {
        is_supplied = true;
        model->set_supply(true);
    }
    trace.line("ImagerPowerOn() = 1");
    state_changed();
    return true;
}

bool Sim_core::ImagerPowerOff()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ImagerPowerOff");
    if (is_supplied) {
        is_supplied = false;
        model->set_supply(false);
        psoc_model.set_reg(Psoc_model::light_control, 0);
        is_stalled = stall_recovering = stopped_in_stall = false;
        model->set_stalled(false);
    }
    trace.line("ImagerPowerOff() = 1");
    state_changed();
    return true;
}

bool Sim_core::ImagerPowerUp()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ImagerPowerUp");
    is_standby = false;
    model->set_standby(false);
    trace.line("ImagerPowerUp() = 1");
    state_changed();
    return true;
}

bool Sim_core::ImagerPowerDown()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ImagerPowerDown");
    is_standby = true;
    model->set_standby(true);
    trace.line("ImagerPowerDown() = 1");
    state_changed();
    return true;
}

bool Sim_core::AimOn()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("AimOn");
    aim_on = true;
    trace.line("AimOn() = 1");
    return true;
}

bool Sim_core::AimOff()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("AimOff");
    aim_on = false;
    trace.line("AimOff() = 1");
    return true;
}

bool Sim_core::IllumConfig(unsigned int config)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("IllumConfig");
    illum_cfg = config;
    trace.line("IllumConfig(%u) = 1", config);
    return true;
}

bool Sim_core::IllumOn()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("IllumOn");
    illum_on = true;
    trace.line("IllumOn() = 1");
    return true;
}

bool Sim_core::IllumOff()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("IllumOff");
    illum_on = false;
    trace.line("IllumOff() = 1");
    return true;
}

// ---------------------------------------------------------------------------
// Sensor registers
// ---------------------------------------------------------------------------

unsigned Sim_core::engine_operation(const char* name, const std::function<unsigned(Sensor_model&)>& op)
{
    std::lock_guard<std::mutex> hold(mutex);
    note(name);
    const unsigned result = is_supplied ? op(*model) : 0;
    trace.line("%s() = %u", name, result);
    state_changed();
    return result;
}

bool Sim_core::WriteReg(unsigned int address, uint16_t* values, uint64_t length)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("WriteReg");
    bool injected = write_gate.next();
    if (is_supplied)
        model->run_until(Clock::now());
    count.standby_accesses += is_supplied && is_standby;
    bool ok = !injected && is_supplied && values != nullptr && model->write(address, values, length);
    if (!ok)
        ++count.register_write_failures;
    if (ok && is_stalled && stall_recovering && model->is_stream_control(address, length))
        stream_restarted = true;
    clear_restarted_stall();
    trace.line("WriteReg(0x%04X, %s, %llu) = %d%s", address, hex_words(values, length).c_str(),
               static_cast<unsigned long long>(length), ok, injected ? " (injected failure)" : "");
    state_changed();
    return ok;
}

bool Sim_core::ReadReg(unsigned int address, uint16_t* values, uint64_t length)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ReadReg");
    bool injected = read_gate.next();
    count.standby_accesses += is_supplied && is_standby;
    if (is_supplied) {
        model->run_until(Clock::now());
        clear_restarted_stall();
        state_changed();
    }
    bool ok = !injected && is_supplied && values != nullptr && model->read(address, values, length);
    if (!ok)
        ++count.register_read_failures;
    trace.line("ReadReg(0x%04X, %llu) = %d %s%s", address, static_cast<unsigned long long>(length), ok,
               ok ? hex_words(values, length).c_str() : "", injected ? " (injected failure)" : "");
    return ok;
}

// ---------------------------------------------------------------------------
// Configuration and scanning
// ---------------------------------------------------------------------------

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

bool Sim_core::ResetTransferHardware()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ResetTransferHardware");
    if (is_stalled) {
        is_stalled = stall_recovering = stopped_in_stall = false;
        model->set_stalled(false);
    }
    trace.line("ResetTransferHardware() = 1");
    state_changed();
    return true;
}

bool Sim_core::StartScanning()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("StartScanning");
    if (faults.start_fail) {
        ++count.failed_starts;
        trace.line("StartScanning() = 0 (start_fail)");
        return false;
    }
    transfer = true;
    if (is_stalled && stopped_in_stall)
        stall_recovering = true;
    trace.line("StartScanning() = 1");
    state_changed();
    return true;
}

bool Sim_core::StopScanning()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("StopScanning");
    transfer = false;
    stopped_in_stall = is_stalled;
    trace.line("StopScanning() = 1");
    state_changed();
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

bool Sim_core::RequestStopScanning(IHwl::Stop_callback callback, void* context)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("RequestStopScanning");
    ++count.stop_requests;
    bool at_once = !faults.never_confirm_stop && faults.defer_stop_ms < 0;
    if (faults.never_confirm_stop) {
        never_pending = true;
        never_callback = callback;
        never_context = context;
    } else if (!at_once) {
        if (!stop_pending)
            stop_deadline = Clock::now() + std::chrono::milliseconds(faults.defer_stop_ms);
        stop_pending = true;
        stop_callback = callback;
        stop_context = context;
        wake.notify_all();
    }
    trace.line("RequestStopScanning(%p, %p) = %d", reinterpret_cast<void*>(callback), context, at_once);
    return at_once;
}

// ---------------------------------------------------------------------------
// Frame thread
// ---------------------------------------------------------------------------

Sim_core::Clock::duration Sim_core::frame_period(bool storm)
{
    double us = std::max(1e6 / cfg.fps, last_exposure_us);
    us *= 1.0 + kJitter * std::uniform_real_distribution<double>(-1.0, 1.0)(random);
    if (storm)
        us /= kStormFactor;
    return std::chrono::microseconds(int64_t(us));
}

bool Sim_core::frame_possible(Clock::time_point now) const
{
    return running && now >= first_frame_at && pick_target() >= 0;
}

Sim_core::Clock::time_point Sim_core::next_wake() const
{
    Clock::time_point t = Clock::time_point::max();
    if (is_supplied)
        t = model->next_event();
    if (stop_pending)
        t = std::min(t, stop_deadline);
    if (running && cfg.real_time)
        t = std::min(t, next_frame);
    if (running && !cfg.real_time && steps_wanted > 0 && Clock::now() < first_frame_at)
        t = std::min(t, first_frame_at);
    return t;
}

void Sim_core::run()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!quit) {
        Clock::time_point now = Clock::now();
        if (is_supplied && now >= model->next_event()) {
            model->run_until(now);
            clear_restarted_stall();
            state_changed();
        } else if (stop_pending && now >= stop_deadline) {
            confirm_stop(lock);
        } else if (cfg.real_time && running && now >= next_frame) {
            bool storm = storm_gate.next();
            Clock::duration period = frame_period(storm);
            next_frame += period;
            if (next_frame < now)
                next_frame = now + period;
            if (now >= first_frame_at)
                produce_frame(lock, false, period);
        } else if (!cfg.real_time && steps_wanted > 0 && frame_possible(now)) {
            produce_frame(lock, true, Clock::duration::zero());
        } else {
            Clock::time_point t = next_wake();
            if (t == Clock::time_point::max())
                wake.wait(lock);
            else
                wake.wait_until(lock, t);
        }
    }
}

void Sim_core::confirm_stop(std::unique_lock<std::mutex>& lock)
{
    stop_pending = false;
    IHwl::Stop_callback callback = stop_callback;
    void* context = stop_context;
    ++count.stop_confirmations;
    lock.unlock();
    trace.line("stop confirmed: callback(%p)", context);
    if (callback)
        callback(context);
    lock.lock();
}

Render_params Sim_core::render_params(const Frame_settings& f) const
{
    Render_params p;
    uint8_t light = psoc_model.reg(Psoc_model::light_control);
    double boost = 1.0 + 0.25 * ((light >> 2) & 7);
    bool lit = illum_on || (light & 2) != 0;
    bool aiming = aim_on || (light & 1) != 0;
    const double signal = scene_scale * model->sensitivity();
    p.light = (ambient + (lit ? cfg.illumination * boost : 0.0)) * signal;
    p.aimer_light = aiming ? cfg.aimer_light * signal : 0.0;
    p.exposure_us = f.exposure_us;
    p.gain = f.analog_gain * f.digital_gain;
    bool rotated = cfg.orientation == 180;
    p.vflip = f.vflip != rotated;
    p.hflip = f.hflip != rotated;
    p.noise_offset = uint32_t(random() & 0xFFFFF);
    p.mode = cfg.render;
    return p;
}

bool Sim_core::still_ours(int index) const
{
    Buffer_state state = buffers[index].state;
    return self_filling() ? state != Buffer_state::delivered : state == Buffer_state::armed;
}

// Waits, lock released, until @p t; a deferred stop that falls due meanwhile
// is confirmed on the way. The lock is let go even when @p t has passed, so
// that a readout running late still lets other callers in between strips.
void Sim_core::pause_until(std::unique_lock<std::mutex>& lock, Clock::time_point t)
{
    if (Clock::now() >= t) {
        lock.unlock();
        std::this_thread::yield();
        lock.lock();
        return;
    }
    for (Clock::time_point now = Clock::now(); !quit && now < t; now = Clock::now()) {
        if (stop_pending && now >= stop_deadline) {
            confirm_stop(lock);
            continue;
        }
        wake.wait_until(lock, stop_pending ? std::min(t, stop_deadline) : t);
    }
}

// Writes the rendered frame into buffer @p index strip by strip, lock held
// while a strip is written and released in between. Real time: strip k is
// due at @p begin + k x @p spacing (a late strip follows at once). Step
// mode: each strip follows the previous one after a real pause of
// @p spacing. False when the buffer was taken back (or the instance shut
// down) before the last strip: the rest of the frame is not written.
bool Sim_core::read_out(std::unique_lock<std::mutex>& lock, int index, Clock::time_point begin,
                        Clock::duration spacing)
{
    const size_t width = model->width();
    const size_t height = model->height();
    uint8_t* dst = memory.data() + size_t(index) * frame.size();
    for (unsigned k = 0; k < kStrips; ++k) {
        if (k > 0)
            pause_until(lock, cfg.real_time ? begin + k * spacing : Clock::now() + spacing);
        if (quit || !still_ours(index))
            return false;
        publish_rows(dst, frame.data(), width, height, height * k / kStrips, height * (k + 1) / kStrips);
    }
    return true;
}

void Sim_core::produce_frame(std::unique_lock<std::mutex>& lock, bool step_frame, Clock::duration period)
{
    const Clock::time_point tick = Clock::now();
    if (faults.stall_after != 0 && !stall_fired && count.frames_delivered >= faults.stall_after) {
        stall_fired = is_stalled = true;
        stall_recovering = stopped_in_stall = false;
        model->set_stalled(true);
        ++count.stalls;
        trace.line("transfer stalled after %llu frames", static_cast<unsigned long long>(count.frames_delivered));
        state_changed();
        return;
    }
    int index = pick_target();
    Frame_settings settings = pipeline.advance(model->controls());
    model->begin_frame(settings);
    state_changed();  // a sensor may stop by itself after a frame (single frame)
    ++count.sensor_frames;
    ++frame_number;
    last_exposure_us = settings.exposure_us;
    if (index < 0) {
        ++count.frames_missed;
        return;
    }
    if (step_frame) {
        --steps_wanted;
        ++steps_begun;
    }
    bool drop = drop_gate.next();
    bool zero = zero_gate.next();
    bool twice = duplicate_gate.next();
    bool unknown = unknown_gate.next();
    if (cfg.capture_mode == 6)
        --snapshots;
    Render_params params = render_params(settings);
    std::shared_ptr<const Scene> view = scene;

    Frame_record record;
    record.number = frame_number;
    record.frame_count = settings.frame_count;
    record.handle = pointers[index].handle;
    record.delivered = !drop;
    record_controls(settings, record);
    record.illumination = illum_on || (psoc_model.reg(Psoc_model::light_control) & 2) != 0;
    record.aimer = params.aimer_light > 0.0;

    lock.unlock();
    renderer.render(view, params, frame.data());
    lock.lock();

    // Real time: the readout begins when the frame is rendered (at once
    // after the frame's tick, unless the render ran long) and ends (vsync)
    // the readout share of the period later. Step mode: strips follow the
    // render with short pauses.
    Clock::duration spacing = step_frame
        ? std::chrono::duration_cast<Clock::duration>(std::chrono::microseconds(cfg.strip_pause_us))
        : std::chrono::duration_cast<Clock::duration>(period * kReadoutShare / (kStrips - 1));
    Buffer& buffer = buffers[index];
    // Real time: the readout takes its time from when the frame is ready. A
    // render that ran long (a slow build) must not squeeze the strips into
    // one burst, which would hide the frame's progress from a reader that
    // polls the buffer.
    const Clock::time_point readout_begin = step_frame ? tick : std::max(tick, Clock::now());
    if (!read_out(lock, index, readout_begin, spacing)) {
        // Taken back while the frame was read out: the frame is lost.
        ++count.frames_missed;
        if (step_frame) {
            ++steps_wanted;
            --steps_begun;
        }
        return;
    }
    ++count.frames_filled;
    last_filled = index;
    record.time_us = elapsed_us();
    record.period_us = uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(period).count());
    buffer.has_frame = true;
    buffer.frame = record;
    history.push_back(record);
    if (history.size() > kHistorySize)
        history.pop_front();

    std::vector<int> events;
    if (drop) {
        ++count.frames_dropped;
    } else if (faults.hold_frames) {
        buffer.state = Buffer_state::delivered;
        buffer.held = true;
        disarm(index);
        ++count.frames_held;
        trace.line("frame %llu held back in 0x%X", static_cast<unsigned long long>(record.number),
                   unsigned(record.handle));
    } else {
        buffer.state = Buffer_state::delivered;
        buffer.announced_frame = record.number;
        disarm(index);
        ++count.frames_delivered;
        events.push_back(record.handle);
        if (twice) {
            events.push_back(record.handle);
            ++count.duplicate_events;
        }
        if (zero) {
            events.push_back(0);
            ++count.zero_handle_events;
        }
        if (unknown) {
            events.push_back(kUnknownHandle);
            ++count.unknown_handle_events;
        }
    }
    IHwl::Vsync_callback callback = vsync;
    void* context = vsync_context;
    if (callback)
        count.vsyncs += events.size();
    const std::function<void(const std::function<void()>&)> guard = events.size() > 1 ? event_guard : nullptr;

    lock.unlock();
    const auto announce = [&] {
        for (int handle : events) {
            trace.line("vsync(0x%X) frame %llu", unsigned(handle), static_cast<unsigned long long>(record.number));
            if (callback)
                callback(handle, context);
        }
    };
    if (guard)
        guard(announce);
    else
        announce();
    lock.lock();
    if (step_frame)
        ++steps_done;
    step_done.notify_all();
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

std::vector<Buffer_state> Sim_core::buffer_states() const
{
    std::lock_guard<std::mutex> hold(mutex);
    std::vector<Buffer_state> states;
    for (const Buffer& b : buffers)
        states.push_back(b.state);
    return states;
}

Buffer_state Sim_core::buffer_state(int handle) const
{
    std::lock_guard<std::mutex> hold(mutex);
    int i = index_of(handle);
    return i < 0 ? Buffer_state::free : buffers[i].state;
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

bool Sim_core::buffer_at(const void* address, Buffer_view* out) const
{
    std::lock_guard<std::mutex> hold(mutex);
    int i = index_at(address);
    if (i < 0)
        return false;
    out->handle = pointers[i].handle;
    out->state = buffers[i].state;
    out->held = buffers[i].held;
    out->announced_frame = buffers[i].announced_frame;
    return true;
}

std::vector<unsigned char*> Sim_core::buffer_images() const
{
    std::vector<unsigned char*> images;
    for (const IHwl::Image_buffer_pointers& p : pointers)
        images.push_back(p.image);
    return images;
}

Faults Sim_core::faults_now() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return faults;
}

void Sim_core::update_faults(const std::function<void(Faults&)>& change)
{
    std::lock_guard<std::mutex> hold(mutex);
    change(faults);
    drop_gate.retarget(faults.drop);
    zero_gate.retarget(faults.zero_handle);
    duplicate_gate.retarget(faults.duplicate);
    unknown_gate.retarget(faults.unknown_handle);
    storm_gate.retarget(faults.storm);
    read_gate.retarget(faults.regfail_read);
    write_gate.retarget(faults.regfail_write);
    psoc_gate.retarget(faults.psocfail);
    trace.line("faults changed");
    wake.notify_all();
}

unsigned Sim_core::release_held_frames()
{
    std::vector<int> handles;
    IHwl::Vsync_callback callback;
    void* context;
    {
        std::lock_guard<std::mutex> hold(mutex);
        callback = vsync;
        context = vsync_context;
        for (size_t i = 0; i < buffers.size(); ++i) {
            Buffer& b = buffers[i];
            if (!b.held)
                continue;
            b.held = false;
            b.announced_frame = b.frame.number;
            ++count.frames_delivered;
            handles.push_back(pointers[i].handle);
        }
        if (callback)
            count.vsyncs += handles.size();
    }
    for (int handle : handles) {
        trace.line("vsync(0x%X) held frame released", unsigned(handle));
        if (callback)
            callback(handle, context);
    }
    return unsigned(handles.size());
}

unsigned Sim_core::lose_held_frames()
{
    std::lock_guard<std::mutex> hold(mutex);
    unsigned n = 0;
    for (size_t i = 0; i < buffers.size(); ++i) {
        Buffer& b = buffers[i];
        if (!b.held)
            continue;
        b.held = false;
        if (self_filling()) {
            b.state = Buffer_state::free;
        } else {
            b.state = Buffer_state::armed;
            armed.push_back(int(i));
        }
        ++n;
    }
    trace.line("%u held frames lost", n);
    wake.notify_all();
    return n;
}

unsigned Sim_core::confirm_stop_now(bool also_never)
{
    std::vector<std::pair<IHwl::Stop_callback, void*>> due;
    {
        std::lock_guard<std::mutex> hold(mutex);
        if (stop_pending) {
            stop_pending = false;
            due.emplace_back(stop_callback, stop_context);
        }
        if (also_never && never_pending) {
            never_pending = false;
            due.emplace_back(never_callback, never_context);
        }
        count.stop_confirmations += due.size();
    }
    for (const auto& d : due) {
        trace.line("stop confirmed now: callback(%p)", d.second);
        if (d.first)
            d.first(d.second);
    }
    return unsigned(due.size());
}

bool Sim_core::stop_pending_now() const
{
    std::lock_guard<std::mutex> hold(mutex);
    return stop_pending;
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
