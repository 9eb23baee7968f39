// Ghost handling: mask files, the polygon fill into fusion slot masks, automatic detection.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/ghosts/ghosts.hpp"  // the mask pyramid pieces
#include "ghost_support.hpp"
#include "test_support.hpp"

namespace {

using bvtest::bit;
using bvtest::Stack;

// ---- mask files ------------------------------------------------------------

struct Selections {
    int W = 0, H = 0;
    std::vector<int32_t> e, p, xy;
};

Selections random_selections(uint64_t seed, int n) {
    bvtest::Rng rng(seed);
    Selections s;
    s.W = 1 + static_cast<int>(rng.next() % 8000);
    s.H = 1 + static_cast<int>(rng.next() % 8000);
    for (int i = 0; i < n; ++i) {
        s.e.push_back(static_cast<int32_t>(rng.next() % 9) - 1);
        // Now and then a negative count: its header is written, no vertex.
        const int p = rng.next() % 7 == 0 ? -static_cast<int>(rng.next() % 5) - 1
                                           : static_cast<int>(rng.next() % 40);
        s.p.push_back(p);
        for (int k = 0; k < p; ++k) {
            s.xy.push_back(static_cast<int32_t>(rng.next() % 20000) - 5000);
            s.xy.push_back(static_cast<int32_t>(rng.next()) - INT32_MAX / 2);
        }
    }
    return s;
}

std::string write_text(const std::string &name, const std::string &text) {
    const std::string path = bvtest::temp_path(name);
    EXPECT_TRUE(bvtest::write_file(path, text.data(), text.size()));
    return path;
}

std::string read_text(const std::string &path) {
    std::vector<uint8_t> bytes;
    EXPECT_TRUE(bvtest::read_file(path, &bytes));
    return std::string(bytes.begin(), bytes.end());
}

TEST(MaskFile, RandomSelectionSetsRoundTrip) {
    for (uint64_t seed = 1; seed <= 12; ++seed) {
        const int n = static_cast<int>(seed % 6) * 3;
        Selections s = random_selections(seed, n);
        const std::string path = bvtest::temp_path("rt" + std::to_string(seed) + ".txt");
        const int T = static_cast<int>(s.xy.size() / 2);
        ASSERT_EQ(write_ghost_mask(path.c_str(), s.W, s.H, n, s.e.data(), s.p.data(), s.xy.data()),
                  T);
        int W = -1, H = -1, N = -1;
        testing::internal::CaptureStderr();
        const int t = get_mask_info(path.c_str(), &W, &H, &N);
        const std::string err = testing::internal::GetCapturedStderr();
        if (read_text(path).size() < 60) {
            // Tiny sets make tiny files, which the reader refuses by design.
            EXPECT_EQ(t, BV_MASK_ERR_SIZE);
            continue;
        }
        EXPECT_EQ(err, "");
        ASSERT_EQ(t, T) << seed;
        EXPECT_EQ(W, s.W);
        EXPECT_EQ(H, s.H);
        ASSERT_EQ(N, n);
        std::vector<int32_t> e(static_cast<size_t>(N)), p(static_cast<size_t>(N)),
            xy(2 * static_cast<size_t>(t));
        EXPECT_EQ(get_mask_data(path.c_str(), e.data(), p.data(), xy.data()), n);
        EXPECT_EQ(e, s.e);
        EXPECT_EQ(p, s.p);
        EXPECT_EQ(xy, s.xy);
    }
}

TEST(MaskFile, LayoutIsExact) {
    const int32_t e[] = {2}, p[] = {3}, xy[] = {10, 10, 20, 10, 15, 30};
    const std::string path = bvtest::temp_path("triangle.txt");
    EXPECT_EQ(write_ghost_mask(path.c_str(), 640, 480, 1, e, p, xy), 3);
    EXPECT_EQ(read_text(path),
              "BrackvistaGhostingMask W640 H480 N1 T3 S0 E2 P3 C10,10 20,10 15,30 ");
    // N < 1: just the header ending in " T0"; a negative count has no vertex.
    for (int n : {0, -4}) {
        EXPECT_EQ(write_ghost_mask(path.c_str(), 7, 9, n, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(read_text(path), "BrackvistaGhostingMask W7 H9 N" + std::to_string(n) + " T0");
    }
    const int32_t e2[] = {1, 0}, p2[] = {-2, 1}, xy2[] = {-5, 6};
    EXPECT_EQ(write_ghost_mask(path.c_str(), 1, 1, 2, e2, p2, xy2), 1);
    EXPECT_EQ(read_text(path), "BrackvistaGhostingMask W1 H1 N2 T1 S0 E1 P-2 C S1 E0 P1 C-5,6 ");
}

TEST(MaskFile, WriteFailuresReturnMinusOne) {
    const int32_t e[] = {0}, p[] = {3}, xy[] = {0, 0, 1, 0, 1, 1};
    EXPECT_EQ(write_ghost_mask("/nonexistent-dir/m.txt", 4, 4, 1, e, p, xy), BV_MASK_ERR_FILE);
    EXPECT_EQ(write_ghost_mask(nullptr, 4, 4, 1, e, p, xy), BV_MASK_ERR_FILE);
    // Buffered output fails only when flushed: /dev/full reports it at close.
    EXPECT_EQ(write_ghost_mask("/dev/full", 4, 4, 1, e, p, xy), BV_MASK_ERR_FILE);
    EXPECT_EQ(write_ghost_mask(bvtest::temp_path("n.txt").c_str(), 4, 4, 1, e, p, nullptr),
              BV_MASK_ERR_FILE);
}

// Text padded with blanks to at least `size` bytes.
std::string padded(const std::string &head, size_t size) {
    std::string s = head;
    if (s.size() < size) s.resize(size, ' ');
    return s;
}

struct SizeCase {
    size_t size;
    int expect;  // T, or the refusal
    const char *message;
};

TEST(MaskFile, SizeLimits) {
    const std::string head = "BrackvistaGhostingMask W5 H6 N0 T0";
    const SizeCase cases[] = {
        {59, BV_MASK_ERR_SIZE,
         "get_mask_info - %s is too short to be a valid Brackvista Ghosting Mask file (59 vs "
         "59)\n"},
        {60, 0, ""},
        {1000000, 0, ""},
        {1000001, BV_MASK_ERR_SIZE, "get_mask_info - %s size 1000 more than 1000001 Kb\n"},
    };
    for (const SizeCase &c : cases) {
        const std::string path = write_text("size.txt", padded(head, c.size));
        int W = 0, H = 0, N = -1;
        testing::internal::CaptureStderr();
        EXPECT_EQ(get_mask_info(path.c_str(), &W, &H, &N), c.expect) << c.size;
        std::string want = c.message;
        const size_t at = want.find("%s");
        if (at != std::string::npos) want.replace(at, 2, path);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), want) << c.size;
        if (c.expect == 0) {
            EXPECT_EQ(W * 100 + H * 10 + N, 560);
        }
    }
    EXPECT_EQ(get_mask_info("/nonexistent-dir/m.txt", nullptr, nullptr, nullptr),
              BV_MASK_ERR_FILE);
}

struct ReadCase {
    const char *name;
    const char *text;     // padded to 60 bytes with blanks
    int info;             // get_mask_info result
    int W, H, N;          // stored by get_mask_info
    int data;             // get_mask_data result
    const char *message;  // get_mask_data's message ("%s" = the path)
};

// Hostile and damaged files: the codes and messages, and never a write past
// arrays sized from get_mask_info.
const ReadCase kReadCases[] = {
    {"no_total", "BrackvistaGhostingMask W640 H480 N1 S0 E2 P3 C1,1 2,2 3,3 ", 0, 640, 480, 1,
     BV_MASK_ERR_SIZE, "get_mask_data - %s isn't a Brackvista Ghosting Mask file"},
    {"garbage", "GIF89a", 0, 0, 0, 0, BV_MASK_ERR_SIZE,
     "get_mask_data - %s isn't a Brackvista Ghosting Mask file"},
    {"counts_exceed", "BrackvistaGhostingMask W9 H9 N2 T3 S0 E0 P2 C1,1 2,2 S1 E0 P2 C3,3 4,4 ",
     3, 9, 9, 2, BV_MASK_ERR_TOTAL,
     "get_mask_data path 1 - nbPoints is 2  but total is 3 (read already 2)"},
    {"negative_total", "BrackvistaGhostingMask W9 H9 N1 T-1 S0 E0 P0 C", -1, 9, 9, 1,
     BV_MASK_ERR_TOTAL, "get_mask_data path 0 - nbPoints is 0  but total is -1 (read already 0)"},
    {"huge_count", "BrackvistaGhostingMask W9 H9 N1 T4 S0 E0 P99999999999 C1,1", 4, 9, 9, 1,
     BV_MASK_ERR_TOTAL,
     "get_mask_data path 0 - nbPoints is 2147483647  but total is 4 (read already 0)"},
    {"missing_vertex", "BrackvistaGhostingMask W9 H9 N1 T3 S0 E0 P3 C1,1 2,2 3;3", 3, 9, 9, 1,
     BV_MASK_ERR_FILE, "get_mask_data - could not find coords at path 0  for point 2\n"},
    {"letter_vertex", "BrackvistaGhostingMask W9 H9 N1 T1 S0 E0 P1 C1,x", 1, 9, 9, 1,
     BV_MASK_ERR_FILE, "get_mask_data - could not find coords at path 0  for point 0\n"},
    {"missing_selection", "BrackvistaGhostingMask W9 H9 N3 T2 S0 E0 P2 C1,1 2,2 S1 E5", 2, 9, 9,
     3, BV_MASK_ERR_SIZE, "get_mask_data - could not find path header info for path: 1"},
    {"huge_n", "BrackvistaGhostingMask W9 H9 N99999999999 T0 S0 E0 P0 C", 0, 9, 9, INT32_MAX,
     BV_MASK_ERR_SIZE, "get_mask_data - could not find path header info for path: 1"},
    {"out_of_order", "BrackvistaGhostingMask W9 H9 N2 T2 S1 E4 P1 C5,6 S0 E3 P1 C7,8", 2, 9, 9, 2,
     2, "get_mask_data - selection read is 1 but expected 0"
        "get_mask_data - selection read is 0 but expected 1"},
    {"negative_n", "BrackvistaGhostingMask W9 H9 N-2 T0", 0, 9, 9, -2, 0, ""},
};

TEST(MaskFile, DamagedFiles) {
    for (const ReadCase &c : kReadCases) {
        const std::string path = write_text(std::string(c.name) + ".txt", padded(c.text, 60));
        int W = -1, H = -1, N = -1;
        testing::internal::CaptureStderr();
        EXPECT_EQ(get_mask_info(path.c_str(), &W, &H, &N), c.info) << c.name;
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(W, c.W) << c.name;
        EXPECT_EQ(H, c.H) << c.name;
        EXPECT_EQ(N, c.N) << c.name;
        // Exactly sized arrays (ASan catches any overrun); a huge N gets a
        // small array, which the reader must not need.
        const size_t n = N > 0 && N < 1000 ? static_cast<size_t>(N) : 4;
        const size_t t = c.info > 0 ? static_cast<size_t>(c.info) : 0;
        std::vector<int32_t> e(n), p(n), xy(2 * t + (t == 0));
        testing::internal::CaptureStderr();
        EXPECT_EQ(get_mask_data(path.c_str(), e.data(), p.data(), xy.data()), c.data) << c.name;
        std::string want = c.message;
        const size_t at = want.find("%s");
        if (at != std::string::npos) want.replace(at, 2, path);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), want) << c.name;
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_mask_data("/nonexistent-dir/m.txt", nullptr, nullptr, nullptr),
              BV_MASK_ERR_FILE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "get_mask_data - could not open input file\n");
}

