// End-to-end tests of the brackvista tool: real brackets, the built-in scene,
// outputs checked with OpenImageIO and an independent reader, bad input.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <sstream>

#include "cli_support.hpp"

namespace {

namespace fs = std::filesystem;
using namespace bvtest;

constexpr int kW = 256, kH = 64;

std::vector<std::string> names_in(const std::string &dir) {
    std::vector<std::string> v;
    for (const auto &e : fs::directory_iterator(dir)) v.push_back(e.path().filename().string());
    std::sort(v.begin(), v.end());
    return v;
}

void expect_has(const std::string &text, const Args &parts) {
    for (const auto &p : parts)
        EXPECT_NE(text.find(p), std::string::npos) << "'" << p << "' not in:\n" << text;
}

// "width height all-finite largest" as OpenCV reads the file; "" without cv2.
std::string opencv_view(const std::string &path) {
    return shell(
        "/usr/bin/python3 -c \"import cv2,sys,numpy as n; i=cv2.imread(sys.argv[1],-1); "
        "print(i.shape[1],i.shape[0],int(n.isfinite(i).all()),float(i.max()))\" " +
        quote(path) + " 2>/dev/null");
}

// Grey picture whose left `split` columns hold `left` and the rest `right`.
void write_split(const std::string &path, int w, int h, int split, uint8_t left, uint8_t right) {
    std::vector<uint8_t> px(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < px.size(); ++i)
        px[i] = static_cast<int>(i / 3 % w) < split ? left : right;
    ASSERT_TRUE(write_rgb8(path, w, h, px.data())) << path;
}

// Shared inputs, made once: flat brackets b0..b2 (40, 120, 220), result.png, a
// left-half mask, odd sizes, text posing as pictures, half a PNG, in.hdr.
std::string in(const std::string &name) {
    static const std::string dir = [] {
        const std::string d = fresh_dir("inputs");
        const uint8_t levels[3] = {40, 120, 220};
        for (int k = 0; k < 3; ++k)
            write_split(d + "/b" + std::to_string(k) + ".png", kW, kH, 0, 0, levels[k]);
        write_split(d + "/result.png", kW, kH, 0, 0, 100);
        write_split(d + "/mask.png", kW, kH, kW / 2, 255, 0);
        write_split(d + "/small.png", kW - 1, kH, 0, 0, 100);
        write_split(d + "/tiny.png", 1, 1, 0, 0, 90);
        write_text("inputs/notes.png", "not a picture\n");
        write_text("inputs/junk.hdr", "not a picture\n");
        Bytes whole;
        read_file(d + "/b1.png", &whole);
        write_file(d + "/cut.png", whole.data(), whole.size() / 2);
        fs::create_directories(d + "/folder.hdr");
        const Result r = run({"merge", "-q", "-e", "1,4,16", "-o", d + "/in.hdr", d + "/b0.png",
                              d + "/b1.png", d + "/b2.png"});
        EXPECT_EQ(r.code, 0) << r.err;
        return d;
    }();
    return dir + "/" + name;
}

TEST(Cli, HelpListsCommandsAndOptions) {
    BV_REQUIRE_TOOL();
    std::vector<Args> calls = {{}, {"--help"}};
    for (const char *command : {"merge", "info", "demo", "tonemap"})
        calls.push_back({command, "--help"});
    const auto r = run_all(calls);
    EXPECT_EQ(r[0].code, 2);
    expect_has(r[1].out, {"merge", "tonemap", "info", "demo"});
    for (size_t i = 1; i < r.size(); ++i) EXPECT_EQ(r[i].code, 0) << i;
    for (size_t i = 2; i < r.size(); ++i) expect_has(r[i].out, {"usage: brackvista "});
    expect_has(r[5].out, {"--brightness", "--adaptation", "--white-clip", "--black-clip",
                          "--temperature", "--saturation", "--bits"});
}

TEST(Cli, BadCallsFailOnOneLineAndLeaveNothing) {
    BV_REQUIRE_TOOL();
    const std::string a = in("b0.png"), b = in("b1.png"), hdr = in("in.hdr"), out = in("out.hdr"),
                      x = in("x.png"), text = in("notes.png"), cut = in("cut.png");
    const Args brackets = {a, b, in("b2.png")};
    const Args blend = cat({"blend", "-q", "-o", x, in("result.png")}, brackets);
    const auto fuse = [&](const Args &extra) {
        return cat(cat({"fuse", "-q", "-o", x}, extra), brackets);
    };
    // clang-format off
    std::vector<Refusal> cases = {
        {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
        {{"merge", "--frob", "a.png"}, 2, "unknown option '--frob'"},
        {{"merge", "-o"}, 2, "needs a value"},
        {{"merge", "-o", "x.hdr", "--threads", "many", "a.png", "b.png"},
         2, "--threads must be a number"},
        {{"merge", "a.png", "b.png"}, 2, "no output file"},
        {{"merge", "-o", "x.png", "a.png", "b.png"}, 2, "use .hdr"},
        {{"merge", "-o", out, "--estimate=mean", a, b}, 2, "--estimate takes 'median' or 'pixels'"},
        {{"tonemap", "in.hdr", "-o", "x.png", "--brightness", "11"},
         2, "--brightness must lie in -10..10"},
        {{"tonemap", "in.hdr", "-o", "x.jpg", "--bits", "16"}, 2, "JPEG pictures are 8-bit"},
        {{"tonemap", "in.hdr", "-o", "x.png", "--saturation", "1.5"}, 2, "whole steps"},
        {{"tonemap", "--method", "bogus", hdr, "-o", x}, 2, "--method"},
        {{"enhance", hdr, "-o", x, "--strength", "101"}, 2, "strength"},
        {{"enhance", hdr}, 2, "no output file"},
        {{"demo", "--size", "8x8"}, 2, "--size must be WxH"},
        {cat(blend, {"--layers", "99@2"}), 2, "one mask per layer"},
        {cat(blend, {"--base", "0@1"}), 2, "nothing to blend"},
        {fuse({"--moire", "9"}), 2, "moire"},
        {fuse({"--ghosts", "always"}), 2, "--ghosts"},
        {fuse({"--ghosts", "auto", "--mask", in("mask.png")}), 2, "exclude"},
        // Well-formed calls the inputs defeat.
        {{"merge", "-o", out, a, in("missing.png")}, 1, "missing.png': No such file"},
        {{"merge", "-o", out, a, text}, 1, "notes.png' is not an image"},
        {{"merge", "-o", out, a, in("small.png")}, 1, "brackets differ in size"},
        {{"merge", "-o", out, a, cut}, 1, "cannot decode '" + cut},
        {{"merge", "-o", out, a}, 1, "at least two brackets"},
        {{"merge", "-o", out, in("tiny.png"), in("tiny.png")}, 1, "is 1x1, too small"},
        {{"merge", "-o", text + "/out.hdr", a, b}, 1, "cannot write"},
        {{"merge", "-o", in("folder.hdr"), a, b}, 1, "it is a folder"},
        {{"merge", "-o", out, "--exposures", in("none.txt"), a, b},
         1, "cannot open exposures file"},
        {{"merge", "-o", out, "--exposures", "1,2,3", a, b}, 2, "3 values for 2 brackets"},
        {{"demo", "-o", in("demo"), in("none")}, 1, "not a folder"},
        {{"tonemap", in("none.hdr"), "-o", x}, 1, "none.hdr"},
        {{"tonemap", text, "-o", x}, 1, "notes.png"},
        {{"info", in("none.hdr")}, 1, "none.hdr"},
        {{"enhance", in("none.hdr"), "-o", x}, 1, "none.hdr"},
        {{"enhance", in("junk.hdr"), "-o", x}, 1, "not a readable Radiance file"},
        {cat({"blend", "-q", "-o", x, in("small.png")},
             cat(brackets, {"-e", "1,4,16", "--base", "50@0", "--layers", "99@2", "--brush",
                            in("mask.png")})),
         1, "the picture is 255x64"},
        {fuse({in("small.png")}), 1, "brackets differ in size"},
        {fuse({"--mask", in("small.png")}), 1, "mask"},
        {fuse({"--temp-dir", in("none")}), 1, "not a folder"},
    };
    // clang-format on
    const std::string data = shared_data_dir(), damaged = data + "/memorial/memorial-damaged.hdr";
    if (!data.empty()) {
        cases.push_back({{"info", damaged}, 1, "is damaged"});
        cases.push_back({{"tonemap", damaged, "-o", x}, 1, "is damaged"});
    }
    const auto before = names_in(in(""));
    expect_refused(cases);
    EXPECT_EQ(names_in(in("")), before) << "a failed run left a file behind";
}

TEST(Cli, MergesMemorialBracketsReadByOtherReaders) {
    BV_REQUIRE_TOOL();
    const std::string data = shared_data_dir();
    BV_REQUIRE_SHARED_DATA(data);
    const std::string mem = data + "/memorial", list = mem + "/exposures.txt",
                      dir = fresh_dir("memorial"), hdr = dir + "/church.hdr",
                      tif = dir + "/church.tif";
    // The same exposures as a list beside the file names give the same bytes.
    const std::string times =
        "32,16,8,4,2,1,0.5,0.25,0.125,0.0625,0.03125,0.015625,0.0078125,"
        "0.00390625,0.001953125,0.0009765625";
    Args by_list = {"merge", "-q", "-o", dir + "/list.hdr", "--exposures", times};
    for (int k = 61; k <= 76; ++k)
        by_list.push_back(mem + "/memorial00" + std::to_string(k) + ".png");
    auto r = run_all({by_list,
                      {"merge", "-q", "-o", hdr, "--exposures", list},
                      {"merge", "-q", "-o", tif, "--exposures", list}});
    ASSERT_TRUE(all_ok(r));
    EXPECT_TRUE(r[1].out.empty());
    const std::string text = text_of(hdr);
    EXPECT_EQ(text.rfind("#?RADIANCE\n", 0), 0u);
    expect_has(text, {"\n-Y 768 +X 512\n", "ICC_PROFILE=sRGB\n"});
    EXPECT_TRUE(text_of(dir + "/list.hdr") == text);

    // Float TIFF output: exact size, and the same radiance as the .hdr.
    EXPECT_EQ(fs::file_size(tif), 8u + 512u * 768u * 12u + 150u);
    const Image a = read_image(hdr), b = read_image(tif),
                mid = read_image(mem + "/memorial0066.png");
    ASSERT_EQ(b.px.size(), a.px.size());
    double worst = 0, peak = 0;
    for (size_t i = 0; i < a.px.size(); ++i) {
        ASSERT_TRUE(std::isfinite(b.px[i]) && b.px[i] >= 0.0f) << i;
        peak = std::max(peak, static_cast<double>(b.px[i]));
        worst = std::max(worst, std::fabs(a.px[i] - b.px[i]) / (std::fabs(b.px[i]) + 1e-6));
    }
    EXPECT_LT(worst, 0.02);  // two readers of one RGBE image
    EXPECT_GT(peak, 10.0);   // the skylight is far above the exposure-1 white

    // Well-exposed pixels of the exposure-1 bracket keep their value within a stop.
    std::vector<double> ratios;
    for (size_t i = 0; i < mid.px.size(); i += 3)
        if (mid.px[i + 1] >= 0.3f && mid.px[i + 1] <= 0.7f && mid.px[i + 2] <= 0.99f)
            ratios.push_back(a.px[i + 1] / std::pow(mid.px[i + 1], 2.2));
    ASSERT_GT(ratios.size(), 1000u);
    std::nth_element(ratios.begin(), ratios.begin() + ratios.size() / 2, ratios.end());
    const double median = ratios[ratios.size() / 2];
    EXPECT_TRUE(median > 0.5 && median < 2.0) << median;

    std::istringstream cv(opencv_view(hdr));
    int w = 0, h = 0, finite = 0;
    double largest = 0;
    if (cv >> w >> h >> finite >> largest) {
        EXPECT_EQ(std::make_tuple(w, h, finite), std::make_tuple(512, 768, 1));
        EXPECT_NEAR(largest, peak, peak * 0.02);
    }

    const std::string png = dir + "/church.png", tif16 = dir + "/church16.tif";
    r = run_all({{"tonemap", "-q", hdr, "-o", png},
                 {"tonemap", "-q", hdr, "-o", tif16, "--bits", "16", "--saturation", "2"},
                 {"info", hdr}});
    ASSERT_TRUE(all_ok(r));
    const Image p = read_image(png);
    EXPECT_EQ(p.shape(), std::make_tuple(512, 768, size_t{1}));
    EXPECT_EQ(read_image(tif16).shape(), std::make_tuple(512, 768, size_t{2}));
    EXPECT_LT(*std::min_element(p.px.begin(), p.px.end()), 0.05f);
    EXPECT_GT(*std::max_element(p.px.begin(), p.px.end()), 0.9f);
    expect_has(r[2].out, {"512 x 768", "dynamic range"});
    EXPECT_EQ(names_in(dir).size(), 5u);  // no temporaries left
}

std::string be32(uint32_t v) {
    return {char(v >> 24), char(v >> 16 & 255), char(v >> 8 & 255), char(v & 255)};
}

// An ICC profile with one tag, a red tone curve that is a single gamma (8.8
// fixed point).
Bytes gamma_profile(uint8_t whole, uint8_t frac) {
    const std::string p = be32(158) + std::string(8, 0) + "mntrRGB XYZ " + std::string(12, 0) +
                          "acsp" + std::string(88, 0) + be32(1) + "rTRC" + be32(144) + be32(14) +
                          "curv" + be32(0) + be32(1) + char(whole) + char(frac);
    return Bytes(p.begin(), p.end());
}

// A JPEG bracket of a gradient, with camera EXIF and a colour profile.
void write_jpeg(const std::string &path, float gain, float seconds, const Bytes &icc = {}) {
    const int w = 96, h = 64;
    std::vector<uint8_t> px(w * h * 3);
    for (size_t i = 0; i < px.size(); ++i)
        px[i] = static_cast<uint8_t>(std::min(
            255.0,
            255 * std::pow((i / 3 % w + 1.0) / w * (i / 3 / w + 8.0) / (h + 8) * gain, 1 / 2.2)));
    OIIO::ImageSpec format(w, h, 3, OIIO::TypeDesc::UINT8);
    format.attribute("Make", "Acme");
    format.attribute("Model", "Acme Bracketer");
    format.attribute("ExposureTime", seconds);
    format.attribute("FNumber", 8.0f);
    format.attribute("Exif:PhotographicSensitivity", 200);
    if (!icc.empty())
        format.attribute("ICCProfile", OIIO::TypeDesc(OIIO::TypeDesc::UINT8, icc.size()),
                         icc.data());
    ASSERT_TRUE(write_image(path, format, px.data())) << path;
}

// Sets the denominator of a JPEG's EXIF exposure time (tag 0x829a, one
// rational) to 0, as a broken writer leaves it; false when not found.
bool make_time_infinite(const std::string &path) {
    Bytes b;
    read_file(path, &b);
    const auto *exif = static_cast<const uint8_t *>(memmem(b.data(), b.size(), "Exif\0\0", 6));
    if (!exif) return false;
    const size_t tiff = static_cast<size_t>(exif - b.data()) + 6;
    const bool le = b[tiff] == 'I';
    const auto u32 = [&](size_t at) {
        uint32_t v = 0;
        for (int k = 0; k < 4; ++k) v |= static_cast<uint32_t>(b[at + k]) << 8 * (le ? k : 3 - k);
        return v;
    };
    const uint8_t tag[2][4] = {{0x82, 0x9a, 0, 5}, {0x9a, 0x82, 5, 0}};
    for (size_t i = tiff; i + 12 <= b.size() && i < tiff + 4096; ++i)
        if (!std::memcmp(&b[i], tag[le], 4) && u32(i + 4) == 1 &&
            tiff + u32(i + 8) + 8 <= b.size()) {
            std::memset(&b[tiff + u32(i + 8) + 4], 0, 4);
            return write_file(path, b.data(), b.size());
        }
    return false;
}

// Exposures and gamma from EXIF (right, off, zero, infinite, equal times), an
// ICC profile, --estimate or --gamma, as reported; metadata in the header.
TEST(Cli, MergeTakesExposuresAndGammaFromExifProfileOrPixels) {
    BV_REQUIRE_TOOL();
    const std::string dir = fresh_dir("exif") + "/";
    // clang-format off
    const struct { std::string what; float times[3]; } exif[] = {
        {"right", {0.01f, 0.04f, 0.16f}}, {"off", {0.01f, 0.04f, 0.08f}},
        {"zero", {0.01f, 0.0f, 0.16f}}, {"infinite", {0.01f, 0.04f, 0.16f}},
        {"equal", {0.04f, 0.04f, 0.04f}}};
    // clang-format on
    for (const auto &e : exif) {
        fs::create_directories(dir + e.what);
        for (int k = 0; k < 3; ++k)
            write_jpeg(dir + e.what + "/" + char('a' + k) + ".jpg", std::ldexp(0.25f, 2 * k),
                       e.times[k]);
    }
    ASSERT_TRUE(make_time_infinite(dir + "infinite/c.jpg"));
    write_jpeg(dir + "dark.jpg", 0.25f, 0.01f, gamma_profile(1, 205));  // gamma 1.80
    write_jpeg(dir + "bright.jpg", 1.0f, 0.04f, gamma_profile(1, 205));
    Bytes adobe;
    if (read_file("/usr/share/color/icc/compatibleWithAdobeRGB1998.icc", &adobe)) {
        write_jpeg(dir + "adobe-dark.jpg", 0.25f, 0.01f, adobe);
        write_jpeg(dir + "adobe-bright.jpg", 1.0f, 0.04f, adobe);
    }
    for (int k = 0; k < 2; ++k) {  // 16-bit grey TIFFs, a stop apart
        std::vector<uint16_t> px(40 * 30);
        for (size_t i = 0; i < px.size(); ++i) px[i] = static_cast<uint16_t>((i * 50 + 2000) << k);
        ASSERT_TRUE(write_image(dir + "grey" + std::to_string(k) + ".tif",
                                OIIO::ImageSpec(40, 30, 1, OIIO::TypeDesc::UINT16), px.data()));
    }
    const auto abc = [&](const std::string &what) {
        return Args{dir + what + "/a.jpg", dir + what + "/b.jpg", dir + what + "/c.jpg"};
    };
    const std::string pixels = "exposures estimated from the pixels", sure = "confidence 1.00";
    struct Case {
        Args args, says;
        const char *warning;
    };
    // clang-format off
    std::vector<Case> cases = {
        {abc("right"), {"exposures EXIF", sure}, nullptr},
        {abc("off"), {"exposures EXIF", sure}, "'c.jpg': EXIF says +1.00 EV, its pixels +"},
        {abc("zero"), {pixels, sure}, "EXIF exposure time of 'b.jpg' is zero; ignoring EXIF"},
        {abc("infinite"), {pixels, sure},
         "EXIF exposure time of 'c.jpg' is infinite (1/0); ignoring EXIF"},
        {abc("equal"), {pixels, sure},
         "EXIF gives every bracket the same exposure but their pixels span "},
        {{"--estimate=median", dir + "right/a.jpg", dir + "right/b.jpg"},
         {"exposures estimated from median brightness"}, nullptr},
        // 1/100 s against 1/25 s.
        {{dir + "bright.jpg", dir + "dark.jpg"},
         {"exposures EXIF, gamma 1.8 (ICC profile)", "dark.jpg", "-2.00 EV"}, nullptr},
        {{"--estimate", "--gamma", "2.4", dir + "dark.jpg", dir + "bright.jpg"},
         {pixels + ", gamma 2.4 (given)"}, nullptr},
        {{"-e", "1,2", dir + "grey0.tif", dir + "grey1.tif"}, {"of 40x30 (16-bit)"}, nullptr},
        {{dir + "adobe-dark.jpg", dir + "adobe-bright.jpg"}, {"gamma 2.2 (ICC profile)"}, nullptr},
    };
    // clang-format on
    if (adobe.empty()) cases.pop_back();
    std::vector<Args> calls;
    for (size_t i = 0; i < cases.size(); ++i)
        calls.push_back(cat({"merge", "-o", dir + std::to_string(i) + ".hdr"}, cases[i].args));
    const auto results = run_all(calls);
    for (size_t i = 0; i < cases.size(); ++i) {
        const Result &r = results[i];
        SCOPED_TRACE(i);
        ASSERT_EQ(r.code, 0) << r.err;
        expect_has(r.out, cases[i].says);
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), cases[i].warning ? 1 : 0) << r.err;
        if (cases[i].warning) expect_has(r.err, {cases[i].warning});
    }
    // The middle (here: brighter) bracket's metadata is in the header.
    expect_has(text_of(dir + "6.hdr"), {"\nCAMERA=Acme Bracketer\n", "\nSHUTTER=0.040000\n",
                                        "\nAPERTURE=8.00\n", "\nISO=200\n"});
    expect_has(run({"info", "--header", dir + "6.hdr"}).out, {"1/25 s"});
    // Grey brackets are spread to RGB.
    const Image grey = read_image(dir + "8.hdr");
    ASSERT_FALSE(grey.px.empty());
    for (size_t i = 0; i < grey.px.size(); i += 3)
        ASSERT_TRUE(grey.px[i] == grey.px[i + 1] && grey.px[i] == grey.px[i + 2]) << i;
    if (!adobe.empty()) expect_has(text_of(dir + "9.hdr"), {"\nICC_PROFILE=Adobe RGB (1998)\n"});
}

