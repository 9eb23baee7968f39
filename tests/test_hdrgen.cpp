// HDR generation: statistics, exposure estimation and ordering, response curve, merge edge cases.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <vector>

#include "core/hdrgen/hdrgen.hpp"
#include "test_support.hpp"

namespace {

// A flat image of one RGB colour.
std::vector<uint8_t> flat8(int w, int h, int ch, std::vector<int> px) {
    std::vector<uint8_t> v(static_cast<size_t>(w) * h * ch);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint8_t>(px[i % ch]);
    return v;
}

void decode(const std::vector<uint8_t> &out, int w, int x, int y, float rgb[3]) {
    const uint8_t *row = out.data() + static_cast<size_t>(y) * 4 * w;
    const int e = row[3 * w + x];
    const double s = e ? std::ldexp(1.0, e - 136) : 0.0;
    for (int c = 0; c < 3; ++c) rgb[c] = static_cast<float>(row[c * w + x] * s);
}

uint32_t exponent_of(const std::vector<uint8_t> &out, int w, int x, int y) {
    const uint8_t *row = out.data() + static_cast<size_t>(y) * 4 * w;
    return row[3 * w + x];
}

}  // namespace

TEST(MedianStatistic, LevelsDarkAndWhiteEscapes) {
    const int w = 10, h = 10;
    // Mid grey 128: median bin 128 -> 32768.
    std::vector<uint8_t> img = flat8(w, h, 3, {128, 128, 128});
    // Dark image: median bin < 5, 95th percentile decides (here 40 of 100 bright pixels? no: 3).
    std::vector<uint8_t> dark = flat8(w, h, 3, {2, 2, 2});
    for (int i = 0; i < 6; ++i) dark[3 * i] = dark[3 * i + 1] = dark[3 * i + 2] = 200;
    // Nearly white: median 255; 17th percentile bin of a few darker pixels.
    std::vector<uint8_t> white = flat8(w, h, 3, {255, 255, 255});
    for (int i = 0; i < 20; ++i) white[3 * i] = white[3 * i + 1] = white[3 * i + 2] = 100;
    std::vector<uint8_t> all;
    for (auto *v : {&img, &dark, &white}) all.insert(all.end(), v->begin(), v->end());
    int32_t st[3] = {};
    EXPECT_EQ(mediane_images(3, w, h, w * 3, 3, 8, all.data(), st), 50);
    EXPECT_EQ(st[0], 128 * 256);
    // 94 pixels at level 1 ((54+183+19)*2>>8 = 2), 6 at 200: 95th percentile is 200.
    EXPECT_EQ(st[1], 200);
    // 20 pixels at 100 exceed trunc(0.17 * 100) = 17 running count at bin 100.
    EXPECT_EQ(st[2], 65536 + 100);

    // Luma weights and the high byte of 16-bit samples: (54*10+183*20+19*250)>>8 = 34.
    std::vector<uint16_t> img16(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < img16.size(); i += 3) {
        img16[i] = 10 << 8 | 0xff;
        img16[i + 1] = 20 << 8;
        img16[i + 2] = 250 << 8 | 7;
    }
    EXPECT_EQ(mediane_images(1, w, h, w * 3, 3, 16, img16.data(), st), 50);
    EXPECT_EQ(st[0], 34 * 256);

    // Four channels read B from sample 2 (the fourth is alpha): 255 in the
    // fourth sample must not change the statistic.
    std::vector<uint8_t> rgba = flat8(w, h, 4, {10, 20, 250, 0});
    EXPECT_EQ(mediane_images(1, w, h, w * 4, 4, 8, rgba.data(), st), 50);
    EXPECT_EQ(st[0], 34 * 256);
    // Two channels use sample 0 for all three colours.
    std::vector<uint8_t> two = flat8(w, h, 2, {100, 255});
    EXPECT_EQ(mediane_images(1, w, h, w * 2, 2, 8, two.data(), st), 50);
    EXPECT_EQ(st[0], 100 * 256);

    // Row stride larger than the pixels: padding must not be read.
    std::vector<uint8_t> padded(static_cast<size_t>(w * 3 + 5) * h, 255);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w * 3; ++x) padded[y * (w * 3 + 5) + x] = 60;
    EXPECT_EQ(mediane_images(1, w, h, w * 3 + 5, 3, 8, padded.data(), st), 50);
    EXPECT_EQ(st[0], 60 * 256);

    // Other depths keep an empty histogram: no median, no 17th percentile.
    EXPECT_EQ(mediane_images(1, w, h, w * 3, 3, 12, img.data(), st), 50);
    EXPECT_EQ(st[0], 65792);
    // All-black image with nothing above the 95th rank: its bin 0.
    std::vector<uint8_t> black = flat8(w, h, 3, {0, 0, 0});
    EXPECT_EQ(mediane_images(1, w, h, w * 3, 3, 8, black.data(), st), 50);
    EXPECT_EQ(st[0], 0);
    // Median bin 253 is already "nearly white".
    std::vector<uint8_t> b253 = flat8(w, h, 3, {253, 253, 253});
    EXPECT_EQ(mediane_images(1, w, h, w * 3, 3, 8, b253.data(), st), 50);
    EXPECT_EQ(st[0], 65536 + 253);

    // n < 1 writes nothing; bad pointers are refused.
    st[0] = 77;
    EXPECT_EQ(mediane_images(0, 7, 3, 21, 3, 8, nullptr, st), 10);
    EXPECT_EQ(st[0], 77);
    EXPECT_EQ(mediane_images(1, w, h, w * 3, 3, 8, nullptr, st), BV_HDR_EINVAL);
    EXPECT_EQ(mediane_images(1, w, h, w * 3, 0, 8, img.data(), st), BV_HDR_EINVAL);
    EXPECT_EQ(mediane_images(1, w, h, w * 3 - 1, 3, 8, img.data(), st), BV_HDR_EINVAL);
}

