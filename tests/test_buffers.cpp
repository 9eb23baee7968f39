// Rounding, byte readers, row conversions, display renderings, raw and strip files, random words.
#include <limits>

#include "test_support.hpp"

namespace {

using bvtest::Bytes;

TEST(Rounding, ExactRulesAndClamps) {
    // Halves round down, huge values saturate; 0.3^2 * 1000 = 90.00000000000001 -> 90.
    const long long cases[][2] = {
        {arrondi(2.5f), 2}, {arrondi(2.5001f), 3}, {arrondi(-2.7f), -2}, {arrondi(-2.5f), -2},
        {arrondi(1e20f), std::numeric_limits<int>::max()}, {arrondi(NAN), 0}, {lim8f(255.0f), 255},
        {lim8f(NAN), 0}, {lim8f(254.99f), 254}, {lim8f(0.99f), 0}, {lim8(-1), 0}, {lim8(256), 255},
        {lim8int(77), 77}, {lim16(-5), 0}, {lim16(70000), 65535}, {lim16(int64_t(1) << 40), 65535},
        {plafond(3, -4), -4}, {coupeh(5, 3.7f), 3}, {coupeh(2, 3.7f), 2}, {coupeh(-5, -7.9f), -7},
        {clipvar(100, 0.7), 1000}, {clipvar(0, 2.0), 0}, {fclipvar(25.0f, 0.5), 500},
        {clipvar(30, 2.0), 90}, {fclipvar(0.15f, 0.5), 39}};
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i][0], cases[i][1]) << i;
    EXPECT_FLOAT_EQ(lerp(2.0f, 4.0f, 0.25f), 2.5f);
    char src[5] = "abcd", dst[5] = "xxxx";
    EXPECT_EQ(copie_mem(src, 4, dst), 1);
    EXPECT_STREQ(dst, "abcd");
    EXPECT_EQ(copie_mem(nullptr, 0, nullptr), 1);
}

TEST(ByteReaders, BothOrdersAndShortFiles) {
    uint8_t bytes[11] = {1, 2, 3, 4, 5, 6, 7, 8, 0xA0, 0xB0, 0xC0};
    FILE *f = fmemopen(bytes, sizeof bytes, "rb");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(fget4m(f), 0x01020304u);
    std::rewind(f);
    EXPECT_EQ(fget8m(f), 0x0102030405060708ull);
    std::rewind(f);
    EXPECT_EQ(fgetm2(f), 0x0102u);
    EXPECT_EQ(fgetm4(f), 0x03040506u);
    std::rewind(f);
    EXPECT_EQ(fgetmi2(f, 0x4949), 0x0201u);
    EXPECT_EQ(fgetmi4(f, 0x4949), 0x06050403u);
    EXPECT_EQ(fgetmi2(f, 0x4D4D), 0x0708u);
    EXPECT_EQ(fgetmi4(f, 0x1234), 0xA0B0C000u) << "three bytes left: the missing one reads as 0";
    EXPECT_EQ(fgetm2(f), 0u);
    std::fclose(f);
    EXPECT_EQ(fget4m(nullptr), 0u);
}