// ---- polygon fill ----------------------------------------------------------

// Even-odd test of the pixel centre (x + 1/2, y + 1/2), exact in integers.
bool inside(const int32_t *xy, int count, int x, int y) {
    bool in = false;
    const int64_t cx = 2 * x + 1, cy = 2 * y + 1;
    for (int i = 0; i < count; ++i) {
        const int j = (i + 1) % count;
        int64_t x0 = 2 * int64_t{xy[2 * i]}, y0 = 2 * int64_t{xy[2 * i + 1]};
        int64_t x1 = 2 * int64_t{xy[2 * j]}, y1 = 2 * int64_t{xy[2 * j + 1]};
        if ((y0 < cy) == (y1 < cy)) continue;
        if (y0 > y1) std::swap(x0, x1), std::swap(y0, y1);
        // crossing x <= cx  <=>  x0 (y1 - y0) + (cy - y0)(x1 - x0) <= cx (y1 - y0)
        if (x0 * (y1 - y0) + (cy - y0) * (x1 - x0) <= cx * (y1 - y0)) in = !in;
    }
    return in;
}

TEST(Rasterize, RandomPolygonsMatchTheCentreRule) {
    bvtest::Rng rng(99);
    const int W = 37, H = 29, n = 3;
    for (int round = 0; round < 40; ++round) {
        const int N = 1 + static_cast<int>(rng.next() % 3);
        std::vector<int32_t> e, p, xy;
        for (int i = 0; i < N; ++i) {
            e.push_back(static_cast<int32_t>(rng.next() % n));
            p.push_back(3 + static_cast<int32_t>(rng.next() % 6));  // often self-crossing
            for (int k = 0; k < p.back(); ++k) {
                xy.push_back(static_cast<int32_t>(rng.next() % 60) - 10);
                xy.push_back(static_cast<int32_t>(rng.next() % 50) - 10);
            }
        }
        int32_t slots[n];
        std::vector<uint8_t> mask((n * W * H + 7) / 8);
        ASSERT_EQ(bv_ghost_rasterize(W, H, n, N, e.data(), p.data(), xy.data(),
                                     static_cast<int>(xy.size() / 2), slots, mask.data()),
                  N);
        bool any = false;
        for (int s = 0; s < n; ++s)
            for (int y = 0; y < H; ++y)
                for (int x = 0; x < W; ++x) {
                    bool want = false;
                    size_t at = 0;
                    for (int i = 0; i < N; ++i) {
                        want |= e[i] == s && inside(xy.data() + 2 * at, p[i], x, y);
                        at += static_cast<size_t>(p[i]);
                    }
                    any |= want;
                    ASSERT_EQ(bit(mask, static_cast<size_t>(s) * W * H + y * W + x), want)
                        << round << ": " << s << " " << x << " " << y;
                }
        EXPECT_EQ(slots[0], any ? 0 : -1);
    }
}

