// Colour-space helpers: exact conversions, round trips, published white points.

#include <sstream>

#include "test_support.hpp"

namespace {

using V3 = std::array<float, 3>;

void expect_near(const float *got, V3 want, float tol) {
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(got[i], want[i], tol) << i;
}

// Known colours through HSL and HSV, and each HSV sector back to RGB.
TEST(Colour, KnownColoursAndHueBranches) {
    const struct {
        int (*convert)(const float *, float *);
        V3 in, want;
    } cases[] = {
        // HSL: blue largest, green largest, a negative hue that wraps, L above 0.5, grey.
        {rgb_to_hsl, {1, 0, 0}, {0, 1, 0.5f}},
        {rgb_to_hsl, {0.2f, 0.4f, 0.6f}, {3.5f / 6, 0.5f, 0.4f}},
        {rgb_to_hsl, {0.2f, 0.8f, 0.4f}, {(2 + 1.0f / 3) / 6, 0.6f, 0.5f}},
        {rgb_to_hsl, {1, 0, 0.5f}, {1 - 0.5f / 6, 1, 0.5f}},
        {rgb_to_hsl, {1, 0.8f, 0.8f}, {0, 1, 0.9f}},
        {rgb_to_hsl, {0.3f, 0.3f, 0.3f}, {0, 0, 0.3f}},
        {rgb2hsv_norm, {0.5f, 0.25f, 0}, {0.5f / 6, 1, 0.5f}},
        {rgb2hsv_norm, {0, 0, 0}, {0, 0, 0}},
        {rgb2hsv_norm, {0.4f, 0.4f, 0.4f}, {0, 0, 0.4f}},
        // One hue per sector, with S = 1 and V = 1: p = 0 and t/q follow f.
        {hsv2rgb_norm, {0.5f / 6, 1, 1}, {1, 0.5f, 0}},
        {hsv2rgb_norm, {1.5f / 6, 1, 1}, {0.5f, 1, 0}},
        {hsv2rgb_norm, {2.5f / 6, 1, 1}, {0, 1, 0.5f}},
        {hsv2rgb_norm, {3.5f / 6, 1, 1}, {0, 0.5f, 1}},
        {hsv2rgb_norm, {4.5f / 6, 1, 1}, {0.5f, 0, 1}},
        {hsv2rgb_norm, {5.5f / 6, 1, 1}, {1, 0, 0.5f}},
    };
    for (const auto &c : cases) {
        float out[3];
        ASSERT_EQ(c.convert(c.in.data(), out), 1);
        expect_near(out, c.want, 1e-6f);
    }
    // hue_to_rgb(p, q, t): each branch, and t wrapped into 0..1.
    const float hue[][4] = {{0, 1, 0.1f, 0.6f},       {0.2f, 0.9f, 0.3f, 0.9f}, {0, 1, 0.6f, 0.4f},
                            {0.2f, 0.9f, 0.8f, 0.2f}, {0, 1, -0.9f, 0.6f},      {0, 1, 1.1f, 0.6f}};
    for (const auto &h : hue) EXPECT_NEAR(hue_to_rgb(h[0], h[1], h[2]), h[3], 1e-6f) << h[2];
    // An HSV hue of exactly 1 matches no sector: the output is left as it was.
    float keep[3] = {7, 8, 9};
    const float one[3] = {1, 0.5f, 0.5f};
    hsv2rgb_norm(one, keep);
    expect_near(keep, {7, 8, 9}, 0);
}

// The HSL family agrees bit for bit; HSL, HSV (below hue 1) and Lab (its
// exponent 0.33333 is not a third) invert closely.
TEST(Colour, HslFamilyAgreesAndRoundTrips) {
    bvtest::Rng rng(5);
    for (int i = 0; i < 20000; ++i) {
        const V3 rgb = {float(rng.uniform()), float(rng.uniform()), float(rng.uniform())};
        V3 a, b, c, back_a, back_b, back_c, hsv, lab;
        rgb_to_hsl(rgb.data(), a.data());
        frgb2hsl(rgb.data(), b.data());
        rgb2hsl_norm(rgb.data(), c.data());
        ASSERT_TRUE(a == b && a == c) << i;
        hsl_to_rgb(a.data(), back_a.data());
        fhsl2rgb(a.data(), back_b.data());
        hsl2rgb_norm(a.data(), back_c.data());
        ASSERT_TRUE(back_a == back_b && back_a == back_c) << i;
        for (int k = 0; k < 3; ++k) ASSERT_NEAR(back_a[k], rgb[k], 2e-6) << i;
        ASSERT_EQ(fhue2rgb(a[2], a[1], a[0]), hue_to_rgb(a[2], a[1], a[0]));
        rgb2hsv_norm(rgb.data(), hsv.data());
        hsv2rgb_norm(hsv.data(), back_b.data());
        if (hsv[0] < 1.0f) expect_near(back_b.data(), rgb, 2e-6f);
        rgb2Lab(1, rgb.data(), nullptr, nullptr, lab.data());
        ASSERT_EQ(Lab2rgb(1, lab.data(), back_c.data(), 0, nullptr, nullptr), 1);
        expect_near(back_c.data(), rgb, 2e-5f);
    }
}

TEST(Colour, RangedHslScalesByRange) {
    const float red[3] = {255, 0, 0}, c16[3] = {1000, 30000, 65535}, unit[3] = {0.5f, 0.25f, 0};
    float hsl[3], back[3], h0[3], h1[3];
    ASSERT_EQ(rgb2hsl(255, red, hsl), 1);
    expect_near(hsl, {0, 1, 0.5f}, 1e-6f);
    rgb2hsl(65535, c16, hsl);
    ASSERT_EQ(hsl2rgb(65535, hsl, back), 1);
    expect_near(back, {1000, 30000, 65535}, 0.2f);
    EXPECT_NEAR(hue2rgb(255, 0, 255, 0.1f), 153.0f, 1e-3f);
    // A range below 1 counts as 1, not as a division by zero.
    rgb2hsl(0, unit, h0);
    rgb2hsl_norm(unit, h1);
    EXPECT_EQ(0, std::memcmp(h0, h1, sizeof h0));
}

TEST(Colour, LabValuesRoundTripAndTables) {
    float lab[3], rgb[3];
    const float white[3] = {1, 1, 1}, red[3] = {1, 0, 0}, dark[3] = {0.001f, 0.001f, 0.001f};
    ASSERT_EQ(rgb2Lab(1, white, nullptr, nullptr, lab), 1);
    expect_near(lab, {100, 0, 0}, 0.02f);
    // Adobe RGB red: Y = 0.2973769, L* = 116 Y^(1/3) - 16 = 61.42.
    rgb2Lab(1, red, nullptr, nullptr, lab);
    EXPECT_NEAR(lab[0], 61.42f, 0.02f);
    EXPECT_GT(lab[1], 80);
    // Dark colours take the linear segment both ways.
    rgb2Lab(1, dark, nullptr, nullptr, lab);
    EXPECT_LT(lab[0], 7.999625f);
    Lab2rgb(1, lab, rgb, 0, nullptr, nullptr);
    expect_near(rgb, {0.001f, 0.001f, 0.001f}, 2e-6f);
    // Table paths: linearisation by index in, quantised lookup out.
    float lin[256], enc[101], lab_t[3], lab_f[3], out[3];
    for (int i = 0; i < 256; ++i) lin[i] = i / 255.0f;
    for (int i = 0; i <= 100; ++i) enc[i] = 1000.0f + i;
    const int32_t idx[3] = {255, 51, 0};
    const float same[3] = {1.0f, 0.2f, 0.0f};
    rgb2Lab(0, nullptr, lin, idx, lab_t);
    rgb2Lab(1, same, nullptr, nullptr, lab_f);
    EXPECT_EQ(0, std::memcmp(lab_t, lab_f, sizeof lab_t));
    ASSERT_EQ(Lab2rgb(0, lab_f, nullptr, 100, enc, out), 1);
    expect_near(out, {1100, 1020, 1000}, 0);
    // Out of gamut: a negative channel takes entry 0, one above 1 entry n.
    const std::pair<V3, float> gamut[] = {{{60, -200, 0}, 1000.0f}, {{100, 90, 0}, 1100.0f}};
    for (const auto &[in, entry] : gamut) {
        Lab2rgb(1, in.data(), rgb, 0, nullptr, nullptr);
        ASSERT_TRUE(entry == 1000.0f ? rgb[0] < 0.0f : rgb[0] > 1.0f) << rgb[0];
        Lab2rgb(0, in.data(), nullptr, 100, enc, out);
        EXPECT_EQ(out[0], entry);
    }
}

// CIE illuminants' temperatures give their published chromaticities.
TEST(Colour, KelvinGivesDaylightWhites) {
    const float cases[][3] = {
        {6504, 0.3127f, 0.3290f}, {7504, 0.2990f, 0.3149f}, {5003, 0.3457f, 0.3585f}};
    for (const auto &c : cases) {
        float xyz[3];
        ASSERT_EQ(kelvin2XYZ(c[0], xyz), 1);
        EXPECT_EQ(xyz[1], 1.0f);
        EXPECT_NEAR(xyz[0] / (xyz[0] + xyz[1] + xyz[2]), c[1], 2e-4f) << c[0];
        EXPECT_NEAR(xyz[1] / (xyz[0] + xyz[1] + xyz[2]), c[2], 2e-4f) << c[0];
    }
    float keep[3] = {1, 2, 3};
    for (float k : {0.0f, -100.0f, NAN}) EXPECT_EQ(kelvin2XYZ(k, keep), 0);
    expect_near(keep, {1, 2, 3}, 0);
}

TEST(Colour, RgbXyzMatrices) {
    // Every entry of the three spaces' matrices pinned.
    std::vector<float> all;
    for (int space = 0; space < 3; ++space) {
        float to[9], from[9];
        ASSERT_EQ(getRGB_to_from_XYZ(space, to, from), 1);
        all.insert(all.end(), to, to + 9);
        all.insert(all.end(), from, from + 9);
    }
    EXPECT_EQ(bvtest::digest(all), 16687784824586820747u);
    float untouched[9] = {5, 5, 5, 5, 5, 5, 5, 5, 5}, also[9] = {5, 5, 5, 5, 5, 5, 5, 5, 5};
    EXPECT_EQ(getRGB_to_from_XYZ(3, untouched, also), 1);
    EXPECT_EQ(getRGB_to_from_XYZ(-1, untouched, also), 1);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(untouched[i] + also[i], 10.0f);
}

// OpenCV's float HLS and HSV conversions of 400 colours agree with ours.
TEST(Colour, AgreesWithOpenCvHlsAndHsv) {
    std::istringstream lines(
        bvtest::shell("/usr/bin/python3 tests/scripts/opencv_hls_hsv.py 2>/dev/null"));
    if (lines.str().empty()) GTEST_SKIP() << "needs /usr/bin/python3 with OpenCV (python3-opencv)";
    int rows = 0;
    for (std::string line; std::getline(lines, line); ++rows) {
        float rgb[3], hls[3], hsv[3], ours_l[3], ours_v[3];
        ASSERT_EQ(std::sscanf(line.c_str(), "%f %f %f %f %f %f %f %f %f", &rgb[0], &rgb[1], &rgb[2],
                              &hls[0], &hls[1], &hls[2], &hsv[0], &hsv[1], &hsv[2]),
                  9);
        rgb_to_hsl(rgb, ours_l);
        rgb2hsv_norm(rgb, ours_v);
        EXPECT_LT(std::fabs(std::remainder(ours_l[0] * 360.0 - hls[0], 360.0)), 0.01) << line;
        EXPECT_LT(std::fabs(std::remainder(ours_v[0] * 360.0 - hsv[0], 360.0)), 0.01) << line;
        expect_near(ours_l, {ours_l[0], hls[2], hls[1]}, 1e-5f);
        expect_near(ours_v, {ours_v[0], hsv[1], hsv[2]}, 1e-5f);
    }
    EXPECT_EQ(rows, 400);
}

TEST(Colour, NullPointersAreRefused) {
    float v[3] = {0, 0, 0};
    for (int rc : {rgb_to_hsl(nullptr, v), hsl_to_rgb(v, nullptr), frgb2hsl(v, nullptr),
                   fhsl2rgb(nullptr, v), rgb2hsl(255, nullptr, v), hsl2rgb(255, v, nullptr),
                   rgb2hsl_norm(nullptr, v), hsl2rgb_norm(v, nullptr), rgb2hsv_norm(v, nullptr),
                   hsv2rgb_norm(nullptr, v), getRGB_to_from_XYZ(0, nullptr, nullptr),
                   rgb2Lab(1, nullptr, nullptr, nullptr, v), Lab2rgb(0, v, v, 100, nullptr, v),
                   kelvin2XYZ(6500, nullptr)})
        EXPECT_EQ(rc, -1);
}

}  // namespace