TEST(RowConversion, SwapCopyAndRejectedFormats) {
    // 2 x 2 pixels, source rows of 7 samples (one padding sample).
    const Bytes src = {1, 2, 3, 4, 5, 6, 99, 7, 8, 9, 10, 11, 12, 98};
    Bytes dst(16, 0xEE), untouched(16, 0xEE), plain(16, 0);
    EXPECT_EQ(copyAndConvertImageRows(2, 2, 7, 8, 3, 8, 1, src.data(), dst.data()), 2);
    EXPECT_EQ(dst, (Bytes{3, 2, 1, 6, 5, 4, 0xEE, 0xEE, 9, 8, 7, 12, 11, 10, 0xEE, 0xEE}));
    std::vector<uint16_t> s16 = {100, 200, 300, 40000, 50000, 60000}, d16(6);
    const std::vector<uint16_t> want16 = {300, 200, 100, 60000, 50000, 40000};
    EXPECT_EQ(copyAndConvertImageRows(2, 1, 6, 6, 3, 16, 1, s16.data(), d16.data()), 1);
    EXPECT_EQ(d16, want16);
    EXPECT_EQ(copyAndConvertImageRows(2, 1, 6, 6, 3, 16, 1, s16.data(), s16.data()), 1);
    EXPECT_EQ(s16, want16) << "in place";
    // Swap with 4 samples or float samples: -1 and nothing written.
    EXPECT_EQ(copyAndConvertImageRows(2, 2, 8, 8, 4, 8, 1, src.data(), untouched.data()), -1);
    EXPECT_EQ(copyAndConvertImageRows(2, 2, 6, 6, 3, 32, 1, src.data(), untouched.data()), -1);
    EXPECT_EQ(untouched, Bytes(16, 0xEE));
    // Without swap: min(stride) samples per row, and the result is 0, not rows.
    EXPECT_EQ(copyAndConvertImageRows(2, 2, 7, 8, 3, 8, 0, src.data(), plain.data()), 0);
    EXPECT_EQ(plain, (Bytes{1, 2, 3, 4, 5, 6, 99, 0, 7, 8, 9, 10, 11, 12, 98, 0}));
    EXPECT_EQ(copyImageRows(0, 4, 4, 4, nullptr, nullptr), 0);
    EXPECT_EQ(copyImageRows(2, 4, 4, 4, nullptr, plain.data()), BV_BUF_ERR_ARG);
    EXPECT_EQ(copyAndConvertImageRows(2, 2, 7, 8, 3, 8, 1, nullptr, plain.data()), BV_BUF_ERR_ARG);
}

TEST(RowConversion, FillRowStrideInPlaceAndCopy) {
    // Three rows of 3 RGB8 pixels padded to 4 pixels, in the same buffer and copied.
    Bytes buf(3 * 12, 0xCC), separate(3 * 12, 0xCC), want(3 * 12, 0);
    for (int i = 0; i < 27; ++i) buf[i] = uint8_t(i + 1), want[i / 9 * 12 + i % 9] = uint8_t(i + 1);
    const Bytes copy = buf;
    EXPECT_EQ(fillRowStride(3, 24, 3, 4, copy.data(), separate.data()), 3);
    EXPECT_EQ(fillRowStride(3, 24, 3, 4, buf.data(), buf.data()), 3);
    EXPECT_EQ(buf, want);
    EXPECT_EQ(separate, want);
    // No padding needed: returns 1 at once and touches nothing.
    Bytes same = copy;
    EXPECT_EQ(fillRowStride(3, 24, 3, 3, same.data(), same.data()), 1);
    EXPECT_EQ(same, copy);
    EXPECT_EQ(fillRowStride(3, 24, 3, 4, nullptr, same.data()), BV_BUF_ERR_ARG);
}

