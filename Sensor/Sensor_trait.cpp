// Sensor_trait: base behaviours shared by every engine trait.
#include "Sensor_trait.h"

#include <algorithm>
#include <cstring>

Sensor_trait::Sensor_trait(IHwl& hwl_) : hwl(hwl_)
{
    capabilities.width = hwl.GetScanWidth();
    capabilities.height = hwl.GetScanHeight();
    capabilities.width2 = capabilities.width;
    capabilities.height2 = capabilities.height;
    capabilities.flag = 1;
}

Sensor_trait::~Sensor_trait() {}

bool Sensor_trait::open_session() { return hwl.OpenSession(); }

void Sensor_trait::close_session() { hwl.CloseSession(); }

void Sensor_trait::power_on() {}

void Sensor_trait::power_off() {}

void Sensor_trait::sleep() {}

bool Sensor_trait::start_scanning()
{
    if (!hwl.StartScanning())
        return false;
    scanning_initialised = initialize_scanning();
    return scanning_initialised;
}

bool Sensor_trait::stop_scanning()
{
    bool deinitialised = deinitialize_scanning();
    scanning_initialised = false;
    bool hwl_stopped = hwl.StopScanning();
    // Deliberately inverted: success needs the hardware layer to answer false.
    return deinitialised && !hwl_stopped;
}

void Sensor_trait::start_snapshot() { hwl.StartSnapshot(); }

bool Sensor_trait::set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast)
{
    (void)exposure;
    return set_starting_exposure_gain(contrast);
}

void Sensor_trait::get_capabilities(Capabilities& caps)
{
    // The caller's record may be shorter or longer than ours; its size field
    // says how many bytes of storage it has.
    size_t n = static_cast<size_t>(caps.size);
    size_t copied = std::min(n, sizeof(Capabilities));
    unsigned char* out = reinterpret_cast<unsigned char*>(&caps);
    std::memset(out, 0, n);
    std::memcpy(out, &capabilities, copied);
    // A caller too short to hold the size field gets only the bytes copied.
    if (n >= sizeof(caps.size))
        caps.size = copied;
}

void Sensor_trait::withdraw_own_frame_callback(Frame_callback client, void* context)
{
    if (client)
        hwl.RegisterVsyncNotification(client, context);
}

void Sensor_trait::exposure_frame() {}

void Sensor_trait::update_exposure_settings(Exposure_settings& settings) { (void)settings; }

void Sensor_trait::release_buffer(int buffer) { hwl.ReleaseBuffer(buffer); }

bool Sensor_trait::request_stop_scanning(Stop_callback callback, void* context)
{
    return hwl.RequestStopScanning(callback, context);
}

bool Sensor_trait::check_stall(int8_t tries_left)
{
    (void)tries_left;
    trigger_off();
    trigger_on();
    return true;
}

unsigned int Sensor_trait::GetMaxResumeTime() { return 100; }
