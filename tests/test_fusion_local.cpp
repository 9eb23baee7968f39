// The fusion's local pass: codes, neutral settings, contrast gain, grid step, wrap, threads.
#include "FusionLib/local/fusion_local.hpp"
#include "test_support.hpp"

namespace {

// Clip limit and strength: what the two-pass fusion writes.
TmParam two_pass_slots(float clip = 5.625f, float strength = 1.0f) {
    return bvtest::tm_slots({{10, clip}, {18, strength}});
}

DimParam dim_of(int w, int h, int ch, int bits) { return bvtest::dim_param(w, h, ch, 8, bits); }

int run(std::vector<uint8_t> &img, const DimParam &d, int threads = 1, int wrap = 0,
        const TmParam &p = two_pass_slots(), bv_progress_cb cb = nullptr) {
    return bv_fusion_local(2, cb, &p, wrap, img.data(), threads, 0, 0, 0, 0, d);
}

// Left half near 40, right near 200, each with a +-6 texture and a slow ramp; RGB.
std::vector<uint8_t> two_halves(int w, int h, int bits, uint64_t seed) {
    std::vector<uint8_t> img(size_t(w) * h * 3 * bits / 8);
    bvtest::Rng rng(seed);
    for (size_t i = 0; i < size_t(w) * h * 3; ++i) {
        const int x = int(i / 3 % w), y = int(i / 3 / w);
        const int v = (x < w / 2 ? 40 : 200) + y * 10 / h + int(rng.next() % 13) - 6 + int(i % 3) * 3;
        if (bits == 8) img[i] = uint8_t(v);
        else reinterpret_cast<uint16_t *>(img.data())[i] = uint16_t(v * 257);
    }
    return img;
}

void cancel_at_once(int32_t *cancel, float) { *cancel = 1; }

TEST(FusionLocal, CodesAndNeutralSettings) {
    const DimParam ok = dim_of(30, 20, 3, 8);
    std::vector<uint8_t> img = two_halves(30, 20, 8, 1);
    const std::vector<uint8_t> orig = img;
    const TmParam p = two_pass_slots();
    EXPECT_EQ(bv_fusion_local(1, nullptr, &p, 0, img.data(), 1, 0, 0, 0, 0, ok), BV_FLOCAL_EMODE);
    EXPECT_EQ(bv_fusion_local(2, nullptr, nullptr, 0, img.data(), 1, 0, 0, 0, 0, ok), BV_FLOCAL_EBADARG);
    EXPECT_EQ(bv_fusion_local(2, nullptr, &p, 0, nullptr, 1, 0, 0, 0, 0, ok), BV_FLOCAL_EBADARG);
    const struct {
        void (*edit)(DimParam &);
        int want;
    } bad[] = {{[](DimParam &d) { d.bitsOut = 32; }, BV_FLOCAL_EDEPTH},
               {[](DimParam &d) { d.rowOut = 89; }, BV_FLOCAL_EBADARG},
               {[](DimParam &d) { d.channels = 0; }, BV_FLOCAL_EBADARG},
               {[](DimParam &d) { d.width = -1; }, BV_FLOCAL_EBADARG}};
    for (const auto &b : bad) {
        DimParam d = ok;
        b.edit(d);
        EXPECT_EQ(run(img, d), b.want);
    }
    EXPECT_EQ(run(img, ok, 1, 0, p, cancel_at_once), BV_FLOCAL_ECANCEL);
    for (long nth : {0L, 1L, 2L}) {
        bvtest::FailAllocation fail(nth);
        EXPECT_EQ(run(img, ok), BV_FLOCAL_ENOMEM);
    }
    // A zero clip limit or a zero strength leaves the picture alone.
    EXPECT_EQ(run(img, ok, 1, 0, two_pass_slots(0, 1)), 1);
    EXPECT_EQ(run(img, ok, 1, 0, two_pass_slots(5, 0)), 1);
    EXPECT_EQ(run(img, dim_of(0, 20, 3, 8)), 1);
    EXPECT_EQ(img, orig);
}

// Recorded when the spread of both halves (far apart in level) had risen over
// 1.4 times and the dark half stayed darker.
TEST(FusionLocal, RaisesContrastInEveryRegion) {
    std::vector<uint8_t> img = two_halves(160, 90, 8, 2);
    ASSERT_EQ(run(img, dim_of(160, 90, 3, 8)), 1);
    EXPECT_EQ(bvtest::digest(img), 11882890471148909631ull);
}

// The grid step is InterpolationInterval; absurd steps, clips and strengths are held.
TEST(FusionLocal, GridStepAndExtremeSettings) {
    const int w = 120, h = 80;
    const std::vector<uint8_t> orig = two_halves(w, h, 8, 3);
    std::vector<uint8_t> a = orig, b = orig;
    ASSERT_EQ(bv::fusion::InterpolationInterval, bv::fusion::kDefaultInterpolationInterval);
    run(a, dim_of(w, h, 3, 8));
    bv::fusion::InterpolationInterval = 85;
    run(b, dim_of(w, h, 3, 8));
    EXPECT_NE(a, b);
    for (int interval : {1, 2147483647}) {
        std::vector<uint8_t> img = two_halves(30, 20, 16, 5);
        bv::fusion::InterpolationInterval = interval;
        EXPECT_EQ(run(img, dim_of(30, 20, 3, 16), 2, 1, two_pass_slots(1e30f, INFINITY)), 1);
    }
    bv::fusion::InterpolationInterval = bv::fusion::kDefaultInterpolationInterval;
}

TEST(FusionLocal, SameBytesForAnyThreadCount) {
    const struct {
        int w, h, ch, bits, bgr, row_pad, wrap;
        uint64_t digest;  // recorded
    } layouts[] = {{97, 61, 3, 8, 0, 0, 0, 12824780602277614897ull},
                   {83, 47, 4, 16, 1, 5, 1, 11834475562218916395ull},
                   {50, 33, 1, 8, 0, 3, 0, 13777421053514434217ull}};
    for (const auto &l : layouts) {
        DimParam d = dim_of(l.w, l.h, l.ch, l.bits);
        d.bgr = l.bgr;
        d.rowOut = l.row_pad ? l.w * l.ch + l.row_pad : 0;
        std::vector<uint8_t> orig(size_t(d.rowOut ? d.rowOut : l.w * l.ch) * l.h * l.bits / 8);
        bvtest::Rng rng(l.w);
        for (size_t i = 0; i < orig.size(); ++i) orig[i] = uint8_t((i / 7 % 200) + rng.next() % 40);
        SCOPED_TRACE(testing::Message() << l.ch << " channels, " << l.bits << "-bit");
        auto with = [&](int threads) {
            std::vector<uint8_t> img = orig;
            EXPECT_EQ(run(img, d, threads, l.wrap), 1);
            return img;
        };
        const std::vector<uint8_t> one = bvtest::expect_thread_invariant(with);
        EXPECT_EQ(bvtest::digest(one), l.digest);
        EXPECT_EQ(with(100), one) << "more threads than rows";
    }
}

}  // namespace
