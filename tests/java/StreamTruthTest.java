package org.vqxscan.test;

import static org.junit.jupiter.api.Assertions.*;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.vqxscan.*;

/**
 * Frames flow to a Java client in the capture mode the run sets
 * (VQXSIM_CAPTURE_MODE), and the exposure and gain it reads for every frame
 * are what the simulated AR0144 used (rows; gain in 1/256). Run with
 * VQXSIM_LATENCY_OFFSET=1 and -Dvqxscan.test.wrongTruth=true, the sensor
 * applies settings a frame later than the driver's history says: the check
 * must then find wrong frames.
 */
class StreamTruthTest {
    @Test
    void everyFrameCarriesWhatTheSensorUsed() {
        boolean truthIsWrong = Boolean.getBoolean("vqxscan.test.wrongTruth");
        List<String> wrong = new ArrayList<>();
        long lastNumber = 0;
        try (ScanSession s = ScanSession.open()) {
            s.setLights(s.lights().withScanningMode(LightsMode.ILLUMINATION));
            EngineProperties p = s.properties();
            s.startScanning();
            for (int i = 0; i < 24; i++) {
                try (Frame f = s.nextFrame()) {
                    assertNotNull(f, "the stream died after " + i + " frames");
                    ByteBuffer pixels = f.pixels();
                    assertTrue(pixels.isDirect() && pixels.isReadOnly());
                    assertEquals(p.imageWidth() * p.imageHeight(), pixels.capacity());
                    assertEquals(p.imageWidth(), f.width());
                    FrameAttributes a = f.attributes();
                    assertTrue(a.frameNumber() > lastNumber, "frame numbers rise");
                    lastNumber = a.frameNumber();
                    double[] sensor = SimTruth.of(pixels);
                    double applied = sensor[1] * 256;
                    if (a.exposure() != (long) sensor[0] || Math.abs(applied - a.gain()) > 0.5)
                        wrong.add(String.format("frame %d: driver %d rows x %d, sensor %.0f rows x %.1f",
                            a.frameNumber(), a.exposure(), a.gain(), sensor[0], applied));
                }
            }
            s.stopScanning();
        }
        assertEquals(truthIsWrong, !wrong.isEmpty(), "frames whose attributes differ from the sensor: " + wrong);
    }
}