TEST(Rasterize, MaskFileSelectionsFillDirectly) {
    // Two drawn regions, for brackets 0 and 2, through the file and back.
    const int32_t e[] = {2, 0}, p[] = {3, 4};
    const int32_t xy[] = {1, 1, 9, 1, 1, 9, 10, 10, 20, 10, 20, 14, 10, 14};
    const std::string path = bvtest::temp_path("fill.txt");
    ASSERT_EQ(write_ghost_mask(path.c_str(), 24, 16, 2, e, p, xy), 7);
    int W, H, N;
    const int T = get_mask_info(path.c_str(), &W, &H, &N);
    std::vector<int32_t> re(N), rp(N), rxy(2 * T);
    ASSERT_EQ(get_mask_data(path.c_str(), re.data(), rp.data(), rxy.data()), 2);
    int32_t slots[3];
    std::vector<uint8_t> mask((3 * 24 * 16 + 7) / 8);
    ASSERT_EQ(bv_ghost_rasterize(W, H, 3, N, re.data(), rp.data(), rxy.data(), T, slots,
                                 mask.data()),
              2);
    size_t count[3] = {};
    for (size_t k = 0; k < 3 * 24 * 16; ++k) count[k / (24 * 16)] += bit(mask, k);
    // Half of an 8 x 8 square above its diagonal, minus the diagonal's pixels
    // whose centres fall outside: 28 pixels; the rectangle 10 x 4.
    EXPECT_EQ(count[0], 40u);
    EXPECT_EQ(count[1], 0u);
    EXPECT_EQ(count[2], 28u);
}

