// Tone enhancer: error codes and messages, work and preview sizing, thread invariance, the look.
#include <functional>

#include "test_support.hpp"

namespace {

// A scene with a bright window over a dim textured room: 1000:1 contrast.
std::vector<float> scene(int w, int h, uint64_t seed = 7) {
    bvtest::Rng rng(seed);
    std::vector<float> rgb(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool window = x > w / 2 && x < 3 * w / 4 && y > h / 5 && y < h / 2;
            const float base = window ? 200.0f : 0.2f + 0.1f * ((x / 6 + y / 6) % 2);
            const float n = 1.0f + 0.05f * float(rng.uniform());
            float *p = &rgb[(size_t(y) * w + x) * 3];
            p[0] = base * n * 1.1f, p[1] = base * n, p[2] = base * n * 0.8f;
        }
    return rgb;
}

DimParam float_dim(int w, int h, int bits = 8) {
    DimParam d;
    init_dim_param(&d);
    d.width = w, d.height = h, d.bitsOut = bits, d.sourceKind = 10;
    return d;
}

TmParam defaults(std::initializer_list<std::pair<int, float>> slots = {}) {
    TmParam p;
    tmparam_default(1, 0, &p);
    for (auto [slot, v] : slots) p.slot[slot] = v;
    return p;
}

std::string captured_stdout(const std::function<void()> &f) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    f();
    testing::internal::GetCapturedStderr();
    return testing::internal::GetCapturedStdout();
}

// One enhancer call with a work buffer sized by mem4enhancer (1 MiB when it
// refuses the size) and outputs pre-filled, so nothing may rely on cleared memory.
struct Result {
    std::vector<uint8_t> out, work;
    int rc = 0;
    LogLumStats stats{};
};

Result render(const void *input, DimParam d, TmParam p, optimParam o, bv_progress_cb cb = nullptr,
              size_t out_pixels = 0, bool with_work = true) {
    Result r;
    int64_t bytes = 0;
    if (mem4enhancer(0, &p, nullptr, &bytes, d) <= 0) bytes = 1 << 20;
    r.work.assign(size_t(bytes), 0xCD);
    if (!out_pixels) out_pixels = size_t(d.width) * d.height;
    r.out.assign(std::max<size_t>(out_pixels * 3 * (d.bitsOut == 16 ? 2 : 1), 16), 0xA5);
    r.rc = bv_tm_enhancer(0, &p, r.out.data(), &r.stats, nullptr, nullptr, d, o, cb, input,
                          with_work ? r.work.data() : nullptr);
    return r;
}

// In memory by default; streamed through the temporary files on request.
class Enhancer : public ::testing::Test {
protected:
    const std::string t1 = bvtest::temp_path("enh_log.tmp"), base = bvtest::temp_path("enh_x.tmp"),
                      p = bvtest::temp_path("enh_p.tmp"), r = bvtest::temp_path("enh_r.tmp"),
                      t = bvtest::temp_path("enh_t.tmp"),
                      bad = bvtest::temp_path("no_such_dir") + "/t.tmp";
    optimParam options(int threads = 1, int mode = 0, bool streamed = false) const {
        optimParam o;
        init_optim_param(&o);
        o.threads = threads, o.mode = mode;
        if (streamed) {
            o.useTempFiles = 1, o.tempPath1 = t1.c_str();
            o.solverBase = base.c_str(), o.solverP = p.c_str(), o.solverR = r.c_str();
            o.solverT = t.c_str();
        }
        return o;
    }
};

void cancel_at_contrast(int32_t *cancel, float v) {
    if (v >= 0.8f) *cancel = 1;
}

