// Exposures measured from the pixels (bv_hdr_estimate_exposures): brackets
// rendered from a real HDR photograph, exact small cases, fallbacks, errors.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "test_support.hpp"

namespace {

// The atrium photograph as linear RGB, every kShrink-th pixel of every
// kShrink-th row (averaging would flatten its highlights) to keep the
// rendering quick; empty when the shared data is absent.
constexpr int kShrink = 4;
struct Scene {
    int w = 0, h = 0;
    std::vector<float> rgb;
};
const Scene &atrium() {
    static const Scene s = [] {
        Scene out;
        const std::string dir = bvtest::shared_data_dir();
        if (dir.empty()) return out;
        const std::string path = dir + "/hdr/mpi_atrium_3.hdr";
        RgbeDims dims{};
        if (rgbe_dim(path.c_str(), nullptr, &dims) < 0) return out;
        std::vector<uint8_t> rgbe(static_cast<size_t>(dims.width) * dims.height * 4);
        std::vector<float> full(static_cast<size_t>(dims.width) * dims.height * 3);
        if (bv_io_read_rgbe(dims.width, dims.height, path.c_str(), rgbe.data()) != dims.height ||
            rgbe2fp(dims.width, dims.height, 0, 0, 0, rgbe.data(), full.data(), 1.0f) !=
                dims.height)
            return out;
        out.w = dims.width / kShrink;
        out.h = dims.height / kShrink;
        out.rgb.resize(static_cast<size_t>(out.w) * out.h * 3);
        for (int y = 0; y < out.h; ++y)
            for (int x = 0; x < out.w; ++x)
                for (int c = 0; c < 3; ++c)
                    out.rgb[(static_cast<size_t>(y) * out.w + x) * 3 + c] =
                        full[(static_cast<size_t>(kShrink * y) * dims.width + kShrink * x) * 3 + c];
        return out;
    }();
    return s;
}

enum Curve { kGamma22, kSrgb };

double encode(Curve c, double v) {
    if (c == kGamma22) return std::pow(v, 1 / 2.2);
    return v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1 / 2.4) - 0.055;
}
double decode(Curve c, double v) {
    if (c == kGamma22) return std::pow(v, 2.2);
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

struct Stack {
    int n, bits, w, h;
    std::vector<uint16_t> d16;
    std::vector<uint8_t> d8;
    std::vector<float> truth;  // true factors, the middle bracket at 1
    const void *data() const {
        return bits == 8 ? static_cast<const void *>(d8.data()) : d16.data();
    }
};

// n brackets `stops` apart around an exposure that puts the scene's median
// at mid-grey, with shot and read noise, in a shuffled file order.
Stack render(const Scene &s, Curve curve, int n, int bits, double stops) {
    Stack st{n, bits, s.w, s.h, {}, {}, {}};
    std::vector<float> lum;
    for (size_t i = 0; i < s.rgb.size(); i += 3) lum.push_back(s.rgb[i + 1]);
    std::nth_element(lum.begin(), lum.begin() + lum.size() / 2, lum.end());
    const double base = 0.18 / lum[lum.size() / 2];
    const double levels = std::ldexp(1.0, bits) - 1;
    const size_t N = s.rgb.size();
    (bits == 8 ? st.d8.resize(N * n) : st.d16.resize(N * n));
    bvtest::Rng rng(static_cast<uint64_t>(n * 100 + bits * 10 + stops));
    for (int k = 0; k < n; ++k) {
        // File order interleaves dark and bright brackets.
        const int rank = (2 * k + 1) % n;
        const double rel = std::exp2(stops * (rank - (n - 1 - n / 2)));
        st.truth.push_back(static_cast<float>(rel));
        for (size_t i = 0; i < N; ++i) {
            // The sensor clips after the noise, as a real one does.
            const double x = s.rgb[i] * base * rel;
            const double sigma = std::sqrt(0.0004 * std::min(x, 1.0) + 0.0008 * 0.0008);
            const double u1 = std::max(rng.uniform(), 1e-12), u2 = rng.uniform();
            const double g = std::sqrt(-2 * std::log(u1)) * std::cos(6.283185307179586 * u2);
            const double v = std::clamp(x + sigma * g, 0.0, 1.0);
            const long q = std::lround(levels * encode(curve, v));
            if (bits == 8)
                st.d8[k * N + i] = static_cast<uint8_t>(q);
            else
                st.d16[k * N + i] = static_cast<uint16_t>(q);
        }
    }
    return st;
}

std::vector<float> response(Curve c, int bits) {
    const int levels = 1 << bits;
    std::vector<float> t(levels);
    for (int i = 0; i < levels; ++i) t[i] = static_cast<float>(decode(c, i / (levels - 1.0)));
    return t;
}

// Largest |log2(estimate / truth)| over the brackets that have at least one
// pixel with every colour in the estimator's window: a frame without one
// (white all over, here) says nothing of its exposure, and two of them
// cannot even be told apart.
double worst_error(const Stack &st, const std::vector<float> &est, int *blank) {
    double worst = 0;
    *blank = 0;
    const int levels = 1 << st.bits;
    const int lo = levels / 8, hi = levels - 1 - levels / 16;
    const size_t N = static_cast<size_t>(st.w) * st.h * 3;
    for (int k = 0; k < st.n; ++k) {
        bool usable = false;
        for (size_t i = 0; i < N && !usable; i += 3) {
            int a = levels, b = 0;
            for (int c = 0; c < 3; ++c) {
                const int v = st.bits == 8 ? st.d8[k * N + i + c] : st.d16[k * N + i + c];
                a = std::min(a, v);
                b = std::max(b, v);
            }
            usable = a >= lo && b <= hi;
        }
        if (!usable) {
            ++*blank;
            continue;
        }
        worst = std::max(worst, std::fabs(std::log2(static_cast<double>(est[k]) / st.truth[k])));
    }
    return worst;
}

int estimate(const Stack &st, const float *lin, float gamma, int threads, std::vector<float> *est,
             std::vector<float> *conf) {
    est->assign(st.n, -1.0f);
    conf->assign(st.n, -1.0f);
    return bv_hdr_estimate_exposures(nullptr, threads, st.n, st.w, st.h, 3, st.bits, gamma, lin,
                                     st.data(), est->data(), conf->data());
}

// Small exact stacks: every pixel of bracket k holds `levels[k]` scaled to
// the depth, in all colours, so every ratio is exact under gamma 1.
struct Flat {
    int n, w, h, channels, bits;
    std::vector<uint16_t> d16;
    std::vector<uint8_t> d8;
    const void *data() const {
        return bits == 8 ? static_cast<const void *>(d8.data()) : d16.data();
    }
};
Flat flat(int w, int h, int channels, int bits, const std::vector<int> &levels) {
    Flat f{static_cast<int>(levels.size()), w, h, channels, bits, {}, {}};
    const size_t N = static_cast<size_t>(w) * h * channels;
    for (int k = 0; k < f.n; ++k)
        for (size_t i = 0; i < N; ++i) {
            // A fourth channel is alpha and held at 0, which must not matter.
            const int v = channels == 4 && i % 4 == 3 ? 0 : levels[k];
            if (bits == 8)
                f.d8.push_back(static_cast<uint8_t>(v));
            else
                f.d16.push_back(static_cast<uint16_t>(v == 255 ? 65535 : v << 8));
        }
    return f;
}

std::vector<float> g_progress;
void record_progress(int32_t *, float f) { g_progress.push_back(f); }
void cancel_at_once(int32_t *cancel, float) { *cancel = 1; }

}  // namespace

