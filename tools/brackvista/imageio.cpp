// OpenImageIO readers and writers for brackets, pictures and float images.
#include "imageio.hpp"

#include <OpenImageIO/imageio.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "cli.hpp"
#include "progress.hpp"

namespace bvcli {
namespace {

namespace oiio = OIIO;

// Codec libraries underneath OpenImageIO print their own complaints on
// stderr; the tool reports each failure itself, on one line.
class QuietStderr {
public:
    QuietStderr() {
        std::fflush(stderr);
        saved_ = dup(2);
        int null = open("/dev/null", O_WRONLY);
        if (saved_ >= 0 && null >= 0) dup2(null, 2);
        if (null >= 0) close(null);
    }
    ~QuietStderr() {
        std::fflush(stderr);
        if (saved_ >= 0) {
            dup2(saved_, 2);
            close(saved_);
        }
    }
    QuietStderr(const QuietStderr &) = delete;
    QuietStderr &operator=(const QuietStderr &) = delete;

private:
    int saved_ = -1;
};

// OpenImageIO errors can span lines; a message must stay on one.
std::string one_line(std::string s) {
    for (auto &c : s)
        if (c == '\n' || c == '\r') c = ' ';
    while (!s.empty() && s.back() == ' ') s.pop_back();
    if (s.size() > 160) s = s.substr(0, 157) + "...";
    return s;
}

void require_readable(const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) fail("cannot open '" + path + "': " + std::strerror(errno));
    if (S_ISDIR(st.st_mode)) fail("'" + path + "' is a folder, not an image");
    if (st.st_size == 0) fail("'" + path + "' is empty, not an image");
}

std::unique_ptr<oiio::ImageInput> open_input(const std::string &path) {
    require_readable(path);
    QuietStderr quiet;
    auto in = oiio::ImageInput::open(path);
    if (!in) {
        std::string why = one_line(oiio::geterror());
        fail("'" + path + "' is not an image that can be read" +
             (why.empty() ? "" : " (" + why + ")"));
    }
    return in;
}

void copy_text(char *dst, size_t cap, const std::string &src) {
    std::memset(dst, 0, cap);
    std::memcpy(dst, src.data(), std::min(cap - 1, src.size()));
}

// Rational in the library's numerator/denominator form.
void to_rational(double v, int32_t *num, int32_t *den) {
    *num = *den = 0;
    if (!(v > 0) || v > 1e6) return;
    if (v >= 1) {
        *num = static_cast<int32_t>(std::lround(v * 100));
        *den = 100;
    } else {
        *num = 1;
        *den = static_cast<int32_t>(std::lround(1.0 / v));
        if (std::fabs(1.0 / *den - v) > v * 1e-3) {  // not a 1/n time: keep precision
            *num = static_cast<int32_t>(std::lround(v * 1e6));
            *den = 1000000;
        }
    }
}

bool contains(const std::vector<uint8_t> &bytes, const char *text) {
    size_t n = std::strlen(text);
    return std::search(bytes.begin(), bytes.end(), text, text + n) != bytes.end();
}

}  // namespace

