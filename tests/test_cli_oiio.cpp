// End-to-end tests of the brackvista tool: real brackets, the built-in scene,
// outputs checked with OpenImageIO and OpenCV, bad input, Ctrl-C.
#include <OpenImageIO/imageio.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <sstream>

#include "test_support.hpp"

extern char **environ;

namespace {

namespace fs = std::filesystem;
using bvtest::text_of;
using Args = std::vector<std::string>;

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
    int err_lines() const { return int(std::count(err.begin(), err.end(), '\n')); }
};

std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs the tool; the exit code is -1 when it died from a signal. Safe to
// call from several threads at once.
Result run(const Args &args, const std::string &cwd = "") {
    static std::atomic<int> counter{0};
    const std::string base = bvtest::temp_path("run" + std::to_string(counter++));
    // Only sanitizer builds read these: a leak inside OpenImageIO's PNG
    // reader is not ours to fix (full stacks are needed to match it).
    std::string cmd = (cwd.empty() ? "" : "cd " + quote(cwd) + " && ") +
                      "ASAN_OPTIONS=\"${ASAN_OPTIONS:-}:fast_unwind_on_malloc=0\" "
                      "LSAN_OPTIONS=print_suppressions=0:suppressions=" +
                      quote(fs::absolute("tests/data/sanitizer/openimageio-leaks.supp").string()) +
                      " " + quote(kTool);
    for (const auto &a : args) cmd += " " + quote(a);
    const int status =
        std::system((cmd + " >" + quote(base + ".out") + " 2>" + quote(base + ".err")).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text_of(base + ".out"),
            text_of(base + ".err")};
}

// Start-up dominates (OpenImageIO loads many libraries): runs side by side.
std::vector<Result> run_all(const std::vector<Args> &all) {
    std::vector<std::future<Result>> runs;
    for (const auto &a : all) runs.push_back(std::async(std::launch::async, run, a, ""));
    std::vector<Result> r;
    for (auto &f : runs) r.push_back(f.get());
    return r;
}

std::string fresh_dir(const std::string &name) {
    const std::string d = bvtest::temp_path(name);
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
}

std::vector<std::string> names_in(const std::string &dir) {
    std::vector<std::string> v;
    for (const auto &e : fs::directory_iterator(dir)) v.push_back(e.path().filename().string());
    std::sort(v.begin(), v.end());
    return v;
}

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

struct Image {
    int width = 0, height = 0, channels = 0;
    OIIO::TypeDesc format;
    std::vector<float> px;
};

Image read_image(const std::string &path) {
    Image img;
    auto in = OIIO::ImageInput::open(path);
    EXPECT_TRUE(in) << path;
    if (!in) return img;
    const auto &s = in->spec();
    img = {s.width, s.height, s.nchannels, s.format,
           std::vector<float>(size_t(s.width) * s.height * s.nchannels)};
    EXPECT_TRUE(in->read_image(0, 0, 0, s.nchannels, OIIO::TypeDesc::FLOAT, img.px.data())) << path;
    return img;
}

// Writes 8- or 16-bit pixels with optional metadata.
void write_image(const std::string &path, int w, int h, int ch, OIIO::TypeDesc type, const void *px,
                 const std::function<void(OIIO::ImageSpec &)> &meta = nullptr) {
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out) << path;
    OIIO::ImageSpec desc(w, h, ch, type);
    if (meta) meta(desc);
    ASSERT_TRUE(out->open(path, desc));
    ASSERT_TRUE(out->write_image(type, px));
    ASSERT_TRUE(out->close());
}

void write_png(const std::string &path, int w, int h, uint8_t level) {
    std::vector<uint8_t> px(size_t(w) * h * 3);
    for (size_t i = 0; i < px.size(); ++i) px[i] = uint8_t(level + (i / 3) % 7);
    write_image(path, w, h, 3, OIIO::TypeDesc::UINT8, px.data());
}

// Width, height, all finite and largest value as OpenCV sees the file, or
// "" when /usr/bin/python3 with cv2 is not there.
std::string opencv_view(const std::string &path) {
    return bvtest::shell(
        "/usr/bin/python3 -c \"import cv2,sys,numpy as n; i=cv2.imread(sys.argv[1],-1); "
        "print(i.shape[1],i.shape[0],int(n.isfinite(i).all()),float(i.max()))\" " +
        quote(path) + " 2>/dev/null");
}

