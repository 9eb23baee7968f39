// The enhancer's Poisson solver on a 24-megapixel plane (in memory, streamed through files, and by
// relaxation) and the pyramid reductions, in megapixels per second and peak memory.
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "tmlib-core/solver/solver.hpp"

namespace {

namespace bs = bv::solver;

// The atrium's log luminance tiled to 6000 x 4000 (a smooth synthetic field
// when the data is absent); the right-hand side of every level is the
// Laplacian of that field reduced to the level by 2 x 2 means, so the exact
// solution is known.
struct Field {
    static constexpr int kWidth = 6000, kHeight = 4000;
    int levels = 8;  // the enhancer's count for this size, less one
    std::vector<float> rhs;
    bool real = false;

    Field() {
        const size_t n = static_cast<size_t>(kWidth) * kHeight;
        std::vector<float> t(n);
        const char *path = "../shared/data/hdr/mpi_atrium_3.hdr";
        RgbeDims dims{};
        std::vector<unsigned char> src;
        float table[256];
        exp_lut_old(table);
        if (rgbe_dim(path, nullptr, &dims) >= 0) {
            src.resize(static_cast<size_t>(dims.width) * dims.height * 4);
            real = bv_io_read_rgbe(dims.width, dims.height, path, src.data()) == dims.height;
        }
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                float v;
                if (real) {
                    const int sw = dims.width;
                    const unsigned char *row = &src[static_cast<size_t>(y % dims.height) * sw * 4];
                    const int sx = x % sw;
                    const float s = table[row[3 * sw + sx]];
                    const float lum = 0.2126f * row[sx] * s + 0.7152f * row[sw + sx] * s +
                                      0.0722f * row[2 * sw + sx] * s;
                    v = std::log(lum > 1e-6f ? lum : 1e-6f);
                } else {
                    v = static_cast<float>(std::sin(x * 0.01) + std::cos(y * 0.007));
                }
                t[static_cast<size_t>(y) * kWidth + x] = v;
            }
        const auto lv = bs::level_sizes(kWidth, kHeight, levels);
        rhs.resize(bs::pyramid_floats(kWidth, kHeight, levels));
        for (size_t k = 0; k < lv.size(); ++k) {
            const bs::Level &L = lv[k];
            if (k > 0) {
                const int pw = lv[k - 1].width, ph = lv[k - 1].height;
                std::vector<float> c(static_cast<size_t>(L.width) * L.height);
                for (int y = 0; y < L.height; ++y)
                    for (int x = 0; x < L.width; ++x) {
                        const int x1 = std::min(2 * x + 1, pw - 1),
                                  y1 = std::min(2 * y + 1, ph - 1);
                        c[static_cast<size_t>(y) * L.width + x] =
                            0.25f * (t[2 * y * static_cast<size_t>(pw) + 2 * x] +
                                     t[2 * y * static_cast<size_t>(pw) + x1] +
                                     t[y1 * static_cast<size_t>(pw) + 2 * x] +
                                     t[y1 * static_cast<size_t>(pw) + x1]);
                    }
                t.swap(c);
            }
            bs::tm20m(L.width, L.height, 0, 2, t.data(), rhs.data() + L.offset, nullptr);
        }
    }
};

Field &field() {
    static Field f;
    return f;
}

double peak_mb() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss / 1024.0;
}

enum class Kind { Memory, Streaming, Relaxation };

void run_solver(benchmark::State &state, Kind kind) {
    Field &f = field();
    const std::string dir = "/tmp/bv_bench_solver_" + std::to_string(getpid());
    const std::string in = dir + "_in", base = dir + "_base", p = dir + "_p", r = dir + "_r",
                      t = dir + "_t";
    optimParam o{};
    o.threads = static_cast<int>(state.range(0));
    o.useTempFiles = kind == Kind::Streaming;
    o.tempPath1 = in.c_str();
    o.solverBase = base.c_str();
    o.solverP = p.c_str();
    o.solverR = r.c_str();
    o.solverT = t.c_str();
    TmParam params{};
    std::vector<float> plane;
    for (auto _ : state) {
        state.PauseTiming();
        plane = f.rhs;
        state.ResumeTiming();
        const int rc = kind == Kind::Relaxation
                           ? bs::calc_tm2old(f.levels, &params, nullptr, plane.data(),
                                             Field::kWidth, Field::kHeight, o)
                           : bs::calc_tm2new2(f.levels, &params, nullptr, plane.data(),
                                              Field::kWidth, Field::kHeight, o);
        if (rc != 1) state.SkipWithError("solver failed");
        benchmark::DoNotOptimize(plane.data());
    }
    for (const std::string &s : {in, base, p, r, t}) unlink(s.c_str());
    state.counters["MP/s"] = benchmark::Counter(
        static_cast<double>(Field::kWidth) * Field::kHeight * 1e-6 * state.iterations(),
        benchmark::Counter::kIsRate);
    state.counters["peakMB"] = peak_mb();
    state.SetLabel(f.real ? "atrium log luminance 6000x4000" : "synthetic 6000x4000");
}

void BM_SolverCgMemory(benchmark::State &s) { run_solver(s, Kind::Memory); }
void BM_SolverCgStreaming(benchmark::State &s) { run_solver(s, Kind::Streaming); }
void BM_SolverRelaxation(benchmark::State &s) { run_solver(s, Kind::Relaxation); }

// One 16-bit pyramid reduction of the 24-megapixel RGB image.
void BM_PyramidReduce16(benchmark::State &state) {
    const int w = Field::kWidth, h = Field::kHeight;
    std::vector<uint16_t> fine(static_cast<size_t>(w) * h * 3), coarse(fine.size() / 4 + w * 3);
    for (size_t i = 0; i < fine.size(); ++i) fine[i] = static_cast<uint16_t>(i * 2654435761u >> 16);
    for (auto _ : state) {
        bv_short_downsample(w, h, 3, 0, fine.data(), coarse.data());
        benchmark::DoNotOptimize(coarse.data());
    }
    state.counters["MP/s"] = benchmark::Counter(
        static_cast<double>(w) * h * 1e-6 * state.iterations(), benchmark::Counter::kIsRate);
}

// The preview reduction of the enhancer: 24-megapixel RGBE rows to 1024 x 683
// float RGB.
void BM_DownsampleRgbePreview(benchmark::State &state) {
    const int w = Field::kWidth, h = Field::kHeight, dw = 1024, dh = 683;
    std::vector<uint8_t> rgbe(static_cast<size_t>(w) * h * 4);
    for (size_t i = 0; i < rgbe.size(); ++i) rgbe[i] = static_cast<uint8_t>(i * 2654435761u >> 24);
    std::vector<float> out(static_cast<size_t>(dw) * dh * 3);
    for (auto _ : state) {
        if (bv_downsample(w, h, dw, dh, 3, 32, rgbe.data(), out.data(),
                          static_cast<int>(state.range(0))) != dh)
            state.SkipWithError("bv_downsample failed");
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["MP/s"] = benchmark::Counter(
        static_cast<double>(w) * h * 1e-6 * state.iterations(), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_DownsampleRgbePreview)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SolverCgMemory)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2);
BENCHMARK(BM_SolverCgStreaming)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2);
BENCHMARK(BM_SolverRelaxation)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(BM_PyramidReduce16)->Unit(benchmark::kMillisecond)->UseRealTime();
