// Float TIFF writing checked byte by byte and by independent readers, and
// float TIFF reading into RGBE.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "core/rgbe/rgbe_pixel.hpp"
#include "test_support.hpp"

namespace {

uint32_t le32(const std::vector<uint8_t> &b, size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (uint32_t(b[at + 3]) << 24);
}
uint16_t le16(const std::vector<uint8_t> &b, size_t at) {
    return static_cast<uint16_t>(b[at] | (b[at + 1] << 8));
}

// Planar RGBE test image with varied exponents and some black pixels.
std::vector<uint8_t> test_image(int w, int h, uint64_t seed) {
    std::vector<uint8_t> px(static_cast<size_t>(w) * h * 4);
    bvtest::Rng rng(seed);
    for (int y = 0; y < h; ++y) {
        uint8_t *row = px.data() + static_cast<size_t>(y) * 4 * w;
        for (int x = 0; x < w; ++x) {
            row[x] = static_cast<uint8_t>(128 + rng.next() % 128);
            row[x + w] = rng.next() & 255;
            row[x + 2 * w] = rng.next() & 255;
            row[x + 3 * w] = (x + y) % 7 == 3 ? 0 : static_cast<uint8_t>(125 + rng.next() % 20);
        }
    }
    return px;
}

std::vector<float> decoded(int w, int h, const std::vector<uint8_t> &px) {
    float t[256];
    exp_lut_old(t);
    std::vector<float> out(static_cast<size_t>(w) * h * 3);
    EXPECT_EQ(rgbe2fp(w, h, 0, 0, 0, px.data(), out.data(), 1.0f), h);
    return out;
}

std::string run(const std::string &cmd) {
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

bool have(const char *program) {
    return run(std::string("command -v ") + program + " >/dev/null 2>&1 && echo yes") == "yes\n";
}

TEST(FpSave, ExactLayoutOfATwoPixelFile) {
    std::vector<uint8_t> px = {128, 0, 64, 255, 32, 0, 129, 0};  // (1, .5, .25) and black
    const std::string path = bvtest::temp_path("two.tif");
    EXPECT_EQ(fp_save(path.c_str(), 2, 1, 0, px.data()), 1);
    std::vector<uint8_t> b;
    ASSERT_TRUE(bvtest::read_file(path, &b));
    ASSERT_EQ(b.size(), 8u + 24u + 150u);
    EXPECT_EQ(b[0], 'I');
    EXPECT_EQ(b[1], 'I');
    EXPECT_EQ(le16(b, 2), 42);
    EXPECT_EQ(le32(b, 4), 32u);
    const float want[6] = {1.0f, 0.5f, 0.25f, 0, 0, 0};
    for (int i = 0; i < 6; ++i) {
        float f;
        std::memcpy(&f, &b[8 + 4 * i], 4);
        EXPECT_EQ(f, want[i]);
    }
    const size_t ifd = 32;
    EXPECT_EQ(le16(b, ifd), 11);
    const uint32_t tags[11][4] = {{256, 3, 1, 2}, {257, 3, 1, 1},       {258, 3, 3, 32 + 138},
                                  {259, 3, 1, 1}, {262, 3, 1, 2},       {273, 4, 1, 8},
                                  {277, 3, 1, 3}, {278, 3, 1, 1},       {279, 4, 1, 24},
                                  {284, 3, 1, 1}, {339, 3, 3, 32 + 144}};
    for (int i = 0; i < 11; ++i) {
        const size_t e = ifd + 2 + 12 * i;
        EXPECT_EQ(le16(b, e), tags[i][0]);
        EXPECT_EQ(le16(b, e + 2), tags[i][1]);
        EXPECT_EQ(le32(b, e + 4), tags[i][2]);
        EXPECT_EQ(le32(b, e + 8), tags[i][3]) << "tag " << tags[i][0];
    }
    EXPECT_EQ(le32(b, ifd + 134), 0u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(le16(b, ifd + 138 + 2 * i), 32);
        EXPECT_EQ(le16(b, ifd + 144 + 2 * i), 3);
    }
}

TEST(FpSave, ErrorCodes) {
    const std::vector<uint8_t> px = test_image(300, 40, 1);
    // A full device: the failure shows at a write or at the final flush.
    EXPECT_EQ(fp_save("/dev/full", 300, 40, 0, px.data()), BV_RGBE_ERR_WRITE);
    EXPECT_EQ(fp_save("/dev/full", 1, 1, 0, px.data()), BV_RGBE_ERR_WRITE);
    EXPECT_EQ(fp_save("/nonexistent/dir/a.tif", 300, 40, 0, px.data()), BV_RGBE_ERR_WRITE);
    EXPECT_EQ(fp_save(nullptr, 300, 40, 0, px.data()), BV_RGBE_ERR_WRITE);
    const std::string path = bvtest::temp_path("err.tif");
    EXPECT_EQ(fp_save(path.c_str(), 300, 40, 0, nullptr), BV_RGBE_ERR_ARG);
    EXPECT_EQ(fp_save(path.c_str(), 0, 40, 0, px.data()), BV_RGBE_ERR_ARG);
    EXPECT_EQ(fp_save(path.c_str(), 70000, 1, 0, px.data()), BV_RGBE_ERR_ARG);
    // 65535 x 65535 fits in 16-bit fields but not in 32-bit offsets.
    EXPECT_EQ(fp_save(path.c_str(), 65535, 65535, 0, px.data()), BV_RGBE_ERR_ARG);
    // Statistics samples, then (after the histogram, which may fail quietly)
    // the row buffers.
    for (long nth : {0L, 2L, 3L}) {
        bvtest::FailAllocation fail(nth);
        EXPECT_EQ(fp_save(path.c_str(), 300, 40, 1, px.data()), BV_RGBE_ERR_NOMEM) << nth;
    }
}

TEST(FpSave, IndependentReadersSeeTheDecodedValues) {
    const int w = 37, h = 23;
    const std::vector<uint8_t> px = test_image(w, h, 9);
    const std::vector<float> want = decoded(w, h, px);
    const std::string path = bvtest::temp_path("interop.tif");
    ASSERT_EQ(fp_save(path.c_str(), w, h, 0, px.data()), h);

    bool checked = false;
    if (have("tiffinfo")) {
        const std::string info = run("tiffinfo " + path + " 2>&1");
        EXPECT_NE(info.find("Image Width: 37 Image Length: 23"), std::string::npos) << info;
        EXPECT_NE(info.find("Bits/Sample: 32"), std::string::npos) << info;
        EXPECT_NE(info.find("IEEE floating point"), std::string::npos) << info;
        EXPECT_NE(info.find("Samples/Pixel: 3"), std::string::npos) << info;
        EXPECT_EQ(info.find("rror"), std::string::npos) << info;
        checked = true;
    }
    const char *py = "/usr/bin/python3";
    if (run(std::string(py) + " -c 'import cv2' 2>/dev/null && echo ok") == "ok\n") {
        // OpenCV returns B, G, R; print every value with full precision.
        const std::string script =
            std::string(py) +
            " -c 'import cv2,sys; a=cv2.imread(sys.argv[1], cv2.IMREAD_UNCHANGED); "
            "print(a.dtype, a.shape[1], a.shape[0], a.shape[2]); "
            "[print(repr(float(v))) for v in a[:, :, ::-1].reshape(-1)]' " +
            path;
        std::istringstream out(run(script));
        std::string dtype;
        int ow = 0, oh = 0, oc = 0;
        out >> dtype >> ow >> oh >> oc;
        EXPECT_EQ(dtype, "float32");
        EXPECT_EQ(ow, w);
        EXPECT_EQ(oh, h);
        EXPECT_EQ(oc, 3);
        size_t n = 0;
        double v;
        while (out >> v) {
            ASSERT_LT(n, want.size());
            ASSERT_EQ(static_cast<float>(v), want[n]) << "value " << n;
            ++n;
        }
        EXPECT_EQ(n, want.size());
        checked = true;
    }
    if (!checked) GTEST_SKIP() << "neither tiffinfo nor /usr/bin/python3 with cv2 is installed";
}

TEST(FpSave, NormalisedValuesFollowTheStatistics) {
    const int w = 16, h = 8;
    const std::vector<uint8_t> px = test_image(w, h, 5);
    const std::string path = bvtest::temp_path("norm.tif");
    ASSERT_EQ(fp_save(path.c_str(), w, h, 1, px.data()), h);
    std::vector<float> want(static_cast<size_t>(w) * h * 3);
    ASSERT_EQ(rgbe2fp(w, h, 0, 1, 0, px.data(), want.data(), 1.0f), h);
    std::vector<uint8_t> b;
    ASSERT_TRUE(bvtest::read_file(path, &b));
    for (size_t i = 0; i < want.size(); ++i) {
        float f;
        std::memcpy(&f, &b[8 + 4 * i], 4);
        ASSERT_EQ(f, want[i]);
    }
}

TEST(ReadFloat, BiasOf128HalvesEveryValue) {
    const std::string path = bvtest::temp_path("floats.bin");
    const uint8_t bytes[] = {0x00, 0x00, 0x80, 0x3f,  // 1.0 little-endian
                             0x3f, 0x80, 0x00, 0x00,  // 1.0 big-endian
                             0xc0, 0x00, 0x00, 0x00,  // -2.0 big-endian
                             0x00, 0x00, 0x00, 0x00,  // zero
                             0x00, 0x00, 0x00, 0x80,  // -0.0 LE: not all zero
                             0x41};                   // short read
    ASSERT_TRUE(bvtest::write_file(path, bytes, sizeof bytes));
    FILE *f = std::fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(readfloat(0x4949, f), 0.5f);
    EXPECT_EQ(readfloat(0x4D4D, f), 0.5f);
    EXPECT_EQ(readfloat(0x1234, f), -1.0f);  // any other order is big-endian
    EXPECT_EQ(readfloat(0x4949, f), 0.0f);
    EXPECT_EQ(readfloat(0x4949, f), static_cast<float>(-std::ldexp(1.0, -128)));
    EXPECT_EQ(readfloat(0x4949, f), 0.0f);
    std::fclose(f);
    EXPECT_EQ(readfloat(0x4949, nullptr), 0.0f);
}

TEST(Fp2Rgbe, RoundTripHalvesAndStatistics) {
    const int w = 20, h = 9;
    const std::vector<uint8_t> px = test_image(w, h, 11);
    const std::string path = bvtest::temp_path("rt.tif");
    ASSERT_EQ(fp_save(path.c_str(), w, h, 0, px.data()), h);
    std::vector<uint8_t> back(px.size(), 0xEE);
    float mn = 0, mx = 0, mean = 0;
    EXPECT_EQ(fp2rgbe(path.c_str(), w, h, 3, 8, &mn, &mx, &mean, back.data()), 1);
    // Every value is read at half its size: same mantissas, exponent one less.
    const std::vector<float> v = decoded(w, h, px);
    float lo = 1e11f, hi = 0;
    double sum = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t *a = px.data() + y * 4 * w, *b = back.data() + y * 4 * w;
            for (int c = 0; c < 3; ++c) ASSERT_EQ(b[x + c * w], a[3 * w + x] ? a[x + c * w] : 0);
            ASSERT_EQ(b[x + 3 * w], a[x + 3 * w] ? a[x + 3 * w] - 1 : 0);
            const float *p = &v[(static_cast<size_t>(y) * w + x) * 3];
            const float lum = 0.3 * (p[0] / 2) + 0.6 * (p[1] / 2) + 0.1 * (p[2] / 2);
            hi = std::max(hi, lum);
            if (lum > 0) lo = std::min(lo, lum);
            sum += lum;
        }
    EXPECT_EQ(mn, lo * 256);
    EXPECT_EQ(mx, hi * 256);
    EXPECT_FLOAT_EQ(mean, static_cast<float>(sum * 256 / (w * h)));
}

// Builds a big-endian TIFF-like file: "MM", padding, then pixel floats.
std::string big_endian_file(const std::vector<float> &values, size_t offset) {
    std::vector<uint8_t> b(offset, 0);
    b[0] = b[1] = 'M';
    for (float f : values) {
        uint32_t u;
        std::memcpy(&u, &f, 4);
        for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<uint8_t>(u >> s));
    }
    const std::string path = bvtest::temp_path("mm" + std::to_string(values.size()) + ".tif");
    EXPECT_TRUE(bvtest::write_file(path, b.data(), b.size()));
    return path;
}

