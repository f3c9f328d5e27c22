/* A client of the installed driver, written from its public headers alone:
 * opens a session, starts scanning, takes a few frames and prints, for each,
 * its size, its mean brightness and the exposure and gain it was taken with;
 * gives every frame back, stops and closes.
 *
 *   scan_client [FRAMES]      (default 5)
 *
 * Exposure and gain are in the engine's own units (README: Auto exposure).
 *
 * Exit status: 0 all frames came with their attributes, 1 no session, 2 fewer
 * frames than asked, 3 a frame without attributes. */
#include <VQXScanAttributes.h> /* VQXSI_GetImageAttributes; includes VQXScanInterface.h */

#include <stdio.h>
#include <stdlib.h>

static double mean_of(const unsigned char* frame, uint32_t width, uint32_t height)
{
    unsigned long long sum = 0;
    size_t i, n = (size_t)width * height;
    for (i = 0; i < n; ++i)
        sum += frame[i];
    return n ? (double)sum / (double)n : 0.0;
}

int main(int argc, char** argv)
{
    int frames = argc > 1 ? atoi(argv[1]) : 5;
    int got = 0, missing = 0;
    VQX_SCANENGINE_PROPERTIES_EX properties = {0};
    VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
    if (!h) {
        fprintf(stderr, "scan_client: no scan engine (VQXSI_OpenSessionWithScanEngine failed)\n");
        return 1;
    }
    properties.size = sizeof properties;
    VQXSI_GetScanEnginePropertiesEx(h, &properties, sizeof properties);
    printf("driver %s, image %u x %u\n", VQXSI_RevisionString(),
           (unsigned)properties.image_width, (unsigned)properties.image_height);

    if (VQXSI_StartScanning(h)) {
        while (got < frames) {
            unsigned char* frame = (unsigned char*)VQXSI_GetNewScan(h);
            VQX_IMAGE_ATTRIBUTES attributes = {0};
            if (!frame)
                break;
            ++got;
            attributes.size = sizeof attributes;
            if (!VQXSI_GetImageAttributes(h, frame, &attributes) && ++missing)
                fprintf(stderr, "scan_client: frame %d has no attributes\n", got);
            printf("frame %d: %u x %u, mean %.1f, exposure %u, gain %u\n", got,
                   (unsigned)properties.image_width, (unsigned)properties.image_height,
                   mean_of(frame, properties.image_width, properties.image_height),
                   (unsigned)attributes.exposure, (unsigned)attributes.gain);
            VQXSI_UnlockBuffer(h, frame);
        }
        VQXSI_StopScanning(h);
    }
    VQXSI_CloseSessionWithScanEngine(h);
    printf("frames: %d of %d\n", got, frames);
    return got == frames ? (missing ? 3 : 0) : 2;
}
