// Pyramid sizing, reduction, enlargement round trips, Gaussian blur and area reduction.
#include "test_support.hpp"

namespace {

template <class T>
std::vector<T> random(size_t n, int seed) {
    bvtest::Rng rng(seed);
    std::vector<T> v(n);
    for (T &x : v) x = static_cast<T>(rng.next());
    return v;
}

// Area reduction of one source to dw x dh.
template <class D, class S>
std::vector<D> area(int sw, int sh, int dw, int dh, int ch, int bits, const std::vector<S> &src,
                    int threads = 1) {
    std::vector<D> out(size_t(dw) * dh * (bits == 32 ? 3 : ch));
    EXPECT_EQ(bv_downsample(sw, sh, dw, dh, ch, bits, src.data(), out.data(), threads), dh);
    return out;
}

TEST(Pyramid, LengthIsExactAndTheBoundWrapsIn32Bits) {
    const int64_t cases[][4] = {
        // width, height, exact length, bound
        {3, 100, 300, 450},  // L = 1: the base only
        {5, 5, 34, 38},      // 25 + 9
        {16, 16, 340, 384},  // 256 + 64 + 16 + 4
        {7, 4, 36, 42},      // L = 2: 28 + 4 x 2
        {1, 1, 1, 2},
        {0, 9, 0, 0},
        {65536, 65536, 5726623060ll, 0},  // the 32-bit product wraps to 0
    };
    for (const auto &c : cases) {
        EXPECT_EQ(pyram_len(int(c[0]), int(c[1])), c[2]) << c[0] << "x" << c[1];
        EXPECT_EQ(pyram_len2(int(c[0]), int(c[1])), uint64_t(c[3])) << c[0] << "x" << c[1];
    }
}

TEST(Pyramid, ReduceTruncatesEachTermAndRepeatsOrWrapsBorders) {
    const struct {
        int w, h, wrap;
        std::vector<uint16_t> in, out;  // one value: a constant image
    } cases[] = {
        {5, 3, 0, {100}, {100}},
        {5, 3, 0, {3}, {1}},
        {5, 3, 0, {65535}, {65533}},
        {5, 3, 0, {0}, {0}},
        // One bright last column: only the wrapped reduction sees it from x = 0.
        {4, 2, 0, {0, 0, 0, 160, 0, 0, 0, 160}, {0, 40}},
        {4, 2, 1, {0, 0, 0, 160, 0, 0, 0, 160}, {40, 40}},
        {1, 3, 0, {0, 80, 160}, {20, 140}},  // edges and diagonals repeat the column
    };
    for (const auto &c : cases) {
        // The case in the middle channel, the others flat 80.
        const size_t n = size_t(c.w) * c.h, m = size_t((c.w + 1) / 2) * ((c.h + 1) / 2);
        std::vector<uint16_t> fine(3 * n, 80), coarse(3 * m, 7);
        for (size_t i = 0; i < n; ++i) fine[3 * i + 1] = c.in[c.in.size() == 1 ? 0 : i];
        ASSERT_EQ(bv_short_downsample(c.w, c.h, 3, c.wrap, fine.data(), coarse.data()),
                  (c.h + 1) / 2);
        for (size_t i = 0; i < m; ++i) {
            EXPECT_EQ(coarse[3 * i + 1], c.out[c.out.size() == 1 ? 0 : i])
                << c.w << "x" << c.h << " wrap " << c.wrap << " @" << i;
            EXPECT_TRUE(coarse[3 * i] == 80 && coarse[3 * i + 2] == 80) << i;
        }
    }
    const uint8_t f8[8] = {0, 0, 0, 160, 0, 0, 0, 160};
    uint8_t c8[2] = {};
    ASSERT_EQ(bv_uchar_downsample(4, 2, 1, 1, f8, c8), 1);
    EXPECT_TRUE(c8[0] == 40 && c8[1] == 40);
}

TEST(Pyramid, EnlargeFixedValues) {
    // Coarse 2 x 2 enlarged onto a zero 4 x 4 level (upsample adds it), alone
    // and as the middle channel of RGB with the others flat.
    const uint8_t coarse[4] = {0, 100, 200, 40};
    const uint8_t want[2][16] = {
        {0, 50, 100, 100, 100, 85, 70, 70, 200, 120, 40, 40, 200, 120, 40, 40},
        {0, 50, 100, 50, 100, 85, 70, 85, 200, 120, 40, 120, 200, 120, 40, 120}};
    for (int wrap = 0; wrap < 2; ++wrap) {
        uint8_t fine[16] = {}, rgb[12], fine3[48] = {};
        for (int i = 0; i < 4; ++i) rgb[3 * i] = rgb[3 * i + 2] = 9, rgb[3 * i + 1] = coarse[i];
        ASSERT_EQ(bv_uchar_upsample(4, 4, 2, 2, 1, wrap, coarse, fine), 4);
        ASSERT_EQ(bv_uchar_upsample(4, 4, 2, 2, 3, wrap, rgb, fine3), 4);
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(fine[i], want[wrap][i]) << "wrap " << wrap << " @" << i;
            EXPECT_EQ(fine3[3 * i + 1], want[wrap][i]) << "rgb wrap " << wrap << " @" << i;
            EXPECT_TRUE(fine3[3 * i] == 9 && fine3[3 * i + 2] == 9) << i;
        }
    }
    // A one-pixel-wide coarse level enlarges to constant rows.
    const uint8_t column[3] = {10, 20, 30}, want_rows[5] = {10, 15, 20, 25, 30};
    uint8_t rows[10] = {};
    ASSERT_EQ(bv_uchar_upsample(2, 5, 1, 3, 1, 0, column, rows), 5);
    for (int y = 0; y < 10; ++y) EXPECT_EQ(rows[y], want_rows[y / 2]);
    // Signed coarse values: (-3 + 0) >> 1 = -2 (rounds down); differences wrap in 16 bits.
    const int16_t sc[2] = {-3, 0};
    uint16_t diff[4] = {}, up[4] = {};
    ASSERT_EQ(bv_short_diff(4, 1, 2, 1, 1, 0, sc, diff), 1);
    ASSERT_EQ(bv_short_upsample(4, 1, 2, 1, 1, 0, sc, up), 1);
    EXPECT_EQ(std::vector<uint16_t>(diff, diff + 4), (std::vector<uint16_t>{3, 2, 0, 0}));
    EXPECT_EQ(std::vector<uint16_t>(up, up + 2), (std::vector<uint16_t>{65533, 65534}));
}

