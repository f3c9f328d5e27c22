// Hwl_logging.h: the logging decorators of the hardware layer.
//
// Driver start-up never talks to the object that InitHWLayer returns
// directly: it wraps it in the decorator of the matching engine interface,
// and the engine trait holds the decorator as its IHwl. A decorator
//   - holds a pointer to the wrapped hardware layer of the same interface,
//     given at construction and not owned (destroying the decorator leaves
//     the wrapped object alone);
//   - implements every operation by calling the same operation of the
//     wrapped object with the same arguments and returning its result
//     unchanged (the PSoC operations included, so the wrapped layer's PSoC
//     answers reach the driver);
//   - writes nothing to any log while forwarding; the four power operations
//     first take the millisecond tick count as a timing point (kept in
//     power_tick) and then forward.
//
// Classes:
//   THwl_logging<Interface>  forwards the 31 operations of IHwl for one
//                            engine interface (THwl_logging<IHwl_AR0144>...).
//   Hwl_logging              the decorator of a plain IHwl.
//   Hwl_logging_kelp, Hwl_logging_MT9V022, Hwl_logging_AR0144
//                            WriteReg overridden (still forwarding).
//   Hwl_logging_rilo         adds WriteIIC(unsigned register, ...).
//   Hwl_logging_x5501        adds WriteIIC(uint16_t register, ...).
//   Hwl_logging_aptina       forwards the four aptina operations.
//
// Threads: a decorator has no lock and no state apart from the timing point;
// it is called under the driver's sensor monitor like the layer it wraps.
#ifndef VQX_HWL_LOGGING_H
#define VQX_HWL_LOGGING_H

#include <cstdint>

#include "IHwl.h"
#include "Synchronization.h"

template <class Interface>
class THwl_logging : public Interface {
public:
    explicit THwl_logging(Interface* wrapped) : wrapped(wrapped) {}
    ~THwl_logging() override {}

    THwl_logging(const THwl_logging&) = delete;
    THwl_logging& operator=(const THwl_logging&) = delete;

    /* 1 */ bool IsPsocSupported() override { return wrapped->IsPsocSupported(); }
    /* 2 */ bool WriteIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count) override
    { return wrapped->WriteIIC_PSOC(address, data, count); }
    /* 3 */ bool ReadIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count) override
    { return wrapped->ReadIIC_PSOC(address, data, count); }
    /* 4 */ const char* EngineType() override { return wrapped->EngineType(); }
    /* 5 */ IHwl::Image_buffer_pointers* GetImageBuffers(uint64_t& count) override
    { return wrapped->GetImageBuffers(count); }
    /* 6 */ void ReleaseBuffer(int buffer) override { wrapped->ReleaseBuffer(buffer); }
    /* 7 */ bool RegisterVsyncNotification(IHwl::Vsync_callback callback, void* context) override
    { return wrapped->RegisterVsyncNotification(callback, context); }
    /* 8 */ unsigned int GetScanHeight() override { return wrapped->GetScanHeight(); }
    /* 9 */ unsigned int GetScanWidth() override { return wrapped->GetScanWidth(); }
    /* 10 */ bool ImagerPowerUp() override { mark_power(); return wrapped->ImagerPowerUp(); }
    /* 11 */ bool ImagerPowerDown() override { mark_power(); return wrapped->ImagerPowerDown(); }
    /* 12 */ bool ImagerPowerOn() override { mark_power(); return wrapped->ImagerPowerOn(); }
    /* 13 */ bool ImagerPowerOff() override { mark_power(); return wrapped->ImagerPowerOff(); }
    /* 14 */ bool InitCapture(int buffer) override { return wrapped->InitCapture(buffer); }
    /* 15 */ void StartSnapshot() override { wrapped->StartSnapshot(); }
    /* 16 */ bool ResetTransferHardware() override { return wrapped->ResetTransferHardware(); }
    /* 17 */ bool AimOn() override { return wrapped->AimOn(); }
    /* 18 */ bool AimOff() override { return wrapped->AimOff(); }
    /* 19 */ bool IllumConfig(unsigned int config) override { return wrapped->IllumConfig(config); }
    /* 20 */ bool IllumOn() override { return wrapped->IllumOn(); }
    /* 21 */ bool IllumOff() override { return wrapped->IllumOff(); }
    /* 22 */ bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    { return wrapped->WriteReg(address, values, length); }
    /* 23 */ bool ReadReg(unsigned int address, uint16_t* values, uint64_t length) override
    { return wrapped->ReadReg(address, values, length); }
    /* 24 */ void GetConfig(IHwl::Config* config) override { wrapped->GetConfig(config); }
    /* 25 */ bool LoadCaptureInfo() override { return wrapped->LoadCaptureInfo(); }
    /* 26 */ bool EnableVsyncProcessing() override { return wrapped->EnableVsyncProcessing(); }
    /* 27 */ bool StartScanning() override { return wrapped->StartScanning(); }
    /* 28 */ bool StopScanning() override { return wrapped->StopScanning(); }
    /* 29 */ bool OpenSession() override { return wrapped->OpenSession(); }
    /* 30 */ void CloseSession() override { wrapped->CloseSession(); }
    /* 31 */ bool RequestStopScanning(IHwl::Stop_callback callback, void* context) override
    { return wrapped->RequestStopScanning(callback, context); }

    /// Tick count taken by the latest power operation (0 before the first).
    unsigned int power_tick = 0;

