// Fuzz target: gamma read from an ICC profile held in memory.
// The input is the profile; it is also tried with its size field forced to
// the input length, so that the tag scan runs on every input.
#include <Brackvista40Lib1.h>

#include <cstdint>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    // An exactly sized copy, so any read past the end is caught.
    std::vector<unsigned char> p(data, data + size);
    float gamma = 0.0f;
    trc_from_profile(p.data(), static_cast<int>(size), &gamma);
    if (size >= 4) {
        const uint32_t n = static_cast<uint32_t>(size);
        p[0] = n >> 24, p[1] = n >> 16, p[2] = n >> 8, p[3] = n;
        trc_from_profile(p.data(), static_cast<int>(size), &gamma);
    }
    return 0;
}
