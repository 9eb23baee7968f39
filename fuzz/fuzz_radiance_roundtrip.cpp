// Writes fuzz bytes as an RGBE image with both writers and reads them back.
#include <Brackvista40Lib1.h>

#include <cstring>
#include <vector>

#include "radiance_memfile.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3) return 0;
    // Flat rows (widths above 32767) need inputs beyond the usual length
    // limit; the tests cover them.
    const int width = 1 + (data[0] | (data[1] << 8)) % 600;
    const size_t row = size_t(4) * width;
    const int height = static_cast<int>((size - 3) / row);
    if (height < 1 || height > 64) return 0;
    std::vector<unsigned char> img(data + 3, data + 3 + row * height), back(img.size());
    const char *p = fuzzfile::path().c_str();
    if (bv_io_rgbe_write(p, width, height, nullptr, 0, "sRGB", img.data()) != height) return 0;
    if (bv_io_read_rgbe(width, height, p, back.data()) != height || back != img) __builtin_trap();
    const int sh = 1 + data[2] % 5;
    for (int k = 0; k * sh < height; ++k)
        if (bv_write_strip_rgbe(p, k, sh, width, height, 0, img.data() + row * sh * k) < 0)
            return 0;
    std::memset(back.data(), 0, back.size());
    if (bv_io_read_rgbe(width, height, p, back.data()) != height || back != img) __builtin_trap();
    return 0;
}
