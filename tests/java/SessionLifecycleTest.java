package org.vqxscan.test;

import static org.junit.jupiter.api.Assertions.*;

import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.*;
import java.util.function.Consumer;
import org.junit.jupiter.api.Test;
import org.vqxscan.*;

/**
 * Sessions and frames through their lives. "The driver is healthy" is shown
 * by the driver's own behaviour: a fresh session can hold every buffer but
 * one at once only when no frame of an earlier session is still out (the
 * driver keeps the last buffer and would wait 30 s for a frame back).
 */
class SessionLifecycleTest {
    /** Opens a session, scans, holds every buffer but one at once and closes all. */
    static void assertDriverHealthy() {
        try (ScanSession s = ScanSession.open()) {
            s.startScanning();
            List<Frame> held = new ArrayList<>();
            try (Frame first = s.nextFrame()) {
                assertNotNull(first);
            }
            int buffers = s.properties().bufferCount();
            assertTrue(buffers >= 2, "buffers: " + buffers);
            for (int i = 0; i < buffers - 1; i++) {
                Frame f = s.nextFrame();
                assertNotNull(f, "frame " + i + " of " + (buffers - 1) + " held at once: a buffer is still out");
                held.add(f);
            }
            held.forEach(Frame::close);
            s.stopScanning();
        }
    }

    @Test
    void settingsAreTypedAndReadBack() {
        try (ScanSession s = ScanSession.open()) {
            assertEquals("2.138", ScanSession.revision());
            Lights lights = s.lights().withScanningMode(LightsMode.ILLUMINATION).withIdleMode(LightsMode.OFF);
            s.setLights(lights);
            assertEquals(lights, s.lights());
            ExposureSettings wanted = ExposureSettings.of().with(ExposureTag.TARGET_VALUE, 110)
                .with(ExposureTag.MAX_EXPOSURE_US, 8000).with(ExposureTag.FAST_START, 1);
            s.setExposureSettings(wanted);
            s.setExposureMode(ExposureMode.HISTOGRAM);
            Map<ExposureTag, Integer> read = s.exposureSettings().asMap();
            assertEquals(ExposureTag.values().length, read.size());
            assertEquals(110, read.get(ExposureTag.TARGET_VALUE));
            assertEquals(8000, read.get(ExposureTag.MAX_EXPOSURE_US));
            assertEquals(0, read.get(ExposureTag.FAST_START), "ignored tags read 0");
            s.setSleepTimeoutMs(1500);
            assertEquals(1500, s.sleepTimeoutMs());
            s.setSleepTimeoutMs(0);
            assertEquals(1280, s.properties().imageWidth());
            ScanException e = assertThrows(ScanException.class, s::stopScanning, "not scanning");
            assertNull(e.errnoName(), "VQXSI_StopScanning leaves errno alone");
        }
    }

    @Test
    void twoThreadsOnTwoSessions() throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(2);
        Callable<Long> scan = () -> {
            try (ScanSession s = ScanSession.open()) {
                s.startScanning();
                long last = 0;
                for (int i = 0; i < 30; i++) {
                    try (Frame f = s.nextFrame()) {
                        assertNotNull(f);
                        assertTrue(f.attributes().frameNumber() > last);
                        last = f.attributes().frameNumber();
                        f.get(f.width() * f.height() - 1);
                    }
                }
                s.stopScanning();
                return last;
            }
        };
        List<Future<Long>> runs = pool.invokeAll(List.of(scan, scan));
        for (Future<Long> run : runs)
            assertTrue(run.get(60, TimeUnit.SECONDS) > 0);
        pool.shutdown();
        assertDriverHealthy();
    }

    @Test
    void closingASessionWithFramesHeldReturnsThemAll() {
        ScanSession s = ScanSession.open();
        s.startScanning();
        List<Frame> held = new ArrayList<>();
        for (int i = 0; i < 3; i++)
            held.add(s.nextFrame());
        s.close();
        for (Frame f : held) {
            assertThrows(IllegalStateException.class, f::attributes, "a frame taken back at close");
            f.close();  // closes quietly
        }
        assertDriverHealthy();
    }

    @Test
    void useAfterCloseThrowsAndLeavesTheDriverHealthy() {
        ScanSession s = ScanSession.open();
        s.startScanning();
        Frame f = s.nextFrame();
        f.close();
        List<Consumer<Frame>> frameUses = List.of(Frame::pixels, x -> x.get(0), Frame::attributes, Frame::width,
            Frame::height, x -> x.get(0, new byte[4], 0, 4), Frame::close);
        for (Consumer<Frame> use : frameUses)
            assertThrows(IllegalStateException.class, () -> use.accept(f));
        s.close();
        List<Consumer<ScanSession>> sessionUses = List.of(ScanSession::startScanning, ScanSession::stopScanning,
            ScanSession::nextFrame, ScanSession::singleFrame, ScanSession::lights, ScanSession::properties,
            x -> x.setExposureMode(ExposureMode.FIXED), x -> x.exposureSettings(), ScanSession::sleepTimeoutMs,
            x -> x.setLights(new Lights(LightsMode.OFF, LightsMode.OFF, 0, 100, 100, false)),
            x -> x.setExposureSettings(ExposureSettings.of()), x -> x.setSleepTimeoutMs(0), ScanSession::close);
        for (Consumer<ScanSession> use : sessionUses)
            assertThrows(IllegalStateException.class, () -> use.accept(s));
        assertDriverHealthy();
    }

    @Test
    void aFrameForgottenWithoutCloseIsReturnedAfterGarbageCollection() throws Exception {
        try (ScanSession s = ScanSession.open()) {
            s.startScanning();
            for (int i = 0; i < 16; i++) {  // four times the buffers: each must come back
                assertNotNull(s.nextFrame(), "frame " + i + ": a forgotten frame was not returned");
                System.gc();
                Thread.sleep(30);
            }
            s.stopScanning();
        }
        assertDriverHealthy();
    }

    @Test
    void aSingleFrameKeepsScanningStarted() {
        try (ScanSession s = ScanSession.open()) {
            try (Frame f = s.singleFrame()) {
                assertNotNull(f);
                assertTrue(f.attributes().exposure() > 0);
            }
            s.stopScanning();
        }
        assertDriverHealthy();
    }
}
