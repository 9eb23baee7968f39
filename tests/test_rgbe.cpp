// RGBE decoding and encoding, bracket conversion, float TIFF in and out,
// log-luminance statistics, histogram and half floats.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/rgbe/rgbe_pixel.hpp"
#include "test_support.hpp"

namespace {

uint32_t bits_of(float f) {
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

float float_of(uint32_t b) {
    float f;
    std::memcpy(&f, &b, 4);
    return f;
}

// Planar RGBE image built pixel by pixel.
struct Rgbe {
    int w, h;
    std::vector<uint8_t> px;
    Rgbe(int w_, int h_) : w(w_), h(h_), px(static_cast<size_t>(w_) * h_ * 4, 0) {}
    void set(int x, int y, uint8_t r, uint8_t g, uint8_t b, uint8_t e) {
        uint8_t *row = px.data() + static_cast<size_t>(y) * 4 * w;
        row[x] = r;
        row[x + w] = g;
        row[x + 2 * w] = b;
        row[x + 3 * w] = e;
    }
    void get(int x, int y, uint8_t out[4]) const {
        const uint8_t *row = px.data() + static_cast<size_t>(y) * 4 * w;
        for (int c = 0; c < 4; ++c) out[c] = row[x + c * w];
    }
};

Rgbe random_image(int w, int h, uint64_t seed) {
    Rgbe img(w, h);
    bvtest::Rng rng(seed);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t e =
                (rng.next() % 10 == 0) ? 0 : static_cast<uint8_t>(120 + rng.next() % 30);
            img.set(x, y, static_cast<uint8_t>(128 + rng.next() % 128), rng.next() & 255,
                    rng.next() & 255, e);
        }
    return img;
}

TEST(RgbePixel, TableAndFixedValues) {
    float t[256];
    EXPECT_EQ(exp_lut_old(t), 256);
    EXPECT_EQ(bits_of(t[0]), 0x00002000u);
    for (int e = 1; e < 256; ++e) ASSERT_EQ(t[e], static_cast<float>(std::ldexp(1.0, e - 136)));
    EXPECT_EQ(t[136], 1.0f);
    EXPECT_EQ(exp_lut_old(nullptr), BV_RGBE_ERR_ARG);

    // (128, 64, 32, E = 129) decodes to (1, 0.5, 0.25), from a planar row
    // with the pixel at index 1 of a 3-wide row.
    const uint8_t row[12] = {0, 128, 0, 0, 64, 0, 0, 32, 0, 0, 129, 0};
    float out[3];
    EXPECT_EQ(rgbe2float(row, t, 3, 6, 9, 1, out), 129);
    EXPECT_EQ(out[0], 1.0f);
    EXPECT_EQ(out[1], 0.5f);
    EXPECT_EQ(out[2], 0.25f);
    // E = 0 is black whatever the mantissas.
    const uint8_t black[4] = {255, 255, 255, 0};
    EXPECT_EQ(rgbe2float(black, t, 1, 2, 3, 0, out), 0);
    EXPECT_EQ(out[0] + out[1] + out[2], 0.0f);
    EXPECT_EQ(rgbe2float(nullptr, t, 1, 2, 3, 0, out), BV_RGBE_ERR_ARG);

    uint8_t enc[4];
    bv::rgbe::encode(1.0f, 0.5f, 0.25f, 0.0, enc);
    EXPECT_EQ(std::vector<uint8_t>(enc, enc + 4), (std::vector<uint8_t>{128, 64, 32, 129}));
    bv::rgbe::encode(1.0f, 1.0f, 1.0f, 0.0, enc);
    EXPECT_EQ(std::vector<uint8_t>(enc, enc + 4), (std::vector<uint8_t>{128, 128, 128, 129}));
    bv::rgbe::encode(0.999f, 0.999f, 0.999f, 0.0, enc);
    EXPECT_EQ(std::vector<uint8_t>(enc, enc + 4), (std::vector<uint8_t>{255, 255, 255, 128}));
    // Truncation, not rounding: 0.999 * 256 = 255.74.
    bv::rgbe::encode(1.0f, 0.0039f, 0.0f, 0.0, enc);  // 0.0039 * 128 = 0.4992 -> 0
    EXPECT_EQ(enc[1], 0);
    // At or below the threshold: all zero.
    bv::rgbe::encode(1e-33f, 0.0f, 0.0f, 1e-32, enc);
    EXPECT_EQ(enc[3], 0);
    // Bad input never yields wrapped or undefined mantissas.
    bv::rgbe::encode(1.0f, -0.5f, std::nanf(""), 0.0, enc);
    EXPECT_EQ(std::vector<uint8_t>(enc, enc + 4), (std::vector<uint8_t>{128, 0, 0, 129}));
    bv::rgbe::encode(INFINITY, 1.0f, 0.0f, 0.0, enc);
    EXPECT_EQ(enc[0], 255);
    EXPECT_EQ(enc[3], 255);
}

TEST(RgbePixel, DecodeEncodeRoundTripsEveryNormalisedPixel) {
    // For every exponent and every leading mantissa 128..255 (the form the
    // encoder produces), encoding the decoded value gives the pixel back,
    // including exponents whose values are subnormal floats.
    float t[256];
    exp_lut_old(t);
    bvtest::Rng rng(7);
    for (int e = 1; e < 256; ++e)
        for (int m = 128; m < 256; ++m) {
            const uint8_t g = rng.next() & 255,
                          b = static_cast<uint8_t>(m - (rng.next() % (m + 1)));
            float v[3];
            bv::rgbe::decode(static_cast<uint8_t>(m), g > m ? m : g, b, static_cast<uint8_t>(e), t,
                             v);
            uint8_t enc[4];
            bv::rgbe::encode(v[0], v[1], v[2], 0.0, enc);
            ASSERT_EQ(enc[0], m);
            ASSERT_EQ(enc[1], g > m ? m : g);
            ASSERT_EQ(enc[2], b);
            ASSERT_EQ(enc[3], e);
        }
    // Float -> RGBE -> float loses less than one mantissa step of the largest
    // channel and never rounds up.
    for (int i = 0; i < 20000; ++i) {
        const float v[3] = {
            static_cast<float>(std::ldexp(rng.uniform(), static_cast<int>(rng.next() % 40) - 20)),
            static_cast<float>(rng.uniform()), static_cast<float>(rng.uniform() * 3)};
        uint8_t enc[4];
        bv::rgbe::encode(v[0], v[1], v[2], 0.0, enc);
        float d[3];
        bv::rgbe::decode(enc[0], enc[1], enc[2], enc[3], t, d);
        const float m = std::max(v[0], std::max(v[1], v[2]));
        for (int c = 0; c < 3; ++c) {
            ASSERT_LE(d[c], v[c]);
            ASSERT_LT(v[c] - d[c], m / 128.0f);
        }
    }
}

// Response table for 8-bit brackets: linear in the sample value.
std::vector<float> linear_table(int n) {
    std::vector<float> t(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) t[i] = static_cast<float>(i) / (n - 1);
    return t;
}

std::vector<uint8_t> grey_of(float y) {
    // The rule for the painted pixels: frexp of the luminance, truncated.
    int e;
    const double f = std::frexp(static_cast<double>(y), &e);
    const uint8_t m = static_cast<uint8_t>(f * 256);
    return {m, m, m, static_cast<uint8_t>(e + 128)};
}

TEST(ConvertToRgbe, DarkAndSaturatedPixelsBecomeExtremeGreys) {
    const std::vector<float> t = linear_table(256);
    // Pixels: (5,5,5) w = 1280 is kept; (4,5,5) is dark; (255,255,255) is
    // saturated; (200,100,50) is ordinary. Stored B, G, R with 4 samples to
    // exercise the BGR flag and the pixel step (B at sample 3, G at 1).
    const uint8_t rgb[4][3] = {{5, 5, 5}, {4, 5, 5}, {255, 255, 255}, {200, 100, 50}};
    std::vector<uint8_t> src(16, 0);
    for (int i = 0; i < 4; ++i) {
        src[i * 4 + 3] = rgb[i][0];  // R at the last sample (swapped by bgr)
        src[i * 4 + 1] = rgb[i][1];
        src[i * 4 + 0] = rgb[i][2];
        src[i * 4 + 2] = 0xEE;  // never read
    }
    Rgbe out(4, 1);
    EXPECT_EQ(convert_to_rgbe(8, 4, 1, 4, 16, 1, t.data(), src.data(), out.px.data()), 1);

    auto lum = [&](const uint8_t *p) {
        return static_cast<float>(0.3 * t[p[0]] + 0.6 * t[p[1]] + 0.1 * t[p[2]]);
    };
    const float y_min = lum(rgb[0]), y_max = lum(rgb[3]);
    uint8_t p[4];
    out.get(0, 0, p);
    uint8_t want[4];
    bv::rgbe::encode(t[5], t[5], t[5], 0.0, want);
    EXPECT_EQ(std::vector<uint8_t>(p, p + 4), std::vector<uint8_t>(want, want + 4));
    out.get(1, 0, p);
    EXPECT_EQ(std::vector<uint8_t>(p, p + 4), grey_of(y_min)) << "dark pixel";
    out.get(2, 0, p);
    EXPECT_EQ(std::vector<uint8_t>(p, p + 4), grey_of(y_max)) << "saturated pixel";
    out.get(3, 0, p);
    bv::rgbe::encode(t[200], t[100], t[50], 0.0, want);
    EXPECT_EQ(std::vector<uint8_t>(p, p + 4), std::vector<uint8_t>(want, want + 4));
}

TEST(ConvertToRgbe, SixteenBitQuirkDepthsAndArguments) {
    std::vector<float> t(65536);
    for (int i = 0; i < 65536; ++i) t[i] = i / 65535.0f;
    // 54 * 10 + 183 * 4 = 1272: below 1280 unless 19 is added, which the raw
    // blue sample decides (B > 8), not its high byte.
    const uint16_t src[9] = {2560, 1024, 9, 2560, 1024, 8, 2560, 1024, 256};
    Rgbe out(3, 1);
    EXPECT_EQ(convert_to_rgbe(16, 3, 1, 3, 9, 0, t.data(), src, out.px.data()), 1);
    uint8_t a[4], b[4], c[4];
    out.get(0, 0, a);
    out.get(1, 0, b);
    out.get(2, 0, c);
    uint8_t want[4];
    bv::rgbe::encode(t[2560], t[1024], t[9], 0.0, want);
    EXPECT_EQ(std::vector<uint8_t>(a, a + 4), std::vector<uint8_t>(want, want + 4));
    // The dark one is painted with the smaller luminance of the other two.
    const float y0 = static_cast<float>(0.3 * t[2560] + 0.6 * t[1024] + 0.1 * t[9]);
    EXPECT_EQ(std::vector<uint8_t>(b, b + 4), grey_of(y0));
    // 16-bit data has no saturated mark: full scale is encoded as is.
    const uint16_t white[3] = {65535, 65535, 65535};
    Rgbe w(1, 1);
    EXPECT_EQ(convert_to_rgbe(16, 1, 1, 3, 3, 0, t.data(), white, w.px.data()), 1);
    w.get(0, 0, a);
    EXPECT_EQ(std::vector<uint8_t>(a, a + 4), (std::vector<uint8_t>{128, 128, 128, 129}));

    // Any other depth: every pixel dark, and with nothing to paint from the
    // image stays black.
    Rgbe dark(3, 2);
    std::fill(dark.px.begin(), dark.px.end(), 0x55);
    EXPECT_EQ(convert_to_rgbe(12, 3, 2, 3, 9, 0, t.data(), src, dark.px.data()), 2);
    EXPECT_EQ(dark.px, std::vector<uint8_t>(24, 0));

    EXPECT_EQ(convert_to_rgbe(8, 3, 0, 3, 9, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(convert_to_rgbe(8, 3, 1, 3, 9, 0, nullptr, src, out.px.data()), BV_RGBE_ERR_ARG);
    EXPECT_EQ(convert_to_rgbe(8, 3, 1, 0, 9, 0, t.data(), src, out.px.data()), BV_RGBE_ERR_ARG);
}

TEST(RgbeToFloat, PlainHalfStrideAndNormalised) {
    const Rgbe img = random_image(7, 5, 3);
    float t[256];
    exp_lut_old(t);
    const int stride = 7 * 3 + 2;
    std::vector<float> out(static_cast<size_t>(stride) * 5, -1.0f);
    EXPECT_EQ(rgbe2fp(7, 5, stride, 0, 0, img.px.data(), out.data(), 123.0f), 5);
    std::vector<uint16_t> half(static_cast<size_t>(stride) * 5, 0xBEEF);
    EXPECT_EQ(rgbe2fp(7, 5, stride, 0, 1, img.px.data(), half.data(), 1.0f), 5);
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 7; ++x) {
            uint8_t p[4];
            img.get(x, y, p);
            float d[3];
            bv::rgbe::decode(p[0], p[1], p[2], p[3], t, d);
            for (int c = 0; c < 3; ++c) {
                ASSERT_EQ(out[y * stride + x * 3 + c], d[c]);  // scale ignored
                ASSERT_EQ(half[y * stride + x * 3 + c], floatToHalf(d[c]));
            }
        }
        EXPECT_EQ(out[y * stride + 21], -1.0f) << "padding untouched";
        EXPECT_EQ(half[y * stride + 22], 0xBEEF);
    }

    // Normalised: the darkest pixel's luminance maps near 0, nothing is
    // negative, and the bright end scales with the scale argument.
    std::vector<float> n1(7 * 3 * 5), n2(7 * 3 * 5);
    EXPECT_EQ(rgbe2fp(7, 5, 0, 1, 0, img.px.data(), n1.data(), 1.0f), 5);
    EXPECT_EQ(rgbe2fp(7, 5, 0, 1, 0, img.px.data(), n2.data(), 2.0f), 5);
    LogLumStats st{};
    st.v[0] = 8;
    ASSERT_EQ(logMinMaxMoy(7, 5, t, img.px.data(), &st), 5);
    const float lo = static_cast<float>(std::exp(st.v[0]));
    const float s = 1.0f / (static_cast<float>(std::exp(st.v[4])) - lo);
    for (size_t i = 0; i < n1.size(); ++i) {
        ASSERT_GE(n1[i], 0.0f);
        const float want = std::max((out[(i / 21) * stride + i % 21] - lo) * s, 0.0f);
        ASSERT_EQ(n1[i], want);
        ASSERT_NEAR(n2[i], 2.0f * n1[i], 1e-5f * n2[i] + 1e-30f);
    }
    // A flat image has no range: normalisation switches off.
    Rgbe flat(2, 2);
    for (int i = 0; i < 4; ++i) flat.set(i % 2, i / 2, 128, 128, 128, 130);
    std::vector<float> f(12);
    EXPECT_EQ(rgbe2fp(2, 2, 0, 1, 0, flat.px.data(), f.data(), 5.0f), 2);
    EXPECT_EQ(f[0], 128.0f * t[130]);

    EXPECT_EQ(rgbe2fp(7, 0, 0, 0, 0, nullptr, nullptr, 1.0f), 0);
    EXPECT_EQ(rgbe2fp(7, 1, 20, 0, 0, img.px.data(), out.data(), 1.0f), BV_RGBE_ERR_ARG);
    EXPECT_EQ(rgbe2fp(7, 1, 0, 0, 0, nullptr, out.data(), 1.0f), BV_RGBE_ERR_ARG);
    {
        bvtest::FailAllocation fail(0);  // statistics sample buffer
        EXPECT_EQ(rgbe2fp(7, 5, 0, 1, 0, img.px.data(), n1.data(), 1.0f), BV_RGBE_ERR_NOMEM);
    }
}

TEST(HalfFloat, RoundsToNearestEvenEverywhere) {
    // Reference decoder for half bit patterns.
    auto to_float = [](uint16_t h) {
        const int e = (h >> 10) & 31, m = h & 1023;
        double v = e == 0 ? std::ldexp(m, -24) : std::ldexp(1024 + m, e - 25);
        if (e == 31) v = m ? NAN : INFINITY;
        return static_cast<float>((h & 0x8000) ? -v : v);
    };
    for (uint32_t h = 0; h < 0x7c00; ++h) {
        const float f = to_float(static_cast<uint16_t>(h));
        ASSERT_EQ(floatToHalf(f), h);
        ASSERT_EQ(floatToHalf(-f), h | 0x8000);
        // Midway to the next half: ties go to the even pattern; a hair
        // either side goes to the nearer one.
        const float next = h + 1 < 0x7c00 ? to_float(static_cast<uint16_t>(h + 1)) : 65536.0f;
        const float mid = static_cast<float>((static_cast<double>(f) + next) / 2);
        ASSERT_EQ(floatToHalf(mid), (h & 1) ? h + 1 : h) << h;
        ASSERT_EQ(floatToHalf(std::nextafter(mid, 0.0f)), h) << h;
        ASSERT_EQ(floatToHalf(std::nextafter(mid, INFINITY)), h + 1) << h;
    }
    EXPECT_EQ(floatToHalf(65519.996f), 0x7bffu);
    EXPECT_EQ(floatToHalf(65520.0f), 0x7c00u);
    EXPECT_EQ(floatToHalf(1e10f), 0x7c00u);
    EXPECT_EQ(floatToHalf(-INFINITY), 0xfc00u);
    EXPECT_EQ(floatToHalf(1e-10f), 0u);
    EXPECT_EQ(floatToHalf(-0.0f), 0x8000u);
    const uint16_t nan = floatToHalf(std::nanf(""));
    EXPECT_EQ(nan & 0x7c00u, 0x7c00u);
    EXPECT_NE(nan & 0x3ffu, 0u);
    // A NaN whose payload lives only in the low bits stays a NaN.
    EXPECT_NE(floatToHalf(float_of(0x7f800001u)) & 0x3ffu, 0u);
}

TEST(LogHistogram, BinsClampsAndPercentiles) {
    std::vector<int32_t> hist(5, 7);
    const float v[6] = {-1.0f, 0.0f, 0.49f, 0.5f, 1.0f, 3.0f};
    EXPECT_EQ(log_histo(6, 5, v, hist.data(), 1.0f, 1.0f), -1);
    EXPECT_EQ(hist, std::vector<int32_t>(5, 7)) << "empty range leaves it untouched";
    EXPECT_EQ(log_histo(0, 5, nullptr, hist.data(), 0.0f, 1.0f), 1);
    std::fill(hist.begin(), hist.end(), 0);
    // Bins of (v - 0) * 4 / 1: -4 -> 0, 0, 1.96 -> 1, 2, 4, 12 -> 4.
    EXPECT_EQ(log_histo(6, 5, v, hist.data(), 0.0f, 1.0f), 1);
    EXPECT_EQ(hist, (std::vector<int32_t>{2, 1, 1, 0, 2}));
    EXPECT_EQ(log_histo(6, 5, v, hist.data(), 0.0f, 1.0f), 1);
    EXPECT_EQ(hist, (std::vector<int32_t>{4, 2, 2, 0, 4})) << "not cleared first";

    // Percentiles over {4, 2, 2, 0, 4} of 12 values.
    EXPECT_EQ(percentile(12, 5, hist.data(), 0.0f), 0);
    EXPECT_EQ(percentile(12, 5, hist.data(), 0.3f), 0);   // target 3 < 4
    EXPECT_EQ(percentile(12, 5, hist.data(), 0.34f), 1);  // target 4: 4 + 2 > 4
    EXPECT_EQ(percentile(12, 5, hist.data(), 0.5f), 2);   // target 6: 8 > 6
    EXPECT_EQ(percentile(12, 5, hist.data(), 0.75f), 4);  // target 9: 12 > 9
    EXPECT_EQ(percentile(24, 5, hist.data(), 0.6f), 5);   // beyond the total
    EXPECT_EQ(percentile(12, 0, hist.data(), 0.5f), 0);
    EXPECT_EQ(percentile(12, 5, hist.data(), -1.0f), 0);
}

TEST(LogLumStats, FixedCasesFloatInputAndFallbacks) {
    float t[256];
    exp_lut_old(t);
    // A flat image: min = max, so no histogram; median = mean, p99.5 = max.
    Rgbe flat(3, 2);
    for (int i = 0; i < 6; ++i) flat.set(i % 3, i / 3, 128, 128, 128, 137);
    LogLumStats st{};
    st.v[0] = 8;
    EXPECT_EQ(logMinMaxMoy(3, 2, t, flat.px.data(), &st), 2);
    const float l =
        static_cast<float>(std::log((0.2125 * 128 + 0.7154 * 128 + 0.0721 * 128) * t[137]));
    EXPECT_FLOAT_EQ(st.v[0], l);
    EXPECT_EQ(st.v[0], st.v[1]);
    EXPECT_EQ(st.v[3], st.v[2]);
    EXPECT_EQ(st.v[4], st.v[1]);

    // Float input, one sample per pixel: ten pixels of e^0..e^9 and a black
    // one that is skipped. Percentile bins map back through (max - min) / 65536.
    std::vector<float> grey(11, 0.0f);
    for (int i = 0; i < 10; ++i) grey[i] = static_cast<float>(std::exp(i));
    LogLumStats g{};
    g.v[0] = 32;
    g.v[1] = 1;
    EXPECT_EQ(logMinMaxMoy(11, 1, nullptr, grey.data(), &g), 1);
    EXPECT_NEAR(g.v[0], 0.0f, 1e-6);
    EXPECT_NEAR(g.v[1], 9.0f, 1e-5);
    EXPECT_NEAR(g.v[2], 4.5f, 1e-5);
    // Sample i sits in bin trunc(i * 65535 / 9); the median (target 5) is the
    // sixth sample, bin 36408; p99.5 (target 9) the last, bin 65535; p33.3
    // (target 3) bin 21845.
    const float range = g.v[1] - g.v[0];
    EXPECT_FLOAT_EQ(g.v[3], g.v[0] + 36408.0f * range * 1.52587890625e-5f);
    EXPECT_FLOAT_EQ(g.v[4], g.v[0] + 65535.0f * range * 1.52587890625e-5f);
    EXPECT_FLOAT_EQ(g.v[5], g.v[0] + 21845.0f * range * 1.52587890625e-5f);

    // Three samples per pixel use the 0.2125 / 0.7154 / 0.0721 weights.
    const float rgb[3] = {1.0f, 2.0f, 4.0f};
    LogLumStats c{};
    c.v[0] = 32;
    c.v[1] = 3;
    EXPECT_EQ(logMinMaxMoy(1, 1, nullptr, rgb, &c), 1);
    EXPECT_FLOAT_EQ(c.v[0], static_cast<float>(std::log(0.2125 + 0.7154 * 2 + 0.0721 * 4)));

    // No rows: min 1e11, max = mean = 0.
    LogLumStats none{};
    EXPECT_EQ(logMinMaxMoy(5, 0, t, flat.px.data(), &none), 0);
    EXPECT_EQ(none.v[0], 1e11f);
    EXPECT_EQ(none.v[1], 0.0f);
    EXPECT_EQ(none.v[2], 0.0f);

    // Without the sample buffer: -4. Without the histogram: fallbacks.
    LogLumStats f{};
    f.v[0] = 32;
    f.v[1] = 1;
    {
        bvtest::FailAllocation fail(0);
        EXPECT_EQ(logMinMaxMoy(11, 1, nullptr, grey.data(), &f), BV_RGBE_ERR_NOMEM);
    }
    f.v[0] = 32;
    f.v[1] = 1;
    {
        bvtest::FailAllocation fail(1);
        EXPECT_EQ(logMinMaxMoy(11, 1, nullptr, grey.data(), &f), 1);
    }
    EXPECT_EQ(f.v[3], f.v[2]);
    EXPECT_EQ(f.v[4], f.v[1]);
    EXPECT_EQ(logMinMaxMoy(2, 2, t, nullptr, &f), BV_RGBE_ERR_ARG);
    EXPECT_EQ(logMinMaxMoy(2, 2, t, flat.px.data(), nullptr), BV_RGBE_ERR_ARG);
}

TEST(LogLumStats, SamplesAreStridedOverLargeImages) {
    // 300 x 300 = 90000 pixels: every third pixel (90000 / 40000 + 1) is
    // sampled. Column x has luminance growing with x, so percentiles follow
    // the columns whatever the sampling phase.
    float t[256];
    exp_lut_old(t);
    Rgbe img(300, 300);
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 300; ++x)
            img.set(x, y, static_cast<uint8_t>(1 + x * 254 / 299), 0, 0, 136);
    LogLumStats st{};
    st.v[0] = 8;
    EXPECT_EQ(logMinMaxMoy(300, 300, t, img.px.data(), &st), 300);
    EXPECT_FLOAT_EQ(st.v[0], static_cast<float>(std::log(0.2125 * 1)));
    EXPECT_FLOAT_EQ(st.v[1], static_cast<float>(std::log(0.2125 * 255)));
    const float med = static_cast<float>(std::exp(st.v[3]) / 0.2125);
    EXPECT_NEAR(med, 128.0f, 2.0f);
    const float p33 = static_cast<float>(std::exp(st.v[5]) / 0.2125);
    EXPECT_NEAR(p33, 85.0f, 2.0f);
}

}  // namespace
