// Real brackets through convert_to_rgbe; fp_save's TIFFs read back by OpenImageIO.
#include <OpenImageIO/imageio.h>

#include "test_support.hpp"

namespace {

// A memorial bracket converted through a response table: RGB8 and planar RGBE.
struct Bracket {
    std::vector<uint8_t> src;
    bvtest::Planar rgbe{512, 768};
};

Bracket convert(const std::string &png, float (*response)(int)) {
    Bracket b;
    auto in = OIIO::ImageInput::open(png);
    EXPECT_TRUE(in && in->spec().width == 512 && in->spec().height == 768) << png;
    if (!in) return b;
    b.src.resize(512 * 768 * 3);
    EXPECT_TRUE(in->read_image(0, 0, 0, 3, OIIO::TypeDesc::UINT8, b.src.data()));
    float table[256];
    for (int i = 0; i < 256; ++i) table[i] = response(i);
    EXPECT_EQ(convert_to_rgbe(8, 512, 768, 3, 512 * 3, 0, table, b.src.data(), b.rgbe.px.data()),
              768);
    return b;
}

TEST(RealBrackets, ConvertedPixelsKeepTheResponseAndTiffReadsBack) {
    const std::string dir = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(dir);
    auto gamma = [](int i) { return float(std::pow(i / 255.0, 2.2)); };
    const Bracket b = convert(dir + "/memorial/memorial0068.png", gamma);
    const std::vector<float> lin = b.rgbe.values();
    // Dark and nearly white pixels become greys, the others keep the response within a step.
    EXPECT_EQ(bvtest::digest(b.rgbe.px), 4324170692497780746u);
    const std::string path = bvtest::temp_path("memorial.tif");
    ASSERT_EQ(fp_save(path.c_str(), 512, 768, 0, b.rgbe.px.data()), 768);
    auto in = OIIO::ImageInput::open(path);
    ASSERT_TRUE(in) << OIIO::geterror();
    EXPECT_EQ(in->spec().format, OIIO::TypeDesc::FLOAT);
    std::vector<float> back(lin.size());
    ASSERT_TRUE(in->read_image(0, 0, 0, 3, OIIO::TypeDesc::FLOAT, back.data()));
    EXPECT_EQ(back, lin);
    // The reader's own float-to-half conversion agrees with floatToHalf.
    std::vector<uint16_t> half(lin.size()), ours(lin.size());
    ASSERT_TRUE(in->read_image(0, 0, 0, 3, OIIO::TypeDesc::HALF, half.data()));
    ASSERT_EQ(rgbe2fp(512, 768, 0, 0, 1, b.rgbe.px.data(), ours.data(), 1.0f), 768);
    EXPECT_EQ(ours, half);
}

TEST(RealBrackets, StatisticsOrderedAndNormalisationInRange) {
    const std::string dir = bvtest::shared_data_dir();
    BV_REQUIRE_SHARED_DATA(dir);
    const Bracket b =
        convert(dir + "/memorial/memorial0064.png", [](int i) { return (i + 0.5f) / 32.0f; });
    LogLumStats st{{8}};
    ASSERT_EQ(logMinMaxMoy(512, 768, bvtest::exp_table(), b.rgbe.px.data(), &st), 768);
    // min <= p33 <= median <= p99.5 <= max, and the mean inside the range.
    const float *v = st.v;
    EXPECT_TRUE(v[0] <= v[5] && v[5] <= v[3] && v[3] <= v[4] && v[4] <= v[1]);
    EXPECT_TRUE(v[0] <= v[2] && v[2] <= v[1]);
    // About 99.5 % of the luminances fall inside 0..1 after normalisation.
    std::vector<float> n(512 * 768 * 3);
    ASSERT_EQ(rgbe2fp(512, 768, 0, 1, 0, b.rgbe.px.data(), n.data(), 1.0f), 768);
    EXPECT_EQ(bvtest::digest(n), 17084063760721055079u);
}

}  // namespace
