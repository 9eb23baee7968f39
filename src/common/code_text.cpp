// Status codes as short texts, one table for every family of the public header.
#include <Brackvista40Lib1.h>

namespace bv {
namespace {

struct CodeText {
    int family;
    int code;
    const char *text;
};

// One row per code; where a family gives one number two meanings, the row
// names both.
constexpr CodeText kTexts[] = {
    {BV_FAMILY_BUFFERS, BV_BUF_ERR_FILE,
     "file cannot be opened, read or written, or unsupported swap"},
    {BV_FAMILY_BUFFERS, BV_BUF_ERR_ARG, "NULL buffer or negative size"},
    {BV_FAMILY_BUFFERS, BV_STRIP_ERR_SEEK, "strip file seek failed"},
    {BV_FAMILY_BUFFERS, BV_STRIP_ERR_READ, "strip file read short"},
    {BV_FAMILY_BUFFERS, BV_STRIP_ERR_WRITE, "strip file write short"},

    {BV_FAMILY_THREADS, BV_DW_EBADARG, "NULL worker or template, or record too small"},
    {BV_FAMILY_THREADS, BV_DW_ENOMEM, "out of memory"},

    {BV_FAMILY_COLOUR, BV_COLOUR_EARG, "NULL pointer or negative index"},

    {BV_FAMILY_RGBE, BV_RGBE_ERR_OPEN, "file cannot be opened, or empty histogram range"},
    {BV_FAMILY_RGBE, BV_RGBE_ERR_WRITE, "file cannot be written"},
    {BV_FAMILY_RGBE, BV_RGBE_ERR_ARG, "NULL buffer or bad size"},
    {BV_FAMILY_RGBE, BV_RGBE_ERR_NOMEM, "out of memory"},

    {BV_FAMILY_RADIANCE, BV_RAD_ERR_IO, "file cannot be opened, read or written, or ends early"},
    {BV_FAMILY_RADIANCE, BV_RAD_ERR_NO_RESOLUTION,
     "no resolution line, or a flat row could not be written"},
    {BV_FAMILY_RADIANCE, BV_RAD_ERR_ZERO_SIZE, "resolution line gives no pixels"},
    {BV_FAMILY_RADIANCE, BV_RAD_ERR_MEMORY,
     "out of memory, or a run-length scanline of another width"},
    {BV_FAMILY_RADIANCE, BV_RAD_ERR_DIMENSIONS, "file dimensions differ from the expected ones"},
    {BV_FAMILY_RADIANCE, BV_RAD_ERR_SCANLINE_HEADER, "bad run-length scanline header"},
    {BV_FAMILY_RADIANCE, BV_RAD_ERR_PACKET, "bad run-length packet"},
    {BV_FAMILY_RADIANCE, BV_RAD_ERR_ARGUMENTS, "NULL buffer or bad sizes"},

    {BV_FAMILY_HDRGEN, BV_HDR_ENOPOS, "no usable sample position"},
    {BV_FAMILY_HDRGEN, BV_HDR_EDEPTH, "bits per sample other than 8 or 16"},
    {BV_FAMILY_HDRGEN, BV_HDR_EINVAL, "NULL buffer, bad size or bad exposure"},
    {BV_FAMILY_HDRGEN, BV_HDR_ENOMEM, "out of memory"},
    {BV_FAMILY_HDRGEN, BV_HDR_CANCELLED, "cancelled"},

    {BV_FAMILY_TONEMAP, BV_TM_EBADARG, "NULL pointer or bad sizes"},
    {BV_FAMILY_TONEMAP, BV_TM_ETHREAD, "a worker thread could not be created"},
    {BV_FAMILY_TONEMAP, BV_TM_ENOMEM, "out of memory"},
    {BV_FAMILY_TONEMAP, BV_TM_ESTATS, "statistics give a single luminance level"},

    {BV_FAMILY_COLORADJUST, BV_CA_EBADARG, "NULL pointer, bad mode or bad size"},
    {BV_FAMILY_COLORADJUST, BV_CA_EDEPTH, "unsupported depth, or a worker thread failed"},
    {BV_FAMILY_COLORADJUST, BV_CA_ECANCEL, "cancelled"},
    {BV_FAMILY_COLORADJUST, BV_CA_ENOMEM, "out of memory"},
};

constexpr int kFirstFamily = BV_FAMILY_BUFFERS;
constexpr int kLastFamily = BV_FAMILY_COLORADJUST;

}  // namespace
}  // namespace bv

extern "C" BV_API const char *bv_code_text(int family, int code) {
    if (family < bv::kFirstFamily || family > bv::kLastFamily) return "unknown family";
    if (code >= 0) return "ok";
    for (const bv::CodeText &t : bv::kTexts)
        if (t.family == family && t.code == code) return t.text;
    return "unknown code";
}
