// Anchor translation unit of the vqx_hwlsim archive.
