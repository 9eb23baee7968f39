// Exposure fusion: weights, pyramid steps, collapse and the bv_fusion driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "FusionLib/fusion.hpp"
#include "FusionLib/local/fusion_local.hpp"
#include "test_support.hpp"

namespace fu = bv::fusion;

namespace {

// A synthetic scene of w x h pixels seen through n brackets two stops apart:
// a left-to-right ramp over six stops with a textured bright window.
template <class T>
std::vector<T> brackets(int n, int w, int h, int ch, uint64_t seed = 1) {
    bvtest::Rng rng(seed);
    const double top = sizeof(T) == 1 ? 255.0 : (sizeof(T) == 2 ? 65535.0 : 1.0);
    std::vector<double> radiance(static_cast<size_t>(w) * h * ch);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < ch; ++c) {
                double r =
                    std::exp2(6.0 * x / w - 4.0) * (0.8 + 0.1 * c) * (1.0 + 0.3 * rng.uniform());
                if (x > w / 2 && y < h / 3) r *= 8.0;
                radiance[(static_cast<size_t>(y) * w + x) * ch + c] = r;
            }
    std::vector<T> out(radiance.size() * n);
    for (int i = 0; i < n; ++i)
        for (size_t s = 0; s < radiance.size(); ++s) {
            double v = std::pow(radiance[s] * std::exp2(2.0 * (i - n / 2)), 1 / 2.2);
            v = v > 1.0 ? 1.0 : v;
            out[i * radiance.size() + s] = static_cast<T>(sizeof(T) == 4 ? v : v * top);
        }
    return out;
}

// One bv_fusion call with the defaults of method 10 unless told otherwise.
struct Fusion {
    int n = 3, w = 37, h = 29, ch = 3, bitsIn = 8, bitsOut = 8, wbits = 16, acc = 16;
    int threads = 1, wrap = 0, rowOut = 0, bgr = 0;
    bool files = false;
    std::string dir;  // temporary files go here when files is set
    TmParam params{};
    const TmParam *colour = nullptr;
    const int32_t *slots = nullptr;
    const uint8_t *mask = nullptr;
    uint64_t scratch = 0;
    Fusion() { tmparam_default(10, 0, &params); }

    size_t bound() const { return static_cast<size_t>(static_cast<float>(w * h) * 1.5 + 0.5); }
    // Returns the status; `out` gets the picture bytes (rows as written).
    int run(const void *images, std::vector<uint8_t> *out, uint8_t fill = 0) {
        const size_t sb = bitsOut == 16 ? 2 : (bitsOut == 32 ? 4 : 1);
        const size_t stride =
            rowOut > 0 ? static_cast<size_t>(rowOut) : static_cast<size_t>(w) * ch;
        size_t bytes = 2 * ch * bound();
        const size_t picture = stride * h * sb;
        if (picture > bytes) bytes = picture;
        std::vector<uint8_t> buf(bytes + scratch, fill);
        DimParam d;
        init_dim_param(&d);
        d.width = w;
        d.height = h;
        d.channels = ch;
        d.bitsIn = bitsIn;
        d.bitsOut = bitsOut;
        d.rowOut = rowOut;
        d.bgr = bgr;
        const std::string s = dir + "/src", wm = dir + "/weights", pm = dir + "/pyramid";
        const uint64_t opts = static_cast<uint32_t>(threads) | (files ? (1ull << 32) : 0);
        const int rc = bv_fusion(nullptr, &params, colour, n, wbits, acc, 0.0f, opts, 0,
                                 files ? s.c_str() : nullptr, 0, files ? wm.c_str() : nullptr,
                                 files ? pm.c_str() : nullptr, 0, 0, 0, d, wrap, nullptr, images,
                                 slots, mask, scratch, buf.data());
        if (out) out->assign(buf.begin(), buf.begin() + picture);
        return rc;
    }
};

}  // namespace

TEST(FusionSmoke, Runs) {
    Fusion f;
    auto img = brackets<uint8_t>(3, f.w, f.h, 3);
    std::vector<uint8_t> out;
    ASSERT_EQ(f.run(img.data(), &out), 1);
    long sum = 0;
    for (auto v : out) sum += v;
    EXPECT_GT(sum, 0);
}

