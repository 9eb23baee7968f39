// Tone enhancer: validation codes, preview sizing, stage options, thread invariance, the look.
#include <gtest/gtest.h>

#include <Brackvista40Lib1.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "test_support.hpp"

namespace {

// A scene with a bright window over a dim textured room: 1000:1 contrast.
std::vector<float> scene(int w, int h, uint64_t seed = 7) {
    bvtest::Rng rng(seed);
    std::vector<float> rgb(static_cast<size_t>(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool window = x > w / 2 && x < 3 * w / 4 && y > h / 5 && y < h / 2;
            const float base = window ? 200.0f : 0.2f + 0.1f * ((x / 6 + y / 6) % 2);
            const float n = 1.0f + 0.05f * static_cast<float>(rng.uniform());
            float *p = &rgb[(static_cast<size_t>(y) * w + x) * 3];
            p[0] = base * n * 1.1f;
            p[1] = base * n;
            p[2] = base * n * 0.8f;
        }
    return rgb;
}

DimParam float_dim(int w, int h, int bits = 8) {
    DimParam d;
    init_dim_param(&d);
    d.width = w;
    d.height = h;
    d.bitsOut = bits;
    d.sourceKind = 10;
    return d;
}

TmParam defaults() {
    TmParam p;
    tmparam_default(1, 0, &p);
    return p;
}

optimParam options(int threads = 1, int mode = 0) {
    optimParam o;
    init_optim_param(&o);
    o.threads = threads;
    o.mode = mode;
    return o;
}

// One enhancer call with a work buffer sized by mem4enhancer.
struct Result {
    std::vector<uint8_t> out, work;
    int rc = 0;
    LogLumStats stats{};
};

Result render(const void *input, DimParam d, TmParam p, optimParam o, bv_progress_cb cb = nullptr,
           size_t out_pixels = 0) {
    Result r;
    int64_t bytes = 0;
    EXPECT_GT(mem4enhancer(0, &p, nullptr, &bytes, d), 0);
    r.work.assign(static_cast<size_t>(bytes), 0xCD);  // nothing may rely on a cleared work
    if (!out_pixels) out_pixels = static_cast<size_t>(d.width) * d.height;
    r.out.assign(out_pixels * 3 * (d.bitsOut == 16 ? 2 : 1), 0xA5);
    r.rc = bv_tm_enhancer(0, &p, r.out.data(), &r.stats, nullptr, nullptr, d, o, cb, input,
                          r.work.data());
    return r;
}

std::string captured_stdout(const std::function<void()> &f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

TEST(Enhancer, ValidationCodesAndMessages) {
    const std::vector<float> img = scene(40, 30);
    const DimParam d = float_dim(40, 30);
    TmParam p = defaults();
    std::vector<uint8_t> out(40 * 30 * 3), work(1 << 20);
    const std::string missing = bvtest::temp_path("missing.hdrx");
    const std::string hdr_dir = bvtest::temp_path("no_such_dir") + "/x.hdr";
    struct Case {
        const char *name;
        const void *input;
        const char *source;
        bool work;
        int want;
        const char *message;
    } cases[] = {
        {"no input at all", nullptr, nullptr, true, -10,
         "Input buffer is null and optimParam.sourceFile null as well\n"},
        {"mixed-case extension", nullptr, "a.Hdr", true, -11,
         "optimParam.sourceFile is not a Radiance (.hdr) file\n"},
        {"two-letter extension", nullptr, "a.hd", true, -11,
         "optimParam.sourceFile is not a Radiance (.hdr) file\n"},
        {"no extension", nullptr, "hdr", true, -11,
         "optimParam.sourceFile is not a Radiance (.hdr) file\n"},
        {"extension longer than hdr is read", nullptr, missing.c_str(), true, -101, ""},
        {"unopenable .HDR", nullptr, hdr_dir.c_str(), true, -101, ""},
        {"no work buffer", img.data(), nullptr, false, -400, ""},
    };
    for (const Case &c : cases) {
        optimParam o = options();
        o.sourceFile = c.source;
        int rc = 0;
        const std::string text = captured_stdout([&] {
            rc = bv_tm_enhancer(0, &p, out.data(), nullptr, nullptr, nullptr, d, o, nullptr,
                                c.input, c.work ? work.data() : nullptr);
        });
        EXPECT_EQ(rc, c.want) << c.name;
        EXPECT_EQ(text, c.message) << c.name;
    }
}

TEST(Enhancer, WorkSizeRule) {
    // In memory the work is exactly twice the image (row x height x 4) when
    // the planes fit in front of it, and that passes the check.
    const DimParam d = float_dim(64, 48);
    TmParam p = defaults();
    int64_t bytes = 0, sizes[2] = {0, 0};
    EXPECT_EQ(mem4enhancer(0, &p, sizes, &bytes, d), 2);
    EXPECT_EQ(bytes, 2 * 64 * 48 * 3 * 4);
    EXPECT_EQ(sizes[0], 64 * 48);
    EXPECT_GE(sizes[1], 64 * 48);
    const std::vector<float> img = scene(64, 48);
    EXPECT_EQ(render(img.data(), d, p, options()).rc, 48);
    // Level counts: trunc(log2(min side / 32)) + 2, at least 1.
    struct {
        int w, h, levels;
    } table[] = {{1024, 676, 6}, {4000, 3000, 8}, {64, 64, 3}, {20, 20, 2}, {8, 400, 1}};
    for (const auto &t : table)
        EXPECT_EQ(mem4enhancer(0, nullptr, nullptr, nullptr, float_dim(t.w, t.h)), t.levels)
            << t.w << "x" << t.h;
    EXPECT_EQ(mem4enhancer(0, &p, nullptr, &bytes, float_dim(0, 10)), BV_EN_EBADARG);
    // The relaxation solver sizes its work for the placed image: without the
    // placement flag the check refuses it.
    p.slot[16] = 0.0f;
    int64_t slim = 0;
    mem4enhancer(0, &p, nullptr, &slim, d);
    EXPECT_LT(slim, 2 * 64 * 48 * 3 * 4);
    int rc = 0;
    const std::string text = captured_stdout([&] { rc = render(img.data(), d, p, options()).rc; });
    EXPECT_EQ(rc, BV_EN_ESMALL);
    char want[160];
    std::snprintf(want, sizeof want,
                  "work has %zu bytes allocated, which is less than twice the size of the input "
                  "image %zu\n",
                  static_cast<size_t>(slim), static_cast<size_t>(64 * 48 * 12));
    EXPECT_EQ(text, want);
}

TEST(Enhancer, PreviewSizeQuery) {
    struct {
        int w, h, pw, ph;
    } table[] = {{3000, 1800, 750, 450}, {1000, 3000, 250, 750}, {1024, 700, 1024, 700},
                 {2049, 100, 513, 25},   {6000, 4000, 750, 500}, {4000, 3, 4000, 3}};
    TmParam p = defaults();
    for (const auto &t : table) {
        std::vector<int32_t> work(64, -7);
        const int rc = bv_tm_enhancer(0, &p, nullptr, nullptr, nullptr, nullptr,
                                      float_dim(t.w, t.h), options(1, 9), nullptr, &work[0],
                                      work.data());
        EXPECT_GE(rc, 1) << t.w;
        EXPECT_EQ(work[0], t.pw) << t.w << "x" << t.h;
        EXPECT_EQ(work[1], t.ph) << t.w << "x" << t.h;
        EXPECT_EQ(work[2], -7) << "nothing else is touched";
    }
}

TEST(Enhancer, SmallBufferPreviewIsFullSize) {
    const std::vector<float> img = scene(400, 300);
    const Result full = render(img.data(), float_dim(400, 300), defaults(), options(2, 0));
    const Result prev = render(img.data(), float_dim(400, 300), defaults(), options(2, 1));
    ASSERT_EQ(full.rc, 300);
    EXPECT_EQ(prev.rc, 300);
    EXPECT_EQ(full.out, prev.out);
}

TEST(Enhancer, PreviewMatchesFullSize) {
    // 2200 x 1300 is previewed at 550 x 325; the preview and the full-size
    // result reduced to it differ by a few levels only.
    const int w = 2200, h = 1300;
    const std::vector<float> img = scene(w, h);
    const Result full = render(img.data(), float_dim(w, h), defaults(), options(2, 0));
    const Result prev =
        render(img.data(), float_dim(w, h), defaults(), options(2, 1), nullptr, 550 * 325);
    ASSERT_EQ(full.rc, h);
    ASSERT_EQ(prev.rc, 325);
    double diff = 0;
    for (int y = 0; y < 325; ++y)
        for (int x = 0; x < 550; ++x)
            for (int c = 0; c < 3; ++c) {
                double s = 0;
                for (int dy = 0; dy < 4; ++dy)
                    for (int dx = 0; dx < 4; ++dx) {
                        const int yy = std::min(h - 1, 4 * y + dy), xx = std::min(w - 1, 4 * x + dx);
                        s += full.out[(static_cast<size_t>(yy) * w + xx) * 3 + c];
                    }
                diff += std::fabs(s / 16 - prev.out[(static_cast<size_t>(y) * 550 + x) * 3 + c]);
            }
    diff /= 550.0 * 325 * 3;
    std::printf("mean |preview - reduced full size| = %.2f levels\n", diff);
    EXPECT_LT(diff, 6.0);
}

TEST(Enhancer, ThreadCountDoesNotChangeTheResult) {
    const int w = 203, h = 131;
    const std::vector<float> img = scene(w, h);
    for (int bits : {8, 16}) {
        const Result one = render(img.data(), float_dim(w, h, bits), defaults(), options(1));
        ASSERT_EQ(one.rc, h);
        for (int threads : {2, 3, 7}) {
            const Result r = render(img.data(), float_dim(w, h, bits), defaults(), options(threads));
            EXPECT_EQ(r.out, one.out) << threads << " threads, " << bits << " bits";
        }
    }
}

TEST(Enhancer, StrengthZeroIsGlobalAndStrengthIsLocal) {
    // With strength 0 output luminance follows input luminance (a few pixels
    // at the window's edge aside); the default strength shows the room's
    // texture with more contrast.
    const int w = 160, h = 120;
    const std::vector<float> img = scene(w, h);
    TmParam flat = defaults();
    flat.slot[1] = 0.0f;
    const Result g = render(img.data(), float_dim(w, h), flat, options());
    const Result l = render(img.data(), float_dim(w, h), defaults(), options());
    ASSERT_EQ(g.rc, h);
    ASSERT_EQ(l.rc, h);
    auto Y = [&](const std::vector<uint8_t> &o, size_t i) {
        return 0.2126 * o[3 * i] + 0.7152 * o[3 * i + 1] + 0.0722 * o[3 * i + 2];
    };
    auto Yin = [&](size_t i) {
        return 0.2126 * img[3 * i] + 0.7152 * img[3 * i + 1] + 0.0722 * img[3 * i + 2];
    };
    int inversions = 0;
    for (size_t i = 1; i < static_cast<size_t>(w) * h; ++i) {
        const double din = Yin(i) - Yin(i - 1), dout = Y(g.out, i) - Y(g.out, i - 1);
        if (din * dout < 0 && std::fabs(dout) > 2.0) ++inversions;
    }
    EXPECT_LE(inversions, w * h / 100) << "strength 0 should be a global mapping";
    auto texture = [&](const std::vector<uint8_t> &o) {
        double s = 0;
        for (int y = h * 3 / 5; y < h - 6; ++y)
            for (int x = 0; x < w / 3; ++x) {
                const size_t i = static_cast<size_t>(y) * w + x;
                s += std::fabs(Y(o, i + 6) - Y(o, i));
            }
        return s;
    };
    EXPECT_GT(texture(l.out), 1.2 * texture(g.out));
}

TEST(Enhancer, OutputLayouts) {
    const int w = 48, h = 36;
    const std::vector<float> img = scene(w, h);
    const Result rgb = render(img.data(), float_dim(w, h), defaults(), options());
    DimParam d = float_dim(w, h);
    d.bgr = 1;
    const Result bgr = render(img.data(), d, defaults(), options());
    d = float_dim(w, h);
    d.layout = 3;
    const Result planes = render(img.data(), d, defaults(), options());
    const Result wide = render(img.data(), float_dim(w, h, 16), defaults(), options());
    TmParam grey = defaults();
    grey.slot[2] = 0.0f;
    const Result g = render(img.data(), float_dim(w, h), grey, options());
    const size_t n = static_cast<size_t>(w) * h;
    for (size_t i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) {
            ASSERT_EQ(bgr.out[3 * i + 2 - c], rgb.out[3 * i + c]);
            ASSERT_EQ(planes.out[c * n + i], rgb.out[3 * i + c]);
            uint16_t v;
            std::memcpy(&v, &wide.out[2 * (3 * i + c)], 2);
            ASSERT_NEAR(v / 257.0, rgb.out[3 * i + c], 1.0);
        }
        ASSERT_EQ(g.out[3 * i], g.out[3 * i + 1]);
        ASSERT_EQ(g.out[3 * i + 1], g.out[3 * i + 2]);
    }
}

TEST(Enhancer, RowRangeAndSecondPlane) {
    const int w = 64, h = 50;
    const std::vector<float> img = scene(w, h);
    const Result full = render(img.data(), float_dim(w, h), defaults(), options());
    TmParam p = defaults();
    p.slot[19] = 1.0f;
    p.slot[56] = 10.0f;
    p.slot[57] = 20.0f;
    const Result part = render(img.data(), float_dim(w, h), p, options());
    ASSERT_EQ(part.rc, h);
    const size_t row = static_cast<size_t>(w) * 3;
    for (int y = 0; y < h; ++y)
        for (size_t x = 0; x < row; ++x)
            ASSERT_EQ(part.out[y * row + x], (y >= 10 && y < 20) ? full.out[y * row + x] : 0xA5)
                << "row " << y;
    // Slot 19 = 2: same picture, and the solved luminance (not the screen's
    // 0..1 luminance) left in the work buffer after the luminance plane.
    p = defaults();
    p.slot[19] = 2.0f;
    const Result kept = render(img.data(), float_dim(w, h), p, options());
    EXPECT_EQ(kept.out, full.out);
    const float *plane = reinterpret_cast<const float *>(kept.work.data()) + w * h;
    const float *screen = reinterpret_cast<const float *>(full.work.data()) + w * h;
    float lo = 1e30f, hi = 0, shi = 0;
    for (int i = 0; i < w * h; ++i) {
        lo = std::min(lo, plane[i]);
        hi = std::max(hi, plane[i]);
        shi = std::max(shi, screen[i]);
    }
    EXPECT_GT(lo, 0.0f);
    EXPECT_GT(hi / lo, 20.0f) << "a linear luminance of the compressed scene";
    EXPECT_LE(shi, 1.0f);
}

std::vector<float> g_progress;
void record(int32_t *, float v) { g_progress.push_back(v); }
void cancel_at_contrast(int32_t *cancel, float v) {
    if (v >= 0.8f) *cancel = 1;
}

TEST(Enhancer, ProgressAndCancel) {
    const std::vector<float> img = scene(80, 60);
    g_progress.clear();
    const Result r = render(img.data(), float_dim(80, 60), defaults(), options(), record);
    ASSERT_EQ(r.rc, 60);
    ASSERT_GE(g_progress.size(), 2u);
    EXPECT_EQ(g_progress.back(), 1.0f);
    EXPECT_EQ(g_progress[g_progress.size() - 2], 0.8f);
    EXPECT_EQ(render(img.data(), float_dim(80, 60), defaults(), options(), cancel_at_contrast).rc,
              BV_EN_ECANCEL);
}

TEST(Enhancer, TemporaryFileStages) {
    const int w = 90, h = 70;
    const std::vector<float> img = scene(w, h);
    const Result mem = render(img.data(), float_dim(w, h), defaults(), options());
    const std::string t1 = bvtest::temp_path("enh_log.tmp"), base = bvtest::temp_path("enh_base.tmp");
    const std::string bad = bvtest::temp_path("no_such_dir") + "/t.tmp";
    TmParam relax = defaults();
    relax.slot[16] = 0.0f;
    optimParam o = options();
    o.useTempFiles = 1;
    o.tempPath1 = t1.c_str();
    o.solverBase = o.solverP = o.solverR = o.solverT = base.c_str();
    const Result r = render(img.data(), float_dim(w, h), relax, o);
    ASSERT_EQ(r.rc, h);
    // The log plane stays in tempPath1 (closed, not removed).
    std::vector<uint8_t> file;
    ASSERT_TRUE(bvtest::read_file(t1, &file));
    EXPECT_EQ(file.size(), static_cast<size_t>(w) * h * 4);
    double d = 0;
    for (size_t i = 0; i < mem.out.size(); ++i) d += std::fabs(double(mem.out[i]) - r.out[i]);
    EXPECT_LT(d / mem.out.size(), 8.0) << "relaxation close to conjugate gradients";
    struct {
        const char *name;
        float slot16;
        const char *t1, *solver;
        int want;
        const char *message;
    } cases[] = {
        {"tempPath1 unwritable", 0.0f, bad.c_str(), base.c_str(), -150,
         "can not open temporary file iofpTempPath1\n"},
        {"tempPath1 NULL", 0.0f, nullptr, base.c_str(), -150,
         "can not open temporary file iofpTempPath1\n"},
        {"tempPath1 on a full device", 0.0f, "/dev/full", base.c_str(), -151,
         "could not write to temporary file iofpTempPath1\n"},
    };
    for (const auto &c : cases) {
        TmParam p = defaults();
        p.slot[16] = c.slot16;
        optimParam oc = o;
        oc.tempPath1 = c.t1;
        oc.solverBase = oc.solverP = oc.solverR = oc.solverT = c.solver;
        int rc = 0;
        const std::string text =
            captured_stdout([&] { rc = render(img.data(), float_dim(w, h), p, oc).rc; });
        EXPECT_EQ(rc, c.want) << c.name;
        EXPECT_EQ(text, c.message) << c.name;
    }
    // Streaming (3 levels or more) needs writable solver files: the solver's
    // own code comes back.
    const std::vector<float> big = scene(200, 150);
    optimParam os = o;
    os.solverBase = bad.c_str();
    int rc = 0;
    captured_stdout([&] { rc = render(big.data(), float_dim(200, 150), defaults(), os).rc; });
    EXPECT_EQ(rc, -20);
}

TEST(Enhancer, RadianceSourceFile) {
    const int w = 60, h = 40;
    std::vector<float> img = scene(w, h);
    // Encode the scene as a Radiance file through the library.
    std::vector<uint8_t> rgbe(static_cast<size_t>(w) * h * 4);
    const std::string path = bvtest::temp_path("scene.hdr");
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float *p = &img[(static_cast<size_t>(y) * w + x) * 3];
            const float m = std::max(p[0], std::max(p[1], p[2]));
            int e;
            const float f = std::frexp(m, &e) * 256.0f / m;
            uint8_t *row = &rgbe[static_cast<size_t>(y) * w * 4];
            for (int c = 0; c < 3; ++c) row[c * w + x] = static_cast<uint8_t>(p[c] * f);
            row[3 * w + x] = static_cast<uint8_t>(e + 128);
        }
    ASSERT_EQ(bv_io_rgbe_write(path.c_str(), w, h, nullptr, 0, "", rgbe.data()), h);
    optimParam o = options();
    o.sourceFile = path.c_str();
    DimParam d = float_dim(w, h);
    d.sourceKind = 0;
    const Result from_file = render(nullptr, d, defaults(), o);
    ASSERT_EQ(from_file.rc, h);
    const Result from_buffer = render(rgbe.data(), d, defaults(), options());
    EXPECT_EQ(from_file.out, from_buffer.out);
    EXPECT_LT(from_file.stats.v[0], from_file.stats.v[3]);
    EXPECT_LT(from_file.stats.v[3], from_file.stats.v[1]);
    // Read errors come back as r - 100.
    DimParam other = d;
    other.width = w + 1;
    int rc = 0;
    testing::internal::CaptureStderr();
    rc = render(nullptr, other, defaults(), o).rc;
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, -300);
    const std::string junk = bvtest::temp_path("junk.hdr");
    ASSERT_TRUE(bvtest::write_file(junk, "not a picture\n", 14));
    o.sourceFile = junk.c_str();
    // The size is then taken from the header, which has none.
    TmParam p = defaults();
    std::vector<uint8_t> out(16), work(16);
    EXPECT_EQ(bv_tm_enhancer(0, &p, out.data(), nullptr, nullptr, nullptr, float_dim(0, 0), o,
                             nullptr, nullptr, work.data()),
              -102);
}

TEST(Enhancer, TinyAndOddImages) {
    struct {
        int w, h;
    } sizes[] = {{1, 1}, {2, 1}, {1, 7}, {5, 3}, {33, 1}, {3, 40}};
    for (const auto &s : sizes)
        for (int threads : {1, 3}) {
            const std::vector<float> img = scene(s.w, s.h);
            const Result r = render(img.data(), float_dim(s.w, s.h), defaults(), options(threads));
            EXPECT_EQ(r.rc, s.h) << s.w << "x" << s.h;
        }
    // An all-black image renders black.
    const std::vector<float> black(12 * 9 * 3, 0.0f);
    const Result r = render(black.data(), float_dim(12, 9), defaults(), options());
    ASSERT_EQ(r.rc, 9);
    for (uint8_t v : r.out) ASSERT_EQ(v, 0);
}

TEST(Enhancer, AllocationFailuresReturnCodes) {
    const std::vector<float> img = scene(50, 40);
    TmParam p = defaults();
    p.slot[19] = 1.0f;
    p.slot[56] = 5.0f;
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
