// Fake_hwl: a scriptable hardware layer for driver unit tests.
//
// - Every call is appended to a thread-safe Call_log as "Name" or
//   "Name(args)" (e.g. "ReleaseBuffer(101)", "WriteReg(0x3012,1)"); a test
//   checks counts and order. A Fake_trait built on this layer writes its own
//   (lower-case) calls into the same log, so the order across both is kept.
// - The results of starting, stopping and requesting a stop are atomics a
//   test may change at any time, also while the driver runs on other
//   threads; the other operations succeed.
// - set_buffers(n, width, height) lends n zeroed frames of width x height
//   bytes with handles first_handle, first_handle + 1, ...; image and capture
//   address are the same unless a test rewrites `buffers` before loading.
// - The registered vsync callback is kept; fire_vsync() calls it from the
//   calling thread. Registers read as 0.
#ifndef VQX_TESTS_FAKE_HWL_H
#define VQX_TESTS_FAKE_HWL_H

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
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

    // IHwl --------------------------------------------------------------
    const char* EngineType() override { return "FAKE"; }
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
        return true;
    }
    unsigned int GetScanHeight() override { return height; }
    unsigned int GetScanWidth() override { return width; }
    bool ImagerPowerUp() override { return logged("ImagerPowerUp"); }
    bool ImagerPowerDown() override { return logged("ImagerPowerDown"); }
    bool ImagerPowerOn() override { return logged("ImagerPowerOn"); }
    bool ImagerPowerOff() override { return logged("ImagerPowerOff"); }
    bool InitCapture(int buffer) override { log.record("InitCapture(%d)", buffer); return true; }
    void StartSnapshot() override { log.record("StartSnapshot"); }
    bool ResetTransferHardware() override { return logged("ResetTransferHardware"); }
    bool AimOn() override { return logged("AimOn"); }
    bool AimOff() override { return logged("AimOff"); }
    bool IllumConfig(unsigned int config) override { log.record("IllumConfig(%u)", config); return true; }
    bool IllumOn() override { return logged("IllumOn"); }
    bool IllumOff() override { return logged("IllumOff"); }
    bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    {
        log.record("WriteReg(0x%04X,%u)", address, length >= 2 ? values[0] : 0u);
        return true;
    }
    bool ReadReg(unsigned int address, uint16_t* values, uint64_t length) override
    {
        log.record("ReadReg(0x%04X)", address);
        std::fill(values, values + length / 2, uint16_t(0));
        return true;
    }
    void GetConfig(Config* config) override { log.record("GetConfig"); config->capture_mode = 3; }
    bool StartScanning() override { log.record("StartScanning"); return start_scanning_result; }
    bool StopScanning() override { log.record("StopScanning"); return stop_scanning_result; }
    bool OpenSession() override { return logged("OpenSession"); }
    void CloseSession() override { log.record("CloseSession"); }
    bool RequestStopScanning(Stop_callback, void*) override
    {
        log.record("RequestStopScanning");
        return request_stop_result;
    }

    Call_log log;
    unsigned int width = 0;
    unsigned int height = 0;
    std::vector<std::vector<unsigned char>> storage;
    std::vector<IHwl::Image_buffer_pointers> buffers;
    std::atomic<bool> start_scanning_result{true};
    std::atomic<bool> stop_scanning_result{true};
    std::atomic<bool> request_stop_result{true};

private:
    bool logged(const char* name) { log.record("%s", name); return true; }
    Vsync_callback vsync_callback = nullptr;
    void* vsync_context = nullptr;
};

#endif
