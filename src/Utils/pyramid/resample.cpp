// Gaussian blur of 8-bit images and area reduction of 8/16-bit, float and RGBE images.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Threading/bands.hpp"
#include "Utils/pyramid/pyramid.hpp"
#include "common/boundary.hpp"
#include "common/diag.hpp"
#include "common/pixels.hpp"
#include "core/rgbe/rgbe_pixel.hpp"

namespace bv::pyramid {

namespace {

inline int clamp_index(int i, int n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); }

inline uint8_t round_u8(double v) {
    if (!(v > 0.0)) return 0;
    return v >= 254.5 ? 255 : static_cast<uint8_t>(v + 0.5);
}

}  // namespace

int downtower(int radius, int width, int height, int channels, int threads, uint8_t *image) {
    if (!image || width < 0 || height < 0 || channels < 1) return BV_PYR_EARG;
    if (radius < 1 || width == 0 || height == 0) return height;
    const int taps = 2 * radius + 1;
    std::vector<double> w(static_cast<size_t>(taps));
    double sum = 0.0;
    for (int k = 0; k < taps; ++k) {
        const double t = static_cast<double>(k - radius) / radius;
        w[k] = std::exp(-2.0 * t * t);
        sum += w[k];
    }
    for (double &v : w) v /= sum;
    size_t stride, total;
    if (!checked_mul(static_cast<size_t>(width), static_cast<size_t>(channels), &stride) ||
        !checked_mul(stride, static_cast<size_t>(height), &total))
        return BV_PYR_ENOMEM;
    Scratch<uint8_t> tmp;
    if (!tmp.alloc(total)) return BV_PYR_ENOMEM;
    diag(Stream::Err, "\n");

    // Along rows into tmp, then along columns back into the image.
    threading::run_bands(
        0, height, threads,
        [&](const threading::Band &b) {
            for (int y = b.first; y < b.end; ++y) {
                const uint8_t *in = image + static_cast<size_t>(y) * stride;
                uint8_t *out = tmp.get() + static_cast<size_t>(y) * stride;
                for (int x = 0; x < width; ++x)
                    for (int c = 0; c < channels; ++c) {
                        double acc = 0.0;
                        for (int k = 0; k < taps; ++k)
                            acc +=
                                w[k] * in[static_cast<size_t>(clamp_index(x + k - radius, width)) *
                                              channels +
                                          c];
                        out[static_cast<size_t>(x) * channels + c] = round_u8(acc);
                    }
            }
        },
        threading::OnSpawnFailure::RunInline);
    threading::run_bands(
        0, height, threads,
        [&](const threading::Band &b) {
            for (int y = b.first; y < b.end; ++y) {
                uint8_t *out = image + static_cast<size_t>(y) * stride;
                for (size_t i = 0; i < stride; ++i) {
                    double acc = 0.0;
                    for (int k = 0; k < taps; ++k)
                        acc +=
                            w[k] *
                            tmp[static_cast<size_t>(clamp_index(y + k - radius, height)) * stride +
                                i];
                    out[i] = round_u8(acc);
                }
            }
        },
        threading::OnSpawnFailure::RunInline);
    return height;
}

