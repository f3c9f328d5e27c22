package org.vqxscan;

import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.Map;

/**
 * Exposure settings: values for some {@link ExposureTag}s, in the order they
 * were given (a later value of the same setting wins, as in C). Immutable.
 */
public final class ExposureSettings {
    private final Map<ExposureTag, Integer> values;

    private ExposureSettings(Map<ExposureTag, Integer> values) {
        this.values = Collections.unmodifiableMap(values);
    }

    /** No settings. */
    public static ExposureSettings of() {
        return new ExposureSettings(new LinkedHashMap<>());
    }

    /** These settings and {@code tag} set to {@code value} (unsigned 32 bits). */
    public ExposureSettings with(ExposureTag tag, int value) {
        Map<ExposureTag, Integer> copy = new LinkedHashMap<>(values);
        copy.remove(tag);
        copy.put(tag, value);
        return new ExposureSettings(copy);
    }

    /** The value of {@code tag}; throws when it is not among these settings. */
    public int get(ExposureTag tag) {
        Integer v = values.get(tag);
        if (v == null)
            throw new IllegalArgumentException(tag + " is not among these settings");
        return v;
    }

    /** The settings, in order. */
    public Map<ExposureTag, Integer> asMap() {
        return values;
    }

    int[] toPairs() {
        int[] pairs = new int[values.size() * 2];
        int i = 0;
        for (Map.Entry<ExposureTag, Integer> e : values.entrySet()) {
            pairs[i++] = e.getKey().code;
            pairs[i++] = e.getValue();
        }
        return pairs;
    }

    @Override
    public boolean equals(Object o) {
        return o instanceof ExposureSettings && ((ExposureSettings) o).values.equals(values);
    }

    @Override
    public int hashCode() {
        return values.hashCode();
    }

    @Override
    public String toString() {
        return values.toString();
    }
}
