// Radiance files: readers, writers, packet layout, hostile input, interop.
#include <sys/mman.h>

#include <chrono>
#include <clocale>
#include <map>

#include "core/radiance/radiance_io.hpp"
#include "test_support.hpp"

namespace {

using bvtest::Bytes;
using bvtest::cv2_run;
using bvtest::kNoOpenCv;
using bvtest::load_raw;
using bvtest::temp_path;
using bvtest::text_of;
using I64 = std::vector<int64_t>;

// Random planar RGBE rows mixing long runs, short runs and noise, like sky and texture.
Bytes runs_image(int w, int h, uint64_t seed) {
    bvtest::Rng rng(seed);
    Bytes img(size_t(4) * w * h);
    for (size_t i = 0; i < img.size();) {
        const uint32_t kind = rng.next() % 4;
        const uint8_t v = uint8_t(rng.next());
        for (size_t len = 1 + rng.next() % (kind == 0 ? 400 : 9); len > 0 && i < img.size(); --len)
            img[i++] = kind == 3 ? uint8_t(rng.next()) : v;
    }
    img[0] = 200;  // a flat file may not start 2, 2, b < 128: that marks run-length rows
    return img;
}

int write_hdr(const std::string &p, int w, int h, const uint8_t *px, const exifInfo *ex = nullptr,
              const char *profile = nullptr) {
    return bv_io_rgbe_write(p.c_str(), w, h, ex, 0, profile, px);
}

// The whole-file reader's result and the pixels it left (0xEE where untouched).
std::pair<int, Bytes> read_hdr(const std::string &p, int w, int h) {
    Bytes img(size_t(4) * w * h, 0xEE);
    const int rc = bv_io_read_rgbe(w, h, p.c_str(), img.data());
    return {rc, img};
}

// The probe's result, width, height and file size.
I64 probe(const std::string &p, float *primaries = nullptr) {
    RgbeDims d{};
    const int rc = rgbe_dim(p.c_str(), primaries, &d);
    return {rc, d.width, d.height, d.fileSize};
}

// Bytes after the resolution line.
Bytes pixel_data(const std::string &path) {
    const std::string s = text_of(path);
    return Bytes(s.begin() + s.find('\n', s.find("\n-Y ") + 1) + 1, s.end());
}

Bytes encode(const Bytes &c) {
    Bytes out(2 * c.size() + 2);
    out.resize(bv::radiance::encode_component(c.data(), c.size(), out.data()));
    return out;
}

std::string header_of(const std::string &path) {
    const std::string t = text_of(path);
    return t.substr(0, t.find("-Y 1 +X 2\n") + 10);
}

std::string case_path(const std::string &name) { return "tests/data/hdr/" + name; }

// Value of the hand-made 4 x 2 image at row y, component c, column x.
uint8_t good(int y, int c, int x) { return uint8_t(10 * y + 3 * c + x + 1); }

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

TEST(Radiance, RoundTripBothWritersAllWidths) {
    std::vector<int> widths = {32767, 32768};
    for (int w = 1; w <= 700; w += 1 + w % 5) widths.push_back(w);
    for (int w : widths) {
        SCOPED_TRACE(w);
        const int h = w >= 32767 ? 3 : 11;
        const Bytes img = runs_image(w, h, 1000 + w);
        const std::string p = temp_path("rt.hdr"), s = temp_path("strip.hdr");
        ASSERT_LE(encode(img).size(), 2 * img.size()) << "never over two bytes per byte";
        ASSERT_EQ(write_hdr(p, w, h, img.data()), h);
        EXPECT_EQ(probe(p), (I64{4, w, h, int64_t(text_of(p).size())}));
        EXPECT_TRUE(read_hdr(p, w, h) == std::pair(h, img));
        // Run-length rows up to 32767, flat beyond: the scanline header tells.
        const Bytes data = pixel_data(p);
        const bool rle = data[0] == 2 && data[1] == 2 && data[2] < 128;
        EXPECT_EQ(rle, w <= 32767);
        EXPECT_TRUE(rle || data.size() == img.size()) << "flat rows are stored as they are";
        for (int k = 0; k * 4 < h; ++k)
            EXPECT_EQ(
                bv_write_strip_rgbe(s.c_str(), k, 4, w, h, 0, img.data() + size_t(16) * w * k),
                std::min(4, h - k * 4));
        Bytes back(img.size(), 0);
        ASSERT_EQ(decomp2(s.c_str(), w, h, back.data()), h);
        EXPECT_EQ(back, img) << "strips";
        EXPECT_EQ(pixel_data(s), data) << "both writers code rows identically";
    }
}

TEST(Radiance, EncoderPacketLayout) {
    Bytes ramp(300), mix126(126), mix125(125);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t(i * 7 % 251);
    for (size_t i = 0; i < 126; ++i) mix126[i] = mix125[i < 125 ? i : 0] = uint8_t(i);
    auto cat = [](std::initializer_list<Bytes> parts) {
        Bytes r;
        for (const Bytes &p : parts) r.insert(r.end(), p.begin(), p.end());
        return r;
    };
    auto part = [](const Bytes &b, size_t at, size_t n) { return Bytes(&b[at], &b[at] + n); };
    const Bytes in126 = cat({mix126, Bytes(10, 200)}), in125 = cat({mix125, {200, 200, 200, 7}});
    const std::pair<Bytes, Bytes> cases[] = {
        {{1, 2, 2, 3}, {4, 1, 2, 2, 3}}, {{1, 2, 2, 2, 2, 2, 3}, {1, 1, 128 + 5, 2, 1, 3}},
        {{9, 9, 9, 9}, {4, 9, 9, 9, 9}}, {{9}, {1, 9}}, {Bytes(5, 7), {133, 7}},
        {Bytes(300, 7), {255, 7, 255, 7, 128 + 46, 7}},
        // Literal packets stop at 127 bytes even though 128 would be legal.
        {ramp,
         cat({{127}, part(ramp, 0, 127), {127}, part(ramp, 127, 127), {46}, part(ramp, 254, 46)})},
        // A run behind a long literal, and a short run that overflows it.
        {in126, cat({{126}, mix126, {128 + 10, 200}})},
        {in125, cat({{127}, part(in125, 0, 127), {2, 200, 7}})},
    };
    for (const auto &[in, out] : cases) EXPECT_EQ(encode(in), out) << in.size() << " bytes";
}

namespace {

const char kCanonHeader[] =
    "#?RADIANCE\nCAMERA=Canon EOS 5D\nCAPDATE=2024:05:01 10:11:12\n"
    "ICC_PROFILE=Adobe RGB (1998)\nSHUTTER=0.004000\nAPERTURE=5.60\nISO=400\n"
    "FOCAL_LENGTH=50.00\n35MM_EQUIV=80\nFOCAL_PLANE_XRESOLUTION=3888.00\n"
    "FOCAL_PLANE_RESOLUTIONUNIT=2\n"
    "Generated with Brackvista Pro 4.1 for Mac OS X\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 2\n";

// Camera, date, profile, 1/250 s, f/5.6, ISO 400, 50 mm (80 mm), 3888 dots per inch.
exifInfo canon_exif() {
    return {"Canon EOS 5D", "2024:05:01 10:11:12", 0, 1, 250, 56, 10, 400, 50, 1, 80, 3888, 1, 2};
}

}  // namespace

TEST(Radiance, WriterHeaderLines) {
    const Bytes px(8, 0);
    exifInfo ex{};
    const std::string p = temp_path("hdr_empty.hdr");
    ASSERT_EQ(write_hdr(p, 2, 1, px.data(), &ex), 1);
    EXPECT_EQ(header_of(p),
              "#?RADIANCE\nGenerated with Brackvista Pro 4.1 for Mac OS X\n"
              "FORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 2\n");
    ex = canon_exif();
    ASSERT_EQ(write_hdr(p, 2, 1, px.data(), &ex, "Adobe RGB (1998)"), 1);
    EXPECT_EQ(header_of(p), kCanonHeader);
    // Unterminated full-width fields, a date with its line feed, a profile starting high.
    std::memset(ex.camera, 'c', sizeof ex.camera);
    std::memcpy(ex.capDate, "2024:05:01 10:11:1\n\0", 20);
    ex.exposureNum = 0;
    char longp[32];
    std::memset(longp, 'p', sizeof longp);
    ASSERT_EQ(write_hdr(p, 2, 1, px.data(), &ex, longp), 1);
    EXPECT_NE(text_of(p).find("CAMERA=" + std::string(64, 'c') + "\nCAPDATE=2024:05:01 10:11:1\n" +
                              "ICC_PROFILE=" + std::string(32, 'p') + "\nAPERTURE="),
              std::string::npos);
    longp[0] = char(0xE9);
    ASSERT_EQ(write_hdr(p, 2, 1, px.data(), &ex, longp), 1);
    EXPECT_EQ(text_of(p).find("ICC_PROFILE"), std::string::npos);
    // The strip writer's header carries no metadata.
    ASSERT_EQ(bv_write_strip_rgbe(p.c_str(), 0, 5, 2, 1, 0, px.data()), 1);
    EXPECT_EQ(header_of(p),
              "#?RADIANCE\n# Generated by Brackvista Pro v4.0\nFORMAT=32-bit_rle_rgbe\n\n"
              "-Y 1 +X 2\n");
}

TEST(Radiance, HeaderNumbersIgnoreTheHostLocale) {
    const char *found = nullptr;
    for (const char *l : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8"})
        if ((found = std::setlocale(LC_NUMERIC, l))) break;
    // None installed: compile one into a private folder, when the locale sources are there.
    const std::string dir = temp_path("locales");
    if (!found && std::system(("mkdir -p " + dir + " && localedef -i de_DE -f UTF-8 " + dir +
                               "/de_DE.UTF-8 >/dev/null 2>&1")
                                  .c_str()) == 0) {
        setenv("LOCPATH", dir.c_str(), 1);
        found = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
        unsetenv("LOCPATH");
    }
    if (!found) GTEST_SKIP() << "no locale with a decimal comma is available";
    exifInfo ex = canon_exif(), back{};
    const Bytes px(8, 0);
    const std::string p = temp_path("locale.hdr");
    const int rc = write_hdr(p, 2, 1, px.data(), &ex, "Adobe RGB (1998)");
    const int lines = extract_rgbe_exif(p.c_str(), &back);
    std::setlocale(LC_NUMERIC, "C");
    ASSERT_EQ(rc, 1);
    EXPECT_EQ(header_of(p), kCanonHeader);
    EXPECT_EQ(lines, 14);
    EXPECT_EQ(std::vector<int>({back.exposureDen, back.fNumberNum, back.focalNum}),
              std::vector<int>({24999, 560, 5000}));
}

TEST(Radiance, MetadataReadBack) {
    // 1/2 s, f/8, ISO 100, 35 mm (35 mm).
    const exifInfo ex{"Nikon D800", "2023:01:02 03:04:05", 0, 1, 2, 8, 1, 100, 35, 1, 35, 0, 0, 0};
    exifInfo b{};
    const Bytes px(4 * 3 * 2, 0);
    const std::string p = temp_path("exif.hdr");
    ASSERT_EQ(write_hdr(p, 3, 2, px.data(), &ex, "ProPhoto RGB"), 2);
    b.profile = 7;
    // Twelve lines, from #?RADIANCE to the blank line; 35MM_EQUIV is not read back.
    EXPECT_EQ(extract_rgbe_exif(p.c_str(), &b), 12);
    EXPECT_STREQ(b.camera, "Nikon D800");
    EXPECT_EQ(std::string(b.capDate, 19), "2023:01:02 03:04:05");
    EXPECT_EQ(std::vector<int>({b.profile, b.exposureNum, b.exposureDen, b.fNumberNum, b.fNumberDen,
                                b.iso, b.focalNum, b.focalDen, b.focal35mm}),
              std::vector<int>({2, 100, 200, 800, 100, 100, 3500, 100, 0}));
    // 0.004f lies just above 1/250: 100 / 0.004f truncates to 24999. Unreadable values keep
    // the caller's fields.
    const std::string q = bvtest::write_text(
        "exif_values.hdr",
        "#?RADIANCE\nSHUTTER=0.004\nAPERTURE=2\nFOCAL_LENGTH=0\nISO=abc\nCAMERA=\n"
        "ICC_PROFILE=sRGB IEC61966-2.1\nCAPDATE=2020:01:01 00:00:00 and more text\n\n-Y 1 +X 1\n");
    exifInfo v{};
    std::strcpy(v.camera, "kept");
    v.focalNum = 5, v.focalDen = 6, v.iso = 9;
    EXPECT_EQ(extract_rgbe_exif(q.c_str(), &v), 9);
    EXPECT_EQ(std::vector<int>({v.exposureNum, v.exposureDen, v.fNumberNum, v.fNumberDen,
                                v.focalNum, v.focalDen, v.iso, v.profile}),
              std::vector<int>({100, 24999, 200, 100, 5, 6, 9, 0}));
    EXPECT_STREQ(v.camera, "kept");
    EXPECT_EQ(std::string(v.capDate, 20), "2020:01:01 00:00:00 ");
    for (auto [f, num, den] : {std::tuple{INFINITY, INT32_MAX, 100}, {-1.0f, 3, 3}, {NAN, 3, 3}}) {
        int32_t n = 3, d = 3;
        bv::radiance::float_to_fraction(f, &n, &d);
        EXPECT_EQ(std::pair(n, d), std::pair(num, den)) << f;
    }
    for (const char *bad : {"#?RADIANCE\nCAMERA=x\n\n", "#?RADIANCE\nCAMERA=x\n\n\x0e\x1b\n"})
        EXPECT_EQ(extract_rgbe_exif(bvtest::write_text("exif_bad.hdr", bad).c_str(), &v),
                  BV_RAD_ERR_IO);
    EXPECT_EQ(extract_rgbe_exif(temp_path("missing.hdr").c_str(), &v), BV_RAD_ERR_IO);
}

TEST(Radiance, HeaderEndAndResolution) {
    const std::tuple<const char *, int, int> ends[] = {
        {" \t \n", 128, 1}, {"\n", 128, 1}, {"", 128, 1}, {"\r\n", 128, 0}, {" \r\n", 128, 0},
        {"#?RADIANCE\n", 128, 0}, {"  x", 2, 1} /* only n bytes are examined */, {nullptr, 128, 0}};
    // Numbers beyond int are not converted; only -Y ... +X is understood.
    const std::tuple<const char *, int, int> res[] = {
        {"-Y   12\t+X 34\n", 12, 34}, {"-Y 99999999999 +X 3\n", 0, 0}, {"-Y 7 -X 3\n", 7, 0}};
    for (auto [line, n, end] : ends) EXPECT_EQ(rgbe_end_of_header(line, n), end) << n;
    for (auto [line, h, w] : res) {
        int got[2] = {0, 0};
        bv::radiance::parse_resolution(line, &got[0], &got[1]);
        EXPECT_EQ(std::vector<int>(got, got + 2), std::vector<int>({h, w})) << line;
    }
    RgbeDims d{};
    EXPECT_EQ(rgbe_dim(nullptr, nullptr, &d), BV_RAD_ERR_IO);
}

TEST(Radiance, Primaries) {
    float p[8];
    RgbeDims d{};
    ASSERT_EQ(rgbe_dim(case_path("primaries.hdr").c_str(), p, &d), 4);
    EXPECT_EQ(d.primariesCount, 32);
    EXPECT_EQ(std::vector<float>(p, p + 8),
              std::vector<float>({0.64f, 0.33f, 0.3f, 0.6f, 0.15f, 0.06f, 0.3127f, 0.329f}));
    // Without a complete PRIMARIES= line the caller's count decides.
    d = RgbeDims{};
    std::fill(p, p + 8, 5.0f);
    ASSERT_EQ(rgbe_dim(case_path("primaries_partial.hdr").c_str(), p, &d), 4);
    EXPECT_EQ(d.primariesCount, 0);
    EXPECT_EQ(std::vector<float>(p, p + 8), std::vector<float>(8, 0.0f));
    d.primariesCount = 32;
    ASSERT_EQ(rgbe_dim(case_path("primaries_partial.hdr").c_str(), p, &d), 4);
    EXPECT_EQ(std::vector<float>(p, p + 8),
              std::vector<float>({0.648431f, 0.330856f, 0.321152f, 0.597871f, 0.155886f, 0.066044f,
                                  0.3101f, 0.3162f}));
}

// Files of tests/scripts/make_hdr_cases.py: the probe's line count or code, the reader's code.
TEST(Radiance, HostileFilesGetTheirCodes) {
    constexpr int kNot = 999;  // not probed
    const std::tuple<const char *, int, int, int, int> cases[] = {
        {"blank_line_space.hdr", 4, 3, kNot, BV_RAD_ERR_DIMENSIONS},
        {"blank_line_space.hdr", 4, 2, kNot, 2}, {"blank_line_tab.hdr", 4, 2, 2, 2},
        {"long_header_line.hdr", 4, 2, 5, 2},  // the long line in three 127-byte pieces
        // Carriage returns keep the header open until the file ends.
        {"blank_line_crlf.hdr", 4, 2, BV_RAD_ERR_NO_RESOLUTION, BV_RAD_ERR_IO},
        {"no_resolution_line.hdr", 4, 2, BV_RAD_ERR_NO_RESOLUTION, BV_RAD_ERR_IO},
        {"malformed_resolution.hdr", 4, 2, BV_RAD_ERR_ZERO_SIZE, BV_RAD_ERR_DIMENSIONS},
        {"zero_width.hdr", 4, 2, BV_RAD_ERR_ZERO_SIZE, kNot}, {"absent.hdr", 4, 2, BV_RAD_ERR_IO, BV_RAD_ERR_IO},
        {"literal_128_run_129.hdr", 130, 1, kNot, 1}, {"flat_3x2.hdr", 3, 2, kNot, 2},
        // The first scanline decides whether rows are run-length coded (2, 2, b < 128) or flat.
        {"flat_starting_2_2.hdr", 4, 2, kNot, BV_RAD_ERR_PACKET}, {"scanline_length_65535_first.hdr", 4, 2, kNot, 2},
        {"scanline_length_65535_second.hdr", 4, 2, kNot, BV_RAD_ERR_SCANLINE_HEADER},
        {"scanline_length_0.hdr", 4, 2, kNot, BV_RAD_ERR_SCANLINE_WIDTH},
        {"scanline_width_plus_one.hdr", 4, 2, kNot, BV_RAD_ERR_SCANLINE_WIDTH},
        {"packet_code_0.hdr", 4, 1, kNot, BV_RAD_ERR_PACKET}, {"packet_past_width.hdr", 4, 1, kNot, BV_RAD_ERR_PACKET},
        {"literal_past_width.hdr", 4, 1, kNot, BV_RAD_ERR_PACKET}, {"truncated_scanline.hdr", 4, 2, kNot, BV_RAD_ERR_IO},
        {"truncated_run_value.hdr", 4, 1, kNot, BV_RAD_ERR_IO}, {"truncated_flat.hdr", 3, 3, kNot, BV_RAD_ERR_IO},
        {"header_only_eof.hdr", 4, 2, kNot, BV_RAD_ERR_IO}, {"lying_height.hdr", 4, 5, kNot, BV_RAD_ERR_IO},
        {"lying_width.hdr", 6, 2, kNot, BV_RAD_ERR_SCANLINE_WIDTH}};
    std::map<std::string, Bytes> got;
    testing::internal::CaptureStderr();
    for (auto [file, w, h, lines, read] : cases) {
        EXPECT_EQ(lines == kNot ? kNot : probe(case_path(file))[0], lines) << file;
        if (read == kNot) continue;
        int rc;
        std::tie(rc, got[file]) = read_hdr(case_path(file), w, h);
        EXPECT_EQ(rc, read) << file;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "bv_io_read_rgbe - dim found in Radiance file is 4 x 2  while should be 4 x 3\n"
              "bv_io_read_rgbe - dim found in Radiance file is 0 x 0  while should be 4 x 2\n"
              "bv_io_read_rgbe - could not open input Radiance file\n");
    for (const char *name : {"blank_line_space.hdr", "blank_line_tab.hdr", "long_header_line.hdr"})
        for (int i = 0; i < 32; ++i)
            ASSERT_EQ(got[name][i], good(i / 16, i / 4 % 4, i % 4)) << name;
    const Bytes &lit = got["literal_128_run_129.hdr"];
    for (int i = 0; i < 4 * 130; ++i)
        ASSERT_EQ(lit[i], i % 130 < 128 ? i % 130 : 200 + i % 130 - 128) << i;
    for (int i = 0; i < 24; ++i)  // flat pixels R, G, B, E land in planes
        ASSERT_EQ(got["flat_3x2.hdr"][i], 100 + i / 12 * 12 + i % 3 * 4 + i % 12 / 3) << i;
    EXPECT_EQ(got["scanline_length_65535_first.hdr"][0], 2);
    EXPECT_EQ(got["scanline_length_65535_first.hdr"][12], 255);
    EXPECT_EQ(got["scanline_length_65535_second.hdr"][15], good(0, 3, 3))
        << "rows completed before the error stay";
    EXPECT_EQ(got["truncated_flat.hdr"][23], 100 + 23) << "second flat row complete";
    Bytes img(4 * 130);
    const std::string flat = case_path("flat_3x2.hdr");
    EXPECT_EQ(bv_io_read_rgbe(4, 2, flat.c_str(), nullptr), BV_RAD_ERR_ARGUMENTS);
    EXPECT_EQ(bv_io_read_rgbe(-4, 2, flat.c_str(), img.data()), BV_RAD_ERR_ARGUMENTS);
    EXPECT_EQ(decomp_rle(case_path("literal_128_run_129.hdr").c_str(), 130, 1, img.data()), 1);
    for (long nth : {0L, 1L}) {  // the read buffer, then the flat row buffer
        bvtest::FailAllocation fail(nth);
        const std::string file = case_path(nth ? "flat_3x2.hdr" : "blank_line_tab.hdr");
        EXPECT_EQ(read_hdr(file, nth ? 3 : 4, 2).first, BV_RAD_ERR_MEMORY);
    }
    // Preview reader (file size, preview size): rows not sampled are still checked.
    const std::tuple<const char *, int, int, int, int, int> previews[] = {
        {"blank_line_tab.hdr", 4, 3, 2, 1, BV_RAD_ERR_DIMENSIONS}, {"absent.hdr", 4, 2, 2, 1, BV_RAD_ERR_IO},
        {"scanline_length_65535_second.hdr", 4, 2, 4, 2, BV_RAD_ERR_SCANLINE_HEADER},
        {"scanline_width_plus_one.hdr", 4, 2, 2, 1, BV_RAD_ERR_SCANLINE_WIDTH},
        {"packet_code_0.hdr", 4, 1, 2, 1, BV_RAD_ERR_PACKET}, {"truncated_scanline.hdr", 4, 2, 4, 2, BV_RAD_ERR_IO},
        {"truncated_flat.hdr", 3, 3, 3, 3, BV_RAD_ERR_IO}, {"lying_height.hdr", 4, 5, 4, 5, BV_RAD_ERR_IO},
        {"flat_3x2.hdr", 3, 2, 0, 1, BV_RAD_ERR_ARGUMENTS}, {"scanline_length_65535_second.hdr", 4, 2, 1, 1, 3}};
    for (auto [f, w, h, pw, ph, rc] : previews) {
        Bytes pv(size_t(4) * pw * ph + 4, 0xEE);
        EXPECT_EQ(bv_io_read_preview_rgbe(w, h, pw, ph, case_path(f).c_str(), pv.data()), rc) << f;
    }
}

TEST(Radiance, ClaimedTwoGigabytesFailsPromptly) {
    // The caller maps the 2 GiB the header claims; the readers stop where the data ends.
    for (auto [name, w, h] : {std::tuple{"claims_2gb_rle.hdr", 32767, 16385},
                              std::tuple{"claims_2gb_flat.hdr", 32768, 16384}}) {
        const std::string path = case_path(name);
        const size_t size = size_t(4) * w * h;
        void *m = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        ASSERT_NE(m, MAP_FAILED);
        const auto t0 = std::chrono::steady_clock::now();
        auto *out = static_cast<uint8_t *>(m);
        EXPECT_EQ(bv_io_read_rgbe(w, h, path.c_str(), out), BV_RAD_ERR_IO);
        EXPECT_EQ(bv_io_read_preview_rgbe(w, h, 64, 32, path.c_str(), out), BV_RAD_ERR_IO);
        EXPECT_LT(seconds_since(t0), 1.0);
        munmap(m, size);
    }
}

TEST(Radiance, PreviewSampling) {
    const int w = 301, h = 37;
    const Bytes img = runs_image(w, h, 77);
    const std::string p = temp_path("preview.hdr");
    ASSERT_EQ(write_hdr(p, w, h, img.data()), h);
    // Same size is an exact copy; the reader reports height + 1 when all rows were read.
    const std::tuple<int, int, uint64_t> sizes[] = {{w, h, bvtest::digest(img)},
        {7, 3, 13556180980076190327u}, {1, 1, 4014401627988698429u},
        {450, 50, 6991663585522900234u}, {301, 5, 1240201823546018282u}};
    for (auto [pw, ph, want] : sizes) {
        Bytes pv(size_t(4) * pw * ph, 0);
        EXPECT_EQ(bv_io_read_preview_rgbe(w, h, pw, ph, p.c_str(), pv.data()), h + 1);
        EXPECT_EQ(bvtest::digest(pv), want) << pw << "x" << ph;
    }
    // Flat rows: 3 x 2 sampled to 2 x 1 takes columns 0 and 1 of row 0.
    Bytes pv(8, 0);
    ASSERT_EQ(bv_io_read_preview_rgbe(3, 2, 2, 1, case_path("flat_3x2.hdr").c_str(), pv.data()), 3);
    EXPECT_EQ(pv, (Bytes{100, 104, 101, 105, 102, 106, 103, 107}));
}

TEST(Radiance, WriterErrors) {
    const Bytes px(4 * 40000 * 2, 9);
    const uint8_t *x = px.data();
    const std::string e = temp_path("e.hdr"), oom = temp_path("oom.hdr");
    EXPECT_EQ(std::vector<int>({write_hdr("/nonexistent-dir/x.hdr", 2, 1, x),
                                bv_io_rgbe_write(nullptr, 2, 1, nullptr, 0, nullptr, x),
                                write_hdr(e, 0, 1, x), bv_write_strip_rgbe(e.c_str(), -1, 4, 2, 8, 0, x),
                                bv_write_strip_rgbe(e.c_str(), 2, 4, 2, 8, 0, x)}),
              std::vector<int>({BV_RAD_ERR_IO, BV_RAD_ERR_IO, BV_RAD_ERR_ARGUMENTS,
                                BV_RAD_ERR_ARGUMENTS, 0}));
    // A full device: run-length rows fail with -1, flat rows with -2.
    EXPECT_EQ(write_hdr("/dev/full", 300, 2, x), BV_RAD_ERR_IO);
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_hdr("/dev/full", 40000, 2, x), BV_RAD_ERR_FLAT_WRITE);
    EXPECT_EQ(bv_write_strip_rgbe("/dev/full", 0, 2, 40000, 2, 0, x), BV_RAD_ERR_FLAT_WRITE);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "bv_io_rgbe_write uncompressed failed on line 0\n"
              "bv_io_rgbe_write uncompressed failed on line 0\n");
    EXPECT_EQ(bv_write_strip_rgbe("/dev/full", 1, 2, 300, 4, 0, x), BV_RAD_ERR_IO);
    for (long n : {0L, 1L}) {
        bvtest::FailAllocation fail(n);
        EXPECT_EQ(write_hdr(oom, 40000, 1, x), BV_RAD_ERR_MEMORY);
    }
    bvtest::FailAllocation fail(0);
    EXPECT_EQ(bv_write_strip_rgbe(oom.c_str(), 0, 1, 300, 1, 0, x), BV_RAD_ERR_MEMORY);
}