TEST(CorrectionTable, BreakpointsGapAndSinglePrecisionSlopes) {
    std::vector<float> t(65536);
    bv::hdrgen::fill_correction_table(t.data());
    const int lv[9] = {0, 8, 14, 60, 90, 125, 160, 190, 255};
    const float f[9] = {1.1f, 1.2f, 1.3f, 1.5f, 1.8f, 2.3f, 3.3f, 4.7f, 6.0f};
    for (int k = 0; k < 9; ++k) EXPECT_EQ(t[lv[k] << 8], f[k]) << k;
    EXPECT_EQ(t[65281], 0.0f);
    EXPECT_EQ(t[65535], 0.0f);
    // Halfway through a segment, computed in float from float constants.
    const float mid = 1.8f + 4480.0f * (2.3f - 1.8f) / 8960.0f;
    EXPECT_EQ(t[23040 + 4480], mid);
    for (int i = 1; i <= 65280; ++i) ASSERT_GE(t[i], t[i - 1]) << i;  // monotone
}

TEST(GuessEv, FixedStepOrderingAndTies) {
    int32_t st[3] = {20000, 40000, 30000};
    float r[3];
    EXPECT_EQ(guess_ev(0, 3, st, r, 1.0f), 3);
    EXPECT_FLOAT_EQ(r[1], 2.0f);
    EXPECT_FLOAT_EQ(r[2], 1.0f);
    EXPECT_FLOAT_EQ(r[0], 0.5f);
    EXPECT_EQ(st[0], 20000);  // untouched with a fixed step
    // Equal statistics: the lower index counts as the brighter one.
    int32_t eq[2] = {5000, 5000};
    EXPECT_EQ(guess_ev(0, 2, eq, r, 2.0f), 2);
    EXPECT_FLOAT_EQ(r[0], 2.0f * 2.0f);  // order[0] = 0 -> (n/2 - 0) * 2 stops
    EXPECT_FLOAT_EQ(r[1], 1.0f);
    // A negative statistic is never selected; it joins the order at the end.
    int32_t neg[3] = {-5, 100, 200};
    EXPECT_EQ(guess_ev(0, 3, neg, r, 1.0f), 3);
    EXPECT_FLOAT_EQ(r[2], 2.0f);
    EXPECT_FLOAT_EQ(r[1], 1.0f);
    EXPECT_FLOAT_EQ(r[0], 0.5f);
    EXPECT_EQ(guess_ev(0, 0, neg, r, 1.0f), 0);
    EXPECT_EQ(guess_ev(0, 2, nullptr, r, 1.0f), BV_HDR_EINVAL);
}