struct BadFill {
    const char *name;
    int w, h, n, N;
    int32_t e, p;
    int total;
};

TEST(Rasterize, BadSelectionsAreRefusedBeforeDrawing) {
    const BadFill cases[] = {
        {"exposure_too_big", 8, 8, 2, 1, 2, 3, 3},
        {"exposure_negative", 8, 8, 2, 1, -1, 3, 3},
        {"counts_beyond_total", 8, 8, 2, 1, 0, 4, 3},
        {"no_bracket", 8, 8, 0, 1, 0, 3, 3},
        {"negative_size", -8, 8, 2, 1, 0, 3, 3},
    };
    const int32_t xy[] = {0, 0, 8, 0, 0, 8, 8, 8};
    for (const BadFill &c : cases) {
        int32_t slots[2] = {7, 7};
        std::vector<uint8_t> mask(16, 0x5A);
        EXPECT_EQ(bv_ghost_rasterize(c.w, c.h, c.n, c.N, &c.e, &c.p, xy, c.total, slots,
                                     mask.data()),
                  BV_GHOST_ERR_ARG)
            << c.name;
        EXPECT_EQ(mask, std::vector<uint8_t>(16, 0x5A)) << c.name;
        EXPECT_EQ(slots[0], 7) << c.name;
    }
    // Nothing to draw: the selection is off the picture, or has two vertices.
    for (int32_t count : {2, 3}) {
        const int32_t e = 0, far[] = {100, 100, 120, 100, 100, 120};
        int32_t slots[2];
        std::vector<uint8_t> mask(16, 0xff);
        EXPECT_EQ(bv_ghost_rasterize(8, 8, 2, 1, &e, &count, far, 3, slots, mask.data()),
                  count == 3 ? 1 : 0);
        EXPECT_EQ(slots[0], -1);
        EXPECT_EQ(mask, std::vector<uint8_t>(16, 0));
    }
}

