package org.vqxscan;

import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.locks.ReentrantLock;

/**
 * The state of one open session, shared by the session and its frames (and
 * by their cleaning actions, which must not hold the session or a frame).
 *
 * Every native call on the handle runs inside {@link #enter()} /
 * {@link #leave()}: one at a time, never after close, so a closed handle is
 * never passed on (the driver may give its address to a later session).
 * Frames given back (closed, or collected unclosed) are queued and given to
 * the driver at once when no call is in progress, else by the call in
 * progress as it ends: a thread closing a frame never waits for another
 * thread's {@code nextFrame}.
 */
final class SessionCore implements Runnable {
    private final ReentrantLock lock = new ReentrantLock();
    private final ConcurrentLinkedQueue<Long> returned = new ConcurrentLinkedQueue<>();
    /** Frames the client holds, by address. */
    final ConcurrentHashMap<Long, FrameState> held = new ConcurrentHashMap<>();
    final long handle;
    private volatile boolean closed;
    /** Starts not yet stopped, and whether a single frame's extra scan lock is held (under the lock). */
    int starts;
    boolean singleLock;

    SessionCore(long handle) {
        this.handle = handle;
    }

    boolean closed() {
        return closed;
    }

    void enter() {
        lock.lock();
        if (closed) {
            lock.unlock();
            throw new IllegalStateException("the scan session is closed");
        }
        drain();
    }

    void leave() {
        try {
            drain();
        } finally {
            lock.unlock();
        }
    }

    private void drain() {
        for (Long address; (address = returned.poll()) != null;)
            Native.unlock(handle, address);
    }

    /** A frame given back by its client or its cleaner. */
    void giveBack(long address, FrameState state) {
        if (!held.remove(address, state))
            return;  // taken back by the driver already
        returned.add(address);
        if (lock.tryLock()) {
            try {
                if (!closed)
                    drain();
            } finally {
                lock.unlock();
            }
        }
    }

    /** A frame delivered at an address the client still held: the driver took that one back. */
    void delivered(long address, FrameState state) {
        FrameState old = held.put(address, state);
        if (old != null)
            old.reclaim();
    }

    /** The driver took back every frame (the last stop, or close). Under the lock. */
    void reclaimAll() {
        held.values().forEach(FrameState::reclaim);
        held.clear();
        returned.clear();
    }

    /** Closes; false when it was closed already. */
    boolean close() {
        lock.lock();
        try {
            if (closed)
                return false;
            closed = true;
            reclaimAll();
            Native.close(handle);
            return true;
        } finally {
            lock.unlock();
        }
    }

    /** The cleaning action of a session collected without close. */
    @Override
    public void run() {
        close();
    }
}
