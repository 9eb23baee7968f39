// Fuzzes the preview reader: the first two bytes choose the preview size.
#include <Brackvista40Lib1.h>

#include <vector>

#include "radiance_memfile.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const int pw = 1 + data[0] % 70, ph = 1 + data[1] % 70;
    if (!fuzzfile::store(data + 2, size - 2)) return 0;
    const char *p = fuzzfile::path().c_str();
    RgbeDims d{};
    if (rgbe_dim(p, nullptr, &d) < 0) return 0;
    if (4ull * uint64_t(d.width) * uint64_t(d.height) > fuzzfile::kMaxBytes) return 0;
    std::vector<unsigned char> out(size_t(4) * pw * ph);
    const int rc = bv_io_read_preview_rgbe(d.width, d.height, pw, ph, p, out.data());
    if (rc > d.height + 1) __builtin_trap();
    return 0;
}