// Every bracket within 0.05 stop of the truth, for both camera curves, both
// depths, 3 to 9 brackets 1 to 3 stops apart, with the curve handed over as
// a table. The middle bracket is exposed for the scene's median, so the
// brightest frames of the wide sets are white all over. Measured worst error:
// 0.0030 stop where every pair was measured, 0.0317 where unmeasured pairs
// took the typical step (sRGB, 8 bits, 9 brackets 3 stops apart).
TEST(EstimateExposures, RenderedAtriumWithinAFiftiethOfAStop) {
    const Scene &s = atrium();
    if (s.rgb.empty())
        GTEST_SKIP() << "../shared/data/hdr/mpi_atrium_3.hdr not found or unreadable";
    for (Curve curve : {kGamma22, kSrgb})
        for (int bits : {8, 16}) {
            const std::vector<float> lin = response(curve, bits);
            for (int n : {3, 5, 7, 9})
                for (double stops : {1.0, 2.0, 3.0}) {
                    SCOPED_TRACE(testing::Message()
                                 << (curve == kGamma22 ? "gamma " : "sRGB ") << bits << "-bit, "
                                 << n << " brackets " << stops << " stops apart");
                    const Stack st = render(s, curve, n, bits, stops);
                    std::vector<float> est, conf;
                    const int pairs = estimate(st, lin.data(), 0.0f, 2, &est, &conf);
                    int blank;
                    const double worst = worst_error(st, est, &blank);
                    std::printf(
                        "%s %2d-bit n=%d %g stops: %d pairs measured, %d white, worst "
                        "%.4f stop\n",
                        curve == kGamma22 ? "gamma" : "sRGB ", bits, n, stops, pairs, blank, worst);
                    EXPECT_LE(worst, 0.05);
                    // Measured 0.0030 at most when every pair was measured.
                    if (pairs == n - 1) {
                        EXPECT_LE(worst, 0.004);
                    }
                    EXPECT_LE(blank, n / 3);
                    EXPECT_GE(pairs, n - 1 - blank - 1);
                    for (int k = 0; k < n; ++k)
                        if (st.truth[k] == 1.0f) {
                            EXPECT_EQ(est[k], 1.0f);
                        }
                }
        }
}

