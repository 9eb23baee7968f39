// Exposure fusion: weights, pyramid steps, collapse and the bv_fusion driver.
#include <filesystem>
#include <utility>

#include "FusionLib/fusion.hpp"
#include "FusionLib/local/fusion_local.hpp"
#include "test_support.hpp"

namespace fu = bv::fusion;
using bvtest::Bytes;

namespace {

// Brackets, size, channels, depths in/out, weight/accumulator bits, wrap, row, bgr.
struct Shape {
    int n, w, h, ch, bitsIn, bitsOut, wbits, acc, wrap, rowOut, bgr;
};

// n brackets two stops apart of a six-stop ramp with a bright textured window.
Bytes stack(const Shape &s, uint64_t seed = 3) {
    bvtest::Rng rng(seed);
    const size_t count = size_t(s.w) * s.h * s.ch, sb = s.bitsIn / 8;
    std::vector<double> radiance(count);
    for (size_t i = 0; i < count; ++i) {
        const int x = int(i / s.ch % s.w), y = int(i / s.ch / s.w), c = int(i % s.ch);
        radiance[i] = std::exp2(6.0 * x / s.w - 4.0) * (0.8 + 0.1 * c) *
                      (1.0 + 0.3 * rng.uniform()) * (x > s.w / 2 && y < s.h / 3 ? 8.0 : 1.0);
    }
    Bytes out(count * s.n * sb);
    for (size_t b = 0; b < size_t(s.n); ++b)
        for (size_t i = 0; i < count; ++i) {
            const double v =
                std::min(1.0, std::pow(radiance[i] * std::exp2(2.0 * (int(b) - s.n / 2)), 1 / 2.2));
            const uint8_t q8 = uint8_t(v * 255.0);
            const uint16_t q16 = uint16_t(v * 65535.0);
            const float f = float(v);
            const void *from = sb == 1 ? &q8 : sb == 2 ? static_cast<const void *>(&q16) : &f;
            std::memcpy(&out[(b * count + i) * sb], from, sb);
        }
    return out;
}

// Sample i of a picture or stack of the given depth.
double sample(const Bytes &b, int bits, size_t i) {
    uint16_t q;
    float f;
    if (bits == 8) return b[i];
    return bits == 16 ? (std::memcpy(&q, &b[2 * i], 2), q) : (std::memcpy(&f, &b[4 * i], 4), f);
}

// One bv_fusion call with the defaults of method 10 unless told otherwise.
struct Fusion : Shape {
    int threads = 1;
    std::string dir;              // temporary files go here when set
    std::string src, weights;     // instead of the names in dir
    bv_progress_cb progress = nullptr;
    void *copy = nullptr;
    TmParam params{};
    const TmParam *colour = nullptr;
    uint64_t scratch = 0;
    explicit Fusion(Shape s = {3, 37, 29, 3, 8, 8, 16, 16, 0, 0, 0}) : Shape(s) {
        tmparam_default(10, 0, &params);
    }
    // The status; `out` gets the picture (a callback or copy: internal driver).
    int run(const void *images, Bytes *out, uint8_t fill = 0) {
        const size_t sb = bitsOut / 8, stride = rowOut > 0 ? rowOut : size_t(w) * ch;
        const size_t picture = stride * h * sb;
        const size_t bound = size_t(float(w * h) * 1.5 + 0.5);
        Bytes buf(std::max(2 * ch * bound, picture) + scratch, fill);
        DimParam d = bvtest::dim_param(w, h, ch, bitsIn, bitsOut);
        d.rowOut = rowOut, d.bgr = bgr;
        const bool files = !dir.empty();
        const std::string s = src.empty() ? dir + "/src" : src, pm = dir + "/pyramid",
                          wm = weights.empty() ? dir + "/weights" : weights;
        const char *sp = files ? s.c_str() : nullptr, *wp = files ? wm.c_str() : nullptr,
                   *pp = files ? pm.c_str() : nullptr;
        const uint64_t opts = static_cast<uint32_t>(threads) | (files ? (1ull << 32) : 0);
        const int rc =
            progress || copy
                ? fu::bv_fusion5(progress, &params, colour, n, wbits, acc, 0.0f, opts, 0, sp, 0,
                                 wp, pp, 0, 0, 0, d, wrap, nullptr, copy, images, nullptr,
                                 nullptr, scratch, buf.data())
                : bv_fusion(nullptr, &params, colour, n, wbits, acc, 0.0f, opts, 0, sp, 0, wp, pp,
                            0, 0, 0, d, wrap, nullptr, images, nullptr, nullptr, scratch,
                            buf.data());
        if (out) out->assign(buf.begin(), buf.begin() + picture);
        return rc;
    }
    Bytes picture(const Bytes &in) {
        Bytes out;
        EXPECT_EQ(run(in.data(), &out), 1);
        return out;
    }
};

// A bgr picture with rows of `row` samples holds the packed RGB one's samples.
void expect_moved(const Bytes &moved, const Bytes &packed, int bits, int w, int row) {
    for (size_t s = 0; s < packed.size() * 8 / bits; ++s)
        ASSERT_EQ(sample(moved, bits, s / 3 / w * row + s / 3 % w * 3 + 2 - s % 3),
                  sample(packed, bits, s))
            << "sample " << s;
}

// Every weight width, input depth and option: detail, moire, curve, boost, rank.
struct Config {
    const char *name;
    Shape s;
    float detail, moire, curve, boost, rank;
    Fusion fusion() const {
        Fusion f(s);
        f.params = bvtest::tm_slots({{8, detail}, {13, moire}, {2, curve}, {0, boost}, {1, rank}},
                                    f.params);
        return f;
    }
};
const Config kConfigs[] = {
    {"8-bit default", {3, 61, 43, 3, 8, 8, 16, 16, 0, 0, 0}, 2, 0, 0, 0, 0},
    {"8-bit weights, wrap", {4, 64, 40, 3, 8, 16, 8, 16, 1, 0, 0}, 10, 6, 1.5f, 2, 3},
    {"16-bit, strided bgr", {5, 50, 37, 3, 16, 16, 16, 16, 0, 160, 1}, 7, 7, 0, -3, -2},
    {"float", {3, 45, 45, 3, 32, 32, 32, 32, 1, 0, 0}, 3, 2, 2, 1, 1},
    {"grey", {3, 33, 70, 1, 8, 8, 32, 16, 0, 0, 0}, 2, 0, 0, 0, 0},
    {"tiny", {3, 3, 2, 3, 16, 8, 16, 16, 1, 0, 0}, 2, 0, 0, 0, 0},
};

}  // namespace