// Another program's file renders; enhance from brackets equals merge-then-enhance.
TEST(Cli, RendersAFileFromOtherSoftwareAndEnhancesBrackets) {
    BV_REQUIRE_TOOL();
    const std::string data = shared_data_dir();
    BV_REQUIRE_SHARED_DATA(data);
    const std::string hdr = data + "/hdr/mpi_atrium_3.hdr", dir = fresh_dir("enhance"),
                      list = data + "/memorial/exposures.txt";
    // clang-format off
    const auto r = run_all({
        {"info", hdr}, {"tonemap", "-q", hdr, "-o", dir + "/blues.png", "--blues-sat", "-100"},
        {"enhance", "-q", hdr, "-o", dir + "/a.png"},
        {"tonemap", "-q", "--method", "enhancer", hdr, "-o", dir + "/b.png"},
        {"enhance", "-q", "--bits", "16", "--strength", "20", hdr, "-o", dir + "/w.png"},
        {"merge", "-q", "-e", list, "-o", dir + "/m.hdr"},
        {"enhance", "-q", "-e", list, "-o", dir + "/direct.png"}});
    // clang-format on
    ASSERT_TRUE(all_ok(r));
    expect_has(r[0].out, {"1024 x 676"});
    ASSERT_EQ(run({"enhance", "-q", dir + "/m.hdr", "-o", dir + "/via.png"}).code, 0);
    const Image a = read_image(dir + "/a.png"), wide = read_image(dir + "/w.png");
    EXPECT_EQ(a.shape(), std::make_tuple(1024, 676, size_t{1}));
    EXPECT_EQ(a.px, read_image(dir + "/b.png").px) << "tonemap --method enhancer is enhance";
    EXPECT_EQ(wide.format, OIIO::TypeDesc::UINT16);
    EXPECT_NE(wide.px.size(), 0u);
    EXPECT_EQ(read_image(dir + "/direct.png").px, read_image(dir + "/via.png").px)
        << "brackets give the merged file's rendering";
}

