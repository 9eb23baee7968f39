// Speed of the HDR merge on 24-megapixel bracket stacks (single-threaded by design).
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

namespace {

constexpr int kW = 6000, kH = 4000;

// One stack at a time: 5 x 24 MP x 16-bit is 720 MB.
struct Stack {
    int n = 0, bits = 0;
    std::vector<uint8_t> d8;
    std::vector<uint16_t> d16;
    std::vector<float> exposures;
};
std::unique_ptr<Stack> g_stack;

// Brackets two stops apart of a scene whose log luminance varies smoothly
// over about 16 stops, rendered through gamma 2.2. Levels come from a table
// over 1/64-stop steps so that building 120 M samples stays quick.
const Stack &stack(int n, int bits) {
    if (g_stack && g_stack->n == n && g_stack->bits == bits) return *g_stack;
    g_stack.reset();
    auto s = std::make_unique<Stack>();
    s->n = n, s->bits = bits;
    const int levels = 1 << bits;
    const int steps = 64 * 40;  // -30 .. +10 stops
    std::vector<uint16_t> level(steps);
    for (int i = 0; i < steps; ++i) {
        const double v = std::min(1.0, std::exp2((i - 64 * 30) / 64.0));
        level[i] = static_cast<uint16_t>(std::min(levels - 1.0, levels * std::pow(v, 1 / 2.2)));
    }
    const size_t img = static_cast<size_t>(kW) * kH * 3;
    if (bits == 8)
        s->d8.resize(img * n);
    else
        s->d16.resize(img * n);
    uint32_t rng = 12345;
    for (int k = 0; k < n; ++k) {
        const int shift = 64 * 2 * (k - n / 2);  // exposure in 1/64 stops
        s->exposures.push_back(static_cast<float>(std::exp2(2.0 * (k - n / 2))));
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) {
                rng = rng * 1664525u + 1013904223u;
                const int base = 64 * 30 - 64 * 12 + (x * 64 * 16) / kW + ((y * 37) % 64) +
                                 static_cast<int>(rng >> 29);
                const size_t p = ((static_cast<size_t>(k) * kH + y) * kW + x) * 3;
                for (int c = 0; c < 3; ++c) {
                    int t = base + shift + 10 * (c - 1);
                    t = t < 0 ? 0 : t >= steps ? steps - 1 : t;
                    if (bits == 8)
                        s->d8[p + c] = static_cast<uint8_t>(level[t]);
                    else
                        s->d16[p + c] = level[t];
                }
            }
    }
    g_stack = std::move(s);
    return *g_stack;
}

void BM_hdr_merge(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0)), bits = static_cast<int>(state.range(1));
    const bool estimate = state.range(2) != 0;
    const Stack &s = stack(n, bits);
    std::vector<float> lut(1 << bits), ex(s.exposures);
    std::vector<uint8_t> out(static_cast<size_t>(4) * kW * kH);
    float stats[3];
    const void *data = bits == 8 ? static_cast<const void *>(s.d8.data()) : s.d16.data();
    for (auto _ : state) {
        const int rc = bv_hdr_merge(nullptr, 0, n, kW, kH, 3, estimate ? 0.0f : -1.0f, bits, 0,
                                    lut.data(), ex.data(), data, stats, out.data());
        if (rc != kH) state.SkipWithError("merge failed");
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["MP/s"] = benchmark::Counter(static_cast<double>(kW) * kH * 1e-6,
                                                benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

// Arguments: brackets, bits per sample, estimate exposures (0: caller's).
BENCHMARK(BM_hdr_merge)
    ->Args({3, 8, 0})
    ->Args({5, 8, 0})
    ->Args({3, 16, 0})
    ->Args({5, 16, 0})
    ->Args({5, 8, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);
