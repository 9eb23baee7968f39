// bv_blend of 24-megapixel stacks beside a plain copy of the same buffers, in megapixels per second.
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

constexpr int kWidth = 6000, kHeight = 4000, kExposures = 3;
constexpr size_t kPixels = static_cast<size_t>(kWidth) * kHeight;

// Three exposures, a result and a brush, filled once per bit depth.
template <class T>
struct Stack {
    std::vector<T> exposures, result;
    std::vector<uint8_t> brush;
    Stack() : exposures(kPixels * 3 * kExposures), result(kPixels * 3), brush(kPixels * 2) {
        for (size_t i = 0; i < exposures.size(); ++i)
            exposures[i] = static_cast<T>((i * 2654435761u) >> (sizeof(T) == 1 ? 24 : 16));
        for (size_t i = 0; i < result.size(); ++i) result[i] = static_cast<T>(i * 40503u);
        // Painted in blocks, as a brush stroke would be: a third unpainted.
        for (size_t p = 0; p < kPixels; ++p) {
            const size_t block = (p % kWidth) / 64 + (p / kWidth) / 64;
            brush[2 * p] = static_cast<uint8_t>(block * 37);
            brush[2 * p + 1] = block % 3 == 0 ? 255 : static_cast<uint8_t>(block % 2);
        }
    }
};

template <class T>
Stack<T> &stack() {
    static Stack<T> s;
    return s;
}

template <class In, class Out>
void run_blend(benchmark::State &state, bool brush) {
    Stack<In> &in = stack<In>();
    Stack<Out> &out = stack<Out>();
    const float evs[kExposures] = {-2, 0, 2};
    TmParam layers[3] = {};
    layers[0].slot[51] = 40, layers[0].slot[52] = -2;
    layers[0].slot[55] = brush ? 2 : 0;
    layers[1].slot[51] = 90, layers[1].slot[52] = 0;
    layers[2].slot[51] = 60, layers[2].slot[52] = 2;
    DimParam d;
    init_dim_param(&d);
    d.width = kWidth, d.height = kHeight;
    d.bitsIn = sizeof(In) * 8, d.bitsOut = sizeof(Out) * 8;
    const int threads = static_cast<int>(state.range(0));
    for (auto _ : state) {
        if (bv_blend(threads, kExposures, layers, evs, brush ? in.brush.data() : nullptr,
                     in.exposures.data(), d, out.result.data()) < 0)
            state.SkipWithError("bv_blend failed");
        benchmark::DoNotOptimize(out.result.data());
    }
    state.counters["MP/s"] = benchmark::Counter(kPixels * 1e-6 * state.iterations(),
                                                benchmark::Counter::kIsRate);
}

// What bv_blend is measured against: copying one exposure over the result.
template <class T>
void run_copy(benchmark::State &state) {
    Stack<T> &s = stack<T>();
    for (auto _ : state) {
        std::memcpy(s.result.data(), s.exposures.data(), s.result.size() * sizeof(T));
        benchmark::DoNotOptimize(s.result.data());
    }
    state.counters["MP/s"] = benchmark::Counter(kPixels * 1e-6 * state.iterations(),
                                                benchmark::Counter::kIsRate);
}

// Copying every buffer a brushed blend reads or writes: the stack, the brush
// and the result.
void BM_CopyAll8(benchmark::State &state) {
    Stack<uint8_t> &s = stack<uint8_t>();
    static std::vector<uint8_t> sink(s.exposures.size() + s.brush.size());
    for (auto _ : state) {
        std::memcpy(sink.data(), s.exposures.data(), s.exposures.size());
        std::memcpy(sink.data() + s.exposures.size(), s.brush.data(), s.brush.size());
        std::memcpy(s.result.data(), s.exposures.data(), s.result.size());
        benchmark::DoNotOptimize(sink.data());
    }
    state.counters["MP/s"] = benchmark::Counter(kPixels * 1e-6 * state.iterations(),
                                                benchmark::Counter::kIsRate);
}

void BM_Blend8(benchmark::State &s) { run_blend<uint8_t, uint8_t>(s, false); }
void BM_Blend8Brush(benchmark::State &s) { run_blend<uint8_t, uint8_t>(s, true); }
void BM_Blend16Brush(benchmark::State &s) { run_blend<uint16_t, uint16_t>(s, true); }
void BM_Copy8(benchmark::State &s) { run_copy<uint8_t>(s); }
void BM_Copy16(benchmark::State &s) { run_copy<uint16_t>(s); }

BENCHMARK(BM_Copy8)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CopyAll8)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Blend8)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Blend8Brush)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Copy16)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Blend16Brush)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