// ---- detection -------------------------------------------------------------

TEST(Detect, StaticEvenlySpacedStackGivesAnEmptyMask) {
    for (double stops : {1.0, 2.0}) {
        Stack s = bvtest::static_stack(200, 120, 3, stops);
        int rc = 0;
        const std::vector<uint8_t> mask = bvtest::detect(s, 70, 2, &rc);
        EXPECT_EQ(rc, 200 * 120);
        EXPECT_EQ(mask, std::vector<uint8_t>(mask.size(), 0)) << stops;
    }
}

// Reading exposures: evStep > 0 spaces them evenly, brightest first by the
// pixels; evStep <= -0.5 takes them as given and never writes them.
TEST(Detect, ExposuresAreEstimatedOrTaken) {
    Stack s = bvtest::static_stack(64, 48, 3, 1.0);
    std::vector<uint8_t> mask(64 * 48 / 8);
    int T = 70;
    std::vector<float> ex(3, 0.0f);
    ASSERT_GT(bv_ghost_detect(&T, 3, 64, 48, 3, 8, 0, ex.data(), s.px.data(), mask.data(), 1.0f, 1), 0);
    EXPECT_EQ(ex, (std::vector<float>{0.5f, 1.0f, 2.0f}));
    ex = {0.0f, 1.0f, 2.0f};
    EXPECT_EQ(bv_ghost_detect(&T, 3, 64, 48, 3, 8, 0, ex.data(), s.px.data(), mask.data(), -1.0f, 1),
              BV_GHOST_ERR_ARG);
    ex.assign(3, 0.0f);
    ASSERT_GT(bv_ghost_detect(&T, 3, 64, 48, 3, 8, 0, ex.data(), s.px.data(), mask.data(), 0.0f, 1), 0);
    EXPECT_LT(ex[0], ex[1]);
    EXPECT_EQ(ex[1], 1.0f);
    EXPECT_LT(ex[1], ex[2]);
}

TEST(Detect, RefusedArguments) {
    Stack s = bvtest::static_stack(16, 16, 2, 1.0);
    std::vector<uint8_t> mask(32);
    int T = 70;
    struct {
        int bits, n, w, h, ch;
        bool null_t;
        int expect;
    } cases[] = {
        {32, 2, 16, 16, 3, false, BV_GHOST_ERR_DEPTH}, {12, 2, 16, 16, 3, false, BV_GHOST_ERR_DEPTH},
        {8, 0, 16, 16, 3, false, BV_GHOST_ERR_ARG},    {8, 2, -1, 16, 3, false, BV_GHOST_ERR_ARG},
        {8, 2, 16, 16, 0, false, BV_GHOST_ERR_ARG},    {8, 2, 16, 16, 3, true, BV_GHOST_ERR_ARG},
        {8, 2, 0, 16, 3, false, 0},                    {8, 2, 65536, 65536, 3, false, BV_GHOST_ERR_ARG},
    };
    for (const auto &c : cases) {
        std::vector<float> ex = s.exposures;
        EXPECT_EQ(bv_ghost_detect(c.null_t ? nullptr : &T, c.n, c.w, c.h, c.ch, c.bits, 0,
                                  ex.data(), s.px.data(), mask.data(), -1.0f, 1),
                  c.expect);
    }
}