TEST(GuessEv, EstimatedStepsFollowTheCorrectedLogRatio) {
    // Two images: one step of 1.442695 * table[mid] * ln(ratio).
    std::vector<float> t(65536);
    bv::hdrgen::fill_correction_table(t.data());
    int32_t st[3] = {8192, 32768, 16384};
    float r[3];
    ASSERT_EQ(guess_ev(0, 3, st, r, 0.0f), 3);
    EXPECT_EQ(r[2], 1.0f);  // the middle of the brightest-first order
    const double up = 1.442695 * t[24576] * std::log(2.0);
    const double down = 1.442695 * t[12288] * std::log(2.0);
    EXPECT_NEAR(std::log2(r[1]), up, 1e-5);
    EXPECT_NEAR(std::log2(r[0]), -down, 1e-5);
    EXPECT_GT(up, down);  // brighter pairs get a larger factor

    // Whole stops: stats become the order, result the rounded EVs in that order.
    int32_t st2[3] = {8192, 32768, 16384};
    ASSERT_EQ(guess_ev(1, 3, st2, r, -0.2f), 3);
    EXPECT_EQ(st2[0], 1);
    EXPECT_EQ(st2[1], 2);
    EXPECT_EQ(st2[2], 0);
    EXPECT_EQ(r[0], std::round(static_cast<float>(up)));
    EXPECT_EQ(r[1], 0.0f);
    EXPECT_EQ(r[2], std::round(static_cast<float>(-down)));

    // Statistics below 1 are raised to 1 in the caller's array; above 65535
    // they are clamped, and a pair whose mid level is past 65280 adds nothing.
    int32_t st3[3] = {-3, 65600, 65790};
    ASSERT_EQ(guess_ev(0, 3, st3, r, 0.0f), 3);
    EXPECT_EQ(st3[0], 1);
    EXPECT_EQ(r[1], 1.0f);
    EXPECT_EQ(r[2], 1.0f);  // step 0 between the two nearly white images
    EXPECT_LT(r[0], 1.0f / 1024.0f);
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
    const float t = 1.0f / 100.0f;
    EXPECT_EQ(f[0], t * 20.64516f * 100.0f / 64.0f);
    EXPECT_EQ(f[1], static_cast<float>(std::exp2(static_cast<double>(1500 * 0.001f))));
    EXPECT_EQ(f[2], (1.0f / 50.0f) * 20.64516f * 100.0f / 64.0f);
    EXPECT_EQ(f[3], 0.0f);
    EXPECT_EQ(get_ev(0, nullptr), 1);
    EXPECT_EQ(get_ev(1, nullptr), BV_HDR_EINVAL);
}

TEST(Ordering, AscendingWithTiesAndMiddleImage) {
    const float v[5] = {2.0f, 0.5f, 2.0f, 8.0f, 0.5f};
    int32_t o[5];
    EXPECT_EQ(fClassementCroissant(5, v, o), 5);
    const int32_t want[5] = {4, 1, 2, 0, 3};  // equal values: higher index first
    for (int i = 0; i < 5; ++i) EXPECT_EQ(o[i], want[i]) << i;
    // Values at or below -1e8 are never picked; they end up first.
    const float low[3] = {1.0f, -2e8f, 3.0f};
    EXPECT_EQ(fClassementCroissant(3, low, o), 3);
    EXPECT_EQ(o[0], 1);
    EXPECT_EQ(o[1], 0);
    EXPECT_EQ(o[2], 2);
    EXPECT_EQ(fClassementCroissant(0, v, o), 0);

    const int32_t lv[5] = {40, 250, 120, 120, 80};
    // Picks 250, 120 (index 2), 80, 40, then nothing new: middle is 80 at index 4.
    EXPECT_EQ(mid_im(5, lv), 4);
    const int32_t three[3] = {10, 200, 100};
    EXPECT_EQ(mid_im(3, three), 2);
    EXPECT_EQ(mid_im(0, three), BV_HDR_EINVAL);

    // Mean level on a 50x50 grid: a flat image returns its level.
    std::vector<uint8_t> img = flat8(120, 90, 3, {30, 60, 90});
    EXPECT_EQ(moy_image(120, 90, 360, 3, 8, img.data()), 60);
    std::vector<uint16_t> img16(static_cast<size_t>(120) * 90 * 4, 100 << 8 | 0xff);
    EXPECT_EQ(moy_image(120, 90, 480, 4, 16, img16.data()), 100);
    EXPECT_EQ(moy_image(120, 90, 360, 3, 32, img.data()), 0);
    EXPECT_EQ(moy_image(0, 90, 360, 3, 8, img.data()), 0);
    EXPECT_EQ(moy_image(120, 90, 360, 2, 8, img.data()), 0);
}

