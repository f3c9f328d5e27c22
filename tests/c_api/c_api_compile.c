/* The public header as a C99 client sees it: every type and function is
 * used, so the header must compile as strict C99 and every function must
 * link. With --no-run the program only proves that; without it, it runs one
 * scan against whatever hardware layer the library loads. */
#include <VQXScanInterface.h>
#include <VQXScanAttributes.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

static int fail(const char* what)
{
    fprintf(stderr, "c_api: %s failed\n", what);
    return 1;
}

static int run(void)
{
    VQXSI_HANDLE h;
    VQX_SCANNER_LIGHTING lights;
    VQX_SCANENGINE_PROPERTIES_EX properties;
    VQX_IMAGE_ATTRIBUTES attributes;
    uint32_t pairs[4];
    uint32_t ms = 0;
    char revision[8];
    void* frame;

    memset(&attributes, 0, sizeof attributes); /* the type is part of the header */
    attributes.size = sizeof attributes;

    if (!VQXSI_GetScanDriverRevision(NULL, revision) || strcmp(revision, "2.138") != 0)
        return fail("VQXSI_GetScanDriverRevision");
    if (strcmp(VQXSI_RevisionString(), "Revision: 2.138") != 0)
        return fail("VQXSI_RevisionString");
    errno = 0;
    if (VQXSI_StartScanning(NULL) != 0 || errno != EINVAL)
        return fail("null handle check");
    if (!VQXSI_SetSleepTimeout(NULL, 0) || !VQXSI_GetSleepTimeout(NULL, &ms))
        return fail("default sleep time-out");

    h = VQXSI_OpenSessionWithScanEngine();
    if (!h)
        return fail("VQXSI_OpenSessionWithScanEngine");

    lights.size = sizeof lights;
    if (!VQXSI_GetLights(h, &lights))
        return fail("VQXSI_GetLights");
    lights.scanning_mode = VQX_LIGHTS_ILLUMINATION;
    if (!VQXSI_SetLights(h, &lights))
        return fail("VQXSI_SetLights");
    pairs[0] = ES_TARGET_VALUE;
    pairs[1] = 120;
    pairs[2] = ES_MAX_EXP_US;
    pairs[3] = 10000;
    if (!VQXSI_SetExposureSettings(h, pairs, sizeof pairs) || !VQXSI_GetExposureSettings(h, pairs, sizeof pairs))
        return fail("exposure settings");
    if (!VQXSI_SetExposureMode(h, VQX_EXPOSURE_HISTOGRAM))
        return fail("VQXSI_SetExposureMode");
    if (!VQXSI_SetSleepTimeout(h, 0) || !VQXSI_GetSleepTimeout(h, &ms))
        return fail("sleep time-out");
    if (!VQXSI_GetScanEnginePropertiesEx(h, &properties, sizeof properties))
        return fail("VQXSI_GetScanEnginePropertiesEx");

    if (!VQXSI_StartScanning(h))
        return fail("VQXSI_StartScanning");
    frame = VQXSI_GetNewScan(h);
    if (!frame || !VQXSI_GetImageAttributes(h, frame, &attributes) || attributes.size != 40 ||
        !attributes.frame_number || !attributes.exposure || !attributes.gain || !VQXSI_UnlockBuffer(h, frame))
        return fail("VQXSI_GetNewScan, VQXSI_GetImageAttributes");
    if (!VQXSI_StopScanning(h))
        return fail("VQXSI_StopScanning");

    /* A single frame may be lost when the hardware confirms the stop at
       once; either way the start is ended and the session closes cleanly. */
    frame = VQXSI_GetSingleFrame(h);
    if (frame)
        VQXSI_UnlockBuffer(h, frame);
    VQXSI_StopScanning(h);

    VQXSI_CloseSessionWithScanEngine(h);
    errno = 0; /* a closed handle is refused, not used */
    if (VQXSI_GetImageAttributes(h, frame, &attributes) || errno != EINVAL)
        return fail("VQXSI_GetImageAttributes of a closed session");
    dbg_output("c_api: %s\r\n", "done");
    dbg_log("c_api: %s\n", "done");
    (void)dbg_log_dump; /* prints the whole log: linked, not called */
    return 0;
}

int main(int argc, char** argv)
{
    if (argc > 1 && strcmp(argv[1], "--no-run") == 0)
        return 0;
    return run();
}
