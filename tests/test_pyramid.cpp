// Pyramid sizing, reduction, enlargement round trips, Gaussian blur and area reduction.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "test_support.hpp"

namespace {

const int kThreadCounts[] = {1, 2, 3, 7};

TEST(PyramidSize, ExactCountAndBound) {
    struct Case {
        int w, h;
        int64_t len;
        uint64_t len2;
    } cases[] = {
        {3, 100, 300, 450},  // L = 1: the base only
        {5, 5, 34, 38},      // 25 + 9
        {16, 16, 340, 384},  // 256 + 64 + 16 + 4
        {7, 4, 36, 42},      // L = 2: 28 + 4 x 2
        {1, 1, 1, 2},
        {0, 9, 0, 0},
        {65536, 65536, 5726623060ll, 0},  // the 32-bit product wraps to 0
    };
    for (const Case &c : cases) {
        EXPECT_EQ(pyram_len(c.w, c.h), c.len) << c.w << "x" << c.h;
        EXPECT_EQ(pyram_len2(c.w, c.h), c.len2) << c.w << "x" << c.h;
    }
}

TEST(PyramidReduce, KernelTruncatesEachTerm) {
    // Constant images: 100 stays, 3 drops to 1, 65535 to 65533.
    struct Case {
        uint16_t in, out;
    } cases[] = {{100, 100}, {3, 1}, {65535, 65533}, {0, 0}};
    for (const Case &c : cases) {
        std::vector<uint16_t> fine(5 * 3 * 3, c.in), coarse(3 * 2 * 3, 7);
        ASSERT_EQ(bv_short_downsample(5, 3, 3, 0, fine.data(), coarse.data()), 2);
        for (uint16_t v : coarse) EXPECT_EQ(v, c.out);
        if (c.in > 255) continue;
        std::vector<uint8_t> f8(5 * 3, static_cast<uint8_t>(c.in)), c8(3 * 2, 7);
        ASSERT_EQ(bv_uchar_downsample(5, 3, 1, 1, f8.data(), c8.data()), 2);
        for (uint8_t v : c8) EXPECT_EQ(v, c.out);
    }
}

TEST(PyramidReduce, BordersRepeatOrWrap) {
    // One bright last column; only the wrapped reduction sees it from x = 0.
    // Channel 1 carries the pattern, channels 0 and 2 stay constant.
    const int w = 4, h = 2;
    std::vector<uint16_t> fine(w * h * 3, 80);
    std::vector<uint8_t> f8(w * h, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            fine[(y * w + x) * 3 + 1] = x == 3 ? 160 : 0;
            f8[y * w + x] = x == 3 ? 160 : 0;
        }
    const uint16_t want[2][2] = {{0, 40}, {40, 40}};
    for (int wrap = 0; wrap < 2; ++wrap) {
        std::vector<uint16_t> coarse(2 * 3);
        std::vector<uint8_t> c8(2);
        ASSERT_EQ(bv_short_downsample(w, h, 3, wrap, fine.data(), coarse.data()), 1);
        ASSERT_EQ(bv_uchar_downsample(w, h, 1, wrap, f8.data(), c8.data()), 1);
        for (int j = 0; j < 2; ++j) {
            EXPECT_EQ(coarse[j * 3 + 1], want[wrap][j]) << "wrap " << wrap << " x " << j;
            EXPECT_EQ(coarse[j * 3], 80);
            EXPECT_EQ(coarse[j * 3 + 2], 80);
            EXPECT_EQ(c8[j], want[wrap][j]);
        }
    }
}

TEST(PyramidReduce, ColumnUsesRowsAboveAndBelow) {
    // 1 x 3 column 0, 80, 160: edges and diagonals repeat the column itself.
    const uint16_t fine[3] = {0, 80, 160};
    uint16_t coarse[2] = {};
    ASSERT_EQ(bv_short_downsample(1, 3, 1, 0, fine, coarse), 2);
    EXPECT_EQ(coarse[0], 20);
    EXPECT_EQ(coarse[1], 140);
}

TEST(PyramidReduce, BadArguments) {
    uint16_t a[16] = {}, b[16] = {};
    EXPECT_EQ(bv_short_downsample(4, 4, 2, 0, a, b), -1);
    EXPECT_EQ(bv_short_downsample(4, 4, 4, 0, a, b), -1);
    EXPECT_EQ(bv_short_downsample(4, 4, 1, 0, nullptr, b), -1);
    EXPECT_EQ(bv_short_downsample(4, 0, 1, 0, a, b), 0);
    EXPECT_EQ(bv_uchar_downsample(-1, 4, 1, 0, nullptr, nullptr), -1);
}

TEST(PyramidEnlarge, FixedValues) {
    // Coarse 2 x 2 enlarged onto a zero 4 x 4 level (upsample adds it).
    const uint8_t coarse[4] = {0, 100, 200, 40};
    const uint8_t want[2][16] = {
        {0, 50, 100, 100, 100, 85, 70, 70, 200, 120, 40, 40, 200, 120, 40, 40},
        {0, 50, 100, 50, 100, 85, 70, 85, 200, 120, 40, 120, 200, 120, 40, 120}};
    for (int wrap = 0; wrap < 2; ++wrap) {
        uint8_t fine[16] = {};
        ASSERT_EQ(bv_uchar_upsample(4, 4, 2, 2, 1, wrap, coarse, fine), 4);
        for (int i = 0; i < 16; ++i)
            EXPECT_EQ(fine[i], want[wrap][i]) << "wrap " << wrap << " @" << i;
        // The same in the middle channel of an RGB level, the others flat.
        uint8_t rgb[12], fine3[48] = {};
        for (int i = 0; i < 4; ++i) rgb[3 * i] = rgb[3 * i + 2] = 9, rgb[3 * i + 1] = coarse[i];
        ASSERT_EQ(bv_uchar_upsample(4, 4, 2, 2, 3, wrap, rgb, fine3), 4);
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(fine3[3 * i + 1], want[wrap][i]) << "rgb wrap " << wrap << " @" << i;
            EXPECT_EQ(fine3[3 * i], 9);
            EXPECT_EQ(fine3[3 * i + 2], 9);
        }
    }
    // A one-pixel-wide coarse level enlarges to constant rows.
    const uint8_t column[3] = {10, 20, 30};
    uint8_t rows[10] = {};
    ASSERT_EQ(bv_uchar_upsample(2, 5, 1, 3, 1, 0, column, rows), 5);
    const uint8_t want_rows[5] = {10, 15, 20, 25, 30};
    for (int y = 0; y < 5; ++y) {
        EXPECT_EQ(rows[2 * y], want_rows[y]);
        EXPECT_EQ(rows[2 * y + 1], want_rows[y]);
    }
}

