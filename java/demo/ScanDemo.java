package org.vqxscan.demo;

import com.google.zxing.BinaryBitmap;
import com.google.zxing.DecodeHintType;
import com.google.zxing.MultiFormatReader;
import com.google.zxing.PlanarYUVLuminanceSource;
import com.google.zxing.ReaderException;
import com.google.zxing.Result;
import com.google.zxing.common.HybridBinarizer;
import java.util.Map;
import org.vqxscan.Frame;
import org.vqxscan.FrameAttributes;
import org.vqxscan.ScanSession;

/**
 * Scans with the Java binding until zxing reads a barcode: prints each
 * frame's exposure and gain (the driver's, engine units), then what was
 * read. Usage: ScanDemo [--frames N] (default 60). Exit 0 read, 1 nothing
 * read, 3 no session.
 */
public final class ScanDemo {
    public static void main(String[] args) {
        int limit = args.length == 2 && args[0].equals("--frames") ? Integer.parseInt(args[1]) : 60;
        MultiFormatReader reader = new MultiFormatReader();
        reader.setHints(Map.of(DecodeHintType.TRY_HARDER, Boolean.TRUE));
        long started = System.nanoTime();
        int frames = 0;
        try (ScanSession session = ScanSession.open()) {
            session.startScanning();
            Result result = null;
            byte[] grey = null;
            while (result == null && frames < limit) {
                Frame frame = session.nextFrame();
                if (frame == null)
                    break;
                try (frame) {
                    FrameAttributes a = frame.attributes();
                    int w = frame.width(), h = frame.height();
                    frames++;
                    System.out.printf("frame %d at %.1f ms: exposure %d, gain %d, white %d%n", a.frameNumber(),
                        (System.nanoTime() - started) / 1e6, a.exposure(), a.gain(), a.whiteValue());
                    if (grey == null)
                        grey = new byte[w * h];
                    frame.get(0, grey, 0, w * h);  // zxing reads a byte array
                    try {
                        result = reader.decodeWithState(new BinaryBitmap(new HybridBinarizer(
                            new PlanarYUVLuminanceSource(grey, w, h, 0, 0, w, h, false))));
                    } catch (ReaderException notYet) {
                        reader.reset();
                    }
                }
            }
            session.stopScanning();
            System.out.printf("frames: %d%n", frames);
            if (result == null) {
                System.out.println("nothing read");
                System.exit(1);
            }
            System.out.printf("decoded %s: %s%ntime to decode: %.1f ms%n", result.getBarcodeFormat(),
                result.getText(), (System.nanoTime() - started) / 1e6);
        } catch (org.vqxscan.ScanException e) {
            System.err.println(e.getMessage());
            System.exit(3);
        }
    }
}
