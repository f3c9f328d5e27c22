// VQXSI_GetImageAttributes: see VQXScanAttributes.h.
//
// The handle is the driver's session (VQXScanSession.h); this file is a
// client of the library like any other and calls the session's operation
// through its table of virtual operations. Built without exceptions and
// type information, it needs nothing of the C++ runtime, so a C program
// links it as it is.
#include "VQXScanAttributes.h"

#include <VQXScanSession.h>

#include <cerrno>

extern "C" VQXSI_BOOL VQXSI_GetImageAttributes(VQXSI_HANDLE handle, void* frame, VQX_IMAGE_ATTRIBUTES* attributes)
{
    if (!handle || !attributes) {
        errno = EINVAL;
        return 0;
    }
    // An exported function looks the handle up among the open sessions
    // without touching it: asked for no bytes of the engine properties, it
    // answers 1 for an open session and 0 with EINVAL for any other handle.
    if (!VQXSI_GetScanEnginePropertiesEx(handle, nullptr, 0))
        return 0;
    return handle->Get_image_attributes(frame, attributes) ? 1 : 0;
}
