// End-to-end tests of the brackvista tool: real brackets, the built-in scene,
// outputs checked with OpenImageIO and an independent reader, bad input.
#include <OpenImageIO/imageio.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.hpp"

extern char **environ;

namespace {

namespace fs = std::filesystem;

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
    int err_lines() const { return static_cast<int>(std::count(err.begin(), err.end(), '\n')); }
};

std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs the tool with args; the exit code is -1 when it died from a signal.
// Safe to call from several threads at once.
Result run(const std::vector<std::string> &args, const std::string &cwd = "") {
    static std::atomic<int> counter{0};
    std::string base = bvtest::temp_path("run" + std::to_string(counter++));
    std::string cmd = cwd.empty() ? "" : "cd " + quote(cwd) + " && ";
    // Only sanitizer builds read these: a leak inside OpenImageIO's PNG
    // reader is not ours to fix (full stacks are needed to match it).
    cmd +=
        "ASAN_OPTIONS=\"${ASAN_OPTIONS:-}:fast_unwind_on_malloc=0\" "
        "LSAN_OPTIONS=print_suppressions=0:suppressions=" +
        quote(fs::absolute("tests/data/sanitizer/openimageio-leaks.supp").string()) + " ";
    cmd += quote(kTool);
    for (const auto &a : args) cmd += " " + quote(a);
    cmd += " >" + quote(base + ".out") + " 2>" + quote(base + ".err");
    int status = std::system(cmd.c_str());
    Result r;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = slurp(base + ".out");
    r.err = slurp(base + ".err");
    return r;
}

std::string fresh_dir(const std::string &name) {
    std::string d = bvtest::temp_path(name);
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

struct Image {
    int width = 0, height = 0, channels = 0;
    OIIO::TypeDesc format;
    std::vector<float> px;
};

bool read_image(const std::string &path, Image *img) {
    auto in = OIIO::ImageInput::open(path);
    if (!in) return false;
    const auto &ispec = in->spec();
    img->width = ispec.width;
    img->height = ispec.height;
    img->channels = ispec.nchannels;
    img->format = ispec.format;
    img->px.resize(static_cast<size_t>(ispec.width) * ispec.height * ispec.nchannels);
    return in->read_image(0, 0, 0, ispec.nchannels, OIIO::TypeDesc::FLOAT, img->px.data());
}

void write_png(const std::string &path, int w, int h, uint8_t level) {
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out);
    OIIO::ImageSpec ispec(w, h, 3, OIIO::TypeDesc::UINT8);
    std::vector<uint8_t> px(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < px.size(); ++i) px[i] = static_cast<uint8_t>(level + (i / 3) % 7);
    ASSERT_TRUE(out->open(path, ispec));
    ASSERT_TRUE(out->write_image(OIIO::TypeDesc::UINT8, px.data()));
    ASSERT_TRUE(out->close());
}

// Width, height and largest value as OpenCV sees the file, or "" when
// /usr/bin/python3 with cv2 is not there.
std::string opencv_view(const std::string &path) {
    std::string tmp = bvtest::temp_path("cv2.txt");
    std::string cmd =
        "/usr/bin/python3 -c \"import cv2,sys,numpy as n; i=cv2.imread(sys.argv[1],-1); "
        "print(i.shape[1],i.shape[0],int(n.isfinite(i).all()),float(i.max()))\" " +
        quote(path) + " >" + quote(tmp) + " 2>/dev/null";
    if (std::system(cmd.c_str()) != 0) return "";
    return slurp(tmp);
}

std::vector<std::string> memorial_pngs(const std::string &dir) {
    std::vector<std::string> v;
    for (int k = 61; k <= 76; ++k) v.push_back(dir + "/memorial00" + std::to_string(k) + ".png");
    return v;
}