// One bracket with float weights and no detail boost comes back: exactly
// when there are no detail levels, else within the loss of the border
// kernels (their weights sum to 0.99977).
TEST(FusionRoundTrip, SingleBracketComesBack) {
    struct Case {
        int w, h, ch, bitsIn, wrap, tol;
    };
    const Case cases[] = {{37, 29, 3, 8, 0, 2}, {64, 48, 3, 8, 1, 2},    {33, 17, 1, 8, 0, 2},
                          {40, 31, 4, 8, 1, 2}, {37, 29, 3, 16, 0, 128}, {3, 3, 3, 8, 0, 0},
                          {2, 7, 3, 16, 1, 0},  {1, 1, 3, 8, 0, 0}};
    for (const Case &c : cases) {
        Fusion f;
        f.n = 1;
        f.w = c.w;
        f.h = c.h;
        f.ch = c.ch;
        f.bitsIn = f.bitsOut = c.bitsIn;
        f.wbits = 32;
        f.wrap = c.wrap;
        f.params.slot[8] = 0.0f;
        std::vector<uint8_t> out;
        int worst = 0;
        if (c.bitsIn == 8) {
            auto img = brackets<uint8_t>(1, c.w, c.h, c.ch, 7);
            ASSERT_EQ(f.run(img.data(), &out), 1);
            for (size_t s = 0; s < img.size(); ++s)
                worst = std::max(worst, std::abs(img[s] - out[s]));
        } else {
            auto img = brackets<uint16_t>(1, c.w, c.h, c.ch, 7);
            ASSERT_EQ(f.run(img.data(), &out), 1);
            const uint16_t *got = reinterpret_cast<const uint16_t *>(out.data());
            for (size_t s = 0; s < img.size(); ++s)
                worst = std::max(worst, std::abs((img[s] & 0xfffe) - got[s]));
        }
        EXPECT_LE(worst, c.tol) << c.w << "x" << c.h << " bits " << c.bitsIn;
    }
}

// ---- Pyramid steps: exact values ------------------------------------------

// Enlargement of one bright coarse sample V = 10000 into a fine level.
TEST(FusionExpand, ImpulseWeights) {
    struct Case {
        int cx, cy, fx, fy, wrap, want;
    };
    const Case cases[] = {
        {2, 2, 4, 4, 0, 5626},  // on the sample: 0.5626 as written
        {2, 2, 2, 4, 0, 937},   // two to the left: edge weight 0.09375
        {2, 2, 2, 2, 0, 156},   // diagonal: 0.0156 as written
        {2, 2, 5, 4, 0, 3750},  // between two coarse columns: 0.375
        {2, 2, 5, 2, 0, 625},   // beside them: 0.0625
        {2, 2, 4, 5, 0, 3750},  // between two coarse rows
        {2, 2, 5, 5, 0, 2500},  // both odd: mean of four
        {2, 2, 3, 3, 0, 2500},
        {0, 0, 0, 0, 0, 7657},  // corner: missing neighbours repeat the sample
        {0, 0, 0, 0, 1, 6563},  // wrapped: the left neighbour is the last column
        {0, 0, 9, 0, 1, 4375},  // last fine column reaches round to column 0
        {0, 0, 9, 0, 0, 0},
        {4, 2, 9, 4, 0, 7500},  // right edge repeats the last column
    };
    for (const Case &c : cases) {
        std::vector<uint16_t> coarse(25, 0);
        coarse[c.cy * 5 + c.cx] = 10000;
        std::vector<int32_t> row(10), work(10);
        fu::expand_row(coarse.data(), 5, 5, 1, 10, c.fy, c.wrap != 0, row.data(), work.data());
        EXPECT_EQ(row[c.fx], c.want) << "impulse " << c.cx << "," << c.cy << " at " << c.fx << ","
                                     << c.fy << " wrap " << c.wrap;
    }
}

// Reduction of a constant level: shifted terms inside, the [2, 1] / 3
// border kernel (weights 0.333, 0.1667, 0.0833...) truncated at the edges.
TEST(FusionReduce, ConstantLevels) {
    struct Case {
        int w, h, wrap, ox, oy;
        double want16, want8, wantf;
    };
    const Case cases[] = {
        {8, 8, 0, 1, 1, 32765, 200, 1.0},        {8, 8, 0, 0, 1, 32759, 199, 0.99976666},
        {8, 8, 0, 1, 0, 32759, 199, 0.99976666}, {8, 8, 0, 0, 0, 32766, 200, 1.0},
        {9, 8, 0, 4, 1, 32759, 199, 0.99976666}, {8, 8, 1, 0, 1, 32765, 200, 1.0},
        {9, 9, 1, 4, 4, 32759, 199, 0.99976666},
    };
    for (const Case &c : cases) {
        const size_t n = static_cast<size_t>(c.w) * c.h, ow = (c.w + 1) / 2,
                     on = ow * ((c.h + 1) / 2);
        std::vector<uint16_t> a(n, 32767), ao(on);
        std::vector<uint8_t> b(n, 200), bo(on);
        std::vector<float> f(n, 1.0f), fo(on);
        fu::reduce(a.data(), ao.data(), c.w, c.h, 1, c.wrap != 0, 1);
        fu::reduce(b.data(), bo.data(), c.w, c.h, 1, c.wrap != 0, 1);
        fu::reduce(f.data(), fo.data(), c.w, c.h, 1, c.wrap != 0, 1);
        const size_t at = c.oy * ow + c.ox;
        EXPECT_EQ(ao[at], c.want16) << c.w << "x" << c.h << " at " << c.ox << "," << c.oy;
        EXPECT_EQ(bo[at], c.want8) << c.w << "x" << c.h << " at " << c.ox << "," << c.oy;
        EXPECT_NEAR(fo[at], c.wantf, 1e-6) << c.w << "x" << c.h << " at " << c.ox << "," << c.oy;
    }
}