// Exact ratios: brackets one stop apart under gamma 1 give factors of exactly
// 0.5, 1 and 2 whatever the file order, depth or channel count. Confidence
// ("conf", per bracket): m the middle (1), p a measured pair without spread
// (N / (N + 100) for its N grid pixels), 0 behind a pair that fell back to
// the median of the measured steps.
TEST(EstimateExposures, ExactStepsConfidenceAndFallback) {
    struct Case {
        int w, h, channels, bits;
        std::vector<int> levels;
        std::vector<float> want;
        const char *conf;
        int measured;
    };
    const Case cases[] = {
        {16, 16, 3, 8, {160, 40, 80}, {2.0f, 0.5f, 1.0f}, "ppm", 2},
        {16, 16, 3, 16, {40, 80, 160}, {0.5f, 1.0f, 2.0f}, "pmp", 2},
        {16, 16, 4, 8, {80, 160, 40}, {1.0f, 2.0f, 0.5f}, "mpp", 2},
        {16, 16, 1, 8, {40, 160, 80}, {0.5f, 2.0f, 1.0f}, "ppm", 2},
        {1, 32, 2, 8, {40, 80, 160}, {0.5f, 1.0f, 2.0f}, "pmp", 2},
        // Even n: the darker of the two middle brackets gets 1, as in guess_ev.
        {16, 16, 3, 8, {40, 80, 160, 60}, {2 / 3.0f, 4 / 3.0f, 8 / 3.0f, 1.0f}, "pppm", 3},
        // 20 is below the window and 255 clipped: only 40 -> 80 is measured.
        {16, 16, 3, 8, {255, 80, 40, 20}, {4.0f, 2.0f, 1.0f, 0.5f}, "0pm0", 1},
    };
    for (const Case &c : cases) {
        const Flat f = flat(c.w, c.h, c.channels, c.bits, c.levels);
        std::vector<float> est(f.n, -1.0f), conf(f.n, -1.0f);
        SCOPED_TRACE(testing::Message() << c.channels << " channels, " << c.bits << " bits, "
                                        << c.levels[0] << "... n " << f.n);
        ASSERT_EQ(bv_hdr_estimate_exposures(nullptr, 1, f.n, c.w, c.h, c.channels, c.bits, 1.0f,
                                            nullptr, f.data(), est.data(), conf.data()),
                  c.measured);
        const float pixels = static_cast<float>(c.w * c.h);
        for (int k = 0; k < f.n; ++k) {
            EXPECT_FLOAT_EQ(est[k], c.want[k]) << k;
            const char m = c.conf[k];
            EXPECT_FLOAT_EQ(conf[k], m == 'm'   ? 1.0f
                                     : m == 'p' ? pixels / (pixels + 100)
                                                : 0.0f)
                << k;
        }
    }
}

