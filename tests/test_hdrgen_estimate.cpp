// Exposures measured from the pixels: a real photograph rendered, exact cases, errors.
#include "test_support.hpp"

namespace {

// n brackets back to back: 8-bit samples, or 16-bit ones in native order.
struct Stack {
    int n, w, h, ch, bits;
    bvtest::Bytes raw;
    std::vector<float> truth;  // true factors, the middle bracket at 1
    void push(int v) {
        const uint16_t s = uint16_t(v);
        if (bits == 8) return raw.push_back(uint8_t(v));
        raw.insert(raw.end(), (const uint8_t *)&s, (const uint8_t *)&s + 2);
    }
    int at(size_t i) const {
        uint16_t s;
        return bits == 8 ? raw[i] : (std::memcpy(&s, &raw[2 * i], 2), s);
    }
    int estimate(std::vector<float> *est, std::vector<float> *conf, int threads = 1,
                 float gamma = 1.0f, const float *lin = nullptr,
                 bv_progress_cb cb = nullptr) const {
        est->assign(n, -7.0f);
        if (conf) conf->assign(n, -7.0f);
        return bv_hdr_estimate_exposures(cb, threads, n, w, h, ch, bits, gamma, lin, raw.data(),
                                         est->data(), conf ? conf->data() : nullptr);
    }
};

// Bracket k at `levels[k]` in every colour (alpha 0): exact ratios under gamma 1.
Stack flat(int w, int h, int ch, int bits, const std::vector<int> &levels) {
    Stack f{int(levels.size()), w, h, ch, bits, {}, {}};
    for (int v : levels)
        for (size_t i = 0; i < size_t(w) * h * ch; ++i)
            f.push(ch == 4 && i % 4 == 3 ? 0 : bits == 8 ? v : v == 255 ? 65535 : v << 8);
    return f;
}

// The atrium photograph, every kShrink-th pixel and row (unaveraged); empty without it.
constexpr int kShrink = 4;
struct Scene {
    int w = 0, h = 0;
    std::vector<float> rgb;
};
const Scene &atrium() {
    static const Scene s = [] {
        Scene out;
        const std::string path = bvtest::shared_data_dir() + "/hdr/mpi_atrium_3.hdr";
        RgbeDims d{};
        if (bvtest::shared_data_dir().empty() || rgbe_dim(path.c_str(), nullptr, &d) < 0)
            return out;
        std::vector<uint8_t> rgbe(size_t(d.width) * d.height * 4);
        std::vector<float> full(size_t(d.width) * d.height * 3);
        if (bv_io_read_rgbe(d.width, d.height, path.c_str(), rgbe.data()) != d.height ||
            rgbe2fp(d.width, d.height, 0, 0, 0, rgbe.data(), full.data(), 1.0f) != d.height)
            return out;
        out.w = d.width / kShrink, out.h = d.height / kShrink;
        for (int y = 0; y < out.h; ++y)
            for (int x = 0; x < out.w; ++x)
                for (int c = 0; c < 3; ++c)
                    out.rgb.push_back(full[(size_t(kShrink * y) * d.width + kShrink * x) * 3 + c]);
        return out;
    }();
    return s;
}

enum Curve { kGamma22, kSrgb };
double encode(Curve c, double v) {
    if (c == kGamma22) return std::pow(v, 1 / 2.2);
    return v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1 / 2.4) - 0.055;
}
double srgb_decode(double v) {
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

// n noisy brackets `stops` apart, the median at mid-grey, in a shuffled file order.
Stack render(const Scene &s, Curve curve, int n, int bits, double stops) {
    Stack st{n, s.w, s.h, 3, bits, {}, {}};
    std::vector<float> lum;
    for (size_t i = 0; i < s.rgb.size(); i += 3) lum.push_back(s.rgb[i + 1]);
    std::nth_element(lum.begin(), lum.begin() + lum.size() / 2, lum.end());
    const double base = 0.18 / lum[lum.size() / 2], levels = std::ldexp(1.0, bits) - 1;
    bvtest::Rng rng(static_cast<uint64_t>(n * 100 + bits * 10 + stops));
    for (int k = 0; k < n; ++k) {
        // File order interleaves dark and bright brackets.
        const double rel = std::exp2(stops * ((2 * k + 1) % n - (n - 1 - n / 2)));
        st.truth.push_back(float(rel));
        for (float lin : s.rgb) {
            // The sensor clips after the noise, as a real one does.
            const double x = lin * base * rel;
            const double sigma = std::sqrt(0.0004 * std::min(x, 1.0) + 0.0008 * 0.0008);
            const double u1 = std::max(rng.uniform(), 1e-12), u2 = rng.uniform();
            const double g = std::sqrt(-2 * std::log(u1)) * std::cos(6.283185307179586 * u2);
            st.push(int(std::lround(levels * encode(curve, std::clamp(x + sigma * g, 0.0, 1.0)))));
        }
    }
    return st;
}

// Largest |log2(estimate / truth)| over brackets not blank (no pixel in the window).
double worst_error(const Stack &st, const std::vector<float> &est, int *blank) {
    double worst = 0;
    *blank = 0;
    const int levels = 1 << st.bits, lo = levels / 8, hi = levels - 1 - levels / 16;
    const size_t N = size_t(st.w) * st.h * 3;
    for (int k = 0; k < st.n; ++k) {
        bool usable = false;
        for (size_t i = k * N; i < (k + 1) * N && !usable; i += 3) {
            const int a = std::min({st.at(i), st.at(i + 1), st.at(i + 2)});
            usable = a >= lo && std::max({st.at(i), st.at(i + 1), st.at(i + 2)}) <= hi;
        }
        *blank += !usable;
        if (usable) worst = std::max(worst, std::fabs(std::log2(double(est[k]) / st.truth[k])));
    }
    return worst;
}

std::vector<float> g_progress;
void record_progress(int32_t *, float f) { g_progress.push_back(f); }
void cancel_at_once(int32_t *cancel, float) { *cancel = 1; }

}  // namespace