// Differences against a random coarse level, then enlarging it back, restore
// a random fine level exactly (16-bit differences wrap).
TEST(Pyramid, DiffThenUpsampleRestoresTheFineLevel) {
    const auto round_trip = [](auto coarse_type, auto fine_type, auto diff, auto up, int fw, int fh,
                               int channels, int wrap, int seed) {
        const int cw = (fw + 1) / 2, ch = (fh + 1) / 2;
        const auto coarse = random<decltype(coarse_type)>(size_t(cw) * ch * channels, seed);
        const auto original = random<decltype(fine_type)>(size_t(fw) * fh * channels, seed + 1);
        auto fine = original;
        EXPECT_EQ(diff(fw, fh, cw, ch, channels, wrap, coarse.data(), fine.data()), fh);
        EXPECT_EQ(up(fw, fh, cw, ch, channels, wrap, coarse.data(), fine.data()), fh);
        EXPECT_EQ(fine, original) << fw << "x" << fh << " c" << channels << " wrap " << wrap;
    };
    int seed = 1;
    for (const auto &s : {std::make_pair(1, 1), {5, 3}, {7, 9}, {8, 8}, {2, 5}, {33, 17}})
        for (int channels : {1, 3})
            for (int wrap : {0, 1}) {
                round_trip(int16_t(), uint16_t(), bv_short_diff, bv_short_upsample, s.first,
                           s.second, channels, wrap, seed += 2);
                round_trip(uint8_t(), uint8_t(), bv_uchar_diff, bv_uchar_upsample, s.first,
                           s.second, channels, wrap, seed += 2);
            }
}

TEST(Pyramid, BadArgumentsLeaveTheOutputUntouched) {
    uint8_t coarse[16] = {9}, fine[64];
    uint16_t a[16] = {}, b[16] = {}, f16[64] = {};
    std::memset(fine, 5, sizeof fine);
    // fine width, height, coarse width, height, channels, code
    const int cases[][6] = {{4, 4, 2, 2, 2, -1}, {4, 4, 2, 2, 4, -1}, {4, 4, 1, 2, 1, -1},
                            {4, 4, 2, 1, 1, -1}, {4, 0, 2, 2, 1, 0},  {-4, 4, 2, 2, 1, -1}};
    for (const auto &c : cases)
        EXPECT_EQ(bv_uchar_diff(c[0], c[1], c[2], c[3], c[4], 0, coarse, fine), c[5])
            << c[0] << c[2];
    EXPECT_EQ(bv_uchar_upsample(4, 4, 2, 1, 1, 1, coarse, fine), -1);
    EXPECT_EQ(bv_short_diff(4, 4, 2, 2, 2, 0, nullptr, f16), -1);
    EXPECT_EQ(bv_short_upsample(-4, 4, 2, 2, 1, 0, nullptr, f16), -1);
    EXPECT_EQ(std::vector<uint8_t>(fine, fine + 64), std::vector<uint8_t>(64, 5));
    EXPECT_EQ(bv_uchar_diff(4, 4, 2, 2, 1, 0, nullptr, fine), -1);
    for (int channels : {2, 4}) EXPECT_EQ(bv_short_downsample(4, 4, channels, 0, a, b), -1);
    EXPECT_EQ(bv_short_downsample(4, 4, 1, 0, nullptr, b), -1);
    EXPECT_EQ(bv_short_downsample(4, 0, 1, 0, a, b), 0);
    EXPECT_EQ(bv_uchar_downsample(-1, 4, 1, 0, nullptr, nullptr), -1);
}

