// The library calls the tool makes, each turning a negative code into a message.
#pragma once

#include <Brackvista40Lib1.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace bvcli {

// The library's own short text for a code of one family, with the number.
inline std::string code_text(int family, int code) {
    return std::string(bv_code_text(family, code)) + ", code " + std::to_string(code);
}

namespace lib {

// Dimensions of packed 3-channel pictures, every other field at its default.
inline DimParam rgb_dim(int width, int height, int bitsIn, int bitsOut) {
    DimParam dim;
    init_dim_param(&dim);
    dim.width = width;
    dim.height = height;
    dim.channels = 3;
    dim.bitsIn = bitsIn;
    dim.bitsOut = bitsOut;
    return dim;
}

// Relative exposure factors from camera data, in the order given: per bracket
// {time num, time den, f-number num, f-number den, EV thousandths, ISO, 0}.
std::vector<float> exposures_from_camera(std::vector<std::array<int32_t, 7>> records);

// Relative exposures estimated from the pixels alone (the image in the middle
// of the brightness order gets 1), as the merge would estimate them.
std::vector<float> estimate_exposures(int n, int width, int height, int bits, const void *data);

// Relative exposures measured from neighbour ratios over well-exposed pixels
// (bv_hdr_estimate_exposures), with a confidence per bracket; `measured` is
// the number of bracket pairs the pixels decided (the rest fell back). The
// levels are linearised by the sRGB curve when `srgb`, else by `gamma`.
struct PixelEstimate {
    std::vector<float> factors, confidence;
    int measured = 0;
};
PixelEstimate estimate_from_pixels(int n, int width, int height, int bits, const void *data,
                                   float gamma, bool srgb, int threads);

// Gamma of the tone curve in an ICC profile (2.2 when it has a sampled curve).
float gamma_from_profile(const std::vector<uint8_t> &icc);

// Merges n brackets (3 channels, back to back) into an RGBE scanline image.
// evStep as the library takes it; exposures are in or out accordingly.
void merge(int n, int width, int height, int bits, const void *data, float ev_step, float gamma,
           std::vector<float> &exposures, std::vector<uint8_t> &rgbe, float stats[3]);

void write_radiance(const std::string &path, const std::string &shown, int width, int height,
                    const exifInfo &exif, const std::string &profile,
                    const std::vector<uint8_t> &rgbe);
void write_float_tiff(const std::string &path, const std::string &shown, int width, int height,
                      const std::vector<uint8_t> &rgbe);

struct RadianceHeader {
    int width = 0, height = 0;
    int64_t file_size = 0;
    int header_lines = 0;
    bool has_primaries = false;
    float primaries[8] = {};
    exifInfo exif{};
};
RadianceHeader read_radiance_header(const std::string &path);
std::vector<uint8_t> read_radiance(const std::string &path, int width, int height);

// Decodes an RGBE scanline image to float RGB.
std::vector<float> rgbe_to_float(int width, int height, const std::vector<uint8_t> &rgbe);

// Log-luminance statistics of an RGBE scanline image or a float RGB image.
LogLumStats stats_rgbe(int width, int height, const std::vector<uint8_t> &rgbe);
LogLumStats stats_float(int width, int height, const std::vector<float> &rgb);

// Defaults of the simple tone mapper.
TmParam tonemap_defaults();
// Tone-maps rows [row0, row0 + rows) of an HDR image into `out` (3 samples
// per pixel of `bits`); input is RGBE rows or float RGB.
void tonemap_rows(const TmParam &param, const LogLumStats &stats, int width, int row0, int rows,
                  bool is_float, const void *input, int bits, void *out, int threads);

}  // namespace lib
}  // namespace bvcli
