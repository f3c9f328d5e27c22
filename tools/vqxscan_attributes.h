// vqxscan_attributes: the image attributes the driver filled for a frame.
//
// The exported functions carry no attributes. The session handle is the
// driver's session object, whose virtual operations (in a fixed slot order)
// include Get_image_attributes; calling it through the handle needs no
// hidden symbol. Its translation unit is built without the undefined-
// behaviour sanitizer's dynamic type check, which would need the hidden
// class's type information.
#ifndef VQXSCAN_ATTRIBUTES_H
#define VQXSCAN_ATTRIBUTES_H

#include <VQXScanInterface.h>

namespace vqxscan {

/// Fills @p out (its size field set by the caller) for @p frame of session
/// @p h; false when the driver does not know the frame.
bool frame_attributes(VQXSI_HANDLE h, void* frame, VQX_IMAGE_ATTRIBUTES& out);

} // namespace vqxscan

#endif
