// Recording AR0144 hardware layer for the trait tests: a register map and a
// PSoC, every call recorded, failures of named operations or registers on
// request. Thread-safe (the trait's standby alarm runs on a timer thread).
#ifndef VQX_TEST_AR0144_FAKE_H
#define VQX_TEST_AR0144_FAKE_H

#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "IHwl.h"
#include "Scan_driver.h"

struct Hwl_call {
    std::string op;
    unsigned address;              // register, PSoC address, handle or argument
    std::vector<uint16_t> values;  // the values written
};
using Writes = std::vector<std::pair<unsigned, std::vector<uint16_t>>>;

class Recording_hwl : public IHwl_AR0144 {
public:
    unsigned width = 1280, height = 800;
    bool psoc_fitted = true;
    unsigned char psoc[256] = {};
    std::map<unsigned, uint16_t> regs;
    std::set<unsigned> fail_read, fail_write;  // register addresses
    std::set<std::string> fail_ops;            // operation names

    std::vector<Hwl_call> log() { std::lock_guard<std::mutex> g(m); return calls; }
    void clear() { std::lock_guard<std::mutex> g(m); calls.clear(); }
    unsigned char psoc_byte(unsigned a) { std::lock_guard<std::mutex> g(m); return psoc[a]; }
    Writes writes()  // the WriteReg calls
    {
        Writes w;
        for (const Hwl_call& c : log())
            if (c.op == "WriteReg")
                w.push_back({c.address, c.values});
        return w;
    }
    size_t count(const std::string& op)
    {
        size_t n = 0;
        for (const Hwl_call& c : log())
            n += c.op == op;
        return n;
    }

    bool IsPsocSupported() override { return psoc_fitted; }
    bool WriteIIC_PSOC(unsigned char a, unsigned char* d, unsigned int n) override
    {
        return op("WriteIIC_PSOC", a, {d, d + n}) && copy(psoc + a, d, n);
    }
    bool ReadIIC_PSOC(unsigned char a, unsigned char* d, unsigned int n) override
    {
        return op("ReadIIC_PSOC", a) && copy(d, psoc + a, n);
    }
    Image_buffer_pointers* GetImageBuffers(uint64_t& count) override { count = 0; return nullptr; }
    bool RegisterVsyncNotification(Vsync_callback, void*) override { return true; }
    unsigned int GetScanHeight() override { return height; }
    unsigned int GetScanWidth() override { return width; }
    bool ImagerPowerUp() override { return op("ImagerPowerUp"); }
    bool ImagerPowerDown() override { return op("ImagerPowerDown"); }
    bool ImagerPowerOn() override { return op("ImagerPowerOn"); }
    bool ImagerPowerOff() override { return op("ImagerPowerOff"); }
    bool InitCapture(int buffer) override { return op("InitCapture", unsigned(buffer)); }
    bool ResetTransferHardware() override { return op("ResetTransferHardware"); }
    bool AimOn() override { return op("AimOn"); }
    bool AimOff() override { return op("AimOff"); }
    bool IllumConfig(unsigned int c) override { return op("IllumConfig", c); }
    bool IllumOn() override { return op("IllumOn"); }
    bool IllumOff() override { return op("IllumOff"); }
    bool StartScanning() override { return op("StartScanning"); }
    bool StopScanning() override { return op("StopScanning"); }
    bool RequestStopScanning(Stop_callback, void*) override { return op("RequestStopScanning"); }
    bool WriteReg(unsigned int a, uint16_t* v, uint64_t len) override
    {
        const size_t n = len == 1 ? 1 : len / 2;
        if (!op("WriteReg", a, {v, v + n}) || fail_write.count(a))
            return false;
        std::lock_guard<std::mutex> g(m);
        for (size_t i = 0; i < n; ++i)
            regs[a + 2 * i] = v[i];
        return true;
    }
    bool ReadReg(unsigned int a, uint16_t* v, uint64_t len) override
    {
        if (!op("ReadReg", a) || fail_read.count(a))
            return false;
        std::lock_guard<std::mutex> g(m);
        for (size_t i = 0; i < (len == 1 ? 1 : len / 2); ++i)
            v[i] = regs[a + 2 * i];
        return true;
    }

private:
    // Records the call; false when the test asked this operation to fail.
    bool op(const char* name, unsigned address = 0, std::vector<uint16_t> values = {})
    {
        std::lock_guard<std::mutex> g(m);
        calls.push_back({name, address, std::move(values)});
        return !fail_ops.count(name);
    }
    bool copy(unsigned char* to, const unsigned char* from, unsigned n)
    {
        std::lock_guard<std::mutex> g(m);
        std::memcpy(to, from, n);
        return true;
    }
    std::mutex m;
    std::vector<Hwl_call> calls;
};

// Points the_scan_driver at a private driver object with the given
// configuration word (variant | orientation << 16) while it exists.
class Driver_scope {
public:
    explicit Driver_scope(uint32_t engine_word, uint32_t capture_mode = 0, Sensor* sensor = nullptr)
        : saved(the_scan_driver)
    {
        driver.config.engine_variant = engine_word;
        driver.config.capture_mode = capture_mode;
        driver.sensor = sensor;
        the_scan_driver = &driver;
    }
    ~Driver_scope()
    {
        the_scan_driver = saved;
        driver.sensor = nullptr;  // not owned here
    }
    Scan_driver driver;

private:
    Scan_driver* saved;
};

#endif