namespace {
// Minimal profile: header size, one tag entry, a curve of `count` entries.
std::vector<uint8_t> make_profile(uint32_t count, uint8_t gi, uint8_t gf,
                                  uint32_t offset_override = 0) {
    std::vector<uint8_t> p(128 + 4 + 12 + 12 + 2 * (count ? count : 1), 0);
    auto put = [&](size_t at, uint32_t v) {
        p[at] = v >> 24, p[at + 1] = v >> 16, p[at + 2] = v >> 8, p[at + 3] = v;
    };
    put(0, static_cast<uint32_t>(p.size()));
    put(128, 1);
    std::memcpy(&p[132], "gTRC", 4);
    put(136, offset_override ? offset_override : 144);
    put(140, 14);
    std::memcpy(&p[144], "curv", 4);
    put(152, count);
    p[156] = gi;
    p[157] = gf;
    return p;
}
}  // namespace

TEST(ProfileGamma, SyntheticProfiles) {
    float g = 0.0f;
    std::vector<uint8_t> p = make_profile(1, 2, 51);
    EXPECT_EQ(trc_from_profile(p.data(), static_cast<int>(p.size()), &g), 133);
    EXPECT_EQ(g, 2.19921875f);
    p = make_profile(1024, 9, 9);
    g = 0.0f;
    EXPECT_EQ(trc_from_profile(p.data(), static_cast<int>(p.size()), &g), 133);
    EXPECT_EQ(g, 2.2f);
    // Size mismatch: minus the stored size, gamma untouched.
    g = 7.0f;
    EXPECT_EQ(trc_from_profile(p.data(), static_cast<int>(p.size()) + 1, &g),
              -static_cast<int>(p.size()));
    EXPECT_EQ(g, 7.0f);
    // Tag offset past the end: the not-found answer, nothing read past the end.
    p = make_profile(1, 2, 51, 0xfffffff0u);
    std::vector<uint8_t> exact(p.begin(), p.end());  // ASan sees any overread
    EXPECT_EQ(trc_from_profile(exact.data(), static_cast<int>(exact.size()), &g),
              static_cast<int>(exact.size()) - 12);
    EXPECT_EQ(g, 2.2f);
    // Entry count would straddle the end.
    p = make_profile(1, 2, 51, static_cast<uint32_t>(p.size() - 11));
    EXPECT_EQ(trc_from_profile(p.data(), static_cast<int>(p.size()), &g),
              static_cast<int>(p.size()) - 12);
    // A one-entry count in the last word, its gamma bytes past the end.
    p = make_profile(1, 2, 51, static_cast<uint32_t>(p.size() - 12));
    p[p.size() - 4] = p[p.size() - 3] = p[p.size() - 2] = 0;
    p[p.size() - 1] = 1;
    g = 0.0f;
    EXPECT_EQ(trc_from_profile(p.data(), static_cast<int>(p.size()), &g),
              static_cast<int>(p.size()) - 12);
    EXPECT_EQ(g, 2.2f);
    // No signature at all; tiny profile.
    p = make_profile(1, 2, 51);
    p[133] = 'x';
    EXPECT_EQ(trc_from_profile(p.data(), static_cast<int>(p.size()), &g),
              static_cast<int>(p.size()) - 12);
    const uint8_t tiny[12] = {0, 0, 0, 12};
    g = 0.0f;
    EXPECT_EQ(trc_from_profile(tiny, 12, &g), 0);
    EXPECT_EQ(g, 2.2f);
    EXPECT_LT(trc_from_profile(tiny, 3, &g), 0);
    EXPECT_LT(trc_from_profile(nullptr, 100, &g), 0);
}

