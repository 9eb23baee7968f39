// Radiance files: readers, writers, encoder layout, hostile input, interop.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <chrono>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../fuzz/rle_reference.hpp"
#include "core/radiance/radiance_io.hpp"
#include "core/rgbe/rgbe_pixel.hpp"
#include "test_support.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

// Random planar RGBE rows with long runs, short runs and noise mixed, the way
// real images alternate flat sky and texture.
Bytes random_image(int w, int h, uint64_t seed) {
    bvtest::Rng rng(seed);
    Bytes img(size_t(4) * w * h);
    size_t i = 0;
    while (i < img.size()) {
        const uint32_t kind = rng.next() % 4;
        size_t len = 1 + rng.next() % (kind == 0 ? 400 : 9);
        const uint8_t v = uint8_t(rng.next());
        for (; len > 0 && i < img.size(); --len, ++i) img[i] = kind == 3 ? uint8_t(rng.next()) : v;
    }
    // A flat file may not start with 2, 2, b < 128: that marks run-length rows.
    img[0] = 200;
    return img;
}

std::string text_of(const std::string &path) {
    Bytes b;
    EXPECT_TRUE(bvtest::read_file(path, &b)) << path;
    return std::string(b.begin(), b.end());
}

// Bytes after the resolution line.
Bytes pixel_data(const std::string &path) {
    Bytes b;
    bvtest::read_file(path, &b);
    const std::string s(b.begin(), b.end());
    const size_t at = s.find("\n-Y ");
    const size_t end = s.find('\n', at + 1);
    return Bytes(b.begin() + end + 1, b.end());
}

std::string write_text(const std::string &name, const std::string &content) {
    const std::string p = bvtest::temp_path(name);
    EXPECT_TRUE(bvtest::write_file(p, content.data(), content.size()));
    return p;
}

Bytes reference_encode(const Bytes &c) { return bvref::reference_encode(c.data(), c.size()); }

Bytes encode(const Bytes &c) {
    Bytes out(2 * c.size() + 2);
    out.resize(bv::radiance::encode_component(c.data(), c.size(), out.data()));
    return out;
}

}  // namespace

TEST(Radiance, RoundTripBothWritersAllWidths) {
    for (int w : {1, 7, 8, 300, 32767, 32768}) {
        const int h = w >= 32767 ? 3 : 11;
        const Bytes img = random_image(w, h, 1000 + w);
        const std::string p = bvtest::temp_path("rt_" + std::to_string(w) + ".hdr");
        ASSERT_EQ(bv_io_rgbe_write(p.c_str(), w, h, nullptr, 0, nullptr, img.data()), h) << w;
        RgbeDims dims{};
        ASSERT_GT(rgbe_dim(p.c_str(), nullptr, &dims), 0);
        EXPECT_EQ(dims.width, w);
        EXPECT_EQ(dims.height, h);
        Bytes back(img.size(), 0xAB);
        ASSERT_EQ(bv_io_read_rgbe(w, h, p.c_str(), back.data()), h) << w;
        EXPECT_EQ(back, img) << "width " << w;
        // Run-length rows up to 32767, flat beyond: the scanline header tells.
        const Bytes data = pixel_data(p);
        const bool rle = data[0] == 2 && data[1] == 2 && data[2] < 128;
        EXPECT_EQ(rle, w <= 32767) << w;
        if (!rle) {
            EXPECT_EQ(data.size(), img.size());
        }

        // The same image in strips of 4 rows (the last one shorter).
        const std::string s = bvtest::temp_path("strip_" + std::to_string(w) + ".hdr");
        const int sh = 4;
        for (int k = 0; k * sh < h; ++k) {
            const int rows = std::min(sh, h - k * sh);
            EXPECT_EQ(
                bv_write_strip_rgbe(s.c_str(), k, sh, w, h, 0, img.data() + size_t(4) * w * sh * k),
                rows);
        }
        std::fill(back.begin(), back.end(), 0);
        ASSERT_EQ(decomp2(s.c_str(), w, h, back.data()), h);
        EXPECT_EQ(back, img) << "strips, width " << w;
        EXPECT_EQ(pixel_data(s), data) << "both writers code rows identically";
    }
}

