package org.vqxscan;

/**
 * A call of the C interface failed. {@link #errnoName()} is the errno the C
 * function set ({@code "EINVAL"}, ...), or {@code null} when it failed
 * without setting one (an open that found no engine).
 */
public final class ScanException extends RuntimeException {
    private static final long serialVersionUID = 1L;
    private final String errnoName;

    ScanException(String message, String errnoName) {
        super(errnoName == null ? message : message + " (" + errnoName + ")");
        this.errnoName = errnoName;
    }

    /** The C errno's name, or null. */
    public String errnoName() {
        return errnoName;
    }

    /** Linux and Android number errno alike on every architecture they share. */
    static String nameOf(int errno) {
        switch (errno) {
            case 1: return "EPERM";
            case 4: return "EINTR";
            case 5: return "EIO";
            case 11: return "EAGAIN";
            case 12: return "ENOMEM";
            case 16: return "EBUSY";
            case 19: return "ENODEV";
            case 22: return "EINVAL";
            case 110: return "ETIMEDOUT";
            default: return "errno " + errno;
        }
    }

    /** Throws for a native result: 1 success, 0 failure, -errno failure with errno. */
    static void check(int result, String function) {
        if (result == 1)
            return;
        throw new ScanException(function + " failed", result < 0 ? nameOf(-result) : null);
    }
}