TEST(PyramidEnlarge, SignedCoarseWrapsModulo65536) {
    // (-3 + 0) >> 1 = -2 (rounds down); differences wrap in 16 bits.
    const int16_t coarse[2] = {-3, 0};
    uint16_t fine[4] = {0, 0, 0, 0};
    ASSERT_EQ(bv_short_diff(4, 1, 2, 1, 1, 0, coarse, fine), 1);
    const uint16_t want[4] = {3, 2, 0, 0};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(fine[i], want[i]) << i;
    uint16_t up[4] = {0, 0, 0, 0};
    ASSERT_EQ(bv_short_upsample(4, 1, 2, 1, 1, 0, coarse, up), 1);
    EXPECT_EQ(up[0], 65533);
    EXPECT_EQ(up[1], 65534);
}

template <class C, class F>
void round_trip(int fw, int fh, int channels, int wrap, int seed,
                int (*diff)(int, int, int, int, int, int, const C *, F *),
                int (*upsample)(int, int, int, int, int, int, const C *, F *)) {
    bvtest::Rng rng(seed);
    const int cw = (fw + 1) / 2, ch = (fh + 1) / 2;
    std::vector<F> fine(static_cast<size_t>(fw) * fh * channels);
    std::vector<C> coarse(static_cast<size_t>(cw) * ch * channels);
    for (F &v : fine) v = static_cast<F>(rng.next());
    for (C &v : coarse) v = static_cast<C>(rng.next());
    const std::vector<F> original = fine;
    ASSERT_EQ(diff(fw, fh, cw, ch, channels, wrap, coarse.data(), fine.data()), fh);
    ASSERT_EQ(upsample(fw, fh, cw, ch, channels, wrap, coarse.data(), fine.data()), fh);
    EXPECT_EQ(fine, original) << fw << "x" << fh << " c" << channels << " wrap " << wrap;
}