TEST(Cli, CommandLineAndHelp) {
    REQUIRE_TOOL();
    Result none = run({});
    EXPECT_EQ(none.code, 2);
    Result help = run({"--help"});
    EXPECT_EQ(help.code, 0);
    std::vector<std::future<Result>> helps;
    for (const char *c : {"merge", "tonemap", "info", "demo"})
        helps.push_back(
            std::async(std::launch::async, run, std::vector<std::string>{c, "--help"}, ""));
    int k = 0;
    for (const char *c : {"merge", "tonemap", "info", "demo"}) {
        EXPECT_NE(help.out.find(c), std::string::npos) << c;
        Result h = helps[k++].get();
        EXPECT_EQ(h.code, 0) << c;
        EXPECT_NE(h.out.find("usage: brackvista "), std::string::npos) << c;
    }
    Result tm = run({"tonemap", "--help"});
    for (const char *p : {"--brightness", "--adaptation", "--white-clip", "--black-clip",
                          "--temperature", "--saturation", "--bits"})
        EXPECT_NE(tm.out.find(p), std::string::npos) << p;

    struct Bad {
        std::vector<std::string> args;
        const char *says;
    } bad[] = {
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
    // Start-up dominates (OpenImageIO loads many libraries): run side by side.
    std::vector<std::future<Result>> runs;
    for (const auto &b : bad) runs.push_back(std::async(std::launch::async, run, b.args, ""));
    for (size_t i = 0; i < std::size(bad); ++i) {
        const Bad &b = bad[i];
        Result r = runs[i].get();
        EXPECT_EQ(r.code, 2) << b.args[0] << " " << r.err;
        EXPECT_EQ(r.err_lines(), 1) << r.err;
        EXPECT_NE(r.err.find(b.says), std::string::npos) << r.err;
        EXPECT_EQ(r.err.rfind("brackvista", 0), 0u) << r.err;
    }
}

TEST(Cli, MergesMemorialBracketsWithExposuresFile) {
    REQUIRE_TOOL();
    std::string data = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(data);
    std::string mem = data + "/memorial";
    std::string dir = fresh_dir("memorial");
    std::string hdr = dir + "/church.hdr", tif = dir + "/church.tif", hdr2 = dir + "/list.hdr";

    Result r = run({"merge", "-q", "-o", hdr, "--exposures", mem + "/exposures.txt"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(r.out.empty());
    std::string text = slurp(hdr);
    EXPECT_EQ(text.rfind("#?RADIANCE\n", 0), 0u);
    EXPECT_NE(text.find("\n-Y 768 +X 512\n"), std::string::npos);
    EXPECT_NE(text.find("ICC_PROFILE=sRGB\n"), std::string::npos);

    // The same exposures as a list beside the file names give the same bytes.
    std::vector<std::string> args = {"merge", "-q", "-o", hdr2, "--exposures"};
    std::string list;
    for (int k = 0; k < 16; ++k) {
        char v[32];
        std::snprintf(v, sizeof v, "%s%.10g", k ? "," : "", 32.0 / (1 << k));
        list += v;
    }
    args.push_back(list);
    for (const auto &p : memorial_pngs(mem)) args.push_back(p);
    ASSERT_EQ(run(args).code, 0);
    EXPECT_TRUE(slurp(hdr2) == text);

    // Float TIFF output: exact size, and the same radiance as the .hdr.
    ASSERT_EQ(run({"merge", "-q", "-o", tif, "--exposures", mem + "/exposures.txt"}).code, 0);
    EXPECT_EQ(fs::file_size(tif), 8u + 512u * 768u * 12u + 150u);
    Image a, b, mid;
    ASSERT_TRUE(read_image(hdr, &a));
    ASSERT_TRUE(read_image(tif, &b));
    ASSERT_EQ(a.width, 512);
    ASSERT_EQ(a.height, 768);
    ASSERT_EQ(b.px.size(), a.px.size());
    double worst = 0, peak = 0;
    for (size_t i = 0; i < a.px.size(); ++i) {
        ASSERT_TRUE(std::isfinite(b.px[i]));
        ASSERT_GE(b.px[i], 0.0f);
        peak = std::max(peak, static_cast<double>(b.px[i]));
        worst = std::max(worst, std::fabs(a.px[i] - b.px[i]) / (std::fabs(b.px[i]) + 1e-6));
    }
    std::printf("largest relative difference .hdr vs .tif: %g, peak %g\n", worst, peak);
    EXPECT_LT(worst, 0.02);  // two readers of one RGBE image
    EXPECT_GT(peak, 10.0);   // the skylight is far above the exposure-1 white

    // Well-exposed pixels of the exposure-1 bracket keep their linear value
    // within a stop (the film's response is not exactly the 2.2 curve, but
    // exposures taken the wrong way round would be off by several stops).
    ASSERT_TRUE(read_image(mem + "/memorial0066.png", &mid));
    std::vector<double> ratios;
    for (size_t i = 0; i < mid.px.size(); i += 3) {
        float g = mid.px[i + 1];
        if (g < 0.3f || g > 0.7f || mid.px[i + 2] > 0.99f) continue;
        ratios.push_back(a.px[i + 1] / std::pow(g, 2.2));
    }
    ASSERT_GT(ratios.size(), 1000u);
    std::nth_element(ratios.begin(), ratios.begin() + ratios.size() / 2, ratios.end());
    double median = ratios[ratios.size() / 2];
    std::printf("median merged / linearised exposure-1 value: %g over %zu pixels\n", median,
                ratios.size());
    EXPECT_GT(median, 0.5);
    EXPECT_LT(median, 2.0);

    std::string cv = opencv_view(hdr);
    if (cv.empty()) {
        std::printf("/usr/bin/python3 with cv2 not found: OpenCV check skipped\n");
    } else {
        std::istringstream ss(cv);
        int w = 0, h = 0, finite = 0;
        double mx = 0;
        ss >> w >> h >> finite >> mx;
        EXPECT_EQ(w, 512);
        EXPECT_EQ(h, 768);
        EXPECT_EQ(finite, 1);
        EXPECT_NEAR(mx, peak, peak * 0.02);
    }

    {
        std::string png = dir + "/church.png", tif16 = dir + "/church16.tif";
        Result t = run({"tonemap", "-q", hdr, "-o", png});
        ASSERT_EQ(t.code, 0) << t.err;
        Result t16 = run({"tonemap", "-q", hdr, "-o", tif16, "--bits", "16", "--saturation", "2"});
        ASSERT_EQ(t16.code, 0) << t16.err;
        Image p, q;
        ASSERT_TRUE(read_image(png, &p));
        ASSERT_TRUE(read_image(tif16, &q));
        EXPECT_EQ(p.format, OIIO::TypeDesc::UINT8);
        EXPECT_EQ(q.format, OIIO::TypeDesc::UINT16);
        EXPECT_EQ(p.width, 512);
        EXPECT_EQ(q.height, 768);
        auto [lo, hi] = std::minmax_element(p.px.begin(), p.px.end());
        EXPECT_LT(*lo, 0.05f);
        EXPECT_GT(*hi, 0.9f);
        Result info = run({"info", hdr});
        ASSERT_EQ(info.code, 0) << info.err;
        EXPECT_NE(info.out.find("512 x 768"), std::string::npos);
        EXPECT_NE(info.out.find("dynamic range"), std::string::npos);
    }
    EXPECT_EQ(names_in(dir).size(), 5u);  // no temporaries left
}

// An ICC profile whose red tone curve is a single gamma (8.8 fixed point).
std::vector<uint8_t> gamma_profile(uint8_t whole, uint8_t frac) {
    std::vector<uint8_t> p(128 + 4 + 12 + 14, 0);
    auto be32 = [&](size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) p[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
    };
    be32(0, static_cast<uint32_t>(p.size()));
    std::memcpy(&p[12], "mntrRGB XYZ ", 12);
    std::memcpy(&p[36], "acsp", 4);
    be32(128, 1);  // one tag
    std::memcpy(&p[132], "rTRC", 4);
    be32(136, 144);  // its data offset
    be32(140, 14);
    std::memcpy(&p[144], "curv", 4);
    be32(152, 1);  // one entry: a pure gamma
    p[156] = whole;
    p[157] = frac;
    return p;
}

// A JPEG bracket of a gradient, with camera EXIF and a colour profile.
void write_jpeg_bracket(const std::string &path, float gain, float seconds,
                        const std::vector<uint8_t> &icc) {
    const int w = 96, h = 64;
    std::vector<uint8_t> px(w * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) {
                double v = std::pow((x + 1.0) / w * (y + 8.0) / (h + 8) * gain, 1 / 2.2);
                px[(y * w + x) * 3 + c] = static_cast<uint8_t>(std::min(255.0, 255 * v));
            }
    auto out = OIIO::ImageOutput::create("jpeg");
    ASSERT_TRUE(out);
    OIIO::ImageSpec ispec(w, h, 3, OIIO::TypeDesc::UINT8);
    ispec.attribute("Make", "Acme");
    ispec.attribute("Model", "Acme Bracketer");
    ispec.attribute("ExposureTime", seconds);
    ispec.attribute("FNumber", 8.0f);
    ispec.attribute("Exif:PhotographicSensitivity", 200);
    if (!icc.empty())
        ispec.attribute("ICCProfile", OIIO::TypeDesc(OIIO::TypeDesc::UINT8, icc.size()), icc.data());
    ASSERT_TRUE(out->open(path, ispec));
    ASSERT_TRUE(out->write_image(OIIO::TypeDesc::UINT8, px.data()));
    ASSERT_TRUE(out->close());
}

TEST(Cli, ExifAndIccProfileDriveExposuresGammaAndHeader) {
    REQUIRE_TOOL();
    std::string dir = fresh_dir("exif");
    const std::string dark = dir + "/dark.jpg", bright = dir + "/bright.jpg";
    write_jpeg_bracket(dark, 0.25f, 0.01f, gamma_profile(1, 205));  // gamma 1.80
    write_jpeg_bracket(bright, 1.0f, 0.04f, gamma_profile(1, 205));
    Result r = run({"merge", "-o", dir + "/a.hdr", bright, dark});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("exposures EXIF, gamma 1.8 (ICC profile)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("dark.jpg"), std::string::npos);
    EXPECT_NE(r.out.find("-2.00 EV"), std::string::npos) << r.out;  // 1/100 s against 1/25 s
    // The middle (here: brighter) bracket's metadata is in the header.
    std::string hdr = slurp(dir + "/a.hdr");
    EXPECT_NE(hdr.find("\nCAMERA=Acme Bracketer\n"), std::string::npos) << hdr.substr(0, 300);
    EXPECT_NE(hdr.find("\nSHUTTER=0.040000\n"), std::string::npos);
    EXPECT_NE(hdr.find("\nAPERTURE=8.00\n"), std::string::npos);
    EXPECT_NE(hdr.find("\nISO=200\n"), std::string::npos);
    Result info = run({"info", "--header", dir + "/a.hdr"});
    EXPECT_NE(info.out.find("1/25 s"), std::string::npos) << info.out;

    // --estimate ignores EXIF; --gamma overrides the profile.
    Result e = run({"merge", "-o", dir + "/b.hdr", "--estimate", "--gamma", "2.4", dark, bright});
    ASSERT_EQ(e.code, 0) << e.err;
    EXPECT_NE(e.out.find("exposures estimated from the pixels, gamma 2.4 (given)"),
              std::string::npos)
        << e.out;

    // 16-bit TIFF brackets merge at 16 bits; grey ones are spread to RGB.
    for (int k = 0; k < 2; ++k) {
        auto out = OIIO::ImageOutput::create("tiff");
        OIIO::ImageSpec ispec(40, 30, 1, OIIO::TypeDesc::UINT16);
        std::vector<uint16_t> px(40 * 30);
        for (size_t i = 0; i < px.size(); ++i) px[i] = static_cast<uint16_t>((i * 50 + 2000) << k);
        ASSERT_TRUE(out->open(dir + "/grey" + std::to_string(k) + ".tif", ispec));
        ASSERT_TRUE(out->write_image(OIIO::TypeDesc::UINT16, px.data()));
        ASSERT_TRUE(out->close());
    }
    Result g =
        run({"merge", "-o", dir + "/g.hdr", "-e", "1,2", dir + "/grey0.tif", dir + "/grey1.tif"});
    ASSERT_EQ(g.code, 0) << g.err;
    EXPECT_NE(g.out.find("of 40x30 (16-bit)"), std::string::npos) << g.out;
    Image grey;
    ASSERT_TRUE(read_image(dir + "/g.hdr", &grey));
    for (size_t i = 0; i < grey.px.size(); i += 3) {
        ASSERT_EQ(grey.px[i], grey.px[i + 1]);
        ASSERT_EQ(grey.px[i], grey.px[i + 2]);
    }

    std::vector<uint8_t> adobe;
    if (bvtest::read_file("/usr/share/color/icc/compatibleWithAdobeRGB1998.icc", &adobe)) {
        write_jpeg_bracket(dark, 0.25f, 0.01f, adobe);
        write_jpeg_bracket(bright, 1.0f, 0.04f, adobe);
        Result a = run({"merge", "-o", dir + "/c.hdr", dark, bright});
        ASSERT_EQ(a.code, 0) << a.err;
        EXPECT_NE(a.out.find("gamma 2.2 (ICC profile)"), std::string::npos) << a.out;
        EXPECT_NE(slurp(dir + "/c.hdr").find("\nICC_PROFILE=Adobe RGB (1998)\n"),
                  std::string::npos);
    }
}

// Sets the denominator of a JPEG's EXIF exposure time (tag 0x829a, one
// rational) to 0, as a broken writer leaves it; false when not found.
bool make_time_infinite(const std::string &path) {
    std::vector<uint8_t> b;
    if (!bvtest::read_file(path, &b)) return false;
    const uint8_t *exif = static_cast<const uint8_t *>(memmem(b.data(), b.size(), "Exif\0\0", 6));
    if (!exif) return false;
    const size_t tiff = static_cast<size_t>(exif - b.data()) + 6;
    const bool le = b[tiff] == 'I';
    auto u32 = [&](size_t at) {
        uint32_t v = 0;
        for (int k = 0; k < 4; ++k) v |= static_cast<uint32_t>(b[at + k]) << 8 * (le ? k : 3 - k);
        return v;
    };
    const uint8_t tag[4] = {0x9a, 0x82, 5, 0}, tag_be[4] = {0x82, 0x9a, 0, 5};
    for (size_t i = tiff; i + 12 <= b.size() && i < tiff + 4096; ++i)
        if (!std::memcmp(&b[i], le ? tag : tag_be, 4) && u32(i + 4) == 1) {
            const size_t den = tiff + u32(i + 8) + 4;
            if (den + 4 > b.size()) return false;
            std::memset(&b[den], 0, 4);
            return bvtest::write_file(path, b.data(), b.size());
        }
    return false;
}

// EXIF checked against the pixels: three brackets two stops apart, with
// exposure times that are right, one stop off, zero, infinite or equal.
TEST(Cli, ExifExposuresCheckedAgainstThePixels) {
    REQUIRE_TOOL();
    struct Case {
        const char *what;
        float times[3];
        bool infinite;  // the last time is made 1/0
        const char *source, *warning;
    };
    const Case cases[] = {
        {"right", {0.01f, 0.04f, 0.16f}, false, "exposures EXIF", nullptr},
        {"one off", {0.01f, 0.04f, 0.08f}, false, "exposures EXIF",
         "'c.jpg': EXIF says +1.00 EV, its pixels +"},
        {"zero", {0.01f, 0.0f, 0.16f}, false, "exposures estimated from the pixels",
         "EXIF exposure time of 'b.jpg' is zero; ignoring EXIF"},
        {"infinite", {0.01f, 0.04f, 0.16f}, true, "exposures estimated from the pixels",
         "EXIF exposure time of 'c.jpg' is infinite (1/0); ignoring EXIF"},
        {"all equal", {0.04f, 0.04f, 0.04f}, false, "exposures estimated from the pixels",
         "EXIF gives every bracket the same exposure but their pixels span "},
    };
    const std::string dir = fresh_dir("exifcheck");
    for (const Case &c : cases) {
        std::vector<std::string> files;
        for (int k = 0; k < 3; ++k) {
            files.push_back(dir + "/" + std::string(1, static_cast<char>('a' + k)) + ".jpg");
            write_jpeg_bracket(files.back(), std::ldexp(0.25f, 2 * k), c.times[k], {});
        }
        if (c.infinite) {
            ASSERT_TRUE(make_time_infinite(files[2])) << c.what;
        }
        Result r = run({"merge", "-o", dir + "/m.hdr", files[0], files[1], files[2]});
        ASSERT_EQ(r.code, 0) << c.what << r.err;
        EXPECT_NE(r.out.find(c.source), std::string::npos) << c.what << "\n" << r.out;
        EXPECT_EQ(r.err_lines(), c.warning ? 1 : 0) << c.what << "\n" << r.err;
        if (c.warning) {
            EXPECT_NE(r.err.find(c.warning), std::string::npos) << c.what << r.err;
        }
        // Per-bracket lines carry the pixel estimate's confidence.
        EXPECT_NE(r.out.find("confidence 1.00"), std::string::npos) << c.what << r.out;
    }
    // --estimate=median keeps the median-brightness rule; other words are refused.
    Result m = run({"merge", "-o", dir + "/m.hdr", "--estimate=median", dir + "/a.jpg",
                    dir + "/b.jpg"});
    EXPECT_NE(m.out.find("exposures estimated from median brightness"), std::string::npos)
        << m.out;
    EXPECT_EQ(run({"merge", "-o", dir + "/m.hdr", "--estimate=mean", dir + "/a.jpg",
                   dir + "/b.jpg"})
                  .code,
              2);
}

TEST(Cli, BadInputFailsOnOneLineAndLeavesNothing) {
    REQUIRE_TOOL();
    std::string dir = fresh_dir("bad");
    std::string a = dir + "/a.png", b = dir + "/b.png", small = dir + "/small.png";
    std::string tiny = dir + "/tiny.png", text = dir + "/notes.png", out = dir + "/out.hdr";
    write_png(a, 64, 48, 40);
    write_png(b, 64, 48, 120);
    write_png(small, 32, 48, 90);
    write_png(tiny, 1, 1, 90);
    ASSERT_TRUE(bvtest::write_file(text, "not a picture\n", 14));
    std::vector<uint8_t> whole;
    ASSERT_TRUE(bvtest::read_file(b, &whole));
    const std::string cut = dir + "/cut.png";
    ASSERT_TRUE(bvtest::write_file(cut, whole.data(), whole.size() / 2));
    fs::create_directories(dir + "/folder.hdr");
    const auto before = names_in(dir);

    struct Case {
        std::vector<std::string> args;
        std::string says;
    } cases[] = {
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
    std::vector<std::future<Result>> runs;
    for (const auto &c : cases) runs.push_back(std::async(std::launch::async, run, c.args, ""));
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case &c = cases[i];
        Result r = runs[i].get();
        EXPECT_NE(r.code, 0) << c.says;
        EXPECT_GT(r.code, 0) << "crashed: " << c.says;
        EXPECT_LT(r.code, 128) << c.says;
        EXPECT_EQ(r.err_lines(), 1) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    }
    EXPECT_EQ(names_in(dir), before) << "a failed run left a file behind";

    std::string data = bvtest::shared_data_dir();
    if (!data.empty()) {
        Result r = run({"info", data + "/memorial/memorial-damaged.hdr"});
        EXPECT_EQ(r.code, 1) << r.out << r.err;
        EXPECT_EQ(r.err_lines(), 1) << r.err;
        Result t = run({"tonemap", data + "/memorial/memorial-damaged.hdr", "-o", dir + "/d.png"});
        EXPECT_EQ(t.code, 1);
        EXPECT_EQ(names_in(dir), before);

        // A file written by other software reads and renders.
        const std::string atrium = data + "/hdr/mpi_atrium_3.hdr", png = dir + "/atrium.png";
        Result i = run({"info", atrium});
        EXPECT_EQ(i.code, 0) << i.err;
        EXPECT_NE(i.out.find("1024 x 676"), std::string::npos) << i.out;
        Result m = run({"tonemap", "-q", atrium, "-o", png, "--blues-sat", "-100"});
        ASSERT_EQ(m.code, 0) << m.err;
        Image p;
        ASSERT_TRUE(read_image(png, &p));
        EXPECT_EQ(p.width, 1024);
        EXPECT_EQ(p.height, 676);
    }
}

TEST(Cli, DemoOnBuiltInSceneAndOnItsBrackets) {
    REQUIRE_TOOL();
    std::string work = fresh_dir("demo");
    Result r = run({"demo", "--size", "384x256"}, work);
    ASSERT_EQ(r.code, 0) << r.err;
    const std::string d = work + "/brackvista-demo";
    for (const char *f : {"scene-truth.exr", "merged.hdr", "merged.tif", "tonemapped.png",
                          "fused.png", "summary.txt", "brackets/bracket-1.jpg", "brackets/bracket-7.jpg"})
        EXPECT_TRUE(fs::exists(d + "/" + f)) << f;
    EXPECT_EQ(slurp(d + "/summary.txt") + "  summary.txt\n", r.out);

    Image truth, png, b1;
    ASSERT_TRUE(read_image(d + "/scene-truth.exr", &truth));
    double lo = 1e30, hi = 0;
    for (size_t i = 0; i < truth.px.size(); i += 3) {
        double y = 0.2126 * truth.px[i] + 0.7152 * truth.px[i + 1] + 0.0722 * truth.px[i + 2];
        if (y > 0) lo = std::min(lo, y), hi = std::max(hi, y);
    }
    std::printf("built-in scene: %.1f stops\n", std::log2(hi / lo));
    EXPECT_GE(std::log2(hi / lo), 14.0);

    ASSERT_TRUE(read_image(d + "/tonemapped.png", &png));
    EXPECT_EQ(png.width, 384);
    EXPECT_EQ(png.height, 256);
    EXPECT_EQ(png.format, OIIO::TypeDesc::UINT8);
    auto [mn, mx] = std::minmax_element(png.px.begin(), png.px.end());
    EXPECT_LT(*mn, 0.1f);
    EXPECT_GT(*mx, 0.9f);
    ASSERT_TRUE(read_image(d + "/brackets/bracket-1.jpg", &b1));
    EXPECT_EQ(b1.width, 384);

    // Exposures from pixel ratios within a tenth of a stop of the truth; the
    // median-brightness rule, which works from one statistic per bracket,
    // is off by about a stop.
    const auto worst_errors = [](const std::string &out, double *median) {
        const size_t at = out.find("largest error: pixel ratios ");
        if (at == std::string::npos) return 99.0;
        *median = std::atof(out.c_str() + out.find("median brightness ", at) + 18);
        return std::atof(out.c_str() + at + 28);
    };
    double median = 0;
    const double worst = worst_errors(r.out, &median);
    std::printf("largest exposure error: %.3f stops (median rule %.2f)\n", worst, median);
    EXPECT_LT(worst, 0.1) << r.out;
    EXPECT_GT(median, 0.5);
    size_t at;

    // The merged radiance follows the true scene closely.
    at = r.out.find("median deviation ");
    ASSERT_NE(at, std::string::npos) << r.out;
    double deviation = std::atof(r.out.c_str() + at + 17);
    double within = std::atof(r.out.c_str() + r.out.find("stops, ", at) + 7);
    std::printf("merged vs truth: median %.3f stops, %.1f%% within 1/4 stop\n", deviation, within);
    EXPECT_LT(deviation, 0.2);
    EXPECT_GT(within, 70.0);

    std::string cv = opencv_view(d + "/merged.hdr");
    if (!cv.empty()) {
        EXPECT_EQ(cv.rfind("384 256 1 ", 0), 0u) << cv;
    }

    // Same seed, same bytes; the brackets carry their true exposure times
    // (1/8192 s to 1/2 s) for other tools, and the folder replays through
    // EXIF to the same merged range.
    std::string again = fresh_dir("demo2");
    ASSERT_EQ(run({"demo", "-q", "--size", "384x256", "-o", again}).code, 0);
    EXPECT_EQ(slurp(again + "/merged.hdr"), slurp(d + "/merged.hdr"));
    EXPECT_EQ(slurp(again + "/fused.png"), slurp(d + "/fused.png"));
    for (int k = 1; k <= 7; ++k) {
        auto in = OIIO::ImageInput::open(d + "/brackets/bracket-" + std::to_string(k) + ".jpg");
        ASSERT_TRUE(in);
        const float t = in->spec().get_float_attribute("ExposureTime", 0.0f);
        EXPECT_NEAR(t, std::ldexp(1.0, 2 * k - 15), 1e-2 * t) << k;
    }
    Result f = run({"demo", "-o", work + "/fromfolder", d + "/brackets"});
    ASSERT_EQ(f.code, 0) << f.err;
    EXPECT_TRUE(f.err.empty()) << f.err;
    EXPECT_NE(f.out.find("against the EXIF ones"), std::string::npos) << f.out;
    EXPECT_LT(worst_errors(f.out, &median), 0.1) << f.out;
    const auto range = [](const std::string &out) {
        return std::atof(out.c_str() + out.find("merged HDR: ") + 12);
    };
    std::printf("merged range: %.1f stops, replayed %.1f\n", range(r.out), range(f.out));
    EXPECT_NEAR(range(f.out), range(r.out), 0.25);
    EXPECT_TRUE(fs::exists(work + "/fromfolder/tonemapped.png"));
    std::string hdr = slurp(work + "/fromfolder/merged.hdr");
    EXPECT_NE(hdr.find("CAMERA=Brackvista demo camera\n"), std::string::npos);
    EXPECT_NE(hdr.find("APERTURE=8.00\n"), std::string::npos);
    EXPECT_NE(hdr.find("ISO=100\n"), std::string::npos);
}

TEST(Cli, CtrlCCancelsAndRemovesPartialOutput) {
    REQUIRE_TOOL();
    std::string dir = fresh_dir("cancel");
    std::string out_dir = dir + "/out";
    std::vector<std::string> args = {kTool, "demo", "-q", "--size", "4096x2730", "-o", out_dir};
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
    for (int waited = 0; waited < 600 && !exited; ++waited) {
        if (waitpid(pid, &status, WNOHANG) == pid)
            exited = true;
        else if (fs::exists(out_dir))
            break;
        else
            usleep(50 * 1000);
    }
    if (!exited) {
        usleep(200 * 1000);
        kill(pid, SIGINT);
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
    }
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    int code = WEXITSTATUS(status);
    EXPECT_EQ(code, 130);
    if (fs::exists(out_dir)) {
        for (const auto &e : fs::recursive_directory_iterator(out_dir))
            EXPECT_EQ(e.path().filename().string().find(".part"), std::string::npos) << e.path();
    }
}

TEST(Cli, EnhanceRendersAndRefusesBadInput) {
    REQUIRE_TOOL();
    const std::string data = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(data);
    const std::string hdr = data + "/hdr/mpi_atrium_3.hdr", dir = fresh_dir("enhance");
    const std::string a = dir + "/a.png", b = dir + "/b.png", wide = dir + "/w.png";
    ASSERT_EQ(run({"enhance", "-q", hdr, "-o", a}).code, 0);
    ASSERT_EQ(run({"tonemap", "-q", "--method", "enhancer", hdr, "-o", b}).code, 0);
    ASSERT_EQ(run({"enhance", "-q", "--bits", "16", "--strength", "20", hdr, "-o", wide}).code, 0);
    Image ia, ib, iw;
    ASSERT_TRUE(read_image(a, &ia));
    ASSERT_TRUE(read_image(b, &ib));
    ASSERT_TRUE(read_image(wide, &iw));
    EXPECT_EQ(ia.width, 1024);
    EXPECT_EQ(ia.height, 676);
    EXPECT_EQ(ia.px, ib.px) << "tonemap --method enhancer is enhance";
    EXPECT_EQ(iw.format, OIIO::TypeDesc::UINT16);
    EXPECT_NE(iw.px.size(), 0u);
    // Brackets straight to a picture: the same as merging, then enhancing.
    const std::string list = data + "/memorial/exposures.txt", merged = dir + "/m.hdr";
    ASSERT_EQ(run({"merge", "-q", "-e", list, "-o", merged}).code, 0);
    ASSERT_EQ(run({"enhance", "-q", merged, "-o", a}).code, 0);
    ASSERT_EQ(run({"enhance", "-q", "-e", list, "-o", b}).code, 0);
    ASSERT_TRUE(read_image(a, &ia));
    ASSERT_TRUE(read_image(b, &ib));
    EXPECT_EQ(ia.px, ib.px) << "brackets give the merged file's rendering";
    const std::string junk = dir + "/junk.hdr";
    ASSERT_TRUE(bvtest::write_file(junk, "not a picture\n", 14));
    struct Case {
        std::vector<std::string> args;
        int code;
        std::string says;
    } cases[] = {
        {{"enhance", dir + "/none.hdr", "-o", dir + "/o.png"}, 1, "none.hdr"},
        {{"enhance", junk, "-o", dir + "/o.png"}, 1, "not a readable Radiance file"},
        {{"enhance", hdr, "-o", dir + "/o.png", "--strength", "101"}, 2, "strength"},
        {{"enhance", hdr}, 2, "no output file"},
        {{"tonemap", "--method", "bogus", hdr, "-o", dir + "/o.png"}, 2, "--method"},
    };
    for (const Case &c : cases) {
        const Result r = run(c.args);
        EXPECT_EQ(r.code, c.code) << c.args[1];
        EXPECT_EQ(r.err_lines(), 1) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    }
    EXPECT_FALSE(fs::exists(dir + "/o.png"));
}

}  // namespace

namespace {

// Grey PNG whose left `split` columns hold `left` and the rest `right`.
void write_split_png(const std::string &path, int w, int h, int split, uint8_t left, uint8_t right) {
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out);
    std::vector<uint8_t> px(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < px.size(); ++i) px[i] = static_cast<int>(i / 3 % w) < split ? left : right;
    ASSERT_TRUE(out->open(path, OIIO::ImageSpec(w, h, 3, OIIO::TypeDesc::UINT8)));
    ASSERT_TRUE(out->write_image(OIIO::TypeDesc::UINT8, px.data()));
    ASSERT_TRUE(out->close());
}

// Brackets of 40, 120, 220 at EV -2, 0, +2 over a result of 100: a base layer
// of 50 % at 0 EV gives 109 (fixed point, not 110); a brush layer of 99 % at
// +2 EV painted on the left half gives 218 there.
TEST(Cli, BlendPaintsLayersThroughAMask) {
    REQUIRE_TOOL();
    const std::string dir = fresh_dir("blend");
    const int w = 32, h = 24;
    const uint8_t levels[3] = {40, 120, 220};
    std::vector<std::string> args = {"blend", "-q", "-o", dir + "/out.png", dir + "/result.png"};
    for (int k = 0; k < 3; ++k) {
        args.push_back(dir + "/b" + std::to_string(k) + ".png");
        write_split_png(args.back(), w, h, 0, 0, levels[k]);
    }
    write_split_png(dir + "/result.png", w, h, 0, 0, 100);
    write_split_png(dir + "/mask.png", w, h, w / 2, 255, 0);
    write_split_png(dir + "/small.png", w - 1, h, 0, 0, 100);
    std::vector<std::string> ok = args;
    ok.insert(ok.end(), {"-e", "1,4,16", "--base", "50@0", "--layers", "99@2", "--brush",
                         dir + "/mask.png", "--show-brush", dir + "/shown.png"});
    Result r = run(ok);
    ASSERT_EQ(r.code, 0) << r.err;
    Image img;
    ASSERT_TRUE(read_image(dir + "/out.png", &img));
    ASSERT_EQ(img.width, w);
    for (int x = 0; x < w; ++x)
        EXPECT_EQ(std::lround(img.px[(5 * w + x) * 3 + 1] * 255), x < w / 2 ? 218 : 109) << x;
    // The preview tints the painted half of the last bracket (220) by a quarter towards blue.
    ASSERT_TRUE(read_image(dir + "/shown.png", &img));
    EXPECT_EQ(std::lround(img.px[0] * 255), 165);
    EXPECT_EQ(std::lround(img.px[2] * 255), 228);
    EXPECT_EQ(std::lround(img.px[(w - 1) * 3] * 255), 220);

    std::vector<std::string> no_mask = args, nothing = args, wrong_size = ok;
    no_mask.insert(no_mask.end(), {"--layers", "99@2"});
    nothing.insert(nothing.end(), {"--base", "0@1"});
    wrong_size[4] = dir + "/small.png";
    const struct {
        std::vector<std::string> args;
        int code;
        std::string says;
    } bad[] = {{no_mask, 2, "one mask per layer"},
               {nothing, 2, "nothing to blend"},
               {wrong_size, 1, "the picture is 31x24"}};
    for (const auto &c : bad) {
        Result b = run(c.args);
        EXPECT_EQ(b.code, c.code) << b.err;
        EXPECT_EQ(b.err_lines(), 1) << b.err;
        EXPECT_NE(b.err.find(c.says), std::string::npos) << b.err;
    }
}

// Three flat brackets (40, 120, 220): the fused picture lies between them;
// 16-bit output, the temporary-file mode and the ghost mask behave.
TEST(Cli, FuseBracketsWithOptions) {
    REQUIRE_TOOL();
    const std::string dir = fresh_dir("fuse");
    const int w = 256, h = 64;
    const uint8_t levels[3] = {40, 120, 220};
    std::vector<std::string> files;
    for (int k = 0; k < 3; ++k) {
        files.push_back(dir + "/b" + std::to_string(k) + ".png");
        write_split_png(files.back(), w, h, 0, 0, levels[k]);
    }
    write_split_png(dir + "/mask.png", w, h, w / 2, 255, 0);
    write_split_png(dir + "/small.png", w - 1, h, 0, 0, 100);
    auto fuse = [&](std::vector<std::string> extra) {
        std::vector<std::string> a = {"fuse", "-q"};
        a.insert(a.end(), extra.begin(), extra.end());
        a.insert(a.end(), files.begin(), files.end());
        return run(a);
    };
    fs::create_directories(dir + "/spill");
    struct Case { std::vector<std::string> args; int bits; };
    const Case cases[] = {
        {{"-o", dir + "/mem.png"}, 8},
        {{"-o", dir + "/files.png", "--temp-dir", dir + "/spill", "-j", "3"}, 8},
        {{"-o", dir + "/deep.tif", "--bits", "16", "--detail", "6", "--moire", "6"}, 16},
        {{"-o", dir + "/ghost.png", "--mask", dir + "/mask.png", "--mask-bracket", "3"}, 8},
        {{"-o", dir + "/two.png", "--two-pass"}, 8},
        {{"-o", dir + "/auto.png", "--ghosts", "auto"}, 8},
    };
    std::vector<Image> img(std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        Result r = fuse(cases[i].args);
        ASSERT_EQ(r.code, 0) << r.err;
        ASSERT_TRUE(read_image(cases[i].args[1], &img[i]));
        EXPECT_EQ(img[i].width, w);
        EXPECT_EQ(img[i].format.size(), cases[i].bits / 8u);
    }
    EXPECT_EQ(img[0].px, img[1].px) << "temporary files changed the picture";
    EXPECT_TRUE(fs::is_empty(dir + "/spill")) << "temporary files left behind";
    const float mid = img[0].px[(20 * w + 60) * 3 + 1] * 255;
    EXPECT_GT(mid, 40);
    EXPECT_LT(mid, 220);
    // Inside the mask the third bracket alone; outside, the usual blend.
    EXPECT_NEAR(img[3].px[(20 * w + 16) * 3 + 1] * 255, 220, 6);
    EXPECT_NEAR(img[3].px[(20 * w + 240) * 3 + 1] * 255, img[0].px[(20 * w + 240) * 3 + 1] * 255, 6);

    const struct { std::vector<std::string> args; int code; std::string says; } bad[] = {
        {{"-o", dir + "/x.png", dir + "/small.png"}, 1, "brackets differ in size"},
        {{"-o", dir + "/x.png", "--mask", dir + "/small.png"}, 1, "mask"},
        {{"-o", dir + "/x.png", "--moire", "9"}, 2, "moire"},
        {{"-o", dir + "/x.png", "--ghosts", "always"}, 2, "--ghosts"},
        {{"-o", dir + "/x.png", "--ghosts", "auto", "--mask", dir + "/mask.png"}, 2, "exclude"},
        {{"-o", dir + "/x.png", "--temp-dir", dir + "/none"}, 1, "not a folder"},
    };
    for (const auto &c : bad) {
        Result b = fuse(c.args);
        EXPECT_EQ(b.code, c.code) << b.err;
        EXPECT_EQ(b.err_lines(), 1) << b.err;
        EXPECT_NE(b.err.find(c.says), std::string::npos) << b.err;
        EXPECT_FALSE(fs::exists(dir + "/x.png"));
    }
}

}  // namespace
