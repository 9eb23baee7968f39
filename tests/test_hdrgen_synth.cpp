// HDR merge against a known scene: brackets rendered through gamma 2.2, merged back, compared.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "test_support.hpp"

namespace {

constexpr int W = 128, H = 96;

// Linear RGB scene spanning about 15 stops: a horizontal log gradient with
// coloured, textured rows, so every bracket has dark, mid and clipped parts.
std::vector<double> scene() {
    std::vector<double> s(static_cast<size_t>(W) * H * 3);
    bvtest::Rng rng(11);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const double stops = -11.0 + 15.0 * x / (W - 1) + 0.6 * (rng.uniform() - 0.5);
            const double L = std::exp2(stops);
            const double hue = 6.2832 * y / H;
            double *p = &s[(static_cast<size_t>(y) * W + x) * 3];
            p[0] = L * (1.0 + 0.35 * std::cos(hue));
            p[1] = L * (1.0 + 0.35 * std::cos(hue + 2.1));
            p[2] = L * (1.0 + 0.35 * std::cos(hue + 4.2));
        }
    return s;
}

// Weight of a 16-bit luma level for saturation level s, in double.
double weight(int v, int s) {
    if (v > s) return 0.0;
    const double x = v / 65536.0 - 0.5;
    const double c = v <= 32768 ? 4.0 : 1.0 / std::pow(0.5 - s / 65535.0, 2);
    return std::pow(1 - c * x * x, 2);
}

struct Stack {
    int n, bits;
    double stops;
    std::vector<double> truth;     // scene scaled so the middle bracket sits well
    std::vector<float> exposures;  // true relative exposures, middle = 1
    std::vector<uint8_t> d8;
    std::vector<uint16_t> d16;
    int sample(int k, size_t i) const {
        return bits == 8 ? d8[k * truth.size() + i] : d16[k * truth.size() + i];
    }
    const void *data() const {
        return bits == 8 ? static_cast<const void *>(d8.data()) : d16.data();
    }
};

Stack render(int n, int bits, double stops) {
    Stack st{n, bits, stops, scene(), {}, {}, {}};
    const int levels = 1 << bits;
    for (int k = 0; k < n; ++k)
        st.exposures.push_back(static_cast<float>(std::exp2(stops * (k - n / 2))));
    const size_t N = st.truth.size();
    (bits == 8 ? st.d8.resize(N * n) : st.d16.resize(N * n));
    for (int k = 0; k < n; ++k)
        for (size_t i = 0; i < N; ++i) {
            const double v = std::min(1.0, st.truth[i] * st.exposures[k]);
            const int q =
                std::min(levels - 1, static_cast<int>(levels * std::pow(v, 1 / 2.2) + 0.5));
            if (bits == 8)
                st.d8[k * N + i] = static_cast<uint8_t>(q);
            else
                st.d16[k * N + i] = static_cast<uint16_t>(q);
        }
    return st;
}

struct Outcome {
    double worst_excess = 0;  // largest error beyond the allowed bound (<= 0 passes)
    double worst_ref = 0;     // largest difference from the double-precision model
    double mean_err = 0;
    long pixels = 0;
    std::vector<float> est;  // estimated exposures
};

float decode(const std::vector<uint8_t> &out, int x, int y, int c) {
    const uint8_t *row = out.data() + static_cast<size_t>(y) * 4 * W;
    const int e = row[3 * W + x];
    return e ? static_cast<float>(row[c * W + x] * std::ldexp(1.0, e - 136)) : 0.0f;
}