TEST_F(Enhancer, ErrorCodesAndMessages) {
    const bvtest::Planar pic = bvtest::random_planar(60, 40, 3);
    const std::string hdr = bvtest::temp_path("scene.hdr"), junk = bvtest::temp_path("junk.hdr"),
                      missing = bvtest::temp_path("missing.hdrx"),
                      hdr_dir = bvtest::temp_path("no_such_dir") + "/x.hdr";
    ASSERT_EQ(bv_io_rgbe_write(hdr.c_str(), 60, 40, nullptr, 0, "", pic.px.data()), 40);
    ASSERT_TRUE(bvtest::write_file(junk, "not a picture\n", 14));
    const std::string not_hdr = "optimParam.sourceFile is not a Radiance (.hdr) file\n",
                      no_t1 = "can not open temporary file iofpTempPath1\n";
    const optimParam streamed = options(1, 0, true);
    // A call on a w x h scene (or the source file alone) that `change` alters.
    // clang-format off
    struct Call { int w = 40, h = 30, kind = 10; bool input = true, work = true;
                  TmParam p = defaults(); optimParam o; bv_progress_cb cb = nullptr; };
    // Streamed relaxation with tempPath1 replaced.
    const auto relax_t1 = [&](const char *path) {
        return [&, path](Call &c) { c.o = streamed, c.p.slot[16] = 0, c.o.tempPath1 = path; };
    };
    const struct { const char *name; std::function<void(Call &)> change; int want;
                   std::string message; } cases[] = {
        {"no input at all", [](Call &c) { c.input = false; }, BV_EN_ENOINPUT,
         "Input buffer is null and optimParam.sourceFile null as well\n"},
        {"mixed-case extension", [](Call &c) { c.o.sourceFile = "a.Hdr"; }, BV_EN_ENOTHDR, not_hdr},
        {"two-letter extension", [](Call &c) { c.o.sourceFile = "a.hd"; }, BV_EN_ENOTHDR, not_hdr},
        {"no extension", [](Call &c) { c.o.sourceFile = "hdr"; }, BV_EN_ENOTHDR, not_hdr},
        {"longer extension", [&](Call &c) { c.o.sourceFile = missing.c_str(); }, -101, ""},
        {"unopenable .HDR", [&](Call &c) { c.o.sourceFile = hdr_dir.c_str(); }, -101, ""},
        {"no work buffer", [](Call &c) { c.work = false; }, -400, ""},
        // The relaxation solver sizes its work for the placed image: without
        // the placement flag the check refuses it.
        {"relaxation work in memory", [](Call &c) { c.w = 64, c.h = 48, c.p.slot[16] = 0; },
         BV_EN_ESMALL,
         "work has 61440 bytes allocated, which is less than twice the size of the input "
         "image 36864\n"},
        {"tempPath1 unwritable", relax_t1(bad.c_str()), BV_EN_ETEMPOPEN, no_t1},
        {"tempPath1 NULL", relax_t1(nullptr), BV_EN_ETEMPOPEN, no_t1},
        {"tempPath1 on a full device", relax_t1("/dev/full"), BV_EN_ETEMPWRITE,
         "could not write to temporary file iofpTempPath1\n"},
        // Streaming (3 levels or more) needs writable solver files: the solver's own code.
        {"solver file unwritable",
         [&](Call &c) { c.w = 200, c.h = 150, c.o = streamed, c.o.solverBase = bad.c_str(); }, -20,
         "can not open temporary file in tm20 " + bad + "\n"},
        {"cancelled", [](Call &c) { c.cb = cancel_at_contrast; }, BV_EN_ECANCEL, ""},
        // Read errors come back as r - 100; without a size it comes from the header.
        {"source file of another width",
         [&](Call &c) { c.w = 61, c.h = 40, c.kind = 0, c.o.sourceFile = hdr.c_str(); }, -300, ""},
        {"junk file", [&](Call &c) { c.w = c.h = 0, c.o.sourceFile = junk.c_str(); }, -102, ""},
    };
    // clang-format on
    for (const auto &k : cases) {
        Call c;
        c.o = options();
        k.change(c);
        DimParam d = float_dim(c.w, c.h);
        d.sourceKind = c.kind;
        const std::vector<float> img = scene(c.w, c.h);
        Result r;
        const std::string text = captured_stdout([&] {
            r = render(c.input && !c.o.sourceFile ? img.data() : nullptr, d, c.p, c.o, c.cb, 0,
                       c.work);
        });
        EXPECT_EQ(r.rc, k.want) << k.name;
        EXPECT_EQ(text, k.message) << k.name;
    }
}

