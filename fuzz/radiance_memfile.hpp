// Hands fuzz input to the path-based Radiance functions through an in-memory file.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace fuzzfile {

// One anonymous in-memory file per process, reached through /proc; a file in
// /tmp where memfd is unavailable.
inline const std::string &path() {
    static const std::string p = [] {
        const int fd = memfd_create("bv-fuzz", 0);
        return fd >= 0 ? "/proc/self/fd/" + std::to_string(fd)
                       : "/tmp/bv-fuzz-" + std::to_string(getpid()) + ".hdr";
    }();
    return p;
}

// Replaces the file's content with data; false on failure.
inline bool store(const uint8_t *data, size_t size) {
    FILE *f = std::fopen(path().c_str(), "wb");
    if (!f) return false;
    const bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

// Output buffers are allocated exactly, so that any write past them is
// caught; images larger than this are not read.
constexpr uint64_t kMaxBytes = uint64_t(1) << 24;

}  // namespace fuzzfile