TEST(RowConversion, ChannelOrderAndDepth) {
    // RGBA8 with 2 bytes of row padding: the fourth sample and padding stay.
    Bytes px = {1, 2, 3, 4, 5, 6, 7, 8, 0xAA, 0xBB};
    EXPECT_EQ(bgr2rgb(2, 1, 10, 4, 8, px.data()), 1);
    EXPECT_EQ(px, (Bytes{3, 2, 1, 4, 7, 6, 5, 8, 0xAA, 0xBB}));
    std::vector<uint16_t> p16 = {1000, 2000, 3000, 7, 4000, 5000, 6000, 9};
    EXPECT_EQ(bgr2rgb(1, 2, 8, 3, 16, p16.data()), 2);
    EXPECT_EQ(p16, (std::vector<uint16_t>{3000, 2000, 1000, 7, 6000, 5000, 4000, 9}));
    EXPECT_EQ(bgr2rgb(1, 1, 12, 3, 32, p16.data()), -1);
    EXPECT_EQ(bgr2rgb(2, 1, 4, 3, 8, px.data()), BV_BUF_ERR_ARG) << "stride shorter than a row";
    // Zero sizes are empty images, negative ones errors; one sample and zero strides are valid.
    const uint16_t one = 0xAB00;
    uint8_t byte = 0;
    EXPECT_EQ(
        std::vector<int>({bgr2rgb(0, 2, 10, 4, 8, px.data()), bgr2rgb(2, 0, 10, 4, 8, px.data()),
                          bgr2rgb(-1, 2, 10, 4, 8, px.data()), bgr2rgb(2, -1, 10, 4, 8, px.data()),
                          generateOriginalFrom16Bit(0, 2, 4, 4, 3, nullptr, nullptr),
                          generateOriginalFrom16Bit(2, 0, 4, 4, 3, nullptr, nullptr),
                          generateOriginalFrom16Bit(-1, 2, 4, 4, 3, nullptr, nullptr),
                          generateOriginalFrom16Bit(1, 1, 0, 0, 1, &one, &byte), byte}),
        std::vector<int>({2, 0, BV_BUF_ERR_ARG, BV_BUF_ERR_ARG, 2, 0, BV_BUF_ERR_ARG, 1, 0xAB}));
    // 16-bit samples to their high bytes: in place, copied, and RGB with strides on both sides.
    std::vector<uint16_t> s = {0x0102, 0xFF00, 0x00FF, 0x8000, 0x7FFF, 0xABCD},
                          s2 = {0x1234, 0xFEDC};
    const auto *bytes = reinterpret_cast<uint8_t *>(s.data());
    EXPECT_EQ(from16to8(3, 2, 3, 6, reinterpret_cast<uint8_t *>(s.data())), 2);
    EXPECT_EQ(Bytes(bytes, bytes + 6), (Bytes{0x01, 0xFF, 0x00, 0x80, 0x7F, 0xAB}));
    Bytes out2(2), rgb8(8, 0xEE);
    EXPECT_EQ(from16to8copy(2, 1, 1, 4, s2.data(), out2.data()), 1);
    EXPECT_EQ(out2, (Bytes{0x12, 0xFE}));
    const std::vector<uint16_t> rgb16 = {0x00FF, 0x0100, 0xFFFF, 0, 0x8080, 0x7F00, 0x0001, 0};
    EXPECT_EQ(generateOriginalFrom16Bit(1, 2, 4, 4, 3, rgb16.data(), rgb8.data()), 2);
    EXPECT_EQ(rgb8, (Bytes{0, 1, 255, 0xEE, 0x80, 0x7F, 0, 0xEE}));
}

TEST(DisplayRendering, BlackKnownValuesAndLayout) {
    // Black with large mantissas, a known value and a bright one; then faint pixels.
    const Bytes rgbe = {200, 128, 255, 200, 64, 255, 200, 32, 255, 0, 136, 200,  // row 0
                        1,   1,   1,   1,   1,  1,   1,   1,  1,   0, 120, 1};   // row 1
    const float *t = bvtest::exp_table();
    // Scale 1/512: 0.25^(1/2.2) * 256 = 136.33 (R), 99.58 (G), 72.74 (B); written B, G, R.
    Bytes out(9, 0xEE), g(2 * 12, 0xEE), o(2 * 10, 0xEE);
    EXPECT_EQ(getTonemappedRep(3, 1, t, rgbe.data(), out.data(), 1.0f / 512), 1);
    EXPECT_EQ(out, (Bytes{0, 0, 0, 72, 99, 136, 255, 255, 255}));
    // 76.86^0.45 * 256 >= 255; row 1: (2^-16 * 0.6004653)^0.45 * 256 = 1.3. Extra bytes stay.
    EXPECT_EQ(applyGammaToHDR(3, 2, t, 3, rgbe.data(), g.data()), 2);
    EXPECT_EQ(std::vector<int>({g[0], g[5], g[9], g[11], g[12], g[15], g[21], g[23]}),
              std::vector<int>({0, 255, 0xEE, 0xEE, 0, 1, 0xEE, 0xEE}));
    // Gamma 1 is linear: 0.25 * 256 = 64.
    EXPECT_EQ(generateOriginalFromHDR(3, 1, 10, t, rgbe.data(), o.data(), 1.0f, 1.0f / 512), 1);
    EXPECT_EQ(Bytes(o.begin(), o.begin() + 10), (Bytes{0, 0, 0, 16, 32, 64, 255, 255, 255, 0xEE}));
    EXPECT_EQ(generateOriginalFromHDR(3, 1, 8, t, rgbe.data(), o.data(), 1.0f, 1.0f),
              BV_BUF_ERR_ARG);
    EXPECT_EQ(getTonemappedRep(3, 1, nullptr, rgbe.data(), out.data(), 1.0f), BV_BUF_ERR_ARG);
}

