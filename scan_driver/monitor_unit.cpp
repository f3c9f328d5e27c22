// Anchor translation unit of the vqx_runtime archive.