Outcome check(const Stack &st, bool estimate) {
    const int levels = 1 << st.bits, n = st.n;
    const int sh = st.bits == 16 ? 8 : 0;
    std::vector<float> lut(levels), ex = st.exposures;
    std::vector<uint8_t> out(4 * W * H);
    float stats[3];
    EXPECT_EQ(bv_hdr_merge(nullptr, 0, n, W, H, 3, -1.0f, st.bits, 0, lut.data(), ex.data(),
                           st.data(), stats, out.data()),
              H);
    // Saturation levels as the merge assigns them: 64000 darkest .. 60160 brightest.
    const double d = std::log2(st.exposures.front()), b = std::log2(st.exposures.back());
    std::vector<int> sat(n);
    for (int k = 0; k < n; ++k)
        sat[k] = static_cast<int>((std::log2(st.exposures[k]) - d) / (d - b) * 3840 + 64000);

    Outcome o;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const size_t p = (static_cast<size_t>(y) * W + x) * 3;
            bool well = false;
            double sw = 0, ref[3] = {}, bound[3] = {};
            for (int k = 0; k < n; ++k) {
                int s[3];
                for (int c = 0; c < 3; ++c) s[c] = st.sample(k, p + c);
                const int l = 54 * (s[0] >> sh) + 183 * (s[1] >> sh) + 19 * (s[2] >> sh);
                const int l8 = l >> 8;
                well |= l8 >= 40 && l8 <= 220 && std::max({s[0], s[1], s[2]}) < levels - 1;
                const double w = weight(l, sat[k]);
                sw += w;
                for (int c = 0; c < 3; ++c) {
                    const double lin = std::pow(static_cast<double>(s[c] ? s[c] : 1) / levels, 2.2);
                    ref[c] += w * lin / st.exposures[k];
                    // This bracket's own quantisation error against the truth.
                    bound[c] += w * std::fabs(lin / st.exposures[k] - st.truth[p + c]);
                }
            }
            if (!well || sw <= 0) continue;
            const double m = std::max({st.truth[p], st.truth[p + 1], st.truth[p + 2]});
            for (int c = 0; c < 3; ++c) {
                const double got = decode(out, x, y, c), truth = st.truth[p + c];
                // Mantissa truncation costs up to 1/128 of the largest channel.
                const double allowed = bound[c] / sw + m / 128 + 1e-6 * truth;
                o.worst_excess =
                    std::max(o.worst_excess, (std::fabs(got - truth) - allowed) / truth);
                o.worst_ref = std::max(o.worst_ref, std::fabs(got - ref[c] / sw) / m);
                o.mean_err += std::fabs(got - truth) / truth;
            }
            ++o.pixels;
        }
    o.mean_err /= 3.0 * std::max(1L, o.pixels);
    if (!estimate) return o;
    // Estimated exposures for the same stack.
    o.est = std::vector<float>(n);
    EXPECT_EQ(bv_hdr_merge(nullptr, 2, n, W, H, 3, 0.0f, st.bits, 0, lut.data(), o.est.data(),
                           st.data(), stats, out.data()),
              H);
    return o;
}

}  // namespace

TEST(SyntheticMerge, MatchesTheSceneWithinQuantisation) {
    for (int bits : {8, 16})
        for (int n : {3, 5, 7, 9})
            for (double stops : {1.0, 2.0, 3.0}) {
                const Stack st = render(n, bits, stops);
                const Outcome o = check(st, false);
                SCOPED_TRACE(testing::Message()
                             << bits << "-bit, " << n << " brackets, " << stops << " stops");
                EXPECT_GT(o.pixels, W * H / 3);
                EXPECT_LE(o.worst_excess, 0.0);
                // The merge is the weighted mean of the text, up to mantissa truncation.
                EXPECT_LT(o.worst_ref, 1.0 / 128 + 1e-5);
                std::printf("%2d-bit n=%d %g stops: %5ld px, mean rel err %.4f, excess %.2e\n",
                            bits, n, stops, o.pixels, o.mean_err, o.worst_excess);
            }
}

// Exposure estimation from pixel statistics, per bracket: log2(estimated / true).
// The figures are pinned so that a change that worsens estimation shows up.
TEST(SyntheticMerge, EstimatedExposuresPinned) {
    struct Pin {
        int bits, n;
        double stops, max_abs_log2;
    };
    const Pin pins[] = {
        // Measured: the statistic is a median luma, so brackets whose median
        // sits in clipped or crushed tones are misplaced by a stop or more.
        {8, 3, 1, 0.281}, {8, 5, 2, 1.598},  {8, 7, 1, 1.129},  {8, 9, 1, 1.542},
        {8, 5, 3, 2.064}, {16, 3, 1, 0.244}, {16, 5, 2, 1.598}, {16, 9, 1, 1.540},
    };
    for (const Pin &pin : pins) {
        const Stack st = render(pin.n, pin.bits, pin.stops);
        const Outcome o = check(st, true);
        double worst = 0;
        std::printf("%2d-bit n=%d %g stops, log2 error per bracket:", pin.bits, pin.n, pin.stops);
        for (int k = 0; k < pin.n; ++k) {
            const double err = std::log2(o.est[k] / st.exposures[k]);
            worst = std::max(worst, std::fabs(err));
            std::printf(" %+.3f", err);
        }
        std::printf("  (max %.3f)\n", worst);
        EXPECT_LE(worst, pin.max_abs_log2 + 0.01) << pin.bits << " " << pin.n << " " << pin.stops;
    }
}