TEST(Cli, CommandLineAndHelp) {
    REQUIRE_TOOL();
    EXPECT_EQ(run({}).code, 2);
    const Result help = run({"--help"});
    EXPECT_EQ(help.code, 0);
    const std::vector<Result> helps = run_all(
        {{"merge", "--help"}, {"tonemap", "--help"}, {"info", "--help"}, {"demo", "--help"}});
    int k = 0;
    for (const char *c : {"merge", "tonemap", "info", "demo"}) {
        EXPECT_TRUE(has(help.out, c)) << c;
        EXPECT_EQ(helps[k].code, 0) << c;
        EXPECT_TRUE(has(helps[k++].out, "usage: brackvista ")) << c;
    }
    for (const char *p : {"--brightness", "--adaptation", "--white-clip", "--black-clip",
                          "--temperature", "--saturation", "--bits"})
        EXPECT_TRUE(has(helps[1].out, p)) << p;
    const std::vector<std::pair<Args, const char *>> bad = {
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"merge", "--frob", "a.png"}, "unknown option '--frob'"},
        {{"merge", "-o"}, "needs a value"},
        {{"merge", "-o", "x.hdr", "--threads", "many", "a.png", "b.png"},
         "--threads must be a number"},
        {{"merge", "a.png", "b.png"}, "no output file"},
        {{"merge", "-o", "x.png", "a.png", "b.png"}, "use .hdr"},
        {{"tonemap", "in.hdr", "-o", "x.png", "--brightness", "11"},
         "--brightness must lie in -10..10"},
        {{"tonemap", "in.hdr", "-o", "x.jpg", "--bits", "16"}, "JPEG pictures are 8-bit"},
        {{"tonemap", "in.hdr", "-o", "x.png", "--saturation", "1.5"}, "whole steps"},
        {{"demo", "--size", "8x8"}, "--size must be WxH"},
    };
    std::vector<Args> args;
    for (const auto &b : bad) args.push_back(b.first);
    const std::vector<Result> r = run_all(args);
    for (size_t i = 0; i < bad.size(); ++i) {
        EXPECT_EQ(r[i].code, 2) << bad[i].second << " " << r[i].err;
        EXPECT_EQ(r[i].err_lines(), 1) << r[i].err;
        EXPECT_TRUE(has(r[i].err, bad[i].second)) << r[i].err;
        EXPECT_EQ(r[i].err.rfind("brackvista", 0), 0u) << r[i].err;
    }
}