// Gamma 2.2 as such, sRGB as a table. Measured worst: 0.0030 stop, 0.0317 with a pair missing.
TEST(EstimateExposures, RenderedAtriumWithinAFiftiethOfAStop) {
    const Scene &s = atrium();
    if (s.rgb.empty())
        GTEST_SKIP() << "../shared/data/hdr/mpi_atrium_3.hdr not found or unreadable";
    for (Curve curve : {kGamma22, kSrgb})
        for (int bits : {8, 16}) {
            std::vector<float> t(size_t(1) << bits);
            for (size_t i = 0; i < t.size(); ++i) t[i] = float(srgb_decode(i / (t.size() - 1.0)));
            for (int n : {3, 5, 7, 9})
                for (double stops : {1.0, 2.0, 3.0}) {
                    const Stack st = render(s, curve, n, bits, stops);
                    std::vector<float> est, conf;
                    const float *table = curve == kSrgb ? t.data() : nullptr;
                    const int pairs = st.estimate(&est, &conf, 2, 2.2f, table);
                    int blank;
                    const double worst = worst_error(st, est, &blank);
                    SCOPED_TRACE(testing::Message() << curve << " " << bits << " " << n << " "
                                                    << stops << " " << pairs << " " << blank);
                    EXPECT_LE(worst, pairs == n - 1 ? 0.004 : 0.05);
                    EXPECT_GE(pairs, n - 1 - blank - 1);
                }
        }
}

