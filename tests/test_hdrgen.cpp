// HDR generation: statistics, exposures, ordering, response curve, merge.

#include "core/hdrgen/hdrgen.hpp"
#include "test_support.hpp"

namespace {

using bvtest::Bytes;

// A flat image of one colour, ch samples per pixel, 8 or native 16 bits.
Bytes flat(int w, int h, int ch, std::vector<int> px, int bits = 8) {
    Bytes v;
    for (size_t i = 0; i < size_t(w) * h * ch; ++i) {
        const uint16_t s = uint16_t(px[i % ch]);
        if (bits == 8) v.push_back(uint8_t(s));
        if (bits == 16) v.insert(v.end(), (const uint8_t *)&s, (const uint8_t *)&s + 2);
    }
    return v;
}

// The same grey level in the first n pixels.
Bytes with_greys(Bytes img, int n, uint8_t level) {
    std::fill(img.begin(), img.begin() + 3 * n, level);
    return img;
}

TEST(MedianStatistic, LevelsDarkAndWhiteEscapes) {
    const int w = 10, h = 10;
    const Bytes grey = flat(w, h, 3, {128, 128, 128});
    int32_t st[1] = {};
    Bytes padded(size_t(w * 3 + 5) * h, 255);  // padding must not be read
    for (int y = 0; y < h; ++y) std::fill_n(&padded[y * (w * 3 + 5)], w * 3, 60);
    const struct {
        Bytes img;
        int stride, ch, bits, stat;
    } cases[] = {
        // Dark: the 95th percentile; nearly white: where the count passes trunc(0.17 * 100).
        {with_greys(flat(w, h, 3, {2, 2, 2}), 6, 200), w * 3, 3, 8, 200},
        {with_greys(flat(w, h, 3, {255, 255, 255}), 20, 100), w * 3, 3, 8, 65536 + 100},
        // High bytes of 16 bits: (54*10+183*20+19*250)>>8 = 34; four channels: B is sample 2.
        {flat(w, h, 3, {10 << 8 | 0xff, 20 << 8, 250 << 8 | 7}, 16), w * 3, 3, 16, 34 * 256},
        {flat(w, h, 4, {10, 20, 250, 0}), w * 4, 4, 8, 34 * 256},
        {flat(w, h, 2, {100, 255}), w * 2, 2, 8, 100 * 256},  // two: sample 0 for all
        {padded, w * 3 + 5, 3, 8, 60 * 256},
        {grey, w * 3, 3, 12, 65792},                       // other depths: empty histogram
        {flat(w, h, 3, {0, 0, 0}), w * 3, 3, 8, 0},        // all black: bin 0
        {flat(w, h, 3, {5, 5, 5}), w * 3, 3, 8, 5 * 256},  // first bin not nearly black
        {flat(w, h, 3, {253, 253, 253}), w * 3, 3, 8, 65536 + 253},  // first nearly white bin
    };
    for (const auto &c : cases) {
        EXPECT_EQ(mediane_images(1, w, h, c.stride, c.ch, c.bits, c.img.data(), st), 50);
        EXPECT_EQ(st[0], c.stat) << c.ch << " " << c.bits;
    }
    // n < 1 writes nothing; bad pointers and strides are refused.
    st[0] = 77;
    EXPECT_EQ(mediane_images(0, 7, 3, 21, 3, 8, nullptr, st), 10);
    EXPECT_EQ(st[0], 77);
    EXPECT_EQ(mediane_images(1, w, h, w * 3, 3, 8, nullptr, st), BV_HDR_EINVAL);
    EXPECT_EQ(mediane_images(1, w, h, w * 3, 0, 8, grey.data(), st), BV_HDR_EINVAL);
    EXPECT_EQ(mediane_images(1, w, h, w * 3 - 1, 3, 8, grey.data(), st), BV_HDR_EINVAL);
}

TEST(CorrectionTable, BreakpointsGapAndSinglePrecisionSlopes) {
    std::vector<float> t(65536);
    bv::hdrgen::fill_correction_table(t.data());
    const int lv[9] = {0, 8, 14, 60, 90, 125, 160, 190, 255};
    const float f[9] = {1.1f, 1.2f, 1.3f, 1.5f, 1.8f, 2.3f, 3.3f, 4.7f, 6.0f};
    for (int k = 0; k < 9; ++k) EXPECT_EQ(t[lv[k] << 8], f[k]) << k;
    EXPECT_EQ(t[65281], 0.0f);
    EXPECT_EQ(t[65535], 0.0f);
    // Halfway from 1.8 to 2.3, computed in float from float constants.
    EXPECT_EQ(t[23040 + 4480], 0x1.066666p+1f);
    for (int i = 1; i <= 65280; ++i) ASSERT_GE(t[i], t[i - 1]) << i;  // monotone
}

TEST(GuessEv, FixedStepOrderingAndTies) {
    const struct {
        std::vector<int32_t> st;
        float step;
        std::vector<float> want;
    } cases[] = {
        {{20000, 40000, 30000}, 1.0f, {0.5f, 2.0f, 1.0f}},
        {{5000, 5000}, 2.0f, {4.0f, 1.0f}},          // ties: the lower index is brighter
        {{-5, 100, 200}, 1.0f, {0.5f, 1.0f, 2.0f}},  // negative: never picked, joins last
    };
    for (auto c : cases) {
        std::vector<float> r(c.st.size());
        const auto before = c.st;
        EXPECT_EQ(guess_ev(0, int(r.size()), c.st.data(), r.data(), c.step), int(r.size()));
        EXPECT_EQ(r, c.want);
        EXPECT_EQ(c.st, before) << "untouched with a fixed step";
    }
    float r[2];
    int32_t st[2] = {1, 2};
    EXPECT_EQ(guess_ev(0, 0, st, r, 1.0f), 0);
    EXPECT_EQ(guess_ev(0, 2, nullptr, r, 1.0f), BV_HDR_EINVAL);
}

TEST(GuessEv, EstimatedStepsFollowTheCorrectedLogRatio) {
    // One stop up from the middle counts 1.886 stops, one down 1.448.
    int32_t st[3] = {8192, 32768, 16384};
    float r[3];
    ASSERT_EQ(guess_ev(0, 3, st, r, 0.0f), 3);
    EXPECT_EQ(std::vector<float>(r, r + 3),
              std::vector<float>({0x1.775f04p-2f, 0x1.d90182p+1f, 1.0f}));
    // Whole stops: stats become the order, result the rounded EVs in that order.
    ASSERT_EQ(guess_ev(1, 3, st, r, -0.2f), 3);
    EXPECT_EQ(std::vector<int>(st, st + 3), std::vector<int>({1, 2, 0}));
    EXPECT_EQ(std::vector<float>(r, r + 3), std::vector<float>({2.0f, 0.0f, -1.0f}));
    // Raised to 1 in place; clamped at 65535; mid levels past 65280 add nothing.
    int32_t st3[3] = {-3, 65600, 65790};
    ASSERT_EQ(guess_ev(0, 3, st3, r, 0.0f), 3);
    EXPECT_EQ(st3[0], 1);
    EXPECT_EQ(std::vector<float>(r, r + 3), std::vector<float>({0x1.c6a762p-39f, 1.0f, 1.0f}));
}

TEST(GetEv, CameraRecords) {
    int32_t rec[4 * 7] = {
        1, 100, 8, 1, 0,    100, 0,  // 1/100 s, f/8, ISO 100
        0, 0,   0, 0, 1500, 0,   0,  // stored EV of 1.5 stops
        1, 50,  0, 0, 0,    0,   0,  // f-number and ISO unknown: f/8, ISO 100
        1, 0,   4, 1, 0,    400, 0,  // zero denominator: time 0
    };
    EXPECT_EQ(get_ev(4, rec), 1);
    float f[4];
    std::memcpy(f, rec, sizeof f);
    // t * 20.64516 * ISO / N^2 in float; 2^1.5.
    EXPECT_EQ(std::vector<float>(f, f + 4),
              std::vector<float>({0x1.4a5292p-2f, 0x1.6a09e8p+1f, 0x1.4a5292p-1f, 0.0f}));
    EXPECT_EQ(get_ev(0, nullptr), 1);
    EXPECT_EQ(get_ev(1, nullptr), BV_HDR_EINVAL);
}

TEST(Ordering, AscendingWithTiesAndMiddleImage) {
    const float v[5] = {2.0f, 0.5f, 2.0f, 8.0f, 0.5f}, low[3] = {1.0f, -2e8f, 3.0f};
    int32_t o[5];
    EXPECT_EQ(fClassementCroissant(5, v, o), 5);
    EXPECT_EQ(std::vector<int>(o, o + 5), std::vector<int>({4, 1, 2, 0, 3}))
        << "equal values: higher index first";
    EXPECT_EQ(fClassementCroissant(3, low, o), 3);
    EXPECT_EQ(std::vector<int>(o, o + 3), std::vector<int>({1, 0, 2}))
        << "values at or below -1e8 are never picked: they end up first";
    EXPECT_EQ(fClassementCroissant(0, v, o), 0);
    // Picks 250, 120 (index 2), 80, 40, then nothing new: middle is 80 at index 4.
    const int32_t lv[5] = {40, 250, 120, 120, 80}, three[3] = {10, 200, 100};
    EXPECT_EQ(mid_im(5, lv), 4);
    EXPECT_EQ(mid_im(3, three), 2);
    EXPECT_EQ(mid_im(0, three), BV_HDR_EINVAL);
    // Mean level on a 50x50 grid: a flat image returns its level.
    const Bytes img = flat(120, 90, 3, {30, 60, 90}),
                img16 = flat(480, 90, 1, {100 << 8 | 0xff}, 16);
    EXPECT_EQ(moy_image(120, 90, 360, 3, 8, img.data()), 60);
    EXPECT_EQ(moy_image(120, 90, 480, 4, 16, img16.data()), 100);
    EXPECT_EQ(moy_image(120, 90, 360, 3, 32, img.data()), 0);
    EXPECT_EQ(moy_image(0, 90, 360, 3, 8, img.data()), 0);
    EXPECT_EQ(moy_image(120, 90, 360, 2, 8, img.data()), 0);
}

// Minimal profile: header size, one tag entry, a curve of `count` entries.
Bytes make_profile(uint32_t count, uint8_t gi, uint8_t gf, uint32_t offset = 144) {
    Bytes p(128 + 4 + 12 + 12 + 2 * (count ? count : 1), 0);
    auto put = [&](size_t at, uint32_t v) {
        p[at] = v >> 24, p[at + 1] = v >> 16, p[at + 2] = v >> 8, p[at + 3] = v;
    };
    put(0, uint32_t(p.size()));
    put(128, 1);
    std::memcpy(&p[132], "gTRC", 4);
    put(136, offset);
    put(140, 14);
    std::memcpy(&p[144], "curv", 4);
    put(152, count);
    p[156] = gi, p[157] = gf;
    return p;
}

TEST(ProfileGamma, SyntheticProfiles) {
    const int n = int(make_profile(1, 2, 51).size());  // 158
    Bytes last_word = make_profile(1, 2, 51, n - 12), unsigned_tag = make_profile(1, 2, 51);
    std::fill(last_word.end() - 4, last_word.end() - 1, 0);
    last_word.back() = 1;         // a one-entry count in the last word, its gamma past the end
    Bytes many_last = last_word;  // a curve of two entries: no gamma to read, but a tag
    many_last.back() = 2;
    Bytes half_gamma = make_profile(1, 2, 51, n - 13);  // the gamma's fraction past the end
    half_gamma[155] = 0;  // count 1 in the entry's shifted count field
    half_gamma[156] = 1;
    unsigned_tag[133] = 'x';
    const struct {
        Bytes p;
        int size, rc;
        float gamma;
    } cases[] = {
        {make_profile(1, 2, 51), n, 133, 2.19921875f},
        // Size mismatch: minus the stored size, gamma untouched.
        {make_profile(1024, 9, 9), 2205, -2204, 7.0f},
        // Tag offset past the end, or the entry count straddling it: not found.
        {make_profile(1, 2, 51, 0xfffffff0u), n, n - 12, 2.2f},
        {make_profile(1, 2, 51, n - 11), n, n - 12, 2.2f},
        {last_word, n, n - 12, 2.2f},
        {half_gamma, n, n - 12, 2.2f},
        {unsigned_tag, n, n - 12, 2.2f},
        {many_last, n, 133, 2.2f},
        {Bytes({0, 0, 0, 12, 0, 0, 0, 0, 0, 0, 0, 0}), 12, 0, 2.2f},
    };
    for (const auto &c : cases) {
        const Bytes exact(c.p.begin(), c.p.begin() + std::min<size_t>(c.size, c.p.size()));
        float g = 7.0f;  // ASan sees any read past the exactly sized copy
        EXPECT_EQ(
            trc_from_profile(c.size == int(exact.size()) ? exact.data() : c.p.data(), c.size, &g),
            c.rc);
        EXPECT_EQ(g, c.gamma) << c.rc;
    }
    float g;
    const uint8_t tiny[12] = {0, 0, 0, 12};
    EXPECT_LT(trc_from_profile(tiny, 3, &g), 0);
    EXPECT_LT(trc_from_profile(nullptr, 100, &g), 0);
}

// Installed: one-entry curve, 1024 entries, grey (no r/g/b curve), curve as first tag.
TEST(ProfileGamma, InstalledIccProfiles) {
    const struct {
        const char *file;
        int rc;
        float gamma;
    } cases[] = {{"compatibleWithAdobeRGB1998.icc", 217, 2.19921875f},
                 {"sRGB.icc", 217, 2.2f},
                 {"Gray.icc", 408, 2.2f},
                 {"LCMSXYZI.ICM", 133, 2.2f}};
    int checked = 0;
    for (const auto &c : cases) {
        Bytes d;
        if (!bvtest::read_file(std::string("/usr/share/color/icc/") + c.file, &d)) continue;
        float g = 0.0f;
        EXPECT_EQ(trc_from_profile(d.data(), int(d.size()), &g), c.rc) << c.file;
        EXPECT_EQ(g, c.gamma) << c.file;
        ++checked;
    }
    if (checked == 0) GTEST_SKIP() << "no ICC profiles installed (icc-profiles-free)";
}

TEST(ResponseCurve, TableAndEstimate) {
    float t[256];
    EXPECT_EQ(gen_courbe(2200, 1.0f, t), 256);
    EXPECT_EQ(std::vector<float>({t[0], t[1], t[255]}),
              std::vector<float>({1.0f, 1.0f, float(std::pow(255.0, 2.2))}));
    EXPECT_EQ(gen_courbe(1000, 0.5f, t), 256);
    EXPECT_EQ(t[200], 100.0f);
    // Brackets of a smooth gradient through gamma 2.2, one stop apart.
    const int w = 200, h = 100, n = 4;
    Bytes img(size_t(n) * w * h * 3);
    float ex[n] = {1, 2, 4, 8}, same[n] = {1, 1, 1, 1}, res[3];
    for (size_t i = 0; i < img.size(); ++i) {
        const size_t p = i / 3 % (w * h), k = i / 3 / (w * h);
        const double lin = 0.002 + 0.25 * (p % w + p / w * 0.37) / w;
        img[i] = uint8_t(255.0 * std::pow(std::min(1.0, lin * ex[k]), 1 / 2.2));
    }
    const int g = calc_courbe(n, w, h, 3, 8, img.data(), ex, res);
    EXPECT_EQ(g, 2073);
    EXPECT_EQ(res[0], 0x1.cd4d08p+15f);  // 200^gamma, the gamma the return value truncates
    EXPECT_EQ(res[1], 1.0f);
    // Identical brackets give no plausible pair: the documented fallback.
    EXPECT_EQ(calc_courbe(n, w, h, 3, 8, img.data(), same, res), 2200);
    const Bytes black(img.size(), 0);  // no sample position
    EXPECT_EQ(calc_courbe(n, w, h, 3, 8, black.data(), ex, res), BV_HDR_ENOPOS);
    EXPECT_EQ(calc_courbe(n, w, h, 3, 12, img.data(), ex, res), BV_HDR_EDEPTH);
    EXPECT_EQ(calc_courbe(n, w, h, 3, 8, img.data(), nullptr, res), BV_HDR_EINVAL);
    // 16-bit data: high bytes, the same luma for both images of a pair.
    std::vector<uint16_t> wide(img.size());
    for (size_t i = 0; i < img.size(); ++i) wide[i] = uint16_t(img[i] << 8 | 0x80);
    EXPECT_EQ(calc_courbe(n, w, h, 3, 16, wide.data(), ex, res), 2078);
}

struct Merge {
    int n, w, h, ch, bits;
    std::vector<float> lut, ex;
    bvtest::Planar out;
    float stats[3] = {};
    Merge(int n_, int w_, int h_, int ch_, int bits_)
        : n(n_), w(w_), h(h_), ch(ch_), bits(bits_), lut(65536), ex(n_), out(w_, h_, 0xab) {}
    int run(const void *data, float evStep, int mode = 0, bv_progress_cb cb = nullptr,
            bool null_ex = false) {
        return bv_hdr_merge(cb, mode, n, w, h, ch, evStep, bits, 0, lut.data(),
                            null_ex ? nullptr : ex.data(), data, stats, out.px.data());
    }
};

TEST(Merge, SingleBracketIsTheLinearisedImage) {
    Merge m(1, 16, 16, 3, 8);
    Bytes img = bvtest::random_bytes(16 * 16 * 3, 3);
    for (auto &v : img) v = uint8_t(1 + v % 220);
    ASSERT_EQ(m.run(img.data(), 0.0f), 16);
    EXPECT_EQ(m.ex[0], 1.0f);
    EXPECT_EQ(m.lut[255], 0x1.fb9c3ep-1f);  // (255/256)^2.2
    EXPECT_EQ(m.lut[0], m.lut[1]);
    // Set while every channel was checked to lie within 1/128 of the largest below lut[level].
    EXPECT_EQ(bvtest::digest(m.out.px), 14698478207400578189u);
}

TEST(Merge, MarkersAreFilledUnlessModeTwo) {
    // Two brackets, 4 pixels a row: saturated, black, and two ordinary greys.
    const int w = 4, h = 16;
    Bytes img(2 * w * h * 3);
    for (size_t i = 0; i < img.size(); ++i) {
        const int x = i / 3 % w, k = i / (3 * w * h);
        img[i] = uint8_t(x == 0 ? 255 : x == 1 ? 0 : (k ? 180 : 60) + x);
    }
    Merge m(2, w, h, 3, 8);
    m.ex = {1.0f, 4.0f};
    ASSERT_EQ(m.run(img.data(), -1.0f, 2), h);
    EXPECT_EQ(m.out.get(0, 0), (std::array<uint8_t, 4>{255, 255, 255, 255}));
    EXPECT_EQ(m.out.get(1, 0)[3], 0);
    const float lo = m.stats[0] / 256, hi = m.stats[1] / 256;
    EXPECT_GT(hi, lo);
    ASSERT_EQ(m.run(img.data(), -1.0f, 0), h);
    const auto sat = m.out.value(0, 5), blk = m.out.value(1, 5), mid = m.out.value(3, 5);
    EXPECT_NEAR(sat[0], hi, hi / 128);
    EXPECT_EQ(sat[0], sat[2]);
    EXPECT_NEAR(blk[1], lo, lo / 128);
    EXPECT_GT(mid[0], blk[0]);
    EXPECT_GT(m.stats[2], 0.0f) << "the mean counts black pixels, not saturated ones";
}

TEST(Merge, BlackStackStaysBlack) {
    // No positive luminance: nothing to fill markers with, statistics at their start.
    const Bytes img(2 * 5 * 16 * 3, 0);
    Merge m(2, 5, 16, 3, 8);
    ASSERT_EQ(m.run(img.data(), 0.0f), 16);
    EXPECT_EQ(m.out.px, Bytes(m.out.px.size(), 0));
    EXPECT_EQ(std::vector<float>(m.stats, m.stats + 3), std::vector<float>({2.56e11f, 0, 0}));
}

TEST(Merge, WeightsExposuresAndChannelQuirk) {
    // Levels 90 and 130, exposures 1 and 2; four samples: B is the last, sample 2 ignored.
    const int w = 1, h = 16;
    Bytes img(2 * w * h * 4);
    for (size_t i = 0; i < img.size(); i += 4) {
        const uint8_t v = i < img.size() / 2 ? 90 : 130;
        img[i] = img[i + 1] = img[i + 3] = v, img[i + 2] = 7;
    }
    Merge m(2, w, h, 4, 8);
    m.ex = {1.0f, 2.0f};
    // -0.5 already means the caller's exposures: read, not overwritten.
    ASSERT_EQ(m.run(img.data(), -0.5f), h);
    EXPECT_EQ(m.out.get(0, 3), (std::array<uint8_t, 4>{219, 219, 219, 125}));
    EXPECT_EQ(m.ex, std::vector<float>({1.0f, 2.0f}));
    // Without exposures every bracket counts 1:1.
    ASSERT_EQ(m.run(img.data(), -1.0f, 0, nullptr, true), h);
    EXPECT_EQ(m.out.get(0, 3), (std::array<uint8_t, 4>{172, 172, 172, 126}));
    // Just above -0.5 they are estimated (one bracket brighter: above 1).
    ASSERT_EQ(m.run(img.data(), -0.49f), h);
    EXPECT_EQ(m.ex, std::vector<float>({1.0f, 0x1.080ebp+1f}));
    // Fixed step: exposures come out 2^(n/2 - i) by brightness.
    Merge f(2, w, h, 4, 8);
    ASSERT_EQ(f.run(img.data(), 1.0f), h);
    EXPECT_EQ(f.ex, std::vector<float>({1.0f, 2.0f}));
}

int g_calls = 0;
float g_last = 0;
void count_cb(int32_t *, float f) { ++g_calls, g_last = f; }
void stop_cb(int32_t *cancel, float) { ++g_calls, *cancel = 1; }

TEST(Merge, ProgressAndCancellation) {
    const int w = 3, h = 1000;  // height / 16 = 62: reports at rows 50, 112, ...
    const Bytes img(2 * w * h * 3, 100);
    Merge m(2, w, h, 3, 8), s(2, w, 800, 3, 8);
    g_calls = 0;
    ASSERT_EQ(m.run(img.data(), 1.0f, 0, count_cb), h);
    EXPECT_EQ(g_calls, 16);
    EXPECT_FLOAT_EQ(g_last, (50 + 15 * 62) / 1000.0f);
    g_calls = 0;
    EXPECT_EQ(m.run(img.data(), 1.0f, 0, stop_cb), BV_HDR_CANCELLED);
    EXPECT_EQ(g_calls, 1);
    g_calls = 0;
    ASSERT_EQ(s.run(img.data(), 1.0f, 0, stop_cb), 800) << "800 rows or fewer never report";
    EXPECT_EQ(g_calls, 0);
}

TEST(Merge, BadInputAndOutOfMemory) {
    const Bytes img(2 * 8 * 16 * 3, 120);
    Merge m(2, 8, 16, 3, 8);
    auto merge = [&](int n, int h, const void *data) {
        return bv_hdr_merge(nullptr, 0, n, 8, h, 3, 0, 8, 0, m.lut.data(), m.ex.data(), data,
                            m.stats, m.out.px.data());
    };
    EXPECT_EQ(merge(0, 16, img.data()), BV_HDR_EINVAL);
    EXPECT_EQ(merge(2, 16, nullptr), BV_HDR_EINVAL);
    EXPECT_EQ(merge(2, 0, img.data()), 0);
    EXPECT_EQ(std::vector<float>(m.stats, m.stats + 3), std::vector<float>({2.56e11f, 0, 0}));
    m.ex = {1.0f, 0.0f};  // caller exposures must be positive
    EXPECT_EQ(m.run(img.data(), -1.0f), BV_HDR_EINVAL);
    // Other depths are accepted: nothing read, everything black, lut untouched.
    Merge d(2, 8, 16, 3, 12);
    d.lut[5] = 42.0f;
    EXPECT_EQ(d.run(img.data(), 0.0f), 16);
    EXPECT_EQ(d.lut[5], 42.0f);
    EXPECT_EQ(d.out.px, Bytes(d.out.px.size(), 0));
    // Every scratch allocation failing in turn gives -4 (ASan checks for leaks).
    Merge ok(2, 8, 16, 3, 8);
    for (long k = 0; k < 20; ++k) {
        bvtest::FailAllocation fail(k);
        const int rc = ok.run(img.data(), 0.0f);
        if (rc == 16) break;
        EXPECT_EQ(rc, BV_HDR_ENOMEM) << k;
    }
}

// Brackets `stops` apart through gamma 2.2 of a 15-stop textured, coloured gradient.
constexpr int W = 128, H = 96;
struct Scene {
    int n, bits;
    std::vector<float> exposures;
    std::vector<uint16_t> samples;  // n images of W x H x 3
    Scene(int n_, int bits_, double stops) : n(n_), bits(bits_) {
        bvtest::Rng rng(11);
        std::vector<double> truth;
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                const double L =
                    std::exp2(-11.0 + 15.0 * x / (W - 1) + 0.6 * (rng.uniform() - 0.5));
                for (int c = 0; c < 3; ++c)
                    truth.push_back(L * (1.0 + 0.35 * std::cos(6.2832 * y / H + 2.1 * c)));
            }
        const int levels = 1 << bits;
        for (int k = 0; k < n; ++k) exposures.push_back(float(std::exp2(stops * (k - n / 2))));
        for (int k = 0; k < n; ++k)
            for (double t : truth)
                samples.push_back(uint16_t(std::min(
                    levels - 1,
                    int(levels * std::pow(std::min(1.0, t * exposures[k]), 1 / 2.2) + 0.5))));
    }
    // Merges with the given exposures (evStep -1) or estimates them (0).
    bvtest::Planar merge(std::vector<float> *ex, float evStep, int mode = 0) const {
        const Bytes d8(samples.begin(), samples.end());
        Merge m(n, W, H, 3, bits);
        m.ex = *ex;
        EXPECT_EQ(
            m.run(bits == 8 ? static_cast<const void *>(d8.data()) : samples.data(), evStep, mode),
            H);
        *ex = m.ex;
        return m.out;
    }
};

