// IHwl: the hardware-layer contract.
//
// The boundary between the scan driver and the imager hardware: sensor power,
// the image transfer hardware (capture buffers and the vsync callback), aimer
// and illumination, raw sensor register access and the I2C link to the PSoC
// companion controller. A hardware layer is a separately built shared library
// (libLmoKil.so) whose one exported function, InitHWLayer, returns an object
// implementing one of the engine interfaces below.
//
// ABI: the order of the virtual operations is shared with a separately built
// library. Never reorder, insert or remove an operation; new engine-specific
// operations go after slot 31 in the engine's own interface only.
//
// Threads: the driver calls the hardware layer from client threads, its timer
// thread and the callback thread, always with its own sensor monitor held, so
// a hardware layer needs no locking for the driver's sake. The vsync and
// stop-complete callbacks are made from the hardware layer's own thread, and
// the driver takes its monitor inside them: a hardware layer must never hold a
// lock of its own while it calls either callback.
#ifndef VQX_IHWL_H
#define VQX_IHWL_H

#include <cstddef>
#include <cstdint>

// PSoC companion controller access (slots 1 to 3), with working defaults: a
// hardware layer that does not override them reports no PSoC and fails every
// transfer.
class IHwl_psoc {
public:
    virtual ~IHwl_psoc() {}
    /* 1 */ virtual bool IsPsocSupported() { return false; }
    /* 2 */ virtual bool WriteIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count)
    { (void)address; (void)data; (void)count; return false; }
    /* 3 */ virtual bool ReadIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count)
    { (void)address; (void)data; (void)count; return false; }
};

class IHwl : public IHwl_psoc {
public:
    // One image buffer of the transfer hardware. The hardware layer owns the
    // array and its memory; the driver copies each entry.
    struct Image_buffer_pointers {
        // The frame as the driver reads it: scan height rows of scan width
        // bytes, one byte per pixel.
        unsigned char* image;
        // The same frame as used when a capture is armed (the hardware layer
        // may give a different view of the same memory, or the same address).
        unsigned char* capture;
        // Non-zero buffer handle: the value of InitCapture, ReleaseBuffer and
        // of the vsync callback.
        int32_t handle;
        int32_t reserved;  // pads the handle to 64 bits
    };

    // Filled by GetConfig; the driver's copy holds the defaults (24, 3, 0, 1,
    // 42) where the hardware layer leaves a field alone. Words the driver
    // reads:
    //   capture_mode (offset 8, default 3): the stream driver's capture mode
    //       0 to 7 (how buffers are armed and frames triggered).
    //   engine_variant (offset 12, default 0): bits 0-15 the engine variant
    //       number, bits 16-31 the image orientation in degrees (0 or 180).
    //       The AR0144 engine reads both: variant 1 loads register table A,
    //       2 table B, any other table C; a non-zero variant streams with
    //       reset-register value 0x085C (0x30DC otherwise); orientation 180
    //       mirrors the image both ways through the read-mode register.
    //   imager_link (offset 16, default 1): 0 parallel, 1 one serial data
    //       lane (X5501 engines).
    //   register_table (offset 20, default 42): register table selection of
    //       X5501 engines (42: the short table).
    struct Config {
        uint64_t size;
        uint32_t capture_mode;
        uint32_t engine_variant;
        uint32_t imager_link;
        uint32_t register_table;
    };

    typedef void (*Vsync_callback)(int buffer, void* context);
    typedef void (*Stop_callback)(void* context);

