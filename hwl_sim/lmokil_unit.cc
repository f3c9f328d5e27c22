// Anchor translation unit of libLmoKil.so; the contents come from the vqx_hwlsim archive.
