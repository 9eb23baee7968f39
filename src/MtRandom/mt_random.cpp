// Mersenne-twister generator with the library's fixed start state.
#include <Brackvista40Lib1.h>

namespace bv::mt {
namespace {

constexpr uint32_t kWords = 624;
constexpr uint32_t kExhausted = kWords * 4;  // position is counted in bytes

void regenerate(uint32_t *mt) noexcept {
    for (uint32_t i = 0; i < kWords; ++i) {
        const uint32_t y = (mt[i] & 0x80000000u) | (mt[(i + 1) % kWords] & 0x7fffffffu);
        mt[i] = mt[(i + 397) % kWords] ^ (y >> 1) ^ ((y & 1u) ? 0x9908b0dfu : 0u);
    }
}

}  // namespace
}  // namespace bv::mt

extern "C" {

void mt_init(MtRandom *state) {
    if (!state) return;
    // No seed: every generator starts from the same words, so sequences match.
    for (uint32_t i = 0; i < bv::mt::kWords; ++i) state->mt[i] = i;
    state->pos = bv::mt::kExhausted;
}

uint32_t mt_random(MtRandom *state) {
    if (!state) return 0;
    const uint32_t pos = state->pos;
    if (pos < bv::mt::kExhausted && pos % 4 == 0) {
        state->pos = pos + 4;
        return state->mt[pos / 4];
    }
    bv::mt::regenerate(state->mt);
    state->pos = 4;
    return state->mt[0];  // raw word: no tempering, deliberately
}

}  // extern "C"