TEST(FusionPyramid, DepthAndLayout) {
    struct Case {
        int w, h, bitsOut, depth;
    };
    // log2 in double lands just below 3, 6 and 7 for 8, 64 and 128.
    const Case cases[] = {{3, 100, 8, 0},    {4, 4, 8, 1},        {7, 7, 8, 1},
                          {8, 9, 8, 1},      {9, 9, 8, 2},        {1, 1, 8, -1},
                          {128, 128, 8, 5},  {64, 64, 32, 4},     {300, 300, 8, 7},
                          {300, 300, 32, 6}, {6000, 4000, 8, 10}, {6000, 4000, 32, 9}};
    for (const Case &c : cases) EXPECT_EQ(fu::pyramid_depth(c.w, c.h, c.bitsOut), c.depth) << c.w;
    const fu::Levels lv = fu::level_layout(5, 3, 2);
    EXPECT_EQ(lv.count, 3);
    EXPECT_EQ(lv.w[1], 3);
    EXPECT_EQ(lv.h[2], 1);
    EXPECT_EQ(lv.off[3], 15u + 6u + 2u);
}

// ---- Detail gains ---------------------------------------------------------

TEST(FusionCollapse, MoireModes) {
    // D = 16: h = 8, q = 4, 7D/8 = 14, 13D/16 = 13.
    struct Case {
        int m, k;
        float g, want;
    };
    const Case cases[] = {
        {1, 3, 0.5f, 0.5f},   {1, 8, 0.5f, 0.0f},   {2, 8, 0.5f, 0.2f},   {3, 7, 0.5f, 0.7f},
        {3, 9, 0.5f, 0.0f},   {4, 9, 0.5f, 0.2f},   {5, 4, 0.4f, 0.4f},   {5, 5, 0.4f, 0.5f},
        {5, 13, 0.4f, 0.0f},  {5, 14, 0.4f, 0.6f},  {6, 10, 0.9f, 0.15f}, {6, 10, 0.1f, 0.1f},
        {6, 14, 0.9f, 1.35f}, {7, 13, 0.9f, 1.35f}, {7, 12, 0.9f, 0.15f}, {0, 12, 0.9f, 0.9f},
        {9, 12, 0.9f, 0.9f},
    };
    for (const Case &c : cases)
        EXPECT_NEAR(fu::fix_moire(c.m, c.k, 16, c.g), c.want, 1e-6) << "m " << c.m << " k " << c.k;
}

TEST(FusionCollapse, LevelStrengthsAndDetailTable) {
    // s = 10, D = 8: c = 0.4, h = 4.
    struct Case {
        float s;
        int k;
        float want;
    };
    const Case cases[] = {{10, 0, 14.0f},        {10, 2, 12.0f},        {10, 4, 10.0f},
                          {10, 6, 10.0f / 1.2f}, {10, 8, 10.0f / 1.4f}, {4, 0, 4.0f},
                          {5, 7, 5.0f}};
    for (const Case &c : cases)
        EXPECT_NEAR(fu::level_strength(c.s, c.k, 8), c.want, 1e-5) << c.s << " " << c.k;
    std::vector<int32_t> t(65536);
    fu::detail_table(2.0f, 0, 0, 8, t.data());
    EXPECT_EQ(t[32767], 0);
    EXPECT_EQ(t[32767 + 1000], 1251);
    EXPECT_EQ(t[32767 - 200], -278);
    fu::detail_table(0.0f, 6, 0, 8, t.data());
    EXPECT_EQ(t[32767 + 1000], 1000);
    EXPECT_EQ(t[0], -32767);
}

// ---- Exposure curves and weights -----------------------------------------

TEST(FusionWeights, ExposureCurves) {
    std::vector<float> lut(256);
    fu::exposure_lut(0.0f, 0.0, 256, lut.data());
    EXPECT_EQ(lut[128], 1.0f);
    EXPECT_FLOAT_EQ(lut[0], 0.043936945f);
    fu::exposure_lut(1.0f, 0.0, 256, lut.data());  // a = b = 2
    EXPECT_FLOAT_EQ(lut[64], 0.75f);
    EXPECT_FLOAT_EQ(lut[200], 0.22903034f);
    EXPECT_EQ(lut[0], 0.0f);
    EXPECT_EQ(lut[211], 0.0f);                     // the upper branch ends near 82 %
    fu::exposure_lut(2.0f, 0.1, 256, lut.data());  // b on its ramp: 2.3333
    EXPECT_FLOAT_EQ(lut[64], 0.80157487f);
    fu::exposure_lut(2.0f, 0.3, 256, lut.data());  // b = 3
    EXPECT_FLOAT_EQ(lut[64], 0.875f);
    std::vector<float> boost(65536);
    fu::boost_lut(0.0f, false, boost.data());
    EXPECT_FLOAT_EQ(boost[0], 0.99999857f);
    EXPECT_FLOAT_EQ(boost[32768], 2.6651366f);
    fu::boost_lut(-5.0f, false, boost.data());
    EXPECT_FLOAT_EQ(boost[32768], 1.999996f);
    fu::boost_lut(2.5f, false, boost.data());  // e = 2^1
    EXPECT_FLOAT_EQ(boost[32768], 3.999984f);
    fu::boost_lut(3.0f, true, boost.data());
    EXPECT_EQ(boost[32768], 0.5f);
}