TEST(PyramidEnlarge, DiffThenUpsampleRestoresTheFineLevel) {
    const int sizes[][2] = {{1, 1}, {5, 3}, {7, 9}, {8, 8}, {2, 5}, {33, 17}};
    int seed = 1;
    for (const auto &s : sizes)
        for (int channels : {1, 3})
            for (int wrap : {0, 1}) {
                round_trip<int16_t, uint16_t>(s[0], s[1], channels, wrap, seed++, bv_short_diff,
                                              bv_short_upsample);
                round_trip<uint8_t, uint8_t>(s[0], s[1], channels, wrap, seed++, bv_uchar_diff,
                                             bv_uchar_upsample);
            }
}

TEST(PyramidEnlarge, BadArgumentsLeaveFineUntouched) {
    uint8_t coarse[16] = {9}, fine[64];
    std::memset(fine, 5, sizeof fine);
    struct Case {
        int fw, fh, cw, ch, channels, rc;
    } cases[] = {
        {4, 4, 2, 2, 2, -1}, {4, 4, 2, 2, 4, -1}, {4, 4, 1, 2, 1, -1},
        {4, 4, 2, 1, 1, -1}, {4, 0, 2, 2, 1, 0},  {-4, 4, 2, 2, 1, -1},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(bv_uchar_diff(c.fw, c.fh, c.cw, c.ch, c.channels, 0, coarse, fine), c.rc);
        EXPECT_EQ(bv_uchar_upsample(c.fw, c.fh, c.cw, c.ch, c.channels, 1, coarse, fine), c.rc);
        uint16_t f16[64] = {};
        EXPECT_EQ(bv_short_diff(c.fw, c.fh, c.cw, c.ch, c.channels, 0,
                                reinterpret_cast<const int16_t *>(coarse), f16),
                  c.rc);
    }
    for (uint8_t v : fine) EXPECT_EQ(v, 5);
    EXPECT_EQ(bv_uchar_diff(4, 4, 2, 2, 1, 0, nullptr, fine), -1);
}

TEST(Downtower, BlursWithNewlineAndIsThreadInvariant) {
    const int w = 23, h = 17, c = 3;
    bvtest::Rng rng(7);
    std::vector<uint8_t> img(w * h * c);
    for (uint8_t &v : img) v = static_cast<uint8_t>(rng.next());
    std::vector<uint8_t> first;
    for (int threads : kThreadCounts) {
        std::vector<uint8_t> out = img;
        testing::internal::CaptureStderr();
        EXPECT_EQ(bv_downtower(3, w, h, c, 8, threads, out.data()), h);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n");
        if (first.empty())
            first = out;
        else
            EXPECT_EQ(out, first) << threads << " threads";
    }
    EXPECT_NE(first, img);
    // A constant image stays constant; an impulse spreads symmetrically.
    std::vector<uint8_t> flat(9 * 9, 77), dot(9 * 9, 0);
    dot[4 * 9 + 4] = 255;
    testing::internal::CaptureStderr();
    bv_downtower(2, 9, 9, 1, 8, 2, flat.data());
    bv_downtower(2, 9, 9, 1, 8, 1, dot.data());
    testing::internal::GetCapturedStderr();
    for (uint8_t v : flat) EXPECT_EQ(v, 77);
    EXPECT_GT(dot[4 * 9 + 4], dot[4 * 9 + 5]);
    EXPECT_EQ(dot[4 * 9 + 3], dot[4 * 9 + 5]);
    EXPECT_EQ(dot[3 * 9 + 4], dot[5 * 9 + 4]);
    EXPECT_EQ(dot[0], 0);
}

