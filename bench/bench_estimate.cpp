// Speed of exposure estimation from the pixels on 24-megapixel brackets,
// beside the merge of the same stack.
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

namespace {

constexpr int kW = 6000, kH = 4000;

// Three brackets two stops apart of a scene whose log luminance runs over
// about 14 stops, with fine texture, through gamma 2.2; one stack at a time.
struct Stack {
    int bits = 0;
    std::vector<uint8_t> d8;
    std::vector<uint16_t> d16;
    const void *data() const {
        return bits == 8 ? static_cast<const void *>(d8.data()) : d16.data();
    }
};
std::unique_ptr<Stack> g_stack;

const Stack &stack(int bits) {
    if (g_stack && g_stack->bits == bits) return *g_stack;
    g_stack.reset();
    auto s = std::make_unique<Stack>();
    s->bits = bits;
    const int levels = 1 << bits;
    // Levels over 1/64-stop steps from -30 to +10 stops keep building quick.
    const int steps = 64 * 40;
    std::vector<uint16_t> level(steps);
    for (int i = 0; i < steps; ++i) {
        const double v = std::min(1.0, std::exp2((i - 64 * 30) / 64.0));
        level[i] = static_cast<uint16_t>(std::min(levels - 1.0, levels * std::pow(v, 1 / 2.2)));
    }
    const size_t img = static_cast<size_t>(kW) * kH * 3;
    (bits == 8 ? s->d8.resize(img * 3) : s->d16.resize(img * 3));
    uint32_t rng = 777;
    for (int k = 0; k < 3; ++k)
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) {
                rng = rng * 1664525u + 1013904223u;
                const int base = 64 * 30 - 64 * 11 + (x * 64 * 14) / kW + ((y * 37) % 64) +
                                 static_cast<int>(rng >> 28);
                const size_t p = ((static_cast<size_t>(k) * kH + y) * kW + x) * 3;
                for (int c = 0; c < 3; ++c) {
                    int t = base + 64 * 2 * (k - 1) + 10 * (c - 1);
                    t = t < 0 ? 0 : t >= steps ? steps - 1 : t;
                    if (bits == 8)
                        s->d8[p + c] = static_cast<uint8_t>(level[t]);
                    else
                        s->d16[p + c] = level[t];
                }
            }
    g_stack = std::move(s);
    return *g_stack;
}

// range(0): bits, range(1): threads.
void BM_estimate_exposures(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0)), threads = static_cast<int>(state.range(1));
    const Stack &s = stack(bits);
    float ex[3], conf[3];
    for (auto _ : state) {
        const int rc = bv_hdr_estimate_exposures(nullptr, threads, 3, kW, kH, 3, bits, 2.2f,
                                                 nullptr, s.data(), ex, conf);
        if (rc != 2) state.SkipWithError("estimation failed");
        benchmark::DoNotOptimize(ex);
    }
    state.counters["stops_low"] = std::log2(ex[0]);
    state.counters["stops_high"] = std::log2(ex[2]);
}

// The merge of the same stack with the exposures given, for scale.
void BM_merge_same_stack(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const Stack &s = stack(bits);
    std::vector<float> lut(1 << bits);
    std::vector<uint8_t> out(static_cast<size_t>(4) * kW * kH);
    float ex[3] = {0.25f, 1.0f, 4.0f}, stats[3];
    for (auto _ : state) {
        if (bv_hdr_merge(nullptr, 0, 3, kW, kH, 3, -1.0f, bits, 0, lut.data(), ex, s.data(), stats,
                         out.data()) != kH)
            state.SkipWithError("merge failed");
        benchmark::DoNotOptimize(out.data());
    }
}

}  // namespace

BENCHMARK(BM_estimate_exposures)
    ->Args({8, 1})
    ->Args({8, 2})
    ->Args({16, 1})
    ->Args({16, 2})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);
BENCHMARK(BM_merge_same_stack)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond)->Iterations(3);