TEST(FusionWeights, RankFactorsAndRounding) {
    const int32_t order[5] = {3, 0, 4, 1, 2};
    float f[5];
    fu::image_factors(5, order, 4.0f, f);
    EXPECT_FLOAT_EQ(f[3], 4.0f);
    EXPECT_FLOAT_EQ(f[0], 2.0f);
    EXPECT_FLOAT_EQ(f[4], 1.0f);
    EXPECT_FLOAT_EQ(f[1], 0.5f);
    EXPECT_FLOAT_EQ(f[2], 0.25f);
    fu::image_factors(5, order, 20.0f, f);
    EXPECT_FLOAT_EQ(f[2], 0.1f);
    fu::image_factors(5, order, 0.9f, f);  // integer part 0: not applied
    EXPECT_EQ(f[3], 0.0f);
    fu::image_factors(1, order, 4.0f, f);
    EXPECT_EQ(f[0], 0.0f);
    struct Case {
        float w, sum;
        int bits, want;
    };
    const Case cases[] = {{3, 512, 8, 1},     {3.0001f, 512, 8, 2}, {1, 1, 8, 255},
                          {0, 0, 8, 0},       {1, 3, 16, 21845},    {2, 3, 16, 43691},
                          {5, 1024, 16, 320}, {1, 131072, 16, 0}};
    for (const Case &c : cases)
        EXPECT_EQ(fu::quantise_weight(c.w, c.sum, c.bits), c.want) << c.w << "/" << c.sum;
}

// Grey brackets of one value each: luma bin = value.
TEST(FusionStats, KeysPercentagesAndOrder) {
    const int w = 10, h = 10, n = 7;
    const uint8_t grey[n] = {3, 100, 252, 253, 240, 10, 100};
    const uint32_t key[n] = {3, 25600, 64512, 65536 + 253, 61440, 2560, 25600};
    const int32_t order[n] = {3, 2, 4, 1, 6, 5, 0};  // equal keys: lower index first
    for (int bits : {8, 16}) {
        std::vector<uint16_t> s16(static_cast<size_t>(n) * w * h * 3);
        std::vector<uint8_t> s8(s16.size());
        for (size_t s = 0; s < s16.size(); ++s) {
            s8[s] = grey[s / (w * h * 3)];
            s16[s] = static_cast<uint16_t>(s8[s] * 257);
        }
        uint32_t dark[n], bright[n], sat[n], k[n];
        int32_t ord[n];
        ASSERT_EQ(
            fu::stats_order_photos(n, w, h, 3, bits,
                                   bits == 8 ? static_cast<const void *>(s8.data()) : s16.data(),
                                   dark, bright, sat, k, ord),
            0);
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(k[i], key[i]) << "bracket " << i << " bits " << bits;
            EXPECT_EQ(ord[i], order[i]) << i;
            EXPECT_EQ(dark[i], grey[i] <= 15 ? 100u : 0u) << i;
            EXPECT_EQ(bright[i], grey[i] >= 233 ? 100u : 0u) << i;
            EXPECT_EQ(sat[i], grey[i] > 250 ? 100u : 0u) << i;
        }
    }
    // Half black, half 200: the running count must exceed half, so 200 wins.
    std::vector<uint8_t> half(w * h * 3, 0);
    std::fill(half.begin() + half.size() / 2, half.end(), 200);
    uint32_t d, b, s, k;
    int32_t o;
    ASSERT_EQ(fu::stats_order_photos(1, w, h, 3, 8, half.data(), &d, &b, &s, &k, &o), 0);
    EXPECT_EQ(k, 200u * 256u);
    EXPECT_EQ(d, 50u);
}

