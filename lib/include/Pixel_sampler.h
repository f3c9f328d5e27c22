// Pixel sampling of a raw 8-bit frame while it is still arriving.
//
// Pixel_sampler walks an image (one byte per pixel, row pitch = width) by a
// fixed sparse grid and hands every sampled 4-pixel word to its accumulator.
// The exposure controller resets it at the start of a frame, stores the
// frame's image pointer, and calls one of the *_sample operations each time
// more rows are in memory; each call samples rows next_row .. rows_ready-1.
//
// Grid (w = width, h = height):
//  - uniform rows: r % 64 == 32; words at byte columns 32, 96, 160, ... while
//    the column is below 32 + ((w + 31) & ~63);
//  - centre rows: center_row_first <= r <= center_row_last and r % 16 == 0;
//    words at center_col_first, +16, +32, ... while the column is below
//    center_col_first + ((center_col_end - center_col_first) & ~15);
//  - center_weight_sample does both on each row, uniform first, so a word in
//    both patterns is counted twice: that is the centre weighting.
// The centre window is recomputed only when the geometry changes.
//
// Words are read as four bytes and assembled little-endian (lowest byte =
// leftmost pixel) whatever the host byte order. A uniform word may reach up
// to three bytes past the end of its row (widths that are not a multiple of
// 4); those bytes come from the next row, as in the frame buffer. On the last
// row of the frame the bytes past the frame's end are not read and count as 0.
//
// Bad input: with a null image nothing is sampled (next_row still advances);
// rows_ready above the height samples no rows beyond the frame.
//
// Used by the exposure controller from the frame path, serialised by the
// sensor's monitor. No locking, no allocation, no division per pixel.
#ifndef VQX_LIB_PIXEL_SAMPLER_H
#define VQX_LIB_PIXEL_SAMPLER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

/// Sampling operations common to every sampler.
class Pixel_sampler_abs {
public:
    virtual ~Pixel_sampler_abs() = default;
    virtual void reset(unsigned width, unsigned height) = 0;
    virtual void uniform_sample(unsigned rows_ready) = 0;
    virtual void center_sample(unsigned rows_ready) = 0;
    virtual void center_weight_sample(unsigned rows_ready) = 0;
};

/// Watch policy that watches no pixel.
class Pix_watch_noop {
public:
    virtual ~Pix_watch_noop() = default;
};

/// Four pixels at @p p as one little-endian word.
///
/// The transfer hardware may still be writing the buffer: capture modes 1 to
/// 3 sample a frame while it arrives, and a transfer that loses a frame
/// writes the next one into the same buffer without the driver arming it
/// again. So the pixels are read with relaxed atomic loads (one load for an
/// aligned word, byte loads otherwise): a pixel caught while it is written is
/// merely old, never undefined. On the usual targets these are plain loads.
inline uint32_t load_pixel_word(const unsigned char* p)
{
    unsigned char b[4];
    if (reinterpret_cast<uintptr_t>(p) % alignof(uint32_t) == 0) {
        const uint32_t word = __atomic_load_n(reinterpret_cast<const uint32_t*>(p), __ATOMIC_RELAXED);
        std::memcpy(b, &word, sizeof b);
    } else {
        for (size_t i = 0; i < sizeof b; ++i)
            b[i] = __atomic_load_n(p + i, __ATOMIC_RELAXED);
    }
    return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}

template <class Accumulator, class Watch>
class Pixel_sampler : public Pixel_sampler_abs, public Watch {
public:
    void reset(unsigned w, unsigned h) override
    {
        if (w != width || h != height) {
            width = w;
            height = h;
            center_row_first = (h * 3) >> 3;
            center_row_last = (h * 5) >> 3;
            center_col_first = (((w + 7) >> 3) * 3) & ~3u;
            center_col_end = ((((w + 7) >> 3) * 5) + 3) & ~3u;
        }
        image = nullptr;
        accumulator.reset();
        next_row = 0;
    }

    void uniform_sample(unsigned rows_ready) override { sample(rows_ready, true, false); }
    void center_sample(unsigned rows_ready) override { sample(rows_ready, false, true); }
    void center_weight_sample(unsigned rows_ready) override { sample(rows_ready, true, true); }

    const unsigned char* image = nullptr; ///< frame being sampled; reset clears it
    Accumulator accumulator;
    uint32_t next_row = 0; ///< first row not yet sampled
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t center_row_first = 0; ///< centre rows, inclusive bounds
    uint32_t center_row_last = 0;
    uint32_t center_col_first = 0; ///< centre byte columns, end exclusive
    uint32_t center_col_end = 0;

private:
    void sample(unsigned rows_ready, bool uniform, bool centre)
    {
        if (rows_ready <= next_row)
            return;
        const uint32_t first = next_row;
        next_row = rows_ready;
        if (image == nullptr)
            return;
        const uint32_t end = rows_ready < height ? rows_ready : height;

        // Every sampled row of either pattern is a multiple of 16.
        for (uint64_t r = (uint64_t(first) + 15) & ~uint64_t(15); r < end; r += 16) {
            const uint32_t row = static_cast<uint32_t>(r);
            if (uniform && (row & 63) == 32)
                uniform_row(row);
            if (centre && row >= center_row_first && row <= center_row_last)
                centre_row(row);
        }
    }

    void uniform_row(uint32_t r)
    {
        const unsigned char* row = image + size_t(r) * width;
        const uint32_t limit = 32 + ((width + 31) & ~63u);
        const bool last_row = r + 1 == height;
        for (uint32_t c = 32; c < limit; c += 64) {
            // Every column here is below width, so a word is short by at most
            // three bytes, and only on the frame's last row.
            if (last_row && c + 4 > width)
                accumulator.accumulate(load_tail(row + c, width - c));
            else
                accumulator.accumulate(load_pixel_word(row + c));
        }
    }

    void centre_row(uint32_t r)
    {
        const unsigned char* row = image + size_t(r) * width;
        const uint32_t limit = center_col_first + ((center_col_end - center_col_first) & ~15u);
        for (uint32_t c = center_col_first; c < limit; c += 16)
            accumulator.accumulate(load_pixel_word(row + c));
    }

    // The first @p n (1..3) pixels at @p p, the missing ones as 0.
    static uint32_t load_tail(const unsigned char* p, uint32_t n)
    {
        uint32_t word = 0;
        for (uint32_t i = 0; i < n; ++i)
            word |= uint32_t(p[i]) << (8 * i);
        return word;
    }
};

#endif // VQX_LIB_PIXEL_SAMPLER_H