// The number after `after` (from `from` on) in a report; NaN when absent.
double figure(const std::string &out, const std::string &after, size_t from = 0) {
    const size_t at = out.find(after, from);
    return at == std::string::npos ? std::nan("") : std::atof(out.c_str() + at + after.size());
}

TEST(Cli, DemoOnBuiltInSceneAndOnItsBrackets) {
    BV_REQUIRE_TOOL();
    const std::string work = fresh_dir("demo"), again = fresh_dir("demo2"),
                      d = work + "/brackvista-demo";
    const Result r = run({"demo", "--size", "384x256"}, work);
    ASSERT_EQ(r.code, 0) << r.err;
    for (const char *f : {"merged.hdr", "merged.tif", "fused.png"})
        EXPECT_TRUE(fs::exists(d + "/" + f)) << f;
    EXPECT_EQ(text_of(d + "/summary.txt") + "  summary.txt\n", r.out);
    const auto more = run_all({{"demo", "-q", "--size", "384x256", "-o", again},
                               {"demo", "-o", work + "/fromfolder", d + "/brackets"}});
    ASSERT_TRUE(all_ok(more));

    const Image truth = read_image(d + "/scene-truth.exr"), png = read_image(d + "/tonemapped.png");
    double lo = 1e30, hi = 0;
    for (size_t i = 0; i < truth.px.size(); i += 3) {
        const double y = 0.2126 * truth.px[i] + 0.7152 * truth.px[i + 1] + 0.0722 * truth.px[i + 2];
        if (y > 0) lo = std::min(lo, y), hi = std::max(hi, y);
    }
    EXPECT_GE(std::log2(hi / lo), 14.0);
    EXPECT_EQ(png.shape(), std::make_tuple(384, 256, size_t{1}));
    EXPECT_LT(*std::min_element(png.px.begin(), png.px.end()), 0.1f);
    EXPECT_GT(*std::max_element(png.px.begin(), png.px.end()), 0.9f);

    // Pixel-ratio exposures within 0.1 stop of the truth; the median rule about a stop off.
    const double worst = figure(r.out, "largest error: pixel ratios "),
                 median = figure(r.out, "median brightness ", r.out.find("largest error: "));
    EXPECT_LT(worst, 0.1) << r.out;
    EXPECT_GT(median, 0.5) << r.out;
    // The merged radiance follows the true scene closely.
    const double deviation = figure(r.out, "median deviation "),
                 within = figure(r.out, "stops, ", r.out.find("median deviation "));
    EXPECT_LT(deviation, 0.2) << r.out;
    EXPECT_GT(within, 70.0) << r.out;
    const std::string cv = opencv_view(d + "/merged.hdr");
    if (!cv.empty()) {
        EXPECT_EQ(cv.rfind("384 256 1 ", 0), 0u) << cv;
    }

    // Same seed, same bytes; brackets carry true times (1/8192 s to 1/2 s) and replay.
    EXPECT_EQ(text_of(again + "/merged.hdr"), text_of(d + "/merged.hdr"));
    EXPECT_EQ(text_of(again + "/fused.png"), text_of(d + "/fused.png"));
    for (int k = 1; k <= 7; ++k) {
        auto bracket =
            OIIO::ImageInput::open(d + "/brackets/bracket-" + std::to_string(k) + ".jpg");
        ASSERT_TRUE(bracket) << k;
        EXPECT_EQ(bracket->spec().width, 384);
        const float t = bracket->spec().get_float_attribute("ExposureTime", 0.0f);
        EXPECT_NEAR(t, std::ldexp(1.0, 2 * k - 15), 1e-2 * t) << k;
    }
    const Result &f = more[1];
    EXPECT_TRUE(f.err.empty()) << f.err;
    expect_has(f.out, {"against the EXIF ones"});
    EXPECT_LT(figure(f.out, "largest error: pixel ratios "), 0.1) << f.out;
    const double range = figure(r.out, "merged HDR: "), replayed = figure(f.out, "merged HDR: ");
    EXPECT_NEAR(replayed, range, 0.25);
    EXPECT_TRUE(fs::exists(work + "/fromfolder/tonemapped.png"));
    expect_has(text_of(work + "/fromfolder/merged.hdr"),
               {"CAMERA=Brackvista demo camera\n", "APERTURE=8.00\n", "ISO=100\n"});
}

