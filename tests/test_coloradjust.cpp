// Colour adjustment: slot detection, per-hue tables, in-place adjustment of images.

#include "test_support.hpp"

namespace {

using bvtest::tm_slots;

DimParam dim_of(int w, int h, int ch = 3, int bits = 8) {
    return bvtest::dim_param(w, h, ch, 8, bits);
}

int adjust(const TmParam &colour, void *img, DimParam d, int threads = 1) {
    return bv_adjust_colors(threads, nullptr, 10, nullptr, const_cast<TmParam *>(&colour), img, d);
}

// img adjusted with 1, 2, 3 and 7 threads: each returns the height, all agree.
template <class T>
std::vector<T> adjusted(const TmParam &colour, const std::vector<T> &img, DimParam d) {
    return bvtest::expect_thread_invariant([&](int t) {
        std::vector<T> v = img;
        EXPECT_EQ(adjust(colour, v.data(), d, t), d.height) << t << " threads";
        return v;
    });
}

TEST(ColourParams, DetectsWhatEachModeReads) {
    // Tone slots, saturation below a step, reserved slots and NaN: no colour change.
    const TmParam tone = tm_slots({{0, 5}, {55, 2}}), weak = tm_slots({{13, 0.5f}}, tone),
                  sat = tm_slots({{13, 2}}, tone), reserved = tm_slots({{47, 9}, {30, NAN}});
    const std::tuple<TmParam, int, int> cases[] = {
        {tone, BV_CA_MODE_TABLES, 0}, {tone, BV_CA_MODE_ALL, 0},   {weak, BV_CA_MODE_ALL, 0},
        {sat, BV_CA_MODE_ALL, 1},     {sat, BV_CA_MODE_TABLES, 0}, {reserved, BV_CA_MODE_TABLES, 0},
        {reserved, 3, BV_CA_EBADARG}};
    for (const auto &[p, mode, want] : cases)
        EXPECT_EQ(has_color_param(mode, &p), want) << mode << ", slot 13 " << p.slot[13];
    for (int slot : {20, 33, 43, 44, 45, 46}) {
        const TmParam q = tm_slots({{slot, -1}});
        EXPECT_EQ(has_color_param(BV_CA_MODE_TABLES, &q), 2) << slot;
        EXPECT_EQ(has_color_param(BV_CA_MODE_ALL, &q), 1) << slot;
    }
    EXPECT_EQ(has_color_param(BV_CA_MODE_TABLES, nullptr), BV_CA_EBADARG);
}

TEST(ColourTables, NeutralRecordGivesPureHues) {
    std::vector<float> hue(4096 * 3), value(4096);
    TmParam p = {};
    ASSERT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 8, hue.data(), value.data()), 0);
    EXPECT_EQ(value, std::vector<float>(4096, 0.5f));
    // Entry i is the pure hue i / 4095 (largest sample 1, smallest 0).
    EXPECT_EQ(bvtest::digest(hue), 7634662416311487265u);
    // Lightness asks for the value table: reds lighter, aquas untouched.
    p.slot[22] = 50;
    ASSERT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 16, hue.data(), value.data()), 1);
    EXPECT_EQ(std::vector<float>({value[0], value[4095], value[2048]}),
              std::vector<float>({0.75f, 0.75f, 0.5f}));
    // Entries, bits, mode, table and record.
    EXPECT_EQ(getColorAdjustmentLUTs(2, &p, 1, 8, hue.data(), value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 12, hue.data(), value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(0, &p, 4096, 8, hue.data(), value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(2, &p, 4096, 8, nullptr, value.data()), BV_CA_EBADARG);
    EXPECT_EQ(getColorAdjustmentLUTs(2, nullptr, 4096, 8, hue.data(), value.data()), BV_CA_EBADARG);
}

TEST(AdjustColors, ZeroSlotsChangeNothing) {
    TmParam p;
    tmparam_default(1, 1, &p);  // tone-mapping values, no colour values
    const auto img = bvtest::random_bytes(13 * 7 * 3, 1);
    EXPECT_EQ(adjusted(p, img, dim_of(13, 7)), img);
    std::vector<uint16_t> img16(13 * 7 * 3);
    for (size_t i = 0; i < img16.size(); ++i) img16[i] = uint16_t(i * 977);
    EXPECT_EQ(adjusted(p, img16, dim_of(13, 7, 3, 16)), img16);
}

TEST(AdjustColors, DesaturatingEveryBandGivesTheLuminanceGrey) {
    TmParam bands = {}, master = tm_slots({{BV_CA_SLOT_MASTER_SAT, -100}});
    for (int b = 0; b < 8; ++b) bands.slot[21 + 3 * b] = -100;
    const auto orig = bvtest::random_bytes(31 * 9 * 3, 2);
    for (const TmParam *p : {&bands, &master}) {
        const auto img = adjusted(*p, orig, dim_of(31, 9));
        for (size_t i = 0; i < img.size(); i += 3) {
            ASSERT_TRUE(img[i] == img[i + 1] && img[i + 1] == img[i + 2]) << i;
            ASSERT_NEAR(img[i], 0.2126f * orig[i] + 0.7152f * orig[i + 1] + 0.0722f * orig[i + 2],
                        2.0f);
        }
    }
}

TEST(AdjustColors, MasterAndBandHueShifts16Bit) {
    // The master shift turns every hue, a band its centre fully.
    const std::vector<uint16_t> green = {0, 65535, 0}, blue = {0, 0, 65535};
    const auto g = adjusted(tm_slots({{BV_CA_SLOT_MASTER_HUE, 100}}), green, dim_of(1, 1, 3, 16));
    const auto b = adjusted(tm_slots({{BV_CA_SLOT_BANDS + 3 * 5, 100}}), blue, dim_of(1, 1, 3, 16));
    EXPECT_EQ(g, std::vector<uint16_t>({0, 65535, 32768}));  // 150 degrees
    EXPECT_EQ(b, std::vector<uint16_t>({32768, 0, 65535}));  // 270 degrees
}

TEST(AdjustColors, HueLightnessTemperatureAndLayoutsPinned) {
    // clang-format off
    const struct {
        const char *name;
        TmParam colour;
        int w, h, channels, bgr, row_out;
        std::vector<uint8_t> in, want;
    } cases[] = {
        // A band at +-100 turns its centre by +-30 degrees: blues are three centres away.
        {"reds +30 degrees", tm_slots({{BV_CA_SLOT_BANDS, 100}}), 2, 1, 3, 0, 0,
         {255, 0, 0, 0, 0, 255}, {255, 128, 0, 0, 0, 255}},
        {"reds -30 degrees", tm_slots({{BV_CA_SLOT_BANDS, -100}}), 1, 1, 3, 0, 0,
         {255, 0, 0}, {255, 0, 128}},
        // Reds to black; greys untouched; half saturated, half as much darker.
        {"reds darker", tm_slots({{22, -100}}), 3, 1, 3, 0, 0,
         {200, 0, 0, 120, 120, 120, 200, 100, 100}, {0, 0, 0, 120, 120, 120, 100, 50, 50}},
        // Four samples: B last, the third not a colour; with BGR, R last.
        {"warm RGBx", tm_slots({{12, 6}}), 1, 1, 4, 0, 0, {128, 128, 128, 77}, {145, 125, 128, 53}},
        {"warm, BGR", tm_slots({{12, 6}}), 1, 1, 4, 1, 0, {128, 128, 128, 77}, {91, 125, 128, 100}},
        {"padded rows", tm_slots({{BV_CA_SLOT_MASTER_HUE, 40}}), 1, 2, 3, 0, 5,
         {200, 50, 20, 77, 77, 30, 90, 160, 77, 77}, {200, 86, 20, 77, 77, 30, 64, 160, 77, 77}},
    };
    // clang-format on
    for (const auto &c : cases) {
        DimParam d = dim_of(c.w, c.h, c.channels);
        d.bgr = c.bgr, d.rowOut = c.row_out;
        EXPECT_EQ(adjusted(c.colour, c.in, d), c.want) << c.name;
    }
    // Float samples lose their colour entirely at saturation -10.
    const auto f =
        adjusted(tm_slots({{13, -10}}), std::vector<float>{0.9f, 0.2f, 0.1f}, dim_of(1, 1, 3, 32));
    EXPECT_FLOAT_EQ(f[0], f[1]);
    EXPECT_FLOAT_EQ(f[1], f[2]);
}

TEST(AdjustColors, IdenticalForAnyThreadCount) {
    // Temperature, saturation, yellows' hue, greens' and purples' lightness.
    const TmParam p = tm_slots({{12, -3}, {13, 2}, {26, 40}, {31, -60}, {40, 25}});
    for (int h : {1, 2, 11, 23}) adjusted(p, bvtest::random_bytes(19 * h * 3, h), dim_of(19, h));
}

void stop_at_once(int32_t *cancel, float) { *cancel = 1; }

TEST(AdjustColors, BadInputAndCancelLeaveTheImage) {
    TmParam p = tm_slots({{45, -50}});
    const auto orig = bvtest::random_bytes(4 * 4 * 3, 7);
    auto img = orig;
    EXPECT_EQ(bv_adjust_colors(1, nullptr, 0, nullptr, nullptr, img.data(), dim_of(4, 4)),
              BV_CA_EBADARG);
    EXPECT_EQ(bv_adjust_colors(1, nullptr, 0, nullptr, &p, nullptr, dim_of(4, 4)), BV_CA_EBADARG);
    EXPECT_EQ(bv_adjust_colors(2, stop_at_once, 15, &p, &p, img.data(), dim_of(4, 4)),
              BV_CA_ECANCEL);
    EXPECT_EQ(adjust(p, img.data(), dim_of(-4, 4)), BV_CA_EBADARG);
    EXPECT_EQ(adjust(p, img.data(), dim_of(4, 0)), 0);
    EXPECT_EQ(adjust(p, img.data(), dim_of(4, 4, 1)), 4) << "grey images are left alone";
    {
        bvtest::FailAllocation fail(0);
        EXPECT_EQ(adjust(p, img.data(), dim_of(4, 4)), BV_CA_ENOMEM);
    }
    EXPECT_EQ(img, orig);
    // No threads asked for: the work runs inline.
    auto a = orig;
    EXPECT_EQ(adjust(p, a.data(), dim_of(4, 4), 0), 4);
    EXPECT_EQ(a, adjusted(p, orig, dim_of(4, 4)));
    EXPECT_NE(a, orig);
}

}  // namespace
