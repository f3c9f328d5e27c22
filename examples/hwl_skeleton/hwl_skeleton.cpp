// Skeleton hardware layer: the starting point of a platform's libLmoKil.so.
//
// Every operation of the contract (IHwl.h) is here, each one a place to fill
// in marked "FILL IN". Until it is filled in, an operation answers the way a
// missing part would (false, null, 0) and says so once on stderr:
//   hwl_skeleton: ImagerPowerOn is not implemented yet
// Run the conformance checker on the built library to see what the driver
// still misses (ctest in the build directory does the same):
//   VQX_HWL_LIBRARY=build/libLmoKil.so <prefix>/bin/hwl_conformance
//
// The rules every operation follows (the porting guide,
// <prefix>/share/doc/VQXScanInterface/porting.md, says more):
//   - The driver calls the layer from several threads, but always with its
//     own sensor lock held: the layer needs no locking for the driver's
//     sake, only between its own threads and the driver's calls.
//   - Frames are announced with the vsync callback from the layer's own
//     thread (never from inside a driver call), without holding any lock
//     of the layer: the driver calls back into the layer from the callback.
//   - Every call returns promptly; only power and register transfers may
//     take the time the hardware needs (milliseconds).
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>

#include "IHwl.h"

namespace {

// Says once per operation that it still has to be written.
void not_implemented(const char* operation)
{
    static std::mutex mutex;
    static std::set<std::string> told;
    std::lock_guard<std::mutex> hold(mutex);
    if (told.insert(operation).second)
        std::fprintf(stderr, "hwl_skeleton: %s is not implemented yet\n", operation);
}

// FILL IN: the engine interface of the device's scan engine. It fixes the
// engine type that selects the driver's engine trait, and the driver casts
// the layer to it:
//   IHwl_AR0144 "X7710"   IHwl_x5501 "X5501" (X5503: IHwl_x5501 with
//   IHwl_MT9V022 "MT9V022"          EngineType returning "X5503")
//   IHwl_rilo "RILO"      IHwl_kelp "KELP"   IHwl_aptina "APTINA" (also
//                                            implements slots 32-35)
using Engine_interface = IHwl_AR0144;

class Skeleton_hwl final : public Engine_interface {
public:
    // --- PSoC companion controller (slots 1-3) -----------------------------
    // FILL IN: true when the engine has a PSoC. The driver then reads its
    // 80 registers at once at start-up and switches the lights through its
    // light control register (0x32: bit 0 aimer, bit 1 illumination).
    /* 1 */ bool IsPsocSupported() override
    {
        not_implemented("IsPsocSupported");
        return false;
    }
    // FILL IN: write `count` bytes to the PSoC's registers from `address` on
    // over I2C; true when the transfer completed.
    /* 2 */ bool WriteIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count) override
    {
        (void)address, (void)data, (void)count;
        not_implemented("WriteIIC_PSOC");
        return false;
    }
    // FILL IN: read `count` bytes from the PSoC's registers from `address` on.
    /* 3 */ bool ReadIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count) override
    {
        (void)address, (void)data, (void)count;
        not_implemented("ReadIIC_PSOC");
        return false;
    }

    // --- identity ------------------------------------------------------------
    // FILL IN only for an engine type its interface does not fix (X5503).
    /* 4 */ const char* EngineType() override { return Engine_interface::EngineType(); }

    // --- image transfer --------------------------------------------------------
    // FILL IN: the capture buffers, at least two, each scan height x scan
    // width bytes; the same array (same address, same entries) for the whole
    // life of the layer, with distinct non-zero handles. The layer owns the
    // memory; `count` receives the number of entries.
    /* 5 */ Image_buffer_pointers* GetImageBuffers(uint64_t& count) override
    {
        not_implemented("GetImageBuffers");
        count = 0;
        return nullptr;
    }
    // FILL IN: the driver is done with the buffer: it is free again (an
    // armed buffer is taken back unfilled).
    /* 6 */ void ReleaseBuffer(int buffer) override
    {
        (void)buffer;
        not_implemented("ReleaseBuffer");
    }
    // FILL IN: keep the callback and its context; every filled buffer is
    // announced with callback(handle, context) from the layer's own thread.
    // A later registration replaces the earlier one.
    /* 7 */ bool RegisterVsyncNotification(Vsync_callback callback, void* context) override
    {
        (void)callback, (void)context;
        not_implemented("RegisterVsyncNotification");
        return false;
    }
    // FILL IN: rows and pixels per row of a frame (1 byte per pixel).
    /* 8 */ unsigned int GetScanHeight() override
    {
        not_implemented("GetScanHeight");
        return 0;
    }
    /* 9 */ unsigned int GetScanWidth() override
    {
        not_implemented("GetScanWidth");
        return 0;
    }

    // --- sensor power ------------------------------------------------------------
    // FILL IN: take the supplied sensor out of standby (registers kept).
    /* 10 */ bool ImagerPowerUp() override
    {
        not_implemented("ImagerPowerUp");
        return false;
    }
    // FILL IN: put the sensor into standby, keeping its registers; no frames
    // come in standby.
    /* 11 */ bool ImagerPowerDown() override
    {
        not_implemented("ImagerPowerDown");
        return false;
    }
    // FILL IN: switch the sensor's supply on (its registers start from their
    // power-on values).
    /* 12 */ bool ImagerPowerOn() override
    {
        not_implemented("ImagerPowerOn");
        return false;
    }
    // FILL IN: switch the sensor's supply off (its registers are lost).
    /* 13 */ bool ImagerPowerOff() override
    {
        not_implemented("ImagerPowerOff");
        return false;
    }

    // --- capture -------------------------------------------------------------------
    // FILL IN: arm the buffer with this handle for a frame (frames fill armed
    // buffers in the order they were armed). An armed buffer stays armed
    // (true); a delivered one is armed again; an unknown handle is false.
    /* 14 */ bool InitCapture(int buffer) override
    {
        (void)buffer;
        not_implemented("InitCapture");
        return false;
    }
    // FILL IN (capture modes 6 and 7): trigger one frame.
    /* 15 */ void StartSnapshot() override { not_implemented("StartSnapshot"); }
    // FILL IN: reset the transfer hardware after a stall; armed buffers are
    // dropped (the driver arms again).
    /* 16 */ bool ResetTransferHardware() override
    {
        not_implemented("ResetTransferHardware");
        return false;
    }

    // --- lights --------------------------------------------------------------------
    /* 17 */ bool AimOn() override
    {
        not_implemented("AimOn");
        return false;
    }
    /* 18 */ bool AimOff() override
    {
        not_implemented("AimOff");
        return false;
    }
    // FILL IN: the illumination pattern or strength the engine trait asks for.
    /* 19 */ bool IllumConfig(unsigned int config) override
    {
        (void)config;
        not_implemented("IllumConfig");
        return false;
    }
    /* 20 */ bool IllumOn() override
    {
        not_implemented("IllumOn");
        return false;
    }
    /* 21 */ bool IllumOff() override
    {
        not_implemented("IllumOff");
        return false;
    }

    // --- sensor registers ----------------------------------------------------------
    // FILL IN: write consecutive sensor registers from `address` on; `length`
    // is in bytes (two per 16-bit register value). Only while the sensor is
    // supplied and out of standby.
    /* 22 */ bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    {
        (void)address, (void)values, (void)length;
        not_implemented("WriteReg");
        return false;
    }
    // FILL IN: read consecutive sensor registers, `length` in bytes.
    /* 23 */ bool ReadReg(unsigned int address, uint16_t* values, uint64_t length) override
    {
        (void)address, (void)values, (void)length;
        not_implemented("ReadReg");
        return false;
    }

    // --- configuration and scanning ------------------------------------------------
    // FILL IN: the device's configuration words (capture mode, engine variant
    // and orientation, imager link, register table); leave `size` and any
    // word the device does not set alone (the driver's defaults stay).
    /* 24 */ void GetConfig(Config* config) override
    {
        (void)config;
        not_implemented("GetConfig");
    }
    // FILL IN: load the transfer hardware's capture settings; true when done.
    /* 25 */ bool LoadCaptureInfo() override
    {
        not_implemented("LoadCaptureInfo");
        return false;
    }
    // FILL IN: enable the frame interrupts behind the vsync callback.
    /* 26 */ bool EnableVsyncProcessing() override
    {
        not_implemented("EnableVsyncProcessing");
        return false;
    }
    // FILL IN: start the transfer hardware (frames may follow once the
    // sensor streams and buffers are armed).
    /* 27 */ bool StartScanning() override
    {
        not_implemented("StartScanning");
        return false;
    }
    // FILL IN: stop the transfer hardware.
    /* 28 */ bool StopScanning() override
    {
        not_implemented("StopScanning");
        return false;
    }
    // FILL IN: the driver starts (open the device's nodes, map buffers).
    /* 29 */ bool OpenSession() override
    {
        not_implemented("OpenSession");
        return false;
    }
    // FILL IN: the driver ends.
    /* 30 */ void CloseSession() override { not_implemented("CloseSession"); }
    // FILL IN: stop streaming. true: stopped now, and the callback is not
    // made. false: the stop completes later, and the layer calls
    // callback(context) exactly once, from its own thread, within 2 s.
    /* 31 */ bool RequestStopScanning(Stop_callback callback, void* context) override
    {
        (void)callback, (void)context;
        not_implemented("RequestStopScanning");
        return true;
    }
};

}  // namespace

// The one function the driver takes from libLmoKil.so. The argument is
// always null from this driver. FILL IN: return null when the hardware is
// not there (the driver's session open then fails and the next one tries
// again).
extern "C" __attribute__((visibility("default"))) IHwl* InitHWLayer(void* argument)
{
    (void)argument;
    static Skeleton_hwl layer;
    return &layer;
}
