// Ghost handling: mask files, the polygon fill into fusion slot masks, automatic detection.
#include "core/ghosts/ghosts.hpp"  // the mask pyramid pieces
#include "ghost_support.hpp"
#include "test_support.hpp"

namespace {

using bvtest::bit;
using bvtest::Stack;
using bvtest::text_of;
using Bytes = std::vector<uint8_t>;

// What both readers say of a file without the magic word and total.
#define NOT_MASK                                               \
    "get_mask_info - %s isn't a Brackvista Ghosting Mask file" \
    "get_mask_data - %s isn't a Brackvista Ghosting Mask file"

// ---- mask files ------------------------------------------------------------

TEST(MaskFile, RandomSelectionSetsRoundTrip) {
    for (uint64_t seed = 1; seed <= 12; ++seed) {
        bvtest::Rng rng(seed);
        const int n = static_cast<int>(seed % 6 + 1) * 3;  // tiny files: kReadCases
        const int W0 = 1 + rng.next() % 8000, H0 = 1 + rng.next() % 8000;
        std::vector<int32_t> e0, p0, xy0;
        for (int i = 0; i < n; ++i) {
            e0.push_back(static_cast<int32_t>(rng.next() % 9) - 1);
            // Now and then a negative count: its header is written, no vertex.
            p0.push_back(rng.next() % 7 == 0 ? -1 - static_cast<int>(rng.next() % 5)
                                             : static_cast<int>(rng.next() % 40));
            for (int k = 0; k < p0.back(); ++k) {
                xy0.push_back(static_cast<int32_t>(rng.next() % 20000) - 5000);
                xy0.push_back(static_cast<int32_t>(rng.next()) - INT32_MAX / 2);
            }
        }
        const std::string path = bvtest::temp_path("rt.txt");
        const int T = static_cast<int>(xy0.size() / 2);
        ASSERT_EQ(write_ghost_mask(path.c_str(), W0, H0, n, e0.data(), p0.data(), xy0.data()), T);
        int W = -1, H = -1, N = -1, t = 0;
        EXPECT_EQ(bvtest::stderr_of([&] { t = get_mask_info(path.c_str(), &W, &H, &N); }, path), "");
        ASSERT_EQ(std::vector<int>({t, W, H, N}), std::vector<int>({T, W0, H0, n})) << seed;
        std::vector<int32_t> e(N), p(N), xy(2 * static_cast<size_t>(t));
        EXPECT_EQ(get_mask_data(path.c_str(), e.data(), p.data(), xy.data()), n);
        EXPECT_EQ(std::tie(e, p, xy), std::tie(e0, p0, xy0));
    }
}

TEST(MaskFile, LayoutIsExactAndWriteFailuresReturnMinusOne) {
    const int32_t e[] = {2}, p[] = {3}, xy[] = {10, 10, 20, 10, 15, 30};
    const std::string path = bvtest::temp_path("triangle.txt");
    EXPECT_EQ(write_ghost_mask(path.c_str(), 640, 480, 1, e, p, xy), 3);
    EXPECT_EQ(text_of(path),
              "BrackvistaGhostingMask W640 H480 N1 T3 S0 E2 P3 C10,10 20,10 15,30 ");
    // N < 1: just the header ending in " T0"; a negative count has no vertex.
    for (int n : {0, -4}) {
        EXPECT_EQ(write_ghost_mask(path.c_str(), 7, 9, n, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(text_of(path), "BrackvistaGhostingMask W7 H9 N" + std::to_string(n) + " T0");
    }
    const int32_t e2[] = {1, 0}, p2[] = {-2, 1}, xy2[] = {-5, 6};
    EXPECT_EQ(write_ghost_mask(path.c_str(), 1, 1, 2, e2, p2, xy2), 1);
    EXPECT_EQ(text_of(path), "BrackvistaGhostingMask W1 H1 N2 T1 S0 E1 P-2 C S1 E0 P1 C-5,6 ");
    // /dev/full fails only when the buffered text is flushed, at close.
    for (const char *bad :
         {"/nonexistent-dir/m.txt", static_cast<const char *>(nullptr), "/dev/full"})
        EXPECT_EQ(write_ghost_mask(bad, 4, 4, 1, e, p, xy), BV_MASK_ERR_FILE);
    EXPECT_EQ(write_ghost_mask(path.c_str(), 4, 4, 1, e, p, nullptr), BV_MASK_ERR_FILE);
}

// Files padded with blanks to `size`: info's result and W H N, data's result, all
// printed ("%s" = path). Arrays sized from info, so ASan catches an overrun.
const struct ReadCase {
    const char *text;
    size_t size;
    int info, W, H, N, data;
    const char *message;
} kReadCases[] = {
    {"@W5 H6 N0 T0", 59, BV_MASK_ERR_SIZE, 0, 0, -1, 0,
     "get_mask_info - %s is too short to be a valid Brackvista Ghosting Mask file (59 vs 59)\n"},
    {"@W5 H6 N0 T0", 60, 0, 5, 6, 0, 0, ""},
    {"@W5 H6 N0 T0", 1000000, 0, 5, 6, 0, 0, ""},
    {"@W5 H6 N0 T0", 1000001, BV_MASK_ERR_SIZE, 0, 0, -1, 0,
     "get_mask_info - %s size 1000 more than 1000001 Kb\n"},
    {"@W640 H480 N1 S0 E2 P3 C1,1 2,2 3,3 ", 60, 0, 640, 480, 1, BV_MASK_ERR_SIZE, NOT_MASK},
    {"GIF89a", 60, 0, 0, 0, 0, BV_MASK_ERR_SIZE, NOT_MASK},
    {"@W9 H9 N2 T3 S0 E0 P2 C1,1 2,2 S1 E0 P2 C3,3 4,4 ", 60, 3, 9, 9, 2, BV_MASK_ERR_TOTAL,
     "get_mask_data path 1 - nbPoints is 2  but total is 3 (read already 2)"},
    {"@W9 H9 N1 T-1 S0 E0 P0 C", 60, -1, 9, 9, 1, BV_MASK_ERR_TOTAL,
     "get_mask_data path 0 - nbPoints is 0  but total is -1 (read already 0)"},
    {"@W9 H9 N1 T4 S0 E0 P99999999999 C1,1", 60, 4, 9, 9, 1, BV_MASK_ERR_TOTAL,
     "get_mask_data path 0 - nbPoints is 2147483647  but total is 4 (read already 0)"},
    {"@W9 H9 N1 T3 S0 E0 P3 C1,1 2,2 3;3", 60, 3, 9, 9, 1, BV_MASK_ERR_FILE,
     "get_mask_data - could not find coords at path 0  for point 2\n"},
    {"@W9 H9 N3 T2 S0 E0 P2 C1,1 2,2 S1 E5", 60, 2, 9, 9, 3, BV_MASK_ERR_SIZE,
     "get_mask_data - could not find path header info for path: 1"},
    {"@W9 H9 N99999999999 T0 S0 E0 P0 C", 60, 0, 9, 9, INT32_MAX, BV_MASK_ERR_SIZE,
     "get_mask_data - could not find path header info for path: 1"},
    {"@W9 H9 N2 T2 S1 E4 P1 C5,6 S0 E3 P1 C7,8", 60, 2, 9, 9, 2, 2,
     "get_mask_data - selection read is 1 but expected 0get_mask_data - selection read is 0 but "
     "expected 1"},
    {"@W9 H9 N-2 T0", 60, 0, 9, 9, -2, 0, ""},
};

TEST(MaskFile, SizeLimitsAndDamagedFiles) {
    for (const ReadCase &c : kReadCases) {
        std::string text = c.text;
        if (text[0] == '@') text.replace(0, 1, "BrackvistaGhostingMask ");
        text.resize(std::max(text.size(), c.size), ' ');
        const std::string path = bvtest::temp_path("read.txt");
        ASSERT_TRUE(bvtest::write_file(path, text.data(), text.size()));
        int W = 0, H = 0, N = -1, info = 1, data = 1;
        std::vector<int32_t> e, p, xy;
        const std::string msg = bvtest::stderr_of([&] {
            info = get_mask_info(path.c_str(), &W, &H, &N);
            e.resize(N > 0 && N < 1000 ? N : 4), p.resize(e.size());
            xy.resize(info > 0 ? 2 * info : 1);
            data = get_mask_data(path.c_str(), e.data(), p.data(), xy.data());
        }, path);
        EXPECT_EQ(std::vector<int>({info, W, H, N, data}),
                  std::vector<int>({c.info, c.W, c.H, c.N, c.data}))
            << c.text << " " << c.size;
        EXPECT_EQ(msg, c.message) << c.text;
    }
    int rc = 0;
    EXPECT_EQ(bvtest::stderr_of([&] { rc = get_mask_data("/nonexistent-dir/m.txt", 0, 0, 0); }),
              "get_mask_data - could not open input file\n");
    EXPECT_EQ(rc, BV_MASK_ERR_FILE);
    EXPECT_EQ(get_mask_info("/nonexistent-dir/m.txt", nullptr, nullptr, nullptr), BV_MASK_ERR_FILE);
}

// ---- polygon fill ----------------------------------------------------------

// Self-crossing polygons; digest recorded when an exact even-odd test of each pixel centre agreed.
TEST(Rasterize, RandomPolygonsRecordedMasks) {
    bvtest::Rng rng(99);
    const int W = 37, H = 29, n = 3;
    Bytes all;
    for (int round = 0; round < 40; ++round) {
        const int N = 1 + static_cast<int>(rng.next() % 3);
        std::vector<int32_t> e, p, xy;
        for (int i = 0; i < N; ++i) {
            e.push_back(static_cast<int32_t>(rng.next() % n));
            p.push_back(3 + static_cast<int32_t>(rng.next() % 6));
            for (int k = 0; k < 2 * p.back(); ++k)
                xy.push_back(static_cast<int32_t>(rng.next() % (60 - k % 2 * 10)) - 10);
        }
        int32_t slots[n] = {7, 7, 7};
        Bytes mask((n * W * H + 7) / 8);
        ASSERT_EQ(bv_ghost_rasterize(W, H, n, N, e.data(), p.data(), xy.data(),
                                     static_cast<int>(xy.size() / 2), slots, mask.data()),
                  N);
        all.insert(all.end(), mask.begin(), mask.end());
        all.insert(all.end(), reinterpret_cast<uint8_t *>(slots),
                   reinterpret_cast<uint8_t *>(slots + n));
    }
    EXPECT_EQ(bvtest::digest(all), 13735295519679008883ull);
}

// 10 x 4 rectangle: 40; half an 8 x 8 square less its diagonal: 28. Refusals draw
// nothing; nothing to draw (off the picture, two vertices) clears mask and slot.
TEST(Rasterize, ExactCountsAndRefusals) {
    const int32_t e[] = {2, 0}, p[] = {3, 4},
                  xy[] = {1, 1, 9, 1, 1, 9, 10, 10, 20, 10, 20, 14, 10, 14};
    int32_t slots[3] = {7, 7, 7};
    Bytes mask((3 * 24 * 16 + 7) / 8);
    ASSERT_EQ(bv_ghost_rasterize(24, 16, 3, 2, e, p, xy, 7, slots, mask.data()), 2);
    std::vector<size_t> count(3);
    for (size_t k = 0; k < 3 * 24 * 16; ++k) count[k / (24 * 16)] += bit(mask, k);
    EXPECT_EQ(count, (std::vector<size_t>{40, 0, 28}));
    const int bad[][7] = {{8, 8, 2, 1, 2, 3, 3}, {8, 8, 2, 1, -1, 3, 3}, {8, 8, 2, 1, 0, 4, 3},
                          {8, 8, 0, 1, 0, 3, 3}, {-8, 8, 2, 1, 0, 3, 3}, {8, 8, 2, 1, 0, 2, 3}};
    const int32_t far[] = {100, 100, 120, 100, 100, 120};
    for (const auto &c : bad) {
        const bool refused = &c != &bad[5];
        for (const int32_t *pts : {xy, far}) {
            mask.assign(16, 0x5A), slots[0] = 7;
            EXPECT_EQ(bv_ghost_rasterize(c[0], c[1], c[2], c[3], &c[4], &c[5], pts, c[6], slots,
                                         mask.data()),
                      refused ? BV_GHOST_ERR_ARG : 0);
            EXPECT_EQ(mask, Bytes(16, refused ? 0x5A : 0));
            EXPECT_EQ(slots[0], refused ? 7 : -1);
        }
    }
    const int32_t zero = 0, three = 3;
    EXPECT_EQ(bv_ghost_rasterize(8, 8, 2, 1, &zero, &three, far, 3, slots, mask.data()), 1);
    EXPECT_EQ(mask, Bytes(16, 0));
    EXPECT_EQ(slots[0], -1);
}

// ---- detection -------------------------------------------------------------

struct Detect : testing::Test {
    Stack s = bvtest::static_stack(64, 48, 3, 1.0);
    Bytes mask = Bytes(64 * 48 / 8);
    int T = 70;
    int run(std::vector<float> &ex, float ev_step, int threads = 1, int n = 3, int w = 64,
            int h = 48, int ch = 3, int bits = 8, const void *px = nullptr, int bgr = 0) {
        return bv_ghost_detect(&T, n, w, h, ch, bits, bgr, ex.data(), px ? px : s.px.data(),
                               mask.data(), ev_step, threads);
    }
};

// Static stacks give empty masks. evStep > 0: evenly spaced; <= -0.5: as given
// (a zero refused); between: estimated.
TEST_F(Detect, StaticStacksAndExposures) {
    for (float stops : {1.0f, 2.0f}) {
        s = bvtest::static_stack(64, 48, 3, stops);
        std::vector<float> ex(3, 0.0f);
        mask.assign(mask.size(), 0);
        EXPECT_EQ(run(ex, stops, 2), 64 * 48);
        EXPECT_EQ(ex, (std::vector<float>{1 / (2 * stops), 1.0f, 2 * stops}));
        EXPECT_EQ(mask, Bytes(mask.size(), 0)) << stops;
    }
    std::vector<float> ex = {0.0f, 1.0f, 2.0f};
    EXPECT_EQ(run(ex, -1.0f), BV_GHOST_ERR_ARG);
    ex.assign(3, 0.0f);
    ASSERT_GT(run(ex, 0.0f), 0);
    EXPECT_TRUE(ex[0] < ex[1] && ex[1] == 1.0f && ex[1] < ex[2]);
}

TEST_F(Detect, RefusedArguments) {
    // bits, n, w, h, channels, result
    const int cases[][6] = {
        {32, 2, 16, 16, 3, BV_GHOST_ERR_DEPTH}, {8, 0, 16, 16, 3, BV_GHOST_ERR_ARG},
        {8, 2, -1, 16, 3, BV_GHOST_ERR_ARG},    {8, 2, 16, 16, 0, BV_GHOST_ERR_ARG},
        {8, 2, 0, 16, 3, 0},                    {8, 2, 65536, 65536, 3, BV_GHOST_ERR_ARG}};
    std::vector<float> ex = s.exposures;
    for (const auto &c : cases)
        EXPECT_EQ(run(ex, -1.0f, 1, c[1], c[2], c[3], c[4], c[0]), c[5]) << c[0];
    EXPECT_EQ(
        bv_ghost_detect(nullptr, 2, 16, 16, 3, 8, 0, ex.data(), s.px.data(), mask.data(), -1.0f, 1),
        BV_GHOST_ERR_ARG);
}

// Pixels no pair can judge: left alone for T >= 0, marked for T < 0; caller's bits stay.
TEST_F(Detect, TooFewComparisonsFollowTheSignOfT) {
    Stack dark = bvtest::static_stack(13, 7, 2, 1.0);
    dark.px.assign(dark.px.size(), 0);
    EXPECT_EQ(bvtest::detect(dark, 70, 1), Bytes(12, 0));
    Bytes want(12, 0xff);
    want.back() = 0xe0;  // 91 pixels: 3 bits of the last byte
    EXPECT_EQ(bvtest::detect(dark, -1, 1), want);
    mask.assign(12, 0);
    mask[3] = 0x11;
    run(dark.exposures, -1.0f, 1, 2, 13, 7, 3, 8, dark.px.data());
    EXPECT_EQ(mask, Bytes({0, 0, 0, 0x11, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// 16-bit (high byte), BGR and 4-channel (fourth read as B) layouts give the same mask.
TEST_F(Detect, SampleLayoutsAgree) {
    Stack s3 = bvtest::static_stack(90, 70, 3, 1.0);
    bvtest::paste_object(s3, {20, 10, 30, 40, 25, {2, 0}, 0.4f, 5});
    const Bytes want = bvtest::detect(s3, 70, 1);
    ASSERT_NE(want, Bytes(want.size(), 0));
    const size_t N = s3.px.size();
    std::vector<uint16_t> deep(N);
    Bytes bgr(N), four(N / 3 * 4);
    for (size_t i = 0; i < N; ++i) {
        deep[i] = static_cast<uint16_t>(s3.px[i] << 8 | (i * 37 & 255));
        bgr[i] = s3.px[i - i % 3 + 2 - i % 3];
        four[i / 3 * 4 + i % 3] = s3.px[i];  // B twice: statistic reads sample 2,
        if (i % 3 == 2) four[i / 3 * 4 + 3] = s3.px[i];  // comparison the last
    }
    const struct {
        const void *data;
        int channels, bits, bgr;
    } layouts[] = {{deep.data(), 3, 16, 0}, {bgr.data(), 3, 8, 1}, {four.data(), 4, 8, 0}};
    for (const auto &l : layouts) {
        mask.assign(want.size(), 0);
        std::vector<float> ex = s3.exposures;
        EXPECT_EQ(run(ex, -1.0f, 1, 3, 90, 70, l.channels, l.bits, l.data, l.bgr),
                  6304);  // whole bytes
        EXPECT_EQ(mask, want) << l.channels << " " << l.bits << " " << l.bgr;
    }
}

TEST_F(Detect, SameMaskForAnyThreadCount) {
    for (const auto &sz : {std::pair<int, int>{131, 37}, {37, 131}, {1001, 5}, {9, 3}}) {
        const int w = sz.first, h = sz.second;
        Stack st = bvtest::static_stack(w, h, 3, 1.0, 3);
        bvtest::paste_object(st, {w / 4, h / 4, w / 3, h / 2, w / 5, {0, 2}, 0.5f, 4});
        SCOPED_TRACE(testing::Message() << w << "x" << h);
        bvtest::expect_thread_invariant([&](int t) { return bvtest::detect(st, 60, t); });
    }
}

TEST_F(Detect, AllocationFailuresReturnMinusFourAndLeaveTheMask) {
    int rc = BV_GHOST_ERR_NOMEM;
    for (long k = 0; rc == BV_GHOST_ERR_NOMEM && k < 40; ++k) {
        mask.assign(mask.size(), 0);
        std::vector<float> ex = s.exposures;
        bvtest::FailAllocation fail(k);
        rc = run(ex, 0.0f, 2);
        if (rc == BV_GHOST_ERR_NOMEM) {
            EXPECT_EQ(mask, Bytes(mask.size(), 0));
        }
    }
    EXPECT_EQ(rc, 64 * 48);
}

// ---- the mask pyramid ------------------------------------------------------

TEST(MaskPyramid, ReductionsAndOutputThreshold) {
    const int sides[][2] = {{1, 2},    {999, 2},  {1000, 3}, {1999, 3}, {2000, 4},
                            {3999, 4}, {4000, 5}, {7999, 5}, {8000, 6}, {60000, 6}};
    for (const auto &c : sides) EXPECT_EQ(bv::ghosts::reductions_for(c[0]), c[1]) << c[0];
    const int t[][2] = {{200, 15}, {70, 15}, {69, 14}, {50, 3},
                        {45, 0},   {44, 0},  {0, -27}, {-10, -33}};
    for (const auto &c : t) EXPECT_EQ(bv::ghosts::output_threshold(c[0]), c[1]) << c[0];
}

TEST(MaskPyramid, HalvingEnlargingAndDilationKernels) {
    // Halving averages 2 x 2, rounding down, and repeats odd edges.
    const uint8_t src[] = {0, 4, 8, 12, 16, 255};
    uint8_t dst[2] = {}, one[1];
    bv::ghosts::deghost21a(src, 3, 2, dst, 0, 1);
    bv::ghosts::deghost21a(src + 5, 1, 1, one, 0, 1);
    EXPECT_EQ(Bytes({dst[0], dst[1], one[0]}), Bytes({8, 131, 255}));
    // One lit pixel in a 5 x 5 field, enlarged to 9 x 9 and 10 x 10: the
    // kernel weights 144, 96, 64, 24, 4 (of 256) times 255, rounded down.
    Bytes lit(25, 0);
    lit[12] = 255;
    for (int dw : {9, 10}) {
        Bytes big(static_cast<size_t>(dw) * dw, 77);
        bv::ghosts::deghost22b(lit.data(), 5, 5, big.data(), dw, dw, 0, dw);
        const Bytes got = {big[4 * dw + 4], big[4 * dw + 5], big[5 * dw + 5], big[4 * dw + 6],
                           big[6 * dw + 6], big[4 * dw + 7], big.back()};
        EXPECT_EQ(got, Bytes({143, 95, 63, 23, 3, 0, 0})) << dw;
    }
    // A flat field stays flat up to the border: the border repeats.
    Bytes flat(3 * 2, 200), big(6 * 3);
    bv::ghosts::deghost22b(flat.data(), 3, 2, big.data(), 6, 3, 0, 3);
    EXPECT_EQ(big, Bytes(18, 200));
    // Dilation spreads each value to the eight neighbours, the larger winning.
    Bytes m(5 * 4, 0), tmp(20);
    m[1 * 5 + 4] = 9;  // on the edges, so that both neighbours of an edge are read
    m[3 * 5 + 0] = 4;
    bv::ghosts::dilate(m.data(), 5, 4, tmp.data());
    EXPECT_EQ(m, Bytes({0, 0, 0, 9, 9, 0, 0, 0, 9, 9, 4, 4, 0, 9, 9, 4, 4, 0, 0, 0}));
}

}  // namespace
