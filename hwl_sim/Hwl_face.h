// Hwl_face.h: the hardware-layer object of a simulated engine.
//
// Hwl_face<Interface> implements an engine interface (IHwl_AR0144, ...) by
// forwarding every operation to the Sim_core that owns it; the engine type
// string stays the interface's own. Engine models with extra operations
// (IHwl_aptina) derive from it and add them.
//
// Threads: as Sim_core (any thread).
#ifndef VQXSIM_HWL_FACE_H
#define VQXSIM_HWL_FACE_H

#include "IHwl.h"
#include "Sim_core.h"

namespace vqxsim {

template <class Interface>
class Hwl_face : public Interface {
public:
    explicit Hwl_face(Sim_core& core) : core(core) {}

    bool IsPsocSupported() override { return core.IsPsocSupported(); }
    bool WriteIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count) override
    { return core.WriteIIC_PSOC(address, data, count); }
    bool ReadIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count) override
    { return core.ReadIIC_PSOC(address, data, count); }
    const char* EngineType() override
    {
        const char* type = Interface::EngineType();
        core.EngineType(type);
        return type;
    }
    IHwl::Image_buffer_pointers* GetImageBuffers(uint64_t& count) override { return core.GetImageBuffers(count); }
    void ReleaseBuffer(int buffer) override { core.ReleaseBuffer(buffer); }
    bool RegisterVsyncNotification(IHwl::Vsync_callback callback, void* context) override
    { return core.RegisterVsyncNotification(callback, context); }
    unsigned int GetScanHeight() override { return core.GetScanHeight(); }
    unsigned int GetScanWidth() override { return core.GetScanWidth(); }
    bool ImagerPowerUp() override { return core.ImagerPowerUp(); }
    bool ImagerPowerDown() override { return core.ImagerPowerDown(); }
    bool ImagerPowerOn() override { return core.ImagerPowerOn(); }
    bool ImagerPowerOff() override { return core.ImagerPowerOff(); }
    bool InitCapture(int buffer) override { return core.InitCapture(buffer); }
    void StartSnapshot() override { core.StartSnapshot(); }
    bool ResetTransferHardware() override { return core.ResetTransferHardware(); }
    bool AimOn() override { return core.AimOn(); }
    bool AimOff() override { return core.AimOff(); }
    bool IllumConfig(unsigned int config) override { return core.IllumConfig(config); }
    bool IllumOn() override { return core.IllumOn(); }
    bool IllumOff() override { return core.IllumOff(); }
    bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    { return core.WriteReg(address, values, length); }
    bool ReadReg(unsigned int address, uint16_t* values, uint64_t length) override
    { return core.ReadReg(address, values, length); }
    void GetConfig(IHwl::Config* config) override { core.GetConfig(config); }
    bool LoadCaptureInfo() override { return core.LoadCaptureInfo(); }
    bool EnableVsyncProcessing() override { return core.EnableVsyncProcessing(); }
    bool StartScanning() override { return core.StartScanning(); }
    bool StopScanning() override { return core.StopScanning(); }
    bool OpenSession() override { return core.OpenSession(); }
    void CloseSession() override { core.CloseSession(); }
    bool RequestStopScanning(IHwl::Stop_callback callback, void* context) override
    { return core.RequestStopScanning(callback, context); }

protected:
    Sim_core& core;
};

}  // namespace vqxsim

#endif