TEST(ProfileGamma, InstalledIccProfiles) {
    namespace fs = std::filesystem;
    const fs::path root = "/usr/share/color/icc";
    std::error_code ec;
    if (!fs::is_directory(root, ec))
        GTEST_SKIP() << "no ICC profiles installed (icc-profiles-free, colord-data)";
    int checked = 0, single = 0;
    for (const auto &e : fs::recursive_directory_iterator(root, ec)) {
        const std::string ext = e.path().extension().string();
        if (ext != ".icc" && ext != ".ICM" && ext != ".icm") continue;
        std::vector<uint8_t> d;
        if (!bvtest::read_file(e.path().string(), &d) || d.size() < 132) continue;
        auto be = [&](size_t at) {
            return uint32_t{d[at]} << 24 | uint32_t{d[at + 1]} << 16 | uint32_t{d[at + 2]} << 8 |
                   d[at + 3];
        };
        // Expected answer from the tag table, read independently.
        float want = 2.2f;
        const uint32_t ntags = be(128);
        for (uint32_t i = 0; i < ntags && 144 + 12 * i <= d.size(); ++i) {
            const size_t at = 132 + 12 * i;
            if (d[at + 1] == 'T' && d[at + 2] == 'R' && d[at + 3] == 'C' &&
                (d[at] == 'r' || d[at] == 'g' || d[at] == 'b')) {
                const uint32_t off = be(at + 4);
                if (be(off + 8) == 1) want = d[off + 12] + d[off + 13] / 256.0f, ++single;
                break;
            }
        }
        float g = 0.0f;
        const int rc = trc_from_profile(d.data(), static_cast<int>(d.size()), &g);
        EXPECT_GT(rc, 0) << e.path();
        EXPECT_EQ(g, want) << e.path();
        ++checked;
    }
    if (checked == 0) GTEST_SKIP() << "no ICC profiles found under " << root;
    std::printf("checked %d profiles, %d with a single-gamma curve\n", checked, single);
}

TEST(ResponseCurve, TableAndEstimate) {
    float t[256];
    EXPECT_EQ(gen_courbe(2200, 1.0f, t), 256);
    EXPECT_EQ(t[255], static_cast<float>(std::pow(255.0, 2.2)));
    EXPECT_EQ(t[0], 1.0f);
    EXPECT_EQ(t[1], 1.0f);
    EXPECT_EQ(gen_courbe(1000, 0.5f, t), 256);
    EXPECT_EQ(t[200], 100.0f);

    // Brackets of a smooth gradient through gamma 2.2, one stop apart.
    const int w = 200, h = 100, n = 4;
    std::vector<uint8_t> img(static_cast<size_t>(n) * w * h * 3);
    float ex[n];
    for (int k = 0; k < n; ++k) {
        ex[k] = std::ldexp(1.0f, k);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const double lin = 0.002 + 0.25 * (x + y * 0.37) / w;
                const double v = 255.0 * std::pow(std::min(1.0, lin * ex[k]), 1 / 2.2);
                uint8_t *p = &img[((static_cast<size_t>(k) * h + y) * w + x) * 3];
                p[0] = p[1] = p[2] = static_cast<uint8_t>(v);
            }
    }
    float res[3];
    const int g = calc_courbe(n, w, h, 3, 8, img.data(), ex, res);
    std::printf("estimated gamma %d, rejections %g\n", g, res[2]);
    EXPECT_GT(g, 1000);
    EXPECT_LT(g, 3200);
    // The return value truncates the gamma that gives 200^gamma.
    EXPECT_GE(res[0], std::pow(200.0, g * 0.001) * (1 - 1e-6));
    EXPECT_LT(res[0], std::pow(200.0, (g + 1) * 0.001));
    EXPECT_EQ(res[1], 1.0f);
    // Identical brackets give no plausible pair: the documented fallback.
    float same[n] = {1, 1, 1, 1};
    EXPECT_EQ(calc_courbe(n, w, h, 3, 8, img.data(), same, res), 2200);
    // Black brackets leave no sample position.
    std::vector<uint8_t> black(img.size(), 0);
    EXPECT_EQ(calc_courbe(n, w, h, 3, 8, black.data(), ex, res), BV_HDR_ENOPOS);
    EXPECT_EQ(calc_courbe(n, w, h, 3, 12, img.data(), ex, res), BV_HDR_EDEPTH);
    // 16-bit data is judged on its high bytes with the same luma for both
    // images of a pair: the same brackets widened give a nearby estimate.
    std::vector<uint16_t> wide(img.size());
    for (size_t i = 0; i < img.size(); ++i) wide[i] = static_cast<uint16_t>(img[i] << 8 | 0x80);
    const int g16 = calc_courbe(n, w, h, 3, 16, wide.data(), ex, res);
    std::printf("estimated gamma from 16-bit samples %d\n", g16);
    EXPECT_GT(g16, 1000);
    EXPECT_LT(g16, 3200);
    EXPECT_EQ(calc_courbe(n, w, h, 3, 8, img.data(), nullptr, res), BV_HDR_EINVAL);
}