// One bracket comes back, within the border kernels' loss (they sum to 0.99977).
TEST(FusionRoundTrip, SingleBracketComesBack) {
    const std::pair<Shape, int> cases[] = {
        {{1, 37, 29, 3, 8, 8, 32, 16, 0, 0, 0}, 2},    {{1, 64, 48, 3, 8, 8, 32, 16, 1, 0, 0}, 2},
        {{1, 33, 17, 1, 8, 8, 32, 16, 0, 0, 0}, 2},    {{1, 40, 31, 4, 8, 8, 32, 16, 1, 0, 0}, 2},
        {{1, 37, 29, 3, 16, 16, 32, 16, 0, 0, 0}, 128}, {{1, 3, 3, 3, 8, 8, 32, 16, 0, 0, 0}, 0},
        {{1, 2, 7, 3, 16, 16, 32, 16, 1, 0, 0}, 0},    {{1, 1, 1, 3, 8, 8, 32, 16, 0, 0, 0}, 0}};
    for (const auto &[s, tol] : cases) {
        Fusion f(s);
        f.params.slot[8] = 0.0f;
        const Bytes in = stack(s, 7), out = f.picture(in);
        const int mask = s.bitsIn == 16 ? 0xfffe : 0xff;
        double worst = 0;
        for (size_t i = 0; i < size_t(s.w) * s.h * s.ch; ++i)
            worst = std::max(worst, std::abs((int(sample(in, s.bitsIn, i)) & mask) -
                                             sample(out, s.bitsIn, i)));
        EXPECT_LE(worst, tol) << s.w << "x" << s.h << " bits " << s.bitsIn;
    }
}

// ---- Pyramid steps: exact values ------------------------------------------

