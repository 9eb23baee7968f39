// Ghosts on real brackets and through the tool: detection, mask files, merges, errors.
#include "cli_support.hpp"
#include "core/ghosts/ghosts.hpp"
#include "ghost_support.hpp"

namespace {

using namespace bvtest;

// Writes the brackets as PNG files; returns their paths.
Args write_brackets(Stack &s, const std::string &name) {
    Args paths;
    for (int k = 0; k < s.n; ++k) {
        paths.push_back(temp_path(name + std::to_string(k) + ".png"));
        EXPECT_TRUE(write_rgb8(paths.back(), s.w, s.h, s.image(k))) << paths.back();
    }
    return paths;
}

std::string exposure_list(const Stack &s) {
    std::string e;
    for (float x : s.exposures) e += (e.empty() ? "" : ",") + std::to_string(x);
    return e;
}

// Pixels within `r` (Chebyshev distance) of a marked pixel: r 3 x 3 dilations.
Bytes grow(Bytes m, int w, int h, int r) {
    Bytes tmp(m.size());
    while (r-- > 0) bv::ghosts::dilate(m.data(), w, h, tmp.data());
    return m;
}

// Three memorial brackets two stops apart; the scan's blue frame grown by 16.
struct Memorial {
    Stack s;
    Bytes border;
};

const Memorial *memorial() {
    static const Memorial *m = []() -> const Memorial * {
        const std::string root = shared_data_dir();
        if (root.empty()) return nullptr;
        auto *mem = new Memorial;
        mem->s.exposures = {8.0f, 2.0f, 0.5f};
        for (int k : {63, 65, 67}) {
            const auto img = read_image(root + "/memorial/memorial00" + std::to_string(k) + ".png");
            if (img.channels != 3) return nullptr;
            mem->s.w = img.width, mem->s.h = img.height, ++mem->s.n;
            for (float v : img.px) mem->s.px.push_back(static_cast<uint8_t>(std::lround(v * 255)));
        }
        Bytes blue(static_cast<size_t>(mem->s.w) * mem->s.h, 0);
        for (int k = 0; k < 3; ++k)
            for (size_t p = 0; p < blue.size(); ++p) {
                const uint8_t *q = mem->s.image(k) + 3 * p;
                blue[p] |= q[0] < 16 && q[1] < 16 && q[2] > 200;
            }
        mem->border = grow(blue, mem->s.w, mem->s.h, 16);
        return mem;
    }();
    return m;
}

#define REQUIRE_MEMORIAL()                     \
    BV_REQUIRE_SHARED_DATA(shared_data_dir()); \
    if (!memorial()) GTEST_SKIP() << "memorial brackets could not be decoded"

// Fractions flagged: of the moved region, of static pixels, of those 16 px beyond.
struct Coverage {
    double covered, flagged, flagged_far;
};

Coverage measure(Stack &s, Bytes moved, int threshold) {
    const Bytes mask = detect(s, threshold, 2), &border = memorial()->border;
    if (moved.empty()) moved.assign(border.size(), 0);
    const Bytes near = grow(moved, s.w, s.h, 16);
    double n[6] = {};  // moved, of it flagged; static, flagged; far, flagged
    for (size_t p = 0; p < moved.size(); ++p) {
        const bool m = bit(mask, p), far = !moved[p] && !border[p] && !near[p];
        const int at = moved[p] ? 0 : border[p] ? -1 : 2;
        if (at < 0) continue;
        n[at] += 1, n[at + 1] += m, n[4] += far, n[5] += far && m;
    }
    return {n[1] / std::max(1.0, n[0]), n[3] / std::max(1.0, n[2]), n[5] / std::max(1.0, n[4])};
}

// Coverage at the default threshold, measured less a margin; a dark object shows
// only where a bright enough bracket predicts it (about half its region).
const struct Case {
    const char *name;
    MovingObject obj;
    double min_covered;
} kCases[] = {
    {"person_bright_two", {150, 300, 60, 160, 80, {0, 2}, 0.60f, 7}, 0.99},
    {"person_dark_ceiling", {260, 200, 60, 160, -70, {0, 2}, 0.08f, 8}, 0.47},
    {"small_mid_one", {100, 520, 32, 48, 0, {1, -1}, 0.25f, 9}, 0.99},
    {"large_mid_two", {180, 400, 120, 240, 60, {2, 1}, 0.20f, 10}, 0.95},
};

// Film grain alone flags under 0.6 %; a larger T never covers or flags more.
TEST(MemorialGhosts, MovedRegionsAreCoveredAndStaticPixelsSpared) {
    REQUIRE_MEMORIAL();
    for (const Case &c : kCases) {
        Stack s = memorial()->s;
        const Coverage cov = measure(s, paste_object(s, c.obj), 70);
        EXPECT_GE(cov.covered, c.min_covered) << c.name;
        EXPECT_LE(cov.flagged_far, 0.008) << c.name;
        EXPECT_LE(cov.flagged, 0.03) << c.name;
    }
    Stack s = memorial()->s;
    EXPECT_LE(measure(s, {}, 70).flagged, 0.006);
    const Bytes moved = paste_object(s, kCases[3].obj);
    Coverage prev{1.0, 1.0, 1.0};
    for (int T : {50, 60, 80, 100, 130}) {
        const Coverage cov = measure(s, moved, T);
        EXPECT_LE(cov.covered, prev.covered + 1e-12) << T;
        EXPECT_LE(cov.flagged, prev.flagged + 1e-12) << T;
        prev = cov;
    }
}

// A square moving between the first two brackets, written once as PNG files.
struct Square {
    Stack s;
    Bytes moved;
    Args files;
};

const Square &square() {
    static const Square sq = [] {
        Square q{static_stack(240, 160, 3, 1.0), {}, {}};
        q.moved = paste_object(q.s, {60, 50, 40, 50, 70, {0, 1}, 0.9f, 3});
        q.files = write_brackets(q.s, "square");
        return q;
    }();
    return sq;
}

TEST(GhostsTool, PictureIsTheLibraryMaskAndOutlinesReadBack) {
    BV_REQUIRE_TOOL();
    Stack s = square().s;
    const Args &br = square().files;
    const std::string png = temp_path("sq-mask.png"), txt = temp_path("sq-mask.txt"),
                      back = temp_path("sq-back.png");
    for (const Args &a : {Args{"-o", png, "-e", exposure_list(s)},
                          Args{"-o", txt, "-e", exposure_list(s), "--ghost-ref", "2"},
                          Args{"-o", back, "--no-detect", "--selections", txt}})
        ASSERT_TRUE(all_ok({run(cat(cat({"ghosts", "-q"}, a), br))}));
    const Bytes want = detect(s, 70, 1);
    const auto a = read_image(png), b = read_image(back);
    ASSERT_EQ(std::vector<int>({a.width, a.height, b.width, b.height}),
              std::vector<int>({240, 160, 240, 160}));
    for (size_t p = 0; p < size_t{240} * 160; ++p) {
        ASSERT_EQ(a.px[3 * p] > 0.5f, bit(want, p)) << p;
        // Hole-free outlines fill back to the same pixels.
        ASSERT_EQ(b.px[3 * p], a.px[3 * p]) << p;
    }
    EXPECT_NE(text_of(txt).find(" E2 P"), std::string::npos);
}

// Mean relative luminance error in the moved region against the linearised
// reference bracket: the plain merge shows the ghost, --ghosts auto does not.
void expect_removed(Stack s, const Bytes &moved, const Args &br, const std::string &name,
                    double max) {
    const int ref = 1;  // as --ghost-ref says
    const std::string plain = temp_path(name + "-plain.hdr"),
                      clean = temp_path(name + "-clean.hdr");
    const Args merge = {"merge", "-q", "-e", exposure_list(s), "-o"};
    ASSERT_TRUE(
        all_ok(run_all({cat(merge, cat({plain}, br)),
                        cat(merge, cat({clean, "--ghosts", "auto", "--ghost-ref", "1"}, br))})));
    const auto a = read_image(plain), b = read_image(clean);
    ASSERT_TRUE(a.px.size() == moved.size() * 3 && b.px.size() == a.px.size());
    double ea = 0, eb = 0, count = 0;
    for (size_t p = 0; p < moved.size(); ++p) {
        const uint8_t *q = s.image(ref) + 3 * p;
        if (!moved[p] || *std::max_element(q, q + 3) >= 250 || *std::min_element(q, q + 3) < 8)
            continue;
        double yr = 0, ya = 0, yb = 0;
        for (int c = 0; c < 3; ++c) {
            const double wgt = c == 0 ? 0.2126 : c == 1 ? 0.7152 : 0.0722;
            yr += wgt * std::pow(q[c] / 256.0, 2.2) / s.exposures[ref];
            ya += wgt * a.px[3 * p + c];
            yb += wgt * b.px[3 * p + c];
        }
        ea += std::fabs(ya - yr) / yr, eb += std::fabs(yb - yr) / yr, ++count;
    }
    EXPECT_GT(count, 1000);
    EXPECT_GT(ea / count, 0.3) << name;
    EXPECT_LT(eb / count, max) << name;
}

TEST(GhostsTool, MergeTakesGhostPixelsFromTheReference) {
    BV_REQUIRE_TOOL();
    expect_removed(square().s, square().moved, square().files, "synthetic", 0.01);
    REQUIRE_MEMORIAL();
    Stack m = memorial()->s;
    const Bytes moved = paste_object(m, kCases[0].obj);
    expect_removed(m, moved, write_brackets(m, "memorial"), "memorial", 0.03);
}

TEST(GhostsTool, BadCallsSayWhyInOneLine) {
    BV_REQUIRE_TOOL();
    const Args &br = square().files;
    const std::string other = temp_path("other.txt"), damaged = temp_path("damaged.txt"),
                      far = temp_path("far.txt"), out = temp_path("bad.hdr"),
                      mask = temp_path("bad.png");
    const int32_t e[] = {0}, p[] = {3}, xy[] = {0, 0, 10, 0, 0, 10}, e5[] = {5};
    ASSERT_EQ(write_ghost_mask(other.c_str(), 100, 100, 1, e, p, xy), 3);
    ASSERT_EQ(write_ghost_mask(far.c_str(), 240, 160, 1, e5, p, xy), 3);
    write_text("damaged.txt", "BrackvistaGhostingMask W240 H160 N2 T3 S0 E0 P3 C1,1 2,2" +
                                  std::string(21, ' '));  // a point without coordinates
    const Args merge = {"merge", "-o", out}, ghosts = {"ghosts", "-o", mask};
    std::vector<Refusal> calls = {
        {cat(merge, {"--ghosts", "maybe"}), 2, "takes 'auto' or a .txt"},
        {cat(merge, {"--ghosts", "auto", "--ghost-ref", "3"}), 2, "0..2"},
        {cat(merge, {"--ghost-ref", "1"}), 2, "go with --ghosts auto"},
        {cat(ghosts, {"--threshold", "10"}), 2, "--threshold"},
        {cat(merge, {"--ghosts", other}), 1, "drawn for 100x100"},
        {cat(merge, {"--ghosts", damaged}), 1, "is damaged"},
        {cat(merge, {"--ghosts", far}), 1, "names bracket 5"},
        {cat(ghosts, {"--no-detect"}), 2, "--selections"},
        {{"ghosts", "-o", temp_path("m.hdr")}, 2, ".png"},
    };
    for (auto &c : calls) c.args = cat(c.args, br);
    calls.push_back({cat(ghosts, {br[0]}), 1, "at least two brackets"});
    // The library's own diagnostics may come first; the tool names itself once.
    for (const auto &r : expect_refused(calls, false))
        EXPECT_EQ(r.err.find("brackvista"), r.err.rfind("brackvista")) << r.err;
}

}  // namespace