TEST_F(Enhancer, WorkSizeAndLevels) {
    // In memory the work is exactly twice the image (row x height x 4) when
    // the planes fit in front of it, and that passes the check.
    const DimParam d = float_dim(64, 48);
    TmParam p = defaults();
    int64_t bytes = 0, sizes[2] = {0, 0};
    EXPECT_EQ(mem4enhancer(0, &p, sizes, &bytes, d), 2);
    EXPECT_EQ(bytes, 2 * 64 * 48 * 3 * 4);
    EXPECT_EQ(sizes[0], 64 * 48);
    EXPECT_GE(sizes[1], 64 * 48);
    EXPECT_EQ(render(scene(64, 48).data(), d, p, options()).rc, 48);
    EXPECT_EQ(mem4enhancer(0, &p, nullptr, &bytes, float_dim(0, 10)), BV_EN_EBADARG);
    // Level counts: trunc(log2(min side / 32)) + 2, at least 1.
    const int levels[][3] = {
        {1024, 676, 6}, {4000, 3000, 8}, {64, 64, 3}, {20, 20, 2}, {8, 400, 1}};
    for (const auto &t : levels)
        EXPECT_EQ(mem4enhancer(0, nullptr, nullptr, nullptr, float_dim(t[0], t[1])), t[2])
            << t[0] << "x" << t[1];
}

TEST_F(Enhancer, PreviewSizeQuery) {
    const int table[][4] = {{3000, 1800, 750, 450}, {1000, 3000, 250, 750}, {1024, 700, 1024, 700},
                            {2049, 100, 513, 25},   {6000, 4000, 750, 500}, {4000, 3, 4000, 3}};
    TmParam p = defaults();
    for (const auto &t : table) {
        std::vector<int32_t> work(64, -7);
        EXPECT_GE(bv_tm_enhancer(0, &p, nullptr, nullptr, nullptr, nullptr, float_dim(t[0], t[1]),
                                 options(1, 9), nullptr, &work[0], work.data()),
                  1);
        EXPECT_EQ(std::vector<int32_t>(work.begin(), work.begin() + 3),
                  std::vector<int32_t>({t[2], t[3], -7}))
            << t[0] << "x" << t[1] << ": preview size, nothing else touched";
    }
}

TEST_F(Enhancer, PreviewIsFullSizeWhenSmallAndCloseWhenReduced) {
    const std::vector<float> small = scene(400, 300);
    const Result full = render(small.data(), float_dim(400, 300), defaults(), options(2, 0));
    const Result same = render(small.data(), float_dim(400, 300), defaults(), options(2, 1));
    ASSERT_EQ(full.rc, 300);
    EXPECT_EQ(same.rc, 300);
    EXPECT_EQ(full.out, same.out);
    // 2200 x 1300 is previewed at 550 x 325; the preview and the full-size
    // result reduced to it (4 x 4 box means) differ by a few levels only.
    const int w = 2200, h = 1300;
    const std::vector<float> img = scene(w, h);
    const Result big = render(img.data(), float_dim(w, h), defaults(), options(2, 0));
    const Result prev =
        render(img.data(), float_dim(w, h), defaults(), options(2, 1), nullptr, 550 * 325);
    ASSERT_EQ(big.rc, h);
    ASSERT_EQ(prev.rc, 325);
    std::vector<uint8_t> reduced(550 * 325 * 3);
    ASSERT_EQ(bv_downsample(w, h, 550, 325, 3, 8, big.out.data(), reduced.data(), 2), 325);
    double diff = 0;
    for (size_t i = 0; i < reduced.size(); ++i) diff += std::abs(reduced[i] - prev.out[i]);
    diff /= reduced.size();
    std::printf("mean |preview - reduced full size| = %.2f levels\n", diff);
    EXPECT_LT(diff, 6.0);
}

// Tiny and odd sizes too, 8 and 16 bits; streamed through the temporary
// files the result is the in-memory one.
TEST_F(Enhancer, AnySizeGivesOneResultForAnyThreadCount) {
    const int sizes[][2] = {{203, 131}, {1, 1}, {2, 1}, {1, 7}, {5, 3}, {33, 1}, {3, 40}};
    std::vector<uint8_t> all;  // every picture, pinned: a change to the look records new ones
    for (const auto &[w, h] : sizes) {
        const std::vector<float> img = scene(w, h);
        for (int bits : {8, 16}) {
            const auto all_threads = [&](bool streamed) {
                return bvtest::expect_thread_invariant([&](int t) {
                    const Result r = render(img.data(), float_dim(w, h, bits), defaults(),
                                            options(t, 0, streamed));
                    EXPECT_EQ(r.rc, h) << w << "x" << h << ", " << t << " threads, " << bits
                                       << " bits, streamed " << streamed;
                    return r.out;
                });
            };
            const std::vector<uint8_t> out = all_threads(false);
            EXPECT_EQ(all_threads(true), out) << w << "x" << h << ", " << bits;
            all.insert(all.end(), out.begin(), out.end());
        }
    }
    EXPECT_EQ(bvtest::digest(all), 5283336591094901147ull);
}

