// Status codes as text: every family's table, and what lies outside it.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

TEST(CodeText, EachFamilyReadsItsOwnTable) {
    const std::tuple<int, int, const char *> cases[] = {
        {BV_FAMILY_BUFFERS, BV_STRIP_ERR_READ, "strip file read short"},
        {BV_FAMILY_THREADS, BV_DW_ENOMEM, "out of memory"},
        {BV_FAMILY_COLOUR, BV_COLOUR_EARG, "NULL pointer or negative index"},
        {BV_FAMILY_RGBE, BV_RGBE_ERR_WRITE, "file cannot be written"},
        {BV_FAMILY_RADIANCE, BV_RAD_ERR_PACKET, "bad run-length packet"},
        {BV_FAMILY_RADIANCE, BV_RAD_ERR_ARGUMENTS, "NULL buffer or bad sizes"},
        // One number, two meanings: the text names both.
        {BV_FAMILY_RADIANCE, -2, "no resolution line, or a flat row could not be written"},
        {BV_FAMILY_HDRGEN, BV_HDR_CANCELLED, "cancelled"},
        {BV_FAMILY_TONEMAP, BV_TM_ETHREAD, "a worker thread could not be created"},
        {BV_FAMILY_COLORADJUST, BV_CA_EDEPTH, "unsupported depth, or a worker thread failed"},
        // The same number means different things in different families.
        {BV_FAMILY_HDRGEN, -1, "no usable sample position"},
        {BV_FAMILY_TONEMAP, -1, "NULL pointer or bad sizes"},
        // Success, codes outside the table, families outside the header.
        {BV_FAMILY_TONEMAP, 0, "ok"},
        {BV_FAMILY_TONEMAP, -3, "unknown code"},
        {0, -1, "unknown family"},
        {BV_FAMILY_BLEND + 1, -1, "unknown family"},
        {-1, 0, "unknown family"},
    };
    for (const auto &[family, code, text] : cases)
        EXPECT_EQ(std::string(bv_code_text(family, code)), text) << family << " " << code;
}

TEST(CodeText, EveryNegativeCodeOfEveryFamilyHasAText) {
    // Each family's codes as its section of the header lists them.
    const std::pair<int, std::vector<int>> families[] = {
        {BV_FAMILY_BUFFERS, {-1, -3, -20, -21, -22}},
        {BV_FAMILY_THREADS, {-1, -4}},
        {BV_FAMILY_COLOUR, {-1}},
        {BV_FAMILY_RGBE, {-1, -2, -3, -4}},
        {BV_FAMILY_RADIANCE, {-1, -2, -3, -4, -200, -201, -202, -203}},
        {BV_FAMILY_HDRGEN, {-1, -2, -3, -4, -5}},
        {BV_FAMILY_TONEMAP, {-1, -2, -4, -5}},
        {BV_FAMILY_COLORADJUST, {-1, -2, -3, -4}},
        {BV_FAMILY_GHOSTS, {-1, -2, -3, -4}},
        {BV_FAMILY_PYRAMID, {-1, -2, -4}},
        {BV_FAMILY_ENHANCER, {-3, -4, -5, -10, -11, -12, -150, -151, -201, -202, -304, -305, -400}},
        {BV_FAMILY_FUSION, {-1, -2, -3, -4, -5}},
        {BV_FAMILY_BLEND, {-2, -3, -4}},
    };
    for (const auto &[family, codes] : families)
        for (int code : codes) {
            const std::string t = bv_code_text(family, code);
            EXPECT_EQ(t.find("unknown"), std::string::npos) << family << " " << code;
            EXPECT_LT(t.size(), 64u) << t;
        }
}

}  // namespace
