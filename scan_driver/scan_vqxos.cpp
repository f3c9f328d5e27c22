// Scan_session_body_vqxos: the session body.
#include "scan_vqxos.h"

#include <cstring>

#include "Available_buffer.h"
#include "Buffer_locker.h"
#include "Diagnostics.h"
#include "ScanBufferInfo.h"
#include "Scan_driver.h"
#include "Sensor.h"
#include "Sensor_trait.h"
#include "State_manager.h"

namespace {

const char source_file[] = "jni/../scan_vqxos";

// Copies the 32-bit fields of @p from into @p to between byte offsets
// @p first and @p end (exclusive); true when any of them changed.
template <class Record>
bool copy_fields(Record& to, const Record& from, size_t first, size_t end)
{
    unsigned char* dst = reinterpret_cast<unsigned char*>(&to) + first;
    const unsigned char* src = reinterpret_cast<const unsigned char*>(&from) + first;
    const size_t n = end - first;
    if (std::memcmp(dst, src, n) == 0)
        return false;
    std::memcpy(dst, src, n);
    return true;
}

Sensor& sensor() { return *the_scan_driver->sensor; }
State_manager& state_manager() { return *the_scan_driver->state_manager; }
volatile Buffer_locker& buffer_locker() { return *the_scan_driver->buffer_locker; }

} // namespace

Scan_session_body_vqxos::Scan_session_body_vqxos()
{
    // Waits for any frame work in progress before reading the driver's state.
    { auto wait_for_sensor = sensor().get_lock(); }

    lights.size = sizeof lights;
    lights.scanning_mode = 5;
    lights.idle_mode = 0;
    lights.reserved = 0;
    lights.level_a = 100;
    lights.level_b = 100;
    lights.boost = 0;

    exposure = Exposure_settings();

    const Sensor_trait::Capabilities& caps = the_scan_driver->capabilities;
    properties.size = sizeof properties;
    properties.image_height = caps.height;
    properties.image_width = caps.width;
    properties.pixel_depth = 8;
    properties.aimer_x = caps.width / 2;
    properties.aimer_y = caps.height / 2;
    properties.buffer_count = static_cast<uint32_t>(the_scan_driver->buffer_locker->num_buffers());

    flags &= static_cast<uint8_t>(~FLAG_RESERVED);

    // Each engine adjusts the defaults and fills its part of the properties;
    // no lock is held here.
    the_scan_driver->trait->update_exposure_settings(exposure);
    the_scan_driver->trait->update_properties(properties);
}

Scan_session_body_vqxos::~Scan_session_body_vqxos()
{
    {
        auto self = get_lock();
        notify();
        flags |= FLAG_CLOSING;
    }
    auto self = get_lock();

    if (lights.idle_mode != 0) {
        // Gives the sleep hold back and switches the idle lights off.
        _tagVQX_SCANNER_LIGHTING idle_off = lights;
        idle_off.idle_mode = 0;
        Set_lights(idle_off);
    }
    if (scan_count != 0) {
        scan_count = 1;
        Stop_scanning(true);
    }
    if (lock_cnt != 0) {
        lock_cnt = 1;
        Scan_unlock();
    }
    {
        auto sensor_lock = sensor().get_lock();
        Set_active(false, false);
    }
    the_scan_driver->trait->close_session();
}

void* Scan_session_body_vqxos::Get_single_frame()
{
    dbg_output("Not implemented %s at %s : %u\r\n", "Get_single_frame", source_file, 19u);
    return nullptr;
}

bool Scan_session_body_vqxos::Start_scanning(bool stop_after_image)
{
    if (scan_count++ != 0)
        return true;

    Scan_lock();
    auto self = get_lock();
    frame_mark = 0;
    bool started;
    {
        auto sensor_lock = sensor().get_lock();
        started = state_manager().increment_scanning_count(lights, exposure, stop_after_image);
    }
    if (started)
        notify();
    else
        Stop_scanning(false);
    return started;
}

bool Scan_session_body_vqxos::Stop_scanning()
{
    return Stop_scanning(false);
}

bool Scan_session_body_vqxos::Stop_scanning(bool wait)
{
    if (scan_count == 0)
        return false;
    if (--scan_count != 0)
        return true;
    auto sensor_lock = sensor().get_lock();
    state_manager().decrement_scanning_count(wait);
    return Scan_unlock();
}

unsigned int Scan_session_body_vqxos::Get_scan_count()
{
    return scan_count;
}

void* Scan_session_body_vqxos::Get_new_frame()
{
    if (scan_count == 0)
        return nullptr;
    volatile Available_buffer& available = *the_scan_driver->available_buffer;
    ScanBufferInfo* info = available.get_available(true);
    return info ? info->pointers.image : nullptr;
}