TEST(Cli, MergesMemorialBracketsWithExposuresFile) {
    REQUIRE_TOOL();
    const std::string data = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(data);
    const std::string mem = data + "/memorial", dir = fresh_dir("memorial");
    const std::string hdr = dir + "/church.hdr", tif = dir + "/church.tif",
                      hdr2 = dir + "/list.hdr";
    // The same exposures as a list beside the file names give the same bytes.
    Args listed = {"merge", "-q", "-o", hdr2, "--exposures", ""};
    for (int k = 0; k < 16; ++k) {
        char v[32];
        std::snprintf(v, sizeof v, "%s%.10g", k ? "," : "", 32.0 / (1 << k));
        listed[5] += v;
        listed.push_back(mem + "/memorial00" + std::to_string(61 + k) + ".png");
    }
    const std::vector<Result> merged =
        run_all({{"merge", "-q", "-o", hdr, "--exposures", mem + "/exposures.txt"},
                 listed,
                 {"merge", "-q", "-o", tif, "--exposures", mem + "/exposures.txt"}});
    for (const Result &r : merged) ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(merged[0].out.empty());
    const std::string text = text_of(hdr);
    EXPECT_EQ(text.rfind("#?RADIANCE\n", 0), 0u);
    EXPECT_TRUE(has(text, "\n-Y 768 +X 512\n"));
    EXPECT_TRUE(has(text, "ICC_PROFILE=sRGB\n"));
    EXPECT_TRUE(text_of(hdr2) == text);
    // Float TIFF output: exact size, and the same radiance as the .hdr.
    EXPECT_EQ(fs::file_size(tif), 8u + 512u * 768u * 12u + 150u);
    const Image a = read_image(hdr), b = read_image(tif),
                mid = read_image(mem + "/memorial0066.png");
    ASSERT_EQ(std::vector<int>({a.width, a.height}), std::vector<int>({512, 768}));
    ASSERT_EQ(b.px.size(), a.px.size());
    double peak = 0;
    for (size_t i = 0; i < a.px.size(); ++i) {
        ASSERT_TRUE(std::isfinite(b.px[i]) && b.px[i] >= 0.0f) << i;
        peak = std::max(peak, double(b.px[i]));
        ASSERT_LT(std::fabs(a.px[i] - b.px[i]) / (std::fabs(b.px[i]) + 1e-6), 0.02) << i;
    }
    EXPECT_GT(peak, 10.0);  // the skylight is far above the exposure-1 white
    // Well-exposed pixels of the exposure-1 bracket keep their linear value
    // within a stop (the film's response is not exactly the 2.2 curve, but
    // exposures taken the wrong way round would be off by several stops).
    std::vector<double> ratios;
    for (size_t i = 0; i < mid.px.size(); i += 3)
        if (mid.px[i + 1] >= 0.3f && mid.px[i + 1] <= 0.7f && mid.px[i + 2] <= 0.99f)
            ratios.push_back(a.px[i + 1] / std::pow(mid.px[i + 1], 2.2));
    ASSERT_GT(ratios.size(), 1000u);
    std::nth_element(ratios.begin(), ratios.begin() + ratios.size() / 2, ratios.end());
    EXPECT_GT(ratios[ratios.size() / 2], 0.5);
    EXPECT_LT(ratios[ratios.size() / 2], 2.0);
    std::istringstream cv(opencv_view(hdr));
    int w = 0, h = 0, finite = 0;
    double mx = 0;
    if (cv >> w >> h >> finite >> mx) {
        EXPECT_EQ(std::vector<int>({w, h, finite}), std::vector<int>({512, 768, 1}));
        EXPECT_NEAR(mx, peak, peak * 0.02);
    }
    const std::string png = dir + "/church.png", tif16 = dir + "/church16.tif";
    const std::vector<Result> after =
        run_all({{"tonemap", "-q", hdr, "-o", png},
                 {"tonemap", "-q", hdr, "-o", tif16, "--bits", "16", "--saturation", "2"},
                 {"info", hdr}});
    for (const Result &r : after) ASSERT_EQ(r.code, 0) << r.err;
    const Image p = read_image(png), q = read_image(tif16);
    EXPECT_EQ(p.format, OIIO::TypeDesc::UINT8);
    EXPECT_EQ(q.format, OIIO::TypeDesc::UINT16);
    EXPECT_EQ(std::vector<int>({p.width, q.height}), std::vector<int>({512, 768}));
    EXPECT_LT(*std::min_element(p.px.begin(), p.px.end()), 0.05f);
    EXPECT_GT(*std::max_element(p.px.begin(), p.px.end()), 0.9f);
    EXPECT_TRUE(has(after[2].out, "512 x 768"));
    EXPECT_TRUE(has(after[2].out, "dynamic range"));
    EXPECT_EQ(names_in(dir).size(), 5u) << "no temporaries left";
}

// An ICC profile whose red tone curve is a single gamma (8.8 fixed point).
std::vector<uint8_t> gamma_profile(uint8_t whole, uint8_t frac) {
    std::vector<uint8_t> p(128 + 4 + 12 + 14, 0);
    auto be32 = [&](size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) p[at + i] = uint8_t(v >> (24 - 8 * i));
    };
    be32(0, uint32_t(p.size()));
    std::memcpy(&p[12], "mntrRGB XYZ ", 12);
    std::memcpy(&p[36], "acsp", 4);
    be32(128, 1);  // one tag, its data at 144
    std::memcpy(&p[132], "rTRC", 4);
    be32(136, 144);
    be32(140, 14);
    std::memcpy(&p[144], "curv", 4);
    be32(152, 1);  // one entry: a pure gamma
    p[156] = whole, p[157] = frac;
    return p;
}

