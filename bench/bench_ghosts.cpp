// Speed of ghost detection on a 24-megapixel three-bracket stack with a moving object.
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

namespace {

constexpr int kW = 6000, kH = 4000, kN = 3;

struct GhostStack {
    std::vector<uint8_t> px;
    std::vector<float> exposures;
};

// Brackets two stops apart of a textured scene spanning about 10 stops,
// gamma 2.2, with a person-sized object (600 x 1600) moved 900 pixels
// between the darkest and the brightest bracket.
const GhostStack &ghost_stack() {
    static const GhostStack s = [] {
        GhostStack g;
        const size_t img = static_cast<size_t>(kW) * kH * 3;
        g.px.resize(img * kN);
        std::vector<uint8_t> level(64 * 24);
        for (int k = 0; k < kN; ++k) {
            g.exposures.push_back(static_cast<float>(std::exp2(2.0 * (k - 1))));
            for (size_t i = 0; i < level.size(); ++i) {
                const double v = std::min(1.0, std::exp2((static_cast<double>(i) - 64 * 14) / 64.0 + 2.0 * (k - 1)));
                level[i] = static_cast<uint8_t>(255 * std::pow(v, 1 / 2.2));
            }
            uint32_t rng = 777;
            const int ox = k == 0 ? 1500 : k == 2 ? 2400 : -10000;
            for (int y = 0; y < kH; ++y)
                for (int x = 0; x < kW; ++x) {
                    rng = rng * 1664525u + 1013904223u;
                    int t = 64 * 4 + (x * 64 * 8) / kW + ((y * 29) % 96) + static_cast<int>(rng >> 29);
                    if (x >= ox && x < ox + 600 && y >= 1200 && y < 2800) t = 64 * 13 + ((x / 8 + y / 8) % 2) * 64;
                    uint8_t *p = g.px.data() + img * k + (static_cast<size_t>(y) * kW + x) * 3;
                    for (int c = 0; c < 3; ++c) p[c] = level[static_cast<size_t>(std::min(t + 8 * c, 64 * 24 - 1))];
                }
        }
        return g;
    }();
    return s;
}

void BM_ghost_detect(benchmark::State &state) {
    const int threads = static_cast<int>(state.range(0));
    const bool estimate = state.range(1) != 0;
    const GhostStack &s = ghost_stack();
    std::vector<uint8_t> mask((static_cast<size_t>(kW) * kH + 7) / 8);
    std::vector<float> ex(s.exposures);
    int T = 70;
    for (auto _ : state) {
        const int rc = bv_ghost_detect(&T, kN, kW, kH, 3, 8, 0, ex.data(), s.px.data(), mask.data(),
                                       estimate ? 0.0f : -1.0f, threads);
        if (rc != kW * kH) state.SkipWithError("detection failed");
        benchmark::DoNotOptimize(mask.data());
    }
    size_t set = 0;
    for (uint8_t b : mask) set += static_cast<size_t>(__builtin_popcount(b));
    state.counters["MP/s"] = benchmark::Counter(static_cast<double>(kW) * kH * 1e-6,
                                                benchmark::Counter::kIsIterationInvariantRate);
    state.counters["ghost_MP"] = static_cast<double>(set) * 1e-6;
}

}  // namespace

// Arguments: threads, estimate exposures (0: the caller's).
BENCHMARK(BM_ghost_detect)
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({2, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
