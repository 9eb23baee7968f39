// Implementation of the shared test helpers.
#include "test_support.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "common/boundary.hpp"

namespace fs = std::filesystem;

namespace bvtest {

std::string shared_data_dir() {
    const char *env = std::getenv("BV_SHARED_DATA");
    fs::path p = env ? fs::path(env) : fs::path("../shared/data");
    std::error_code ec;
    if (fs::is_directory(p, ec)) return fs::absolute(p, ec).string();
    return "";
}

namespace {
struct TempDir {
    fs::path dir = fs::temp_directory_path() / ("bvtest-" + std::to_string(::getpid()));
    TempDir() { fs::create_directories(dir); }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};
}  // namespace

std::string temp_path(const std::string &name) {
    static TempDir d;
    return (d.dir / name).string();
}

bool read_file(const std::string &path, Bytes *out) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    out->clear();
    uint8_t buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
    std::fclose(f);
    return true;
}

bool write_file(const std::string &path, const void *data, size_t size) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

std::string text_of(const std::string &path) {
    Bytes b;
    read_file(path, &b);
    return std::string(b.begin(), b.end());
}

std::string write_text(const std::string &name, const std::string &content) {
    const std::string p = temp_path(name);
    EXPECT_TRUE(write_file(p, content.data(), content.size())) << p;
    return p;
}

const float *exp_table() {
    static const std::array<float, 256> t = [] {
        std::array<float, 256> a{};
        exp_lut_old(a.data());
        return a;
    }();
    return t.data();
}

int cv2_run(const std::string &args) {
    const int rc = std::system(("/usr/bin/python3 tests/scripts/cv2_hdr.py " + args).c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

std::vector<float> load_raw(const std::string &path, int w, int h) {
    Bytes b;
    std::vector<float> rgb(size_t(3) * w * h);
    const int32_t size[2] = {w, h};
    if (!read_file(path, &b) || b.size() != 8 + rgb.size() * 4 || std::memcmp(b.data(), size, 8))
        return {};
    std::memcpy(rgb.data(), b.data() + 8, b.size() - 8);
    return rgb;
}

std::string shell(const std::string &cmd) {
    std::string out;
    if (FILE *p = popen(cmd.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
        pclose(p);
    }
    return out;
}

std::string temp_dir(const std::string &name) {
    const std::string p = temp_path(name);
    std::error_code ec;
    fs::create_directories(p, ec);
    EXPECT_FALSE(ec) << p;
    return p;
}

DimParam dim_param(int w, int h, int channels, int bitsIn, int bitsOut) {
    DimParam d;
    init_dim_param(&d);
    d.width = w, d.height = h, d.channels = channels, d.bitsIn = bitsIn, d.bitsOut = bitsOut;
    return d;
}

FailAllocation::FailAllocation(long nth) { bv::detail::g_alloc_fail_countdown.store(nth); }
FailAllocation::~FailAllocation() { bv::detail::g_alloc_fail_countdown.store(-1); }

uint64_t digest(const void *data, size_t size) {
    uint64_t h = 14695981039346656037ull;
    for (size_t i = 0; i < size; ++i)
        h = (h ^ static_cast<const uint8_t *>(data)[i]) * 1099511628211ull;
    return h;
}

Bytes random_bytes(size_t n, uint64_t seed) {
    Rng rng(seed);
    Bytes b(n);
    for (auto &v : b) v = static_cast<uint8_t>(rng.next());
    return b;
}

std::array<float, 3> Planar::value(int x, int y) const {
    const int e = at(x, y, 3);
    const double s = e ? std::ldexp(1.0, e - 136) : 0.0;
    return {float(at(x, y, 0) * s), float(at(x, y, 1) * s), float(at(x, y, 2) * s)};
}

std::vector<float> Planar::values() const {
    std::vector<float> v;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const auto p = value(x, y);
            v.insert(v.end(), p.begin(), p.end());
        }
    return v;
}

Planar random_planar(int w, int h, uint64_t seed) {
    Planar img(w, h);
    Rng rng(seed);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t e = rng.next() % 10 == 0 ? 0 : uint8_t(120 + rng.next() % 30);
            img.set(x, y,
                    {uint8_t(128 + rng.next() % 128), uint8_t(rng.next()), uint8_t(rng.next()), e});
        }
    return img;
}

}  // namespace bvtest
