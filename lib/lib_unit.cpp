// Anchor translation unit of the vqx_exposure archive.
