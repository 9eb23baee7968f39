// Tone-mapping records, slider mapping, statistics toolkit and the simple tone mapper.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "Threading/bands.hpp"
#include "core/rgbe/rgbe_pixel.hpp"
#include "test_support.hpp"
#include "tmlib-core/tmlib_core.hpp"

namespace {

// What tm_simple returns: the height inline, else the last band's row count.
int last_band(int height, int threads) {
    return threads <= 1 ? height : height - (threads - 1) * (height / threads);
}

// ---------------------------------------------------------------- records

TEST(TmParams, DefaultsPerMethod) {
    TmParam p;
    auto expect_only = [&](std::initializer_list<std::pair<int, float>> set) {
        for (int i = 0; i < 60; ++i) {
            float want = 0;
            for (auto &kv : set)
                if (kv.first == i) want = kv.second;
            EXPECT_EQ(p.slot[i], want) << "slot " << i;
        }
    };
    std::memset(&p, 0x7f, sizeof p);
    EXPECT_EQ(tmparam_default(16, 1, &p), 0);
    expect_only({});
    std::memset(&p, 0x7f, sizeof p);
    EXPECT_EQ(tmparam_default(1, 1, &p), 0);
    expect_only({{1, 40}, {2, 46}, {3, 0.25f}, {5, 1}, {7, 2}, {8, 50}, {16, 1}});
    tmparam_default(1, 0, &p);
    EXPECT_EQ(p.slot[1], 70.0f);
    tmparam_default(1, -4, &p);
    EXPECT_EQ(p.slot[1], 70.0f);
    tmparam_default(3, 0, &p);
    expect_only({{0, 50}, {2, 20}, {3, 0.6f}, {4, 0.25f}});
    tmparam_default(10, 0, &p);
    expect_only({{8, 2}});
    tmparam_default(11, 0, &p);
    expect_only({{2, 70}});
    tmparam_default(12, 0, &p);
    expect_only({{8, 2}, {9, 1}});
    tmparam_default(15, 0, &p);
    expect_only({{8, 2}, {9, 1}});
    tmparam_default(2, 0, &p);
    expect_only({});
    EXPECT_EQ(tmparam_default(1, 0, nullptr), -1);

    DimParam d;
    std::memset(&d, 0x55, sizeof d);
    init_dim_param(&d);
    const int32_t want[10] = {0, 0, 3, 8, 8, 0, 0, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(&d, want, sizeof want));
    optimParam o;
    std::memset(&o, 0x55, sizeof o);
    init_optim_param(&o);
    const optimParam zero{};
    EXPECT_EQ(0, std::memcmp(&o, &zero, sizeof o));
    init_dim_param(nullptr);
    init_optim_param(nullptr);
}

TEST(TmParams, SliderMappingRoundsHalvesDown) {
    for (double e : {0.25, 0.5, 1.0, 2.0, 3.7}) {
        EXPECT_EQ(slider2param(100, e), 200000) << e;
        EXPECT_EQ(param2slider(200000.0f, e), 100) << e;
        EXPECT_EQ(slider2param(0, e), 0);
    }
    EXPECT_EQ(param2slider(5000.0f, 1.0), 2);  // 2.5 exactly: down
    EXPECT_EQ(param2slider(1000.0f, 1.0), 0);  // 0.5 exactly: down
    EXPECT_EQ(param2slider(125.0f, 0.5), 2);   // 2.5 exactly: down
    EXPECT_EQ(param2slider(3000.0f, 1.0), 2);  // just above 1.5: up
    EXPECT_EQ(param2slider(3400.0f, 1.0), 2);  // 1.7
    EXPECT_EQ(slider2param(50, 1.0), 100000);
    EXPECT_EQ(slider2param(50, 2.0), 50000);
    // Reciprocal exponents invert each other (up to rounding).
    for (int s = 0; s <= 100; s += 7) EXPECT_NEAR(param2slider(slider2param(s, 2.0), 0.5), s, 1);
    EXPECT_EQ(param2slider(-5.0f, 0.5), 0);  // NaN power
}

// ---------------------------------------------------------------- toolkit

TEST(TmToolkit, LogLumMapAndAverages) {
    const float e2 = std::exp(2.0f);
    // Pixels of luminance 1, e^2 and 0 (black), three floats each.
    const float img[9] = {1, 1, 1, e2, e2, e2, 0, 0, 0};
    float out[3] = {0, 0, 0}, map[3];
    ASSERT_EQ(bv::tmcore::get_log_lum(0, 3, 1, 3, 0, out, nullptr, img, map, 0, 0), 2);
    EXPECT_NEAR(out[0], std::exp(1.0f), 1e-5f);
    EXPECT_NEAR(out[1], std::exp(1.0f), 1e-5f);
    EXPECT_NEAR(out[2], 1.0f, 1e-6f);
    EXPECT_NEAR(map[0], 0.0f, 1e-6f);
    EXPECT_NEAR(map[1], 2.0f, 1e-6f);
    EXPECT_EQ(map[2], map[0]);  // black takes the minimum log

    // 8-bit samples through a table, 4 samples per pixel (B at offset 3).
    float lut8[256];
    for (int i = 0; i < 256; ++i) lut8[i] = i / 255.0f;
    const uint8_t px8[8] = {255, 255, 0, 255, 0, 0, 0, 0};
    ASSERT_EQ(bv::tmcore::get_log_lum(2, 2, 1, 4, 0, out, lut8, px8, map, 0, 0), 1);
    EXPECT_NEAR(map[0], std::log(1.0f), 1e-6f);
    // 16-bit samples.
    std::vector<float> lut16(65536);
    for (int i = 0; i < 65536; ++i) lut16[i] = i / 65535.0f;
    const uint16_t px16[3] = {0, 65535, 0};
    ASSERT_EQ(bv::tmcore::get_log_lum(1, 1, 1, 3, 0, out, lut16.data(), px16, map, 0, 0), 1);
    EXPECT_NEAR(map[0], std::log(0.7152f), 1e-6f);

    // All black: out[0] stays as it was, the map holds the untouched minimum.
    const float black[6] = {0, 0, 0, 0, 0, 0};
    float kept[3] = {0.25f, 0, 0};
    EXPECT_EQ(bv::tmcore::get_log_lum(0, 2, 1, 3, 0, kept, nullptr, black, map, 0, 0), 0);
    EXPECT_EQ(kept[0], 0.25f);
    EXPECT_EQ(map[0], 1e9f);
    EXPECT_EQ(map[1], 1e9f);

    EXPECT_EQ(bv::tmcore::get_log_lum(3, 2, 1, 3, 0, kept, nullptr, black, map, 0, 0), -1);
    EXPECT_EQ(bv::tmcore::get_log_lum(2, 2, 1, 3, 0, kept, nullptr, px8, map, 0, 0), -1);
}

TEST(TmToolkit, PercentileSafeguardsTerminate) {
    uint32_t hist[2][256] = {};
    hist[1][100] = 50;
    EXPECT_EQ(bv::tmcore::verifPercentile(hist, 1, 10), 10);
    // Mass at the dark end: the count grows by 5 % steps until it reaches bin 100.
    for (int k = 0; k < 6; ++k) hist[0][k] = 100;
    hist[0][100] = 200;
    const int c = bv::tmcore::verifPercentile(hist, 0, 50);
    EXPECT_GE(c, 600);
    EXPECT_LT(c, 800);
    // Counts the 5 % steps cannot move, and an empty histogram, still return.
    EXPECT_EQ(bv::tmcore::verifPercentile(hist, 0, 0), 0);
    uint32_t empty[1][256] = {};
    EXPECT_GE(bv::tmcore::verifPercentile(empty, 0, 1000), 0);
    // Mass split between both ends makes the search oscillate; it must stop.
    uint32_t split[1][256] = {};
    split[0][0] = 1000;
    split[0][255] = 1000;
    (void)bv::tmcore::verifPercentile(split, 0, 999);
}

TEST(TmToolkit, AdjustPercentileSharesItsStepBudget) {
    std::vector<int32_t> top(1000, 0);
    top[990] = 100;  // everything above 90 %: the factor only shrinks
    bv::tmcore::GlobalCntAdjust = 0;
    const float f = bv::tmcore::adjust_percentile(100, 1000, top.data(), 0.5f);
    float want = 0.5f;
    for (int i = 0; i < 40; ++i) want *= 0.99f;
    EXPECT_FLOAT_EQ(f, want);
    EXPECT_EQ(bv::tmcore::GlobalCntAdjust, 40);
    // The budget is spent: later calls return their factor untouched.
    EXPECT_EQ(bv::tmcore::adjust_percentile(100, 1000, top.data(), 0.7f), 0.7f);

    std::vector<int32_t> flat(1000, 1);
    bv::tmcore::GlobalCntAdjust = 0;
    EXPECT_EQ(bv::tmcore::adjust_percentile(1000, 1000, flat.data(), 0.5f), 0.5f);
    EXPECT_EQ(bv::tmcore::GlobalCntAdjust, 1);
    // Mass at the bottom: the factor grows by 1 % steps until 25 % is reached.
    std::vector<int32_t> low(1000, 0);
    low[10] = 60;
    for (int k = 300; k < 340; ++k) low[k] = 1;
    bv::tmcore::GlobalCntAdjust = 0;
    const float g = bv::tmcore::adjust_percentile(100, 1000, low.data(), 0.5f);
    EXPECT_GT(g, 0.6f);
    EXPECT_LE(bv::tmcore::GlobalCntAdjust, 40);
    bv::tmcore::GlobalCntAdjust = 0;
}

TEST(TmToolkit, CubicThroughTwoPointsFlatAtTheFirst) {
    double a, b, c, d;
    bv::tmcore::coeffPoly3(&a, &b, &c, &d, 0.2, 0.1, 0.8, 0.9);
    auto p = [&](double x) { return ((a * x + b) * x + c) * x + d; };
    auto slope = [&](double x) { return (3 * a * x + 2 * b) * x + c; };
    EXPECT_NEAR(p(0.2), 0.1, 1e-12);
    EXPECT_NEAR(p(0.8), 0.9, 1e-12);
    EXPECT_NEAR(slope(0.2), 0.0, 1e-12);
    // The fixed coefficients leave a slope of -3a(x1 - x0)^2 at x1.
    EXPECT_NEAR(slope(0.8), -3 * a * 0.36, 1e-12);
    bv::tmcore::coeffPoly3(&a, &b, &c, &d, 0.5, 0.1, 0.5, 0.9);
    EXPECT_EQ(a + b + c + d, 0.0);
    EXPECT_EQ(d, 0.0);
}

TEST(TmToolkit, MapDoublingWeights) {
    const float in[4] = {1, 2, 3, 4};
    float out[16];
    ASSERT_EQ(bv::tmcore::tm1_init(4, 4, 2, 2, 0, in, out), 4);
    EXPECT_NEAR(out[0], 0.5626f + 0.09375f * 7 + 0.0156f * 10, 1e-6f);  // even, even
    EXPECT_NEAR(out[1], 0.375f * 3 + 0.0625f * 10, 1e-6f);              // odd x
    EXPECT_NEAR(out[4], 0.375f * 4 + 0.0625f * 10, 1e-6f);              // odd y
    EXPECT_NEAR(out[5], 2.5f, 1e-6f);                                   // both odd
    // A flat map stays flat (the even weights add up to one).
    const float flat[6] = {3, 3, 3, 3, 3, 3};
    float big[35];
    ASSERT_EQ(bv::tmcore::tm1_init(7, 5, 3, 2, 0, flat, big), 5);
    for (float v : big) EXPECT_NEAR(v, 3.0f, 1e-5f);
    EXPECT_EQ(bv::tmcore::tm1_init(4, 4, 0, 2, 0, in, out), -1);
}

TEST(TmToolkit, InterleavedToPlanes) {
    const uint16_t px[8] = {1, 2, 3, 9, 4, 5, 6, 9};  // two RGBA-like pixels
    uint16_t planes[6];
    ASSERT_EQ(bv::tmcore::rgb_interleaved2color_planes(2, 1, 4, 16, px, planes), 1);
    const uint16_t want[6] = {1, 4, 2, 5, 9, 9};  // G at 1, B at 3
    EXPECT_EQ(0, std::memcmp(planes, want, sizeof want));
    EXPECT_EQ(bv::tmcore::rgb_interleaved2color_planes(2, 1, 3, 32, px, planes), -1);
}

// ---------------------------------------------------------------- tm_simple

LogLumStats make_stats(float mn, float mx, float med, float high) {
    LogLumStats s{};
    s.v[0] = mn;
    s.v[1] = mx;
    s.v[2] = med;
    s.v[3] = med;
    s.v[4] = high;
    s.v[5] = med;
    return s;
}

// Linear float RGB test image with a wide range, colours and pure greys.
std::vector<float> make_image(int w, int h, uint64_t seed) {
    bvtest::Rng rng(seed);
    std::vector<float> img(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < img.size(); i += 3) {
        const float l = std::exp(static_cast<float>(rng.uniform()) * 8.0f - 5.0f);
        for (int c = 0; c < 3; ++c)
            img[i + c] = l * (0.2f + 0.8f * static_cast<float>(rng.uniform()));
        if (rng.next() % 5 == 0) img[i + 1] = img[i + 2] = img[i];
    }
    return img;
}

DimParam float_dim(int w, int h, int bits = 8) {
    DimParam d;
    init_dim_param(&d);
    d.width = w;
    d.height = h;
    d.bitsIn = 32;
    d.bitsOut = bits;
    d.sourceKind = 10;
    return d;
}

template <class T>
std::vector<T> run(std::vector<TmParam> params, const unsigned char *map, const LogLumStats &st,
                   std::vector<float> img, DimParam d, int threads, int *rc = nullptr,
                   T fill = 0xCD) {
    const size_t n = static_cast<size_t>(d.rowOut > 0 ? d.rowOut : d.width * d.channels) * d.height;
    std::vector<T> out(n, fill);
    const int r = tm_simple(params.data(), map, &st, nullptr, img.data(),
                            reinterpret_cast<uint16_t *>(out.data()), d, threads);
    if (rc)
        *rc = r;
    else
        EXPECT_EQ(r, last_band(d.height, threads));
    return out;
}

std::vector<TmParam> base_params() {
    std::vector<TmParam> p(1);
    tmparam_default(0, 0, &p[0]);
    return p;
}

// Straight from the curve's definition, in double, for a grey pixel.
int reference_grey(float v, const TmParam &p, const LogLumStats &s, double range) {
    const double med = s.v[3], r = s.v[4] - s.v[3];
    const double k = r <= 4 ? -1.5 : ((s.v[3] - s.v[4]) + 1) * 0.5;
    const double a = std::exp(k - med);
    const double s0 = p.slot[0], s1 = p.slot[1], s2 = p.slot[2];
    double c = (s2 + 10) * 0.05;
    if (s2 > 0 && s1 > 0) c = ((s2 + 10 * (s1 * 0.1 + 1)) * 0.05) / (s1 * 0.1 + 1);
    const double a0 = (1 - c) * a * std::exp(med);
    double m = std::pow(r / (s.v[1] - s.v[0]), 1.4) * 0.6 + 0.3;
    if (s1 < 0) m = (s1 + 10) * 0.1 * (m - 0.01) + 0.01;
    if (s1 > 0) m = (10 - s1) * 0.1 * (m - 0.9) + 0.9;
    const double x =
        s0 > 0 ? s0 * (0.4 - 0.01 * s0) : (s0 > -6 ? s0 * 0.5 : s0 * ((-6 - s0) * 0.1 + 0.5));
    const double f = std::exp(-x);
    auto curve = [&](double l) { return range * l / (std::pow(f * (c * l + a0), m) + l); };
    const double hi = curve(a * std::exp(s.v[1])), lo = curve(a * std::exp(s.v[0]));
    const double d = hi - lo, lo2 = lo + p.slot[4] * 0.02 * d;
    const double out = (curve(a * v) - lo2) / ((hi - p.slot[3] * 0.03 * d) - lo2);
    const double q = std::floor(out * range);
    return static_cast<int>(q < 0 ? 0 : (q > range ? range : q));
}

TEST(TmSimple, CurveMatchesItsDefinition) {
    const float greys[] = {0.001f, 0.02f, 0.3f, 1.0f, 4.0f, 15.0f};
    const int w = sizeof greys / sizeof greys[0];
    std::vector<float> img;
    for (float g : greys) img.insert(img.end(), {g, g, g});
    const LogLumStats stats[2] = {make_stats(-7, 3, -0.5f, 2.5f), make_stats(-7, 3.2f, -2, 2.8f)};
    // Exposure -6 sits on the border of two rules that agree there (f = e^3).
    const float settings[][5] = {{0, 0, 0, 0, 0}, {-6, 0, 0, 0, 0}, {-8.5f, 0, 0, 0, 0},
                                 {4, 0, 0, 0, 0}, {0, 5, 3, 0, 0},  {0, -4, -2, 0, 0},
                                 {-2, 0, 0, 2, 3}};
    for (const LogLumStats &st : stats) {
        for (const auto &set : settings) {
            auto p = base_params();
            for (int i = 0; i < 5; ++i) p[0].slot[i] = set[i];
            for (int bits : {8, 16}) {
                const double range = bits == 16 ? 65535 : 255;
                DimParam d = float_dim(w, 1, bits);
                std::vector<uint16_t> out16;
                std::vector<uint8_t> out8;
                if (bits == 16)
                    out16 = run<uint16_t>(p, nullptr, st, img, d, 1);
                else
                    out8 = run<uint8_t>(p, nullptr, st, img, d, 1);
                for (int x = 0; x < w; ++x) {
                    const int want = reference_grey(greys[x], p[0], st, range);
                    const int got = bits == 16 ? out16[3 * x] : out8[3 * x];
                    EXPECT_NEAR(got, want, bits == 16 ? 8 : 1)
                        << "grey " << greys[x] << " slot0 " << set[0] << " bits " << bits;
                    const int g = bits == 16 ? out16[3 * x + 1] : out8[3 * x + 1];
                    EXPECT_EQ(got, g);  // a grey stays grey
                }
            }
        }
    }
}

TEST(TmSimple, MinEqualMaxStatsFailBeforeWriting) {
    auto img = make_image(4, 3, 1);
    int rc = 0;
    auto out =
        run<uint8_t>(base_params(), nullptr, make_stats(1, 1, 1, 1), img, float_dim(4, 3), 1, &rc);
    EXPECT_EQ(rc, BV_TM_ESTATS);
    for (uint8_t v : out) ASSERT_EQ(v, 0xCD);
    out =
        run<uint8_t>(base_params(), nullptr, make_stats(2, 1, 1, 1), img, float_dim(4, 3), 3, &rc);
    EXPECT_EQ(rc, BV_TM_ESTATS);
    out = run<uint8_t>(base_params(), nullptr, make_stats(NAN, 1, 0, 0), img, float_dim(4, 3), 1,
                       &rc);
    EXPECT_EQ(rc, BV_TM_ESTATS);
    for (uint8_t v : out) ASSERT_EQ(v, 0xCD);
}

TEST(TmSimple, IdenticalForAnyThreadCount) {
    // Bands are height / threads rows, the last one taking the rest.
    const auto bands = bv::threading::split_rows(0, 10, 3);
    ASSERT_EQ(bands.size(), 3u);
    EXPECT_EQ(bands[0].end - bands[0].first, 3);
    EXPECT_EQ(bands[1].end - bands[1].first, 3);
    EXPECT_EQ(bands[2].end - bands[2].first, 4);

    const LogLumStats st = make_stats(-5, 3, -1, 2);
    auto p = base_params();
    p[0].slot[12] = 3;   // temperature
    p[0].slot[13] = 2;   // saturation
    p[0].slot[24] = 40;  // an orange hue shift: tables active
    p[0].slot[27] = 30;  // yellow lightness: value table active
    for (int h : {1, 2, 10, 23}) {
        auto img = make_image(17, h, h);
        for (int bits : {8, 16}) {
            for (int layout : {0, 3}) {
                DimParam d = float_dim(17, h, bits);
                d.layout = layout;
                auto one = run<uint16_t>(p, nullptr, st, img, d, 1);
                for (int t : {2, 3, 7, 40}) {
                    auto many = run<uint16_t>(p, nullptr, st, img, d, t);
                    ASSERT_EQ(one, many) << "height " << h << " threads " << t << " bits " << bits;
                }
            }
        }
    }
}

TEST(TmSimple, RgbeInputMatchesItsDecodedFloats) {
    const int w = 19, h = 7;
    auto img = make_image(w, h, 4);
    float table[256];
    bv::rgbe::fill_exp_table(table);
    std::vector<unsigned char> rgbe(static_cast<size_t>(w) * h * 4);
    std::vector<float> decoded(img.size());
    for (int y = 0; y < h; ++y) {
        unsigned char *row = &rgbe[static_cast<size_t>(y) * w * 4];
        for (int x = 0; x < w; ++x) {
            const float *px = &img[(static_cast<size_t>(y) * w + x) * 3];
            uint8_t e[4];
            bv::rgbe::encode(px[0], px[1], px[2], 0.0f, e);
            if (x == 3) e[3] = 0;  // exponent 0 is black whatever the mantissas
            for (int c = 0; c < 4; ++c) row[c * w + x] = e[c];
            bv::rgbe::decode(e[0], e[1], e[2], e[3], table,
                             &decoded[(static_cast<size_t>(y) * w + x) * 3]);
        }
    }
    const LogLumStats st = make_stats(-6, 3, -1, 2);
    auto p = base_params();
    p[0].slot[13] = 4;
    p[0].slot[45] = 30;
    DimParam fd = float_dim(w, h);
    auto from_float = run<uint8_t>(p, nullptr, st, decoded, fd, 1);
    DimParam rd = fd;
    rd.sourceKind = 0;
    rd.bitsIn = 8;
    for (int threads : {1, 3}) {
        std::vector<uint8_t> out(static_cast<size_t>(w) * h * 3, 0xCD);
        ASSERT_EQ(tm_simple(p.data(), nullptr, &st, table, rgbe.data(),
                            reinterpret_cast<uint16_t *>(out.data()), rd, threads),
                  last_band(h, threads));
        int worst = 0;
        for (size_t i = 0; i < out.size(); ++i)
            worst = std::max(worst, std::abs(out[i] - from_float[i]));
        EXPECT_LE(worst, 1);
        for (int y = 0; y < h; ++y)
            for (int c = 0; c < 3; ++c) EXPECT_EQ(out[(static_cast<size_t>(y) * w + 3) * 3 + c], 0);
    }
}

TEST(TmSimple, LayoutsChannelOrderAndDepths) {
    const int w = 6, h = 5;
    auto img = make_image(w, h, 8);
    const LogLumStats st = make_stats(-5, 3, -1, 2);
    auto p = base_params();
    DimParam d = float_dim(w, h);
    auto rgb8 = run<uint8_t>(p, nullptr, st, img, d, 1);

    // 16-bit output is the same picture with finer steps.
    DimParam d16 = float_dim(w, h, 16);
    auto rgb16 = run<uint16_t>(p, nullptr, st, img, d16, 2);
    for (size_t i = 0; i < rgb8.size(); ++i) EXPECT_NEAR(rgb16[i] / 257.0, rgb8[i], 1.0);

    // Planar output equals the interleaved result reordered.
    std::vector<uint8_t> want(rgb8.size());
    bv::tmcore::rgb_interleaved2color_planes(w, h, 3, 8, rgb8.data(), want.data());
    DimParam dp = d;
    dp.layout = 3;
    EXPECT_EQ(run<uint8_t>(p, nullptr, st, img, dp, 1), want);
    EXPECT_EQ(run<uint8_t>(p, nullptr, st, img, dp, 3), want);

    // BGR exchanges the first and last samples.
    DimParam db = d;
    db.bgr = 1;
    auto bgr = run<uint8_t>(p, nullptr, st, img, db, 1);
    for (size_t i = 0; i < bgr.size(); i += 3) {
        EXPECT_EQ(bgr[i], rgb8[i + 2]);
        EXPECT_EQ(bgr[i + 1], rgb8[i + 1]);
        EXPECT_EQ(bgr[i + 2], rgb8[i]);
    }

    // Four samples per pixel with padded rows: B goes to the last sample,
    // the third sample and the padding are left alone.
    std::vector<float> img4(static_cast<size_t>(w) * h * 4);
    for (size_t i = 0; i < static_cast<size_t>(w) * h; ++i) {
        img4[4 * i] = img[3 * i];
        img4[4 * i + 1] = img[3 * i + 1];
        img4[4 * i + 2] = -1;  // never read
        img4[4 * i + 3] = img[3 * i + 2];
    }
    DimParam d4 = d;
    d4.channels = 4;
    d4.rowOut = w * 4 + 5;
    auto rgba = run<uint8_t>(p, nullptr, st, img4, d4, 2);
    for (int y = 0; y < h; ++y) {
        const uint8_t *row = &rgba[static_cast<size_t>(y) * d4.rowOut];
        for (int x = 0; x < w; ++x) {
            const uint8_t *want3 = &rgb8[(static_cast<size_t>(y) * w + x) * 3];
            EXPECT_EQ(row[4 * x], want3[0]);
            EXPECT_EQ(row[4 * x + 1], want3[1]);
            EXPECT_EQ(row[4 * x + 2], 0xCD);
            EXPECT_EQ(row[4 * x + 3], want3[2]);
        }
        for (int k = w * 4; k < d4.rowOut; ++k) EXPECT_EQ(row[k], 0xCD);
    }
}

TEST(TmSimple, RowWindowLeavesOtherRowsAlone) {
    const int w = 5, h = 9;
    auto img = make_image(w, h, 2);
    const LogLumStats st = make_stats(-5, 3, -1, 2);
    auto p = base_params();
    auto full = run<uint8_t>(p, nullptr, st, img, float_dim(w, h), 1);
    p[0].slot[56] = 3;
    p[0].slot[57] = 7;
    for (int threads : {1, 4}) {
        auto part = run<uint8_t>(p, nullptr, st, img, float_dim(w, h), threads);
        for (int y = 0; y < h; ++y)
            for (int i = 0; i < w * 3; ++i) {
                const size_t k = static_cast<size_t>(y) * w * 3 + i;
                EXPECT_EQ(part[k], (y >= 3 && y < 7) ? full[k] : 0xCD) << y;
            }
    }
    // Out-of-range windows are ignored.
    p[0].slot[56] = static_cast<float>(h - 1);
    p[0].slot[57] = static_cast<float>(h);
    EXPECT_EQ(run<uint8_t>(p, nullptr, st, img, float_dim(w, h), 1), full);
}

TEST(TmSimple, RegionSetsBlendOverTheBase) {
    const int w = 8, h = 6;
    auto img = make_image(w, h, 6);
    const LogLumStats st = make_stats(-5, 3, -1, 2);
    std::vector<TmParam> p(3);
    tmparam_default(0, 0, &p[0]);
    tmparam_default(0, 0, &p[1]);
    tmparam_default(0, 0, &p[2]);
    p[0].slot[55] = 2;
    p[1].slot[0] = 3;     // region 0: brighter
    p[2].slot[13] = -10;  // region 1: no saturation at all
    p[2].slot[12] = -4;
    const DimParam d = float_dim(w, h);
    auto base = run<uint8_t>({p[0]}, nullptr, st, img, d, 1);
    auto only1 = run<uint8_t>({p[1]}, nullptr, st, img, d, 1);
    auto only2 = run<uint8_t>({p[2]}, nullptr, st, img, d, 1);
    ASSERT_NE(base, only1);

    std::vector<unsigned char> map(static_cast<size_t>(w) * h * 2);
    auto fill = [&](int weight, int index) {
        for (size_t i = 0; i < map.size(); i += 2) map[i] = weight, map[i + 1] = index;
    };
    for (int threads : {1, 3}) {
        fill(0, 0);  // weight 0: the base result exactly
        EXPECT_EQ(run<uint8_t>(p, map.data(), st, img, d, threads), base);
        fill(255, 255);  // index 255: the base result exactly
        EXPECT_EQ(run<uint8_t>(p, map.data(), st, img, d, threads), base);
        fill(255, 0);  // weight 255: the region set alone
        EXPECT_EQ(run<uint8_t>(p, map.data(), st, img, d, threads), only1);
        fill(255, 9);  // an index past the sets takes the last one
        EXPECT_EQ(run<uint8_t>(p, map.data(), st, img, d, threads), only2);
        fill(128, 0);  // in between: between the two results
        auto mid = run<uint8_t>(p, map.data(), st, img, d, threads);
        for (size_t i = 0; i < mid.size(); ++i) {
            EXPECT_GE(mid[i] + 1, std::min(base[i], only1[i]));
            EXPECT_LE(mid[i], std::max(base[i], only1[i]) + 1);
        }
    }
    // Without region sets in the base record the map is not consulted.
    std::vector<TmParam> none = {p[0]};
    none[0].slot[55] = 0;
    fill(255, 0);
    EXPECT_EQ(run<uint8_t>(none, map.data(), st, img, d, 2), base);
    none[0].slot[55] = -3;
    EXPECT_EQ(run<uint8_t>(none, map.data(), st, img, d, 1), base);
}

// Plain settings take a chunked fast path; a region map of weight 0 forces
// the general per-pixel path. Both must agree bit for bit.
TEST(TmSimple, FastAndGeneralPathsAgree) {
    const int w = 263, h = 5;  // a chunk and a ragged tail per row
    auto img = make_image(w, h, 12);
    img[7] = NAN;
    img[11] = INFINITY;
    img[20] = -2.0f;
    float table[256];
    bv::rgbe::fill_exp_table(table);
    std::vector<unsigned char> rgbe(static_cast<size_t>(w) * h * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t e[4];
            const float *px = &img[(static_cast<size_t>(y) * w + x) * 3];
            bv::rgbe::encode(std::fabs(px[0]), 1.0f, px[2], 0.0f, e);
            if (x % 17 == 0) e[3] = 0;
            for (int c = 0; c < 4; ++c) rgbe[static_cast<size_t>(y) * w * 4 + c * w + x] = e[c];
        }
    const LogLumStats st = make_stats(-5, 3, -1, 2);
    std::vector<TmParam> p(2);
    tmparam_default(0, 0, &p[0]);
    p[0].slot[0] = -1.5f;
    p[0].slot[3] = 1;
    p[1] = p[0];
    p[1].slot[0] = 2;
    std::vector<unsigned char> map(static_cast<size_t>(w) * h * 2, 0);
    for (bool use_rgbe : {false, true})
        for (int bits : {8, 16})
            for (int layout : {0, 3}) {
                DimParam d = float_dim(w, h, bits);
                d.layout = layout;
                if (use_rgbe) d.sourceKind = 0;
                void *in = use_rgbe ? static_cast<void *>(rgbe.data()) : img.data();
                std::vector<uint16_t> fast(static_cast<size_t>(w) * h * 3, 1), general = fast;
                p[0].slot[55] = 0;
                ASSERT_EQ(tm_simple(p.data(), nullptr, &st, table, in, fast.data(), d, 2), last_band(h, 2));
                p[0].slot[55] = 1;
                ASSERT_EQ(tm_simple(p.data(), map.data(), &st, table, in, general.data(), d, 3), last_band(h, 3));
                ASSERT_EQ(fast, general) << use_rgbe << " " << bits << " " << layout;
            }
}

TEST(TmSimple, TemperatureSaturationAndColourTables) {
    // A grey row and a saturated row.
    std::vector<float> img = {0.5f, 0.5f, 0.5f, 0.9f, 0.2f, 0.1f};
    const LogLumStats st = make_stats(-5, 3, -1, 2);
    const DimParam d = float_dim(2, 1);
    auto p = base_params();
    auto plain = run<uint8_t>(p, nullptr, st, img, d, 1);
    EXPECT_EQ(plain[0], plain[1]);
    EXPECT_EQ(plain[1], plain[2]);

    p[0].slot[12] = 5;  // white reference at 5200 K: the picture warms up
    auto warm = run<uint8_t>(p, nullptr, st, img, d, 1);
    EXPECT_GT(warm[0], warm[2] + 5);
    p[0].slot[12] = -5;  // 7800 K: it cools down
    auto cool = run<uint8_t>(p, nullptr, st, img, d, 1);
    EXPECT_GT(cool[2], cool[0] + 5);

    p = base_params();
    p[0].slot[13] = -10;  // saturation factor 0
    auto grey = run<uint8_t>(p, nullptr, st, img, d, 1);
    EXPECT_NEAR(grey[3], grey[4], 1);
    EXPECT_NEAR(grey[4], grey[5], 1);
    p[0].slot[13] = 5;
    auto vivid = run<uint8_t>(p, nullptr, st, img, d, 1);
    EXPECT_GT(vivid[3] - vivid[5], plain[3] - plain[5]);

    // A slot 13 below one step builds neutral tables: only the 4096 hue
    // steps show, by at most one output level.
    p = base_params();
    const auto varied = make_image(31, 7, 5);
    auto untabled = run<uint8_t>(p, nullptr, st, varied, float_dim(31, 7), 1);
    p[0].slot[13] = 0.5f;
    auto neutral = run<uint8_t>(p, nullptr, st, varied, float_dim(31, 7), 1);
    int worst = 0;
    for (size_t i = 0; i < neutral.size(); ++i)
        worst = std::max(worst, std::abs(neutral[i] - untabled[i]));
    EXPECT_LE(worst, 1);

    // Desaturating every hue band through the tables gives exact greys.
    p = base_params();
    for (int b = 0; b < 8; ++b) p[0].slot[21 + 3 * b] = -100;
    auto tabled = run<uint8_t>(p, nullptr, st, make_image(9, 4, 3), float_dim(9, 4), 2);
    for (size_t i = 0; i < tabled.size(); i += 3) {
        ASSERT_EQ(tabled[i], tabled[i + 1]);
        ASSERT_EQ(tabled[i + 1], tabled[i + 2]);
    }
}

TEST(TmSimple, BadInputGetsDocumentedCodes) {
    auto img = make_image(4, 3, 1);
    const LogLumStats st = make_stats(-5, 3, -1, 2);
    auto p = base_params();
    std::vector<uint8_t> out(64, 0xCD);
    auto o16 = reinterpret_cast<uint16_t *>(out.data());
    DimParam d = float_dim(4, 3);
    EXPECT_EQ(tm_simple(nullptr, nullptr, &st, nullptr, img.data(), o16, d, 1), BV_TM_EBADARG);
    EXPECT_EQ(tm_simple(p.data(), nullptr, nullptr, nullptr, img.data(), o16, d, 1), BV_TM_EBADARG);
    EXPECT_EQ(tm_simple(p.data(), nullptr, &st, nullptr, nullptr, o16, d, 1), BV_TM_EBADARG);
    EXPECT_EQ(tm_simple(p.data(), nullptr, &st, nullptr, img.data(), nullptr, d, 1), BV_TM_EBADARG);
    DimParam r = d;
    r.sourceKind = 0;  // RGBE rows need the exponent table
    EXPECT_EQ(tm_simple(p.data(), nullptr, &st, nullptr, img.data(), o16, r, 1), BV_TM_EBADARG);
    DimParam bad = d;
    bad.rowOut = 11;  // shorter than a row
    EXPECT_EQ(tm_simple(p.data(), nullptr, &st, nullptr, img.data(), o16, bad, 1), BV_TM_EBADARG);
    bad = d;
    bad.width = -1;
    EXPECT_EQ(tm_simple(p.data(), nullptr, &st, nullptr, img.data(), o16, bad, 1), BV_TM_EBADARG);
    bad = d;
    bad.channels = 1;
    bad.layout = 3;  // planes need three channels of room
    EXPECT_EQ(tm_simple(p.data(), nullptr, &st, nullptr, img.data(), o16, bad, 1), BV_TM_EBADARG);
    for (auto [w, h] : {std::pair{0, 3}, std::pair{4, 0}}) {
        DimParam z = d;
        z.width = w;
        z.height = h;
        EXPECT_EQ(tm_simple(p.data(), nullptr, &st, nullptr, nullptr, nullptr, z, 2), 0);
    }
    for (uint8_t v : out) ASSERT_EQ(v, 0xCD);
    // No threads asked for: the work runs on the calling thread.
    auto one = run<uint8_t>(p, nullptr, st, img, d, 1);
    EXPECT_EQ(run<uint8_t>(p, nullptr, st, img, d, 0), one);
    EXPECT_EQ(run<uint8_t>(p, nullptr, st, img, d, -3), one);
    // Table allocations that fail report -4.
    for (long nth : {0L, 1L}) {
        bvtest::FailAllocation fail(nth);
        EXPECT_EQ(tm_simple(p.data(), nullptr, &st, nullptr, img.data(), o16, d, 1), BV_TM_ENOMEM);
    }
    // NaN and infinite samples never give garbage or trap.
    std::vector<float> odd = {NAN, 1, 1, INFINITY, 1, 1, -1, -1, -1, 1e30f, 0, 0};
    auto res = run<uint8_t>(p, nullptr, st, odd, float_dim(4, 1), 1);
    EXPECT_EQ(res[0], 0);
}

// ---------------------------------------------------------------- real data

TEST(TmSimpleRealData, AtriumWithDefaultsUsesTheRange) {
    const std::string dir = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(dir);
    const std::string path = dir + "/hdr/mpi_atrium_3.hdr";
    RgbeDims dims{};
    ASSERT_GE(rgbe_dim(path.c_str(), nullptr, &dims), 0);
    const int w = dims.width, h = dims.height;
    ASSERT_EQ(w, 1024);
    ASSERT_EQ(h, 676);
    std::vector<unsigned char> rgbe(static_cast<size_t>(w) * h * 4);
    ASSERT_EQ(bv_io_read_rgbe(w, h, path.c_str(), rgbe.data()), h);
    float table[256];
    ASSERT_EQ(exp_lut_old(table), 256);
    LogLumStats st{};
    st.v[0] = 8;  // RGBE input
    ASSERT_EQ(logMinMaxMoy(w, h, table, rgbe.data(), &st), h);
    ASSERT_LT(st.v[0], st.v[1]);

    TmParam p;
    tmparam_default(0, 0, &p);
    DimParam d;
    init_dim_param(&d);
    d.width = w;
    d.height = h;
    const size_t samples = static_cast<size_t>(w) * h * 3;
    std::vector<uint8_t> one(samples, 0xCD);
    ASSERT_EQ(tm_simple(&p, nullptr, &st, table, rgbe.data(),
                        reinterpret_cast<uint16_t *>(one.data()), d, 1),
              h);
    size_t low = 0, high = 0;
    double sum = 0;
    for (uint8_t v : one) {
        low += v == 0;
        high += v == 255;
        sum += v;
    }
    std::printf("atrium: %.3f %% samples at 0, %.3f %% at 255, mean %.1f\n", 100.0 * low / samples,
                100.0 * high / samples, sum / samples);
    EXPECT_LE(low, samples / 100);
    EXPECT_LE(high, samples / 100);
    EXPECT_LT(*std::min_element(one.begin(), one.end()), 16);
    EXPECT_GT(*std::max_element(one.begin(), one.end()), 240);
    for (int threads : {2, 3}) {
        std::vector<uint8_t> many(samples, 0x11);
        ASSERT_EQ(tm_simple(&p, nullptr, &st, table, rgbe.data(),
                            reinterpret_cast<uint16_t *>(many.data()), d, threads),
                  last_band(h, threads));
        ASSERT_EQ(many, one) << threads << " threads";
    }

    // The same picture from the decoded floats, with 16-bit output: finite,
    // and within a step of the 8-bit result.
    std::vector<float> fl(samples);
    ASSERT_EQ(rgbe2fp(w, h, w * 3, 0, 0, rgbe.data(), fl.data(), 1.0f), h);
    for (float v : fl) ASSERT_TRUE(std::isfinite(v));
    DimParam d16 = d;
    d16.sourceKind = 10;
    d16.bitsIn = 32;
    d16.bitsOut = 16;
    std::vector<uint16_t> out16(samples);
    ASSERT_EQ(tm_simple(&p, nullptr, &st, nullptr, fl.data(), out16.data(), d16, 2), last_band(h, 2));
    int worst = 0;
    for (size_t i = 0; i < samples; ++i) worst = std::max(worst, std::abs(out16[i] / 257 - one[i]));
    EXPECT_LE(worst, 1);
}

}  // namespace
