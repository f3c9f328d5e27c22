// The C round trip of the Java benchmark, in the same process: a session of
// its own, n times GetNewScan, read 1 KiB of pixels, UnlockBuffer.
#include <VQXScanInterface.h>
#include <jni.h>

#include <chrono>

extern "C" JNIEXPORT jlong JNICALL Java_org_vqxscan_bench_RoundTrip_cRoundTripNanos(JNIEnv*, jclass, jint n)
{
    VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
    if (!h || !VQXSI_StartScanning(h))
        return -1;
    unsigned char sink = 0, chunk[1024];
    const auto start = std::chrono::steady_clock::now();
    for (jint i = 0; i < n; ++i) {
        unsigned char* frame = static_cast<unsigned char*>(VQXSI_GetNewScan(h));
        if (!frame)
            return -1;
        for (unsigned j = 0; j < sizeof chunk; ++j)
            chunk[j] = frame[j];
        sink ^= chunk[i % sizeof chunk];
        VQXSI_UnlockBuffer(h, frame);
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    VQXSI_StopScanning(h);
    VQXSI_CloseSessionWithScanEngine(h);
    return std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() + (sink & 0);
}
