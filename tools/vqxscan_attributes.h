// vqxscan_attributes: the image attributes the driver filled for a frame.
//
// Read the way any C++ client reads them: through the session the handle
// points to (VQXScanSession.h), whose Get_image_attributes is a virtual
// operation called through the handle, with no symbol beyond the C
// interface. They are the driver's values, so they are there on any
// hardware layer. The translation unit is built without the undefined-
// behaviour sanitizer's dynamic type check, which would need the library's
// hidden type information.
#ifndef VQXSCAN_ATTRIBUTES_H
#define VQXSCAN_ATTRIBUTES_H

#include <VQXScanInterface.h>

namespace vqxscan {

/// Fills @p out (its size field set by the caller) for @p frame, held by
/// the client of the open session @p h; false when the driver does not know
/// the frame.
bool frame_attributes(VQXSI_HANDLE h, void* frame, VQX_IMAGE_ATTRIBUTES& out);

} // namespace vqxscan

#endif