protected:
    Interface* const wrapped;  ///< the decorated hardware layer, not owned

private:
    void mark_power() { power_tick = Synchroniztion_internal::MT_GetTickCount(); }
};

/// Decorator of a plain IHwl.
class Hwl_logging : public THwl_logging<IHwl> {
public:
    explicit Hwl_logging(IHwl* wrapped) : THwl_logging<IHwl>(wrapped) {}
};

/// Kelp engines: WriteReg is overridden and still forwards.
class Hwl_logging_kelp : public THwl_logging<IHwl_kelp> {
public:
    explicit Hwl_logging_kelp(IHwl_kelp* wrapped) : THwl_logging<IHwl_kelp>(wrapped) {}
    bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    { return wrapped->WriteReg(address, values, length); }
};

/// Rilo engines: WriteIIC writes sensor registers through the wrapped
/// WriteReg and returns only its truth value.
class Hwl_logging_rilo : public THwl_logging<IHwl_rilo> {
public:
    explicit Hwl_logging_rilo(IHwl_rilo* wrapped) : THwl_logging<IHwl_rilo>(wrapped) {}
    bool WriteIIC(unsigned int reg, uint16_t* values, uint64_t count)
    { return wrapped->WriteReg(reg, values, count) ? true : false; }
};

/// Aptina engines: the four engine operations are forwarded as well.
class Hwl_logging_aptina : public THwl_logging<IHwl_aptina> {
public:
    explicit Hwl_logging_aptina(IHwl_aptina* wrapped) : THwl_logging<IHwl_aptina>(wrapped) {}
    /* 32 */ bool LedControlState(unsigned int state) override { return wrapped->LedControlState(state); }
    /* 33 */ bool SetExposureGain(uint16_t a, uint16_t b, uint16_t c) override
    { return wrapped->SetExposureGain(a, b, c); }
    /* 34 */ unsigned int RowTime() override { return wrapped->RowTime(); }
    /* 35 */ void CancelDeferredInitCapture() override { wrapped->CancelDeferredInitCapture(); }
};

/// MT9V022 engines: WriteReg is overridden and still forwards.
class Hwl_logging_MT9V022 : public THwl_logging<IHwl_MT9V022> {
public:
    explicit Hwl_logging_MT9V022(IHwl_MT9V022* wrapped) : THwl_logging<IHwl_MT9V022>(wrapped) {}
    bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    { return wrapped->WriteReg(address, values, length); }
};

/// AR0144 engines: WriteReg is overridden and still forwards.
class Hwl_logging_AR0144 : public THwl_logging<IHwl_AR0144> {
public:
    explicit Hwl_logging_AR0144(IHwl_AR0144* wrapped) : THwl_logging<IHwl_AR0144>(wrapped) {}
    bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    { return wrapped->WriteReg(address, values, length); }
};

/// X5501 engines: WriteIIC takes a 16-bit register number, widens it and
/// writes through the wrapped WriteReg, returning only its truth value.
class Hwl_logging_x5501 : public THwl_logging<IHwl_x5501> {
public:
    explicit Hwl_logging_x5501(IHwl_x5501* wrapped) : THwl_logging<IHwl_x5501>(wrapped) {}
    bool WriteIIC(uint16_t reg, uint16_t* values, uint64_t count)
    { return wrapped->WriteReg(static_cast<unsigned int>(reg), values, count) ? true : false; }
};

#endif
