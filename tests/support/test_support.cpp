// Implementation of the shared test helpers.
#include "test_support.hpp"

#include <unistd.h>

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
    fs::path dir;
    TempDir() {
        dir = fs::temp_directory_path() / ("bvtest-" + std::to_string(::getpid()));
        fs::create_directories(dir);
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};
TempDir &temp_dir() {
    static TempDir d;
    return d;
}
}  // namespace

std::string temp_path(const std::string &name) { return (temp_dir().dir / name).string(); }

bool read_file(const std::string &path, std::vector<uint8_t> *out) {
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

FailAllocation::FailAllocation(long nth) { bv::detail::g_alloc_fail_countdown.store(nth); }
FailAllocation::~FailAllocation() { bv::detail::g_alloc_fail_countdown.store(-1); }

uint64_t digest(const void *data, size_t size) {
    uint64_t h = 14695981039346656037ull;
    for (size_t i = 0; i < size; ++i)
        h = (h ^ static_cast<const uint8_t *>(data)[i]) * 1099511628211ull;
    return h;
}

}  // namespace bvtest