TEST_F(Enhancer, StrengthZeroIsGlobalAndStrengthIsLocal) {
    // With strength 0 output luminance follows input luminance (a few pixels
    // at the window's edge aside); the default strength shows the room's
    // texture with more contrast.
    const int w = 160, h = 120;
    const std::vector<float> img = scene(w, h);
    const Result g = render(img.data(), float_dim(w, h), defaults({{1, 0.0f}}), options());
    const Result l = render(img.data(), float_dim(w, h), defaults(), options());
    ASSERT_EQ(g.rc, h);
    ASSERT_EQ(l.rc, h);
    auto Y = [](const auto &o, size_t i) {
        return 0.2126 * o[3 * i] + 0.7152 * o[3 * i + 1] + 0.0722 * o[3 * i + 2];
    };
    int inversions = 0;
    for (size_t i = 1; i < size_t(w) * h; ++i) {
        const double din = Y(img, i) - Y(img, i - 1), dout = Y(g.out, i) - Y(g.out, i - 1);
        if (din * dout < 0 && std::fabs(dout) > 2.0) ++inversions;
    }
    EXPECT_LE(inversions, w * h / 100) << "strength 0 should be a global mapping";
    auto texture = [&](const std::vector<uint8_t> &o) {
        double s = 0;
        for (int y = h * 3 / 5; y < h - 6; ++y)
            for (int x = 0; x < w / 3; ++x)
                s += std::fabs(Y(o, size_t(y) * w + x + 6) - Y(o, size_t(y) * w + x));
        return s;
    };
    EXPECT_GT(texture(l.out), 1.2 * texture(g.out));
}

TEST_F(Enhancer, OutputLayouts) {
    const int w = 48, h = 36;
    const std::vector<float> img = scene(w, h);
    DimParam db = float_dim(w, h), dp = db;
    db.bgr = 1, dp.layout = 3;
    const Result rgb = render(img.data(), float_dim(w, h), defaults(), options()),
                 bgr = render(img.data(), db, defaults(), options()),
                 planes = render(img.data(), dp, defaults(), options()),
                 wide = render(img.data(), float_dim(w, h, 16), defaults(), options()),
                 g = render(img.data(), float_dim(w, h), defaults({{2, 0.0f}}), options());
    const size_t n = size_t(w) * h;
    for (size_t i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) {
            ASSERT_EQ(bgr.out[3 * i + 2 - c], rgb.out[3 * i + c]);
            ASSERT_EQ(planes.out[c * n + i], rgb.out[3 * i + c]);
            uint16_t v;
            std::memcpy(&v, &wide.out[2 * (3 * i + c)], 2);
            ASSERT_NEAR(v / 257.0, rgb.out[3 * i + c], 1.0);
        }
        ASSERT_EQ(g.out[3 * i], g.out[3 * i + 1]) << "slot 2 = 0 gives greys";
        ASSERT_EQ(g.out[3 * i + 1], g.out[3 * i + 2]);
    }
}