// A JPEG bracket of a gradient, with camera EXIF and a colour profile.
void write_jpeg_bracket(const std::string &path, float gain, float seconds,
                        const std::vector<uint8_t> &icc) {
    const int w = 96, h = 64;
    std::vector<uint8_t> px(w * h * 3);
    for (size_t i = 0; i < px.size(); ++i) {
        const int x = i / 3 % w, y = i / 3 / w;
        px[i] = uint8_t(
            std::min(255.0, 255 * std::pow((x + 1.0) / w * (y + 8.0) / (h + 8) * gain, 1 / 2.2)));
    }
    write_image(path + ".jpg", w, h, 3, OIIO::TypeDesc::UINT8, px.data(), [&](OIIO::ImageSpec &s) {
        s.attribute("Make", "Acme");
        s.attribute("Model", "Acme Bracketer");
        s.attribute("ExposureTime", seconds);
        s.attribute("FNumber", 8.0f);
        s.attribute("Exif:PhotographicSensitivity", 200);
        if (!icc.empty())
            s.attribute("ICCProfile", OIIO::TypeDesc(OIIO::TypeDesc::UINT8, icc.size()),
                        icc.data());
    });
}

TEST(Cli, ExifAndIccProfileDriveExposuresGammaAndHeader) {
    REQUIRE_TOOL();
    const std::string dir = fresh_dir("exif"), dark = dir + "/dark.jpg",
                      bright = dir + "/bright.jpg";
    write_jpeg_bracket(dir + "/dark", 0.25f, 0.01f, gamma_profile(1, 205));  // gamma 1.80
    write_jpeg_bracket(dir + "/bright", 1.0f, 0.04f, gamma_profile(1, 205));
    // 16-bit TIFF brackets merge at 16 bits; grey ones are spread to RGB.
    for (int k = 0; k < 2; ++k) {
        std::vector<uint16_t> px(40 * 30);
        for (size_t i = 0; i < px.size(); ++i) px[i] = uint16_t((i * 50 + 2000) << k);
        write_image(dir + "/grey" + std::to_string(k) + ".tif", 40, 30, 1, OIIO::TypeDesc::UINT16,
                    px.data());
    }
    const std::vector<Result> r = run_all({
        {"merge", "-o", dir + "/a.hdr", bright, dark},
        // --estimate ignores EXIF; --gamma overrides the profile.
        {"merge", "-o", dir + "/b.hdr", "--estimate", "--gamma", "2.4", dark, bright},
        {"merge", "-o", dir + "/g.hdr", "-e", "1,2", dir + "/grey0.tif", dir + "/grey1.tif"},
    });
    for (const Result &x : r) ASSERT_EQ(x.code, 0) << x.err;
    for (const char *s : {"exposures EXIF, gamma 1.8 (ICC profile)", "dark.jpg", "-2.00 EV"})
        EXPECT_TRUE(has(r[0].out, s)) << r[0].out;  // 1/100 s against 1/25 s
    EXPECT_TRUE(has(r[1].out, "exposures estimated, gamma 2.4 (given)")) << r[1].out;
    EXPECT_TRUE(has(r[2].out, "of 40x30 (16-bit)")) << r[2].out;
    // The middle (here: brighter) bracket's metadata is in the header.
    const std::string hdr = text_of(dir + "/a.hdr");
    for (const char *s :
         {"\nCAMERA=Acme Bracketer\n", "\nSHUTTER=0.040000\n", "\nAPERTURE=8.00\n", "\nISO=200\n"})
        EXPECT_TRUE(has(hdr, s)) << s;
    EXPECT_TRUE(has(run({"info", "--header", dir + "/a.hdr"}).out, "1/25 s"));
    const Image grey = read_image(dir + "/g.hdr");
    for (size_t i = 0; i < grey.px.size(); i += 3)
        ASSERT_TRUE(grey.px[i] == grey.px[i + 1] && grey.px[i] == grey.px[i + 2]) << i;
    std::vector<uint8_t> adobe;
    if (bvtest::read_file("/usr/share/color/icc/compatibleWithAdobeRGB1998.icc", &adobe)) {
        write_jpeg_bracket(dir + "/dark", 0.25f, 0.01f, adobe);
        write_jpeg_bracket(dir + "/bright", 1.0f, 0.04f, adobe);
        const Result a = run({"merge", "-o", dir + "/c.hdr", dark, bright});
        ASSERT_EQ(a.code, 0) << a.err;
        EXPECT_TRUE(has(a.out, "gamma 2.2 (ICC profile)")) << a.out;
        EXPECT_TRUE(has(text_of(dir + "/c.hdr"), "\nICC_PROFILE=Adobe RGB (1998)\n"));
    }
}

