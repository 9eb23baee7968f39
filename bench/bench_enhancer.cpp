// The tone enhancer on a 24-megapixel RGBE image from a buffer: full size and preview.
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

namespace {

// The atrium photograph scaled up to 6000 x 4000 (nearest source pixel), or
// a synthetic ramp when the data is absent.
struct Atrium24 {
    static constexpr int kWidth = 6000, kHeight = 4000;
    std::vector<unsigned char> rgbe;
    Atrium24() {
        rgbe.resize(static_cast<size_t>(kWidth) * kHeight * 4);
        const char *path = "../shared/data/hdr/mpi_atrium_3.hdr";
        RgbeDims d{};
        std::vector<unsigned char> src;
        bool real = false;
        if (rgbe_dim(path, nullptr, &d) >= 0) {
            src.resize(static_cast<size_t>(d.width) * d.height * 4);
            real = bv_io_read_rgbe(d.width, d.height, path, src.data()) == d.height;
        }
        for (int y = 0; y < kHeight; ++y) {
            unsigned char *row = &rgbe[static_cast<size_t>(y) * kWidth * 4];
            for (int x = 0; x < kWidth; ++x)
                for (int p = 0; p < 4; ++p) {
                    if (real) {
                        const int sy = static_cast<int>(static_cast<int64_t>(y) * d.height / kHeight);
                        const int sx = static_cast<int>(static_cast<int64_t>(x) * d.width / kWidth);
                        row[p * kWidth + x] = src[static_cast<size_t>(sy) * d.width * 4 + p * d.width + sx];
                    } else {
                        row[p * kWidth + x] =
                            static_cast<unsigned char>(p == 3 ? 120 + (x / 600) : 1 + (x + y) % 254);
                    }
                }
        }
    }
};

void enhance(benchmark::State &state, int mode) {
    static Atrium24 img;
    DimParam d;
    init_dim_param(&d);
    d.width = Atrium24::kWidth;
    d.height = Atrium24::kHeight;
    TmParam p;
    tmparam_default(1, 0, &p);
    optimParam o;
    init_optim_param(&o);
    o.threads = static_cast<int>(state.range(0));
    o.mode = mode;
    int64_t bytes = 0;
    mem4enhancer(0, &p, nullptr, &bytes, d);
    std::vector<unsigned char> work(static_cast<size_t>(bytes));
    std::vector<unsigned char> out(static_cast<size_t>(d.width) * d.height * 3);
    for (auto _ : state) {
        const int rc = bv_tm_enhancer(0, &p, out.data(), nullptr, nullptr, nullptr, d, o, nullptr,
                                      img.rgbe.data(), work.data());
        if (rc < 0) state.SkipWithError("bv_tm_enhancer failed");
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["MP/s"] = benchmark::Counter(static_cast<double>(d.width) * d.height * 1e-6,
                                                benchmark::Counter::kIsIterationInvariantRate);
}

void BM_EnhancerFull(benchmark::State &state) { enhance(state, 0); }
void BM_EnhancerPreview(benchmark::State &state) { enhance(state, 1); }

BENCHMARK(BM_EnhancerFull)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_EnhancerPreview)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