bool Scan_session_body_vqxos::Is_frame_available() const
{
    auto sensor_lock = sensor().get_lock();
    return the_scan_driver->available_buffer->buffer_available();
}

bool Scan_session_body_vqxos::Unlock_buffer(void* buffer)
{
    return buffer_locker().UnlockBuffer(buffer, ScanBufferInfo::CLIENT);
}

bool Scan_session_body_vqxos::Lock_buffer(void* buffer)
{
    return buffer_locker().LockBuffer(buffer, ScanBufferInfo::CLIENT);
}

bool Scan_session_body_vqxos::Get_image_attributes(void* buffer, _tagImageAttributes* attributes) const
{
    return the_scan_driver->buffer_locker->Get_image_attributes(buffer, attributes);
}

bool Scan_session_body_vqxos::Set_lights(const _tagVQX_SCANNER_LIGHTING& new_lights)
{
    const uint32_t old_idle = lights.idle_mode;
    if (!copy_fields(lights, new_lights, offsetof(_tagVQX_SCANNER_LIGHTING, scanning_mode),
                     sizeof(_tagVQX_SCANNER_LIGHTING)))
        return true;

    auto sensor_lock = sensor().get_lock();
    if (old_idle != 0 && lights.idle_mode == 0)
        state_manager().enable_sleep();
    else if (old_idle == 0 && lights.idle_mode != 0)
        state_manager().disable_sleep();
    sensor().change_lights(lights);
    return true;
}

bool Scan_session_body_vqxos::Get_lights(_tagVQX_SCANNER_LIGHTING& out) const
{
    out = lights;
    return true;
}

bool Scan_session_body_vqxos::Set_exposure(const Exposure_settings& settings)
{
    if (copy_fields(exposure, settings, offsetof(Exposure_settings, mode), sizeof(Exposure_settings))
        && scan_count != 0) {
        auto sensor_lock = sensor().get_lock();
        sensor().change_exposure(exposure);
    }
    return true;
}

bool Scan_session_body_vqxos::Get_exposure(Exposure_settings& out) const
{
    out = exposure;
    return true;
}

const VQX_SCANENGINE_PROPERTIES_EX* Scan_session_body_vqxos::Get_properties() const
{
    // The buffers are loaded when the engine first streams, maybe after this
    // session was opened: from then on every session reports their number.
    if (properties.buffer_count == 0)
        properties.buffer_count = static_cast<uint32_t>(the_scan_driver->buffer_locker->num_buffers());
    return &properties;
}

bool Scan_session_body_vqxos::Scan_lock()
{
    ++lock_cnt;
    return true;
}

bool Scan_session_body_vqxos::Scan_unlock()
{
    silent_trace("+Scan_unlock, lock_cnt = %u", static_cast<unsigned>(lock_cnt));
    if (lock_cnt == 0)
        return false;
    if (lock_cnt == 1) {
        // The client gives the scanner up: every buffer it still holds goes back.
        auto sensor_lock = sensor().get_lock();
        the_scan_driver->buffer_locker->reset_buffer_locks();
    }
    --lock_cnt;
    silent_trace("-Scan_unlock, lock_cnt = %u", static_cast<unsigned>(lock_cnt));
    return true;
}

unsigned int Scan_session_body_vqxos::Get_scan_lock_count() const
{
    return static_cast<unsigned int>(lock_cnt);
}

bool Scan_session_body_vqxos::Set_active(bool want_active, bool close)
{
    auto self = get_lock();
    if (want_active == active)
        return true;
    auto sensor_lock = sensor().get_lock();
    if (want_active) {
        const bool opened = state_manager().increment_open_count();
        if (opened)
            active = true;
        return opened;
    }
    state_manager().decrement_open_count(close);
    active = false;
    return true;
}

void Scan_session_body_vqxos::Set_power_state(bool on)
{
    auto self = get_lock();
    auto sensor_lock = sensor().get_lock();
    state_manager().set_power_state(on);
}

bool Scan_session_body_vqxos::Set_sleep_timeout(unsigned int ms)
{
    auto self = get_lock();
    auto sensor_lock = sensor().get_lock();
    state_manager().set_sleep_timeout(ms);
    return true;
}

bool Scan_session_body_vqxos::Get_sleep_timeout(unsigned int& ms)
{
    auto self = get_lock();
    auto sensor_lock = sensor().get_lock();
    ms = static_cast<unsigned int>(state_manager().get_sleep_timeout());
    return true;
}