// Pixels that no pair can judge are left alone for T >= 0 and marked for
// T < 0 (as is everything for T < 45, whose output threshold is negative);
// bits already set by the caller stay set.
TEST(Detect, TooFewComparisonsFollowTheSignOfT) {
    Stack s;
    s.n = 2, s.w = 13, s.h = 7;
    s.px.assign(2 * 13 * 7 * 3, 0);
    s.exposures = {1.0f, 2.0f};
    EXPECT_EQ(bvtest::detect(s, 70, 1), std::vector<uint8_t>(12, 0));
    std::vector<uint8_t> all = bvtest::detect(s, -1, 1);
    EXPECT_EQ(std::vector<uint8_t>(all.begin(), all.end() - 1), std::vector<uint8_t>(11, 0xff));
    EXPECT_EQ(all.back(), 0xe0);  // 91 pixels: 3 bits of the last byte
    std::vector<uint8_t> mask(12, 0);
    mask[3] = 0x11;
    int T = 70;
    std::vector<float> ex = s.exposures;
    bv_ghost_detect(&T, 2, 13, 7, 3, 8, 0, ex.data(), s.px.data(), mask.data(), -1.0f, 1);
    EXPECT_EQ(mask[3], 0x11);
}

// Sample layouts that say the same thing give the same mask: 16-bit samples
// (high byte), BGR order, four channels with a fourth sample read as B.
TEST(Detect, SampleLayoutsAgree) {
    Stack s = bvtest::static_stack(90, 70, 3, 1.0);
    bvtest::paste_object(s, {20, 10, 30, 40, 25, {2, 0}, 0.4f, 5});
    const std::vector<uint8_t> want = bvtest::detect(s, 70, 1);
    ASSERT_NE(want, std::vector<uint8_t>(want.size(), 0));
    const size_t N = s.px.size();
    std::vector<uint16_t> deep(N);
    std::vector<uint8_t> bgr(N), four(N / 3 * 4);
    for (size_t i = 0; i < N; ++i) {
        deep[i] = static_cast<uint16_t>(s.px[i] << 8 | (i * 37 & 255));
        bgr[i] = s.px[i - i % 3 + 2 - i % 3];
        // B twice: the statistic reads sample 2, the comparison the last.
        four[i / 3 * 4 + i % 3] = s.px[i];
        if (i % 3 == 2) four[i / 3 * 4 + 3] = s.px[i];
    }
    const struct {
        const void *data;
        int channels, bits, bgr;
    } layouts[] = {{deep.data(), 3, 16, 0}, {bgr.data(), 3, 8, 1}, {four.data(), 4, 8, 0}};
    for (const auto &l : layouts) {
        std::vector<uint8_t> mask(want.size());
        std::vector<float> ex = s.exposures;
        int T = 70;
        EXPECT_EQ(bv_ghost_detect(&T, 3, 90, 70, l.channels, l.bits, l.bgr, ex.data(), l.data,
                                  mask.data(), -1.0f, 1),
                  6304);  // whole bytes: ((6300 - 1) / 8 + 1) * 8
        EXPECT_EQ(mask, want) << l.channels << " " << l.bits << " " << l.bgr;
    }
}

TEST(Detect, SameMaskForAnyThreadCount) {
    const int sizes[][2] = {{131, 37}, {37, 131}, {1001, 5}, {9, 3}};
    for (const auto &sz : sizes) {
        Stack s = bvtest::static_stack(sz[0], sz[1], 3, 1.0, 3);
        bvtest::paste_object(s, {sz[0] / 4, sz[1] / 4, sz[0] / 3, sz[1] / 2, sz[0] / 5, {0, 2}, 0.5f, 4});
        const std::vector<uint8_t> one = bvtest::detect(s, 60, 1);
        for (int t : {2, 3, 7}) EXPECT_EQ(bvtest::detect(s, 60, t), one) << sz[0] << "x" << sz[1] << " " << t;
    }
}