    /* 4 */ virtual const char* EngineType() = 0;
    /* 5 */ virtual Image_buffer_pointers* GetImageBuffers(uint64_t& count) = 0;
    /* 6 */ virtual void ReleaseBuffer(int buffer) { (void)buffer; }
    /* 7 */ virtual bool RegisterVsyncNotification(Vsync_callback callback, void* context) = 0;
    /* 8 */ virtual unsigned int GetScanHeight() = 0;
    /* 9 */ virtual unsigned int GetScanWidth() = 0;
    // Sensor power as the engine traits use it: ImagerPowerOn supplies the
    // sensor and ImagerPowerOff cuts the supply (its registers are lost);
    // ImagerPowerUp takes a supplied sensor out of standby and
    // ImagerPowerDown puts it into standby, keeping its registers (the
    // MT9V022 trait wakes with ImagerPowerUp alone, without its table).
    // Every trait writes registers only after both ImagerPowerOn and
    // ImagerPowerUp.
    /* 10 */ virtual bool ImagerPowerUp() = 0;
    /* 11 */ virtual bool ImagerPowerDown() = 0;
    /* 12 */ virtual bool ImagerPowerOn() = 0;
    /* 13 */ virtual bool ImagerPowerOff() = 0;
    /* 14 */ virtual bool InitCapture(int buffer) { (void)buffer; return false; }
    /* 15 */ virtual void StartSnapshot() {}
    /* 16 */ virtual bool ResetTransferHardware() = 0;
    /* 17 */ virtual bool AimOn() = 0;
    /* 18 */ virtual bool AimOff() = 0;
    /* 19 */ virtual bool IllumConfig(unsigned int config) = 0;
    /* 20 */ virtual bool IllumOn() = 0;
    /* 21 */ virtual bool IllumOff() = 0;
    /* 22 */ virtual bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) = 0;
    /* 23 */ virtual bool ReadReg(unsigned int address, uint16_t* values, uint64_t length) = 0;
    /* 24 */ virtual void GetConfig(Config* config) { config->capture_mode = 3; }
    /* 25 */ virtual bool LoadCaptureInfo() { return true; }
    /* 26 */ virtual bool EnableVsyncProcessing() { return true; }
    /* 27 */ virtual bool StartScanning() { return true; }
    /* 28 */ virtual bool StopScanning() { return true; }
    /* 29 */ virtual bool OpenSession() { return true; }
    /* 30 */ virtual void CloseSession() {}
    /* 31 */ virtual bool RequestStopScanning(Stop_callback callback, void* context)
    { (void)callback; (void)context; return true; }
};

static_assert(sizeof(IHwl::Image_buffer_pointers) == 24, "three 64-bit words");
static_assert(offsetof(IHwl::Image_buffer_pointers, image) == 0, "image first");
static_assert(offsetof(IHwl::Image_buffer_pointers, capture) == 8, "capture address second");
static_assert(offsetof(IHwl::Image_buffer_pointers, handle) == 16, "handle third");
static_assert(sizeof(IHwl::Config) == 24, "config record is 24 bytes");
static_assert(offsetof(IHwl::Config, capture_mode) == 8, "capture mode at 8");
static_assert(offsetof(IHwl::Config, engine_variant) == 12, "engine variant at 12");
static_assert(offsetof(IHwl::Config, imager_link) == 16, "imager link at 16");
static_assert(offsetof(IHwl::Config, register_table) == 20, "register table at 20");

// Engine interfaces: each fixes the engine type string that selects the
// engine trait at driver start-up. The strings are compared exactly.
class IHwl_kelp : public IHwl {
public:
    const char* EngineType() override { return "KELP"; }
};
class IHwl_rilo : public IHwl {
public:
    const char* EngineType() override { return "RILO"; }
};
class IHwl_aptina : public IHwl {
public:
    const char* EngineType() override { return "APTINA"; }
    /* 32 */ virtual bool LedControlState(unsigned int state) = 0;
    /* 33 */ virtual bool SetExposureGain(uint16_t a, uint16_t b, uint16_t c) = 0;
    /* 34 */ virtual unsigned int RowTime() = 0;
    /* 35 */ virtual void CancelDeferredInitCapture() = 0;
};
class IHwl_MT9V022 : public IHwl {
public:
    const char* EngineType() override { return "MT9V022"; }
};
// The AR0144 engine reports the engine model, not the sensor name.
class IHwl_AR0144 : public IHwl {
public:
    const char* EngineType() override { return "X7710"; }
};
class IHwl_x5501 : public IHwl {
public:
    const char* EngineType() override { return "X5501"; }
};

// The hardware-layer library's factory. The argument is passed through from
// Initialize_scan_driver (always null from this driver); the result is the
// hardware layer, or null when none is available.
extern "C" IHwl* InitHWLayer(void* argument);

#endif