// Edges of the rules. A pair is measured from max(20, grid / 1000) common
// pixels on: 20 of a 32 x 16 grid are enough, 20 of 210 x 100 are not (21
// needed). Pure colours never vote on the order: 160 border pixels (0, 0,
// 255) in the darker frame must not outvote its 96 pixels at 40 against 80.
TEST(EstimateExposures, CountAndVoteEdges) {
    struct Case {
        int w, h;
        bool border;
        int measured;
    };
    const Case cases[] = {{32, 16, false, 2}, {210, 100, false, 1}, {16, 16, true, 1}};
    for (const Case &c : cases) {
        const bool border = c.border;
        const int n = border ? 2 : 3;
        const size_t N = static_cast<size_t>(c.w) * c.h * 3;
        std::vector<uint8_t> px(N * n, 255);
        for (size_t i = 0; i < N / 3; ++i)
            for (int ch = 0; ch < 3; ++ch) {
                if (border) {
                    px[3 * i + ch] = i < 160 ? (ch == 2 ? 255 : 0) : 40;
                    px[N + 3 * i + ch] = 80;
                } else {
                    // Bracket 0 at 40 and bracket 1 at 80 everywhere; bracket 2
                    // at 160 on the first 21 pixels of row 0 only, of which the
                    // first 20 have a neighbour inside the window.
                    px[3 * i + ch] = 40;
                    px[N + 3 * i + ch] = 80;
                    if (i < 21) px[2 * N + 3 * i + ch] = 160;
                }
            }
        std::vector<float> est(n), conf(n);
        EXPECT_EQ(bv_hdr_estimate_exposures(nullptr, 1, n, c.w, c.h, 3, 8, 1.0f, nullptr, px.data(),
                                            est.data(), conf.data()),
                  c.measured)
            << c.w << "x" << c.h;
        if (border) {
            EXPECT_EQ(est[0], 1.0f);
            EXPECT_FLOAT_EQ(est[1], 2.0f);
        }
    }
}

// With no pair measured the factors are guess_ev's, every confidence 0.
TEST(EstimateExposures, NothingMeasuredFallsBackToGuessEv) {
    const Flat f = flat(16, 16, 3, 8, {255, 250, 5, 10});
    std::vector<float> est(4), conf(4, -1.0f), ref(4);
    EXPECT_EQ(bv_hdr_estimate_exposures(nullptr, 3, 4, 16, 16, 3, 8, 2.2f, nullptr, f.data(),
                                        est.data(), conf.data()),
              0);
    int32_t stats[4];
    mediane_images(4, 16, 16, 48, 3, 8, f.data(), stats);
    ASSERT_EQ(guess_ev(0, 4, stats, ref.data(), 0.0f), 4);
    EXPECT_EQ(est, ref);
    EXPECT_EQ(conf, std::vector<float>(4, 0.0f));
}

// Bad arguments get their code and leave the outputs alone.
TEST(EstimateExposures, ErrorCodes) {
    const Flat f = flat(16, 16, 3, 8, {40, 80, 160});
    std::vector<float> down(256, 0.5f), nan_table(256, 0.5f);
    for (int i = 0; i < 256; ++i) down[i] = 1.0f - i / 256.0f;
    nan_table[100] = std::nanf("");
    struct Case {
        const char *what;
        int n, w, h, channels, bits;
        float gamma;
        const float *table;
        bool data, out;
        int code;
    };
    const Case cases[] = {
        {"one bracket", 1, 16, 16, 3, 8, 2.2f, nullptr, true, true, BV_HDR_EINVAL},
        {"width 0", 3, 0, 16, 3, 8, 2.2f, nullptr, true, true, BV_HDR_EINVAL},
        {"height 0", 3, 16, 0, 3, 8, 2.2f, nullptr, true, true, BV_HDR_EINVAL},
        {"no channels", 3, 16, 16, 0, 8, 2.2f, nullptr, true, true, BV_HDR_EINVAL},
        {"12 bits", 3, 16, 16, 3, 12, 2.2f, nullptr, true, true, BV_HDR_EDEPTH},
        {"32 bits", 3, 16, 16, 3, 32, 2.2f, nullptr, true, true, BV_HDR_EDEPTH},
        {"NaN gamma", 3, 16, 16, 3, 8, std::nanf(""), nullptr, true, true, BV_HDR_EINVAL},
        {"gamma 0", 3, 16, 16, 3, 8, 0.0f, nullptr, true, true, BV_HDR_EINVAL},
        {"falling table", 3, 16, 16, 3, 8, 2.2f, down.data(), true, true, BV_HDR_EINVAL},
        {"NaN in table", 3, 16, 16, 3, 8, 2.2f, nan_table.data(), true, true, BV_HDR_EINVAL},
        {"no data", 3, 16, 16, 3, 8, 2.2f, nullptr, false, true, BV_HDR_EINVAL},
        {"no output", 3, 16, 16, 3, 8, 2.2f, nullptr, true, false, BV_HDR_EINVAL},
    };
    for (const Case &c : cases) {
        std::vector<float> est(3, -7.0f), conf(3, -7.0f);
        EXPECT_EQ(bv_hdr_estimate_exposures(nullptr, 1, c.n, c.w, c.h, c.channels, c.bits, c.gamma,
                                            c.table, c.data ? f.data() : nullptr,
                                            c.out ? est.data() : nullptr, conf.data()),
                  c.code)
            << c.what;
        EXPECT_EQ(est, std::vector<float>(3, -7.0f)) << c.what;
        EXPECT_EQ(conf, std::vector<float>(3, -7.0f)) << c.what;
    }
    // A NaN gamma is not read when a table is given.
    std::vector<float> lin(256), est(3);
    for (int i = 0; i < 256; ++i) lin[i] = i / 256.0f;
    EXPECT_EQ(bv_hdr_estimate_exposures(nullptr, 1, 3, 16, 16, 3, 8, std::nanf(""), lin.data(),
                                        f.data(), est.data(), nullptr),
              2);
    EXPECT_EQ(est[2], 2.0f);
}