// An impulse of 10000 at cx, cy of a 5 x 5 level, enlarged, read at fx, fy.
TEST(FusionExpand, ImpulseWeights) {
    const int cases[][6] = {
        // cx, cy, fx, fy, wrap, want
        {2, 2, 4, 4, 0, 5626}, {2, 2, 2, 4, 0, 937}, {2, 2, 2, 2, 0, 156},  // on, edge, diagonal
        {2, 2, 5, 4, 0, 3750}, {2, 2, 5, 2, 0, 625}, {2, 2, 4, 5, 0, 3750},  // between samples
        {2, 2, 5, 5, 0, 2500}, {2, 2, 3, 3, 0, 2500},                        // both odd: mean of 4
        {0, 0, 0, 0, 0, 7657}, {0, 0, 0, 0, 1, 6563},  // corner repeats; wrapped reads the last
        {0, 0, 9, 0, 1, 4375}, {0, 0, 9, 0, 0, 0},     // last column reaches round to column 0
        {4, 2, 9, 4, 0, 7500},                         // right edge repeats the last column
    };
    for (const auto &c : cases) {
        std::vector<uint16_t> coarse(25, 0);
        coarse[c[1] * 5 + c[0]] = 10000;
        std::vector<int32_t> row(10), work(10);
        fu::expand_row(coarse.data(), 5, 5, 1, 10, c[3], c[4] != 0, row.data(), work.data());
        EXPECT_EQ(row[c[2]], c[5]) << "impulse " << c[0] << "," << c[1] << " at " << c[2] << ","
                                   << c[3] << " wrap " << c[4];
    }
}

// A constant level reduced: the truncated [2, 1] / 3 border kernel at the edges.
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
        const size_t ow = (c.w + 1) / 2;
        auto at = [&](auto v) {  // a constant level of v, reduced, at ox, oy
            std::vector<decltype(v)> in(size_t(c.w) * c.h, v), out(ow * ((c.h + 1) / 2));
            fu::reduce(in.data(), out.data(), c.w, c.h, 1, c.wrap != 0, 1);
            return double(out[c.oy * ow + c.ox]);
        };
        SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " at " << c.ox << "," << c.oy);
        EXPECT_EQ(at(uint16_t(32767)), c.want16);
        EXPECT_EQ(at(uint8_t(200)), c.want8);
        EXPECT_NEAR(at(1.0f), c.wantf, 1e-6);
    }
}

TEST(FusionPyramid, DepthAndLayout) {
    // w, h, output bits, depth; log2 in double lands just below 3, 6, 7 for 8, 64, 128.
    const int cases[][4] = {{3, 100, 8, 0},    {4, 4, 8, 1},        {127, 127, 32, 5},
                            {8, 9, 8, 1},      {9, 9, 8, 2},        {1, 1, 8, -1},
                            {128, 128, 8, 5},  {64, 64, 32, 4},     {129, 129, 32, 5},
                            {300, 300, 32, 6}, {6000, 4000, 8, 10}, {6000, 4000, 32, 9}};
    for (const auto &c : cases) EXPECT_EQ(fu::pyramid_depth(c[0], c[1], c[2]), c[3]) << c[0];
    const fu::Levels lv = fu::level_layout(5, 3, 2);
    EXPECT_EQ(std::make_tuple(lv.count, lv.w[1], lv.h[2], lv.off[3]),
              std::make_tuple(3, 3, 1, size_t{23}));
}

// ---- Detail gains ---------------------------------------------------------

