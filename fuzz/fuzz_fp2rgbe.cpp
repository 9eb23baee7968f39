// Fuzz target: float TIFF pixel data read into RGBE with caller-given sizes.
// Input: 4 bytes choosing width, height, samples per pixel and data offset,
// then the file itself.
#include <Brackvista40Lib1.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4) return 0;
    const int width = data[0] % 64, height = data[1] % 64 - 4;  // includes height < 1
    const int spp = 1 + data[2] % 6;
    const int64_t offset = data[3];
    static const std::string path = "/tmp/bv_fuzz_fp2rgbe_" + std::to_string(getpid()) + ".tif";
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data + 4, 1, size - 4, f);
    std::fclose(f);
    std::vector<unsigned char> out(static_cast<size_t>(width) * (height > 0 ? height : 0) * 4 + 1);
    float mn, mx, mean;
    fp2rgbe(path.c_str(), width, height, spp, offset, &mn, &mx, &mean, out.data());
    std::remove(path.c_str());
    return 0;
}
