// Radiance files: readers, writers, encoder layout, hostile input, interop.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <Brackvista40Lib1.h>

#include "core/radiance_io.hpp"
#include "core/rgbe_pixel.hpp"
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
        for (; len > 0 && i < img.size(); --len, ++i)
            img[i] = kind == 3 ? uint8_t(rng.next()) : v;
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
            EXPECT_EQ(bv_write_strip_rgbe(s.c_str(), k, sh, w, h, 0,
                                          img.data() + size_t(4) * w * sh * k),
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
    for (int t = 0; t < 200; ++t) {
        Bytes c(1 + rng.next() % 700);
        for (size_t i = 0; i < c.size(); ++i)
            c[i] = (rng.next() % 3) ? uint8_t(rng.next() % 3) : uint8_t(rng.next());
        const Bytes e = encode(c);
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
    EXPECT_NE(t.find("CAMERA=" + std::string(64, 'c') + "\nCAPDATE=2024:05:01 10:11:1\nICC_PROFILE=" +
                     std::string(32, 'p') + "\nAPERTURE="),
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
}