TEST(Cli, CtrlCCancelsAndRemovesPartialOutput) {
    BV_REQUIRE_TOOL();
    const std::string out = fresh_dir("cancel") + "/out";
    const pid_t pid = fork();
    if (pid == 0) {  // only async-signal-safe calls until exec
        dup2(open("/dev/null", O_WRONLY), 2);
        execl(kTool, kTool, "demo", "-q", "--size", "4096x2730", "-o", out.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    }
    ASSERT_GT(pid, 0);
    // Interrupt once the work has started (the output folder exists).
    int status = 0;
    bool exited = false;
    for (int waited = 0; waited < 600 && !exited && !fs::exists(out); ++waited) {
        exited = waitpid(pid, &status, WNOHANG) == pid;
        usleep(50 * 1000);
    }
    if (!exited) {
        usleep(200 * 1000);
        kill(pid, SIGINT);
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
    }
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 130);
    std::error_code none;  // no folder at all is fine too
    for (const auto &e : fs::recursive_directory_iterator(out, none))
        EXPECT_EQ(e.path().filename().string().find(".part"), std::string::npos) << e.path();
}

// Brackets of 40, 120, 220 at EV -2, 0, +2 over a result of 100: a base layer
// of 50 % at 0 EV gives 109 (fixed point, not 110); a brush layer of 99 % at
// +2 EV painted on the left half gives 218 there.
TEST(Cli, BlendPaintsLayersThroughAMask) {
    BV_REQUIRE_TOOL();
    const std::string out = temp_path("blend.png"), shown = temp_path("shown.png");
    const Result r = run({"blend", "-q", "-o", out, in("result.png"), in("b0.png"), in("b1.png"),
                          in("b2.png"), "-e", "1,4,16", "--base", "50@0", "--layers", "99@2",
                          "--brush", in("mask.png"), "--show-brush", shown});
    ASSERT_EQ(r.code, 0) << r.err;
    const Image img = read_image(out), preview = read_image(shown);
    ASSERT_EQ(img.width, kW);
    ASSERT_EQ(preview.width, kW);
    for (int x = 0; x < kW; ++x) EXPECT_EQ(img.level(x, 5, 1), x < kW / 2 ? 218 : 109) << x;
    // The preview tints the painted half of the last bracket (220) a quarter to blue.
    EXPECT_EQ(preview.level(0, 0, 0), 165);
    EXPECT_EQ(preview.level(0, 0, 2), 228);
    EXPECT_EQ(preview.level(kW - 1, 0, 0), 220);
}