// Exact factors whatever the order, depth or channels. Confidence: m the middle
// (1), p a pair without spread (N / (N + 100)), 0 behind a pair not measured.
TEST(EstimateExposures, ExactStepsConfidenceAndFallback) {
    const struct {
        int w, h, channels, bits;
        std::vector<int> levels;
        std::vector<float> want;
        const char *conf;
        int measured;
    } cases[] = {
        {16, 16, 3, 8, {160, 40, 80}, {2.0f, 0.5f, 1.0f}, "ppm", 2},
        {16, 16, 3, 16, {40, 80, 160}, {0.5f, 1.0f, 2.0f}, "pmp", 2},
        {16, 16, 4, 8, {80, 160, 40}, {1.0f, 2.0f, 0.5f}, "mpp", 2},
        {16, 16, 1, 8, {40, 160, 80}, {0.5f, 2.0f, 1.0f}, "ppm", 2},
        {1, 32, 2, 8, {40, 80, 160}, {0.5f, 1.0f, 2.0f}, "pmp", 2},
        // Even n: the darker middle one gets 1; 20 is below the window, 255 clipped.
        {16, 16, 3, 8, {40, 80, 160, 60}, {2 / 3.0f, 4 / 3.0f, 8 / 3.0f, 1.0f}, "pppm", 3},
        {16, 16, 3, 8, {255, 80, 40, 20}, {4.0f, 2.0f, 1.0f, 0.5f}, "0pm0", 1},
    };
    for (const auto &c : cases) {
        const Stack f = flat(c.w, c.h, c.channels, c.bits, c.levels);
        SCOPED_TRACE(testing::Message() << c.channels << " channels, " << c.bits << " bits");
        std::vector<float> est, conf;
        ASSERT_EQ(f.estimate(&est, &conf), c.measured);
        const float pair = float(c.w * c.h) / float(c.w * c.h + 100);
        for (int k = 0; k < f.n; ++k) {
            EXPECT_FLOAT_EQ(est[k], c.want[k]) << k;
            EXPECT_FLOAT_EQ(conf[k], c.conf[k] == 'm' ? 1.0f : c.conf[k] == 'p' ? pair : 0.0f) << k;
        }
    }
}

// A pair needs max(20, grid / 1000) pixels (20 of 32 x 16, 21 of 210 x 100);
// 160 pure-blue border pixels must not outvote 96 pixels at 40 against 80.
TEST(EstimateExposures, CountAndVoteEdges) {
    const struct {
        int w, h;
        bool border;
        int measured;
    } cases[] = {{32, 16, false, 2}, {210, 100, false, 1}, {16, 16, true, 1}};
    for (const auto &c : cases) {
        Stack st{c.border ? 2 : 3, c.w, c.h, 3, 8, {}, {}};
        const size_t N = size_t(c.w) * c.h * 3;
        st.raw.assign(N * st.n, 255);
        for (size_t i = 0; i < N; ++i) {
            // Bracket 2 at 160 on 21 pixels of row 0: 20 with a neighbour in the window.
            st.raw[i] = c.border && i < 480 ? (i % 3 == 2 ? 255 : 0) : 40;
            st.raw[N + i] = 80;
            if (!c.border && i < 63) st.raw[2 * N + i] = 160;
        }
        std::vector<float> est, conf;
        EXPECT_EQ(st.estimate(&est, &conf), c.measured) << c.w << "x" << c.h;
        if (c.border) {
            EXPECT_EQ(est[0], 1.0f);
            EXPECT_FLOAT_EQ(est[1], 2.0f);
        }
    }
}

// With no pair measured the factors are guess_ev's, every confidence 0.
TEST(EstimateExposures, NothingMeasuredFallsBackToGuessEv) {
    const Stack f = flat(16, 16, 3, 8, {255, 250, 5, 10});
    std::vector<float> est, conf, ref(4);
    EXPECT_EQ(f.estimate(&est, &conf, 3, 2.2f), 0);
    int32_t stats[4];
    mediane_images(4, 16, 16, 48, 3, 8, f.raw.data(), stats);
    ASSERT_EQ(guess_ev(0, 4, stats, ref.data(), 0.0f), 4);
    EXPECT_EQ(est, ref);
    EXPECT_EQ(conf, std::vector<float>(4, 0.0f));
}