// The weight stage on three tiny brackets: normalisation, the ghost
// override, all-zero weights and a lone bracket.
TEST(FusionWeights, Maps) {
    const int w = 4, h = 2, P = w * h;
    std::vector<uint8_t> img(3 * P * 3);
    for (int i = 0; i < 3; ++i)
        for (int p = 0; p < P * 3; ++p)
            img[i * P * 3 + p] = static_cast<uint8_t>(p % 3 == 0 && i == 1 ? 0 : 128);
    std::fill(img.begin(), img.begin() + 3, 0);  // pixel 0 black in all
    std::fill(img.begin() + P * 3, img.begin() + P * 3 + 3, 0);
    std::fill(img.begin() + 2 * P * 3, img.begin() + 2 * P * 3 + 3, 0);
    std::vector<float> luts(3 * 256), boost(65536), factors(3, 0.0f);
    for (int i = 0; i < 3; ++i) fu::exposure_lut(1.0f, 0.0, 256, luts.data() + i * 256);
    fu::boost_lut(0.0f, true, boost.data());  // float output: Boost[0] = 0
    const void *rows[3] = {img.data(), img.data() + P * 3, img.data() + 2 * P * 3};
    // Image 2 owns slot 0 (pixels 2 and 3), image 0 slot 1 (pixel 3).
    const int32_t slots[3] = {1, -1, 0};
    const uint8_t mask[2] = {0x30, 0x10};
    fu::WeightJob job;
    job.n = 3;
    job.width = w;
    job.rows = rows;
    job.luts = luts.data();
    job.boost = boost.data();
    job.factors = factors.data();
    job.maskPlane = P;
    job.planeStride = P;
    for (int bits : {8, 16, 32}) {
        std::vector<float> f(3 * P);
        std::vector<uint16_t> q(3 * P);
        std::vector<uint8_t> b(3 * P);
        job.weightBits = bits;
        job.planes = bits == 32   ? static_cast<void *>(f.data())
                     : bits == 16 ? static_cast<void *>(q.data())
                                  : b.data();
        job.ghostSlots = nullptr;
        ASSERT_EQ(fu::adj1b_threaded(job, h, 2), 0);
        auto at = [&](int i, int p) {
            return bits == 32 ? f[i * P + p] : bits == 16 ? q[i * P + p] : b[i * P + p];
        };
        const float full = bits == 32 ? 1.0f : static_cast<float>((1 << bits) - 1);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(at(i, 0), 0.0f) << "all-zero weights, bits " << bits;
        // Images 0 and 2 share their weight; image 1 (red 0) weighs less.
        EXPECT_EQ(at(0, 1), at(2, 1));
        EXPECT_LT(at(1, 1), at(0, 1));
        job.ghostSlots = slots;
        job.ghostMask = mask;
        ASSERT_EQ(fu::adj1b_threaded(job, h, 1), 0);
        EXPECT_EQ(at(2, 2), full) << bits;
        EXPECT_EQ(at(0, 2), 0.0f);
        EXPECT_EQ(at(0, 3), full);  // both selected: the lower index wins
        EXPECT_EQ(at(2, 3), 0.0f);
        EXPECT_EQ(at(0, 1), at(2, 1));  // unselected pixels keep their weights
        job.ghostSlots = nullptr;
    }
    job.n = 1;
    std::vector<uint8_t> one(P);
    job.weightBits = 8;
    job.planes = one.data();
    ASSERT_EQ(fu::adj1b_threaded(job, h, 3), 0);
    EXPECT_EQ(one, std::vector<uint8_t>(P, 255));  // even where the bracket is black
}

// ---- The driver -------------------------------------------------------------

namespace {

// Stacks of every input depth for the driver tests.
struct Stack {
    std::vector<uint8_t> b8;
    std::vector<uint16_t> b16;
    std::vector<float> f32;
    const void *get(int bits) const {
        return bits == 8    ? static_cast<const void *>(b8.data())
               : bits == 16 ? static_cast<const void *>(b16.data())
                            : f32.data();
    }
};
Stack make_stack(const Fusion &f, uint64_t seed = 3) {
    return {brackets<uint8_t>(f.n, f.w, f.h, f.ch, seed),
            brackets<uint16_t>(f.n, f.w, f.h, f.ch, seed),
            brackets<float>(f.n, f.w, f.h, f.ch, seed)};
}

// Configurations that reach every weight width, input depth and option.
struct Config {
    const char *name;
    int n, w, h, ch, bitsIn, bitsOut, wbits, acc, wrap, rowOut, bgr;
    float detail, moire, curve, boost, rank;
};
const Config kConfigs[] = {
    {"8-bit default", 3, 61, 43, 3, 8, 8, 16, 16, 0, 0, 0, 2, 0, 0, 0, 0},
    {"8-bit weights, wrap", 4, 64, 40, 3, 8, 16, 8, 16, 1, 0, 0, 10, 6, 1.5f, 2, 3},
    {"16-bit, strided bgr", 5, 50, 37, 3, 16, 16, 16, 16, 0, 160, 1, 7, 7, 0, -3, -2},
    {"float", 3, 45, 45, 3, 32, 32, 32, 32, 1, 0, 0, 3, 2, 2, 1, 1},
    {"grey", 3, 33, 70, 1, 8, 8, 32, 16, 0, 0, 0, 2, 0, 0, 0, 0},
    {"tiny", 3, 3, 2, 3, 16, 8, 16, 16, 1, 0, 0, 2, 0, 0, 0, 0},
};

Fusion configured(const Config &c) {
    Fusion f;
    f.n = c.n;
    f.w = c.w;
    f.h = c.h;
    f.ch = c.ch;
    f.bitsIn = c.bitsIn;
    f.bitsOut = c.bitsOut;
    f.wbits = c.wbits;
    f.acc = c.acc;
    f.wrap = c.wrap;
    f.rowOut = c.rowOut;
    f.bgr = c.bgr;
    f.params.slot[8] = c.detail;
    f.params.slot[13] = c.moire;
    f.params.slot[2] = c.curve;
    f.params.slot[0] = c.boost;
    f.params.slot[1] = c.rank;
    return f;
}

}  // namespace

