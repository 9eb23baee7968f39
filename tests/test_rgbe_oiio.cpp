// Real brackets through convert_to_rgbe, and float TIFFs from fp_save read
// back by OpenImageIO (float and half) against the library's own decoding.
#include <Brackvista40Lib1.h>
#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "test_support.hpp"

namespace {

bool load_rgb8(const std::string &path, int *w, int *h, std::vector<uint8_t> *px) {
    auto in = OIIO::ImageInput::open(path);
    if (!in) return false;
    const OIIO::ImageSpec &ispec = in->spec();
    *w = ispec.width;
    *h = ispec.height;
    px->resize(static_cast<size_t>(*w) * *h * 3);
    const bool ok = in->read_image(0, 0, 0, 3, OIIO::TypeDesc::UINT8, px->data());
    in->close();
    return ok;
}

TEST(RealBrackets, ConvertedPixelsKeepTheResponseAndTiffReadsBack) {
    const std::string dir = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(dir);
    int w = 0, h = 0;
    std::vector<uint8_t> src;
    ASSERT_TRUE(load_rgb8(dir + "/memorial/memorial0068.png", &w, &h, &src));
    ASSERT_EQ(w, 512);
    ASSERT_EQ(h, 768);

    std::vector<float> table(256);
    for (int i = 0; i < 256; ++i) table[i] = static_cast<float>(std::pow(i / 255.0, 2.2));
    std::vector<uint8_t> rgbe(static_cast<size_t>(w) * h * 4);
    ASSERT_EQ(convert_to_rgbe(8, w, h, 3, w * 3, 0, table.data(), src.data(), rgbe.data()), h);

    float t[256];
    exp_lut_old(t);
    std::vector<float> lin(static_cast<size_t>(w) * h * 3);
    ASSERT_EQ(rgbe2fp(w, h, 0, 0, 0, rgbe.data(), lin.data(), 1.0f), h);
    size_t marked = 0, kept = 0;
    float worst = 0;
    for (size_t i = 0; i < static_cast<size_t>(w) * h; ++i) {
        const uint8_t *s = &src[i * 3];
        const int luma = 54 * s[0] + 183 * s[1] + 19 * s[2];
        const float *v = &lin[i * 3];
        if (luma < 1280 || (luma >> 8) >= 254) {
            ++marked;
            ASSERT_TRUE(v[0] == v[1] && v[1] == v[2]) << "marked pixels are grey";
            ASSERT_GT(v[0], 0.0f);
            continue;
        }
        ++kept;
        const float m = std::max(table[s[0]], std::max(table[s[1]], table[s[2]]));
        for (int c = 0; c < 3; ++c) {
            const float err = table[s[c]] - v[c];
            ASSERT_GE(err, 0.0f);  // truncation never rounds up
            ASSERT_LT(err, m / 128.0f);
            worst = std::max(worst, err / m);
        }
    }
    std::printf("memorial0068: %zu kept, %zu grey, worst relative error %.6f\n", kept, marked,
                worst);
    EXPECT_GT(kept, marked);

    const std::string path = bvtest::temp_path("memorial.tif");
    ASSERT_EQ(fp_save(path.c_str(), w, h, 0, rgbe.data()), h);
    auto in = OIIO::ImageInput::open(path);
    ASSERT_TRUE(in) << OIIO::geterror();
    EXPECT_EQ(in->spec().width, w);
    EXPECT_EQ(in->spec().height, h);
    EXPECT_EQ(in->spec().nchannels, 3);
    EXPECT_EQ(in->spec().format, OIIO::TypeDesc::FLOAT);
    std::vector<float> back(lin.size());
    ASSERT_TRUE(in->read_image(0, 0, 0, 3, OIIO::TypeDesc::FLOAT, back.data()));
    EXPECT_EQ(back, lin);
    // The reader's own float-to-half conversion agrees with floatToHalf.
    std::vector<uint16_t> half(lin.size()), ours(lin.size());
    ASSERT_TRUE(in->read_image(0, 0, 0, 3, OIIO::TypeDesc::HALF, half.data()));
    in->close();
    ASSERT_EQ(rgbe2fp(w, h, 0, 0, 1, rgbe.data(), ours.data(), 1.0f), h);
    EXPECT_EQ(ours, half);
}

TEST(RealBrackets, StatisticsOrderedAndNormalisationInRange) {
    const std::string dir = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(dir);
    int w = 0, h = 0;
    std::vector<uint8_t> src;
    ASSERT_TRUE(load_rgb8(dir + "/memorial/memorial0064.png", &w, &h, &src));
    std::vector<float> table(256);
    for (int i = 0; i < 256; ++i) table[i] = (i + 0.5f) / 256.0f * 8.0f;
    std::vector<uint8_t> rgbe(static_cast<size_t>(w) * h * 4);
    ASSERT_EQ(convert_to_rgbe(8, w, h, 3, w * 3, 0, table.data(), src.data(), rgbe.data()), h);
    float t[256];
    exp_lut_old(t);
    LogLumStats st{};
    st.v[0] = 8;
    ASSERT_EQ(logMinMaxMoy(w, h, t, rgbe.data(), &st), h);
    EXPECT_LE(st.v[0], st.v[5]);
    EXPECT_LE(st.v[5], st.v[3]);
    EXPECT_LE(st.v[3], st.v[4]);
    EXPECT_LE(st.v[4], st.v[1]);
    EXPECT_GE(st.v[2], st.v[0]);
    EXPECT_LE(st.v[2], st.v[1]);
    std::vector<float> n(static_cast<size_t>(w) * h * 3);
    ASSERT_EQ(rgbe2fp(w, h, 0, 1, 0, rgbe.data(), n.data(), 1.0f), h);
    // About 99.5 % of the luminances fall inside 0..1 after normalisation.
    size_t above = 0;
    for (size_t i = 0; i < static_cast<size_t>(w) * h; ++i) {
        const float *p = &n[i * 3];
        ASSERT_GE(std::min(p[0], std::min(p[1], p[2])), 0.0f);
        if (0.2125f * p[0] + 0.7154f * p[1] + 0.0721f * p[2] > 1.0f) ++above;
    }
    EXPECT_LT(above, static_cast<size_t>(w) * h / 50);
}

}  // namespace
