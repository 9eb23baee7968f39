// The tool's ghost handling end to end: masks written, read back, and ghosts removed in a merge.
#include <Brackvista40Lib1.h>
#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ghost_support.hpp"
#include "test_support.hpp"

namespace {

#ifdef BV_CLI_PATH
const char *kTool = BV_CLI_PATH;
#else
const char *kTool = nullptr;
#endif

#define REQUIRE_TOOL() \
    if (!kTool)        \
    GTEST_SKIP() << "the brackvista tool is not built (BV_BUILD_CLI=OFF or no OpenImageIO)"

struct Result {
    int code = -1;
    std::string out, err;
};

std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

Result run(const std::vector<std::string> &args) {
    static int counter = 0;
    const std::string base = bvtest::temp_path("ghost-run" + std::to_string(counter++));
    std::string cmd = std::string("ASAN_OPTIONS=detect_leaks=0 '") + kTool + "'";
    for (const auto &a : args) cmd += " '" + a + "'";
    cmd += " >'" + base + ".out' 2>'" + base + ".err'";
    const int status = std::system(cmd.c_str());
    Result r;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = slurp(base + ".out");
    r.err = slurp(base + ".err");
    return r;
}

// Writes the brackets of a stack as PNG files; returns their paths.
std::vector<std::string> write_brackets(bvtest::Stack &s, const std::string &name) {
    std::vector<std::string> paths;
    for (int k = 0; k < s.n; ++k) {
        paths.push_back(bvtest::temp_path(name + std::to_string(k) + ".png"));
        auto out = OIIO::ImageOutput::create(paths.back());
        OIIO::ImageSpec spec(s.w, s.h, 3, OIIO::TypeDesc::UINT8);
        EXPECT_TRUE(out && out->open(paths.back(), spec) &&
                    out->write_image(OIIO::TypeDesc::UINT8, s.image(k)));
        out->close();
    }
    return paths;
}

std::vector<float> read_float(const std::string &path, int *w, int *h) {
    auto in = OIIO::ImageInput::open(path);
    if (!in) return {};
    *w = in->spec().width, *h = in->spec().height;
    std::vector<float> px(static_cast<size_t>(*w) * *h * 3);
    in->read_image(0, 0, 0, 3, OIIO::TypeDesc::FLOAT, px.data());
    return px;
}

std::string exposure_list(const bvtest::Stack &s) {
    std::string e;
    for (float x : s.exposures) e += (e.empty() ? "" : ",") + std::to_string(x);
    return e;
}

std::vector<std::string> cat(std::vector<std::string> a, const std::vector<std::string> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

bvtest::Stack moving_square(std::vector<uint8_t> *moved) {
    bvtest::Stack s = bvtest::static_stack(240, 160, 3, 1.0);
    *moved = bvtest::paste_object(s, {60, 50, 40, 50, 70, {0, 1}, 0.9f, 3});
    return s;
}

TEST(GhostsTool, PictureIsTheLibraryMaskAndOutlinesReadBack) {
    REQUIRE_TOOL();
    std::vector<uint8_t> moved;
    bvtest::Stack s = moving_square(&moved);
    const std::vector<std::string> br = write_brackets(s, "sq");
    const std::string png = bvtest::temp_path("sq-mask.png"), txt = bvtest::temp_path("sq-mask.txt"),
                      back = bvtest::temp_path("sq-back.png");
    Result r = run(cat({"ghosts", "-q", "-o", png, "-e", exposure_list(s)}, br));
    ASSERT_EQ(r.code, 0) << r.err;
    r = run(cat({"ghosts", "-q", "-o", txt, "-e", exposure_list(s), "--ghost-ref", "2"}, br));
    ASSERT_EQ(r.code, 0) << r.err;
    r = run(cat({"ghosts", "-q", "-o", back, "--no-detect", "--selections", txt}, br));
    ASSERT_EQ(r.code, 0) << r.err;

    const std::vector<uint8_t> want = bvtest::detect(s, 70, 1);
    int w = 0, h = 0, w2 = 0, h2 = 0;
    const std::vector<float> a = read_float(png, &w, &h), b = read_float(back, &w2, &h2);
    ASSERT_EQ(w * 1000 + h, 240160);
    ASSERT_EQ(w2 * 1000 + h2, 240160);
    size_t set = 0;
    for (size_t p = 0; p < static_cast<size_t>(w) * h; ++p) {
        set += bvtest::bit(want, p);
        ASSERT_EQ(a[3 * p] > 0.5f, bvtest::bit(want, p)) << p;
        // The outlines of hole-free regions fill back to the same pixels.
        ASSERT_EQ(b[3 * p], a[3 * p]) << p;
    }
    EXPECT_GT(set, 4000u);
    EXPECT_NE(slurp(txt).find(" E2 P"), std::string::npos);
}

// Removal: inside the moved region the merge with --ghosts auto equals the
// reference bracket alone (linearised, divided by its exposure) up to the
// RGBE rounding, where the plain merge shows the ghost. Errors are the mean
// relative luminance difference inside the moved region.
struct Removal {
    double plain, removed;
};

Removal removal_error(bvtest::Stack &s, const std::vector<uint8_t> &moved, const std::string &name,
                      int ref) {
    const std::vector<std::string> br = write_brackets(s, name);
    const std::string plain = bvtest::temp_path(name + "-plain.hdr"),
                      clean = bvtest::temp_path(name + "-clean.hdr");
    Result r = run(cat({"merge", "-q", "-o", plain, "-e", exposure_list(s)}, br));
    EXPECT_EQ(r.code, 0) << r.err;
    r = run(cat({"merge", "-q", "-o", clean, "-e", exposure_list(s), "--ghosts", "auto",
                 "--ghost-ref", std::to_string(ref)},
                br));
    EXPECT_EQ(r.code, 0) << r.err;
    int w, h;
    const std::vector<float> a = read_float(plain, &w, &h), b = read_float(clean, &w, &h);
    double ea = 0, eb = 0;
    size_t count = 0;
    for (size_t p = 0; p < moved.size() && !a.empty() && !b.empty(); ++p) {
        if (!moved[p]) continue;
        const uint8_t *q = s.image(ref) + 3 * p;
        if (*std::max_element(q, q + 3) >= 250 || *std::min_element(q, q + 3) < 8) continue;
        double yr = 0, ya = 0, yb = 0;
        const double wgt[3] = {0.2126, 0.7152, 0.0722};
        for (int c = 0; c < 3; ++c) {
            yr += wgt[c] * std::pow(q[c] / 256.0, 2.2) / s.exposures[ref];
            ya += wgt[c] * a[3 * p + c];
            yb += wgt[c] * b[3 * p + c];
        }
        ea += std::fabs(ya - yr) / yr;
        eb += std::fabs(yb - yr) / yr;
        ++count;
    }
    EXPECT_GT(count, 1000u);
    return {count ? ea / count : 1.0, count ? eb / count : 1.0};
}

TEST(GhostsTool, MergeTakesGhostPixelsFromTheReference) {
    REQUIRE_TOOL();
    std::vector<uint8_t> moved;
    bvtest::Stack s = moving_square(&moved);
    const Removal e = removal_error(s, moved, "rm", 1);
    std::printf("synthetic: ghost error %.4f plain, %.4f with --ghosts auto\n", e.plain, e.removed);
    EXPECT_GT(e.plain, 0.3);
    EXPECT_LT(e.removed, 0.01);
}

TEST(GhostsTool, MemorialGhostIsRemoved) {
    REQUIRE_TOOL();
    const std::string root = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(root);
    bvtest::Stack s;
    s.n = 3;
    s.exposures = {8.0f, 2.0f, 0.5f};
    for (int k : {63, 65, 67}) {
        auto in = OIIO::ImageInput::open(root + "/memorial/memorial00" + std::to_string(k) + ".png");
        ASSERT_TRUE(in);
        s.w = in->spec().width, s.h = in->spec().height;
        const size_t at = s.px.size();
        s.px.resize(at + static_cast<size_t>(s.w) * s.h * 3);
        ASSERT_TRUE(in->read_image(0, 0, 0, 3, OIIO::TypeDesc::UINT8, s.px.data() + at));
    }
    const std::vector<uint8_t> moved =
        bvtest::paste_object(s, {150, 300, 60, 160, 80, {0, 2}, 0.60f, 7});
    const Removal e = removal_error(s, moved, "mem", 1);
    std::printf("memorial: ghost error %.4f plain, %.4f with --ghosts auto\n", e.plain, e.removed);
    EXPECT_GT(e.plain, 0.3);
    EXPECT_LT(e.removed, 0.03);
}

struct BadCall {
    const char *name;
    std::vector<std::string> args;  // "@" stands for the three brackets
    int code;
    const char *message;
};

TEST(GhostsTool, BadCallsSayWhyInOneLine) {
    REQUIRE_TOOL();
    std::vector<uint8_t> moved;
    bvtest::Stack s = moving_square(&moved);
    const std::vector<std::string> br = write_brackets(s, "bad");
    const std::string other = bvtest::temp_path("other.txt"), damaged = bvtest::temp_path("damaged.txt"),
                      far = bvtest::temp_path("far.txt");
    const int32_t e[] = {0}, p[] = {3}, xy[] = {0, 0, 10, 0, 0, 10}, e5[] = {5};
    ASSERT_EQ(write_ghost_mask(other.c_str(), 100, 100, 1, e, p, xy), 3);
    ASSERT_EQ(write_ghost_mask(far.c_str(), 240, 160, 1, e5, p, xy), 3);
    ASSERT_TRUE(bvtest::write_file(damaged, "BrackvistaGhostingMask W240 H160 N2 T3 S0 E0 P3 C1,1 2,2 ", 58 + 20));
    const std::string out = bvtest::temp_path("bad.hdr"), mask = bvtest::temp_path("bad.png");
    const BadCall calls[] = {
        {"ghosts_value", {"merge", "-o", out, "--ghosts", "maybe", "@"}, 2, "takes 'auto' or a .txt"},
        {"ref_range", {"merge", "-o", out, "--ghosts", "auto", "--ghost-ref", "3", "@"}, 2, "0..2"},
        {"ref_alone", {"merge", "-o", out, "--ghost-ref", "1", "@"}, 2, "go with --ghosts auto"},
        {"threshold_low", {"ghosts", "-o", mask, "--threshold", "10", "@"}, 2, "--threshold"},
        {"other_size", {"merge", "-o", out, "--ghosts", other, "@"}, 1, "drawn for 100x100"},
        {"damaged", {"merge", "-o", out, "--ghosts", damaged, "@"}, 1, "damaged"},
        {"bracket_5", {"merge", "-o", out, "--ghosts", far, "@"}, 1, "names bracket 5"},
        {"one_bracket", {"ghosts", "-o", mask, "!"}, 1, "at least two brackets"},
        {"nothing", {"ghosts", "-o", mask, "--no-detect", "@"}, 2, "--selections"},
        {"extension", {"ghosts", "-o", bvtest::temp_path("m.hdr"), "@"}, 2, ".png"},
    };
    for (const BadCall &c : calls) {
        std::vector<std::string> args;
        for (const auto &a : c.args)
            if (a == "@")
                args.insert(args.end(), br.begin(), br.end());
            else if (a == "!")
                args.push_back(br[0]);
            else
                args.push_back(a);
        const Result r = run(args);
        EXPECT_EQ(r.code, c.code) << c.name << ": " << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.name << ": " << r.err;
        EXPECT_EQ(r.err.back(), '\n') << c.name;
        EXPECT_EQ(r.err.find("brackvista"), r.err.rfind("brackvista")) << c.name << ": " << r.err;
    }
}

}  // namespace
