// Helpers shared by the runtime tests: assertion capture and polling with a
// bound.
#ifndef VQX_RUNTIME_TEST_SUPPORT_H
#define VQX_RUNTIME_TEST_SUPPORT_H

#include "Output_capture.h"
#include "Synchronization.h"

// Polls pred every millisecond until it holds or ms passed.
template <class P>
bool eventually(P pred, unsigned ms = 3000)
{
    unsigned t0 = Synchroniztion_internal::MT_GetTickCount();
    while (!pred()) {
        if (Synchroniztion_internal::MT_GetTickCount() - t0 > ms)
            return false;
        Synchroniztion_internal::MT_Delay(1);
    }
    return true;
}

#endif
