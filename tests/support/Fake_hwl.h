// Fake_hwl: a scriptable hardware layer for driver unit tests.
//
// - Every call is appended to a thread-safe Call_log as "Name" or
//   "Name(args)" (e.g. "ReleaseBuffer(101)", "WriteReg(0x3012,1)"); a test
//   checks counts and order. A Fake_trait built on this layer writes its own
//   (lower-case) calls into the same log, so the order across both is kept.
// - Results of the boolean operations are atomics a test may change at any
//   time, also while the driver runs on other threads.
// - set_buffers(n, width, height) lends n zeroed frames of width x height
//   bytes with handles first_handle, first_handle + 1, ...; image and capture
//   address are the same unless a test rewrites `buffers` before loading.
// - The registered vsync callback and stop callback are kept; fire_vsync()
//   and complete_stop() call them from the calling thread.
// - Registers written with WriteReg are kept and returned by ReadReg.
#ifndef VQX_TESTS_FAKE_HWL_H
#define VQX_TESTS_FAKE_HWL_H

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "IHwl.h"

class Call_log {
public:
    void record(const char* fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        char text[128];
        va_list args;
        va_start(args, fmt);
        vsnprintf(text, sizeof text, fmt, args);
        va_end(args);
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back(text);
    }
    std::vector<std::string> entries() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    // Number of entries equal to @p entry.
    size_t count(const std::string& entry) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return static_cast<size_t>(std::count(calls.begin(), calls.end(), entry));
    }
    // Number of entries starting with @p prefix.
    size_t count_prefix(const std::string& prefix) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return static_cast<size_t>(std::count_if(calls.begin(), calls.end(), [&](const std::string& c) {
            return c.compare(0, prefix.size(), prefix) == 0;
        }));
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        calls.clear();
    }

private:
    mutable std::mutex mutex;
    std::vector<std::string> calls;
};

class Fake_hwl : public IHwl {
public:
    explicit Fake_hwl(const char* engine_type = "FAKE") : engine_type(engine_type) {}

    void set_buffers(size_t n, unsigned int w, unsigned int h, int first_handle = 101)
    {
        width = w;
        height = h;
        storage.assign(n, std::vector<unsigned char>(static_cast<size_t>(w) * h));
        buffers.assign(n, IHwl::Image_buffer_pointers{});
        for (size_t i = 0; i < n; ++i) {
            buffers[i].image = storage[i].data();
            buffers[i].capture = storage[i].data();
            buffers[i].handle = first_handle + static_cast<int>(i);
        }
    }
    unsigned char* frame(size_t i) { return storage[i].data(); }

    void fire_vsync(int buffer) { if (vsync_callback) vsync_callback(buffer, vsync_context); }
    void complete_stop() { if (stop_callback) stop_callback(stop_context); }

    // IHwl --------------------------------------------------------------
    const char* EngineType() override { log.record("EngineType"); return engine_type; }
    Image_buffer_pointers* GetImageBuffers(uint64_t& count) override
    {
        log.record("GetImageBuffers");
        count = buffers.size();
        return buffers.empty() ? nullptr : buffers.data();
    }
    void ReleaseBuffer(int buffer) override { log.record("ReleaseBuffer(%d)", buffer); }
    bool RegisterVsyncNotification(Vsync_callback callback, void* context) override
    {
        log.record("RegisterVsyncNotification");
        vsync_callback = callback;
        vsync_context = context;
        return register_result;
    }
    unsigned int GetScanHeight() override { return height; }
    unsigned int GetScanWidth() override { return width; }
    bool ImagerPowerUp() override { log.record("ImagerPowerUp"); return power_result; }
    bool ImagerPowerDown() override { log.record("ImagerPowerDown"); return power_result; }
    bool ImagerPowerOn() override { log.record("ImagerPowerOn"); return power_result; }
    bool ImagerPowerOff() override { log.record("ImagerPowerOff"); return power_result; }
    bool InitCapture(int buffer) override { log.record("InitCapture(%d)", buffer); return init_capture_result; }
    void StartSnapshot() override { log.record("StartSnapshot"); }
    bool ResetTransferHardware() override { log.record("ResetTransferHardware"); return true; }
    bool AimOn() override { log.record("AimOn"); return true; }
    bool AimOff() override { log.record("AimOff"); return true; }
    bool IllumConfig(unsigned int config) override { log.record("IllumConfig(%u)", config); return true; }
    bool IllumOn() override { log.record("IllumOn"); return true; }
    bool IllumOff() override { log.record("IllumOff"); return true; }
    bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    {
        log.record("WriteReg(0x%04X,%u)", address, length >= 2 ? values[0] : 0u);
        std::lock_guard<std::mutex> lock(reg_mutex);
        for (uint64_t i = 0; i < length / 2; ++i)
            registers[address + static_cast<unsigned int>(i)] = values[i];
        return reg_result;
    }
    bool ReadReg(unsigned int address, uint16_t* values, uint64_t length) override
    {
        log.record("ReadReg(0x%04X)", address);
        std::lock_guard<std::mutex> lock(reg_mutex);
        for (uint64_t i = 0; i < length / 2; ++i)
            values[i] = registers[address + static_cast<unsigned int>(i)];
        return reg_result;
    }
    void GetConfig(Config* config) override { log.record("GetConfig"); config->capture_mode = capture_mode; }
    bool StartScanning() override { log.record("StartScanning"); return start_scanning_result; }
    bool StopScanning() override { log.record("StopScanning"); return stop_scanning_result; }
    bool OpenSession() override { log.record("OpenSession"); return open_session_result; }
    void CloseSession() override { log.record("CloseSession"); }
    bool RequestStopScanning(Stop_callback callback, void* context) override
    {
        log.record("RequestStopScanning");
        stop_callback = callback;
        stop_context = context;
        return request_stop_result;
    }

    Call_log log;
    const char* engine_type;
    unsigned int width = 0;
    unsigned int height = 0;
    unsigned int capture_mode = 3;
    std::vector<std::vector<unsigned char>> storage;
    std::vector<IHwl::Image_buffer_pointers> buffers;
    std::map<unsigned int, uint16_t> registers;
    std::mutex reg_mutex;

    std::atomic<bool> register_result{true};
    std::atomic<bool> power_result{true};
    std::atomic<bool> init_capture_result{true};
    std::atomic<bool> reg_result{true};
    std::atomic<bool> start_scanning_result{true};
    std::atomic<bool> stop_scanning_result{true};
    std::atomic<bool> open_session_result{true};
    std::atomic<bool> request_stop_result{true};

    Vsync_callback vsync_callback = nullptr;
    void* vsync_context = nullptr;
    Stop_callback stop_callback = nullptr;
    void* stop_context = nullptr;
};

#endif
