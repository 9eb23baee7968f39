// RGBE decoding and encoding, bracket conversion, float TIFF writing and
// log-luminance statistics, in megapixels per second (single-threaded calls).
#include <Brackvista40Lib1.h>
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "core/rgbe/rgbe_pixel.hpp"

namespace {

constexpr int kW = 2048, kH = 1366;  // a 2.8 MP photograph

void report(benchmark::State &state) {
    const double px = static_cast<double>(kW) * kH;
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * px));
    state.counters["MP/s"] =
        benchmark::Counter(state.iterations() * px / 1e6, benchmark::Counter::kIsRate);
}

// Smooth gradients with noise: realistic exponent spread, no constant runs.
std::vector<float> float_image() {
    std::vector<float> f(static_cast<size_t>(kW) * kH * 3);
    uint32_t s = 12345;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            s = s * 1664525u + 1013904223u;
            const float base = std::exp2(12.0f * x / kW - 6.0f) * (1.0f + 0.5f * y / kH);
            float *p = &f[(static_cast<size_t>(y) * kW + x) * 3];
            p[0] = base * (0.5f + (s >> 24) / 512.0f);
            p[1] = base * 0.8f;
            p[2] = base * (0.3f + ((s >> 16) & 255) / 1024.0f);
        }
    return f;
}

std::vector<uint8_t> rgbe_image() {
    const std::vector<float> f = float_image();
    std::vector<uint8_t> px(static_cast<size_t>(kW) * kH * 4);
    for (int y = 0; y < kH; ++y) {
        uint8_t *row = &px[static_cast<size_t>(y) * 4 * kW];
        for (int x = 0; x < kW; ++x) {
            const float *p = &f[(static_cast<size_t>(y) * kW + x) * 3];
            uint8_t e[4];
            bv::rgbe::encode(p[0], p[1], p[2], 0.0, e);
            for (int c = 0; c < 4; ++c) row[x + c * kW] = e[c];
        }
    }
    return px;
}

void BM_RgbeEncode(benchmark::State &state) {
    const std::vector<float> f = float_image();
    std::vector<uint8_t> out(static_cast<size_t>(kW) * kH * 4);
    for (auto _ : state) {
        for (int y = 0; y < kH; ++y) {
            uint8_t *row = &out[static_cast<size_t>(y) * 4 * kW];
            for (int x = 0; x < kW; ++x) {
                const float *p = &f[(static_cast<size_t>(y) * kW + x) * 3];
                uint8_t e[4];
                bv::rgbe::encode(p[0], p[1], p[2], 0.0, e);
                for (int c = 0; c < 4; ++c) row[x + c * kW] = e[c];
            }
        }
        benchmark::DoNotOptimize(out.data());
    }
    report(state);
}

void BM_RgbeDecode(benchmark::State &state) {
    const std::vector<uint8_t> px = rgbe_image();
    const bool half = state.range(0) != 0;
    std::vector<float> out(static_cast<size_t>(kW) * kH * 3);
    for (auto _ : state) {
        benchmark::DoNotOptimize(rgbe2fp(kW, kH, 0, 0, half, px.data(), out.data(), 1.0f));
    }
    report(state);
}

void BM_RgbeDecodeNormalised(benchmark::State &state) {
    const std::vector<uint8_t> px = rgbe_image();
    std::vector<float> out(static_cast<size_t>(kW) * kH * 3);
    for (auto _ : state)
        benchmark::DoNotOptimize(rgbe2fp(kW, kH, 0, 1, 0, px.data(), out.data(), 1.0f));
    report(state);
}

void BM_ConvertToRgbe(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const int levels = bits == 8 ? 256 : 65536;
    std::vector<float> table(static_cast<size_t>(levels));
    for (int i = 0; i < levels; ++i)
        table[i] = static_cast<float>(std::pow(i / (levels - 1.0), 2.2));
    std::vector<uint16_t> s16(static_cast<size_t>(kW) * kH * 3);
    std::vector<uint8_t> s8(s16.size());
    uint32_t s = 99;
    for (size_t i = 0; i < s16.size(); ++i) {
        s = s * 1664525u + 1013904223u;
        s16[i] = static_cast<uint16_t>(s >> 16);
        s8[i] = static_cast<uint8_t>(s >> 24);
    }
    const void *src = bits == 8 ? static_cast<const void *>(s8.data()) : s16.data();
    std::vector<uint8_t> out(static_cast<size_t>(kW) * kH * 4);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            convert_to_rgbe(bits, kW, kH, 3, kW * 3, 0, table.data(), src, out.data()));
    report(state);
}

void BM_FpSaveToDevNull(benchmark::State &state) {
    const std::vector<uint8_t> px = rgbe_image();
    for (auto _ : state) benchmark::DoNotOptimize(fp_save("/dev/null", kW, kH, 0, px.data()));
    report(state);
}

void BM_LogMinMaxMoy(benchmark::State &state) {
    const std::vector<uint8_t> px = rgbe_image();
    float t[256];
    exp_lut_old(t);
    for (auto _ : state) {
        LogLumStats st{};
        st.v[0] = 8;
        benchmark::DoNotOptimize(logMinMaxMoy(kW, kH, t, px.data(), &st));
    }
    report(state);
}

BENCHMARK(BM_RgbeEncode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RgbeDecode)->Arg(0)->Arg(1)->ArgName("half")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RgbeDecodeNormalised)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConvertToRgbe)->Arg(8)->Arg(16)->ArgName("bits")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FpSaveToDevNull)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LogMinMaxMoy)->Unit(benchmark::kMillisecond);

}  // namespace