TEST(FusionCollapse, MoireModesLevelStrengthsAndDetailTable) {
    // D = 16: h = 8, q = 4, 7D/8 = 14, 13D/16 = 13. Mode, level, gain, result.
    const float moire[][4] = {
        {1, 3, 0.5f, 0.5f},   {1, 8, 0.5f, 0.0f},   {2, 8, 0.5f, 0.2f},   {3, 7, 0.5f, 0.7f},
        {3, 9, 0.5f, 0.0f},   {4, 9, 0.5f, 0.2f},   {5, 4, 0.4f, 0.4f},   {5, 5, 0.4f, 0.5f},
        {5, 13, 0.4f, 0.0f},  {5, 14, 0.4f, 0.6f},  {6, 10, 0.9f, 0.15f}, {6, 10, 0.1f, 0.1f},
        {6, 14, 0.9f, 1.35f}, {7, 13, 0.9f, 1.35f}, {7, 12, 0.9f, 0.15f}, {0, 12, 0.9f, 0.9f},
        {9, 12, 0.9f, 0.9f},
    };
    for (const auto &c : moire)
        EXPECT_NEAR(fu::fix_moire(int(c[0]), int(c[1]), 16, c[2]), c[3], 1e-6)
            << "m " << c[0] << " k " << c[1];
    // s = 10, D = 8: c = 0.4, h = 4. Strength, level, result.
    const float strength[][3] = {{10, 0, 14.0f},      {10, 2, 12.0f}, {10, 4, 10.0f},
                                 {10, 6, 8.3333333f}, {10, 8, 7.1428571f}, {4, 0, 4.0f}, {5, 7, 5.0f}};
    for (const auto &c : strength)
        EXPECT_NEAR(fu::level_strength(c[0], int(c[1]), 8), c[2], 1e-5) << c[0] << " " << c[1];
    EXPECT_EQ(fu::level_strength(10, 0, 1), 0.0f);  // under two levels: no boost
    // Detail table: strength, moire mode, index, entry.
    const int table[][4] = {{2, 0, 32767, 0},    {2, 0, 33767, 1251}, {2, 0, 32567, -278},
                            {0, 6, 33767, 1000}, {0, 6, 0, -32767}};
    std::vector<int32_t> t(65536);
    for (const auto &c : table) {
        fu::detail_table(float(c[0]), c[1], 0, 8, t.data());
        EXPECT_EQ(t[c[2]], c[3]) << c[0] << " at " << c[2];
    }
}

// ---- Exposure curves and weights -----------------------------------------

TEST(FusionWeights, ExposureCurves) {
    struct Case {
        float curve;
        double ramp;
        int at;
        float want;
    };
    // Curve 1: a = b = 2, the upper branch ends near 82 %; ramp 0.1: b = 2.3333, 0.3: b = 3.
    const Case exposure[] = {{0, 0, 128, 1.0f},        {0, 0, 0, 0.043936945f}, {1, 0, 64, 0.75f},
                             {1, 0, 200, 0.22903034f}, {1, 0, 0, 0.0f},        {1, 0, 211, 0.0f},
                             {2, 0.1, 64, 0.80157487f}, {2, 0.3, 64, 0.875f}};
    // Boost, float output, index, value; boost 2.5 doubles the exponent.
    const Case boost[] = {{0, 0, 0, 0.99999857f},      {0, 0, 32768, 2.6651366f},
                          {-5, 0, 32768, 1.999996f},   {2.5f, 0, 32768, 3.999984f},
                          {3, 1, 32768, 0.5f},         {0, 1, 0, 0.0f}};
    std::vector<float> lut(65536);
    for (const Case &c : exposure) {
        fu::exposure_lut(c.curve, c.ramp, 256, lut.data());
        EXPECT_FLOAT_EQ(lut[c.at], c.want) << c.curve << "/" << c.ramp << " at " << c.at;
    }
    for (const Case &c : boost) {
        fu::boost_lut(c.curve, c.ramp != 0, lut.data());
        EXPECT_FLOAT_EQ(lut[c.at], c.want) << "boost " << c.curve << " at " << c.at;
    }
}

