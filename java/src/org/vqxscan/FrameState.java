package org.vqxscan;

import java.util.concurrent.atomic.AtomicInteger;

/** Whether a frame's pixels are still the client's. */
final class FrameState {
    static final int HELD = 0, CLOSED = 1, RECLAIMED = 2;
    final AtomicInteger status = new AtomicInteger(HELD);

    void reclaim() {
        status.compareAndSet(HELD, RECLAIMED);
    }

    void check() {
        switch (status.get()) {
            case HELD:
                return;
            case CLOSED:
                throw new IllegalStateException("the frame is closed");
            default:
                throw new IllegalStateException("the frame was taken back: its session stopped scanning or closed");
        }
    }
}
