// Scan_session: handle side of a session (copy, release, forwarding) and
// Session_lock.
#include "scan_session.h"

#include <cerrno>
#include <cstring>

#include "Diagnostics.h"
#include "Scan_driver_init.h"
#include "Scan_session_body.h"
#include "Synchronization.h"
#include "scan_vqxos.h"

using Synchroniztion_internal::MT_INFINITE;

namespace {

const char source_file[] = "jni/../scan_session";

template <class T>
uint32_t smaller_size(uint32_t caller_size)
{
    return caller_size < sizeof(T) ? caller_size : static_cast<uint32_t>(sizeof(T));
}

} // namespace

// ---------------------------------------------------------------------------
// Session_lock
// ---------------------------------------------------------------------------

Session_lock::Session_lock(const Scan_session& session)
{
    if (!session.check_session()) {
        dbg_output("Session_lock::Session_lock failed %s:%u\r\n", source_file, 16u);
        return;
    }
    session.body->enter(MT_INFINITE);
    p_body = session.body;
}

Session_lock::~Session_lock()
{
    if (p_body)
        p_body->leave();
}

// ---------------------------------------------------------------------------
// Handle life cycle
// ---------------------------------------------------------------------------

Scan_session::Scan_session(const Scan_session& other)
{
    Session_lock lock(other);
    if (!lock)
        return;
    body = lock.get();
    ++body->ref_cnt;
}

Scan_session& Scan_session::operator=(const Scan_session& other)
{
    Scan_session copy(other);
    Scan_session_body* mine = body;
    body = copy.body;
    copy.body = mine;
    return *this;  // `copy` takes the old body's reference with it
}

Scan_session::~Scan_session()
{
    Scan_session_body* b = body;
    if (!b)
        return;
    b->enter(MT_INFINITE);
    const uint64_t left = --b->ref_cnt;
    body = nullptr;
    b->leave();
    if (left == 0)
        delete b;
}

void Scan_session::release()
{
    Scan_session old;
    old.body = body;
    body = nullptr;
}

Scan_session::operator bool_type() const
{
    return body ? &Scan_session::bool_true : nullptr;
}

bool Scan_session::check_session() const
{
    if (*this)
        return true;
    dbg_output("%s\n", "Attempt to use an uninitialzed session");
    errno = 1;
    return false;
}

Scan_session* Scan_session::open_session()
{
    if (!Initialize_scan_driver(nullptr))
        return nullptr;

    Scan_session* handle = new Scan_session;
    *handle = *new Scan_session_body_vqxos;  // the body's ref_cnt becomes 1

    // Set_active takes the body's monitor and then the sensor's, the lock
    // order every session operation keeps.
    if (handle->Set_active(true, true))
        return handle;
    delete handle;  // the last reference: destroys the body
    return nullptr;
}

// ---------------------------------------------------------------------------
// Forwarding operations
// ---------------------------------------------------------------------------

void* Scan_session::Get_single_frame()
{
    Session_lock lock(*this);
    return lock ? lock->Get_single_frame() : nullptr;
}

bool Scan_session::Start_scanning(bool stop_after_image)
{
    Session_lock lock(*this);
    return lock ? lock->Start_scanning(stop_after_image) : false;
}

bool Scan_session::Stop_scanning()
{
    Session_lock lock(*this);
    return lock ? lock->Stop_scanning() : false;
}

unsigned int Scan_session::Get_scan_count()
{
    Session_lock lock(*this);
    return lock ? lock->Get_scan_count() : 0;
}

void* Scan_session::Get_new_frame()
{
    Session_lock lock(*this);
    return lock ? lock->Get_new_frame() : nullptr;
}

bool Scan_session::Is_frame_available() const
{
    Session_lock lock(*this);
    return lock ? lock->Is_frame_available() : false;
}

bool Scan_session::Unlock_buffer(void* buffer)
{
    Session_lock lock(*this);
    return lock ? lock->Unlock_buffer(buffer) : false;
}

bool Scan_session::Lock_buffer(void* buffer)
{
    Session_lock lock(*this);
    return lock ? lock->Lock_buffer(buffer) : false;
}

bool Scan_session::Get_image_attributes(void* buffer, _tagImageAttributes* attributes) const
{
    Session_lock lock(*this);
    return lock ? lock->Get_image_attributes(buffer, attributes) : false;
}

bool Scan_session::Set_lights(const _tagVQX_SCANNER_LIGHTING& lights)
{
    Session_lock lock(*this);
    if (!lock)
        return false;
    _tagVQX_SCANNER_LIGHTING local;
    if (!lock->Get_lights(local))
        return false;
    std::memcpy(&local, &lights, smaller_size<_tagVQX_SCANNER_LIGHTING>(lights.size));
    local.size = sizeof local;
    return lock->Set_lights(local);
}

bool Scan_session::Get_lights(_tagVQX_SCANNER_LIGHTING& lights) const
{
    _tagVQX_SCANNER_LIGHTING local;
    {
        Session_lock lock(*this);
        if (!lock)
            return false;
        lock->Get_lights(local);
    }
    const uint32_t n = smaller_size<_tagVQX_SCANNER_LIGHTING>(lights.size);
    std::memcpy(&lights, &local, n);
    lights.size = n;
    return true;
}

bool Scan_session::Set_exposure(const Exposure_settings& settings)
{
    Session_lock lock(*this);
    if (!lock)
        return false;
    Exposure_settings local;
    if (!lock->Get_exposure(local))
        return false;
    std::memcpy(&local, &settings, smaller_size<Exposure_settings>(settings.size));
    local.size = sizeof local;
    return lock->Set_exposure(local);
}

bool Scan_session::Get_exposure(Exposure_settings& settings) const
{
    Exposure_settings local;
    {
        Session_lock lock(*this);
        if (!lock)
            return false;
        lock->Get_exposure(local);
    }
    const uint32_t n = smaller_size<Exposure_settings>(settings.size);
    std::memcpy(&settings, &local, n);
    settings.size = n;
    return true;
}

const VQX_SCANENGINE_PROPERTIES_EX* Scan_session::Get_properties() const
{
    static const VQX_SCANENGINE_PROPERTIES_EX no_properties{};
    if (!check_session())
        return &no_properties;
    Session_lock lock(*this);
    return lock ? lock->Get_properties() : &no_properties;
}

bool Scan_session::Scan_lock()
{
    Session_lock lock(*this);
    return lock ? lock->Scan_lock() : false;
}

bool Scan_session::Scan_unlock()
{
    Session_lock lock(*this);
    return lock ? lock->Scan_unlock() : false;
}

unsigned int Scan_session::Get_scan_lock_count() const
{
    if (!check_session())
        return 0;
    Session_lock lock(*this);
    return lock ? lock->Get_scan_lock_count() : 0;
}

bool Scan_session::Set_active(bool active, bool close)
{
    Session_lock lock(*this);
    return lock ? lock->Set_active(active, close) : false;
}

void Scan_session::Set_power_state(bool on)
{
    Session_lock lock(*this);
    if (lock)
        lock->Set_power_state(on);
}

bool Scan_session::Set_sleep_timeout(unsigned int ms)
{
    Session_lock lock(*this);
    return lock ? lock->Set_sleep_timeout(ms) : false;
}

bool Scan_session::Get_sleep_timeout(unsigned int& ms)
{
    Session_lock lock(*this);
    return lock ? lock->Get_sleep_timeout(ms) : false;
}
