// libvqxscan_jni.so: the JNI functions of org.vqxscan.Native, each a thin
// call of the C interface (VQXScanInterface.h) and, for a frame, of its
// image attributes (VQXScanAttributes.h).
//
// The library keeps no state of its own: handles and frame addresses live
// in the Java objects. Nothing here calls a Java method: a frame's pixels
// are wrapped in a direct ByteBuffer over the driver's buffer (no copy), and
// results go back as return values and primitive arrays. Failures return
// -errno when the C function set errno (0 otherwise); errno is cleared
// before each call so that an old value is not taken for the call's.
#include "org_vqxscan_Native.h"

#include <VQXScanAttributes.h>
#include <VQXScanInterface.h>

#include <cerrno>
#include <cstring>

namespace {

VQXSI_HANDLE handle_of(jlong handle)
{
    return reinterpret_cast<VQXSI_HANDLE>(static_cast<intptr_t>(handle));
}

/// 1, 0, or -errno for a failure that set errno.
jint result(int ok)
{
    if (ok)
        return 1;
    return errno ? -errno : 0;
}

/// Copies a Java int array of at most max words into words; returns the count.
jsize read_ints(JNIEnv* env, jintArray array, uint32_t* words, jsize max)
{
    jsize n = env->GetArrayLength(array);
    if (n > max)
        n = max;
    env->GetIntArrayRegion(array, 0, n, reinterpret_cast<jint*>(words));
    return n;
}

/// The slots of a frame's out array (Native.java's constants).
namespace N {
enum : jsize {
    ADDRESS = org_vqxscan_Native_ADDRESS, ERROR = org_vqxscan_Native_ERROR, EXPOSURE = org_vqxscan_Native_EXPOSURE,
    GAIN = org_vqxscan_Native_GAIN, WHITE = org_vqxscan_Native_WHITE, HEIGHT = org_vqxscan_Native_HEIGHT,
    WIDTH = org_vqxscan_Native_WIDTH, FRAME_NUMBER = org_vqxscan_Native_FRAME_NUMBER,
    DISCARDED = org_vqxscan_Native_DISCARDED, FRAME_OUT = org_vqxscan_Native_FRAME_OUT
};
}

} // namespace