// The same picture for 1, 2, 3 and 7 threads, and through temporary files.
TEST(FusionDriver, ThreadsAndFilesGiveOnePicture) {
    const std::string dir = bvtest::temp_path("fusion");
    ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
    for (const Config &c : kConfigs) {
        Fusion f = configured(c);
        const Stack s = make_stack(f);
        std::vector<uint8_t> ref, out;
        ASSERT_EQ(f.run(s.get(c.bitsIn), &ref), 1) << c.name;
        for (int t : {2, 3, 7}) {
            f.threads = t;
            ASSERT_EQ(f.run(s.get(c.bitsIn), &out), 1) << c.name;
            EXPECT_EQ(out, ref) << c.name << " threads " << t;
        }
        f.files = true;
        f.dir = dir;
        ASSERT_EQ(f.run(s.get(c.bitsIn), &out), 1) << c.name;
        EXPECT_EQ(out, ref) << c.name << " temporary files";
        // Unusable paths fall back to memory.
        f.dir = dir + "/missing";
        ASSERT_EQ(f.run(s.get(c.bitsIn), &out), 1) << c.name;
        EXPECT_EQ(out, ref) << c.name << " fallback";
    }
}

// The caller's scratch, whole or partial, holds the accumulator and the
// weights without changing a bit; every failed allocation gives -4.
TEST(FusionDriver, ScratchPlacementAndAllocationFailures) {
    for (int cfg : {3, 2}) {  // float output and padded rows put the scratch after the picture
        Fusion f = configured(kConfigs[cfg]);
        const Stack s = make_stack(f);
        std::vector<uint8_t> ref, out;
        ASSERT_EQ(f.run(s.get(f.bitsIn), &ref), 1);
        uint64_t need = 0;
        ASSERT_EQ(mem4fusion(1, f.n, f.wbits, f.acc, &need, 0,
                             static_cast<uint64_t>(f.w) | static_cast<uint64_t>(f.h) << 32, f.ch),
                  1);
        for (uint64_t budget : {need, need / 2}) {
            f.scratch = budget;
            ASSERT_EQ(f.run(s.get(f.bitsIn), &out), 1);
            EXPECT_EQ(out, ref) << kConfigs[cfg].name << " budget " << budget;
        }
    }
    Fusion f = configured(kConfigs[1]);
    const Stack s = make_stack(f);
    std::vector<uint8_t> ref, out;
    ASSERT_EQ(f.run(s.get(8), &ref), 1);
    uint64_t need = 0;
    ASSERT_EQ(mem4fusion(1, f.n, f.wbits, f.acc, &need, 0,
                         static_cast<uint64_t>(f.w) | static_cast<uint64_t>(f.h) << 32, f.ch),
              1);
    for (uint64_t budget : {need, need - 1, need / 2, uint64_t{1}}) {
        f.scratch = budget;
        ASSERT_EQ(f.run(s.get(8), &out), 1);
        EXPECT_EQ(out, ref) << "budget " << budget;
    }
    for (uint64_t budget : {uint64_t{0}, need}) {
        f.scratch = budget;
        int ok = 0;
        for (long nth = 0; nth < 40 && ok < 3; ++nth) {
            int rc;
            {
                bvtest::FailAllocation fail(nth);
                rc = f.run(s.get(8), &out);
            }
            if (rc == 1) {
                ++ok;
                EXPECT_EQ(out, ref) << "allocation " << nth;
            } else {
                EXPECT_EQ(rc, BV_FU_ENOMEM) << "allocation " << nth;
            }
        }
        EXPECT_GT(ok, 0);
    }
}

// With the wrap flag, a stack whose left and right edges differ changes
// only columns near the edges.
TEST(FusionDriver, WrapTouchesOnlyTheEdges) {
    Fusion f;
    f.w = 256;
    f.h = 24;  // D = 3
    const Stack s = make_stack(f);
    std::vector<uint8_t> plain, wrapped;
    ASSERT_EQ(f.run(s.b8.data(), &plain), 1);
    f.wrap = 1;
    ASSERT_EQ(f.run(s.b8.data(), &wrapped), 1);
    int first = f.w, last = -1;
    for (int y = 0; y < f.h; ++y)
        for (int x = 0; x < f.w; ++x)
            for (int c = 0; c < 3; ++c) {
                const size_t at = (static_cast<size_t>(y) * f.w + x) * 3 + c;
                if (plain[at] == wrapped[at]) continue;
                if (x < f.w / 2)
                    last = std::max(last, x);
                else
                    first = std::min(first, x);
            }
    EXPECT_GE(last, 0) << "the wrap flag changed nothing";
    EXPECT_LT(last, 32);
    EXPECT_GE(first, f.w - 32);
}