TEST_F(Enhancer, RowRangeAndSecondPlane) {
    const int w = 64, h = 50;
    const std::vector<float> img = scene(w, h);
    const Result full = render(img.data(), float_dim(w, h), defaults(), options());
    const Result part =
        render(img.data(), float_dim(w, h), defaults({{19, 1}, {56, 10}, {57, 20}}), options());
    ASSERT_EQ(part.rc, h);
    const size_t row = size_t(w) * 3;
    for (int y = 0; y < h; ++y)
        for (size_t x = 0; x < row; ++x)
            ASSERT_EQ(part.out[y * row + x], (y >= 10 && y < 20) ? full.out[y * row + x] : 0xA5)
                << "row " << y;
    // Slot 19 = 2: same picture, and the solved luminance (not the screen's
    // 0..1 luminance) left in the work buffer after the luminance plane.
    const Result kept = render(img.data(), float_dim(w, h), defaults({{19, 2}}), options());
    EXPECT_EQ(kept.out, full.out);
    const float *plane = reinterpret_cast<const float *>(kept.work.data()) + w * h;
    const float *screen = reinterpret_cast<const float *>(full.work.data()) + w * h;
    const auto [lo, hi] = std::minmax_element(plane, plane + w * h);
    EXPECT_GT(*lo, 0.0f);
    EXPECT_GT(*hi / *lo, 20.0f) << "a linear luminance of the compressed scene";
    EXPECT_LE(*std::max_element(screen, screen + w * h), 1.0f);
}

std::vector<float> g_progress;
void record(int32_t *, float v) { g_progress.push_back(v); }

TEST_F(Enhancer, ProgressEndsAtContrastThenOne) {
    g_progress.clear();
    ASSERT_EQ(render(scene(80, 60).data(), float_dim(80, 60), defaults(), options(), record).rc,
              60);
    ASSERT_GE(g_progress.size(), 2u);
    EXPECT_EQ(g_progress.back(), 1.0f);
    EXPECT_EQ(g_progress[g_progress.size() - 2], 0.8f);
}

TEST_F(Enhancer, StreamedRelaxationKeepsItsLogPlaneAndStaysClose) {
    const int w = 90, h = 70;
    const std::vector<float> img = scene(w, h);
    const Result mem = render(img.data(), float_dim(w, h), defaults(), options());
    const Result r = render(img.data(), float_dim(w, h), defaults({{16, 0}}), options(1, 0, true));
    ASSERT_EQ(r.rc, h);
    // The log plane stays in tempPath1 (closed, not removed).
    std::vector<uint8_t> file;
    ASSERT_TRUE(bvtest::read_file(t1, &file));
    EXPECT_EQ(file.size(), size_t(w) * h * 4);
    double d = 0;
    for (size_t i = 0; i < mem.out.size(); ++i) d += std::fabs(double(mem.out[i]) - r.out[i]);
    EXPECT_LT(d / mem.out.size(), 8.0) << "relaxation close to conjugate gradients";
}

TEST_F(Enhancer, RadianceSourceFileMatchesTheBuffer) {
    const int w = 60, h = 40;
    const bvtest::Planar pic = bvtest::random_planar(w, h, 3);
    const std::string path = bvtest::temp_path("scene.hdr");
    ASSERT_EQ(bv_io_rgbe_write(path.c_str(), w, h, nullptr, 0, "", pic.px.data()), h);
    optimParam o = options();
    o.sourceFile = path.c_str();
    DimParam d = float_dim(w, h);
    d.sourceKind = 0;
    const Result from_file = render(nullptr, d, defaults(), o);
    ASSERT_EQ(from_file.rc, h);
    EXPECT_EQ(from_file.out, render(pic.px.data(), d, defaults(), options()).out);
    EXPECT_LT(from_file.stats.v[0], from_file.stats.v[3]);
    EXPECT_LT(from_file.stats.v[3], from_file.stats.v[1]);
}

TEST_F(Enhancer, AllBlackRendersBlack) {
    const std::vector<float> black(12 * 9 * 3, 0.0f);
    const Result r = render(black.data(), float_dim(12, 9), defaults(), options());
    ASSERT_EQ(r.rc, 9);
    EXPECT_EQ(r.out, std::vector<uint8_t>(r.out.size(), 0));
}

TEST_F(Enhancer, AllocationFailuresReturnCodes) {
    const std::vector<float> img = scene(50, 40);
    const TmParam p = defaults({{19, 1}, {56, 5}});
    for (long nth = 0; nth < 60; ++nth) {
        int rc;
        {
            bvtest::FailAllocation fail(nth);
            rc = render(img.data(), float_dim(50, 40), p, options(2)).rc;
        }
        if (rc == 40) break;
        EXPECT_TRUE(rc == -4 || rc == BV_EN_ENOMEM_RANGE) << "allocation " << nth << ": " << rc;
    }
}

}  // namespace
