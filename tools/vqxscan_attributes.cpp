// vqxscan_attributes: see vqxscan_attributes.h.
#include "vqxscan_attributes.h"

#include "scan_session.h"

namespace vqxscan {

bool frame_attributes(VQXSI_HANDLE h, void* frame, VQX_IMAGE_ATTRIBUTES& out)
{
    return reinterpret_cast<Scan_session*>(h)->Get_image_attributes(frame, &out);
}

} // namespace vqxscan