extern "C" {

JNIEXPORT jlong JNICALL Java_org_vqxscan_Native_open(JNIEnv*, jclass)
{
    return static_cast<jlong>(reinterpret_cast<intptr_t>(VQXSI_OpenSessionWithScanEngine()));
}

JNIEXPORT void JNICALL Java_org_vqxscan_Native_close(JNIEnv*, jclass, jlong handle)
{
    VQXSI_CloseSessionWithScanEngine(handle_of(handle));
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_start(JNIEnv*, jclass, jlong handle)
{
    errno = 0;
    return result(VQXSI_StartScanning(handle_of(handle)));
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_stop(JNIEnv*, jclass, jlong handle)
{
    errno = 0;
    return result(VQXSI_StopScanning(handle_of(handle)));
}

JNIEXPORT jobject JNICALL Java_org_vqxscan_Native_nextFrame(JNIEnv* env, jclass, jlong handle, jboolean single,
                                                            jlongArray out)
{
    VQXSI_HANDLE h = handle_of(handle);
    jlong words[N::FRAME_OUT] = {};
    errno = 0;
    void* frame = single ? VQXSI_GetSingleFrame(h) : VQXSI_GetNewScan(h);
    jobject pixels = nullptr;
    if (!frame) {
        words[N::ERROR] = errno;
    } else {
        VQX_IMAGE_ATTRIBUTES a;
        std::memset(&a, 0, sizeof a);
        a.size = sizeof a;
        VQXSI_GetImageAttributes(h, frame, &a);
        words[N::ADDRESS] = static_cast<jlong>(reinterpret_cast<intptr_t>(frame));
        words[N::EXPOSURE] = a.exposure;
        words[N::GAIN] = a.gain;
        words[N::WHITE] = a.white_value;
        words[N::HEIGHT] = a.height;
        words[N::WIDTH] = a.width;
        words[N::FRAME_NUMBER] = a.frame_number;
        words[N::DISCARDED] = a.discarded;
        pixels = env->NewDirectByteBuffer(frame, jlong(a.height) * a.width);
        if (!pixels)  // out of memory: give the frame back, the exception is pending
            VQXSI_UnlockBuffer(h, frame);
    }
    env->SetLongArrayRegion(out, 0, N::FRAME_OUT, words);
    return pixels;
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_unlock(JNIEnv*, jclass, jlong handle, jlong address)
{
    errno = 0;
    return result(VQXSI_UnlockBuffer(handle_of(handle), reinterpret_cast<void*>(static_cast<intptr_t>(address))));
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_setExposureMode(JNIEnv*, jclass, jlong handle, jint mode)
{
    errno = 0;
    return result(VQXSI_SetExposureMode(handle_of(handle), uint32_t(mode)));
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_setLights(JNIEnv* env, jclass, jlong handle, jintArray record)
{
    VQX_SCANNER_LIGHTING lights;
    std::memset(&lights, 0, sizeof lights);
    read_ints(env, record, &lights.size, 7);
    lights.size = sizeof lights;
    errno = 0;
    return result(VQXSI_SetLights(handle_of(handle), &lights));
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_getLights(JNIEnv* env, jclass, jlong handle, jintArray record)
{
    VQX_SCANNER_LIGHTING lights;
    std::memset(&lights, 0, sizeof lights);
    lights.size = sizeof lights;
    errno = 0;
    const jint r = result(VQXSI_GetLights(handle_of(handle), &lights));
    env->SetIntArrayRegion(record, 0, 7, reinterpret_cast<const jint*>(&lights.size));
    return r;
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_setExposure(JNIEnv* env, jclass, jlong handle, jintArray pairs)
{
    jint* words = env->GetIntArrayElements(pairs, nullptr);
    const jsize n = env->GetArrayLength(pairs);
    errno = 0;
    const jint r = result(VQXSI_SetExposureSettings(handle_of(handle), reinterpret_cast<const uint32_t*>(words),
                                                    uint32_t(n) * 4));
    env->ReleaseIntArrayElements(pairs, words, JNI_ABORT);
    return r;
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_getExposure(JNIEnv* env, jclass, jlong handle, jintArray pairs)
{
    jint* words = env->GetIntArrayElements(pairs, nullptr);
    const jsize n = env->GetArrayLength(pairs);
    errno = 0;
    const jint r =
        result(VQXSI_GetExposureSettings(handle_of(handle), reinterpret_cast<uint32_t*>(words), uint32_t(n) * 4));
    env->ReleaseIntArrayElements(pairs, words, 0);
    return r;
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_properties(JNIEnv* env, jclass, jlong handle, jintArray out,
                                                          jbyteArray serial)
{
    VQX_SCANENGINE_PROPERTIES_EX p;
    errno = 0;
    const jint r = result(VQXSI_GetScanEnginePropertiesEx(handle_of(handle), &p, sizeof p));
    if (r != 1)
        return r;
    const jint v[10] = {jint(p.engine_id_class), jint(p.image_height), jint(p.image_width), jint(p.pixel_depth),
                        jint(p.aimer_x),         jint(p.aimer_y),      jint(p.buffer_count), jint(p.psoc_rev_low),
                        jint(p.psoc_rev_high),   jint(p.engine_id)};
    env->SetIntArrayRegion(out, 0, 10, v);
    p.serial_number[sizeof p.serial_number - 1] = 0;
    env->SetByteArrayRegion(serial, 0, sizeof p.serial_number, reinterpret_cast<const jbyte*>(p.serial_number));
    return r;
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_setSleepTimeout(JNIEnv*, jclass, jlong handle, jint milliseconds)
{
    errno = 0;
    return result(VQXSI_SetSleepTimeout(handle_of(handle), uint32_t(milliseconds)));
}

JNIEXPORT jint JNICALL Java_org_vqxscan_Native_getSleepTimeout(JNIEnv* env, jclass, jlong handle, jintArray out)
{
    uint32_t ms = 0;
    errno = 0;
    const jint r = result(VQXSI_GetSleepTimeout(handle_of(handle), &ms));
    const jint value = jint(ms);
    env->SetIntArrayRegion(out, 0, 1, &value);
    return r;
}

JNIEXPORT jstring JNICALL Java_org_vqxscan_Native_revision(JNIEnv* env, jclass)
{
    char revision[8] = {};
    VQXSI_GetScanDriverRevision(nullptr, revision);
    return env->NewStringUTF(revision);
}

} // extern "C"