TEST(FusionWeights, RankFactorsAndRounding) {
    const int32_t order[5] = {3, 0, 4, 1, 2};
    float f[5];
    fu::image_factors(5, order, 4.0f, f);
    EXPECT_EQ(std::vector<float>(f, f + 5), (std::vector<float>{2.0f, 0.5f, 0.25f, 4.0f, 1.0f}));
    // n, bias, image, factor: bias 0.9 has integer part 0 and is not applied.
    const float more[][4] = {{5, 20, 2, 0.1f}, {5, 0.9f, 3, 0}, {1, 4, 0, 0}};
    for (const auto &c : more) {
        fu::image_factors(int(c[0]), order, c[1], f);
        EXPECT_FLOAT_EQ(f[int(c[2])], c[3]) << c[0] << " images, bias " << c[1];
    }
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
    const int w = 10, h = 10, n = 7, P = w * h * 3;
    const uint8_t grey[n] = {3, 100, 252, 253, 240, 10, 100};
    const uint32_t key[n] = {3, 25600, 64512, 65536 + 253, 61440, 2560, 25600};
    const int32_t order[n] = {3, 2, 4, 1, 6, 5, 0};  // equal keys: lower index first
    const uint32_t dark[n] = {100, 0, 0, 0, 0, 100, 0}, bright[n] = {0, 0, 100, 100, 100, 0, 0},
                   sat[n] = {0, 0, 100, 100, 0, 0, 0};
    std::vector<uint16_t> s16(size_t(n) * P);
    Bytes s8(s16.size());
    for (size_t s = 0; s < s16.size(); ++s) s16[s] = uint16_t((s8[s] = grey[s / P]) * 257);
    for (int bits : {8, 16}) {
        uint32_t d[n], b[n], st[n], k[n];
        int32_t o[n];
        const void *in = bits == 8 ? static_cast<const void *>(s8.data()) : s16.data();
        ASSERT_EQ(fu::stats_order_photos(n, w, h, 3, bits, in, d, b, st, k, o), 0);
        for (int i = 0; i < n; ++i)
            EXPECT_EQ(std::make_tuple(k[i], o[i], d[i], b[i], st[i]),
                      std::make_tuple(key[i], order[i], dark[i], bright[i], sat[i]))
                << "bracket " << i << " bits " << bits;
    }
    // Half black, half 200: the running count must exceed half, so 200 wins.
    std::fill(s8.begin(), s8.begin() + P / 2, 0);
    std::fill(s8.begin() + P / 2, s8.begin() + P, 200);
    uint32_t d, b, st, k;
    int32_t o;
    ASSERT_EQ(fu::stats_order_photos(1, w, h, 3, 8, s8.data(), &d, &b, &st, &k, &o), 0);
    EXPECT_EQ(std::make_pair(k, d), std::make_pair(51200u, 50u));
}

// Normalisation, ghost override, all-zero weights (pixel 0) and a lone bracket.
TEST(FusionWeights, Maps) {
    const int w = 4, h = 2, P = w * h;
    Bytes img(3 * P * 3);
    for (size_t s = 0; s < img.size(); ++s)
        img[s] = (s % (P * 3) < 3) || (s / (P * 3) == 1 && s % 3 == 0) ? 0 : 128;
    std::vector<float> luts(3 * 256), boost(65536), factors(3, 0.0f);
    for (int i = 0; i < 3; ++i) fu::exposure_lut(1.0f, 0.0, 256, luts.data() + i * 256);
    fu::boost_lut(0.0f, true, boost.data());
    const void *rows[3] = {img.data(), img.data() + P * 3, img.data() + 2 * P * 3};
    // Image 2 owns slot 0 (pixels 2 and 3), image 0 slot 1 (pixel 3).
    const int32_t slots[3] = {1, -1, 0};
    const uint8_t mask[2] = {0x30, 0x10};
    fu::WeightJob job;
    job.n = 3, job.width = w, job.rows = rows, job.luts = luts.data(), job.boost = boost.data();
    job.factors = factors.data(), job.maskPlane = P, job.planeStride = P;
    for (int bits : {8, 16, 32}) {
        Bytes planes(3 * P * bits / 8);
        job.weightBits = bits;
        job.planes = planes.data();
        auto at = [&](int i, int p) { return sample(planes, bits, i * P + p); };
        job.ghostSlots = nullptr;
        ASSERT_EQ(fu::adj1b_threaded(job, h, 2), 0);
        SCOPED_TRACE(testing::Message() << "weight bits " << bits);
        EXPECT_EQ(std::make_tuple(at(0, 0), at(1, 0), at(2, 0)), std::make_tuple(0.0, 0.0, 0.0));
        // Images 0 and 2 share their weight; image 1 (red 0) weighs less.
        const double shared = at(0, 1), full = bits == 32 ? 1.0 : (1 << bits) - 1;
        EXPECT_EQ(at(2, 1), shared);
        EXPECT_LT(at(1, 1), shared);
        job.ghostSlots = slots;
        job.ghostMask = mask;
        ASSERT_EQ(fu::adj1b_threaded(job, h, 1), 0);
        // Pixel 3 has both selected: the lower index wins; pixel 1 keeps its weights.
        EXPECT_EQ(std::make_tuple(at(2, 2), at(0, 2), at(0, 3), at(2, 3), at(0, 1)),
                  std::make_tuple(full, 0.0, full, 0.0, shared));
    }
    job.n = 1, job.weightBits = 8, job.ghostSlots = nullptr;
    Bytes one(P);
    job.planes = one.data();
    ASSERT_EQ(fu::adj1b_threaded(job, h, 3), 0);
    EXPECT_EQ(one, Bytes(P, 255));  // even where the bracket is black
}

