// The exposure blend: closest-EV choice, fixed-point layer values, brushes, previews, threads.
#include <utility>

#include "Utils/blend/blend.hpp"
#include "test_support.hpp"

namespace {

using bv::blend::getIndexClosestEv;

TEST(Blend, ClosestEvAndTies) {
    const struct {
        std::vector<float> evs;
        float target;
        int want;
    } cases[] = {
        {{-2, 0}, -1, 0},      // negative target: the lower EV
        {{0, -2}, -1, 1},      // ... wherever it stands
        {{0, 2}, 1, 1},        // positive target: the higher EV
        {{2, 0}, 1, 0},
        {{-1, 1}, 0, 0},       // zero target: the first
        {{1, -1}, 0, 0},
        {{-3, 0.5f, 3}, 0.4f, 1},
        {{-2, 0, 2, 0}, 0, 1}, // an exact match returns at once
        {{5}, 9, 0},           // n = 1
    };
    for (const auto &c : cases)
        EXPECT_EQ(getIndexClosestEv(static_cast<int>(c.evs.size()), c.evs.data(), c.target), c.want)
            << "target " << c.target;
    EXPECT_EQ(getIndexClosestEv(3, nullptr, 1.0f), 0);
}

using bvtest::Bytes;
using bvtest::dim_param;

// A layer's opacity (percent) and EV; slot 55 of the base layer counts brush layers.
TmParam layer(float percent, float ev, float brushes = 0) {
    return bvtest::tm_slots({{51, percent}, {52, ev}, {55, brushes}});
}

// One pixel, every channel alike: the fixed-point value of one layer.
TEST(Blend, FixedPointLayerValues) {
    const struct {
        int bits_in, bits_out;
        float percent;
        int src, res, want;
    } cases[] = {
        {8, 8, 50, 200, 100, 149},     // not the rounded 150
        {8, 8, 150, 0, 255, 2},        // 150 % is held at 99 %: 1 % of the result stays
        {16, 8, 50, 65535, 0, 126},
        {8, 16, 50, 255, 0, 32639},
        {16, 16, 50, 65535, 65535, 65023},
    };
    for (const auto &c : cases) {
        std::vector<uint16_t> src16(3, uint16_t(c.src)), res16(3, uint16_t(c.res));
        Bytes src8(src16.begin(), src16.end()), res8(res16.begin(), res16.end());
        const TmParam rec = layer(c.percent, 0);
        void *src = c.bits_in == 8 ? static_cast<void *>(src8.data()) : src16.data();
        void *res = c.bits_out == 8 ? static_cast<void *>(res8.data()) : res16.data();
        const DimParam d = dim_param(1, 1, 3, c.bits_in, c.bits_out);
        EXPECT_EQ(bv_blend(1, 1, &rec, nullptr, nullptr, src, d, res), 1);
        if (c.bits_out == 8) res16.assign(res8.begin(), res8.end());
        EXPECT_EQ(res16, std::vector<uint16_t>(3, uint16_t(c.want)))
            << c.bits_in << "->" << c.bits_out;
    }
}

// Flat exposures 10, 100, 250 at EV -2, 0, +2 over a result of 60; layers: base 50 %
// at -1 EV (tie: -2), brush 0 at 100 % and 0 EV, brush 1 at 50 % and +1 EV (tie: +2).
struct BrushScene {
    static constexpr int kW = 7;
    std::vector<uint8_t> stack;
    TmParam rec[3] = {layer(50, -1, 2), layer(100, 0), layer(50, 1)};
    const float evs[3] = {-2, 0, 2};
    BrushScene() {
        for (int v : {10, 100, 250}) stack.insert(stack.end(), kW * 3, uint8_t(v));
    }
    Bytes run(const uint8_t *brush, int threads = 1, int status = 1) {
        Bytes res(kW * 3, 60);
        EXPECT_EQ(bv_blend(threads, 3, rec, evs, brush, stack.data(), dim_param(kW, 1, 3, 8, 8),
                           res.data()),
                  status);
        return res;
    }
};

TEST(Blend, BrushLayersAndStrengths) {
    BrushScene s;
    // strength, index per pixel, and the value each pixel must get
    const uint8_t brush[BrushScene::kW * 2] = {0, 0, 255, 255, 255, 0, 255, 200,
                                               127, 1, 255, 1, 1, 255};
    Bytes want;
    for (int v : {34, 34, 99, 154, 94, 154, 34}) want.insert(want.end(), 3, uint8_t(v));
    EXPECT_EQ(s.run(brush), want);
    // Without a brush, or with a brush but no brush layers, only the base applies.
    EXPECT_EQ(s.run(nullptr), Bytes(BrushScene::kW * 3, 34));
    s.rec[0].slot[55] = 0;
    EXPECT_EQ(s.run(brush), Bytes(BrushScene::kW * 3, 34));
    // A base layer switched off still passes 8-bit results through the
    // fixed-point scale: 60 becomes 59 where the brush does not reach.
    s.rec[0] = layer(0, 0, 2);
    const std::vector<uint8_t> off = s.run(brush);
    EXPECT_EQ(off[0], 59);
    EXPECT_EQ(off[2 * 3], 99);
    // No positive opacity anywhere: untouched, and the result is not written.
    s.rec[1].slot[51] = -5;
    s.rec[2].slot[51] = 0;
    EXPECT_EQ(s.run(brush, 2, BV_BLEND_UNTOUCHED), Bytes(BrushScene::kW * 3, 60));
}

TEST(Blend, ChannelOrderRowLengthsAndSpareSamples) {
    // Two padded rows of one 4-sample pixel; BGR result; sample 2 is no colour role.
    DimParam d = dim_param(1, 2, 4, 8, 8);
    d.rowIn = 6, d.rowOut = 5, d.bgr = 1;
    const uint8_t src[12] = {200, 0, 9, 100, 7, 7, 40, 0, 9, 255, 7, 7};
    uint8_t res[10] = {0, 0, 77, 100, 5, 255, 0, 77, 0, 5};
    const TmParam rec = layer(50, 0);
    EXPECT_EQ(bv_blend(1, 1, &rec, nullptr, nullptr, src, d, res), 2);
    // Row 0: R (sample 3) 200 over 100, B (sample 0) 100 over 0; row 1: 255 over 255.
    const uint8_t want[10] = {49, 0, 77, 149, 5, 254, 0, 77, 19, 5};
    EXPECT_EQ(0, std::memcmp(res, want, sizeof want));
}

// Random stacks wider than a chunk: same bytes for any thread count (the return is
// the last band's rows); a BGR result (another path) is the RGB one swapped.
TEST(Blend, ThreadInvarianceBandStatusAndChannelOrder) {
    for (int bits_in : {8, 16}) {
        const int w = 523, h = 37, n = 3;
        DimParam d = dim_param(w, h, 3, bits_in, 8);
        // Brush indices in runs of 40 pixels through 0..3 and 255.
        const Bytes stack = bvtest::random_bytes(size_t(n) * w * h * 3 * bits_in / 8, bits_in);
        Bytes brush = bvtest::random_bytes(size_t(w) * h * 2, 1),
              base = bvtest::random_bytes(size_t(w) * h * 3, 2);
        for (size_t p = 1; p < brush.size(); p += 2)
            brush[p] = uint8_t(p / 80 % 5 == 4 ? 255 : p / 80 % 5);
        const float evs[3] = {-2, 0, 2};
        TmParam rec[4] = {layer(40, -3, 3), layer(70, 0), layer(100, 2), layer(25, 1)};
        std::vector<uint8_t> one = base;
        ASSERT_EQ(bv_blend(1, n, rec, evs, brush.data(), stack.data(), d, one.data()), h);
        const int threads[] = {2, 3, 7, 20}, last_rows[] = {19, 13, 7, 37};
        for (int k = 0; k < 4; ++k) {
            std::vector<uint8_t> res = base;
            EXPECT_EQ(bv_blend(threads[k], n, rec, evs, brush.data(), stack.data(), d, res.data()),
                      last_rows[k]);
            EXPECT_EQ(res, one) << threads[k] << " threads, " << bits_in << "-bit";
        }
        d.bgr = 1;
        for (size_t p = 0; p < base.size(); p += 3) std::swap(base[p], base[p + 2]);
        ASSERT_EQ(bv_blend(2, n, rec, evs, brush.data(), stack.data(), d, base.data()), 19);
        for (size_t p = 0; p < base.size(); p += 3) std::swap(base[p], base[p + 2]);
        EXPECT_EQ(base, one) << "BGR, " << bits_in << "-bit";
    }
}

TEST(Blend, BadArgumentsAndAllocationFailure) {
    const uint8_t src[6] = {1, 2, 3, 4, 5, 6};
    uint8_t res[6] = {};
    const TmParam rec = layer(50, 0);
    const DimParam ok = dim_param(2, 1, 3, 8, 8);
    const struct {
        int field, value, want;  // DimParam field index (-1: none), its value
    } cases[] = {{3, 12, BV_BLEND_EBADARG}, {4, 32, BV_BLEND_EBADARG}, {5, 5, BV_BLEND_EBADARG},
                 {6, -1, BV_BLEND_EBADARG}, {2, 0, BV_BLEND_EBADARG},  {1, -1, BV_BLEND_EBADARG},
                 {1, 0, 0}};
    for (const auto &c : cases) {
        DimParam d = ok;
        reinterpret_cast<int32_t *>(&d)[c.field] = c.value;
        EXPECT_EQ(bv_blend(1, 1, &rec, nullptr, nullptr, src, d, res), c.want) << c.field;
    }
    EXPECT_EQ(bv_blend(1, 0, &rec, nullptr, nullptr, src, ok, res), BV_BLEND_EBADARG);
    EXPECT_EQ(bv_blend(1, 1, nullptr, nullptr, nullptr, src, ok, res), BV_BLEND_EBADARG);
    EXPECT_EQ(bv_blend(1, 1, &rec, nullptr, nullptr, nullptr, ok, res), BV_BLEND_EBADARG);
    EXPECT_EQ(bv_blend(1, 1, &rec, nullptr, nullptr, src, ok, nullptr), BV_BLEND_EBADARG);
    for (long nth : {0L, 1L}) {
        bvtest::FailAllocation fail(nth);
        EXPECT_EQ(bv_blend(1, 1, &rec, nullptr, nullptr, src, ok, res), BV_BLEND_ENOMEM);
    }
    for (uint8_t v : res) EXPECT_EQ(v, 0);
}

TEST(Blend, SelectionPreviewBothModes) {
    // Two exposures of one row of four pixels; the last one is drawn.
    const int w = 4;
    std::vector<uint8_t> stack(2 * 14, 9);
    for (int x = 0; x < w; ++x) {
        stack[14 + 3 * x] = 200, stack[14 + 3 * x + 1] = 100, stack[14 + 3 * x + 2] = 40;
    }
    struct Case {
        int mode;
        uint8_t selection[4];
        uint8_t want[12];
    } cases[] = {
        {1, {0x50, 0, 0, 0}, {200, 100, 40, 150, 75, 93, 200, 100, 40, 150, 75, 93}},
        {0, {0, 51, 102, 255}, {200, 100, 40, 190, 95, 50, 180, 90, 61, 150, 75, 93}},
    };
    for (const Case &c : cases) {
        std::vector<uint8_t> out(16, 0xEE);
        EXPECT_EQ(brush_selection_preview(c.mode, 2, w, 1, 14, 16, 3, stack.data(), c.selection,
                                          out.data()),
                  0);
        EXPECT_EQ(0, std::memcmp(out.data(), c.want, 12)) << "mode " << c.mode;
        EXPECT_EQ(out[12], 0xEE);  // beyond the row: not written
    }
    uint8_t out[12];
    const uint8_t sel[1] = {0};
    EXPECT_EQ(brush_selection_preview(1, 1, w, 1, 11, 12, 3, stack.data(), sel, out), BV_BLEND_EBADARG);
    EXPECT_EQ(brush_selection_preview(1, 0, w, 1, 12, 12, 3, stack.data(), sel, out), BV_BLEND_EBADARG);
    EXPECT_EQ(brush_selection_preview(1, 1, w, 1, 12, 12, 3, stack.data(), nullptr, out), BV_BLEND_EBADARG);
}

}  // namespace