TEST(Cli, BadInputFailsOnOneLineAndLeavesNothing) {
    REQUIRE_TOOL();
    const std::string dir = fresh_dir("bad");
    const std::string a = dir + "/a.png", b = dir + "/b.png", small = dir + "/small.png",
                      tiny = dir + "/tiny.png", text = dir + "/notes.png", out = dir + "/out.hdr",
                      cut = dir + "/cut.png";
    write_png(a, 64, 48, 40);
    write_png(b, 64, 48, 120);
    write_png(small, 32, 48, 90);
    write_png(tiny, 1, 1, 90);
    ASSERT_TRUE(bvtest::write_file(text, "not a picture\n", 14));
    std::vector<uint8_t> whole;
    ASSERT_TRUE(bvtest::read_file(b, &whole));
    ASSERT_TRUE(bvtest::write_file(cut, whole.data(), whole.size() / 2));
    fs::create_directories(dir + "/folder.hdr");
    const auto before = names_in(dir);
    const std::vector<std::pair<Args, std::string>> cases = {
        {{"merge", "-o", out, a, dir + "/missing.png"}, "missing.png': No such file"},
        {{"merge", "-o", out, a, text}, "notes.png' is not an image"},
        {{"merge", "-o", out, a, small}, "brackets differ in size"},
        {{"merge", "-o", out, a, cut}, "cannot decode '" + cut},
        {{"merge", "-o", out, a}, "at least two brackets"},
        {{"merge", "-o", out, tiny, tiny}, "is 1x1, too small"},
        {{"merge", "-o", text + "/out.hdr", a, b}, "cannot write"},
        {{"merge", "-o", dir + "/no/such/dir/out.hdr", a, b}, "cannot write"},
        {{"merge", "-o", dir + "/folder.hdr", a, b}, "it is a folder"},
        {{"merge", "-o", out, "--exposures", dir + "/none.txt", a, b},
         "cannot open exposures file"},
        {{"merge", "-o", out, "--exposures", "1,2,3", a, b}, "3 values for 2 brackets"},
        {{"demo", "-o", dir + "/demo", dir + "/none"}, "not a folder"},
        {{"tonemap", dir + "/none.hdr", "-o", dir + "/out.png"}, "none.hdr"},
        {{"tonemap", text, "-o", dir + "/out.png"}, "notes.png"},
        {{"info", dir + "/none.hdr"}, "none.hdr"},
    };
    std::vector<Args> args;
    for (const auto &c : cases) args.push_back(c.first);
    const std::vector<Result> r = run_all(args);
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_GT(r[i].code, 0) << "failed or crashed: " << cases[i].second;
        EXPECT_LT(r[i].code, 128) << cases[i].second;
        EXPECT_EQ(r[i].err_lines(), 1) << r[i].err;
        EXPECT_TRUE(has(r[i].err, cases[i].second)) << r[i].err;
    }
    EXPECT_EQ(names_in(dir), before) << "a failed run left a file behind";
    const std::string data = bvtest::shared_data_dir();
    if (data.empty()) return;
    const std::string damaged = data + "/memorial/memorial-damaged.hdr",
                      atrium = data + "/hdr/mpi_atrium_3.hdr";
    const std::vector<Result> real =
        run_all({{"info", damaged},
                 {"tonemap", damaged, "-o", dir + "/d.png"},
                 {"info", atrium},
                 {"tonemap", "-q", atrium, "-o", dir + "/atrium.png", "--blues-sat", "-100"}});
    EXPECT_EQ(real[0].code, 1) << real[0].out << real[0].err;
    EXPECT_EQ(real[0].err_lines(), 1) << real[0].err;
    EXPECT_EQ(real[1].code, 1);
    // A file written by other software reads and renders.
    EXPECT_EQ(real[2].code, 0) << real[2].err;
    EXPECT_TRUE(has(real[2].out, "1024 x 676")) << real[2].out;
    ASSERT_EQ(real[3].code, 0) << real[3].err;
    const Image p = read_image(dir + "/atrium.png");
    EXPECT_EQ(std::vector<int>({p.width, p.height}), std::vector<int>({1024, 676}));
    std::remove((dir + "/atrium.png").c_str());
    EXPECT_EQ(names_in(dir), before);
}