BracketInfo probe_bracket(const std::string &path) {
    auto in = open_input(path);
    const oiio::ImageSpec &ispec = in->spec();
    BracketInfo b;
    b.path = path;
    b.width = ispec.width;
    b.height = ispec.height;
    b.channels = ispec.nchannels;
    b.bits = ispec.format.size() <= 1 ? 8 : 16;
    b.exposure_time = ispec.get_float_attribute("ExposureTime", 0.0f);
    b.fnumber = ispec.get_float_attribute("FNumber", 0.0f);
    b.iso = ispec.get_int_attribute("Exif:PhotographicSensitivity",
                                   ispec.get_int_attribute("Exif:ISOSpeedRatings", 0));
    if (const oiio::ParamValue *p = ispec.find_attribute("ICCProfile")) {
        const auto *bytes = static_cast<const uint8_t *>(p->data());
        size_t n = p->type().size() * static_cast<size_t>(p->nvalues());
        b.icc.assign(bytes, bytes + n);
    }
    std::string cs = ispec.get_string_attribute("oiio:ColorSpace");
    b.linear = (cs == "linear" || cs == "Linear" || cs == "scene_linear" || cs == "lin_srgb");
    in->close();

    exifInfo &e = b.exif;
    std::string make = ispec.get_string_attribute("Make");
    std::string model = ispec.get_string_attribute("Model");
    if (!make.empty() && model.rfind(make, 0) != 0) model = make + " " + model;
    copy_text(e.camera, sizeof e.camera, model);
    copy_text(
        e.capDate, sizeof e.capDate,
        ispec.get_string_attribute("Exif:DateTimeOriginal", ispec.get_string_attribute("DateTime")));
    e.profile = 0;
    b.profile_name = "sRGB";
    if (!b.icc.empty()) {
        if (contains(b.icc, "Adobe RGB")) {
            e.profile = 1;
            b.profile_name = "Adobe RGB (1998)";
        } else if (contains(b.icc, "ProPhoto")) {
            e.profile = 2;
            b.profile_name = "ProPhoto RGB";
        } else if (!contains(b.icc, "sRGB")) {
            e.profile = -1;
            b.profile_name = "";
        }
    }
    to_rational(b.exposure_time, &e.exposureNum, &e.exposureDen);
    to_rational(b.fnumber, &e.fNumberNum, &e.fNumberDen);
    e.iso = b.iso;
    to_rational(ispec.get_float_attribute("Exif:FocalLength", 0.0f), &e.focalNum, &e.focalDen);
    e.focal35mm = ispec.get_int_attribute("Exif:FocalLengthIn35mmFilm", 0);
    to_rational(ispec.get_float_attribute("Exif:FocalPlaneXResolution", 0.0f), &e.fpXResNum,
                &e.fpXResDen);
    e.fpResUnit = ispec.get_int_attribute("Exif:FocalPlaneResolutionUnit", 0);
    return b;
}

BracketSet load_brackets(const std::vector<std::string> &paths) {
    BracketSet set;
    for (const auto &p : paths) set.info.push_back(probe_bracket(p));
    const BracketInfo &first = set.info.front();
    for (const auto &b : set.info) {
        if (b.width < kMinSide || b.height < kMinSide)
            fail("'" + b.path + "' is " + std::to_string(b.width) + "x" + std::to_string(b.height) +
                 ", too small: brackets must be at least " + std::to_string(kMinSide) + "x" +
                 std::to_string(kMinSide) + " pixels");
        if (b.width != first.width || b.height != first.height)
            fail("brackets differ in size: '" + first.path + "' is " + std::to_string(first.width) +
                 "x" + std::to_string(first.height) + ", '" + b.path + "' is " +
                 std::to_string(b.width) + "x" + std::to_string(b.height));
        if (b.channels < 1) fail("'" + b.path + "' has no colour channels");
    }
    set.width = first.width;
    set.height = first.height;
    set.bits = 8;
    for (const auto &b : set.info) set.bits = std::max(set.bits, b.bits);
    const size_t bytes_per = set.bits / 8;
    const size_t per_image = set.image_samples();
    if (per_image / 3 / static_cast<size_t>(set.width) != static_cast<size_t>(set.height) ||
        per_image > (SIZE_MAX / bytes_per) / set.info.size())
        fail("brackets are too large");
    set.data.resize(per_image * bytes_per * set.info.size());

    Progress bar("reading brackets");
    std::vector<uint8_t> scratch;
    for (size_t k = 0; k < set.info.size(); ++k) {
        check_interrupted();
        const BracketInfo &b = set.info[k];
        auto in = open_input(b.path);
        uint8_t *dst = set.data.data() + k * per_image * bytes_per;
        oiio::TypeDesc type = set.bits == 8 ? oiio::TypeDesc::UINT8 : oiio::TypeDesc::UINT16;
        int nch = std::min(b.channels, 3);
        bool ok;
        QuietStderr quiet;
        if (nch == 3) {
            ok = in->read_image(0, 0, 0, 3, type, dst);
        } else {
            // Grey images: one channel read, then spread to R, G and B.
            scratch.resize(per_image / 3 * bytes_per);
            ok = in->read_image(0, 0, 0, 1, type, scratch.data());
            for (size_t i = 0, n = per_image / 3; ok && i < n; ++i)
                for (int c = 0; c < 3; ++c)
                    std::memcpy(dst + (i * 3 + c) * bytes_per, scratch.data() + i * bytes_per,
                                bytes_per);
        }
        if (!ok) fail("cannot decode '" + b.path + "': " + one_line(in->geterror()));
        in->close();
        bar.update(static_cast<float>(k + 1) / set.info.size());
    }
    return set;
}

