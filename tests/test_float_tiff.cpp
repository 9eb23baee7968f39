// Float TIFFs written (checked byte by byte and by other readers) and read into RGBE.

#include "test_support.hpp"

namespace {

using bvtest::Bytes;

uint32_t le(const Bytes &b, size_t at, int n) {
    uint32_t v = 0;
    for (int i = n - 1; i >= 0; --i) v = v << 8 | b[at + i];
    return v;
}

// The n floats at byte `at` of a file; empty when it is shorter.
std::vector<float> floats_at(const std::string &path, size_t at, size_t n) {
    const std::string s = bvtest::text_of(path);
    std::vector<float> v(s.size() >= at + 4 * n ? n : 0);
    std::memcpy(v.data(), s.data() + at, v.size() * 4);
    return v;
}

TEST(FpSave, ExactLayoutOfATwoPixelFile) {
    const Bytes px = {128, 0, 64, 255, 32, 0, 129, 0};  // (1, .5, .25) and black
    const std::string path = bvtest::temp_path("two.tif");
    EXPECT_EQ(fp_save(path.c_str(), 2, 1, 0, px.data()), 1);
    Bytes b;
    ASSERT_TRUE(bvtest::read_file(path, &b));
    ASSERT_EQ(b.size(), 8u + 24u + 150u);
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 8), (Bytes{'I', 'I', 42, 0, 32, 0, 0, 0}));
    EXPECT_EQ(floats_at(path, 8, 6), std::vector<float>({1.0f, 0.5f, 0.25f, 0, 0, 0}));
    // Eleven (tag, type, count, value) entries, no next directory, bits and format arrays.
    const uint32_t tags[11][4] = {{256, 3, 1, 2}, {257, 3, 1, 1},       {258, 3, 3, 32 + 138},
                                  {259, 3, 1, 1}, {262, 3, 1, 2},       {273, 4, 1, 8},
                                  {277, 3, 1, 3}, {278, 3, 1, 1},       {279, 4, 1, 24},
                                  {284, 3, 1, 1}, {339, 3, 3, 32 + 144}};
    EXPECT_EQ(le(b, 32, 2), 11u);
    for (int i = 0; i < 11; ++i) {
        const size_t e = 34 + 12 * i;
        EXPECT_EQ(
            std::vector<uint32_t>({le(b, e, 2), le(b, e + 2, 2), le(b, e + 4, 4), le(b, e + 8, 4)}),
            std::vector<uint32_t>(tags[i], tags[i] + 4));
    }
    EXPECT_EQ(le(b, 32 + 134, 4), 0u);
    EXPECT_EQ(Bytes(b.begin() + 170, b.end()), (Bytes{32, 0, 32, 0, 32, 0, 3, 0, 3, 0, 3, 0}));
}

TEST(FpSave, ErrorCodes) {
    const bvtest::Planar img = bvtest::random_planar(300, 40, 1);
    const uint8_t *px = img.px.data();
    const std::string path = bvtest::temp_path("err.tif");
    const char *p = path.c_str();
    // A full device: the failure shows at a write or at the final flush.
    EXPECT_EQ(fp_save("/dev/full", 300, 40, 0, px), BV_RGBE_ERR_WRITE);
    EXPECT_EQ(fp_save("/dev/full", 1, 1, 0, px), BV_RGBE_ERR_WRITE);
    EXPECT_EQ(fp_save("/nonexistent/dir/a.tif", 300, 40, 0, px), BV_RGBE_ERR_WRITE);
    EXPECT_EQ(fp_save(nullptr, 300, 40, 0, px), BV_RGBE_ERR_WRITE);
    EXPECT_EQ(fp_save(p, 300, 40, 0, nullptr), BV_RGBE_ERR_ARG);
    EXPECT_EQ(fp_save(p, 0, 40, 0, px), BV_RGBE_ERR_ARG);
    EXPECT_EQ(fp_save(p, 70000, 1, 0, px), BV_RGBE_ERR_ARG);
    EXPECT_EQ(fp_save(p, 65535, 65535, 0, px), BV_RGBE_ERR_ARG);  // too big for 32-bit offsets
    // Statistics samples, then (after the histogram, which may fail quietly) the row buffers.
    for (long nth : {0L, 2L, 3L}) {
        bvtest::FailAllocation fail(nth);
        EXPECT_EQ(fp_save(p, 300, 40, 1, px), BV_RGBE_ERR_NOMEM) << nth;
    }
}

