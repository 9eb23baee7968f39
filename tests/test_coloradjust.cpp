// Colour adjustment: slot detection, per-hue tables, in-place adjustment of images.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "test_support.hpp"

namespace {

TmParam zero_record() {
    TmParam p;
    std::memset(&p, 0, sizeof p);
    return p;
}

float hue_degrees(float r, float g, float b) {
    const float rgb[3] = {r, g, b};
    float hsv[3];
    rgb2hsv_norm(rgb, hsv);
    return hsv[0] * 360.0f;
}

std::vector<uint8_t> random_image(int w, int h, int ch, uint64_t seed) {
    bvtest::Rng rng(seed);
    std::vector<uint8_t> img(static_cast<size_t>(w) * h * ch);
    for (auto &v : img) v = static_cast<uint8_t>(rng.next() & 255);
    return img;
}

DimParam dim_of(int w, int h, int ch = 3, int bits = 8) {
    DimParam d;
    init_dim_param(&d);
    d.width = w;
    d.height = h;
    d.channels = ch;
    d.bitsOut = bits;
    return d;
}

int adjust(const TmParam &colour, void *img, DimParam d, int threads = 1) {
    return bv_adjust_colors(threads, nullptr, 10, nullptr, &colour, img, d);
}

TEST(ColourParams, DetectsWhatEachModeReads) {
    TmParam p = zero_record();
    p.slot[0] = 5;  // tone-mapping slots are not colour changes
    p.slot[55] = 2;
    EXPECT_EQ(has_color_param(BV_CA_MODE_TABLES, &p), 0);
    EXPECT_EQ(has_color_param(BV_CA_MODE_ALL, &p), 0);
    p.slot[13] = 0.5f;  // integer part 0: no saturation step
    EXPECT_EQ(has_color_param(BV_CA_MODE_ALL, &p), 0);
    p.slot[13] = 2;
    EXPECT_EQ(has_color_param(BV_CA_MODE_ALL, &p), 1);
    EXPECT_EQ(has_color_param(BV_CA_MODE_TABLES, &p), 0);
    for (int slot : {20, 33, 43, 44, 45, 46}) {
        TmParam q = zero_record();
        q.slot[slot] = -1;
        EXPECT_EQ(has_color_param(2, &q), 2) << slot;
        EXPECT_EQ(has_color_param(1, &q), 1) << slot;
    }
    TmParam r = zero_record();
    r.slot[47] = 9;  // reserved
    r.slot[30] = NAN;
    EXPECT_EQ(has_color_param(2, &r), 0);
    EXPECT_EQ(has_color_param(3, &r), BV_CA_EBADARG);
    EXPECT_EQ(has_color_param(2, nullptr), BV_CA_EBADARG);
}

TEST(ColourTables, NeutralRecordGivesPureHues) {
    std::vector<float> hue(4096 * 3), value(4096);
    TmParam p = zero_record();
    ASSERT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 8, hue.data(), value.data()), 0);
    for (float v : value) ASSERT_EQ(v, 0.5f);
    // Entry i is hue i / 4095: its normalised shape reproduces that hue.
    for (int i = 0; i < 4096; i += 13) {
        const float *s = &hue[3 * i];
        const float mx = std::max({s[0], s[1], s[2]}), mn = std::min({s[0], s[1], s[2]});
        EXPECT_FLOAT_EQ(mx, 1.0f);
        EXPECT_FLOAT_EQ(mn, 0.0f);
        const float want = i * 360.0f / 4095.0f;
        const float got = hue_degrees(s[0], s[1], s[2]);
        EXPECT_NEAR(std::fmod(got - want + 540.0f, 360.0f) - 180.0f, 0.0f, 1e-3f) << i;
    }
    // Lightness asks for the value table.
    p.slot[22] = 50;  // reds lighter
    ASSERT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 16, hue.data(), value.data()), 1);
    EXPECT_FLOAT_EQ(value[0], 0.75f);
    EXPECT_FLOAT_EQ(value[4095], 0.75f);
    EXPECT_FLOAT_EQ(value[2048], 0.5f);  // aquas untouched
    EXPECT_EQ(getColorAdjustmentLUTs(2, &p, 1, 8, hue.data(), value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 12, hue.data(), value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(0, &p, 4096, 8, hue.data(), value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 8, nullptr, value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(2, nullptr, 4096, 8, hue.data(), value.data()), BV_CA_EBADARG);
}

TEST(AdjustColors, ZeroSlotsChangeNothing) {
    TmParam p = zero_record();
    tmparam_default(1, 1, &p);  // tone-mapping values, no colour values
    auto img = random_image(13, 7, 3, 1);
    auto before = img;
    EXPECT_EQ(adjust(p, img.data(), dim_of(13, 7)), 7);
    EXPECT_EQ(img, before);
    std::vector<uint16_t> img16(13 * 7 * 3);
    for (size_t i = 0; i < img16.size(); ++i) img16[i] = static_cast<uint16_t>(i * 977);
    auto before16 = img16;
    EXPECT_EQ(adjust(p, img16.data(), dim_of(13, 7, 3, 16), 3), 7);
    EXPECT_EQ(img16, before16);
}

TEST(AdjustColors, DesaturatingEveryBandGivesGrey) {
    for (bool master : {false, true}) {
        TmParam p = zero_record();
        if (master)
            p.slot[BV_CA_SLOT_MASTER_SAT] = -100;
        else
            for (int b = 0; b < 8; ++b) p.slot[21 + 3 * b] = -100;
        auto img = random_image(31, 9, 3, 2);
        const auto orig = img;
        ASSERT_EQ(adjust(p, img.data(), dim_of(31, 9), 2), 9);
        for (size_t i = 0; i < img.size(); i += 3) {
            ASSERT_EQ(img[i], img[i + 1]);
            ASSERT_EQ(img[i + 1], img[i + 2]);
            // The grey is the pixel's own luminance.
            const float y = 0.2126f * orig[i] + 0.7152f * orig[i + 1] + 0.0722f * orig[i + 2];
            ASSERT_NEAR(img[i], y, 2.0f);
        }
    }
}

TEST(AdjustColors, HueShiftMovesRedByTheDocumentedAmount) {
    for (float shift : {100.0f, -100.0f, 50.0f}) {
        TmParam p = zero_record();
        p.slot[BV_CA_SLOT_BANDS] = shift;        // reds
        uint8_t px[6] = {255, 0, 0, 0, 0, 255};  // pure red, pure blue
        ASSERT_EQ(adjust(p, px, dim_of(2, 1)), 1);
        const float want = std::fmod(360.0f + shift * 0.3f, 360.0f);
        EXPECT_NEAR(hue_degrees(px[0] / 255.0f, px[1] / 255.0f, px[2] / 255.0f), want, 0.5f)
            << shift;
        // Blues are three band centres away and keep their hue.
        EXPECT_EQ(px[3], 0);
        EXPECT_EQ(px[4], 0);
        EXPECT_EQ(px[5], 255);
    }
    // The master shift moves every hue alike.
    TmParam p = zero_record();
    p.slot[BV_CA_SLOT_MASTER_HUE] = 100;
    uint16_t px[3] = {0, 65535, 0};
    adjust(p, px, dim_of(1, 1, 3, 16));
    EXPECT_NEAR(hue_degrees(px[0] / 65535.0f, px[1] / 65535.0f, px[2] / 65535.0f), 150.0f, 0.1f);
}

TEST(AdjustColors, LightnessActsOnColoursNotGreys) {
    TmParam p = zero_record();
    p.slot[22] = -100;  // reds to black
    uint8_t px[9] = {200, 0, 0, 120, 120, 120, 200, 100, 100};
    adjust(p, px, dim_of(3, 1));
    EXPECT_EQ(px[0] + px[1] + px[2], 0);
    EXPECT_EQ(px[3], 120);
    EXPECT_EQ(px[4], 120);
    EXPECT_EQ(px[5], 120);
    // Half saturated: half as much darker.
    EXPECT_NEAR(px[6], 100, 1);
    EXPECT_NEAR(px[7], 50, 1);
}

TEST(AdjustColors, TemperatureSaturationAndLayout) {
    TmParam p = zero_record();
    p.slot[12] = 6;                                          // warmer
    uint8_t px[8] = {128, 128, 128, 77, 128, 128, 128, 77};  // two pixels, four samples
    DimParam d = dim_of(2, 1, 4);
    adjust(p, px, d);
    EXPECT_GT(px[0], px[3]);  // R at 0, B at the last sample
    EXPECT_EQ(px[2], 128);    // the third sample is not a colour channel
    DimParam db = d;
    db.bgr = 1;
    uint8_t q[8] = {128, 128, 128, 77, 128, 128, 128, 77};
    adjust(p, q, db);
    EXPECT_GT(q[3], q[0]);  // now R is the last sample

    TmParam s = zero_record();
    s.slot[13] = -10;
    float f[3] = {0.9f, 0.2f, 0.1f};
    DimParam df = dim_of(1, 1, 3, 32);
    EXPECT_EQ(adjust(s, f, df), 1);
    EXPECT_FLOAT_EQ(f[0], f[1]);
    EXPECT_FLOAT_EQ(f[1], f[2]);

    // Padded rows: the padding is not touched.
    TmParam h = zero_record();
    h.slot[BV_CA_SLOT_MASTER_HUE] = 40;
    std::vector<uint8_t> padded(3 * (2 * 3 + 2), 77);
    DimParam dp = dim_of(2, 3);
    dp.rowOut = 8;
    adjust(h, padded.data(), dp, 2);
    for (int y = 0; y < 3; ++y) {
        EXPECT_EQ(padded[y * 8 + 6], 77);
        EXPECT_EQ(padded[y * 8 + 7], 77);
    }
}

TEST(AdjustColors, IdenticalForAnyThreadCount) {
    TmParam p = zero_record();
    p.slot[12] = -3;
    p.slot[13] = 2;
    p.slot[26] = 40;   // yellows' hue
    p.slot[31] = -60;  // greens' lightness
    p.slot[40] = 25;   // purples' lightness
    for (int h : {1, 2, 11, 23}) {
        auto ref = random_image(19, h, 3, h);
        ASSERT_EQ(adjust(p, ref.data(), dim_of(19, h)), h);
        for (int t : {2, 3, 7, 40}) {
            auto img = random_image(19, h, 3, h);
            ASSERT_EQ(adjust(p, img.data(), dim_of(19, h), t), h);
            ASSERT_EQ(img, ref) << "height " << h << " threads " << t;
        }
    }
}

void stop_at_once(int32_t *cancel, float) { *cancel = 1; }

TEST(AdjustColors, BadInputAndCancel) {
    TmParam p = zero_record();
    p.slot[45] = -50;
    auto img = random_image(4, 4, 3, 7);
    const auto orig = img;
    EXPECT_EQ(bv_adjust_colors(1, nullptr, 0, nullptr, nullptr, img.data(), dim_of(4, 4)),
              BV_CA_EBADARG);
    EXPECT_EQ(bv_adjust_colors(1, nullptr, 0, nullptr, &p, nullptr, dim_of(4, 4)), BV_CA_EBADARG);
    EXPECT_EQ(adjust(p, img.data(), dim_of(-4, 4)), BV_CA_EBADARG);
    DimParam shortRows = dim_of(4, 4);
    shortRows.rowOut = 11;
    EXPECT_EQ(adjust(p, img.data(), shortRows), BV_CA_EBADARG);
    EXPECT_EQ(adjust(p, img.data(), dim_of(0, 4)), 0);
    EXPECT_EQ(adjust(p, img.data(), dim_of(4, 0)), 0);
    EXPECT_EQ(adjust(p, img.data(), dim_of(4, 4, 1)), 4);  // grey images are left alone
    EXPECT_EQ(bv_adjust_colors(2, stop_at_once, 15, &p, &p, img.data(), dim_of(4, 4)),
              BV_CA_ECANCEL);
    {
        bvtest::FailAllocation fail(0);
        EXPECT_EQ(adjust(p, img.data(), dim_of(4, 4)), BV_CA_ENOMEM);
    }
    EXPECT_EQ(img, orig);
    // Threads <= 0 work inline.
    auto a = orig, b = orig;
    EXPECT_EQ(adjust(p, a.data(), dim_of(4, 4), 0), 4);
    EXPECT_EQ(adjust(p, b.data(), dim_of(4, 4), -2), 4);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, orig);
}

}  // namespace
