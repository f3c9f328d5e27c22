// Anchor translation unit of the vqx_driver archive.
