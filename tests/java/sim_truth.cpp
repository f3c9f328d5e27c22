// The simulated sensor's truth for the Java tests: what the simulator
// really used for the frame a direct buffer lies in (vqxsim_c.h).
#include <jni.h>
#include <vqxsim_c.h>

extern "C" JNIEXPORT jboolean JNICALL Java_org_vqxscan_test_SimTruth_frameInfo(JNIEnv* env, jclass, jobject pixels,
                                                                               jdoubleArray out)
{
    struct vqxsim_frame_info info;
    if (vqxsim_frame_info(env->GetDirectBufferAddress(pixels), &info) != 0)
        return JNI_FALSE;
    const jdouble v[3] = {double(info.rows), double(info.gain), double(info.frame_number)};
    env->SetDoubleArrayRegion(out, 0, 3, v);
    return JNI_TRUE;
}