TEST(FusionDriver, BadArguments) {
    struct Case {
        const char *what;
        int bitsIn, bitsOut, wbits, acc, n, ch, rowOut, want;
    };
    const Case cases[] = {
        {"float input, 16-bit accumulator", 32, 32, 16, 16, 3, 3, 0, BV_FU_EDEPTH},
        {"float input, 8-bit output", 32, 8, 16, 32, 3, 3, 0, BV_FU_EDEPTH},
        {"12-bit input", 12, 8, 16, 16, 3, 3, 0, BV_FU_EDEPTH},
        {"12-bit weights", 8, 8, 12, 16, 3, 3, 0, BV_FU_EDEPTH},
        {"8-bit accumulator", 8, 8, 16, 8, 3, 3, 0, BV_FU_EDEPTH},
        {"no brackets", 8, 8, 16, 16, 0, 3, 0, BV_FU_EBADARG},
        {"5 channels", 8, 8, 16, 16, 3, 5, 0, BV_FU_EBADARG},
        {"short rows", 8, 8, 16, 16, 3, 3, 10, BV_FU_EBADARG},
    };
    const std::vector<float> stack(3 * 16 * 16 * 5, 0.5f);
    for (const Case &c : cases) {
        Fusion f;
        f.w = f.h = 16;
        f.bitsIn = c.bitsIn;
        f.bitsOut = c.bitsOut;
        f.wbits = c.wbits;
        f.acc = c.acc;
        f.n = c.n;
        f.ch = c.ch;
        f.rowOut = c.rowOut;
        EXPECT_EQ(f.run(stack.data(), nullptr), c.want) << c.what;
    }
    Fusion f;
    EXPECT_EQ(f.run(nullptr, nullptr), BV_FU_EBADARG);
    uint64_t need = 7;
    EXPECT_EQ(mem4fusion(3, 3, 16, 16, &need, 0, 100 | (100ull << 32), 3), BV_FU_EBADARG);
    EXPECT_EQ(need, 7u);
    // 100 x 100: P = 10000, L = 15000.
    ASSERT_EQ(mem4fusion(1, 3, 16, 16, &need, 0, 100 | (100ull << 32), 3), 1);
    EXPECT_EQ(need, (2u * 10000 + 15000) * 2 + 2u * 3 * 15000);
    ASSERT_EQ(mem4fusion(2, 3, 8, 32, &need, 0, 100 | (100ull << 32), 3), 1);
    EXPECT_EQ(need, 4u * 3 * 15000 + 4 * 15000 + 2 * (3 * 10000 + 4 * 3 * 15000));
}

// A 32-bit accumulator on 8-bit input: the collapse writes nothing.
TEST(FusionDriver, WideAccumulatorLeavesOutput) {
    Fusion f;
    f.acc = 32;
    const Stack s = make_stack(f);
    std::vector<uint8_t> out;
    ASSERT_EQ(f.run(s.b8.data(), &out, 0x5a), 1);
    EXPECT_EQ(out, std::vector<uint8_t>(out.size(), 0x5a));
    f.params.slot[19] = 1.0f;  // pyramid fusion skipped: likewise
    f.acc = 16;
    ASSERT_EQ(f.run(s.b8.data(), &out, 0x33), 1);
    EXPECT_EQ(out, std::vector<uint8_t>(out.size(), 0x33));
}

namespace {
std::vector<float> g_progress;
int g_cancel_at = -1;
void record_progress(int32_t *cancel, float v) {
    g_progress.push_back(v);
    if (static_cast<int>(g_progress.size()) == g_cancel_at) *cancel = 1;
}
}  // namespace

