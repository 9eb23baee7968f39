// Simple tone mapping of a 24-megapixel float RGB and RGBE image, and colour adjustment of the
// result, in megapixels per second.
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <vector>

namespace {

// 6000 x 4000 built by tiling the atrium photograph (the peer script tiles
// it the same way), or a synthetic gradient when the data is absent.
struct BigImage {
    static constexpr int kWidth = 6000, kHeight = 4000;
    std::vector<float> floats;        // interleaved RGB
    std::vector<unsigned char> rgbe;  // scanline rows
    float table[256];
    LogLumStats stats{};
    bool real = false;

    BigImage() {
        exp_lut_old(table);
        const size_t pixels = static_cast<size_t>(kWidth) * kHeight;
        rgbe.resize(pixels * 4);
        floats.resize(pixels * 3);
        const char *path = "../shared/data/hdr/mpi_atrium_3.hdr";
        RgbeDims dims{};
        std::vector<unsigned char> src;
        if (rgbe_dim(path, nullptr, &dims) >= 0) {
            src.resize(static_cast<size_t>(dims.width) * dims.height * 4);
            real = bv_io_read_rgbe(dims.width, dims.height, path, src.data()) == dims.height;
        }
        for (int y = 0; y < kHeight; ++y) {
            unsigned char *row = &rgbe[static_cast<size_t>(y) * kWidth * 4];
            for (int x = 0; x < kWidth; ++x) {
                if (real) {
                    const int sw = dims.width;
                    const unsigned char *s = &src[static_cast<size_t>(y % dims.height) * sw * 4];
                    for (int p = 0; p < 4; ++p) row[p * kWidth + x] = s[p * sw + x % sw];
                } else {
                    const int v = 1 + (x * 7 + y * 3) % 255;
                    row[x] = static_cast<unsigned char>(v);
                    row[kWidth + x] = static_cast<unsigned char>(255 - v / 2);
                    row[2 * kWidth + x] = 128;
                    row[3 * kWidth + x] = static_cast<unsigned char>(120 + (x + y) % 20);
                }
            }
        }
        rgbe2fp(kWidth, kHeight, kWidth * 3, 0, 0, rgbe.data(), floats.data(), 1.0f);
        stats.v[0] = 8;
        logMinMaxMoy(kWidth, kHeight, table, rgbe.data(), &stats);
    }
};

BigImage &image() {
    static BigImage img;
    return img;
}

void run_tm(benchmark::State &state, bool rgbe, bool with_stats) {
    BigImage &img = image();
    const int threads = static_cast<int>(state.range(0));
    TmParam p;
    tmparam_default(0, 0, &p);
    DimParam d;
    init_dim_param(&d);
    d.width = BigImage::kWidth;
    d.height = BigImage::kHeight;
    if (!rgbe) {
        d.sourceKind = 10;
        d.bitsIn = 32;
    }
    std::vector<uint8_t> out(static_cast<size_t>(d.width) * d.height * 3);
    void *input = rgbe ? static_cast<void *>(img.rgbe.data()) : img.floats.data();
    for (auto _ : state) {
        LogLumStats st = img.stats;
        if (with_stats) {
            // The statistics pass a caller needs before a fresh image.
            st.v[0] = 32;
            st.v[1] = 3;
            logMinMaxMoy(d.width, d.height, img.table, img.floats.data(), &st);
        }
        const int rc = tm_simple(&p, nullptr, &st, img.table, input,
                                 reinterpret_cast<uint16_t *>(out.data()), d, threads);
        if (rc != d.height) state.SkipWithError("tm_simple failed");
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["MP/s"] =
        benchmark::Counter(static_cast<double>(d.width) * d.height * 1e-6 * state.iterations(),
                           benchmark::Counter::kIsRate);
    state.SetLabel(img.real ? "atrium tiled to 6000x4000" : "synthetic 6000x4000");
}

void BM_TmSimpleFloat(benchmark::State &s) { run_tm(s, false, false); }
void BM_TmSimpleRgbe(benchmark::State &s) { run_tm(s, true, false); }
void BM_TmSimpleFloatWithStats(benchmark::State &s) { run_tm(s, false, true); }

// Colour adjustment of the tone-mapped 8-bit picture in place: saturation
// step, a hue shift and a lightness change, so every stage runs.
void BM_AdjustColors(benchmark::State &state) {
    BigImage &img = image();
    static std::vector<uint8_t> picture = [&] {
        std::vector<uint8_t> out(static_cast<size_t>(BigImage::kWidth) * BigImage::kHeight * 3);
        TmParam p;
        tmparam_default(0, 0, &p);
        DimParam d;
        init_dim_param(&d);
        d.width = BigImage::kWidth;
        d.height = BigImage::kHeight;
        tm_simple(&p, nullptr, &img.stats, img.table, img.rgbe.data(),
                  reinterpret_cast<uint16_t *>(out.data()), d, 2);
        return out;
    }();
    TmParam colour;
    tmparam_default(0, 0, &colour);
    colour.slot[13] = 2;
    colour.slot[BV_CA_SLOT_BANDS + 9] = 20;  // greens' hue
    colour.slot[BV_CA_SLOT_MASTER_LIGHT] = 10;
    DimParam d;
    init_dim_param(&d);
    d.width = BigImage::kWidth;
    d.height = BigImage::kHeight;
    std::vector<uint8_t> work(picture.size());
    for (auto _ : state) {
        state.PauseTiming();
        work = picture;
        state.ResumeTiming();
        if (bv_adjust_colors(static_cast<int>(state.range(0)), nullptr, 0, nullptr, &colour,
                             work.data(), d) != d.height)
            state.SkipWithError("bv_adjust_colors failed");
        benchmark::DoNotOptimize(work.data());
    }
    state.counters["MP/s"] =
        benchmark::Counter(static_cast<double>(d.width) * d.height * 1e-6 * state.iterations(),
                           benchmark::Counter::kIsRate);
}

BENCHMARK(BM_TmSimpleFloat)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_TmSimpleRgbe)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_TmSimpleFloatWithStats)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AdjustColors)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
