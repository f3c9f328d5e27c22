// The exported C interface: argument checks, the open/close mutex, the
// revision texts, and the three composite operations (single frame, exposure
// mode, engine properties). Everything else is one call on the session.
//
// A session handle is the address of a Scan_session. Every function that
// takes a handle looks it up among the open sessions first
// (Session_registry): a null handle, or one that is not an open session
// (closed, never opened, garbage), sets errno to EINVAL and returns 0 (or
// null) without touching anything; VQXSI_CloseSessionWithScanEngine of such
// a handle does nothing but set errno (EINVAL; a null handle leaves errno
// alone). A call in progress keeps its session from being destroyed by a
// concurrent close until it returns. Decisions beyond that:
//  - VQXSI_GetSingleFrame and VQXSI_SetExposureMode also check the handle
//    (a null handle is EINVAL, not a crash).
//  - A null record or array pointer where one is needed (lights, pairs with a
//    size of 8 or more, properties with a non-zero size, the revision
//    buffer) is EINVAL with result 0.
//  - VQXSI_GetScanEnginePropertiesEx clears `size` bytes of the caller's
//    record and copies at most the 224 bytes of the session's record: the
//    library never reads past its own record.
//  - The default sleep time-out (VQXSI_SetSleepTimeout / GetSleepTimeout
//    with a null handle) is read by the first open of a session, which runs
//    under the open/close mutex; the null-handle forms take that mutex too,
//    so the value is never read and written at once.
//  - VQXSI_GetScanDriverRevision writes the 6 bytes of "2.138" and its
//    terminator; the interface carries no length, so the caller's buffer must
//    hold them.
#include <VQXScanInterface.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "Exposure_settings.h"
#include "Exposure_tags.h"
#include "State_manager.h"
#include "Session_registry.h"
#include "scan_session.h"

// Revision texts of the driver.
struct Config {
    static const char sd_revision[];
    static const char sd_revision_string[];
    static const wchar_t sd_revision_u[];
    static const wchar_t sd_revision_string_u[];
    static const char* sd_revision_a;
    static const char* sd_revision_string_a;
};

const char Config::sd_revision[] = "2.138";
const char Config::sd_revision_string[] = "Revision: 2.138";
const wchar_t Config::sd_revision_u[] = L"2.138";
const wchar_t Config::sd_revision_string_u[] = L"Revision: 2.138";
const char* Config::sd_revision_a = "2.138";
const char* Config::sd_revision_string_a = "Revision: 2.138";

static_assert(sizeof(wchar_t) == 4, "wide revision texts use 32-bit characters");

namespace {

// Serialises session open and close against each other.
std::mutex mtx;

VQXSI_BOOL einval()
{
    errno = EINVAL;
    return 0;
}

void* einval_null()
{
    errno = EINVAL;
    return nullptr;
}

VQXSI_BOOL truth(bool value)
{
    return value ? 1 : 0;
}

} // namespace

