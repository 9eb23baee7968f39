// bv_fusion of 24-megapixel stacks (3 x 8-bit, 5 x 16-bit), in memory and through temporary files.
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int kWidth = 6000, kHeight = 4000;
constexpr size_t kPixels = static_cast<size_t>(kWidth) * kHeight;

// Brackets two stops apart of a smooth scene with fine texture, as a
// photograph would give (random noise would make every pixel an edge).
template <class T>
struct Stack {
    int n;
    std::vector<T> data;
    explicit Stack(int count) : n(count), data(kPixels * 3 * count) {
        const double top = sizeof(T) == 1 ? 255.0 : 65535.0;
        for (int i = 0; i < n; ++i)
            for (int y = 0; y < kHeight; ++y)
                for (int x = 0; x < kWidth; ++x) {
                    const double r = std::exp2(8.0 * x / kWidth - 6.0 + 2.0 * y / kHeight) *
                                     (1.0 + 0.2 * std::sin(x * 0.3) * std::sin(y * 0.2));
                    for (int c = 0; c < 3; ++c) {
                        double v =
                            std::pow(r * (0.8 + 0.15 * c) * std::exp2(2.0 * (i - n / 2)), 1 / 2.2);
                        data[((static_cast<size_t>(i) * kHeight + y) * kWidth + x) * 3 + c] =
                            static_cast<T>((v > 1.0 ? 1.0 : v) * top);
                    }
                }
    }
};

template <class T>
Stack<T> &stack(int n) {
    static Stack<T> s(n);
    return s;
}

template <class T>
void run_fusion(benchmark::State &state, int n, bool files) {
    Stack<T> &s = stack<T>(n);
    TmParam p;
    tmparam_default(10, 0, &p);
    DimParam d;
    init_dim_param(&d);
    d.width = kWidth, d.height = kHeight, d.bitsIn = sizeof(T) * 8, d.bitsOut = 8;
    std::vector<uint8_t> out(static_cast<size_t>(2 * 3 * (kPixels * 1.5 + 0.5)), 1);
    const std::string dir = "/tmp/bv-bench-fusion-" + std::to_string(getpid());
    const std::string src = dir + ".stack", w = dir + ".weights", pyr = dir + ".pyramid";
    const uint64_t options = static_cast<uint64_t>(state.range(0)) | (files ? 1ull << 32 : 0);
    // Process CPU time (every thread) and the growth of the peak resident
    // size over the stack and buffers already held: the fusion's own memory.
    struct rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    for (auto _ : state) {
        if (bv_fusion(nullptr, &p, nullptr, n, 16, 16, 0, options, 0, files ? src.c_str() : nullptr,
                      0, files ? w.c_str() : nullptr, files ? pyr.c_str() : nullptr, 0, 0, 0, d, 0,
                      nullptr, s.data.data(), nullptr, nullptr, 0, out.data()) != 1)
            state.SkipWithError("bv_fusion failed");
        benchmark::DoNotOptimize(out.data());
    }
    getrusage(RUSAGE_SELF, &after);
    for (const std::string &f : {src, w, pyr}) std::remove(f.c_str());
    auto secs = [](const timeval &t) { return t.tv_sec + t.tv_usec * 1e-6; };
    state.counters["cpu_s"] = (secs(after.ru_utime) + secs(after.ru_stime) - secs(before.ru_utime) -
                               secs(before.ru_stime)) / state.iterations();
    state.counters["peak_MiB"] = after.ru_maxrss / 1024.0;
    state.counters["fusion_MiB"] = (after.ru_maxrss - before.ru_maxrss) / 1024.0;
    state.counters["MP/s"] =
        benchmark::Counter(kPixels * 1e-6 * state.iterations(), benchmark::Counter::kIsRate);
}

void BM_Fusion_3x8(benchmark::State &s) { run_fusion<uint8_t>(s, 3, false); }
void BM_Fusion_5x16(benchmark::State &s) { run_fusion<uint16_t>(s, 5, false); }
void BM_Fusion_3x8_TempFiles(benchmark::State &s) { run_fusion<uint8_t>(s, 3, true); }
void BM_Fusion_5x16_TempFiles(benchmark::State &s) { run_fusion<uint16_t>(s, 5, true); }

}  // namespace

BENCHMARK(BM_Fusion_3x8)->Arg(1)->Arg(2)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_Fusion_5x16)->Arg(1)->Arg(2)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_Fusion_3x8_TempFiles)->Arg(2)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_Fusion_5x16_TempFiles)->Arg(2)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