// Fusing flat brackets lies between them; 16-bit, temporary files, ghost mask.
TEST(Cli, FuseBracketsWithOptions) {
    BV_REQUIRE_TOOL();
    const std::string dir = fresh_dir("fuse"), spill = dir + "/spill";
    fs::create_directories(spill);
    const std::vector<Args> options = {
        {"-o", dir + "/mem.png"},
        {"-o", dir + "/files.png", "--temp-dir", spill, "-j", "3"},
        {"-o", dir + "/deep.tif", "--bits", "16", "--detail", "6", "--moire", "6"},
        {"-o", dir + "/ghost.png", "--mask", in("mask.png"), "--mask-bracket", "3"},
        {"-o", dir + "/two.png", "--two-pass"},
        {"-o", dir + "/auto.png", "--ghosts", "auto"},
    };
    std::vector<Args> calls;
    for (const auto &o : options)
        calls.push_back(cat(cat({"fuse", "-q"}, o), {in("b0.png"), in("b1.png"), in("b2.png")}));
    ASSERT_TRUE(all_ok(run_all(calls)));
    std::vector<Image> img;
    for (size_t i = 0; i < options.size(); ++i) {
        img.push_back(read_image(options[i][1]));
        EXPECT_EQ(img[i].shape(), std::make_tuple(kW, kH, size_t{i == 2 ? 2u : 1u})) << i;
    }
    EXPECT_EQ(img[0].px, img[1].px) << "temporary files changed the picture";
    EXPECT_TRUE(fs::is_empty(spill)) << "temporary files left behind";
    EXPECT_GT(img[0].level(60, 20, 1), 40);
    EXPECT_LT(img[0].level(60, 20, 1), 220);
    // Inside the mask the third bracket alone; outside, the usual blend.
    EXPECT_NEAR(img[3].level(16, 20, 1), 220, 6);
    EXPECT_NEAR(img[3].level(240, 20, 1), img[0].level(240, 20, 1), 6);
}

}  // namespace