TEST(Downtower, Errors) {
    uint8_t img[12] = {1, 2, 3};
    testing::internal::CaptureStderr();
    EXPECT_EQ(bv_downtower(2, 2, 2, 3, 16, 1, img), -2);
    EXPECT_EQ(bv_downtower(2, 2, 2, 3, 8, 1, nullptr), -1);
    EXPECT_EQ(bv_downtower(0, 2, 2, 3, 8, 1, img), 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(img[0], 1);
    {
        bvtest::FailAllocation fail(0);
        testing::internal::CaptureStderr();
        EXPECT_EQ(bv_downtower(2, 2, 2, 3, 8, 1, img), -4);
        testing::internal::GetCapturedStderr();
    }
}

TEST(Downsample, AreaWeights) {
    // Ratio 2: plain box means, rounded to nearest.
    const uint8_t a[8] = {10, 20, 30, 41, 10, 20, 30, 40};
    uint8_t out[2] = {};
    ASSERT_EQ(bv_downsample(4, 2, 2, 1, 1, 8, a, out, 1), 1);
    EXPECT_EQ(out[0], 15);
    EXPECT_EQ(out[1], 35);  // 35.25
    // Ratio 1.5: the middle cell counts half in each output.
    const uint16_t b[3] = {0, 90, 180};
    uint16_t o16[2] = {};
    ASSERT_EQ(bv_downsample(3, 1, 2, 1, 1, 16, b, o16, 1), 1);
    EXPECT_EQ(o16[0], 30);
    EXPECT_EQ(o16[1], 150);
    // Enlarging repeats cells.
    const uint8_t c2[2] = {3, 9};
    uint8_t o4[4] = {};
    ASSERT_EQ(bv_downsample(2, 1, 4, 1, 1, 8, c2, o4, 1), 1);
    const uint8_t want4[4] = {3, 3, 9, 9};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(o4[i], want4[i]);
}

TEST(Downsample, RgbeExponentZeroIsTinyNotBlack) {
    // Row of two pixels, planar R, G, B, E: (128, 64, 0, E 0) and (0, 0, 0, E 137).
    const uint8_t rgbe[8] = {128, 0, 64, 0, 0, 0, 0, 137};
    float out[3] = {-1, -1, -1};
    ASSERT_EQ(bv_downsample(1, 1, 1, 1, 3, 32, rgbe, out, 1), 1);
    // Width 1 reads R 128, G 0, B 64, E 0.
    EXPECT_EQ(out[0], std::ldexp(128.0f, -136));
    EXPECT_EQ(out[1], 0.0f);
    EXPECT_EQ(out[2], std::ldexp(64.0f, -136));
    ASSERT_EQ(bv_downsample(2, 1, 1, 1, 0, 32, rgbe, out, 1), 1);
    EXPECT_EQ(out[0], std::ldexp(128.0f, -137));
    EXPECT_EQ(out[1], std::ldexp(64.0f, -137));
}

TEST(Downsample, ThreadInvariantAndErrors) {
    const int sw = 37, sh = 23, dw = 10, dh = 7;
    bvtest::Rng rng(3);
    std::vector<uint16_t> s16(sw * sh * 3);
    std::vector<uint8_t> rgbe(sw * sh * 4);
    for (uint16_t &v : s16) v = static_cast<uint16_t>(rng.next());
    for (uint8_t &v : rgbe) v = static_cast<uint8_t>(rng.next());
    std::vector<uint16_t> d16_first;
    std::vector<float> df_first;
    for (int threads : kThreadCounts) {
        std::vector<uint16_t> d16(dw * dh * 3);
        std::vector<float> df(dw * dh * 3);
        ASSERT_EQ(bv_downsample(sw, sh, dw, dh, 3, 16, s16.data(), d16.data(), threads), dh);
        ASSERT_EQ(bv_downsample(sw, sh, dw, dh, 3, 32, rgbe.data(), df.data(), threads), dh);
        if (d16_first.empty()) {
            d16_first = d16;
            df_first = df;
        } else {
            EXPECT_EQ(d16, d16_first) << threads;
            EXPECT_EQ(0, std::memcmp(df.data(), df_first.data(), df.size() * 4)) << threads;
        }
    }
    uint8_t x[4] = {};
    EXPECT_EQ(bv_downsample(2, 2, 1, 1, 1, 12, x, x, 1), -2);
    EXPECT_EQ(bv_downsample(2, 2, 1, 1, 1, 8, nullptr, x, 1), -1);
    EXPECT_EQ(bv_downsample(2, 2, 0, 1, 1, 8, x, x, 1), -1);
    bvtest::FailAllocation fail(0);
    EXPECT_EQ(bv_downsample(2, 2, 1, 1, 1, 8, x, x, 1), -4);
}

}  // namespace
