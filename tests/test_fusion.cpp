// Exposure fusion: weights, pyramid steps, collapse and the bv_fusion driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "FusionLib/fusion.hpp"
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
                double r = std::exp2(6.0 * x / w - 4.0) * (0.8 + 0.1 * c) * (1.0 + 0.3 * rng.uniform());
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
    size_t extra_scratch = 0;
    Fusion() { tmparam_default(10, 0, &params); }

    size_t bound() const { return static_cast<size_t>(static_cast<float>(w * h) * 1.5 + 0.5); }
    // Returns the status; `out` gets the picture bytes (rows as written).
    int run(const void *images, std::vector<uint8_t> *out, uint8_t fill = 0) {
        const size_t sb = bitsOut == 16 ? 2 : (bitsOut == 32 ? 4 : 1);
        const size_t stride = rowOut > 0 ? static_cast<size_t>(rowOut) : static_cast<size_t>(w) * ch;
        size_t bytes = 2 * ch * bound();
        const size_t picture = stride * h * sb;
        if (picture > bytes) bytes = picture;
        std::vector<uint8_t> buf(bytes + scratch + extra_scratch, fill);
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
    struct Case { int w, h, ch, bitsIn, wrap, tol; };
    const Case cases[] = {{37, 29, 3, 8, 0, 2},    {64, 48, 3, 8, 1, 2},    {33, 17, 1, 8, 0, 2},
                          {40, 31, 4, 8, 1, 2},    {37, 29, 3, 16, 0, 128}, {3, 3, 3, 8, 0, 0},
                          {2, 7, 3, 16, 1, 0},     {1, 1, 3, 8, 0, 0}};
    for (const Case &c : cases) {
        Fusion f;
        f.n = 1; f.w = c.w; f.h = c.h; f.ch = c.ch; f.bitsIn = f.bitsOut = c.bitsIn;
        f.wbits = 32; f.wrap = c.wrap;
        f.params.slot[8] = 0.0f;
        std::vector<uint8_t> out;
        int worst = 0;
        if (c.bitsIn == 8) {
            auto img = brackets<uint8_t>(1, c.w, c.h, c.ch, 7);
            ASSERT_EQ(f.run(img.data(), &out), 1);
            for (size_t s = 0; s < img.size(); ++s) worst = std::max(worst, std::abs(img[s] - out[s]));
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