namespace {
struct Merge {
    int n, w, h, ch, bits;
    std::vector<float> lut, ex;
    std::vector<uint8_t> out;
    float stats[3] = {};
    Merge(int n_, int w_, int h_, int ch_, int bits_)
        : n(n_), w(w_), h(h_), ch(ch_), bits(bits_), lut(65536), ex(n_), out(4 * w_ * h_, 0xab) {}
    int run(const void *data, float evStep, int mode = 0, bv_progress_cb cb = nullptr,
            bool null_ex = false) {
        return bv_hdr_merge(cb, mode, n, w, h, ch, evStep, bits, 0, lut.data(),
                            null_ex ? nullptr : ex.data(), data, stats, out.data());
    }
};
}  // namespace

TEST(Merge, SingleBracketIsTheLinearisedImage) {
    Merge m(1, 16, 16, 3, 8);
    std::vector<uint8_t> img(16 * 16 * 3);
    bvtest::Rng rng(3);
    for (auto &v : img) v = static_cast<uint8_t>(1 + rng.next() % 220);
    ASSERT_EQ(m.run(img.data(), 0.0f), 16);
    EXPECT_EQ(m.ex[0], 1.0f);
    EXPECT_EQ(m.lut[255], static_cast<float>(std::pow(255.0 / 256.0, 2.2)));
    EXPECT_EQ(m.lut[0], m.lut[1]);
    double worst = 0;
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 16; ++x) {
            const uint8_t *p = &img[(y * 16 + x) * 3];
            if (54 * p[0] + 183 * p[1] + 19 * p[2] == 0) continue;
            float rgb[3];
            decode(m.out, 16, x, y, rgb);
            const float mx = std::max({m.lut[p[0]], m.lut[p[1]], m.lut[p[2]]});
            for (int c = 0; c < 3; ++c) {
                // Truncated 8-bit mantissas lose at most 1/128 of the largest channel.
                const double err = (m.lut[p[c]] - rgb[c]) / mx;
                worst = std::max(worst, std::fabs(err));
                EXPECT_GE(err, -1e-6);
                EXPECT_LT(err, 1.0 / 128);
            }
        }
    std::printf("largest relative error %.3g\n", worst);
}

TEST(Merge, MarkersAreFilledUnlessModeTwo) {
    // Two brackets, 4 pixels: one saturated everywhere, one black everywhere.
    const int w = 4, h = 16;
    std::vector<uint8_t> img(2 * w * h * 3);
    for (int k = 0; k < 2; ++k)
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                uint8_t *p = &img[((k * h + y) * w + x) * 3];
                const int v = x == 0 ? 255 : x == 1 ? 0 : (k ? 180 : 60) + x;
                p[0] = p[1] = p[2] = static_cast<uint8_t>(v);
            }
    Merge m(2, w, h, 3, 8);
    m.ex = {1.0f, 4.0f};
    ASSERT_EQ(m.run(img.data(), -1.0f, 2), h);
    EXPECT_EQ(exponent_of(m.out, w, 0, 0), 255u);
    EXPECT_EQ(m.out[0], 255);
    EXPECT_EQ(exponent_of(m.out, w, 1, 0), 0u);
    const float lo = m.stats[0] / 256, hi = m.stats[1] / 256;
    EXPECT_GT(hi, lo);
    ASSERT_EQ(m.run(img.data(), -1.0f, 0), h);
    float sat[3], blk[3], mid[3];
    decode(m.out, w, 0, 5, sat);
    decode(m.out, w, 1, 5, blk);
    decode(m.out, w, 3, 5, mid);
    EXPECT_NEAR(sat[0], hi, hi / 128);
    EXPECT_EQ(sat[0], sat[2]);
    EXPECT_NEAR(blk[1], lo, lo / 128);
    EXPECT_GT(mid[0], blk[0]);
    // Mean counts the black pixels (with 0) but not the saturated ones.
    EXPECT_GT(m.stats[2], 0.0f);
}