// ---- The driver -------------------------------------------------------------

// Recorded pictures, the same for any thread count, via files, bgr and padded.
TEST(FusionDriver, ThreadsFilesLayoutAndRecordedPictures) {
    const uint64_t want[] = {267391391340686812ull,  792574236113357983ull,
                             13775694336313312540ull, 4322489360646664653ull,
                             6111459545569133660ull, 17869285379373080173ull};
    const std::string dir = bvtest::temp_dir("fusion");
    for (size_t i = 0; i < std::size(kConfigs); ++i) {
        SCOPED_TRACE(kConfigs[i].name);
        Fusion f = kConfigs[i].fusion();
        const Bytes in = stack(f), ref = f.picture(in);
        EXPECT_EQ(bvtest::digest(ref), want[i]);
        bvtest::expect_thread_invariant([&](int t) {
            f.threads = t;
            return f.picture(in);
        });
        for (const std::string &d : {dir, dir + "/missing"}) {
            f.dir = d;
            EXPECT_EQ(f.picture(in), ref) << "temporary files in " << d;
        }
        for (float two_pass : {0.0f, 1.0f}) {
            if (!f.bgr) break;
            Fusion moved = kConfigs[i].fusion(), packed = moved;
            moved.params.slot[9] = packed.params.slot[9] = two_pass;
            packed.bgr = packed.rowOut = 0;
            expect_moved(moved.picture(in), packed.picture(in), f.bitsOut, f.w, f.rowOut);
        }
    }
}

// Whole or partial caller scratch changes no bit; a failed allocation gives -4.
TEST(FusionDriver, ScratchPlacementAndAllocationFailures) {
    for (int cfg : {3, 2, 1}) {
        Fusion f = kConfigs[cfg].fusion();
        const Bytes in = stack(f), ref = f.picture(in);
        uint64_t need = 0, size = uint64_t(f.w) | uint64_t(f.h) << 32;
        ASSERT_EQ(mem4fusion(1, f.n, f.wbits, f.acc, &need, 0, size, f.ch), 1);
        for (uint64_t budget : {need, need - 1, need / 2, uint64_t{1}}) {
            f.scratch = budget;
            EXPECT_EQ(f.picture(in), ref) << kConfigs[cfg].name << " budget " << budget;
        }
        for (uint64_t budget : {uint64_t{0}, need}) {
            f.scratch = budget;
            int ok = 0;
            for (long nth = 0; nth < 40 && ok < 3; ++nth) {
                Bytes out;
                bvtest::FailAllocation fail(nth);
                const int rc = f.run(in.data(), &out);
                EXPECT_TRUE(rc == BV_FU_ENOMEM || (rc == 1 && out == ref)) << "allocation " << nth;
                ok += rc == 1;
            }
            EXPECT_GT(ok, 0);
        }
    }
}

TEST(FusionDriver, BadArguments) {
    const std::tuple<const char *, Shape, int> cases[] = {
        {"float input, 16-bit accumulator", {3, 16, 16, 3, 32, 32, 16, 16, 0, 0, 0}, BV_FU_EDEPTH},
        {"float input, 8-bit output", {3, 16, 16, 3, 32, 8, 16, 32, 0, 0, 0}, BV_FU_EDEPTH},
        {"12-bit input", {3, 16, 16, 3, 12, 8, 16, 16, 0, 0, 0}, BV_FU_EDEPTH},
        {"12-bit weights", {3, 16, 16, 3, 8, 8, 12, 16, 0, 0, 0}, BV_FU_EDEPTH},
        {"8-bit accumulator", {3, 16, 16, 3, 8, 8, 16, 8, 0, 0, 0}, BV_FU_EDEPTH},
        {"no brackets", {0, 16, 16, 3, 8, 8, 16, 16, 0, 0, 0}, BV_FU_EBADARG},
        {"5 channels", {3, 16, 16, 5, 8, 8, 16, 16, 0, 0, 0}, BV_FU_EBADARG},
        {"short rows", {3, 16, 16, 3, 8, 8, 16, 16, 0, 10, 0}, BV_FU_EBADARG},
    };
    const std::vector<float> in(3 * 16 * 16 * 5, 0.5f);
    for (const auto &[what, s, want] : cases)
        EXPECT_EQ(Fusion(s).run(in.data(), nullptr), want) << what;
    EXPECT_EQ(Fusion().run(nullptr, nullptr), BV_FU_EBADARG);
    // 100 x 100: P = 10000, L = 15000; mode 3 does not exist.
    const int64_t need[][5] = {
        {3, 16, 16, BV_FU_EBADARG, 7}, {1, 16, 16, 1, 160000}, {2, 8, 32, 1, 660000}};
    for (const auto &c : need) {
        uint64_t got = 7;
        EXPECT_EQ(mem4fusion(int(c[0]), 3, int(c[1]), int(c[2]), &got, 0, 100 | (100ull << 32), 3),
                  c[3]);
        EXPECT_EQ(got, uint64_t(c[4])) << "mode " << c[0];
    }
}