namespace {

// Source cells of one output cell along an axis and their covered lengths.
struct Axis {
    std::vector<int> first;      // per output index: first source index
    std::vector<int> count;      // number of source cells
    std::vector<size_t> start;   // offset into weight
    std::vector<double> weight;  // covered lengths
    std::vector<double> total;   // their sum
};

Axis make_axis(int src, int dst) {
    Axis a;
    const float ratio = static_cast<float>(src) / static_cast<float>(dst);
    a.first.resize(dst);
    a.count.resize(dst);
    a.start.resize(dst);
    a.total.resize(dst);
    for (int o = 0; o < dst; ++o) {
        double lo = static_cast<double>(o) * ratio, hi = static_cast<double>(o + 1) * ratio;
        if (hi > src) hi = src;
        if (lo > src - 1e-9) lo = src - 1.0;  // a float ratio can overshoot: keep the last cell
        if (hi <= lo) hi = lo + 1.0 > src ? src : lo + 1.0;
        int i0 = static_cast<int>(std::floor(lo));
        int i1 = static_cast<int>(std::ceil(hi));
        if (i1 > src) i1 = src;
        if (i1 <= i0) i1 = i0 + 1;
        a.first[o] = i0;
        a.count[o] = i1 - i0;
        a.start[o] = a.weight.size();
        double t = 0.0;
        for (int i = i0; i < i1; ++i) {
            const double c = (hi < i + 1 ? hi : i + 1) - (lo > i ? lo : i);
            a.weight.push_back(c > 0.0 ? c : 0.0);
            t += a.weight.back();
        }
        a.total[o] = t;
    }
    return a;
}

// Reads source row y as floats: ch samples per pixel.
using RowReader = void (*)(const void *src, int width, int ch, int y, float *out);

template <class T>
void read_ints(const void *src, int width, int ch, int y, float *out) {
    const size_t n = static_cast<size_t>(width) * ch;
    const T *row = static_cast<const T *>(src) + static_cast<size_t>(y) * n;
    for (size_t i = 0; i < n; ++i) out[i] = row[i];
}

void read_floats(const void *src, int width, int ch, int y, float *out) {
    const size_t n = static_cast<size_t>(width) * ch;
    std::memcpy(out, static_cast<const float *>(src) + static_cast<size_t>(y) * n,
                n * sizeof(float));
}

const rgbe::Table &exp_table() {
    static const rgbe::Table table;
    return table;
}

// Every exponent goes through the table, E = 0 included (its entry is the
// tiny value 2^-136, not 0).
void read_rgbe(const void *src, int width, int, int y, float *out) {
    const float *t = exp_table().v;
    const RgbePlanes<const uint8_t> row(static_cast<const uint8_t *>(src), width, y);
    for (int x = 0; x < width; ++x) {
        const float s = t[row.e[x]];
        out[3 * x] = row.r[x] * s;
        out[3 * x + 1] = row.g[x] * s;
        out[3 * x + 2] = row.b[x] * s;
    }
}

// Writes output row y from the weighted sums.
template <class T>
void write_ints(void *dst, int width, int ch, int y, const double *acc, double norm_row,
                const double *norm_col) {
    const double top = sizeof(T) == 1 ? 255.0 : 65535.0;
    T *row = static_cast<T *>(dst) + static_cast<size_t>(y) * width * ch;
    for (int x = 0; x < width; ++x)
        for (int c = 0; c < ch; ++c) {
            const double v = acc[static_cast<size_t>(x) * ch + c] / (norm_row * norm_col[x]);
            row[static_cast<size_t>(x) * ch + c] =
                static_cast<T>(!(v > 0.0) ? 0.0 : (v + 0.5 >= top ? top : v + 0.5));
        }
}

void write_floats(void *dst, int width, int ch, int y, const double *acc, double norm_row,
                  const double *norm_col) {
    float *row = static_cast<float *>(dst) + static_cast<size_t>(y) * width * ch;
    for (int x = 0; x < width; ++x)
        for (int c = 0; c < ch; ++c)
            row[static_cast<size_t>(x) * ch + c] =
                static_cast<float>(acc[static_cast<size_t>(x) * ch + c] / (norm_row * norm_col[x]));
}

using RowWriter = void (*)(void *dst, int width, int ch, int y, const double *acc, double,
                           const double *);

int area_reduce(int sw, int sh, int dw, int dh, int ch, const void *src, void *dst, int threads,
                RowReader read, RowWriter write) {
    const Axis ax = make_axis(sw, dw), ay = make_axis(sh, dh);
    const std::vector<threading::Band> bands = threading::split_rows(0, dh, threads);
    const size_t nb = bands.size();
    size_t in_n, out_n, in_all, out_all;
    if (!checked_mul(static_cast<size_t>(sw), static_cast<size_t>(ch), &in_n) ||
        !checked_mul(static_cast<size_t>(dw), static_cast<size_t>(ch), &out_n) ||
        !checked_mul(in_n, nb, &in_all) || !checked_mul(out_n, nb, &out_all))
        return BV_PYR_ENOMEM;
    Scratch<float> rows;
    Scratch<double> sums;
    if (!rows.alloc(in_all) || !sums.alloc(out_all)) return BV_PYR_ENOMEM;
    threading::run_bands(
        0, dh, threads,
        [&](const threading::Band &b) {
            float *in = rows.get() + in_n * b.index;
            double *acc = sums.get() + out_n * b.index;
            for (int y = b.first; y < b.end; ++y) {
                std::memset(acc, 0, out_n * sizeof(double));
                for (int k = 0; k < ay.count[y]; ++k) {
                    const double wy = ay.weight[ay.start[y] + k];
                    read(src, sw, ch, ay.first[y] + k, in);
                    for (int x = 0; x < dw; ++x) {
                        const float *cell = in + static_cast<size_t>(ax.first[x]) * ch;
                        const double *wx = &ax.weight[ax.start[x]];
                        for (int c = 0; c < ch; ++c) {
                            double s = 0.0;
                            for (int i = 0; i < ax.count[x]; ++i)
                                s += wx[i] * cell[static_cast<size_t>(i) * ch + c];
                            acc[static_cast<size_t>(x) * ch + c] += wy * s;
                        }
                    }
                }
                write(dst, dw, ch, y, acc, ay.total[y], ax.total.data());
            }
        },
        threading::OnSpawnFailure::RunInline);
    return dh;
}

}  // namespace

