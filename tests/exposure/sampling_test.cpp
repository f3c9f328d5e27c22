// Sampling grids against a reference that tests every pixel position against
// the grid's definition.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "Pixel_sampler.h"

namespace {

struct Recording_accumulator {
    std::vector<uint32_t> words;
    void accumulate(unsigned word) { words.push_back(word); }
    void reset() { words.clear(); }
};
using Recording_sampler = Pixel_sampler<Recording_accumulator, Pix_watch_noop>;

enum Pattern { UNIFORM = 1, CENTRE = 2, WEIGHTED = 3 };
void sample(Recording_sampler& s, int pattern, unsigned rows)
{
    if (pattern == UNIFORM)
        s.uniform_sample(rows);
    else if (pattern == CENTRE)
        s.center_sample(rows);
    else
        s.center_weight_sample(rows);
}

std::vector<uint8_t> make_image(unsigned w, unsigned h)
{
    std::vector<uint8_t> img(size_t(w) * h); // exact size: overreads trip ASan
    uint32_t x = 12345;
    for (uint8_t& b : img) {
        x = x * 1103515245u + 12345u;
        b = uint8_t(x >> 16);
    }
    return img;
}

// Bytes past the end of the frame count as 0.
uint32_t word_at(const std::vector<uint8_t>& img, size_t off)
{
    uint32_t v = 0;
    for (unsigned k = 0; k < 4; ++k)
        v |= uint32_t(off + k < img.size() ? img[off + k] : 0) << (8 * k);
    return v;
}

std::vector<uint32_t> reference(const std::vector<uint8_t>& img, unsigned w, unsigned h, int pattern)
{
    const unsigned row_first = h * 3 / 8, row_last = h * 5 / 8;
    const unsigned eighth = (w + 7) / 8;
    const unsigned col_first = eighth * 3 / 4 * 4;
    const unsigned col_end = (eighth * 5 + 3) / 4 * 4;
    const unsigned centre_span = (col_end - col_first) / 16 * 16;
    const unsigned uniform_span = (w + 31) / 64 * 64;
    std::vector<uint32_t> out;
    for (unsigned r = 0; r < h; ++r) {
        for (unsigned c = 0; c < w; ++c)
            if ((pattern & UNIFORM) && r % 64 == 32 && c % 64 == 32 && c < 32 + uniform_span)
                out.push_back(word_at(img, size_t(r) * w + c));
        for (unsigned c = 0; c < w; ++c)
            if ((pattern & CENTRE) && r >= row_first && r <= row_last && r % 16 == 0 && c >= col_first &&
                (c - col_first) % 16 == 0 && c < col_first + centre_span)
                out.push_back(word_at(img, size_t(r) * w + c));
    }
    return out;
}

struct Size {
    unsigned w, h;
};

} // namespace

TEST(PixelSampler, GridsMatchReferenceInOneCallAndInStripsAndSkipNullImage)
{
    const Size sizes[] = {{640, 480}, {752, 480}, {1280, 800}, {32, 100}, {20, 70}, {1, 1},
                          {37, 100}, {100, 97}, {33, 33}, {33, 97}, {99, 33}, {33, 100}};
    for (const Size& sz : sizes) {
        const std::vector<uint8_t> img = make_image(sz.w, sz.h);
        for (int pattern : {UNIFORM, CENTRE, WEIGHTED}) {
            SCOPED_TRACE(::testing::Message() << sz.w << "x" << sz.h << " pattern " << pattern);
            const std::vector<uint32_t> expected = reference(img, sz.w, sz.h, pattern);
            Recording_sampler s;
            s.reset(sz.w, sz.h);
            s.image = img.data();
            sample(s, pattern, sz.h);
            EXPECT_EQ(s.accumulator.words, expected);
            EXPECT_EQ(s.next_row, sz.h);

            // Same frame in uneven strips, with repeated and stale counts.
            s.reset(sz.w, sz.h);
            s.image = img.data();
            for (unsigned rows : {1u, 1u, 0u, 17u, 32u, 33u, 33u, 95u, 191u, 300u, 500u})
                if (rows < sz.h)
                    sample(s, pattern, rows);
            sample(s, pattern, sz.h);
            sample(s, pattern, sz.h);
            EXPECT_EQ(s.accumulator.words, expected);
        }
    }

    Recording_sampler s; // no image: rows pass unsampled
    s.reset(640, 480);
    s.center_weight_sample(300);
    EXPECT_TRUE(s.accumulator.words.empty());
    EXPECT_EQ(s.next_row, 300u);
}