// A 32-bit accumulator on 8-bit input, or fusion skipped: nothing is written.
TEST(FusionDriver, WideAccumulatorLeavesOutput) {
    Fusion f;
    const Bytes in = stack(f);
    for (int skip : {0, 1}) {
        f.acc = skip ? 16 : 32;
        f.params.slot[19] = float(skip);
        Bytes out;
        ASSERT_EQ(f.run(in.data(), &out, 0x5a), 1);
        EXPECT_EQ(out, Bytes(out.size(), 0x5a)) << "skip " << skip;
    }
}

namespace {
std::vector<float> g_progress;
int g_cancel_at = -1;
void record_progress(int32_t *cancel, float v) {
    g_progress.push_back(v);
    if (static_cast<int>(g_progress.size()) == g_cancel_at) *cancel = 1;
}
}  // namespace

TEST(FusionDriver, ProgressCancelColourAndTwoPassSlots) {
    Fusion f({4, 37, 29, 3, 8, 8, 16, 16, 0, 0, 0});
    const Bytes in = stack(f);
    Bytes copy(size_t(f.w) * f.h * 3), out;
    f.threads = 2, f.progress = record_progress, f.copy = copy.data();
    auto go = [&](int cancel_at) {
        g_progress.clear();
        g_cancel_at = cancel_at;
        return f.run(in.data(), &out);
    };
    ASSERT_EQ(go(-1), 1);
    EXPECT_EQ(g_progress, (std::vector<float>{0.3f, 0.425f, 0.55f, 0.675f}));
    EXPECT_EQ(copy, out);
    EXPECT_EQ(go(2), BV_FU_ECANCEL);
    const TmParam colour = bvtest::tm_slots({{13, -10.0f}});  // fully desaturated at the end
    f.colour = &colour;
    ASSERT_EQ(go(-1), 1);
    for (size_t p = 0; p < copy.size(); p += 3) ASSERT_LE(std::abs(copy[p] - copy[p + 1]), 1) << p;
    // Two-pass mode rewrites its slots and restores the rank bias.
    f.colour = nullptr, f.copy = nullptr;
    TmParam &p = f.params;
    p = bvtest::tm_slots({{9, 1.0f}, {0, 3.0f}, {1, 2.0f}, {2, 1.5f}}, p);
    ASSERT_EQ(go(-1), 1);
    EXPECT_EQ(std::make_tuple(p.slot[0], p.slot[1], p.slot[2], p.slot[10], p.slot[18]),
              std::make_tuple(0.0f, 2.0f, 0.0f, 5.625f, 1.0f));
    EXPECT_EQ(fu::InterpolationInterval, 85);
    ASSERT_GE(g_progress.size(), 4u);
    EXPECT_FLOAT_EQ(g_progress[1], 0.17f);
}

// A full bracket file falls back to memory; a full weight file fails with -2.
TEST(FusionDriver, FullDisk) {
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "/dev/full is not available";
    Fusion f({4, 37, 29, 3, 8, 8, 16, 16, 0, 0, 0});
    const Bytes in = stack(f), ref = f.picture(in);
    f.dir = bvtest::temp_dir("fusion-full");
    f.src = "/dev/full";
    EXPECT_EQ(f.picture(in), ref);
    f.src.clear();
    f.weights = "/dev/full";
    EXPECT_EQ(f.run(in.data(), nullptr), BV_FU_EDEPTH);
}
