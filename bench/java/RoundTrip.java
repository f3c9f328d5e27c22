package org.vqxscan.bench;

import org.vqxscan.Frame;
import org.vqxscan.ScanSession;

/**
 * The Java round trip (nextFrame, read 1 KiB of pixels, close) against the C
 * one (GetNewScan, read 1 KiB, UnlockBuffer) in the same process, rounds
 * interleaved. Usage: RoundTrip [frames per round] [rounds].
 */
public final class RoundTrip {
    static {
        System.load(System.getProperty("vqxscan.bench.library"));
    }

    static native long cRoundTripNanos(int n);

    static long javaRoundTripNanos(int n) {
        byte[] chunk = new byte[1024];
        int sink = 0;
        try (ScanSession s = ScanSession.open()) {
            s.startScanning();
            long start = System.nanoTime();
            for (int i = 0; i < n; i++) {
                try (Frame f = s.nextFrame()) {
                    f.get(0, chunk, 0, chunk.length);
                    sink ^= chunk[i % chunk.length];
                }
            }
            long elapsed = System.nanoTime() - start;
            s.stopScanning();
            return elapsed + (sink & 0);
        }
    }

    public static void main(String[] args) {
        int n = args.length > 0 ? Integer.parseInt(args[0]) : 500;
        int rounds = args.length > 1 ? Integer.parseInt(args[1]) : 5;
        javaRoundTripNanos(n / 5);  // warm-up: JIT and the driver's start-up
        cRoundTripNanos(n / 5);
        double[] c = new double[rounds], j = new double[rounds];
        for (int r = 0; r < rounds; r++) {
            c[r] = cRoundTripNanos(n) / 1e3 / n;
            j[r] = javaRoundTripNanos(n) / 1e3 / n;
        }
        java.util.Arrays.sort(c);
        java.util.Arrays.sort(j);
        double cm = c[rounds / 2], jm = j[rounds / 2];
        System.out.printf("C round trip: %.1f us (median of %d rounds of %d frames)%n", cm, rounds, n);
        System.out.printf("Java round trip: %.1f us%n", jm);
        System.out.printf("Java / C: %.3f (goal at most 1.2)%n", jm / cm);
    }
}