// Set while every well-exposed pixel was within its brackets' quantisation of the scene.
TEST(SyntheticMerge, MergedScenesPinned) {
    std::vector<uint64_t> digests;
    for (int bits : {8, 16})
        for (int n : {3, 5, 7, 9})
            for (double stops : {1.0, 2.0, 3.0}) {
                const Scene st(n, bits, stops);
                std::vector<float> ex = st.exposures;
                digests.push_back(bvtest::digest(st.merge(&ex, -1.0f).px));
            }
    EXPECT_EQ(bvtest::digest(digests), 10418356016989300207u);
}

// The merge's own estimate (a median luma misplaces clipped brackets by up to 2 stops).
TEST(SyntheticMerge, EstimatedExposuresPinned) {
    const struct {
        int bits, n;
        double stops;
    } pins[] = {{8, 3, 1}, {8, 5, 2}, {8, 7, 1}, {8, 9, 1}, {8, 5, 3}, {16, 3, 1}, {16, 9, 1}};
    std::vector<float> all;
    for (const auto &pin : pins) {
        std::vector<float> est(pin.n);
        Scene(pin.n, pin.bits, pin.stops).merge(&est, 0.0f, 2);
        all.insert(all.end(), est.begin(), est.end());
    }
    EXPECT_EQ(bvtest::digest(all), 15344997993979247349u);
}

}  // namespace