// Blur of a copy of img with 1, 2, 3 and 7 threads: the same result, the
// height returned and one newline on standard error.
std::vector<uint8_t> blurred(int levels, int w, int h, int ch, const std::vector<uint8_t> &img) {
    return bvtest::expect_thread_invariant([&](int t) {
        std::vector<uint8_t> out = img;
        testing::internal::CaptureStderr();
        EXPECT_EQ(bv_downtower(levels, w, h, ch, 8, t, out.data()), h);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n");
        return out;
    });
}

TEST(Pyramid, BlurIsThreadInvariantSpreadsSymmetricallyAndChecksArguments) {
    const auto img = random<uint8_t>(23 * 17 * 3, 7);
    EXPECT_NE(blurred(3, 23, 17, 3, img), img);
    // A constant image stays constant; an impulse spreads symmetrically.
    const std::vector<uint8_t> flat(81, 77);
    std::vector<uint8_t> dot(81, 0);
    dot[4 * 9 + 4] = 255;
    EXPECT_EQ(blurred(2, 9, 9, 1, flat), flat);
    dot = blurred(2, 9, 9, 1, dot);
    EXPECT_GT(dot[4 * 9 + 4], dot[4 * 9 + 5]);
    EXPECT_EQ(dot[4 * 9 + 3], dot[4 * 9 + 5]);
    EXPECT_EQ(dot[3 * 9 + 4], dot[5 * 9 + 4]);
    EXPECT_EQ(dot[0], 0);
    // Errors print nothing and leave the image alone.
    uint8_t small[12] = {1, 2, 3};
    testing::internal::CaptureStderr();
    EXPECT_EQ(bv_downtower(2, 2, 2, 3, 16, 1, small), -2);
    EXPECT_EQ(bv_downtower(2, 2, 2, 3, 8, 1, nullptr), -1);
    EXPECT_EQ(bv_downtower(0, 2, 2, 3, 8, 1, small), 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(small[0], 1);
    bvtest::FailAllocation fail(0);
    EXPECT_EQ(bv_downtower(2, 2, 2, 3, 8, 1, small), -4);
}

TEST(Pyramid, AreaReductionWeightsCells) {
    // Ratio 2: box means rounded to nearest (35.25 -> 35); ratio 1.5: the
    // middle cell counts half in each output; enlarging repeats cells.
    EXPECT_EQ((area<uint8_t, uint8_t>(4, 2, 2, 1, 1, 8, {10, 20, 30, 41, 10, 20, 30, 40})),
              (std::vector<uint8_t>{15, 35}));
    EXPECT_EQ((area<uint16_t, uint16_t>(3, 1, 2, 1, 1, 16, {0, 90, 180})),
              (std::vector<uint16_t>{30, 150}));
    EXPECT_EQ((area<uint8_t, uint8_t>(2, 1, 4, 1, 1, 8, {3, 9})),
              (std::vector<uint8_t>{3, 3, 9, 9}));
    // RGBE, planar R, G, B, E per row: exponent 0 is the tiny 2^-136, not black.
    const std::vector<uint8_t> rgbe = {128, 0, 64, 0, 0, 0, 0, 137};  // width 1: R 128, G 0, B 64
    EXPECT_EQ((area<float>(1, 1, 1, 1, 3, 32, rgbe)),
              (std::vector<float>{std::ldexp(128.0f, -136), 0.0f, std::ldexp(64.0f, -136)}));
    EXPECT_EQ((area<float>(2, 1, 1, 1, 0, 32, rgbe)),
              (std::vector<float>{std::ldexp(128.0f, -137), std::ldexp(64.0f, -137), 0.0f}));
}

TEST(Pyramid, AreaReductionIsThreadInvariantAndChecksArguments) {
    const auto s16 = random<uint16_t>(37 * 23 * 3, 3);
    const auto rgbe = random<uint8_t>(37 * 23 * 4, 4);
    bvtest::expect_thread_invariant([&](int t) {
        return std::make_pair(area<uint16_t>(37, 23, 10, 7, 3, 16, s16, t),
                              bvtest::digest(area<float>(37, 23, 10, 7, 3, 32, rgbe, t)));
    });
    uint8_t x[4] = {};
    EXPECT_EQ(bv_downsample(2, 2, 1, 1, 1, 12, x, x, 1), -2);
    EXPECT_EQ(bv_downsample(2, 2, 1, 1, 1, 8, nullptr, x, 1), -1);
    EXPECT_EQ(bv_downsample(2, 2, 0, 1, 1, 8, x, x, 1), -1);
    bvtest::FailAllocation fail(0);
    EXPECT_EQ(bv_downsample(2, 2, 1, 1, 1, 8, x, x, 1), -4);
}

}  // namespace