// Our files at widths OpenCV reads as run-length (8 and up), and a file of theirs.
TEST(Radiance, OpenCvReadsOurFilesAndWeReadTheirs) {
    std::string args = "decode";
    std::vector<bvtest::Planar> ours;
    for (int w : {8, 300, 32768}) {
        bvtest::Planar img(w, w > 1000 ? 2 : 9);
        img.px = runs_image(w, img.h, 31 + w);
        // OpenCV expects normalised pixels (largest mantissa >= 128), as encoders produce.
        for (int y = 0; y < img.h; ++y)
            for (int x = 0; x < w; ++x)
                *img.at(x, y, 0) |= 0x80, *img.at(x, y, 3) |= !*img.at(x, y, 3);
        const std::string p = temp_path("to_cv_" + std::to_string(w) + ".hdr");
        ASSERT_EQ(write_hdr(p, w, img.h, img.px.data()), img.h);
        args += " " + p + " " + p + ".raw";
        ours.push_back(img);
    }
    // OpenCV writes the runs, dark and very bright pixels it decoded from the 300-wide file.
    const int w = 300, h = 9;
    const std::string raw = temp_path("to_cv_300.hdr.raw"), p = temp_path("from_cv.hdr");
    const int rc = cv2_run(args), rc2 = cv2_run("encode " + raw + " " + p + " " + p + ".raw");
    if (rc == kNoOpenCv) GTEST_SKIP() << "OpenCV's Python module is not installed";
    ASSERT_EQ(rc, 0);
    ASSERT_EQ(rc2, 0);
    for (const auto &img : ours)
        EXPECT_EQ(load_raw(temp_path("to_cv_" + std::to_string(img.w) + ".hdr.raw"), img.w, img.h),
                  img.values())
            << "width " << img.w;
    bvtest::Planar theirs(w, h);
    ASSERT_EQ(bv_io_read_rgbe(w, h, p.c_str(), theirs.px.data()), h);
    EXPECT_EQ(theirs.values(), load_raw(p + ".raw", w, h));
}