TEST(Merge, BlackStackStaysBlack) {
    // No pixel has a positive luminance: there is no darkest grey to fill
    // with, so black stays black (and the statistics keep their start values).
    std::vector<uint8_t> img(2 * 5 * 16 * 3, 0);
    Merge m(2, 5, 16, 3, 8);
    ASSERT_EQ(m.run(img.data(), 0.0f), 16);
    for (uint8_t v : m.out) ASSERT_EQ(v, 0);
    EXPECT_EQ(m.stats[0], 2.56e11f);
    EXPECT_EQ(m.stats[1], 0.0f);
    EXPECT_EQ(m.stats[2], 0.0f);
}

TEST(Merge, WeightsExposuresAndChannelQuirk) {
    // One pixel, two brackets with known exposures 1 and 2: the result is
    // the weight-averaged, exposure-normalised linear value.
    const int w = 1, h = 16;
    const uint8_t a = 90, b = 130;
    std::vector<uint8_t> img(2 * w * h * 4);
    for (int k = 0; k < 2; ++k)
        for (int y = 0; y < h; ++y) {
            uint8_t *p = &img[(k * h + y) * 4];
            p[0] = p[1] = k ? b : a;
            p[2] = 7;          // sample 2: ignored by the merge in RGBA
            p[3] = k ? b : a;  // B is the last sample here
        }
    Merge m(2, w, h, 4, 8);
    m.ex = {1.0f, 2.0f};
    ASSERT_EQ(m.run(img.data(), -0.5f), h);
    auto weight = [](int v, int s) {
        if (v > s) return 0.0;
        const double x = v / 65536.0 - 0.5;
        const double c = v <= 32768 ? 4.0 : 1.0 / std::pow(0.5 - s / 65535.0, 2);
        return std::pow(1 - c * x * x, 2);
    };
    const double wa = weight(256 * a, 64000), wb = weight(256 * b, 60160);
    const double la = std::pow(a / 256.0, 2.2), lb = std::pow(b / 256.0, 2.2);
    const double want = (wa * la + wb * lb / 2) / (wa + wb);
    float rgb[3];
    decode(m.out, w, 0, 3, rgb);
    EXPECT_NEAR(rgb[0], want, want / 128);
    EXPECT_NEAR(rgb[2], want, want / 128);
    EXPECT_GE(want, rgb[0]);
    // Without exposures every bracket counts 1:1.
    ASSERT_EQ(m.run(img.data(), -1.0f, 0, nullptr, true), h);
    decode(m.out, w, 0, 3, rgb);
    const double plain = (weight(256 * a, 64000) * la + weight(256 * b, 64000) * lb) /
                         (weight(256 * a, 64000) + weight(256 * b, 64000));
    EXPECT_NEAR(rgb[1], plain, plain / 128);

    // -0.5 is already "caller's exposures": they are read, not overwritten;
    // just above it they are estimated (one bracket brighter -> factor above 1).
    m.ex = {1.0f, 2.0f};
    ASSERT_EQ(m.run(img.data(), -0.5f), h);
    EXPECT_EQ(m.ex[0], 1.0f);
    EXPECT_EQ(m.ex[1], 2.0f);
    ASSERT_EQ(m.run(img.data(), -0.49f), h);
    EXPECT_EQ(m.ex[0], 1.0f);
    EXPECT_GT(m.ex[1], 1.0f);
    EXPECT_NE(m.ex[1], 2.0f);

    // Fixed step: exposures come out 2^(n/2 - i) by brightness.
    Merge f(2, w, h, 4, 8);
    ASSERT_EQ(f.run(img.data(), 1.0f), h);
    EXPECT_EQ(f.ex[1], 2.0f);
    EXPECT_EQ(f.ex[0], 1.0f);
}