TEST(FusionDriver, ProgressCancelAndTwoPassSlots) {
    Fusion f;
    f.n = 4;
    const Stack s = make_stack(f);
    std::vector<uint8_t> buf(2 * 3 * f.bound());
    DimParam d;
    init_dim_param(&d);
    d.width = f.w;
    d.height = f.h;
    auto call = [&](TmParam *p, const TmParam *colour, void *copy) {
        return bv::fusion::bv_fusion5(record_progress, p, colour, f.n, 16, 16, 0, 2, 1, nullptr, 0,
                                      nullptr, nullptr, 0, 0, 0, d, 0, nullptr, copy, s.b8.data(),
                                      nullptr, nullptr, 0, buf.data());
    };
    g_progress.clear();
    g_cancel_at = -1;
    std::vector<uint8_t> copy(static_cast<size_t>(f.w) * f.h * 3);
    ASSERT_EQ(call(&f.params, nullptr, copy.data()), 1);
    ASSERT_EQ(g_progress.size(), 4u);
    EXPECT_FLOAT_EQ(g_progress[0], 0.3f);
    EXPECT_FLOAT_EQ(g_progress[3], 0.3f + 3 * 0.5f / 4);
    EXPECT_TRUE(std::equal(copy.begin(), copy.end(), buf.begin()));
    g_progress.clear();
    g_cancel_at = 2;
    EXPECT_EQ(call(&f.params, nullptr, nullptr), BV_FU_ECANCEL);
    g_cancel_at = -1;

    // Colour settings reach the final adjustment.
    TmParam colour{};
    colour.slot[13] = -10.0f;  // fully desaturated
    ASSERT_EQ(call(&f.params, &colour, copy.data()), 1);
    for (size_t p = 0; p < copy.size(); p += 3) {
        ASSERT_LE(std::abs(copy[p] - copy[p + 1]), 1) << p;
    }

    // Two-pass mode rewrites its slots and restores the rank bias.
    TmParam p = f.params;
    p.slot[9] = 1.0f;
    p.slot[0] = 3.0f;
    p.slot[1] = 2.0f;
    p.slot[2] = 1.5f;
    g_progress.clear();
    ASSERT_EQ(call(&p, nullptr, nullptr), 1);
    EXPECT_EQ(p.slot[0], 0.0f);
    EXPECT_EQ(p.slot[1], 2.0f);
    EXPECT_EQ(p.slot[2], 0.0f);
    EXPECT_EQ(p.slot[10], 5.625f);
    EXPECT_EQ(p.slot[18], 1.0f);
    EXPECT_EQ(bv::fusion::InterpolationInterval, 85);
    ASSERT_GE(g_progress.size(), 4u);
    EXPECT_FLOAT_EQ(g_progress[1], 0.12f + 0.2f / 4);
}

// A temporary file that cannot take the bracket stack sends the fusion back
// to memory; one that cannot take the weight maps fails with -2.
TEST(FusionDriver, FullDisk) {
    if (std::FILE *probe = std::fopen("/dev/full", "wb+"))
        std::fclose(probe);
    else
        GTEST_SKIP() << "/dev/full is not available";
    Fusion f;
    f.n = 4;
    const Stack s = make_stack(f);
    std::vector<uint8_t> ref, out;
    ASSERT_EQ(f.run(s.b8.data(), &ref), 1);
    const std::string dir = bvtest::temp_path("fusion-full");
    ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
    DimParam d;
    init_dim_param(&d);
    d.width = f.w;
    d.height = f.h;
    std::vector<uint8_t> buf(2 * 3 * f.bound());
    const std::string wm = dir + "/w", pm = dir + "/p";
    auto call = [&](const char *src, const char *w) {
        return bv_fusion(nullptr, &f.params, nullptr, f.n, 16, 16, 0, 2 | (1ull << 32), 0, src, 0,
                         w, pm.c_str(), 0, 0, 0, d, 0, nullptr, s.b8.data(), nullptr, nullptr, 0,
                         buf.data());
    };
    ASSERT_EQ(call("/dev/full", wm.c_str()), 1);
    EXPECT_TRUE(std::equal(ref.begin(), ref.end(), buf.begin()));
    EXPECT_EQ(call((dir + "/s").c_str(), "/dev/full"), BV_FU_EDEPTH);
}

// Channel order and row length only move samples: the bgr, padded picture
// holds the packed one's samples with first and last exchanged.
TEST(FusionDriver, ChannelOrderAndRowLength) {
    Fusion f = configured(kConfigs[2]);
    const Stack s = make_stack(f);
    std::vector<uint8_t> moved, packed;
    ASSERT_EQ(f.run(s.b16.data(), &moved), 1);
    f.bgr = 0;
    f.rowOut = 0;
    ASSERT_EQ(f.run(s.b16.data(), &packed), 1);
    const uint16_t *m = reinterpret_cast<const uint16_t *>(moved.data());
    const uint16_t *p = reinterpret_cast<const uint16_t *>(packed.data());
    for (int y = 0; y < f.h; ++y)
        for (int x = 0; x < f.w; ++x)
            for (int c = 0; c < 3; ++c)
                ASSERT_EQ(m[y * kConfigs[2].rowOut + x * 3 + (2 - c)], p[(y * f.w + x) * 3 + c])
                    << x << "," << y;
}

// Fixed pictures: a hash of each configuration's output, recorded once the
// properties above held. Any change to the arithmetic shows here; a
// deliberate one records new hashes.
TEST(FusionDriver, RecordedPictures) {
    const uint64_t want[] = {17392792791196097622ull, 11303527165731497913ull,
                             6015312499083946450ull,  9891788489829587607ull,
                             10799651690511834130ull, 18428767041100578971ull};
    for (size_t i = 0; i < std::size(kConfigs); ++i) {
        Fusion f = configured(kConfigs[i]);
        const Stack s = make_stack(f);
        std::vector<uint8_t> out;
        ASSERT_EQ(f.run(s.get(f.bitsIn), &out), 1);
        uint64_t h = 1469598103934665603ull;
        for (uint8_t b : out) h = (h ^ b) * 1099511628211ull;
        EXPECT_EQ(h, want[i]) << kConfigs[i].name;
    }
}
