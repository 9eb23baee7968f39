// RGBE pixels, bracket conversion, float output, half floats, log-luminance statistics.

#include "core/rgbe/rgbe_pixel.hpp"
#include "test_support.hpp"

namespace {

using Px = std::array<uint8_t, 4>;

Px encode(float r, float g, float b, double threshold = 0.0) {
    Px e;
    bv::rgbe::encode(r, g, b, threshold, e.data());
    return e;
}

TEST(RgbePixel, TableAndFixedValues) {
    float t[256];
    EXPECT_EQ(exp_lut_old(t), 256);
    // 2^(e - 136), also for e = 0 (the subnormal with bit pattern 0x2000).
    for (int e = 0; e < 256; ++e) ASSERT_EQ(t[e], float(std::ldexp(1.0, e - 136))) << e;
    EXPECT_EQ(exp_lut_old(nullptr), BV_RGBE_ERR_ARG);
    // Pixel 1 of a planar 3-wide row decodes to (1, 0.5, 0.25); E = 0 is black whatever else.
    const uint8_t row[12] = {0, 128, 0, 0, 64, 0, 0, 32, 0, 0, 129, 0},
                  black[4] = {255, 255, 255, 0};
    float out[3];
    EXPECT_EQ(rgbe2float(row, t, 3, 6, 9, 1, out), 129);
    EXPECT_EQ(std::vector<float>(out, out + 3), std::vector<float>({1.0f, 0.5f, 0.25f}));
    EXPECT_EQ(rgbe2float(black, t, 1, 2, 3, 0, out), 0);
    EXPECT_EQ(std::vector<float>(out, out + 3), std::vector<float>(3, 0.0f));
    EXPECT_EQ(rgbe2float(nullptr, t, 1, 2, 3, 0, out), BV_RGBE_ERR_ARG);
    const std::tuple<float, float, float, double, Px> cases[] = {
        {1.0f, 0.5f, 0.25f, 0, {128, 64, 32, 129}},
        {0.999f, 0.999f, 0.999f, 0, {255, 255, 255, 128}},  // truncation: 255.74 -> 255
        {1.0f, 0.0039f, 0.0f, 0, {128, 0, 0, 129}},         // 0.4992 -> 0
        {1e-33f, 0.0f, 0.0f, 1e-32, {0, 0, 0, 0}},          // at or below the threshold
        // Bad input never yields wrapped or undefined mantissas.
        {1.0f, -0.5f, NAN, 0, {128, 0, 0, 129}},
        {INFINITY, 1.0f, 0.0f, 0, {255, 0, 0, 255}},
    };
    for (auto [r, g, b, threshold, want] : cases) EXPECT_EQ(encode(r, g, b, threshold), want) << r;
}

TEST(RgbePixel, DecodeEncodeRoundTripsEveryNormalisedPixel) {
    // Every exponent and leading mantissa 128..255 (subnormal values included) comes back.
    bvtest::Rng rng(7);
    for (int e = 1; e < 256; ++e)
        for (int m = 128; m < 256; ++m) {
            const Px p = {uint8_t(m), uint8_t(std::min<uint32_t>(rng.next() & 255, m)),
                          uint8_t(m - rng.next() % (m + 1)), uint8_t(e)};
            float v[3];
            bv::rgbe::decode(p[0], p[1], p[2], p[3], bvtest::exp_table(), v);
            ASSERT_EQ(encode(v[0], v[1], v[2]), p);
        }
}

std::vector<float> linear_table(int n) {
    std::vector<float> t(n);
    for (int i = 0; i < n; ++i) t[i] = float(i) / (n - 1);
    return t;
}

TEST(ConvertToRgbe, DarkAndSaturatedPixelsBecomeExtremeGreys) {
    const std::vector<float> t = linear_table(256);
    // (5,5,5) has luma 1280 and is kept, (4,5,5) is dark, (255,255,255) saturated; 4 samples,
    // BGR flag: R last, G at 1, B at 0, sample 2 never read.
    const uint8_t src[16] = {5, 5, 0xEE, 5, 5, 5, 0xEE, 4, 255, 255, 0xEE, 255, 50, 100, 0xEE, 200};
    bvtest::Planar out(4, 1);
    EXPECT_EQ(convert_to_rgbe(8, 4, 1, 4, 16, 1, t.data(), src, out.px.data()), 1);
    // Dark and saturated pixels become greys of the darkest and brightest kept luminance.
    EXPECT_EQ(out.px, (bvtest::Bytes{160, 160, 250, 200, 160, 160, 250, 100,  //
                                     160, 160, 250, 50, 123, 123, 127, 128}));
}

TEST(ConvertToRgbe, SixteenBitQuirkDepthsAndArguments) {
    const std::vector<float> t = linear_table(65536);
    // 54 * 10 + 183 * 4 = 1272: kept only when the raw blue sample (not its high byte) is > 8.
    const uint16_t src[9] = {2560, 1024, 9, 2560, 1024, 8, 2560, 1024, 256};
    bvtest::Planar out(3, 1), white(1, 1), dark(3, 2, 0x55);
    EXPECT_EQ(convert_to_rgbe(16, 3, 1, 3, 9, 0, t.data(), src, out.px.data()), 1);
    // The dark one is painted with the smaller luminance of the other two.
    EXPECT_EQ(out.px, (bvtest::Bytes{160, 172, 160, 64, 172, 64, 0, 172, 16, 124, 123, 124}));
    // 16-bit data has no saturated mark: full scale is encoded as is.
    const uint16_t full[3] = {65535, 65535, 65535};
    EXPECT_EQ(convert_to_rgbe(16, 1, 1, 3, 3, 0, t.data(), full, white.px.data()), 1);
    EXPECT_EQ(white.get(0, 0), (Px{128, 128, 128, 129}));
    // Any other depth: every pixel dark, nothing to paint from, all black.
    EXPECT_EQ(convert_to_rgbe(12, 3, 2, 3, 9, 0, t.data(), src, dark.px.data()), 2);
    EXPECT_EQ(dark.px, bvtest::Bytes(24, 0));
    EXPECT_EQ(convert_to_rgbe(8, 3, 0, 3, 9, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(convert_to_rgbe(8, 3, 1, 3, 9, 0, nullptr, src, out.px.data()), BV_RGBE_ERR_ARG);
    EXPECT_EQ(convert_to_rgbe(8, 3, 1, 0, 9, 0, t.data(), src, out.px.data()), BV_RGBE_ERR_ARG);
}

TEST(RgbeToFloat, PlainHalfStrideAndNormalised) {
    const bvtest::Planar img = bvtest::random_planar(7, 5, 3);
    const int stride = 7 * 3 + 2;
    std::vector<float> out(size_t(stride) * 5, -1.0f), n1(7 * 3 * 5), n2(n1.size());
    std::vector<uint16_t> half(size_t(stride) * 5, 0xBEEF);
    EXPECT_EQ(rgbe2fp(7, 5, stride, 0, 0, img.px.data(), out.data(), 123.0f), 5);  // scale ignored
    EXPECT_EQ(rgbe2fp(7, 5, stride, 0, 1, img.px.data(), half.data(), 1.0f), 5);
    const std::vector<float> want = img.values();
    for (size_t i = 0; i < out.size(); ++i) {
        const bool pad = i % stride >= 21;
        ASSERT_EQ(out[i], pad ? -1.0f : want[i / stride * 21 + i % stride]) << i;
        ASSERT_EQ(half[i], pad ? 0xBEEF : floatToHalf(out[i])) << i;
    }
    // Normalised values are pinned; they scale with the scale argument.
    EXPECT_EQ(rgbe2fp(7, 5, 0, 1, 0, img.px.data(), n1.data(), 1.0f), 5);
    EXPECT_EQ(rgbe2fp(7, 5, 0, 1, 0, img.px.data(), n2.data(), 2.0f), 5);
    for (size_t i = 0; i < n1.size(); ++i) ASSERT_NEAR(n2[i], 2.0f * n1[i], 1e-5f * n2[i] + 1e-30f);
    EXPECT_EQ(bvtest::digest(n1), 16093979239304574986u);
    // A flat image has no range: normalisation switches off.
    bvtest::Planar flat(2, 2, 128);
    for (int i = 0; i < 4; ++i) *flat.at(i % 2, i / 2, 3) = 130;
    std::vector<float> f(12);
    EXPECT_EQ(rgbe2fp(2, 2, 0, 1, 0, flat.px.data(), f.data(), 5.0f), 2);
    EXPECT_EQ(f[0], 2.0f);
    EXPECT_EQ(rgbe2fp(7, 0, 0, 0, 0, nullptr, nullptr, 1.0f), 0);
    EXPECT_EQ(rgbe2fp(7, 1, 20, 0, 0, img.px.data(), out.data(), 1.0f), BV_RGBE_ERR_ARG);
    EXPECT_EQ(rgbe2fp(7, 1, 0, 0, 0, nullptr, out.data(), 1.0f), BV_RGBE_ERR_ARG);
    bvtest::FailAllocation fail(0);  // statistics sample buffer
    EXPECT_EQ(rgbe2fp(7, 5, 0, 1, 0, img.px.data(), n1.data(), 1.0f), BV_RGBE_ERR_NOMEM);
}

TEST(HalfFloat, RoundsToNearestEvenEverywhere) {
    // Half bit patterns decoded from their definition.
    auto to_float = [](uint32_t h) {
        const int e = (h >> 10) & 31, m = h & 1023;
        return float(e == 0 ? std::ldexp(m, -24) : std::ldexp(1024 + m, e - 25));
    };
    for (uint32_t h = 0; h < 0x7c00; ++h) {
        const float f = to_float(h);
        ASSERT_EQ(floatToHalf(f), h);
        ASSERT_EQ(floatToHalf(-f), h | 0x8000);
        // Ties go to the even pattern, a hair either side to the nearer one.
        const float next = h + 1 < 0x7c00 ? to_float(h + 1) : 65536.0f;
        const float mid = float((double(f) + next) / 2);
        ASSERT_EQ(floatToHalf(mid), (h & 1) ? h + 1 : h) << h;
        ASSERT_EQ(floatToHalf(std::nextafter(mid, 0.0f)), h) << h;
        ASSERT_EQ(floatToHalf(std::nextafter(mid, INFINITY)), h + 1) << h;
    }
    for (auto [f, h] : {std::pair{1e10f, uint16_t(0x7c00)}, {-INFINITY, 0xfc00}, {1e-10f, 0}})
        EXPECT_EQ(floatToHalf(f), h) << f;
    // NaNs stay NaNs, also one whose payload lives only in the low bits.
    for (uint32_t bits : {0x7fc00000u, 0x7f800001u}) {
        float nan;
        std::memcpy(&nan, &bits, 4);
        EXPECT_GT(floatToHalf(nan) & 0x7fffu, 0x7c00u) << "all-ones exponent, non-zero mantissa";
    }
}

TEST(LogHistogram, BinsClampsAndPercentiles) {
    std::vector<int32_t> hist(5, 7);
    const float v[6] = {-1.0f, 0.0f, 0.49f, 0.5f, 1.0f, 3.0f};
    EXPECT_EQ(log_histo(6, 5, v, hist.data(), 1.0f, 1.0f), -1);
    EXPECT_EQ(hist, std::vector<int32_t>(5, 7)) << "empty range leaves it untouched";
    EXPECT_EQ(log_histo(0, 5, nullptr, hist.data(), 0.0f, 1.0f), 1);
    std::fill(hist.begin(), hist.end(), 0);
    // Bins of (v - 0) * 4 / 1: -4 -> 0, 0, 1.96 -> 1, 2, 4, 12 -> 4; twice, not cleared between.
    EXPECT_EQ(log_histo(6, 5, v, hist.data(), 0.0f, 1.0f), 1);
    EXPECT_EQ(log_histo(6, 5, v, hist.data(), 0.0f, 1.0f), 1);
    EXPECT_EQ(hist, (std::vector<int32_t>{4, 2, 2, 0, 4}));
    // Percentiles: the first bin whose running count exceeds the target.
    const std::tuple<int, int, float, int> cases[] = {{12, 5, 0.3f, 0},  {12, 5, 0.34f, 1},
        {12, 5, 0.5f, 2}, {12, 5, 0.75f, 4}, {24, 5, 0.6f, 5}, {12, 0, 0.5f, 0}, {12, 5, -1.0f, 0}};
    for (auto [n, bins, p, bin] : cases) EXPECT_EQ(percentile(n, bins, hist.data(), p), bin) << p;
}

// The six statistics: min, max, mean, median, p99.5 and p33.3 of ln luminance.
std::vector<float> stats_of(int w, int h, const float *t, const void *px, float bits,
                            float spp = 0) {
    LogLumStats st{{bits, spp}};
    EXPECT_EQ(logMinMaxMoy(w, h, t, px, &st), h);
    return std::vector<float>(st.v, st.v + 6);
}

TEST(LogLumStats, FixedCasesFloatInputAndFallbacks) {
    const float *t = bvtest::exp_table();
    // A flat image, ln(128 x 2^1): min = max, so no histogram; median = mean, p99.5 = max.
    bvtest::Planar flat(3, 2, 128);
    for (int i = 0; i < 6; ++i) *flat.at(i % 3, i / 3, 3) = 137;
    EXPECT_EQ(stats_of(3, 2, t, flat.px.data(), 8), std::vector<float>(6, 5.54517746f));
    // One float sample per pixel: e^0..e^9 and a skipped black pixel; sample i sits in bin
    // trunc(i * 65535 / 9), so the median is bin 36408 mapped back through (max - min) / 65536.
    std::vector<float> grey(11, 0.0f);
    for (int i = 0; i < 10; ++i) grey[i] = float(std::exp(i));
    const std::vector<float> g = stats_of(11, 1, nullptr, grey.data(), 32, 1);
    EXPECT_EQ(g, std::vector<float>({0, 9, 4.5f, 4.99987793f, 8.99986267f, 2.99995422f}));
    // Rows follow each other: the same ten values on two rows of five.
    const std::vector<float> g2 = stats_of(5, 2, nullptr, grey.data(), 32, 1);
    EXPECT_EQ(std::vector<float>(g2.begin(), g2.begin() + 3), std::vector<float>(g.begin(), g.begin() + 3));
    // Three samples per pixel weigh 0.2125 / 0.7154 / 0.0721: ln 1.9317.
    const float rgb[3] = {1.0f, 2.0f, 4.0f};
    EXPECT_EQ(stats_of(1, 1, nullptr, rgb, 32, 3)[0], 0.658400416f);
    const float two_rows[6] = {1.0f, 2.0f, 4.0f, 2.0f, 4.0f, 8.0f};  // the second twice as bright
    const std::vector<float> r2 = stats_of(1, 2, nullptr, two_rows, 32, 3);
    EXPECT_NEAR(r2[1] - r2[0], std::log(2.0f), 1e-6f);
    // No rows: min 1e11, max = mean = 0.
    LogLumStats none{};
    EXPECT_EQ(logMinMaxMoy(5, 0, t, flat.px.data(), &none), 0);
    EXPECT_EQ(std::vector<float>(none.v, none.v + 3), std::vector<float>({1e11f, 0, 0}));
    LogLumStats f;
    for (long nth : {0L, 1L}) {  // without the sample buffer -4, without the histogram fallbacks
        f = LogLumStats{{32, 1}};
        bvtest::FailAllocation fail(nth);
        EXPECT_EQ(logMinMaxMoy(11, 1, nullptr, grey.data(), &f), nth ? 1 : BV_RGBE_ERR_NOMEM);
    }
    EXPECT_EQ(std::vector<float>({f.v[3], f.v[4]}), std::vector<float>({f.v[2], f.v[1]}));
    EXPECT_EQ(logMinMaxMoy(2, 2, t, nullptr, &f), BV_RGBE_ERR_ARG);
    EXPECT_EQ(logMinMaxMoy(2, 2, t, flat.px.data(), nullptr), BV_RGBE_ERR_ARG);
}

TEST(LogLumStats, SamplesAreStridedOverLargeImages) {
    // Every third of 90000 pixels is sampled; luminance grows with x, whatever the phase.
    bvtest::Planar img(300, 300);
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 300; ++x) img.set(x, y, {uint8_t(1 + x * 254 / 299), 0, 0, 136});
    const std::vector<float> st = stats_of(300, 300, bvtest::exp_table(), img.px.data(), 8);
    EXPECT_FLOAT_EQ(st[0], -1.5488133f);  // ln(0.2125 x 1)
    EXPECT_FLOAT_EQ(st[1], 3.9924502f);  // ln(0.2125 x 255)
    EXPECT_NEAR(std::exp(st[3]) / 0.2125, 128.0, 2.0);
    EXPECT_NEAR(std::exp(st[5]) / 0.2125, 85.0, 2.0);
}

}  // namespace