TEST(RawFiles, SaveLoadAndFailures) {
    const std::string path = bvtest::temp_path("raw.bin");
    const Bytes data = bvtest::random_bytes(10000, 1);
    Bytes back(10000);
    int64_t size = -1;
    EXPECT_EQ(save_buffer(path.c_str(), data.data(), 10000), 10000);
    EXPECT_EQ(load_buffer(path.c_str(), back.data(), 10000, &size), 1);
    EXPECT_EQ(size, 10000);
    EXPECT_EQ(back, data);
    EXPECT_EQ(load_buffer(path.c_str(), back.data(), 10001, &size), -1)
        << "more than the file holds";
    EXPECT_EQ(load_buffer("/nonexistent/dir/x.bin", back.data(), 1, &size), -1);
    EXPECT_EQ(save_buffer("/nonexistent/dir/x.bin", data.data(), 1), -1);
    // A full device: small writes fail at the flush, large ones at once.
    EXPECT_EQ(save_buffer("/dev/full", data.data(), 10), -1);
    EXPECT_EQ(save_buffer("/dev/full", data.data(), 10000), -1);
    EXPECT_EQ(save_buffer(path.c_str(), nullptr, 5), BV_BUF_ERR_ARG);
    EXPECT_EQ(load_buffer(path.c_str(), back.data(), 4, nullptr), BV_BUF_ERR_ARG);
}

TEST(StripFiles, RoundTripAndExactCodes) {
    FILE *f = std::fopen(bvtest::temp_path("strips.bin").c_str(), "wb+");
    ASSERT_NE(f, nullptr);
    std::vector<float> a(100), b(100), big(8192, 1.0f);  // larger than the stdio buffer
    for (int i = 0; i < 100; ++i) a[i] = i * 0.5f;
    EXPECT_EQ(write_strip(f, 50, 100, a.data()), 4);  // a hole of 50 floats before it
    EXPECT_EQ(read_strip(f, 50, 100, b.data()), 4);
    EXPECT_EQ(a, b);
    EXPECT_EQ(read_strip(f, 0, 50, b.data()), 4);
    EXPECT_EQ(b[0], 0.0f) << "the hole reads as zeros";
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_strip(f, 120, 100, b.data()), BV_STRIP_ERR_READ);  // one of four items left
    EXPECT_EQ(read_strip(f, 150, 100, b.data()), BV_STRIP_ERR_READ);  // at the end
    std::fclose(f);
    FILE *full = std::fopen("/dev/full", "wb");
    ASSERT_NE(full, nullptr);
    EXPECT_EQ(write_strip(full, 0, 8192, big.data()), BV_STRIP_ERR_WRITE);
    std::fclose(full);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "can not read temporary file - returned 1 instead of 4 in tm20\n"
              "can not read temporary file - returned 0 instead of 4 in tm20\n"
              "could not write to temporary file in tm20 - - returned 0 instead of 4 \n");
    FILE *p = popen("cat >/dev/null", "w");  // a pipe cannot seek
    EXPECT_EQ(write_strip(p, 1, 1, a.data()), BV_STRIP_ERR_SEEK);
    pclose(p);
    EXPECT_EQ(write_strip(nullptr, 0, 1, a.data()), BV_STRIP_ERR_SEEK);
    EXPECT_EQ(read_strip(nullptr, 0, 1, b.data()), BV_STRIP_ERR_SEEK);
}

TEST(MtRandom, FixedStartRawWordsAndRecurrence) {
    MtRandom b, c, d;
    for (MtRandom *m : {&b, &c, &d}) mt_init(m);
    EXPECT_EQ(b.pos, 2496u);
    EXPECT_EQ(b.mt[623], 623u);
    // 2000 raw words (the first 397 ^ 0x9908b0df) cross four regenerations; tempered, they
    // equal std::mt19937 started from the words 0..623.
    std::vector<uint32_t> words(2000);
    for (uint32_t &w : words) w = mt_random(&b);
    EXPECT_EQ(bvtest::digest(words), 7117665892183273774u);
    EXPECT_EQ(b.pos, 512u);
    c.pos = 7;  // corrupt position: treated as exhausted
    EXPECT_EQ(mt_random(&c), mt_random(&d));
    EXPECT_EQ(mt_random(nullptr), 0u);
}

}  // namespace