int downsample_float(int srcWidth, int srcHeight, int dstWidth, int dstHeight, int channels,
                     const float *src, float *dst, int threads) {
    if (!src || !dst || srcWidth <= 0 || srcHeight <= 0 || dstWidth <= 0 || dstHeight <= 0 ||
        channels < 1)
        return BV_PYR_EARG;
    return area_reduce(srcWidth, srcHeight, dstWidth, dstHeight, channels, src, dst, threads,
                       read_floats, write_floats);
}

int downsample(int srcWidth, int srcHeight, int dstWidth, int dstHeight, int channels, int bits,
               const void *src, void *dst, int threads) {
    if (!src || !dst || srcWidth <= 0 || srcHeight <= 0 || dstWidth <= 0 || dstHeight <= 0 ||
        (channels < 1 && bits != 32))
        return BV_PYR_EARG;
    switch (bits) {
        case 8:
            return area_reduce(srcWidth, srcHeight, dstWidth, dstHeight, channels, src, dst,
                               threads, read_ints<uint8_t>, write_ints<uint8_t>);
        case 16:
            return area_reduce(srcWidth, srcHeight, dstWidth, dstHeight, channels, src, dst,
                               threads, read_ints<uint16_t>, write_ints<uint16_t>);
        case 32:
            return area_reduce(srcWidth, srcHeight, dstWidth, dstHeight, 3, src, dst, threads,
                               read_rgbe, write_floats);
        default:
            return BV_PYR_EDEPTH;
    }
}

}  // namespace bv::pyramid

extern "C" {

BV_API int bv_downtower(int radius, int width, int height, int channels, int bits, int threads,
                        uint8_t *image) {
    if (bits != 8) return BV_PYR_EDEPTH;
    return bv::c_boundary(BV_PYR_ENOMEM, BV_PYR_ENOMEM, [&] {
        return bv::pyramid::downtower(radius, width, height, channels, threads, image);
    });
}

BV_API int bv_downsample(int srcWidth, int srcHeight, int dstWidth, int dstHeight, int channels,
                         int bits, const void *src, void *dst, int threads) {
    return bv::c_boundary(BV_PYR_ENOMEM, BV_PYR_ENOMEM, [&] {
        return bv::pyramid::downsample(srcWidth, srcHeight, dstWidth, dstHeight, channels, bits,
                                       src, dst, threads);
    });
}

}  // extern "C"