void write_picture(const std::string &path, const std::string &shown, const std::string &format_ext,
                   int width, int height, int bits, const void *pixels, const exifInfo *meta) {
    auto out = oiio::ImageOutput::create(format_ext == ".tif" ? "tiff" : format_ext.substr(1));
    if (!out) fail("cannot write '" + shown + "': no writer for " + format_ext + " files");
    oiio::ImageSpec ispec(width, height, 3,
                         bits == 16 ? oiio::TypeDesc::UINT16 : oiio::TypeDesc::UINT8);
    if (format_ext == ".jpg" || format_ext == ".jpeg") ispec.attribute("Compression", "jpeg:95");
    if (meta) {
        if (meta->camera[0])
            ispec.attribute("Model", std::string(meta->camera, strnlen(meta->camera, 64)));
        if (meta->capDate[0])
            ispec.attribute("DateTime", std::string(meta->capDate, strnlen(meta->capDate, 20)));
        // OpenImageIO turns a float EXIF rational that is an exact binary
        // fraction below 1 (1/2 s, 1/8192 s) into 1/0; one unit in the last
        // place up keeps it finite and reads back as the same time.
        auto rational = [](int32_t num, int32_t den) {
            return std::nextafter(static_cast<float>(num) / static_cast<float>(den), 1e30f);
        };
        if (meta->exposureNum > 0 && meta->exposureDen > 0)
            ispec.attribute("ExposureTime", rational(meta->exposureNum, meta->exposureDen));
        if (meta->fNumberNum > 0 && meta->fNumberDen > 0)
            ispec.attribute("FNumber", rational(meta->fNumberNum, meta->fNumberDen));
        if (meta->iso > 0) ispec.attribute("Exif:PhotographicSensitivity", meta->iso);
    }
    ispec.attribute("Software", "brackvista");
    QuietStderr quiet;
    if (!out->open(path, ispec) ||
        !out->write_image(bits == 16 ? oiio::TypeDesc::UINT16 : oiio::TypeDesc::UINT8, pixels) ||
        !out->close())
        fail("cannot write '" + shown + "': " + one_line(out->geterror()));
}

FloatImage read_float_image(const std::string &path) {
    auto in = open_input(path);
    const oiio::ImageSpec &ispec = in->spec();
    FloatImage img;
    img.width = ispec.width;
    img.height = ispec.height;
    if (img.width < 1 || img.height < 1) fail("'" + path + "' has no pixels");
    size_t n = static_cast<size_t>(img.width) * img.height;
    int nch = std::min(ispec.nchannels, 3);
    std::vector<float> raw(n * nch);
    QuietStderr quiet;
    if (!in->read_image(0, 0, 0, nch, oiio::TypeDesc::FLOAT, raw.data()))
        fail("cannot decode '" + path + "': " + one_line(in->geterror()));
    img.rgb.resize(n * 3);
    for (size_t i = 0; i < n; ++i)
        for (int c = 0; c < 3; ++c) {
            float v = raw[i * nch + (nch == 3 ? c : 0)];
            img.rgb[i * 3 + c] = std::isfinite(v) && v > 0 ? v : 0.0f;
        }
    return img;
}

void write_float_image(const std::string &path, const std::string &shown,
                       const std::string &format_ext, const FloatImage &img) {
    auto out = oiio::ImageOutput::create(format_ext.substr(1));
    if (!out) fail("cannot write '" + shown + "': no writer for " + format_ext + " files");
    // Half floats keep 10 mantissa bits over 30 stops: plenty for a reference.
    oiio::ImageSpec ispec(img.width, img.height, 3, oiio::TypeDesc::HALF);
    ispec.attribute("compression", "zip");
    QuietStderr quiet;
    if (!out->open(path, ispec) || !out->write_image(oiio::TypeDesc::FLOAT, img.rgb.data()) ||
        !out->close())
        fail("cannot write '" + shown + "': " + one_line(out->geterror()));
}

bool is_directory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> list_images(const std::string &folder) {
    static const char *kExt[] = {".jpg", ".jpeg", ".png", ".tif", ".tiff", ".cr2", ".cr3", ".nef",
                                 ".arw", ".dng",  ".orf", ".rw2", ".raf",  ".pef", ".srw"};
    std::vector<std::string> files;
    DIR *d = opendir(folder.c_str());
    if (!d) fail("cannot open folder '" + folder + "': " + std::strerror(errno));
    while (dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name.empty() || name[0] == '.') continue;
        std::string ext = extension_of(name);
        for (const char *k : kExt)
            if (ext == k) files.push_back(folder + (folder.back() == '/' ? "" : "/") + name);
    }
    closedir(d);
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace bvcli