TEST(Cli, DemoOnBuiltInSceneAndOnItsBrackets) {
    REQUIRE_TOOL();
    const std::string work = fresh_dir("demo"), again = fresh_dir("demo2");
    const Result r = run({"demo", "--size", "384x256"}, work);
    ASSERT_EQ(r.code, 0) << r.err;
    const std::string d = work + "/brackvista-demo";
    for (const char *f : {"scene-truth.exr", "merged.hdr", "merged.tif", "tonemapped.png",
                          "summary.txt", "brackets/bracket-1.jpg", "brackets/bracket-7.jpg"})
        EXPECT_TRUE(fs::exists(d + "/" + f)) << f;
    EXPECT_EQ(text_of(d + "/summary.txt") + "  summary.txt\n", r.out);
    const Image truth = read_image(d + "/scene-truth.exr"), png = read_image(d + "/tonemapped.png");
    double lo = 1e30, hi = 0;
    for (size_t i = 0; i < truth.px.size(); i += 3) {
        const double y = 0.2126 * truth.px[i] + 0.7152 * truth.px[i + 1] + 0.0722 * truth.px[i + 2];
        if (y > 0) lo = std::min(lo, y), hi = std::max(hi, y);
    }
    EXPECT_GE(std::log2(hi / lo), 14.0) << "stops in the built-in scene";
    EXPECT_EQ(std::vector<int>({png.width, png.height}), std::vector<int>({384, 256}));
    EXPECT_EQ(png.format, OIIO::TypeDesc::UINT8);
    EXPECT_LT(*std::min_element(png.px.begin(), png.px.end()), 0.1f);
    EXPECT_GT(*std::max_element(png.px.begin(), png.px.end()), 0.9f);
    EXPECT_EQ(read_image(d + "/brackets/bracket-1.jpg").width, 384);
    // Estimated exposures stay within about a stop of the truth (the
    // estimator works from medians only); the merged radiance follows the
    // true scene closely.
    const size_t at = r.out.find("largest error "), dev = r.out.find("median deviation ");
    ASSERT_TRUE(at != std::string::npos && dev != std::string::npos) << r.out;
    EXPECT_LT(std::atof(r.out.c_str() + at + 14), 1.5);
    EXPECT_LT(std::atof(r.out.c_str() + dev + 17), 0.2);
    EXPECT_GT(std::atof(r.out.c_str() + r.out.find("stops, ", dev) + 7), 70.0)
        << "% within 1/4 stop";
    const std::string cv = opencv_view(d + "/merged.hdr");
    EXPECT_TRUE(cv.empty() || cv.rfind("384 256 1 ", 0) == 0) << cv;
    // Same seed, same bytes; the brackets folder runs through EXIF.
    const std::vector<Result> more =
        run_all({{"demo", "-q", "--size", "384x256", "-o", again},
                 {"demo", "-o", work + "/fromfolder", d + "/brackets"}});
    ASSERT_EQ(more[0].code, 0) << more[0].err;
    ASSERT_EQ(more[1].code, 0) << more[1].err;
    EXPECT_EQ(text_of(again + "/merged.hdr"), text_of(d + "/merged.hdr"));
    EXPECT_TRUE(has(more[1].out, "against the EXIF ones")) << more[1].out;
    EXPECT_TRUE(fs::exists(work + "/fromfolder/tonemapped.png"));
    const std::string hdr = text_of(work + "/fromfolder/merged.hdr");
    for (const char *s : {"CAMERA=Brackvista demo camera\n", "APERTURE=8.00\n", "ISO=100\n"})
        EXPECT_TRUE(has(hdr, s)) << s;
}

TEST(Cli, CtrlCCancelsAndRemovesPartialOutput) {
    REQUIRE_TOOL();
    const std::string out_dir = fresh_dir("cancel") + "/out";
    Args args = {kTool, "demo", "-q", "--size", "4096x2730", "-o", out_dir};
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t io;
    posix_spawn_file_actions_init(&io);
    posix_spawn_file_actions_addopen(&io, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    ASSERT_EQ(posix_spawn(&pid, kTool, &io, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&io);
    // Interrupt once the work has started (the output folder exists), which
    // can take a while on a loaded machine.
    int status = 0;
    bool exited = false;
    for (int waited = 0; waited < 600 && !exited && !fs::exists(out_dir); ++waited)
        if (!(exited = waitpid(pid, &status, WNOHANG) == pid)) usleep(50 * 1000);
    if (!exited) {
        usleep(200 * 1000);
        kill(pid, SIGINT);
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
    }
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 130);
    if (!fs::exists(out_dir)) return;
    for (const auto &e : fs::recursive_directory_iterator(out_dir))
        EXPECT_FALSE(has(e.path().filename().string(), ".part")) << e.path();
}

}  // namespace
