// Colour-space helpers: exact conversions, round trips, published white points.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include "test_support.hpp"

namespace {

void expect_triple(const float *got, float a, float b, float c, float tol) {
    EXPECT_NEAR(got[0], a, tol);
    EXPECT_NEAR(got[1], b, tol);
    EXPECT_NEAR(got[2], c, tol);
}

TEST(Colour, HslOfKnownColours) {
    struct Case {
        float rgb[3];
        float hsl[3];
    } cases[] = {
        {{1, 0, 0}, {0, 1, 0.5f}},
        {{0.2f, 0.4f, 0.6f}, {3.5f / 6, 0.5f, 0.4f}},            // blue is the largest
        {{0.2f, 0.8f, 0.4f}, {(2 + 1.0f / 3) / 6, 0.6f, 0.5f}},  // green is the largest
        {{1, 0, 0.5f}, {1 - 0.5f / 6, 1, 0.5f}},                 // negative hue wraps
        {{1, 0.8f, 0.8f}, {0, 1, 0.9f}},                         // L above 0.5
        {{0.3f, 0.3f, 0.3f}, {0, 0, 0.3f}},                      // grey
    };
    for (const Case &c : cases) {
        float out[3];
        ASSERT_EQ(rgb_to_hsl(c.rgb, out), 1);
        expect_triple(out, c.hsl[0], c.hsl[1], c.hsl[2], 1e-6f);
    }
}

TEST(Colour, HueToRgbBranchesAndWrap) {
    EXPECT_FLOAT_EQ(hue_to_rgb(0, 1, 0.1f), 0.6f);
    EXPECT_FLOAT_EQ(hue_to_rgb(0.2f, 0.9f, 0.3f), 0.9f);
    EXPECT_NEAR(hue_to_rgb(0, 1, 0.6f), 0.4f, 1e-6f);
    EXPECT_FLOAT_EQ(hue_to_rgb(0.2f, 0.9f, 0.8f), 0.2f);
    EXPECT_FLOAT_EQ(hue_to_rgb(0, 1, -0.9f), 0.6f);  // wrapped to 0.1
    EXPECT_FLOAT_EQ(hue_to_rgb(0, 1, 1.1f), 0.6f);
}

// Every member of the HSL family shares one arithmetic; they must agree
// bit for bit and invert each other closely.
TEST(Colour, HslFamilyAgreesAndRoundTrips) {
    bvtest::Rng rng(5);
    double worst = 0;
    for (int i = 0; i < 20000; ++i) {
        const float rgb[3] = {static_cast<float>(rng.uniform()), static_cast<float>(rng.uniform()),
                              static_cast<float>(rng.uniform())};
        float a[3], b[3], c[3], back_a[3], back_b[3], back_c[3];
        rgb_to_hsl(rgb, a);
        frgb2hsl(rgb, b);
        rgb2hsl_norm(rgb, c);
        ASSERT_EQ(0, std::memcmp(a, b, sizeof a));
        ASSERT_EQ(0, std::memcmp(a, c, sizeof a));
        hsl_to_rgb(a, back_a);
        fhsl2rgb(a, back_b);
        hsl2rgb_norm(a, back_c);
        ASSERT_EQ(0, std::memcmp(back_a, back_b, sizeof back_a));
        ASSERT_EQ(0, std::memcmp(back_a, back_c, sizeof back_a));
        for (int k = 0; k < 3; ++k) worst = std::fmax(worst, std::fabs(back_a[k] - rgb[k]));
        EXPECT_FLOAT_EQ(fhue2rgb(a[2], a[1], a[0]), hue_to_rgb(a[2], a[1], a[0]));
    }
    EXPECT_LT(worst, 2e-6);
    std::printf("largest HSL round-trip error %.3g\n", worst);
}

TEST(Colour, RangedHslScalesByRange) {
    const float red[3] = {255, 0, 0};
    float hsl[3], back[3];
    ASSERT_EQ(rgb2hsl(255, red, hsl), 1);
    expect_triple(hsl, 0, 1, 0.5f, 1e-6f);
    ASSERT_EQ(hsl2rgb(255, hsl, back), 1);
    expect_triple(back, 255, 0, 0, 1e-4f);
    const float c16[3] = {1000, 30000, 65535};
    rgb2hsl(65535, c16, hsl);
    hsl2rgb(65535, hsl, back);
    expect_triple(back, 1000, 30000, 65535, 0.2f);
    EXPECT_NEAR(hue2rgb(255, 0, 255, 0.1f), 153.0f, 1e-3f);
    // A range below 1 counts as 1, not as a division by zero.
    const float unit[3] = {0.5f, 0.25f, 0};
    float h0[3], h1[3];
    rgb2hsl(0, unit, h0);
    rgb2hsl_norm(unit, h1);
    EXPECT_EQ(0, std::memcmp(h0, h1, sizeof h0));
}

TEST(Colour, HsvSectorsAndQuirks) {
    float hsv[3], rgb[3];
    const float orange[3] = {0.5f, 0.25f, 0};
    rgb2hsv_norm(orange, hsv);
    expect_triple(hsv, 0.5f / 6, 1, 0.5f, 1e-6f);
    const float black[3] = {0, 0, 0};
    rgb2hsv_norm(black, hsv);
    expect_triple(hsv, 0, 0, 0, 0);
    const float grey[3] = {0.4f, 0.4f, 0.4f};
    rgb2hsv_norm(grey, hsv);
    expect_triple(hsv, 0, 0, 0.4f, 0);

    // One hue per sector, with S = 1 and V = 1: p = 0 and t/q follow f.
    const float expected[6][3] = {{1, 0.5f, 0}, {0.5f, 1, 0}, {0, 1, 0.5f},
                                  {0, 0.5f, 1}, {0.5f, 0, 1}, {1, 0, 0.5f}};
    for (int i = 0; i < 6; ++i) {
        const float in[3] = {(i + 0.5f) / 6, 1, 1};
        ASSERT_EQ(hsv2rgb_norm(in, rgb), 1);
        expect_triple(rgb, expected[i][0], expected[i][1], expected[i][2], 1e-6f);
    }
    // A hue of exactly 1 matches no sector: the output is left as it was.
    float keep[3] = {7, 8, 9};
    const float one[3] = {1, 0.5f, 0.5f};
    hsv2rgb_norm(one, keep);
    expect_triple(keep, 7, 8, 9, 0);

    bvtest::Rng rng(9);
    for (int i = 0; i < 5000; ++i) {
        const float c[3] = {static_cast<float>(rng.uniform()), static_cast<float>(rng.uniform()),
                            static_cast<float>(rng.uniform())};
        rgb2hsv_norm(c, hsv);
        if (hsv[0] >= 1.0f) continue;
        hsv2rgb_norm(hsv, rgb);
        expect_triple(rgb, c[0], c[1], c[2], 2e-6f);
    }
}

TEST(Colour, LabValuesRoundTripAndTables) {
    float lab[3], rgb[3];
    const float white[3] = {1, 1, 1};
    ASSERT_EQ(rgb2Lab(1, white, nullptr, nullptr, lab), 1);
    expect_triple(lab, 100, 0, 0, 0.02f);
    // Adobe RGB red: Y = 0.2973769, L* = 116 Y^(1/3) - 16 = 61.42.
    const float red[3] = {1, 0, 0};
    rgb2Lab(1, red, nullptr, nullptr, lab);
    EXPECT_NEAR(lab[0], 61.42f, 0.02f);
    EXPECT_GT(lab[1], 80);

    double worst = 0;
    bvtest::Rng rng(3);
    for (int i = 0; i < 2000; ++i) {
        const float c[3] = {static_cast<float>(rng.uniform()), static_cast<float>(rng.uniform()),
                            static_cast<float>(rng.uniform())};
        rgb2Lab(1, c, nullptr, nullptr, lab);
        ASSERT_EQ(Lab2rgb(1, lab, rgb, 0, nullptr, nullptr), 1);
        for (int k = 0; k < 3; ++k) worst = std::fmax(worst, std::fabs(rgb[k] - c[k]));
    }
    // The 0.33333 exponent is not an exact third, so the trip is not exact.
    EXPECT_LT(worst, 2e-5);
    std::printf("largest Lab round-trip error %.3g\n", worst);

    // Dark colours take the linear segment both ways.
    const float dark[3] = {0.001f, 0.001f, 0.001f};
    rgb2Lab(1, dark, nullptr, nullptr, lab);
    EXPECT_LT(lab[0], 7.999625f);
    Lab2rgb(1, lab, rgb, 0, nullptr, nullptr);
    expect_triple(rgb, 0.001f, 0.001f, 0.001f, 2e-6f);

    // Table paths: linearisation by index in, quantised lookup out.
    float lin[256], enc[101];
    for (int i = 0; i < 256; ++i) lin[i] = i / 255.0f;
    for (int i = 0; i <= 100; ++i) enc[i] = 1000.0f + i;
    const int32_t idx[3] = {255, 51, 0};
    const float same[3] = {1.0f, 0.2f, 0.0f};
    float lab_t[3], lab_f[3];
    rgb2Lab(0, nullptr, lin, idx, lab_t);
    rgb2Lab(1, same, nullptr, nullptr, lab_f);
    EXPECT_EQ(0, std::memcmp(lab_t, lab_f, sizeof lab_t));
    float out[3];
    ASSERT_EQ(Lab2rgb(0, lab_f, nullptr, 100, enc, out), 1);
    expect_triple(out, 1100, 1020, 1000, 0);
    // Out of gamut: a negative channel takes entry 0, one above 1 entry n.
    const float green_ish[3] = {60, -200, 0};
    Lab2rgb(1, green_ish, rgb, 0, nullptr, nullptr);
    ASSERT_LT(rgb[0], 0.0f);
    Lab2rgb(0, green_ish, nullptr, 100, enc, out);
    EXPECT_EQ(out[0], 1000.0f);
    const float bright[3] = {100, 90, 0};
    Lab2rgb(1, bright, rgb, 0, nullptr, nullptr);
    ASSERT_GT(rgb[0], 1.0f);
    Lab2rgb(0, bright, nullptr, 100, enc, out);
    EXPECT_EQ(out[0], 1100.0f);

    EXPECT_EQ(rgb2Lab(1, nullptr, nullptr, nullptr, lab), -1);
    EXPECT_EQ(Lab2rgb(0, lab, rgb, 100, nullptr, out), -1);
}

// The daylight locus at the CIE illuminants' temperatures gives their
// published chromaticities.
TEST(Colour, KelvinGivesDaylightWhites) {
    struct Case {
        float kelvin, x, y;
    } cases[] = {{6504, 0.3127f, 0.3290f}, {7504, 0.2990f, 0.3149f}, {5003, 0.3457f, 0.3585f}};
    for (const Case &c : cases) {
        float xyz[3];
        ASSERT_EQ(kelvin2XYZ(c.kelvin, xyz), 1);
        EXPECT_EQ(xyz[1], 1.0f);
        const float sum = xyz[0] + xyz[1] + xyz[2];
        EXPECT_NEAR(xyz[0] / sum, c.x, 2e-4f) << c.kelvin;
        EXPECT_NEAR(xyz[1] / sum, c.y, 2e-4f) << c.kelvin;
    }
    float keep[3] = {1, 2, 3};
    EXPECT_EQ(kelvin2XYZ(0, keep), 0);
    EXPECT_EQ(kelvin2XYZ(-100, keep), 0);
    EXPECT_EQ(kelvin2XYZ(NAN, keep), 0);
    expect_triple(keep, 1, 2, 3, 0);
    EXPECT_EQ(kelvin2XYZ(6500, nullptr), -1);
}

TEST(Colour, RgbXyzMatrices) {
    // Each space's rows sum to its white; the two matrices invert.
    const float whites[3][3] = {
        {0.95047f, 1, 1.08883f}, {0.95047f, 1, 1.08883f}, {0.96422f, 1, 0.82521f}};
    for (int space = 0; space < 3; ++space) {
        float to[9], from[9];
        ASSERT_EQ(getRGB_to_from_XYZ(space, to, from), 1);
        for (int r = 0; r < 3; ++r) {
            EXPECT_NEAR(to[3 * r] + to[3 * r + 1] + to[3 * r + 2], whites[space][r], 2e-5f);
            for (int c = 0; c < 3; ++c) {
                float p = 0;
                for (int k = 0; k < 3; ++k) p += from[3 * r + k] * to[3 * k + c];
                EXPECT_NEAR(p, r == c ? 1.0f : 0.0f, 2e-4f) << space << r << c;
            }
        }
    }
    float to[9], from[9];
    getRGB_to_from_XYZ(0, to, from);
    EXPECT_EQ(to[0], 0.412456f);
    EXPECT_EQ(from[0], 3.240454f);
    float untouched[9] = {5, 5, 5, 5, 5, 5, 5, 5, 5}, also[9] = {5, 5, 5, 5, 5, 5, 5, 5, 5};
    EXPECT_EQ(getRGB_to_from_XYZ(3, untouched, also), 1);
    EXPECT_EQ(getRGB_to_from_XYZ(-1, untouched, also), 1);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(untouched[i] + also[i], 10.0f);
}

// OpenCV's float HLS and HSV conversions of 400 colours (generated by
// tests/data/colour/make_opencv_hls_hsv.py) agree with ours.
TEST(Colour, AgreesWithOpenCvHlsAndHsv) {
    FILE *f = std::fopen("tests/data/colour/opencv_hls_hsv.csv", "r");
    ASSERT_NE(f, nullptr) << "run the tests from the project root";
    char line[512];
    int rows = 0;
    double worst_hue = 0, worst = 0;
    auto hue_gap = [](double a, double b) {
        return std::fabs(std::fmod(a - b + 540.0, 360.0) - 180.0);
    };
    while (std::fgets(line, sizeof line, f)) {
        if (line[0] == '#') continue;
        float rgb[3], cv_hls[3], cv_hsv[3];
        ASSERT_EQ(
            std::sscanf(line, "%f %f %f %f %f %f %f %f %f", &rgb[0], &rgb[1], &rgb[2], &cv_hls[0],
                        &cv_hls[1], &cv_hls[2], &cv_hsv[0], &cv_hsv[1], &cv_hsv[2]),
            9);
        float hsl[3], hsv[3];
        rgb_to_hsl(rgb, hsl);
        rgb2hsv_norm(rgb, hsv);
        worst_hue = std::fmax(worst_hue, hue_gap(hsl[0] * 360.0, cv_hls[0]));
        worst_hue = std::fmax(worst_hue, hue_gap(hsv[0] * 360.0, cv_hsv[0]));
        worst = std::fmax(worst, std::fabs(hsl[2] - cv_hls[1]));
        worst = std::fmax(worst, std::fabs(hsl[1] - cv_hls[2]));
        worst = std::fmax(worst, std::fabs(hsv[1] - cv_hsv[1]));
        worst = std::fmax(worst, std::fabs(hsv[2] - cv_hsv[2]));
        ++rows;
    }
    std::fclose(f);
    EXPECT_EQ(rows, 400);
    std::printf("largest difference from OpenCV: hue %.3g degrees, other %.3g\n", worst_hue, worst);
    EXPECT_LT(worst_hue, 0.01);
    EXPECT_LT(worst, 1e-5);
}

TEST(Colour, NullPointersAreRefused) {
    float v[3] = {0, 0, 0};
    EXPECT_EQ(rgb_to_hsl(nullptr, v), -1);
    EXPECT_EQ(hsl_to_rgb(v, nullptr), -1);
    EXPECT_EQ(frgb2hsl(v, nullptr), -1);
    EXPECT_EQ(fhsl2rgb(nullptr, v), -1);
    EXPECT_EQ(rgb2hsl(255, nullptr, v), -1);
    EXPECT_EQ(hsl2rgb(255, v, nullptr), -1);
    EXPECT_EQ(rgb2hsl_norm(nullptr, v), -1);
    EXPECT_EQ(hsl2rgb_norm(v, nullptr), -1);
    EXPECT_EQ(rgb2hsv_norm(v, nullptr), -1);
    EXPECT_EQ(hsv2rgb_norm(nullptr, v), -1);
    EXPECT_EQ(getRGB_to_from_XYZ(0, nullptr, nullptr), -1);
}

}  // namespace
