// vqxscan_attributes: see vqxscan_attributes.h.
#include "vqxscan_attributes.h"

#include <VQXScanSession.h>

namespace vqxscan {

bool frame_attributes(VQXSI_HANDLE h, void* frame, VQX_IMAGE_ATTRIBUTES& out)
{
    return h->Get_image_attributes(frame, &out);
}

} // namespace vqxscan