TEST(Radiance, RealFiles) {
    const std::string dir = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(dir);
    const std::string atrium = dir + "/hdr/mpi_atrium_3.hdr";
    float prim[8];
    // "#?RADIANCE", the tool line, FORMAT=, the filter line, EXPOSURE=, blank.
    ASSERT_EQ(probe(atrium, prim), (I64{6, 1024, 676, 2236327}));
    exifInfo ex{};
    EXPECT_EQ(extract_rgbe_exif(atrium.c_str(), &ex), 6);
    EXPECT_EQ(std::vector<int>({ex.profile, ex.camera[0]}), std::vector<int>({-1, 0}));
    bvtest::Planar img(1024, 676);
    ASSERT_EQ(bv_io_read_rgbe(1024, 676, atrium.c_str(), img.px.data()), 676);
    EXPECT_EQ(bvtest::digest(img.px), 3223556191519821847u);  // normalised pixels, under 1 % black
    // Rewriting it with our encoder and reading it back changes nothing.
    const std::string p = temp_path("atrium.hdr");
    ASSERT_EQ(write_hdr(p, 1024, 676, img.px.data()), 676);
    EXPECT_TRUE(read_hdr(p, 1024, 676) == std::pair(676, img.px));
    Bytes pv(4 * 256 * 169);
    EXPECT_EQ(bv_io_read_preview_rgbe(1024, 676, 256, 169, atrium.c_str(), pv.data()), 677);
    EXPECT_EQ(pv[0], img.px[0]);
    // OpenCV decodes mantissa x 2^(E - 136) too: both agree bit for bit.
    const std::string raw = temp_path("atrium.raw");
    const int rc = cv2_run("decode " + atrium + " " + raw);
    if (rc != kNoOpenCv) {
        ASSERT_EQ(rc, 0);
        EXPECT_EQ(load_raw(raw, 1024, 676), img.values());
    }
    // Line feeds turned into CR LF: every reader refuses it quickly.
    const std::string bad = dir + "/memorial/memorial-damaged.hdr";
    const auto t0 = std::chrono::steady_clock::now();
    Bytes out(size_t(4) * 512 * 768);
    bvtest::stderr_of([&] { EXPECT_LT(bv_io_read_rgbe(512, 768, bad.c_str(), out.data()), 0); });
    EXPECT_LT(bv_io_read_preview_rgbe(512, 768, 128, 192, bad.c_str(), out.data()), 0);
    EXPECT_LT(probe(bad, prim)[0], 0);
    EXPECT_LT(extract_rgbe_exif(bad.c_str(), &ex), 0);
    EXPECT_LT(seconds_since(t0), 2.0);
}
