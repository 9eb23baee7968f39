// Tone-mapping records, slider mapping, statistics toolkit and the simple tone mapper.
#include <functional>

#include "test_support.hpp"
#include "tmlib-core/tmlib_core.hpp"

namespace {

namespace tc = bv::tmcore;

TEST(TmParams, DefaultsPerMethod) {
    using Slots = std::vector<std::pair<int, float>>;  // every other slot is 0
    // clang-format off
    const Slots m1 = {{1, 70}, {2, 46}, {3, 0.25f}, {5, 1}, {7, 2}, {8, 50}, {16, 1}}, m12 = {{8, 2}, {9, 1}};
    const std::tuple<int, int, Slots> cases[] = {
        {16, 1, {}}, {1, 0, m1}, {1, -4, m1}, {3, 0, {{0, 50}, {2, 20}, {3, 0.6f}, {4, 0.25f}}},
        {10, 0, {{8, 2}}}, {11, 0, {{2, 70}}}, {12, 0, m12}, {15, 0, m12}, {2, 0, {}},
        {1, 1, {{1, 40}, {2, 46}, {3, 0.25f}, {5, 1}, {7, 2}, {8, 50}, {16, 1}}}};
    // clang-format on
    for (const auto &[method, variant, set] : cases) {
        TmParam p;
        std::memset(&p, 0x7f, sizeof p);
        EXPECT_EQ(tmparam_default(method, variant, &p), 0);
        std::vector<float> want(60, 0.0f);
        for (auto [slot, v] : set) want[slot] = v;
        EXPECT_EQ(std::vector<float>(p.slot, p.slot + 60), want) << method << "/" << variant;
    }
    EXPECT_EQ(tmparam_default(1, 0, nullptr), -1);
    DimParam d;
    optimParam o;
    const optimParam zero{};
    std::memset(&d, 0x55, sizeof d), std::memset(&o, 0x55, sizeof o);
    init_dim_param(&d), init_optim_param(&o);
    const int32_t want[10] = {0, 0, 3, 8, 8, 0, 0, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(&d, want, sizeof want));
    EXPECT_EQ(0, std::memcmp(&o, &zero, sizeof o));
    init_dim_param(nullptr), init_optim_param(nullptr);  // ignored
}

TEST(TmParams, SliderMappingRoundsHalvesDown) {
    // Exactly 2.5 and 0.5 go down, 1.5 + epsilon up, a NaN power gives 0.
    EXPECT_EQ(std::vector<int>(
                  {slider2param(100, 0.25), slider2param(100, 3.7), param2slider(200000.0f, 0.25),
                   param2slider(200000.0f, 3.7), slider2param(0, 2.0), param2slider(5000, 1),
                   param2slider(1000, 1), param2slider(125, 0.5), param2slider(3000, 1),
                   param2slider(-5, 0.5), slider2param(50, 1.0), slider2param(50, 2.0)}),
              std::vector<int>({200000, 200000, 100, 100, 0, 2, 0, 2, 2, 0, 100000, 50000}));
    // Reciprocal exponents invert each other (up to rounding).
    for (int s = 0; s <= 100; s += 7) EXPECT_NEAR(param2slider(slider2param(s, 2.0), 0.5), s, 1);
}

TEST(TmToolkit, LogLumMapAndAverages) {
    const float e2 = std::exp(2.0f);
    // Pixels of luminance 1, e^2 and 0 (black), three floats each.
    const float img[9] = {1, 1, 1, e2, e2, e2, 0, 0, 0};
    float out[3] = {0, 0, 0}, map[3];
    ASSERT_EQ(tc::get_log_lum(0, 3, 1, 3, 0, out, nullptr, img, map, 0, 0), 2);
    const float e = std::exp(1.0f);
    for (auto [got, want] :
         {std::pair{out[0], e}, {out[1], e}, {out[2], 1.0f}, {map[0], 0.0f}, {map[1], 2.0f}})
        EXPECT_NEAR(got, want, 1e-5f);
    EXPECT_EQ(map[2], map[0]);  // black takes the minimum log
    // 8-bit samples through a table, 4 samples per pixel (B at offset 3), and 16-bit.
    float lut8[256];
    std::vector<float> lut16(65536);
    for (int i = 0; i < 65536; ++i) lut16[i] = i / 65535.0f, lut8[i % 256] = (i % 256) / 255.0f;
    const uint8_t px8[8] = {255, 255, 0, 255, 0, 0, 0, 0};
    ASSERT_EQ(tc::get_log_lum(2, 2, 1, 4, 0, out, lut8, px8, map, 0, 0), 1);
    EXPECT_NEAR(map[0], 0.0f, 1e-6f);
    const uint16_t px16[3] = {0, 65535, 0};
    ASSERT_EQ(tc::get_log_lum(1, 1, 1, 3, 0, out, lut16.data(), px16, map, 0, 0), 1);
    EXPECT_NEAR(map[0], std::log(0.7152f), 1e-6f);
    // All black: out[0] stays as it was, the map holds the untouched minimum.
    const float black[6] = {0, 0, 0, 0, 0, 0};
    float kept[3] = {0.25f, 0, 0};
    EXPECT_EQ(tc::get_log_lum(0, 2, 1, 3, 0, kept, nullptr, black, map, 0, 0), 0);
    EXPECT_EQ(std::vector<float>({kept[0], map[0], map[1]}),
              std::vector<float>({0.25f, 1e9f, 1e9f}));
    EXPECT_EQ(tc::get_log_lum(3, 2, 1, 3, 0, kept, nullptr, black, map, 0, 0), -1);
    EXPECT_EQ(tc::get_log_lum(2, 2, 1, 3, 0, kept, nullptr, px8, map, 0, 0), -1);
}

TEST(TmToolkit, PercentileSafeguardsTerminate) {
    uint32_t hist[2][256] = {}, empty[1][256] = {}, split[1][256] = {};
    hist[1][100] = 50;
    EXPECT_EQ(tc::verifPercentile(hist, 1, 10), 10);
    // Mass at the dark end: the count grows by 5 % steps until it reaches bin 100.
    for (int k = 0; k < 6; ++k) hist[0][k] = 100;
    hist[0][100] = 200;
    const int c = tc::verifPercentile(hist, 0, 50);
    EXPECT_TRUE(c >= 600 && c < 800) << c;
    // Stuck counts, an empty histogram and an oscillating search still return.
    EXPECT_EQ(tc::verifPercentile(hist, 0, 0), 0);
    EXPECT_GE(tc::verifPercentile(empty, 0, 1000), 0);
    split[0][0] = split[0][255] = 1000;
    (void)tc::verifPercentile(split, 0, 999);
}

TEST(TmToolkit, AdjustPercentileSharesItsStepBudget) {
    std::vector<int32_t> top(1000, 0), flat(1000, 1), low(1000, 0);
    top[990] = 100;  // everything above 90 %: the factor only shrinks
    tc::GlobalCntAdjust = 0;
    EXPECT_FLOAT_EQ(tc::adjust_percentile(100, 1000, top.data(), 0.5f),
                    0.334486f);  // 0.5 x 0.99^40
    EXPECT_EQ(tc::GlobalCntAdjust, 40);
    // The budget is spent: later calls return their factor untouched.
    EXPECT_EQ(tc::adjust_percentile(100, 1000, top.data(), 0.7f), 0.7f);
    tc::GlobalCntAdjust = 0;
    EXPECT_EQ(tc::adjust_percentile(1000, 1000, flat.data(), 0.5f), 0.5f);
    EXPECT_EQ(tc::GlobalCntAdjust, 1);
    // Mass at the bottom: the factor grows by 1 % steps until 25 % is reached.
    low[10] = 60;
    for (int k = 300; k < 340; ++k) low[k] = 1;
    tc::GlobalCntAdjust = 0;
    EXPECT_GT(tc::adjust_percentile(100, 1000, low.data(), 0.5f), 0.6f);
    EXPECT_LE(tc::GlobalCntAdjust, 40);
    tc::GlobalCntAdjust = 0;
}

TEST(TmToolkit, CubicThroughTwoPointsFlatAtTheFirst) {
    double a, b, c, d;
    tc::coeffPoly3(&a, &b, &c, &d, 0.2, 0.1, 0.8, 0.9);
    auto p = [&](double x) { return ((a * x + b) * x + c) * x + d; };
    auto slope = [&](double x) { return (3 * a * x + 2 * b) * x + c; };
    // Through both points, flat at the first, slope -3a(x1 - x0)^2 at x1.
    for (auto [got, want] :
         {std::pair{p(0.2), 0.1}, {p(0.8), 0.9}, {slope(0.2), 0.0}, {slope(0.8), -3 * a * 0.36}})
        EXPECT_NEAR(got, want, 1e-12);
    tc::coeffPoly3(&a, &b, &c, &d, 0.5, 0.1, 0.5, 0.9);
    EXPECT_EQ(a + b + c + d, 0.0);
    EXPECT_EQ(d, 0.0);
}

TEST(TmToolkit, MapDoublingWeightsAndPlanes) {
    const float in[4] = {1, 2, 3, 4}, flat[6] = {3, 3, 3, 3, 3, 3};
    float out[16], big[35];
    ASSERT_EQ(tc::tm1_init(4, 4, 2, 2, 0, in, out), 4);
    // Even/even, odd x, odd y and odd/odd positions.
    for (auto [got, want] :
         {std::pair{out[0], 1.37485f}, {out[1], 1.75f}, {out[4], 2.125f}, {out[5], 2.5f}})
        EXPECT_NEAR(got, want, 1e-6f);
    // A flat map stays flat (the even weights add up to one).
    ASSERT_EQ(tc::tm1_init(7, 5, 3, 2, 0, flat, big), 5);
    for (float v : big) EXPECT_NEAR(v, 3.0f, 1e-5f);
    EXPECT_EQ(tc::tm1_init(4, 4, 0, 2, 0, in, out), -1);
    // Two RGBA-like pixels to planes: G at 1, B at 3.
    const uint16_t px[8] = {1, 2, 3, 9, 4, 5, 6, 9};
    uint16_t planes[6];
    ASSERT_EQ(tc::rgb_interleaved2color_planes(2, 1, 4, 16, px, planes), 1);
    EXPECT_EQ(std::vector<uint16_t>(planes, planes + 6), std::vector<uint16_t>({1, 4, 2, 5, 9, 9}));
    EXPECT_EQ(tc::rgb_interleaved2color_planes(2, 1, 3, 32, px, planes), -1);
}

LogLumStats make_stats(float mn, float mx, float med, float high) {
    return LogLumStats{{mn, mx, med, med, high, med}};
}

const LogLumStats kStats = make_stats(-5, 3, -1, 2);

// Linear float RGB test image with a wide range, colours and pure greys.
std::vector<float> make_image(int w, int h, uint64_t seed) {
    bvtest::Rng rng(seed);
    std::vector<float> img(size_t(w) * h * 3);
    for (size_t i = 0; i < img.size(); i += 3) {
        const float l = std::exp(float(rng.uniform()) * 8.0f - 5.0f);
        for (int c = 0; c < 3; ++c) img[i + c] = l * (0.2f + 0.8f * float(rng.uniform()));
        if (rng.next() % 5 == 0) img[i + 1] = img[i + 2] = img[i];
    }
    return img;
}

DimParam float_dim(int w, int h, int bits = 8) {
    DimParam d = bvtest::dim_param(w, h, 3, 32, bits);
    d.sourceKind = 10;
    return d;
}

// Output of one call (outputs pre-filled with 0xCD), checking its code.
std::vector<int> once(const std::vector<TmParam> &p, const LogLumStats &st, const void *img,
                      DimParam d, int threads, const unsigned char *map = nullptr,
                      const float *table = nullptr) {
    const size_t n = size_t(d.rowOut > 0 ? d.rowOut : d.width * d.channels) * d.height;
    std::vector<uint16_t> o16(n, 0xCDCD);
    std::vector<uint8_t> o8(n, 0xCD);
    void *out = d.bitsOut == 16 ? static_cast<void *>(o16.data()) : o8.data();
    EXPECT_EQ(tm_simple(const_cast<TmParam *>(p.data()), map, &st, table, const_cast<void *>(img),
                        static_cast<uint16_t *>(out), d, threads),
              threads <= 1 ? d.height : d.height - (threads - 1) * (d.height / threads));
    return d.bitsOut == 16 ? std::vector<int>(o16.begin(), o16.end())
                           : std::vector<int>(o8.begin(), o8.end());
}

// The same with 1, 2, 3 and 7 threads, which must agree byte for byte.
std::vector<int> run(const std::vector<TmParam> &p, const LogLumStats &st, const void *img,
                     DimParam d, const unsigned char *map = nullptr, const float *table = nullptr) {
    return bvtest::expect_thread_invariant(
        [&](int t) { return once(p, st, img, d, t, map, table); });
}

TEST(TmSimple, CurveGoldenValues) {
    const float greys[] = {0.001f, 0.02f, 0.3f, 1.0f, 4.0f, 15.0f};
    std::vector<float> img;
    for (float g : greys) img.insert(img.end(), {g, g, g});
    const LogLumStats stats[2] = {make_stats(-7, 3, -0.5f, 2.5f), make_stats(-7, 3.2f, -2, 2.8f)};
    // Exposure -6 sits on the border of two rules that agree there.
    const float settings[][5] = {{0, 0, 0, 0, 0}, {-6, 0, 0, 0, 0}, {-8.5f, 0, 0, 0, 0},
                                 {4, 0, 0, 0, 0}, {0, 5, 3, 0, 0},  {0, -4, -2, 0, 0},
                                 {-2, 0, 0, 2, 3}};
    std::vector<int> all;
    for (const LogLumStats &st : stats)
        for (const auto &set : settings)
            for (int bits : {8, 16}) {
                std::vector<TmParam> p(1);
                std::copy(set, set + 5, p[0].slot);
                const std::vector<int> out = once(p, st, img.data(), float_dim(6, 1, bits), 1);
                all.insert(all.end(), out.begin(), out.end());
            }
    // The whole table pinned bit for bit.
    EXPECT_EQ(bvtest::digest(all), 15797154770065013495u);
}

TEST(TmSimple, BadInputGetsDocumentedCodesAndWritesNothing) {
    const auto img = make_image(4, 3, 1);
    const std::vector<TmParam> p(1);
    const LogLumStats equal = make_stats(1, 1, 1, 1), nan = make_stats(NAN, 1, 0, 0);
    // clang-format off
    // The failing scratch allocation, or -1.
    struct Call { const TmParam *p; const LogLumStats *st; const void *in; bool out; DimParam d;
                  long fail; };
    const struct { const char *name; std::function<void(Call &)> change; int want; } cases[] = {
        {"no record", [](Call &c) { c.p = nullptr; }, BV_TM_EBADARG},
        {"no statistics", [](Call &c) { c.st = nullptr; }, BV_TM_EBADARG},
        {"no input", [](Call &c) { c.in = nullptr; }, BV_TM_EBADARG},
        {"no output", [](Call &c) { c.out = false; }, BV_TM_EBADARG},
        {"RGBE without its table", [](Call &c) { c.d.sourceKind = 0; }, BV_TM_EBADARG},
        {"rows shorter than the width", [](Call &c) { c.d.rowOut = 11; }, BV_TM_EBADARG},
        {"negative width", [](Call &c) { c.d.width = -1; }, BV_TM_EBADARG},
        {"planes in one channel", [](Call &c) { c.d.channels = 1, c.d.layout = 3; }, BV_TM_EBADARG},
        {"min equal to max", [&](Call &c) { c.st = &equal; }, BV_TM_ESTATS},
        {"NaN min", [&](Call &c) { c.st = &nan; }, BV_TM_ESTATS},
        {"first table allocation fails", [](Call &c) { c.fail = 0; }, BV_TM_ENOMEM},
        {"second table allocation fails", [](Call &c) { c.fail = 1; }, BV_TM_ENOMEM},
        {"no columns", [](Call &c) { c.d.width = 0, c.in = nullptr, c.out = false; }, 0},
        {"no rows", [](Call &c) { c.d.height = 0, c.in = nullptr, c.out = false; }, 0},
    };
    // clang-format on
    for (const auto &k : cases)
        for (int threads : {1, 3}) {
            Call c{p.data(), &kStats, img.data(), true, float_dim(4, 3), -1};
            k.change(c);
            std::vector<uint16_t> out(32, 0xCDCD);
            bvtest::FailAllocation fail(c.fail);
            EXPECT_EQ(
                tm_simple(const_cast<TmParam *>(c.p), nullptr, c.st, nullptr,
                          const_cast<void *>(c.in), c.out ? out.data() : nullptr, c.d, threads),
                k.want)
                << k.name << ", " << threads << " threads";
            EXPECT_EQ(out, std::vector<uint16_t>(32, 0xCDCD)) << k.name;
        }
    // No threads asked for: the work runs on the calling thread.
    EXPECT_EQ(once(p, kStats, img.data(), float_dim(4, 3), 0),
              once(p, kStats, img.data(), float_dim(4, 3), 1));
    // NaN and infinite samples never give garbage or trap.
    const std::vector<float> odd = {NAN, 1, 1, INFINITY, 1, 1, -1, -1, -1, 1e30f, 0, 0};
    EXPECT_EQ(run(p, kStats, odd.data(), float_dim(4, 1))[0], 0);
}

// A region map of weight 0 forces the per-pixel path: same as the fast one.
TEST(TmSimple, FastAndGeneralPathsAgreeForAnyThreadCount) {
    const bvtest::Planar rgbe = bvtest::random_planar(263, 23, 12);
    float table[256];
    exp_lut_old(table);
    std::vector<TmParam> p = {bvtest::tm_slots({{0, -1.5f}, {3, 1}}), {}};  // one region set
    const std::vector<unsigned char> map(263 * 23 * 2, 0);
    // 263 columns: a chunk and a ragged tail per row.
    for (int h : {1, 2, 5, 23}) {
        auto img = make_image(263, h, 12);
        img[7] = NAN, img[11] = INFINITY, img[20] = -2.0f;
        for (bool use_rgbe : {false, true})
            for (int bits : {8, 16})
                for (int layout : {0, 3}) {
                    DimParam d = float_dim(263, h, bits);
                    d.layout = layout, d.sourceKind = use_rgbe ? 0 : 10;
                    const void *in =
                        use_rgbe ? static_cast<const void *>(rgbe.px.data()) : img.data();
                    p[0].slot[55] = 0;
                    const auto fast = run(p, kStats, in, d, nullptr, table);
                    p[0].slot[55] = 1;
                    ASSERT_EQ(run(p, kStats, in, d, map.data(), table), fast)
                        << h << " " << use_rgbe << " " << bits << " " << layout;
                }
    }
}

// Outputs pinned bit for bit: rows with one digest give one picture.
TEST(TmSimple, LayoutsWindowsRegionsAndColourPinned) {
    const int w = 8, h = 6;
    const auto img = make_image(w, h, 6);
    std::vector<float> img4;  // four samples per pixel: B last, the third one not a colour
    for (size_t i = 0; i < img.size(); i += 3)
        img4.insert(img4.end(), {img[i], img[i + 1], -1, img[i + 2]});
    // Base, then region set 0 (brighter) and 1 (no saturation at all).
    constexpr uint64_t kBase = 5411287092658259421u, kSet0 = 13090634042763303609u,
                       kSet1 = 13048823549005725242u;
    const float grey = -100;  // every hue band's saturation
    // clang-format off
    const struct {
        const char *name;
        std::vector<std::pair<int, float>> slots;           // of the base record
        int layout, bgr, channels, row_out, weight, index;  // weight -1: no region map
        uint64_t want;
    } cases[] = {
        {"defaults", {}, 0, 0, 3, 0, -1, 0, kBase},
        {"planes", {}, 3, 0, 3, 0, -1, 0, 10190075406176534989u},
        {"BGR", {}, 0, 1, 3, 0, -1, 0, 12209833755522098173u},
        {"4 samples, padding kept", {}, 0, 0, 4, w * 4 + 5, -1, 0, 10264998713784564621u},
        {"row window 3..7", {{56, 3}, {57, 7}}, 0, 0, 3, 0, -1, 0, 13038775352352025822u},
        {"window out of range", {{56, h - 1}, {57, h}}, 0, 0, 3, 0, -1, 0, kBase},
        {"set 0 alone", {{0, 3}}, 0, 0, 3, 0, -1, 0, kSet0},
        {"set 1 alone", {{12, -4}, {13, -10}}, 0, 0, 3, 0, -1, 0, kSet1},
        {"weight 0: the base", {{55, 2}}, 0, 0, 3, 0, 0, 0, kBase},
        {"index 255: the base", {{55, 2}}, 0, 0, 3, 0, 255, 255, kBase},
        {"weight 255: the set", {{55, 2}}, 0, 0, 3, 0, 255, 0, kSet0},
        {"index past the sets: the last", {{55, 2}}, 0, 0, 3, 0, 255, 9, kSet1},
        {"weight 128: a blend", {{55, 2}}, 0, 0, 3, 0, 128, 0, 56748200873504835u},
        {"no sets: map not read", {}, 0, 0, 3, 0, 255, 0, kBase},
        {"warmer (5200 K white)", {{12, 5}}, 0, 0, 3, 0, -1, 0, 14583420889729258097u},
        {"cooler (7800 K white)", {{12, -5}}, 0, 0, 3, 0, -1, 0, 14939483985489187664u},
        {"more saturated", {{13, 5}}, 0, 0, 3, 0, -1, 0, 8316978040599215527u},
        {"saturation below a step", {{13, 0.5f}}, 0, 0, 3, 0, -1, 0, 1079053649690796810u},
        {"hue bands grey", {{21, grey}, {24, grey}, {27, grey}, {30, grey}, {33, grey}, {36, grey},
                            {39, grey}, {42, grey}}, 0, 0, 3, 0, -1, 0, 5559970972010221859u},
    };
    // clang-format on
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<TmParam> p(3);
        for (auto [slot, v] : c.slots) p[0].slot[slot] = v;
        p[1].slot[0] = 3;
        p[2].slot[12] = -4, p[2].slot[13] = -10;
        DimParam d = float_dim(w, h);
        d.layout = c.layout, d.bgr = c.bgr, d.channels = c.channels, d.rowOut = c.row_out;
        std::vector<unsigned char> map(size_t(w) * h * 2);
        for (size_t i = 0; i < map.size(); i += 2) map[i] = c.weight, map[i + 1] = c.index;
        const auto out = run(p, kStats, c.channels == 4 ? img4.data() : img.data(), d,
                             c.weight < 0 ? nullptr : map.data());
        EXPECT_EQ(bvtest::digest(out), c.want);
    }
}