TEST(Fp2Rgbe, AlphaGreyByteOrderAndBadFiles) {
    // Two RGBA pixels, big-endian, data at offset 16. Alpha is skipped.
    const std::string rgba =
        big_endian_file({2.0f, 1.0f, 0.5f, 99.0f, 4.0f, 4.0f, 4.0f, 99.0f}, 16);
    std::vector<uint8_t> out(8, 0xEE);
    float mn, mx, mean;
    EXPECT_EQ(fp2rgbe(rgba.c_str(), 2, 1, 4, 16, &mn, &mx, &mean, out.data()), 1);
    // (1, .5, .25) after halving -> (128, 64, 32, 129); (2, 2, 2) -> 128 @ 130.
    EXPECT_EQ(out, (std::vector<uint8_t>{128, 128, 64, 128, 32, 128, 129, 130}));
    EXPECT_EQ(mx, 2.0f * 256);
    EXPECT_EQ(mn, static_cast<float>(0.3 * 1 + 0.6 * 0.5 + 0.1 * 0.25) * 256);

    // One sample per pixel is grey.
    const std::string grey = big_endian_file({1.0f, 0.0f}, 8);
    EXPECT_EQ(fp2rgbe(grey.c_str(), 2, 1, 1, 8, &mn, &mx, &mean, out.data()), 1);
    EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + 8),
              (std::vector<uint8_t>{128, 0, 128, 0, 128, 0, 128, 0}));

    // Truncated data reads as black; no hang, no overrun.
    std::vector<uint8_t> big(100 * 100 * 4, 0xEE);
    EXPECT_EQ(fp2rgbe(grey.c_str(), 100, 100, 3, 8, &mn, &mx, &mean, big.data()), 1);
    EXPECT_EQ(big[0], 128);
    EXPECT_EQ(big[1], 0);
    EXPECT_EQ(big[100 * 4 * 99 + 399], 0);

    // Unknown byte order: sentinel statistics, success.
    const uint8_t junk[16] = {'X', 'Y'};
    const std::string bad = bvtest::temp_path("junk.tif");
    ASSERT_TRUE(bvtest::write_file(bad, junk, sizeof junk));
    mx = 5;
    EXPECT_EQ(fp2rgbe(bad.c_str(), 1, 1, 3, 8, &mn, &mx, &mean, out.data()), 1);
    EXPECT_EQ(mn, 25599999475712.0f);
    EXPECT_EQ(mx, 0.0f);
    EXPECT_EQ(fp2rgbe(rgba.c_str(), 2, 0, 4, 16, &mn, &mx, &mean, out.data()), 1);
    EXPECT_EQ(mn, 25599999475712.0f);

    EXPECT_EQ(fp2rgbe("/nonexistent/x.tif", 1, 1, 3, 8, &mn, &mx, &mean, out.data()), -1);
    EXPECT_EQ(fp2rgbe(rgba.c_str(), 1, 1, 0, 8, &mn, &mx, &mean, out.data()), BV_RGBE_ERR_ARG);
    EXPECT_EQ(fp2rgbe(rgba.c_str(), 1, 1, 3, 8, nullptr, &mx, &mean, out.data()), BV_RGBE_ERR_ARG);
}

}  // namespace
