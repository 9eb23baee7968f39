// Fuzzes the header probe, the metadata reader and the end-of-header test.
#include <Brackvista40Lib1.h>

#include <cstring>

#include "radiance_memfile.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char line[128] = {};
    std::memcpy(line, data, size < 127 ? size : 127);
    rgbe_end_of_header(line, 128);
    if (!fuzzfile::store(data, size)) return 0;
    const char *p = fuzzfile::path().c_str();
    float prim[8];
    RgbeDims d{};
    const int lines = rgbe_dim(p, prim, &d);
    if (lines >= 0 && (d.width <= 0 || d.height <= 0 || d.fileSize != int64_t(size)))
        __builtin_trap();
    exifInfo ex{};
    const int n = extract_rgbe_exif(p, &ex);
    // Both walk the same header.
    if ((n >= 0 || lines >= 0) && n != lines) __builtin_trap();
    return 0;
}