extern "C" {

VQXSI_HANDLE VQXSI_OpenSessionWithScanEngine(void)
{
    std::lock_guard<std::mutex> lock(mtx);
    Scan_session* session = Scan_session::open_session();
    if (session)
        Session_registry::instance().add(session);
    return session;  // the handle is the session's VQXSI_Session (VQXScanSession.h)
}

void VQXSI_CloseSessionWithScanEngine(VQXSI_HANDLE handle)
{
    if (!handle)
        return;
    std::lock_guard<std::mutex> lock(mtx);
    Scan_session* session = Session_registry::instance().remove(handle);
    if (!session) {
        errno = EINVAL;
        return;
    }
    delete session;
}

void* VQXSI_GetNewScan(VQXSI_HANDLE handle)
{
    Session_use session(handle);
    if (!session)
        return einval_null();
    return session->Get_new_frame();
}

void* VQXSI_GetSingleFrame(VQXSI_HANDLE handle)
{
    Session_use session(handle);
    if (!session)
        return einval_null();
    if (!session->Scan_lock())
        return nullptr;
    if (!session->Start_scanning(true))
        return nullptr;  // the scan lock stays held
    if (void* frame = VQXSI_GetNewScan(handle))
        return frame;    // scanning stays started, the scan lock held
    session->Scan_unlock();
    return nullptr;
}

VQXSI_BOOL VQXSI_StartScanning(VQXSI_HANDLE handle)
{
    Session_use session(handle);
    if (!session)
        return einval();
    return truth(session->Start_scanning(false));
}

VQXSI_BOOL VQXSI_StopScanning(VQXSI_HANDLE handle)
{
    Session_use session(handle);
    if (!session)
        return einval();
    return truth(session->Stop_scanning());
}

VQXSI_BOOL VQXSI_UnlockBuffer(VQXSI_HANDLE handle, void* buffer)
{
    Session_use session(handle);
    if (!session)
        return einval();
    return truth(session->Unlock_buffer(buffer));
}

VQXSI_BOOL VQXSI_SetExposureMode(VQXSI_HANDLE handle, uint32_t mode)
{
    Session_use session(handle);
    if (!session)
        return einval();
    Exposure_settings local;
    std::memset(static_cast<void*>(&local), 0, sizeof local);
    local.size = sizeof local;
    if (!session->Get_exposure(local))
        return 0;
    local.mode = mode;
    return truth(session->Set_exposure(local));
}

VQXSI_BOOL VQXSI_SetLights(VQXSI_HANDLE handle, VQX_SCANNER_LIGHTING* lights)
{
    Session_use session(handle);
    if (!session || !lights)
        return einval();
    return truth(session->Set_lights(*lights));
}

VQXSI_BOOL VQXSI_GetLights(VQXSI_HANDLE handle, VQX_SCANNER_LIGHTING* lights)
{
    Session_use session(handle);
    if (!session || !lights)
        return einval();
    return truth(session->Get_lights(*lights));
}

VQXSI_BOOL VQXSI_SetExposureSettings(VQXSI_HANDLE handle, const uint32_t* pairs, uint32_t size)
{
    Session_use session(handle);
    if (!session || (!pairs && size >= 8))
        return einval();
    return truth(ExposureSetTags(session.get(), pairs, size) != 0);
}

VQXSI_BOOL VQXSI_GetExposureSettings(VQXSI_HANDLE handle, uint32_t* pairs, uint32_t size)
{
    Session_use session(handle);
    if (!session || (!pairs && size >= 8))
        return einval();
    return truth(ExposureGetTags(session.get(), pairs, size) != 0);
}

VQXSI_BOOL VQXSI_GetScanEnginePropertiesEx(VQXSI_HANDLE handle, VQX_SCANENGINE_PROPERTIES_EX* properties,
                                           uint32_t size)
{
    Session_use session(handle);
    if (!session || (!properties && size != 0))
        return einval();
    if (size == 0)
        return 1;
    std::memset(properties, 0, size);
    const VQX_SCANENGINE_PROPERTIES_EX* own = session->Get_properties();
    const size_t n = size < sizeof *own ? size : sizeof *own;
    std::memcpy(properties, own, n);
    return 1;
}

VQXSI_BOOL VQXSI_GetScanDriverRevision(VQXSI_HANDLE, char* revision)
{
    if (!revision)
        return einval();
    std::memcpy(revision, Config::sd_revision, sizeof Config::sd_revision);
    return 1;
}

const char* VQXSI_RevisionString(void)
{
    return Config::sd_revision_string_a;
}

VQXSI_BOOL VQXSI_SetSleepTimeout(VQXSI_HANDLE handle, uint32_t milliseconds)
{
    if (!handle) {
        std::lock_guard<std::mutex> lock(mtx);
        State_manager::g_msSleepTimeout = milliseconds;
        return 1;
    }
    Session_use session(handle);
    if (!session)
        return einval();
    return truth(session->Set_sleep_timeout(milliseconds));
}

VQXSI_BOOL VQXSI_GetSleepTimeout(VQXSI_HANDLE handle, uint32_t* milliseconds)
{
    if (!milliseconds)
        return einval();
    if (!handle) {
        std::lock_guard<std::mutex> lock(mtx);
        *milliseconds = static_cast<uint32_t>(State_manager::g_msSleepTimeout);
        return 1;
    }
    Session_use session(handle);
    if (!session)
        return einval();
    unsigned int ms = 0;
    const bool ok = session->Get_sleep_timeout(ms);
    if (ok)
        *milliseconds = ms;
    return truth(ok);
}

} // extern "C"
