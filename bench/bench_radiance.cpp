// Radiance file reading and writing on a 24-megapixel RGBE image.
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int kW = 6000, kH = 4000;

// The file the peer script times too: BV_BENCH_HDR or /tmp/bv_bench_radiance.hdr.
std::string bench_path() {
    const char *env = std::getenv("BV_BENCH_HDR");
    return env ? env : "/tmp/bv_bench_radiance.hdr";
}

// A photograph tiled to 6000 x 4000 when the shared data is there (real
// run-length statistics), else a smooth sky over noisy ground.
const std::vector<unsigned char> &image() {
    static const std::vector<unsigned char> img = [] {
        std::vector<unsigned char> out(size_t(4) * kW * kH);
        const char *src = "../shared/data/hdr/mpi_atrium_3.hdr";
        std::vector<unsigned char> tile(size_t(4) * 1024 * 676);
        if (bv_io_read_rgbe(1024, 676, src, tile.data()) == 676) {
            for (int y = 0; y < kH; ++y) {
                // Mirrored tiling keeps the seams as smooth as the photograph.
                const int ty = (y / 676) % 2 ? 675 - y % 676 : y % 676;
                for (int c = 0; c < 4; ++c)
                    for (int x = 0; x < kW; ++x) {
                        const int tx = (x / 1024) % 2 ? 1023 - x % 1024 : x % 1024;
                        out[size_t(y) * 4 * kW + size_t(c) * kW + x] =
                            tile[size_t(ty) * 4096 + size_t(c) * 1024 + tx];
                    }
            }
            return out;
        }
        uint32_t s = 1;
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) {
                s = s * 1664525u + 1013904223u;
                unsigned char *row = &out[size_t(y) * 4 * kW];
                const bool sky = y < kH / 2;
                row[x] = sky ? 200 : 128 + (s >> 25);
                row[kW + x] = sky ? 220 : 128 + ((s >> 18) & 127);
                row[2 * kW + x] = sky ? 250 : 128 + ((s >> 11) & 127);
                row[3 * kW + x] = sky ? 129 : 120 + ((s >> 8) & 7);
            }
        return out;
    }();
    return img;
}

long file_size(const std::string &p) {
    FILE *f = std::fopen(p.c_str(), "rb");
    if (!f) return 0;
    std::fseek(f, 0, SEEK_END);
    const long n = std::ftell(f);
    std::fclose(f);
    return n;
}

void report(benchmark::State &state, double file_bytes) {
    const double n = double(state.iterations());
    state.counters["MP/s"] = benchmark::Counter(n * kW * kH / 1e6, benchmark::Counter::kIsRate);
    state.counters["fileMB/s"] =
        benchmark::Counter(n * file_bytes / 1e6, benchmark::Counter::kIsRate);
    state.counters["rgbeMB/s"] =
        benchmark::Counter(n * 4.0 * kW * kH / 1e6, benchmark::Counter::kIsRate);
}

void BM_RadianceWrite24MP(benchmark::State &state) {
    const auto &img = image();
    const std::string p = bench_path();
    for (auto _ : state) {
        if (bv_io_rgbe_write(p.c_str(), kW, kH, nullptr, 0, nullptr, img.data()) != kH)
            state.SkipWithError("write failed");
    }
    report(state, double(file_size(p)));
}

void BM_RadianceRead24MP(benchmark::State &state) {
    const std::string p = bench_path();
    if (file_size(p) == 0) bv_io_rgbe_write(p.c_str(), kW, kH, nullptr, 0, nullptr, image().data());
    std::vector<unsigned char> out(size_t(4) * kW * kH);
    for (auto _ : state) {
        if (bv_io_read_rgbe(kW, kH, p.c_str(), out.data()) != kH)
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(out.data());
    }
    report(state, double(file_size(p)));
}

// Reading plus decoding to float RGB: the same work as a float image loader.
void BM_RadianceReadToFloat24MP(benchmark::State &state) {
    const std::string p = bench_path();
    std::vector<unsigned char> rgbe(size_t(4) * kW * kH);
    std::vector<float> rgb(size_t(3) * kW * kH);
    for (auto _ : state) {
        if (bv_io_read_rgbe(kW, kH, p.c_str(), rgbe.data()) != kH)
            state.SkipWithError("read failed");
        rgbe2fp(kW, kH, 3 * kW, 0, 0, rgbe.data(), rgb.data(), 1.0f);
        benchmark::DoNotOptimize(rgb.data());
    }
    report(state, double(file_size(p)));
}

void BM_RadiancePreview24MP(benchmark::State &state) {
    const std::string p = bench_path();
    std::vector<unsigned char> out(size_t(4) * 1500 * 1000);
    for (auto _ : state) {
        if (bv_io_read_preview_rgbe(kW, kH, 1500, 1000, p.c_str(), out.data()) < 0)
            state.SkipWithError("preview failed");
        benchmark::DoNotOptimize(out.data());
    }
    report(state, double(file_size(p)));
}

BENCHMARK(BM_RadianceWrite24MP)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RadianceRead24MP)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RadianceReadToFloat24MP)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RadiancePreview24MP)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
