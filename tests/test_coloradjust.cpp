// Colour adjustment: slot detection, per-hue tables, in-place adjustment of images.

#include "test_support.hpp"

namespace {

// A record with the given slots set and every other slot 0.
TmParam record(std::initializer_list<std::pair<int, float>> slots = {}) {
    TmParam p;
    std::memset(&p, 0, sizeof p);
    for (auto [slot, v] : slots) p.slot[slot] = v;
    return p;
}

float hue_degrees(float r, float g, float b) {
    const float rgb[3] = {r, g, b};
    float hsv[3];
    rgb2hsv_norm(rgb, hsv);
    return hsv[0] * 360.0f;
}

DimParam dim_of(int w, int h, int ch = 3, int bits = 8) {
    DimParam d;
    init_dim_param(&d);
    d.width = w, d.height = h, d.channels = ch, d.bitsOut = bits;
    return d;
}

int adjust(const TmParam &colour, void *img, DimParam d, int threads = 1) {
    return bv_adjust_colors(threads, nullptr, 10, nullptr, const_cast<TmParam *>(&colour), img, d);
}

TEST(ColourParams, DetectsWhatEachModeReads) {
    // Tone-mapping slots are not colour changes; a saturation below one step neither.
    TmParam p = record({{0, 5}, {55, 2}});
    EXPECT_EQ(has_color_param(BV_CA_MODE_TABLES, &p), 0);
    EXPECT_EQ(has_color_param(BV_CA_MODE_ALL, &p), 0);
    p.slot[13] = 0.5f;
    EXPECT_EQ(has_color_param(BV_CA_MODE_ALL, &p), 0);
    p.slot[13] = 2;
    EXPECT_EQ(has_color_param(BV_CA_MODE_ALL, &p), 1);
    EXPECT_EQ(has_color_param(BV_CA_MODE_TABLES, &p), 0);
    for (int slot : {20, 33, 43, 44, 45, 46}) {
        const TmParam q = record({{slot, -1}});
        EXPECT_EQ(has_color_param(BV_CA_MODE_TABLES, &q), 2) << slot;
        EXPECT_EQ(has_color_param(BV_CA_MODE_ALL, &q), 1) << slot;
    }
    const TmParam r = record({{47, 9} /* reserved */, {30, NAN}});
    EXPECT_EQ(has_color_param(BV_CA_MODE_TABLES, &r), 0);
    EXPECT_EQ(has_color_param(3, &r), BV_CA_EBADARG);
    EXPECT_EQ(has_color_param(BV_CA_MODE_TABLES, nullptr), BV_CA_EBADARG);
}

TEST(ColourTables, NeutralRecordGivesPureHues) {
    std::vector<float> hue(4096 * 3), value(4096);
    TmParam p = record();
    ASSERT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 8, hue.data(), value.data()), 0);
    EXPECT_EQ(value, std::vector<float>(4096, 0.5f));
    // Entry i is hue i / 4095: its normalised shape reproduces that hue.
    for (int i = 0; i < 4096; i += 13) {
        const float *s = &hue[3 * i];
        EXPECT_FLOAT_EQ(std::max({s[0], s[1], s[2]}), 1.0f);
        EXPECT_FLOAT_EQ(std::min({s[0], s[1], s[2]}), 0.0f);
        const float gap = hue_degrees(s[0], s[1], s[2]) - i * 360.0f / 4095.0f;
        EXPECT_NEAR(std::fmod(gap + 540.0f, 360.0f) - 180.0f, 0.0f, 1e-3f) << i;
    }
    // Lightness asks for the value table: reds lighter, aquas untouched.
    p.slot[22] = 50;
    ASSERT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 16, hue.data(), value.data()), 1);
    EXPECT_FLOAT_EQ(value[0], 0.75f);
    EXPECT_FLOAT_EQ(value[4095], 0.75f);
    EXPECT_FLOAT_EQ(value[2048], 0.5f);
    EXPECT_EQ(getColorAdjustmentLUTs(2, &p, 1, 8, hue.data(), value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 12, hue.data(), value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(0, &p, 4096, 8, hue.data(), value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 8, nullptr, value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(2, nullptr, 4096, 8, hue.data(), value.data()), BV_CA_EBADARG);
}

TEST(AdjustColors, ZeroSlotsChangeNothing) {
    TmParam p = record();
    tmparam_default(1, 1, &p);  // tone-mapping values, no colour values
    auto img = bvtest::random_bytes(13 * 7 * 3, 1);
    const auto before = img;
    EXPECT_EQ(adjust(p, img.data(), dim_of(13, 7)), 7);
    EXPECT_EQ(img, before);
    std::vector<uint16_t> img16(13 * 7 * 3);
    for (size_t i = 0; i < img16.size(); ++i) img16[i] = uint16_t(i * 977);
    const auto before16 = img16;
    EXPECT_EQ(adjust(p, img16.data(), dim_of(13, 7, 3, 16), 3), 7);
    EXPECT_EQ(img16, before16);
}

TEST(AdjustColors, DesaturatingEveryBandGivesTheLuminanceGrey) {
    TmParam bands = record(), master = record({{BV_CA_SLOT_MASTER_SAT, -100}});
    for (int b = 0; b < 8; ++b) bands.slot[21 + 3 * b] = -100;
    for (const TmParam *p : {&bands, &master}) {
        const auto orig = bvtest::random_bytes(31 * 9 * 3, 2);
        auto img = orig;
        ASSERT_EQ(adjust(*p, img.data(), dim_of(31, 9), 2), 9);
        for (size_t i = 0; i < img.size(); i += 3) {
            ASSERT_EQ(img[i], img[i + 1]);
            ASSERT_EQ(img[i + 1], img[i + 2]);
            ASSERT_NEAR(img[i], 0.2126f * orig[i] + 0.7152f * orig[i + 1] + 0.0722f * orig[i + 2],
                        2.0f);
        }
    }
}

TEST(AdjustColors, HueShiftMovesRedByTheDocumentedAmount) {
    for (float shift : {100.0f, -100.0f, 50.0f}) {
        uint8_t px[6] = {255, 0, 0, 0, 0, 255};  // pure red, pure blue
        ASSERT_EQ(adjust(record({{BV_CA_SLOT_BANDS, shift}}), px, dim_of(2, 1)), 1);
        EXPECT_NEAR(hue_degrees(px[0] / 255.0f, px[1] / 255.0f, px[2] / 255.0f),
                    std::fmod(360.0f + shift * 0.3f, 360.0f), 0.5f)
            << shift;
        // Blues are three band centres away and keep their hue.
        EXPECT_EQ(std::vector<int>({px[3], px[4], px[5]}), std::vector<int>({0, 0, 255}));
    }
    // The master shift moves every hue alike.
    uint16_t px[3] = {0, 65535, 0};
    adjust(record({{BV_CA_SLOT_MASTER_HUE, 100}}), px, dim_of(1, 1, 3, 16));
    EXPECT_NEAR(hue_degrees(px[0] / 65535.0f, px[1] / 65535.0f, px[2] / 65535.0f), 150.0f, 0.1f);
    // A band moves the hue at its centre fully: pure blue (240) by 30 degrees.
    uint16_t blue[3] = {0, 0, 65535};
    adjust(record({{BV_CA_SLOT_BANDS + 3 * 5, 100}}), blue, dim_of(1, 1, 3, 16));
    EXPECT_NEAR(hue_degrees(blue[0] / 65535.0f, blue[1] / 65535.0f, blue[2] / 65535.0f), 270.0f,
                0.05f);
}

TEST(AdjustColors, LightnessTemperatureSaturationAndLayout) {
    // Reds to black; greys untouched; half saturated, half as much darker.
    uint8_t px[9] = {200, 0, 0, 120, 120, 120, 200, 100, 100};
    adjust(record({{22, -100}}), px, dim_of(3, 1));
    EXPECT_EQ(std::vector<int>(px, px + 6), std::vector<int>({0, 0, 0, 120, 120, 120}));
    EXPECT_NEAR(px[6], 100, 1);
    EXPECT_NEAR(px[7], 50, 1);
    // Warmer, with four samples: R at 0, B at the last sample, the third
    // sample is not a colour channel; with BGR, R is the last sample.
    uint8_t p4[8] = {128, 128, 128, 77, 128, 128, 128, 77}, q4[8];
    std::memcpy(q4, p4, 8);
    DimParam d = dim_of(2, 1, 4), db = d;
    db.bgr = 1;
    adjust(record({{12, 6}}), p4, d);
    adjust(record({{12, 6}}), q4, db);
    EXPECT_GT(p4[0], p4[3]);
    EXPECT_EQ(p4[2], 128);
    EXPECT_GT(q4[3], q4[0]);
    // Float samples lose their colour entirely at saturation -10.
    float f[3] = {0.9f, 0.2f, 0.1f};
    EXPECT_EQ(adjust(record({{13, -10}}), f, dim_of(1, 1, 3, 32)), 1);
    EXPECT_FLOAT_EQ(f[0], f[1]);
    EXPECT_FLOAT_EQ(f[1], f[2]);
    // Padded rows: the padding is not touched.
    std::vector<uint8_t> padded(3 * 8, 77);
    DimParam dp = dim_of(2, 3);
    dp.rowOut = 8;
    adjust(record({{BV_CA_SLOT_MASTER_HUE, 40}}), padded.data(), dp, 2);
    for (int y = 0; y < 3; ++y) EXPECT_EQ(padded[y * 8 + 6] + padded[y * 8 + 7], 154) << y;
}

TEST(AdjustColors, IdenticalForAnyThreadCount) {
    // Temperature, saturation, yellows' hue, greens' and purples' lightness.
    const TmParam p = record({{12, -3}, {13, 2}, {26, 40}, {31, -60}, {40, 25}});
    for (int h : {1, 2, 11, 23})
        bvtest::expect_thread_invariant([&](int t) {
            auto img = bvtest::random_bytes(19 * h * 3, h);
            EXPECT_EQ(adjust(p, img.data(), dim_of(19, h), t), h);
            return img;
        });
}

void stop_at_once(int32_t *cancel, float) { *cancel = 1; }

TEST(AdjustColors, BadInputAndCancel) {
    TmParam p = record({{45, -50}});
    const auto orig = bvtest::random_bytes(4 * 4 * 3, 7);
    auto img = orig, a = orig, b = orig;
    DimParam short_rows = dim_of(4, 4);
    short_rows.rowOut = 11;
    EXPECT_EQ(bv_adjust_colors(1, nullptr, 0, nullptr, nullptr, img.data(), dim_of(4, 4)),
              BV_CA_EBADARG);
    EXPECT_EQ(bv_adjust_colors(1, nullptr, 0, nullptr, &p, nullptr, dim_of(4, 4)), BV_CA_EBADARG);
    EXPECT_EQ(adjust(p, img.data(), dim_of(-4, 4)), BV_CA_EBADARG);
    EXPECT_EQ(adjust(p, img.data(), short_rows), BV_CA_EBADARG);
    EXPECT_EQ(adjust(p, img.data(), dim_of(0, 4)), 0);
    EXPECT_EQ(adjust(p, img.data(), dim_of(4, 0)), 0);
    EXPECT_EQ(adjust(p, img.data(), dim_of(4, 4, 1)), 4) << "grey images are left alone";
    EXPECT_EQ(bv_adjust_colors(2, stop_at_once, 15, &p, &p, img.data(), dim_of(4, 4)),
              BV_CA_ECANCEL);
    {
        bvtest::FailAllocation fail(0);
        EXPECT_EQ(adjust(p, img.data(), dim_of(4, 4)), BV_CA_ENOMEM);
    }
    EXPECT_EQ(img, orig);
    // Threads <= 0 work inline.
    EXPECT_EQ(adjust(p, a.data(), dim_of(4, 4), 0), 4);
    EXPECT_EQ(adjust(p, b.data(), dim_of(4, 4), -2), 4);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, orig);
}

}  // namespace