TEST(Radiance, EncoderPacketLayout) {
    EXPECT_EQ(encode({1, 2, 2, 3}), (Bytes{4, 1, 2, 2, 3}));
    EXPECT_EQ(encode({1, 2, 2, 2, 2, 2, 3}), (Bytes{1, 1, 128 + 5, 2, 1, 3}));
    EXPECT_EQ(encode({9, 9, 9, 9}), (Bytes{4, 9, 9, 9, 9}));
    EXPECT_EQ(encode({9}), (Bytes{1, 9}));
    EXPECT_EQ(encode(Bytes(300, 7)), (Bytes{255, 7, 255, 7, 128 + 46, 7}));
    EXPECT_EQ(encode(Bytes(5, 7)), (Bytes{133, 7}));
    // Literal packets stop at 127 bytes even though 128 would be legal.
    Bytes ramp(300);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t(i * 7 % 251);
    const Bytes r = encode(ramp);
    ASSERT_EQ(r.size(), 300u + 3);
    EXPECT_EQ(r[0], 127);
    EXPECT_EQ(r[128], 127);
    EXPECT_EQ(r[256], 46);
    // A run behind a long literal, and a short run that overflows it.
    Bytes mix(126);
    for (size_t i = 0; i < mix.size(); ++i) mix[i] = uint8_t(i);
    mix.insert(mix.end(), 10, 200);
    Bytes want = {126};
    want.insert(want.end(), mix.begin(), mix.begin() + 126);
    want.insert(want.end(), {128 + 10, 200});
    EXPECT_EQ(encode(mix), want);
    mix.resize(125);
    mix.insert(mix.end(), {200, 200, 200, 7});
    want = {127};
    want.insert(want.end(), mix.begin(), mix.begin() + 127);
    want.insert(want.end(), {2, 200, 7});
    EXPECT_EQ(encode(mix), want);
    // Decoding any output of the encoder gives the input back.
    bvtest::Rng rng(5);
    for (int t = 0; t < 600; ++t) {
        // Noise, few distinct values (many short runs), and long runs.
        Bytes c(1 + rng.next() % 700);
        const int kind = t % 3;
        for (size_t i = 0; i < c.size(); ++i)
            c[i] = kind == 0   ? uint8_t(rng.next())
                   : kind == 1 ? uint8_t(rng.next() % 3)
                               : (rng.next() % 40 ? (i ? c[i - 1] : 0) : uint8_t(rng.next()));
        const Bytes e = encode(c);
        ASSERT_EQ(e, reference_encode(c));
        ASSERT_LE(e.size(), 2 * c.size());
        Bytes d;
        for (size_t i = 0; i < e.size();) {
            const int code = e[i++];
            ASSERT_NE(code, 0);
            ASSERT_NE(code, 128);
            if (code > 128) {
                ASSERT_GE(code - 128, 5);
                d.insert(d.end(), code - 128, e[i++]);
            } else {
                d.insert(d.end(), e.begin() + i, e.begin() + i + code);
                i += code;
            }
        }
        ASSERT_EQ(d, c);
    }
}

TEST(Radiance, WriterHeaderLines) {
    const Bytes px(4 * 2 * 1, 0);
    exifInfo ex{};
    const std::string p = bvtest::temp_path("hdr_empty.hdr");
    ASSERT_EQ(bv_io_rgbe_write(p.c_str(), 2, 1, &ex, 0, nullptr, px.data()), 1);
    std::string t = text_of(p);
    EXPECT_EQ(t.substr(0, t.find("-Y 1 +X 2\n") + 10),
              "#?RADIANCE\nGenerated with Brackvista Pro 4.1 for Mac OS X\n"
              "FORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 2\n");

    std::strcpy(ex.camera, "Canon EOS 5D");
    std::strcpy(ex.capDate, "2024:05:01 10:11:12");
    ex.exposureNum = 1, ex.exposureDen = 250;
    ex.fNumberNum = 56, ex.fNumberDen = 10;
    ex.iso = 400;
    ex.focalNum = 50, ex.focalDen = 1;
    ex.focal35mm = 80;
    ex.fpXResNum = 3888, ex.fpXResDen = 1;
    ex.fpResUnit = 2;
    char profile[32] = "Adobe RGB (1998)";
    ASSERT_EQ(bv_io_rgbe_write(p.c_str(), 2, 1, &ex, 0, profile, px.data()), 1);
    t = text_of(p);
    EXPECT_EQ(t.substr(0, t.find("-Y 1 +X 2\n") + 10),
              "#?RADIANCE\nCAMERA=Canon EOS 5D\nCAPDATE=2024:05:01 10:11:12\n"
              "ICC_PROFILE=Adobe RGB (1998)\nSHUTTER=0.004000\nAPERTURE=5.60\nISO=400\n"
              "FOCAL_LENGTH=50.00\n35MM_EQUIV=80\nFOCAL_PLANE_XRESOLUTION=3888.00\n"
              "FOCAL_PLANE_RESOLUTIONUNIT=2\n"
              "Generated with Brackvista Pro 4.1 for Mac OS X\nFORMAT=32-bit_rle_rgbe\n\n"
              "-Y 1 +X 2\n");

    // Full-width fields without terminators, a date carrying its line feed,
    // a 32-character profile name and a profile starting with a high byte.
    std::memset(ex.camera, 'c', sizeof ex.camera);
    std::memcpy(ex.capDate, "2024:05:01 10:11:1\n\0", 20);
    ex.exposureNum = 0;
    char longp[32];
    std::memset(longp, 'p', sizeof longp);
    ASSERT_EQ(bv_io_rgbe_write(p.c_str(), 2, 1, &ex, 0, longp, px.data()), 1);
    t = text_of(p);
    EXPECT_NE(
        t.find("CAMERA=" + std::string(64, 'c') +
               "\nCAPDATE=2024:05:01 10:11:1\nICC_PROFILE=" + std::string(32, 'p') + "\nAPERTURE="),
        std::string::npos)
        << t.substr(0, 300);
    longp[0] = char(0xE9);
    ASSERT_EQ(bv_io_rgbe_write(p.c_str(), 2, 1, &ex, 0, longp, px.data()), 1);
    EXPECT_EQ(text_of(p).find("ICC_PROFILE"), std::string::npos);

    // The strip writer's header carries no metadata.
    ASSERT_EQ(bv_write_strip_rgbe(p.c_str(), 0, 5, 2, 1, 0, px.data()), 1);
    t = text_of(p);
    EXPECT_EQ(t.substr(0, t.find("-Y 1 +X 2\n") + 10),
              "#?RADIANCE\n# Generated by Brackvista Pro v4.0\nFORMAT=32-bit_rle_rgbe\n\n"
              "-Y 1 +X 2\n");
}