// Out of memory at every allocation: -4, nothing leaked (ASan), and the
// call works once allocations succeed again.
TEST(EstimateExposures, OutOfMemory) {
    const Flat f = flat(16, 16, 3, 8, {40, 80, 160});
    std::vector<float> est(3);
    int k = 0;
    for (; k < 32; ++k) {
        bvtest::FailAllocation fail(k);
        const int rc = bv_hdr_estimate_exposures(nullptr, 2, 3, 16, 16, 3, 8, 2.2f, nullptr,
                                                 f.data(), est.data(), nullptr);
        if (rc == 2) break;
        EXPECT_EQ(rc, BV_HDR_ENOMEM) << k;
    }
    EXPECT_GT(k, 3);
    EXPECT_LT(k, 32);
}

// The same factors and confidences, bit for bit, for 1, 2, 3 and 7 threads,
// also when there are fewer grid rows than threads; progress rises to 1 on
// the calling thread, and a cancel stops the work with the outputs untouched.
TEST(EstimateExposures, ThreadsProgressAndCancel) {
    const Scene &s = atrium();
    std::vector<Stack> stacks;
    if (!s.rgb.empty()) stacks.push_back(render(s, kSrgb, 5, 8, 2.0));
    // Three rows only.
    Stack tiny{3, 8, 40, 3, {}, {}, {}};
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < 40 * 3 * 3; ++i)
            tiny.d8.push_back(static_cast<uint8_t>(std::min(255, (40 + i % 50) << k)));
    stacks.push_back(tiny);
    for (const Stack &st : stacks) {
        std::vector<float> est1, conf1;
        const int rc = estimate(st, nullptr, 2.2f, 1, &est1, &conf1);
        EXPECT_GT(rc, 0);
        for (int threads : {2, 3, 7}) {
            std::vector<float> est, conf;
            EXPECT_EQ(estimate(st, nullptr, 2.2f, threads, &est, &conf), rc);
            EXPECT_EQ(0, std::memcmp(est.data(), est1.data(), est.size() * sizeof(float)))
                << threads;
            EXPECT_EQ(0, std::memcmp(conf.data(), conf1.data(), conf.size() * sizeof(float)))
                << threads;
        }
        g_progress.clear();
        std::vector<float> est(st.n, -7.0f);
        EXPECT_EQ(bv_hdr_estimate_exposures(record_progress, 3, st.n, st.w, st.h, 3, 8, 2.2f,
                                            nullptr, st.data(), est.data(), nullptr),
                  rc);
        ASSERT_FALSE(g_progress.empty());
        EXPECT_TRUE(std::is_sorted(g_progress.begin(), g_progress.end()));
        EXPECT_EQ(g_progress.back(), 1.0f);
        std::fill(est.begin(), est.end(), -7.0f);
        EXPECT_EQ(bv_hdr_estimate_exposures(cancel_at_once, 3, st.n, st.w, st.h, 3, 8, 2.2f,
                                            nullptr, st.data(), est.data(), nullptr),
                  BV_HDR_CANCELLED);
        EXPECT_EQ(est, std::vector<float>(st.n, -7.0f));
    }
}
