// Fuzzes the full Radiance reader on the size its header claims.
#include <Brackvista40Lib1.h>

#include <vector>

#include "radiance_memfile.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (!fuzzfile::store(data, size)) return 0;
    const char *p = fuzzfile::path().c_str();
    RgbeDims d{};
    if (rgbe_dim(p, nullptr, &d) < 0) {
        unsigned char one[4];
        bv_io_read_rgbe(1, 1, p, one);  // header errors of the reader itself
        return 0;
    }
    const uint64_t bytes = 4ull * uint64_t(d.width) * uint64_t(d.height);
    if (bytes > fuzzfile::kMaxBytes) return 0;
    std::vector<unsigned char> out(bytes);
    const int rc = bv_io_read_rgbe(d.width, d.height, p, out.data());
    if (rc != d.height && rc != BV_RAD_ERR_IO && rc != BV_RAD_ERR_SCANLINE_WIDTH &&
        rc != BV_RAD_ERR_SCANLINE_HEADER && rc != BV_RAD_ERR_PACKET)
        __builtin_trap();
    return 0;
}