TEST(Radiance, HeaderNumbersIgnoreTheHostLocale) {
    const char *comma_locales[] = {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8"};
    const char *found = nullptr;
    for (const char *l : comma_locales)
        if ((found = std::setlocale(LC_NUMERIC, l))) break;
    if (!found) {
        // None installed: compile one into a private folder, when the
        // locale sources are there.
        const std::string dir = bvtest::temp_path("locales");
        const std::string cmd = "mkdir -p " + dir + " && localedef -i de_DE -f UTF-8 " + dir +
                                "/de_DE.UTF-8 >/dev/null 2>&1";
        if (std::system(cmd.c_str()) == 0) {
            setenv("LOCPATH", dir.c_str(), 1);
            found = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
            unsetenv("LOCPATH");
        }
    }
    if (!found) GTEST_SKIP() << "no locale with a decimal comma is available";
    char probe[16];
    std::snprintf(probe, sizeof probe, "%.1f", 0.5);
    EXPECT_STREQ(probe, "0,5") << "the test locale must use a decimal comma";
    exifInfo ex{};
    ex.exposureNum = 1, ex.exposureDen = 250;
    ex.fNumberNum = 56, ex.fNumberDen = 10;
    const Bytes px(8, 0);
    const std::string p = bvtest::temp_path("locale.hdr");
    const int rc = bv_io_rgbe_write(p.c_str(), 2, 1, &ex, 0, nullptr, px.data());
    exifInfo back{};
    const int lines = extract_rgbe_exif(p.c_str(), &back);
    std::setlocale(LC_NUMERIC, "C");
    ASSERT_EQ(rc, 1);
    const std::string t = text_of(p);
    EXPECT_NE(t.find("SHUTTER=0.004000\nAPERTURE=5.60\n"), std::string::npos) << t;
    EXPECT_EQ(lines, 6);
    EXPECT_EQ(back.fNumberNum, 560);
}

TEST(Radiance, MetadataReadBack) {
    exifInfo ex{};
    std::strcpy(ex.camera, "Nikon D800");
    std::strcpy(ex.capDate, "2023:01:02 03:04:05");
    ex.exposureNum = 1, ex.exposureDen = 2;
    ex.fNumberNum = 8, ex.fNumberDen = 1;
    ex.iso = 100;
    ex.focalNum = 35, ex.focalDen = 1;
    ex.focal35mm = 35;
    const Bytes px(4 * 3 * 2, 0);
    const std::string p = bvtest::temp_path("exif.hdr");
    ASSERT_EQ(bv_io_rgbe_write(p.c_str(), 3, 2, &ex, 0, "ProPhoto RGB", px.data()), 2);
    exifInfo back{};
    back.profile = 7;
    // Lines: #?RADIANCE, CAMERA, CAPDATE, ICC, SHUTTER, APERTURE, ISO, FOCAL,
    // 35MM, Generated, FORMAT and the blank line.
    EXPECT_EQ(extract_rgbe_exif(p.c_str(), &back), 12);
    EXPECT_STREQ(back.camera, "Nikon D800");
    EXPECT_EQ(std::string(back.capDate, 19), "2023:01:02 03:04:05");
    EXPECT_EQ(back.profile, 2);
    EXPECT_EQ(back.exposureNum, 100);
    EXPECT_EQ(back.exposureDen, 200);
    EXPECT_EQ(back.fNumberNum, 800);
    EXPECT_EQ(back.fNumberDen, 100);
    EXPECT_EQ(back.iso, 100);
    EXPECT_EQ(back.focalNum, 3500);
    EXPECT_EQ(back.focalDen, 100);
    EXPECT_EQ(back.focal35mm, 0) << "35MM_EQUIV is not read back";

    // Fractions from hand-written values; 0.004 in single precision lies just
    // above 1/250, so 100 / 0.004f truncates to 24999.
    const std::string q = write_text("exif_values.hdr",
                                     "#?RADIANCE\nSHUTTER=0.004\nAPERTURE=2\nFOCAL_LENGTH=0\n"
                                     "ISO=abc\nCAMERA=\nICC_PROFILE=sRGB IEC61966-2.1\n"
                                     "CAPDATE=2020:01:01 00:00:00 and more text\n\n-Y 1 +X 1\n");
    exifInfo v{};
    std::strcpy(v.camera, "kept");
    v.focalNum = 5, v.focalDen = 6, v.iso = 9;
    EXPECT_EQ(extract_rgbe_exif(q.c_str(), &v), 9);
    EXPECT_EQ(v.exposureNum, 100);
    EXPECT_EQ(v.exposureDen, 24999);
    EXPECT_EQ(v.fNumberNum, 200);
    EXPECT_EQ(v.fNumberDen, 100);
    EXPECT_EQ(v.focalNum, 5);
    EXPECT_EQ(v.focalDen, 6);
    EXPECT_EQ(v.iso, 9);
    EXPECT_STREQ(v.camera, "kept");
    EXPECT_EQ(v.profile, 0);
    EXPECT_EQ(std::string(v.capDate, 20), "2020:01:01 00:00:00 ");

    int32_t n = 0, d = 0;
    bv::radiance::float_to_fraction(2.0f, &n, &d);
    EXPECT_EQ(n, 200);
    EXPECT_EQ(d, 100);
    bv::radiance::float_to_fraction(0.5f, &n, &d);
    EXPECT_EQ(n, 100);
    EXPECT_EQ(d, 200);
    bv::radiance::float_to_fraction(INFINITY, &n, &d);
    EXPECT_EQ(n, INT32_MAX);
    n = d = 3;
    bv::radiance::float_to_fraction(-1.0f, &n, &d);
    bv::radiance::float_to_fraction(NAN, &n, &d);
    EXPECT_EQ(n + d, 6);

    EXPECT_EQ(extract_rgbe_exif(bvtest::temp_path("missing.hdr").c_str(), &v), -1);
    const std::string cut = write_text("exif_cut.hdr", "#?RADIANCE\nCAMERA=x\n\n");
    EXPECT_EQ(extract_rgbe_exif(cut.c_str(), &v), -1);
    const std::string junk = write_text("exif_junk.hdr", "#?RADIANCE\nCAMERA=x\n\n\x0e\x1b\n");
    EXPECT_EQ(extract_rgbe_exif(junk.c_str(), &v), -1);
}

namespace {

std::string case_path(const std::string &name) { return "tests/data/hdr/" + name; }

// Reads a hand-made case at its stated size; the result code.
int read_case(const std::string &name, int w, int h, Bytes *out = nullptr) {
    Bytes local;
    Bytes &img = out ? *out : local;
    img.assign(size_t(4) * w * h, 0xEE);
    return bv_io_read_rgbe(w, h, case_path(name).c_str(), img.data());
}

int preview_case(const std::string &name, int w, int h, int pw, int ph) {
    Bytes img(size_t(4) * pw * ph, 0xEE);
    return bv_io_read_preview_rgbe(w, h, pw, ph, case_path(name).c_str(), img.data());
}

// Value of the hand-made 4 x 2 image at row y, component c, column x.
uint8_t good(int y, int c, int x) { return uint8_t(10 * y + 3 * c + x + 1); }

}  // namespace

TEST(Radiance, HeaderEndAndResolution) {
    char line[128] = " \t \n";
    EXPECT_EQ(rgbe_end_of_header(line, 128), 1);
    EXPECT_EQ(rgbe_end_of_header("\n", 128), 1);
    EXPECT_EQ(rgbe_end_of_header("", 128), 1);
    EXPECT_EQ(rgbe_end_of_header("\r\n", 128), 0);
    EXPECT_EQ(rgbe_end_of_header(" \r\n", 128), 0);
    EXPECT_EQ(rgbe_end_of_header("#?RADIANCE\n", 128), 0);
    EXPECT_EQ(rgbe_end_of_header("  x", 2), 1) << "only n bytes are examined";
    EXPECT_EQ(rgbe_end_of_header(nullptr, 128), 0);

    for (const char *name :
         {"blank_line_space.hdr", "blank_line_tab.hdr", "long_header_line.hdr"}) {
        Bytes img;
        ASSERT_EQ(read_case(name, 4, 2, &img), 2) << name;
        for (int y = 0; y < 2; ++y)
            for (int c = 0; c < 4; ++c)
                for (int x = 0; x < 4; ++x) ASSERT_EQ(img[y * 16 + c * 4 + x], good(y, c, x));
    }
    RgbeDims d{};
    EXPECT_EQ(rgbe_dim(case_path("blank_line_tab.hdr").c_str(), nullptr, &d), 2);
    // "#?RADIANCE", the long line in three pieces of at most 127 bytes, blank.
    EXPECT_EQ(rgbe_dim(case_path("long_header_line.hdr").c_str(), nullptr, &d), 5);
    EXPECT_EQ(d.width, 4);
    EXPECT_EQ(d.height, 2);
    EXPECT_EQ(d.fileSize, 379);

    // Carriage returns keep the header open until the file ends.
    EXPECT_EQ(read_case("blank_line_crlf.hdr", 4, 2), -1);
    EXPECT_EQ(rgbe_dim(case_path("blank_line_crlf.hdr").c_str(), nullptr, &d), -2);
    EXPECT_EQ(rgbe_dim(case_path("no_resolution_line.hdr").c_str(), nullptr, &d), -2);
    EXPECT_EQ(rgbe_dim(case_path("malformed_resolution.hdr").c_str(), nullptr, &d), -3);
    EXPECT_EQ(rgbe_dim(case_path("zero_width.hdr").c_str(), nullptr, &d), -3);
    EXPECT_EQ(rgbe_dim(case_path("absent.hdr").c_str(), nullptr, &d), -1);
    EXPECT_EQ(rgbe_dim(nullptr, nullptr, &d), -1);
    EXPECT_EQ(read_case("no_resolution_line.hdr", 4, 2), -1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(read_case("malformed_resolution.hdr", 4, 2), -200);
    EXPECT_EQ(read_case("blank_line_space.hdr", 4, 3), -200);
    EXPECT_EQ(read_case("absent.hdr", 4, 3), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "bv_io_read_rgbe - dim found in Radiance file is 0 x 0  while should be 4 x 2\n"
              "bv_io_read_rgbe - dim found in Radiance file is 4 x 2  while should be 4 x 3\n"
              "bv_io_read_rgbe - could not open input Radiance file\n");

    int h = 0, w = 0;
    bv::radiance::parse_resolution("-Y   12\t+X 34\n", &h, &w);
    EXPECT_EQ(h, 12);
    EXPECT_EQ(w, 34);
    h = w = 0;
    bv::radiance::parse_resolution("-Y 99999999999 +X 3\n", &h, &w);
    EXPECT_EQ(h + w, 0) << "numbers beyond int are not converted";
    bv::radiance::parse_resolution("-Y 7 -X 3\n", &h, &w);
    EXPECT_EQ(h, 7);
    EXPECT_EQ(w, 0);
}

TEST(Radiance, Primaries) {
    float p[8];
    RgbeDims d{};
    ASSERT_EQ(rgbe_dim(case_path("primaries.hdr").c_str(), p, &d), 4);
    EXPECT_EQ(d.primariesCount, 32);
    const float want[8] = {0.64f, 0.33f, 0.3f, 0.6f, 0.15f, 0.06f, 0.3127f, 0.329f};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(p[i], want[i]);
    // Without a complete PRIMARIES= line the caller's count decides.
    d = RgbeDims{};
    std::fill(p, p + 8, 5.0f);
    ASSERT_EQ(rgbe_dim(case_path("primaries_partial.hdr").c_str(), p, &d), 4);
    EXPECT_EQ(d.primariesCount, 0);
    for (float v : p) EXPECT_EQ(v, 0.0f);
    d.primariesCount = 32;
    ASSERT_EQ(rgbe_dim(case_path("primaries_partial.hdr").c_str(), p, &d), 4);
    const float defaults[8] = {0.648431f, 0.330856f, 0.321152f, 0.597871f,
                               0.155886f, 0.066044f, 0.3101f,   0.3162f};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(p[i], defaults[i]);
}

TEST(Radiance, ScanlineCodesAndHostileFiles) {
    Bytes img;
    ASSERT_EQ(read_case("literal_128_run_129.hdr", 130, 1, &img), 1);
    for (int c = 0; c < 4; ++c) {
        for (int x = 0; x < 128; ++x) ASSERT_EQ(img[c * 130 + x], x);
        EXPECT_EQ(img[c * 130 + 128], 200);
        EXPECT_EQ(img[c * 130 + 129], 201);
    }
    ASSERT_EQ(read_case("flat_3x2.hdr", 3, 2, &img), 2);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(img[y * 12 + c * 3 + x], 100 + y * 12 + x * 4 + c);
    // The first scanline decides: a flat row starting 2, 2, 0, 4 is decoded
    // as run-length data and fails on its packets.
    EXPECT_EQ(read_case("flat_starting_2_2.hdr", 4, 2), -202);
    // A first scanline header with the high bit makes the file flat.
    ASSERT_EQ(read_case("scanline_length_65535_first.hdr", 4, 2, &img), 2);
    EXPECT_EQ(img[0], 2);
    EXPECT_EQ(img[12], 255);
    EXPECT_EQ(read_case("scanline_length_65535_second.hdr", 4, 2, &img), -201);
    EXPECT_EQ(img[15], good(0, 3, 3)) << "rows completed before the error stay";
    EXPECT_EQ(read_case("scanline_length_0.hdr", 4, 2), -4);
    EXPECT_EQ(read_case("scanline_width_plus_one.hdr", 4, 2), -4);
    EXPECT_EQ(read_case("packet_code_0.hdr", 4, 1), -202);
    EXPECT_EQ(read_case("packet_past_width.hdr", 4, 1), -202);
    EXPECT_EQ(read_case("literal_past_width.hdr", 4, 1), -202);
    EXPECT_EQ(read_case("truncated_scanline.hdr", 4, 2), -1);
    EXPECT_EQ(read_case("truncated_run_value.hdr", 4, 1), -1);
    EXPECT_EQ(read_case("truncated_flat.hdr", 3, 3, &img), -1);
    EXPECT_EQ(img[12 + 11], 100 + 12 + 11) << "second flat row complete";
    EXPECT_EQ(read_case("header_only_eof.hdr", 4, 2), -1);
    EXPECT_EQ(read_case("lying_height.hdr", 4, 5), -1);
    EXPECT_EQ(read_case("lying_width.hdr", 6, 2), -4);
    EXPECT_EQ(bv_io_read_rgbe(4, 2, case_path("flat_3x2.hdr").c_str(), nullptr), -203);
    EXPECT_EQ(bv_io_read_rgbe(-4, 2, case_path("flat_3x2.hdr").c_str(), img.data()), -203);
    EXPECT_EQ(decomp_rle(case_path("literal_128_run_129.hdr").c_str(), 130, 1, img.data()), 1);

    // Out of memory while taking the read buffer.
    {
        bvtest::FailAllocation fail(0);
        EXPECT_EQ(read_case("blank_line_tab.hdr", 4, 2), -4);
    }
    {
        bvtest::FailAllocation fail(1);
        EXPECT_EQ(read_case("flat_3x2.hdr", 3, 2), -4) << "flat row buffer";
    }
}

TEST(Radiance, ClaimedTwoGigabytesFailsPromptly) {
    // The caller trusts the header and maps the full 2 GiB it claims; the
    // reader must stop at the end of the data without touching the rest.
    for (auto [name, w, h] : {std::tuple{"claims_2gb_rle.hdr", 32767, 16385},
                              std::tuple{"claims_2gb_flat.hdr", 32768, 16384}}) {
        RgbeDims d{};
        ASSERT_GT(rgbe_dim(case_path(name).c_str(), nullptr, &d), 0);
        ASSERT_EQ(d.width, w);
        ASSERT_EQ(d.height, h);
        const size_t size = size_t(4) * w * h;
        void *m = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        ASSERT_NE(m, MAP_FAILED);
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(bv_io_read_rgbe(w, h, case_path(name).c_str(), static_cast<uint8_t *>(m)), -1);
        EXPECT_EQ(bv_io_read_preview_rgbe(w, h, 64, 32, case_path(name).c_str(),
                                          static_cast<uint8_t *>(m)),
                  -1);
        const double s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_LT(s, 1.0);
        munmap(m, size);
    }
}

TEST(Radiance, PreviewSampling) {
    const int w = 301, h = 37;
    const Bytes img = random_image(w, h, 77);
    const std::string p = bvtest::temp_path("preview.hdr");
    ASSERT_EQ(bv_io_rgbe_write(p.c_str(), w, h, nullptr, 0, nullptr, img.data()), h);
    // Same size: an exact copy, and the reader reports that it filled all rows.
    Bytes same(img.size());
    EXPECT_EQ(bv_io_read_preview_rgbe(w, h, w, h, p.c_str(), same.data()), h + 1);
    EXPECT_EQ(same, img);
    for (auto [pw, ph] : {std::pair{100, 10}, std::pair{7, 3}, std::pair{1, 1}, std::pair{450, 50},
                          std::pair{301, 5}}) {
        Bytes pv(size_t(4) * pw * ph, 0);
        EXPECT_EQ(bv_io_read_preview_rgbe(w, h, pw, ph, p.c_str(), pv.data()), h + 1);
        const float xs = float(w) / float(pw), ys = float(h) / float(ph);
        for (int k = 0; k < ph; ++k) {
            const int y = int(float(k) * ys);
            for (int c = 0; c < 4; ++c)
                for (int j = 0; j < pw; ++j) {
                    const int x = int(float(j) * xs);
                    ASSERT_EQ(pv[size_t(k) * 4 * pw + c * pw + j],
                              img[size_t(y) * 4 * w + c * w + x])
                        << pw << "x" << ph << " k=" << k << " j=" << j;
                }
        }
    }
    // Flat rows: 3 x 2 sampled to 2 x 1 takes columns 0 and 1 of row 0.
    Bytes pv(8, 0);
    ASSERT_EQ(bv_io_read_preview_rgbe(3, 2, 2, 1, case_path("flat_3x2.hdr").c_str(), pv.data()), 3);
    EXPECT_EQ(pv, (Bytes{100, 104, 101, 105, 102, 106, 103, 107}));

    EXPECT_EQ(preview_case("blank_line_tab.hdr", 4, 3, 2, 1), -200);
    EXPECT_EQ(preview_case("absent.hdr", 4, 2, 2, 1), -1);
    EXPECT_EQ(preview_case("scanline_length_65535_second.hdr", 4, 2, 4, 2), -201);
    EXPECT_EQ(preview_case("scanline_width_plus_one.hdr", 4, 2, 2, 1), -4);
    EXPECT_EQ(preview_case("packet_code_0.hdr", 4, 1, 2, 1), -202);
    EXPECT_EQ(preview_case("truncated_scanline.hdr", 4, 2, 4, 2), -1);
    EXPECT_EQ(preview_case("truncated_flat.hdr", 3, 3, 3, 3), -1);
    EXPECT_EQ(preview_case("lying_height.hdr", 4, 5, 4, 5), -1);
    EXPECT_EQ(preview_case("flat_3x2.hdr", 3, 2, 0, 1), -203);
    // Rows not sampled are still checked.
    EXPECT_EQ(preview_case("scanline_length_65535_second.hdr", 4, 2, 1, 1), 3)
        << "one preview row is filled from row 0 before the bad row";
}

TEST(Radiance, WriterErrors) {
    const Bytes px(4 * 40000 * 2, 9);
    EXPECT_EQ(bv_io_rgbe_write("/nonexistent-dir/x.hdr", 2, 1, nullptr, 0, nullptr, px.data()), -1);
    EXPECT_EQ(bv_io_rgbe_write(nullptr, 2, 1, nullptr, 0, nullptr, px.data()), -1);
    EXPECT_EQ(
        bv_io_rgbe_write(bvtest::temp_path("e.hdr").c_str(), 0, 1, nullptr, 0, nullptr, px.data()),
        -203);
    EXPECT_EQ(bv_write_strip_rgbe(bvtest::temp_path("e.hdr").c_str(), -1, 4, 2, 8, 0, px.data()),
              -203);
    EXPECT_EQ(bv_write_strip_rgbe(bvtest::temp_path("e.hdr").c_str(), 2, 4, 2, 8, 0, px.data()), 0);
    // A full device: run-length rows fail with -1, flat rows with -2.
    if (FILE *f = std::fopen("/dev/full", "wb")) {
        std::fclose(f);
        EXPECT_EQ(bv_io_rgbe_write("/dev/full", 300, 2, nullptr, 0, nullptr, px.data()), -1);
        testing::internal::CaptureStdout();
        EXPECT_EQ(bv_io_rgbe_write("/dev/full", 40000, 2, nullptr, 0, nullptr, px.data()), -2);
        EXPECT_EQ(bv_write_strip_rgbe("/dev/full", 0, 2, 40000, 2, 0, px.data()), -2);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "bv_io_rgbe_write uncompressed failed on line 0\n"
                  "bv_io_rgbe_write uncompressed failed on line 0\n");
        EXPECT_EQ(bv_write_strip_rgbe("/dev/full", 1, 2, 300, 4, 0, px.data()), -1);
    }
    for (long n : {0L, 1L}) {
        bvtest::FailAllocation fail(n);
        EXPECT_EQ(bv_io_rgbe_write(bvtest::temp_path("oom.hdr").c_str(), 40000, 1, nullptr, 0,
                                   nullptr, px.data()),
                  -4);
    }
    {
        bvtest::FailAllocation fail(0);
        EXPECT_EQ(
            bv_write_strip_rgbe(bvtest::temp_path("oom.hdr").c_str(), 0, 1, 300, 1, 0, px.data()),
            -4);
    }
}

namespace {

// Runs tests/scripts/cv2_hdr.py; its exit status, 77 when OpenCV's Python
// module is missing (the tests then skip).
constexpr int kNoOpenCv = 77;

int cv2_run(const std::string &args) {
    const int rc = std::system(("/usr/bin/python3 tests/scripts/cv2_hdr.py " + args).c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

struct FloatImage {
    int w = 0, h = 0;
    std::vector<float> rgb;
};

bool load_raw(const std::string &path, FloatImage *img) {
    Bytes b;
    if (!bvtest::read_file(path, &b) || b.size() < 8) return false;
    std::memcpy(&img->w, b.data(), 4);
    std::memcpy(&img->h, b.data() + 4, 4);
    img->rgb.resize(size_t(3) * img->w * img->h);
    if (b.size() != 8 + img->rgb.size() * 4) return false;
    std::memcpy(img->rgb.data(), b.data() + 8, b.size() - 8);
    return true;
}

void save_raw(const std::string &path, const FloatImage &img) {
    Bytes b(8 + img.rgb.size() * 4);
    std::memcpy(b.data(), &img.w, 4);
    std::memcpy(b.data() + 4, &img.h, 4);
    std::memcpy(b.data() + 8, img.rgb.data(), img.rgb.size() * 4);
    ASSERT_TRUE(bvtest::write_file(path, b.data(), b.size()));
}

// Our decoding of an RGBE scanline image: mantissa x 2^(E - 136).
std::vector<float> decode(const Bytes &img, int w, int h) {
    const bv::rgbe::Table t;
    std::vector<float> out(size_t(3) * w * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t *row = &img[size_t(y) * 4 * w];
            bv::rgbe::decode(row[x], row[w + x], row[2 * w + x], row[3 * w + x], t.v,
                             &out[(size_t(y) * w + x) * 3]);
        }
    return out;
}

}  // namespace

TEST(Radiance, OpenCvReadsOurFiles) {
    // OpenCV reads run-length rows only from width 8 on (narrower files of
    // ours are run-length coded too, which it misreads), and flat rows above.
    const std::vector<int> widths = {8, 300, 32768};
    std::vector<Bytes> images;
    std::string args = "decode";
    for (int w : widths) {
        const int h = w > 1000 ? 2 : 9;
        Bytes img = random_image(w, h, 31 + w);
        // OpenCV expects normalised pixels (a mantissa of at least 128 in the
        // largest channel), which is what every encoder produces.
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                uint8_t *row = &img[size_t(y) * 4 * w];
                row[x] |= 0x80;
                if (row[3 * w + x] == 0) row[3 * w + x] = 1;
            }
        const std::string p = bvtest::temp_path("to_cv_" + std::to_string(w) + ".hdr");
        const std::string raw = p + ".raw";
        ASSERT_EQ(bv_io_rgbe_write(p.c_str(), w, h, nullptr, 0, nullptr, img.data()), h);
        args += " " + p + " " + raw;
        images.push_back(img);
    }
    const int rc = cv2_run(args);
    if (rc == kNoOpenCv) GTEST_SKIP() << "OpenCV's Python module is not installed";
    ASSERT_EQ(rc, 0);
    for (size_t i = 0; i < widths.size(); ++i) {
        const int w = widths[i], h = w > 1000 ? 2 : 9;
        FloatImage theirs;
        ASSERT_TRUE(
            load_raw(bvtest::temp_path("to_cv_" + std::to_string(w) + ".hdr.raw"), &theirs));
        ASSERT_EQ(theirs.w, w);
        ASSERT_EQ(theirs.h, h);
        EXPECT_EQ(theirs.rgb, decode(images[i], w, h)) << "width " << w;
    }
}

TEST(Radiance, WeReadOpenCvFiles) {
    FloatImage src;
    src.w = 257;
    src.h = 13;
    bvtest::Rng rng(8);
    for (int i = 0; i < src.w * src.h; ++i) {
        // Sky-like runs, dark and very bright pixels.
        const float base =
            (i / 40) % 3 == 0 ? 0.25f : float(std::ldexp(rng.uniform(), int(rng.next() % 40) - 20));
        for (int c = 0; c < 3; ++c) src.rgb.push_back(base * (1.0f + 0.1f * c));
    }
    const std::string raw = bvtest::temp_path("from_cv.raw"), p = bvtest::temp_path("from_cv.hdr");
    const std::string back = p + ".raw";
    save_raw(raw, src);
    const int rc = cv2_run("encode " + raw + " " + p + " " + back);
    if (rc == kNoOpenCv) GTEST_SKIP() << "OpenCV's Python module is not installed";
    ASSERT_EQ(rc, 0);
    FloatImage theirs;
    ASSERT_TRUE(load_raw(back, &theirs));
    RgbeDims d{};
    ASSERT_GT(rgbe_dim(p.c_str(), nullptr, &d), 0);
    ASSERT_EQ(d.width, src.w);
    ASSERT_EQ(d.height, src.h);
    Bytes img(size_t(4) * src.w * src.h);
    ASSERT_EQ(bv_io_read_rgbe(src.w, src.h, p.c_str(), img.data()), src.h);
    const std::vector<float> ours = decode(img, src.w, src.h);
    EXPECT_EQ(ours, theirs.rgb);
    double worst = 0;
    for (size_t i = 0; i < ours.size(); ++i)
        worst =
            std::max(worst, double(std::fabs(ours[i] - src.rgb[i]) / std::max(src.rgb[i], 1e-30f)));
    // Eight-bit mantissas: within one step of 1/128 relative to each value.
    std::printf("largest relative error against the written floats: %g\n", worst);
    EXPECT_LT(worst, 1.0 / 64);
}

TEST(Radiance, RealFiles) {
    const std::string dir = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(dir);
    const std::string atrium = dir + "/hdr/mpi_atrium_3.hdr";
    float prim[8];
    RgbeDims d{};
    // "#?RADIANCE", the tool line, FORMAT=, the filter line, EXPOSURE=, blank.
    ASSERT_EQ(rgbe_dim(atrium.c_str(), prim, &d), 6);
    EXPECT_EQ(d.width, 1024);
    EXPECT_EQ(d.height, 676);
    EXPECT_EQ(d.fileSize, 2236327);
    exifInfo ex{};
    EXPECT_EQ(extract_rgbe_exif(atrium.c_str(), &ex), 6);
    EXPECT_EQ(ex.profile, -1);
    EXPECT_EQ(ex.camera[0], 0);
    Bytes img(size_t(4) * 1024 * 676);
    ASSERT_EQ(bv_io_read_rgbe(1024, 676, atrium.c_str(), img.data()), 676);
    // Invariants of a real photograph: normalised pixels, some black-free sky.
    size_t black = 0, unnormalised = 0;
    for (int y = 0; y < 676; ++y)
        for (int x = 0; x < 1024; ++x) {
            const uint8_t *row = &img[size_t(y) * 4096];
            if (row[3072 + x] == 0) {
                ++black;
                continue;
            }
            const int m = std::max({row[x], row[1024 + x], row[2048 + x]});
            if (m < 128) ++unnormalised;
        }
    EXPECT_LT(black, img.size() / 4 / 100);
    EXPECT_EQ(unnormalised, 0u);
    // Rewriting it with our encoder and reading it back changes nothing.
    const std::string p = bvtest::temp_path("atrium.hdr");
    ASSERT_EQ(bv_io_rgbe_write(p.c_str(), 1024, 676, nullptr, 0, nullptr, img.data()), 676);
    Bytes again(img.size());
    ASSERT_EQ(bv_io_read_rgbe(1024, 676, p.c_str(), again.data()), 676);
    EXPECT_EQ(again, img);
    Bytes pv(4 * 256 * 169);
    EXPECT_EQ(bv_io_read_preview_rgbe(1024, 676, 256, 169, atrium.c_str(), pv.data()), 677);
    EXPECT_EQ(pv[0], img[0]);

    // OpenCV decodes the same pixels to exactly mantissa x 2^(E - 136), not
    // (mantissa + 0.5) x 2^(E - 136): both decoders agree bit for bit.
    const std::string raw = bvtest::temp_path("atrium.raw");
    const int rc = cv2_run("decode " + atrium + " " + raw);
    if (rc != kNoOpenCv) {
        ASSERT_EQ(rc, 0);
        FloatImage theirs;
        ASSERT_TRUE(load_raw(raw, &theirs));
        EXPECT_EQ(theirs.rgb, decode(img, 1024, 676));
    }

    // Line feeds turned into CR LF: the header never ends where it should and
    // the pixel data is corrupt. Every reader refuses it quickly.
    const std::string bad = dir + "/memorial/memorial-damaged.hdr";
    const auto t0 = std::chrono::steady_clock::now();
    Bytes out(size_t(4) * 512 * 768);
    testing::internal::CaptureStderr();
    EXPECT_LT(bv_io_read_rgbe(512, 768, bad.c_str(), out.data()), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_LT(bv_io_read_preview_rgbe(512, 768, 128, 192, bad.c_str(), out.data()), 0);
    EXPECT_LT(rgbe_dim(bad.c_str(), prim, &d), 0);
    EXPECT_LT(extract_rgbe_exif(bad.c_str(), &ex), 0);
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(s, 2.0);
}
