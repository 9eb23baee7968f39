// Thin wrappers over the public API: checked arguments in, one-line failures out.
#include "libcalls.hpp"

#include <cmath>
#include <cstring>

#include "cli.hpp"
#include "progress.hpp"

namespace bvcli {
namespace lib {

std::vector<float> exposures_from_camera(std::vector<std::array<int32_t, 7>> records) {
    const int n = static_cast<int>(records.size());
    get_ev(n, records.data()->data());
    // The library overwrites the start of the records with n floats.
    std::vector<float> factors(records.size());
    std::memcpy(factors.data(), records.data(), factors.size() * sizeof(float));
    return factors;
}

std::vector<float> estimate_exposures(int n, int width, int height, int bits, const void *data) {
    std::vector<int32_t> stats(static_cast<size_t>(n));
    std::vector<float> factors(static_cast<size_t>(n), 1.0f);
    mediane_images(n, width, height, width * 3, 3, bits, data, stats.data());
    if (guess_ev(0, n, stats.data(), factors.data(), 0.0f) != n) fail("exposure estimation failed");
    return factors;
}

PixelEstimate estimate_from_pixels(int n, int width, int height, int bits, const void *data,
                                   float gamma, bool srgb, int threads) {
    std::vector<float> curve;
    if (srgb) {
        const double top = std::ldexp(1.0, bits) - 1;
        for (int i = 0; i < (1 << bits); ++i) {
            const double v = i / top;
            curve.push_back(
                static_cast<float>(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4)));
        }
    }
    PixelEstimate e;
    e.factors.assign(static_cast<size_t>(n), 1.0f);
    e.confidence.assign(static_cast<size_t>(n), 0.0f);
    Progress bar("estimating exposures");
    const int rc = bv_hdr_estimate_exposures(&Progress::library_callback, threads, n, width, height,
                                             3, bits, gamma, srgb ? curve.data() : nullptr, data,
                                             e.factors.data(), e.confidence.data());
    check_interrupted();
    if (rc == BV_HDR_CANCELLED) throw Failure(kCancelled, "cancelled");
    if (rc == BV_HDR_ENOMEM) fail("not enough memory to estimate the exposures");
    if (rc < 0) fail("exposure estimation failed (" + code_text(BV_FAMILY_HDRGEN, rc) + ")");
    e.measured = rc;
    return e;
}

float gamma_from_profile(const std::vector<uint8_t> &icc) {
    float gamma = 2.2f;
    if (icc.size() >= 16) {
        const int size = static_cast<int>(icc.size());
        if (trc_from_profile(icc.data(), size, &gamma) < 0) gamma = 2.2f;
    }
    if (!(gamma > 0.1f && gamma < 10.0f)) gamma = 2.2f;
    return gamma;
}

void merge(int n, int width, int height, int bits, const void *data, float ev_step, float gamma,
           std::vector<float> &exposures, std::vector<uint8_t> &rgbe, float stats[3]) {
    std::vector<float> lut(static_cast<size_t>(1) << bits);
    lut[0] = gamma;
    exposures.resize(static_cast<size_t>(n), 1.0f);
    rgbe.assign(static_cast<size_t>(width) * height * 4, 0);
    Progress bar("merging");
    int rc = bv_hdr_merge(&Progress::library_callback, 0, n, width, height, 3, ev_step, bits, 1,
                          lut.data(), exposures.data(), data, stats, rgbe.data());
    check_interrupted();
    if (rc == BV_HDR_CANCELLED) throw Failure(kCancelled, "cancelled");
    if (rc == BV_HDR_ENOMEM) fail("not enough memory to merge " + std::to_string(n) + " brackets");
    if (rc != height) fail("merging failed (" + code_text(BV_FAMILY_HDRGEN, rc) + ")");
}

void write_radiance(const std::string &path, const std::string &shown, int width, int height,
                    const exifInfo &exif, const std::string &profile,
                    const std::vector<uint8_t> &rgbe) {
    char name[32] = {};
    std::strncpy(name, profile.c_str(), sizeof name - 1);
    int rc = bv_io_rgbe_write(path.c_str(), width, height, &exif, 0, name, rgbe.data());
    if (rc != height)
        fail("cannot write '" + shown + "' (" + code_text(BV_FAMILY_RADIANCE, rc) + ")");
}

void write_float_tiff(const std::string &path, const std::string &shown, int width, int height,
                      const std::vector<uint8_t> &rgbe) {
    if (width > 65535 || height > 65535)
        fail("'" + shown + "': float TIFF output is limited to 65535 pixels a side");
    int rc = fp_save(path.c_str(), width, height, 0, rgbe.data());
    if (rc != height) fail("cannot write '" + shown + "' (" + code_text(BV_FAMILY_RGBE, rc) + ")");
}

RadianceHeader read_radiance_header(const std::string &path) {
    RadianceHeader h;
    RgbeDims dims{};
    int rc = rgbe_dim(path.c_str(), h.primaries, &dims);
    if (rc == BV_RAD_ERR_IO) fail("cannot open '" + path + "'");
    if (rc == BV_RAD_ERR_NO_RESOLUTION)
        fail("'" + path + "' is not a Radiance file (no resolution line)");
    if (rc == BV_RAD_ERR_ZERO_SIZE)
        fail("'" + path + "' is damaged: its resolution line gives no pixels");
    if (rc < 0) fail("cannot read '" + path + "' (" + code_text(BV_FAMILY_RADIANCE, rc) + ")");
    if (dims.width < 1 || dims.height < 1) fail("'" + path + "' has an unusable resolution line");
    h.width = dims.width;
    h.height = dims.height;
    h.file_size = dims.fileSize;
    h.header_lines = rc;
    h.has_primaries = dims.primariesCount > 0;
    h.exif.profile = -1;
    if (extract_rgbe_exif(path.c_str(), &h.exif) < 0)
        fail("cannot read the header of '" + path + "'");
    return h;
}

std::vector<uint8_t> read_radiance(const std::string &path, int width, int height) {
    const size_t bytes = static_cast<size_t>(width) * height * 4;
    if (bytes / 4 / width != static_cast<size_t>(height) || bytes > (size_t(1) << 34))
        fail("'" + path + "' is too large (" + std::to_string(width) + "x" +
             std::to_string(height) + ")");
    std::vector<uint8_t> rgbe(bytes);
    int rc = bv_io_read_rgbe(width, height, path.c_str(), rgbe.data());
    if (rc == height) return rgbe;
    if (rc == BV_RAD_ERR_IO) fail("'" + path + "' is truncated or unreadable");
    fail("'" + path + "' has damaged pixel data (" + code_text(BV_FAMILY_RADIANCE, rc) + ")");
}

std::vector<float> rgbe_to_float(int width, int height, const std::vector<uint8_t> &rgbe) {
    std::vector<float> rgb(static_cast<size_t>(width) * height * 3);
    int rc = rgbe2fp(width, height, width * 3, 0, 0, rgbe.data(), rgb.data(), 1.0f);
    if (rc != height) fail("cannot decode the HDR image (" + code_text(BV_FAMILY_RGBE, rc) + ")");
    return rgb;
}

namespace {
LogLumStats run_stats(int width, int height, const void *data, bool is_float) {
    float table[256];
    exp_lut_old(table);
    LogLumStats s{};
    s.v[BV_LLS_MIN] = is_float ? 32.0f : 8.0f;
    s.v[BV_LLS_MAX] = 3.0f;
    int rc = logMinMaxMoy(width, height, table, data, &s);
    if (rc < 0)
        fail("cannot measure the image's luminance (" + code_text(BV_FAMILY_RGBE, rc) + ")");
    return s;
}
}  // namespace

LogLumStats stats_rgbe(int width, int height, const std::vector<uint8_t> &rgbe) {
    return run_stats(width, height, rgbe.data(), false);
}

LogLumStats stats_float(int width, int height, const std::vector<float> &rgb) {
    return run_stats(width, height, rgb.data(), true);
}

TmParam tonemap_defaults() {
    TmParam p{};
    tmparam_default(0, 0, &p);  // method 0: the simple mapper's neutral record
    return p;
}

void tonemap_rows(const TmParam &param, const LogLumStats &stats, int width, int row0, int rows,
                  bool is_float, const void *input, int bits, void *out, int threads) {
    float table[256];
    exp_lut_old(table);
    TmParam p = param;
    p.slot[BV_TM_SLOT_REGION_SETS] = 0;  // no region sets follow
    p.slot[BV_TM_SLOT_FIRST_ROW] = 0;    // rows are chosen by the pointers below
    p.slot[BV_TM_SLOT_END_ROW] = 0;
    DimParam dim = rgb_dim(width, rows, is_float ? 32 : 8, bits);
    dim.rowIn = width * 3;
    dim.rowOut = width * 3;
    dim.sourceKind = is_float ? BV_SOURCE_FLOAT_RGB : 0;
    const size_t in_row = static_cast<size_t>(width) * (is_float ? 12 : 4);
    auto *src = const_cast<uint8_t *>(static_cast<const uint8_t *>(input)) + in_row * row0;
    LogLumStats s = stats;
    int rc = tm_simple(&p, nullptr, &s, table, src, static_cast<uint16_t *>(out), dim, threads);
    if (rc == BV_TM_ESTATS) fail("the image has a single luminance level; nothing to tone-map");
    if (rc == BV_TM_ENOMEM) fail("not enough memory to tone-map");
    if (rc < 0) fail("tone mapping failed (" + code_text(BV_FAMILY_TONEMAP, rc) + ")");
}

}  // namespace lib
}  // namespace bvcli