// Bad arguments get their code and leave the outputs alone.
TEST(EstimateExposures, ErrorCodes) {
    const Stack f = flat(16, 16, 3, 8, {40, 80, 160});
    std::vector<float> down(256), nan_table(256, 0.5f);
    for (int i = 0; i < 256; ++i) down[i] = 1.0f - i / 256.0f;
    nan_table[100] = std::nanf("");
    const float nan = std::nanf("");
    const struct {
        const char *what;
        int n, w, h, channels, bits;
        float gamma;
        const float *table;
        bool data, out;
        int code;
    } cases[] = {
        {"one bracket", 1, 16, 16, 3, 8, 2.2f, nullptr, true, true, BV_HDR_EINVAL},
        {"width 0", 3, 0, 16, 3, 8, 2.2f, nullptr, true, true, BV_HDR_EINVAL},
        {"height 0", 3, 16, 0, 3, 8, 2.2f, nullptr, true, true, BV_HDR_EINVAL},
        {"no channels", 3, 16, 16, 0, 8, 2.2f, nullptr, true, true, BV_HDR_EINVAL},
        {"12 bits", 3, 16, 16, 3, 12, 2.2f, nullptr, true, true, BV_HDR_EDEPTH},
        {"NaN gamma", 3, 16, 16, 3, 8, nan, nullptr, true, true, BV_HDR_EINVAL},
        {"gamma 0", 3, 16, 16, 3, 8, 0.0f, nullptr, true, true, BV_HDR_EINVAL},
        {"falling table", 3, 16, 16, 3, 8, 2.2f, down.data(), true, true, BV_HDR_EINVAL},
        {"NaN in table", 3, 16, 16, 3, 8, 2.2f, nan_table.data(), true, true, BV_HDR_EINVAL},
        {"no data", 3, 16, 16, 3, 8, 2.2f, nullptr, false, true, BV_HDR_EINVAL},
        {"no output", 3, 16, 16, 3, 8, 2.2f, nullptr, true, false, BV_HDR_EINVAL},
    };
    for (const auto &c : cases) {
        std::vector<float> est(3, -7.0f), conf(3, -7.0f);
        EXPECT_EQ(bv_hdr_estimate_exposures(nullptr, 1, c.n, c.w, c.h, c.channels, c.bits, c.gamma,
                                            c.table, c.data ? f.raw.data() : nullptr,
                                            c.out ? est.data() : nullptr, conf.data()),
                  c.code)
            << c.what;
        EXPECT_EQ(est, std::vector<float>(3, -7.0f)) << c.what;
        EXPECT_EQ(conf, std::vector<float>(3, -7.0f)) << c.what;
    }
    // A NaN gamma is not read when a table is given.
    std::vector<float> lin(256), est;
    for (int i = 0; i < 256; ++i) lin[i] = i / 256.0f;
    EXPECT_EQ(f.estimate(&est, nullptr, 1, nan, lin.data()), 2);
    EXPECT_EQ(est[2], 2.0f);
}

// Out of memory at every allocation: -4, nothing leaked (ASan), then success.
TEST(EstimateExposures, OutOfMemory) {
    const Stack f = flat(16, 16, 3, 8, {40, 80, 160});
    std::vector<float> est;
    int k = 0;
    for (int rc = 0; k < 32; ++k) {
        bvtest::FailAllocation fail(k);
        if ((rc = f.estimate(&est, nullptr, 2, 2.2f)) == 2) break;
        EXPECT_EQ(rc, BV_HDR_ENOMEM) << k;
    }
    EXPECT_GT(k, 3);
    EXPECT_LT(k, 32);
}

// Thread-invariant (also with fewer rows than threads), progress to 1, cancel.
TEST(EstimateExposures, ThreadsProgressAndCancel) {
    std::vector<Stack> stacks;
    if (!atrium().rgb.empty()) stacks.push_back(render(atrium(), kSrgb, 5, 8, 2.0));
    Stack tiny{3, 40, 3, 3, 8, {}, {}};  // three rows only
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < 40 * 3 * 3; ++i) tiny.push(std::min(255, (40 + i % 50) << k));
    stacks.push_back(tiny);
    for (const Stack &st : stacks) {
        std::vector<float> est, conf;
        const int rc = st.estimate(&est, &conf, 1, 2.2f);
        EXPECT_GT(rc, 0);
        bvtest::expect_thread_invariant([&](int threads) {
            const int r = st.estimate(&est, &conf, threads, 2.2f);
            est.insert(est.end(), conf.begin(), conf.end());
            return std::make_pair(r, bvtest::Bytes((const uint8_t *)est.data(),
                                                   (const uint8_t *)(est.data() + est.size())));
        });
        g_progress.clear();
        EXPECT_EQ(st.estimate(&est, nullptr, 3, 2.2f, nullptr, record_progress), rc);
        ASSERT_FALSE(g_progress.empty());
        EXPECT_TRUE(std::is_sorted(g_progress.begin(), g_progress.end()));
        EXPECT_EQ(g_progress.back(), 1.0f);
        EXPECT_EQ(st.estimate(&est, nullptr, 3, 2.2f, nullptr, cancel_at_once), BV_HDR_CANCELLED);
        EXPECT_EQ(est, std::vector<float>(st.n, -7.0f));
    }
}
