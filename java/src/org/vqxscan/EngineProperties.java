package org.vqxscan;

/** The engine's properties ({@code VQX_SCANENGINE_PROPERTIES_EX}). */
public record EngineProperties(int engineIdClass, int imageHeight, int imageWidth, int pixelDepthBits,
                               int aimerX, int aimerY, int bufferCount, int psocRevisionLow,
                               int psocRevisionHigh, String serialNumber, int engineId) {
}