TEST(Detect, AllocationFailuresReturnMinusFour) {
    Stack s = bvtest::static_stack(40, 30, 3, 1.0);
    int T = 70, rc = BV_GHOST_ERR_NOMEM;
    for (long k = 0; rc == BV_GHOST_ERR_NOMEM && k < 40; ++k) {
        std::vector<uint8_t> mask(150);
        std::vector<float> ex = s.exposures;
        bvtest::FailAllocation fail(k);
        rc = bv_ghost_detect(&T, 3, 40, 30, 3, 8, 0, ex.data(), s.px.data(), mask.data(), 0.0f, 2);
        if (rc == BV_GHOST_ERR_NOMEM) {
            EXPECT_EQ(mask, std::vector<uint8_t>(150, 0));
        }
    }
    EXPECT_EQ(rc, 1200);
}

// ---- the mask pyramid ------------------------------------------------------

TEST(MaskPyramid, ReductionsByLargerSide) {
    const int sides[][2] = {{1, 2},    {999, 2},  {1000, 3}, {1999, 3}, {2000, 4},
                            {3999, 4}, {4000, 5}, {7999, 5}, {8000, 6}, {60000, 6}};
    for (const auto &c : sides) EXPECT_EQ(bv::ghosts::reductions_for(c[0]), c[1]) << c[0];
}

TEST(MaskPyramid, OutputThreshold) {
    const int t[][2] = {{200, 15}, {70, 15}, {69, 14}, {50, 3}, {45, 0}, {44, 0}, {0, -27}, {-10, -33}};
    for (const auto &c : t) EXPECT_EQ(bv::ghosts::output_threshold(c[0]), c[1]) << c[0];
}

TEST(MaskPyramid, HalvingAveragesAndRepeatsOddEdges) {
    const uint8_t src[] = {0, 4, 8,  //
                           12, 16, 255};
    uint8_t dst[2] = {};
    bv::ghosts::deghost21a(src, 3, 2, dst, 0, 1);
    EXPECT_EQ(dst[0], 8);          // (0 + 4 + 12 + 16) / 4
    EXPECT_EQ(dst[1], 131);        // (8 + 8 + 255 + 255) / 4, rounded down
    uint8_t one[1];
    bv::ghosts::deghost21a(src + 5, 1, 1, one, 0, 1);
    EXPECT_EQ(one[0], 255);
}

TEST(MaskPyramid, EnlargementKernelAndExactSizes) {
    // One lit pixel in a 5 x 5 field, enlarged to 9 x 9 and to 10 x 10.
    std::vector<uint8_t> src(25, 0);
    src[12] = 255;
    for (int dw : {9, 10}) {
        std::vector<uint8_t> dst(static_cast<size_t>(dw) * dw, 77);
        bv::ghosts::deghost22b(src.data(), 5, 5, dst.data(), dw, dw, 0, dw);
        auto at = [&](int x, int y) { return dst[static_cast<size_t>(y) * dw + x]; };
        EXPECT_EQ(at(4, 4), 143);  // 144 * 255 / 256
        EXPECT_EQ(at(5, 4), 95);   // 16 * 6 * 255 / 256
        EXPECT_EQ(at(5, 5), 63);   // 64 * 255 / 256
        EXPECT_EQ(at(6, 4), 23);   // 24 * 255 / 256
        EXPECT_EQ(at(6, 6), 3);    // 4 * 255 / 256
        EXPECT_EQ(at(7, 4), 0);
        EXPECT_EQ(at(dw - 1, dw - 1), 0);
    }
    // A flat field stays flat up to the border: the border repeats.
    std::vector<uint8_t> flat(3 * 2, 200), big(6 * 3);
    bv::ghosts::deghost22b(flat.data(), 3, 2, big.data(), 6, 3, 0, 3);
    EXPECT_EQ(big, std::vector<uint8_t>(18, 200));
}

TEST(MaskPyramid, DilationSpreadsToTheEightNeighbours) {
    std::vector<uint8_t> m(5 * 4, 0), tmp(20);
    m[1 * 5 + 3] = 9;
    m[3 * 5 + 0] = 4;
    bv::ghosts::dilate(m.data(), 5, 4, tmp.data());
    const std::vector<uint8_t> want = {0, 0, 9, 9, 9,  //
                                       0, 0, 9, 9, 9,  //
                                       4, 4, 9, 9, 9,  //
                                       4, 4, 0, 0, 0};
    EXPECT_EQ(m, want);
}

}  // namespace
