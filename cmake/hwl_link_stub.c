/* Link-time stand-in for the platform's libLmoKil.so (VQX_WITH_SIMULATOR=OFF).
 * It gives the driver its dependency on the hardware-layer library's name and
 * the one symbol the driver takes from it. It is never installed: on the
 * device the platform's own libLmoKil.so answers InitHWLayer. */
__attribute__((visibility("default"))) void* InitHWLayer(void* argument)
{
    (void)argument;
    return 0;
}
