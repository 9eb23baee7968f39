// Merge, load, measure, tone-map and save: the steps every subcommand shares.
#include "pipeline.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "cli.hpp"
#include "exposures.hpp"
#include "libcalls.hpp"

namespace bvcli {
namespace {

std::string base_name(const std::string &path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool is_radiance_ext(const std::string &ext) {
    return ext == ".hdr" || ext == ".pic" || ext == ".rgbe";
}

}  // namespace

void parse_exposures(const std::string &arg, std::vector<std::string> &inputs,
                     std::vector<float> &exposures) {
    exposures.clear();
    std::ifstream file(arg);
    if (!file) {
        // Not a file: a comma-separated list, one value per input in order.
        if (arg.find_first_not_of("0123456789.,eE+- ") != std::string::npos)
            fail("cannot open exposures file '" + arg + "'");
        std::stringstream ss(arg);
        std::string item;
        while (std::getline(ss, item, ','))
            exposures.push_back(static_cast<float>(parse_number(item, "an exposure", 1e-12, 1e12)));
        if (exposures.size() != inputs.size())
            usage_error("--exposures gives " + std::to_string(exposures.size()) + " values for " +
                        std::to_string(inputs.size()) + " brackets");
        return;
    }
    std::map<std::string, float> by_name;
    std::vector<std::string> order;
    std::string line;
    int line_no = 0;
    while (std::getline(file, line)) {
        ++line_no;
        size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        std::istringstream ls(line);
        std::string name, value;
        if (!(ls >> name)) continue;
        if (!(ls >> value))
            fail("exposures file '" + arg + "' line " + std::to_string(line_no) +
                 ": expected a file name and its exposure");
        char *end = nullptr;
        double v = std::strtod(value.c_str(), &end);
        if (*end || !(v > 0) || !std::isfinite(v))
            fail("exposures file '" + arg + "' line " + std::to_string(line_no) + ": exposure '" +
                 value + "' is not a positive number");
        by_name[name] = static_cast<float>(v);
        order.push_back(name);
    }
    if (order.empty()) fail("exposures file '" + arg + "' lists no brackets");
    if (inputs.empty()) {
        size_t slash = arg.find_last_of('/');
        std::string dir = slash == std::string::npos ? "" : arg.substr(0, slash + 1);
        for (const auto &name : order) {
            inputs.push_back(name[0] == '/' ? name : dir + name);
            exposures.push_back(by_name[name]);
        }
        return;
    }
    for (const auto &in : inputs) {
        auto it = by_name.find(base_name(in));
        if (it == by_name.end()) it = by_name.find(in);
        if (it == by_name.end())
            fail("exposures file '" + arg + "' has no line for '" + base_name(in) + "'");
        exposures.push_back(it->second);
    }
}

HdrImage merge_brackets(const BracketSet &set, const ExposureChoice &choice, MergeReport *report,
                        int threads) {
    const int n = static_cast<int>(set.info.size());
    if (n < 2)
        fail("merging needs at least two brackets of one scene (got " + std::to_string(n) + ")");
    MergeReport r;
    if (choice.gamma > 0) {
        r.gamma = static_cast<float>(choice.gamma);
        r.gamma_source = "given";
    } else if (set.info.front().linear) {
        r.gamma = 1.0f;
        r.gamma_source = "linear decoder";
    } else if (!set.info.front().icc.empty()) {
        r.gamma = lib::gamma_from_profile(set.info.front().icc);
        r.gamma_source = "ICC profile";
    } else {
        r.gamma = 2.2f;
        r.gamma_source = "default";
    }

    // Files that name no curve are sRGB by convention; the merge keeps its
    // gamma, but the exposures are measured through the curve itself.
    ExposurePlan plan =
        choose_exposures(set, choice, r.gamma, r.gamma_source == "default", threads);
    std::vector<float> exposures = plan.exposures;
    const float ev_step = plan.ev_step;
    r.exposure_source = plan.source;
    r.estimate = plan.estimate;
    r.confidence = plan.confidence;
    r.warnings = plan.warnings;

    HdrImage img;
    img.width = set.width;
    img.height = set.height;
    lib::merge(n, set.width, set.height, set.bits, set.data.data(), ev_step, r.gamma, exposures,
               img.rgbe, r.stats);
    r.exposures = exposures;

    // The bracket in the middle of the exposure order speaks for the result.
    std::vector<int> order(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](int a, int b) { return exposures[a] < exposures[b]; });
    r.middle = order[static_cast<size_t>(n / 2)];
    img.exif = set.info[r.middle].exif;
    img.has_exif = true;
    img.profile = set.info[r.middle].profile_name;
    if (report) *report = r;
    return img;
}

void check_hdr_extension(const std::string &path) {
    std::string ext = extension_of(path);
    if (!is_radiance_ext(ext) && ext != ".tif" && ext != ".tiff")
        usage_error("cannot write HDR as '" + (ext.empty() ? path : ext) +
                    "': use .hdr (Radiance) or .tif (32-bit float TIFF)");
}

void save_hdr(OutputFile &out, const HdrImage &img) {
    check_hdr_extension(out.path());
    if (img.is_float) fail("internal: float images are not written as HDR");
    Progress bar("writing " + base_name(out.path()));
    if (is_radiance_ext(extension_of(out.path())))
        lib::write_radiance(out.temp(), out.path(), img.width, img.height, img.exif, img.profile,
                            img.rgbe);
    else
        lib::write_float_tiff(out.temp(), out.path(), img.width, img.height, img.rgbe);
    out.commit();
}

HdrImage load_hdr(const std::string &path) {
    HdrImage img;
    std::string ext = extension_of(path);
    if (is_radiance_ext(ext)) {
        std::FILE *f = std::fopen(path.c_str(), "rb");
        if (!f) fail("cannot open '" + path + "': " + std::strerror(errno));
        std::fclose(f);
        lib::RadianceHeader h = lib::read_radiance_header(path);
        img.width = h.width;
        img.height = h.height;
        img.exif = h.exif;
        img.has_exif = true;
        Progress bar("reading " + base_name(path));
        img.rgbe = lib::read_radiance(path, h.width, h.height);
        return img;
    }
    FloatImage f = read_float_image(path);
    img.is_float = true;
    img.width = f.width;
    img.height = f.height;
    img.rgb = std::move(f.rgb);
    return img;
}

LogLumStats hdr_stats(const HdrImage &img) {
    return img.is_float ? lib::stats_float(img.width, img.height, img.rgb)
                        : lib::stats_rgbe(img.width, img.height, img.rgbe);
}

std::vector<uint8_t> tonemap_image(const HdrImage &img, const LogLumStats &stats,
                                   const TmParam &param, int bits, int threads) {
    const size_t bytes = static_cast<size_t>(bits / 8);
    const size_t row_bytes = static_cast<size_t>(img.width) * 3 * bytes;
    std::vector<uint8_t> out(row_bytes * img.height);
    const void *input = img.is_float ? static_cast<const void *>(img.rgb.data())
                                     : static_cast<const void *>(img.rgbe.data());
    // A global mapping: strips give the same pixels as one call, and let the
    // bar move and Ctrl-C stop between them.
    const int strip = 64;
    Progress bar("tone mapping");
    for (int y = 0; y < img.height; y += strip) {
        check_interrupted();
        int rows = std::min(strip, img.height - y);
        lib::tonemap_rows(param, stats, img.width, y, rows, img.is_float, input, bits,
                          out.data() + row_bytes * y, threads);
        bar.update(static_cast<float>(y + rows) / img.height);
    }
    return out;
}

void check_picture_extension(const std::string &path, int bits) {
    std::string ext = extension_of(path);
    bool jpeg = ext == ".jpg" || ext == ".jpeg";
    if (!jpeg && ext != ".png" && ext != ".tif" && ext != ".tiff")
        usage_error("cannot write a picture as '" + (ext.empty() ? path : ext) +
                    "': use .png, .tif or .jpg");
    if (jpeg && bits == 16) usage_error("JPEG pictures are 8-bit; use .png or .tif for 16 bits");
}

void save_picture(OutputFile &out, int width, int height, int bits,
                  const std::vector<uint8_t> &pixels, const exifInfo *meta) {
    check_picture_extension(out.path(), bits);
    std::string ext = extension_of(out.path());
    if (ext == ".tiff") ext = ".tif";
    write_picture(out.temp(), out.path(), ext, width, height, bits, pixels.data(), meta);
    out.commit();
}

}  // namespace bvcli