TEST(TmSimpleRealData, AtriumWithDefaultsUsesTheRange) {
    const std::string dir = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(dir);
    const std::string path = dir + "/hdr/mpi_atrium_3.hdr";
    const int w = 1024, h = 676;
    bvtest::Planar rgbe(w, h);
    ASSERT_EQ(bv_io_read_rgbe(w, h, path.c_str(), rgbe.px.data()), h);
    float table[256];
    ASSERT_EQ(exp_lut_old(table), 256);
    LogLumStats st{};
    st.v[0] = 8;  // RGBE input
    ASSERT_EQ(logMinMaxMoy(w, h, table, rgbe.px.data(), &st), h);
    const std::vector<TmParam> p(1);
    const auto one = run(p, st, rgbe.px.data(), bvtest::dim_param(w, h, 3, 8, 8), nullptr, table);
    const size_t n = one.size(), low = std::count(one.begin(), one.end(), 0),
                 high = std::count(one.begin(), one.end(), 255);
    EXPECT_LE(low, n / 100);
    EXPECT_LE(high, n / 100);
    EXPECT_LT(*std::min_element(one.begin(), one.end()), 16);
    EXPECT_GT(*std::max_element(one.begin(), one.end()), 240);
    // From the decoded floats, 16-bit: within a step of the 8-bit result.
    std::vector<float> fl(n);
    ASSERT_EQ(rgbe2fp(w, h, w * 3, 0, 0, rgbe.px.data(), fl.data(), 1.0f), h);
    for (float v : fl) ASSERT_TRUE(std::isfinite(v));
    const auto out16 = once(p, st, fl.data(), float_dim(w, h, 16), 2);
    for (size_t i = 0; i < n; ++i) ASSERT_LE(std::abs(out16[i] / 257 - one[i]), 1) << i;
}

}  // namespace