TEST(FpSave, IndependentReadersSeeTheDecodedValues) {
    const int w = 37, h = 23;
    const bvtest::Planar img = bvtest::random_planar(w, h, 9);
    const std::string path = bvtest::temp_path("interop.tif");
    ASSERT_EQ(fp_save(path.c_str(), w, h, 0, img.px.data()), h);
    bool checked = false;
    const std::string info = bvtest::shell("tiffinfo " + path + " 2>&1");
    if (info.find("Image Width") != std::string::npos) {
        for (const char *line : {"Image Width: 37 Image Length: 23", "Bits/Sample: 32",
                                 "IEEE floating point", "Samples/Pixel: 3"})
            EXPECT_NE(info.find(line), std::string::npos) << info;
        EXPECT_EQ(info.find("rror"), std::string::npos) << info;
        checked = true;
    }
    const int rc = bvtest::cv2_run("decode " + path + " " + path + ".raw");
    if (rc != bvtest::kNoOpenCv) {
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(bvtest::load_raw(path + ".raw", w, h), img.values());
        checked = true;
    }
    if (!checked) GTEST_SKIP() << "neither tiffinfo nor OpenCV's Python module is installed";
}

TEST(FpSave, NormalisedValuesFollowTheStatistics) {
    const bvtest::Planar img = bvtest::random_planar(16, 8, 5);
    const std::string path = bvtest::temp_path("norm.tif");
    ASSERT_EQ(fp_save(path.c_str(), 16, 8, 1, img.px.data()), 8);
    std::vector<float> want(16 * 8 * 3);
    ASSERT_EQ(rgbe2fp(16, 8, 0, 1, 0, img.px.data(), want.data(), 1.0f), 8);
    EXPECT_EQ(floats_at(path, 8, want.size()), want);
}

TEST(ReadFloat, BiasOf128HalvesEveryValue) {
    // 1.0 little- and big-endian, -2.0 big-endian, zero, -0.0 (not all zero bytes), a short read.
    uint8_t bytes[] = {0x00, 0x00, 0x80, 0x3f, 0x3f, 0x80, 0x00, 0x00, 0xc0, 0x00, 0x00,
                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x41};
    FILE *f = fmemopen(bytes, sizeof bytes, "rb");
    ASSERT_NE(f, nullptr);
    // Any order other than II or MM is big-endian.
    const std::pair<int, float> reads[] = {{0x4949, 0.5f}, {0x4D4D, 0.5f}, {0x1234, -1.0f},
        {0x4949, 0.0f}, {0x4949, float(-std::ldexp(1.0, -128))}, {0x4949, 0.0f}};
    for (auto [order, want] : reads) EXPECT_EQ(readfloat(order, f), want);
    std::fclose(f);
    EXPECT_EQ(readfloat(0x4949, nullptr), 0.0f);
}

TEST(Fp2Rgbe, RoundTripHalvesAndStatistics) {
    const int w = 20, h = 9;
    const bvtest::Planar img = bvtest::random_planar(w, h, 11);
    const std::string path = bvtest::temp_path("rt.tif");
    ASSERT_EQ(fp_save(path.c_str(), w, h, 0, img.px.data()), h);
    bvtest::Planar back(w, h, 0xEE);
    float mn = 0, mx = 0, mean = 0;
    EXPECT_EQ(fp2rgbe(path.c_str(), w, h, 3, 8, &mn, &mx, &mean, back.px.data()), 1);
    // Every value is read at half its size: same mantissas, exponent one less, black stays.
    EXPECT_EQ(bvtest::digest(back.px), 7538667666266324928u);
    // Luminance statistics of the halved values, times 256.
    EXPECT_EQ(std::vector<float>({mn, mx, mean}),
              std::vector<float>({0.158984378f, 192099120.0f, 11118568.0f}));
}

