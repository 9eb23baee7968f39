// The run-length packet rule one step at a time, to hold the fast encoder to
// (shared by the round-trip fuzzer and the Radiance tests).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace bvref {

inline std::vector<uint8_t> reference_encode(const uint8_t *c, size_t n) {
    std::vector<uint8_t> out;
    size_t base = 0, lit = 0;
    auto literal = [&] {
        out.push_back(uint8_t(lit));
        out.insert(out.end(), c + base, c + base + lit);
        base += lit;
        lit = 0;
    };
    while (base < n) {
        const size_t p = base + lit;
        size_t r = 1;
        while (r < 127 && p + r < n && c[p + r] == c[p]) ++r;
        if (r >= 5) {
            if (lit > 0) literal();
            out.push_back(uint8_t(128 + r));
            out.push_back(c[p]);
            base += r;
        } else {
            lit = std::min<size_t>(lit + r, 127);
            if (lit == 127 || base + lit >= n) literal();
        }
    }
    return out;
}

}  // namespace bvref
