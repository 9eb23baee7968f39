// Fuzz target: the two ghosting-mask readers, and the fill of what they read.
// The input is written to a per-process file, because the readers take a path.
#include <Brackvista40Lib1.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1200000) return 0;
    static const std::string path = "/tmp/bv-fuzz-mask-" + std::to_string(::getpid()) + ".txt";
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    const bool ok = std::fwrite(data, 1, size, f) == size;
    if (std::fclose(f) != 0 || !ok) return 0;
    int W = 0, H = 0, N = 0;
    const int T = get_mask_info(path.c_str(), &W, &H, &N);
    // Arrays exactly as large as the header says, so that any write past
    // them is caught; headers asking for absurd sizes are not followed.
    if (T < 0 || T > (1 << 20) || N < 0 || N > (1 << 16)) return 0;
    std::vector<int32_t> e(static_cast<size_t>(N)), p(static_cast<size_t>(N)),
        xy(2 * static_cast<size_t>(T));
    const int n = get_mask_data(path.c_str(), e.data(), p.data(), xy.data());
    if (n <= 0) return 0;
    int brackets = 1;
    for (int i = 0; i < n; ++i)
        if (e[i] >= brackets && e[i] < 8) brackets = e[i] + 1;
    // A small picture keeps the fill quick whatever the coordinates are.
    const int w = W > 0 && W <= 64 ? W : 64, h = H > 0 && H <= 64 ? H : 48;
    std::vector<int32_t> slots(static_cast<size_t>(brackets));
    std::vector<uint8_t> mask((static_cast<size_t>(brackets) * w * h + 7) / 8);
    bv_ghost_rasterize(w, h, brackets, n, e.data(), p.data(), xy.data(), T, slots.data(),
                       mask.data());
    return 0;
}