// A big-endian TIFF-like file: "MM", padding, then pixel floats.
std::string big_endian_file(const std::vector<float> &values, size_t offset) {
    Bytes b(offset, 0);
    b[0] = b[1] = 'M';
    for (float f : values) {
        uint32_t u;
        std::memcpy(&u, &f, 4);
        for (int s = 24; s >= 0; s -= 8) b.push_back(uint8_t(u >> s));
    }
    const std::string path = bvtest::temp_path("mm" + std::to_string(values.size()) + ".tif");
    EXPECT_TRUE(bvtest::write_file(path, b.data(), b.size()));
    return path;
}

TEST(Fp2Rgbe, AlphaGreyByteOrderAndBadFiles) {
    // Two RGBA pixels, big-endian, data at offset 16. Alpha is skipped.
    const std::string rgba =
        big_endian_file({2.0f, 1.0f, 0.5f, 99.0f, 4.0f, 4.0f, 4.0f, 99.0f}, 16);
    const std::string grey = big_endian_file({1.0f, 0.0f}, 8);
    Bytes out(8, 0xEE), big(100 * 100 * 4, 0xEE);
    float mn, mx, mean;
    EXPECT_EQ(fp2rgbe(rgba.c_str(), 2, 1, 4, 16, &mn, &mx, &mean, out.data()), 1);
    // (1, .5, .25) after halving -> (128, 64, 32, 129); (2, 2, 2) -> 128 @ 130.
    EXPECT_EQ(out, (Bytes{128, 128, 64, 128, 32, 128, 129, 130}));
    // Luminance 0.3 R + 0.6 G + 0.1 B times 256: 0.625 and 2.
    EXPECT_EQ(std::vector<float>({mn, mx}), std::vector<float>({160.0f, 512.0f}));
    // One sample per pixel is grey.
    EXPECT_EQ(fp2rgbe(grey.c_str(), 2, 1, 1, 8, &mn, &mx, &mean, out.data()), 1);
    EXPECT_EQ(out, (Bytes{128, 0, 128, 0, 128, 0, 128, 0}));
    // Truncated data reads as black; no hang, no overrun.
    EXPECT_EQ(fp2rgbe(grey.c_str(), 100, 100, 3, 8, &mn, &mx, &mean, big.data()), 1);
    EXPECT_EQ(std::vector<int>({big[0], big[1], big[100 * 4 * 99 + 399]}),
              std::vector<int>({128, 0, 0}));
    // Unknown byte order, or no rows: sentinel statistics, success.
    const std::string bad = bvtest::write_text("junk.tif", "XY" + std::string(14, '\0'));
    mx = 5;
    EXPECT_EQ(fp2rgbe(bad.c_str(), 1, 1, 3, 8, &mn, &mx, &mean, out.data()), 1);
    EXPECT_EQ(std::vector<float>({mn, mx}), std::vector<float>({25599999475712.0f, 0.0f}));
    EXPECT_EQ(fp2rgbe(rgba.c_str(), 2, 0, 4, 16, &mn, &mx, &mean, nullptr), 1)
        << "no rows, no buffer needed";
    EXPECT_EQ(mn, 25599999475712.0f);
    EXPECT_EQ(fp2rgbe("/nonexistent/x.tif", 1, 1, 3, 8, &mn, &mx, &mean, out.data()),
              BV_RGBE_ERR_OPEN);
    const char *r = rgba.c_str();
    for (int rc : {fp2rgbe(r, 1, 1, 0, 8, &mn, &mx, &mean, out.data()),
                   fp2rgbe(nullptr, 1, 1, 3, 8, &mn, &mx, &mean, out.data()),
                   fp2rgbe(r, 1, 1, 3, 8, &mn, nullptr, &mean, out.data()),
                   fp2rgbe(r, 1, 1, 3, 8, &mn, &mx, nullptr, out.data()),
                   fp2rgbe(r, -1, 1, 3, 8, &mn, &mx, &mean, out.data()),
                   fp2rgbe(r, 1, 1, 3, -1, &mn, &mx, &mean, out.data()),
                   fp2rgbe(r, 1, 1, 3, 8, &mn, &mx, &mean, nullptr)})
        EXPECT_EQ(rc, BV_RGBE_ERR_ARG);
    EXPECT_EQ(fp2rgbe(rgba.c_str(), 1, 1, 3, 8, nullptr, &mx, &mean, out.data()), BV_RGBE_ERR_ARG);
}

}  // namespace