TEST(Merge, SixteenBitUsesFullSamplesForValuesAndHighBytesForWeights) {
    const int w = 2, h = 16;
    std::vector<uint16_t> img(w * h * 3);
    for (size_t i = 0; i < img.size(); ++i) img[i] = (i % 6) < 3 ? 0x80ff : 0x8000;
    Merge m(1, w, h, 3, 16);
    ASSERT_EQ(m.run(img.data(), 0.0f), h);
    EXPECT_EQ(m.lut[65535], static_cast<float>(std::pow(65535.0 / 65536.0, 2.2)));
    float p0[3], p1[3];
    decode(m.out, w, 0, 0, p0);
    decode(m.out, w, 1, 0, p1);
    EXPECT_NEAR(p0[0], m.lut[0x80ff], m.lut[0x80ff] / 128);
    EXPECT_NEAR(p1[0], m.lut[0x8000], m.lut[0x8000] / 128);
}

namespace {
int g_calls = 0;
float g_last = 0;
void count_cb(int32_t *, float f) { ++g_calls, g_last = f; }
void stop_cb(int32_t *cancel, float) { ++g_calls, *cancel = 1; }
}  // namespace

TEST(Merge, ProgressAndCancellation) {
    const int w = 3, h = 1000;  // height / 16 = 62: reports at rows 50, 112, ...
    std::vector<uint8_t> img(2 * w * h * 3, 100);
    Merge m(2, w, h, 3, 8);
    g_calls = 0;
    ASSERT_EQ(m.run(img.data(), 1.0f, 0, count_cb), h);
    EXPECT_EQ(g_calls, 16);
    EXPECT_FLOAT_EQ(g_last, (50 + 15 * 62) / 1000.0f);
    g_calls = 0;
    EXPECT_EQ(m.run(img.data(), 1.0f, 0, stop_cb), BV_HDR_CANCELLED);
    EXPECT_EQ(g_calls, 1);
    // 800 rows or fewer never report.
    Merge s(2, w, 800, 3, 8);
    g_calls = 0;
    ASSERT_EQ(s.run(img.data(), 1.0f, 0, stop_cb), 800);
    EXPECT_EQ(g_calls, 0);
}

TEST(Merge, BadInputAndOutOfMemory) {
    std::vector<uint8_t> img(2 * 8 * 16 * 3, 120);
    Merge m(2, 8, 16, 3, 8);
    EXPECT_EQ(bv_hdr_merge(nullptr, 0, 0, 8, 16, 3, 0, 8, 0, m.lut.data(), m.ex.data(), img.data(),
                           m.stats, m.out.data()),
              BV_HDR_EINVAL);
    EXPECT_EQ(bv_hdr_merge(nullptr, 0, 2, 8, 0, 3, 0, 8, 0, m.lut.data(), m.ex.data(), img.data(),
                           m.stats, m.out.data()),
              0);
    EXPECT_EQ(m.stats[0], 2.56e11f);
    EXPECT_EQ(m.stats[1], 0.0f);
    EXPECT_EQ(m.stats[2], 0.0f);
    EXPECT_EQ(bv_hdr_merge(nullptr, 0, 2, 8, 16, 3, 0, 8, 0, m.lut.data(), m.ex.data(), nullptr,
                           m.stats, m.out.data()),
              BV_HDR_EINVAL);
    // Caller exposures must be positive.
    m.ex = {1.0f, 0.0f};
    EXPECT_EQ(m.run(img.data(), -1.0f), BV_HDR_EINVAL);
    // Other depths are accepted: nothing read, everything black, lut untouched.
    Merge d(2, 8, 16, 3, 12);
    d.lut[5] = 42.0f;
    EXPECT_EQ(d.run(img.data(), 0.0f), 16);
    EXPECT_EQ(d.lut[5], 42.0f);
    for (uint8_t v : d.out) ASSERT_EQ(v, 0);
    // Every scratch allocation failing in turn gives -4 and leaks nothing.
    Merge ok(2, 8, 16, 3, 8);
    for (long k = 0; k < 20; ++k) {
        int rc;
        {
            bvtest::FailAllocation fail(k);
            rc = ok.run(img.data(), 0.0f);
        }
        if (rc == 16) break;
        EXPECT_EQ(rc, BV_HDR_ENOMEM) << k;
    }
}
