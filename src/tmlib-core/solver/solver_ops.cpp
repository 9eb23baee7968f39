// The solver's plane operators (Laplacian, a + k b, dot products, attenuation), level sizing and
// the strip-by-strip Laplacian over files.
#include <cmath>
#include <cstdio>
#include <vector>

#include "Threading/bands.hpp"
#include "tmlib-core/solver/solver.hpp"

namespace bv::solver {

float progressInit = 0.0f;
float progressIncrement = 0.0f;

std::vector<Level> level_sizes(int width, int height, int levels) {
    if (levels < 1) levels = 1;
    std::vector<Level> out;
    out.reserve(static_cast<size_t>(levels));
    int w = width, h = height;
    size_t offset = 0;
    for (int k = 0; k < levels; ++k) {
        out.push_back(Level{w, h, offset});
        offset += static_cast<size_t>(w) * static_cast<size_t>(h);
        if (w >= 4 && h >= 4) {
            w = (w + 1) / 2;
            h = (h + 1) / 2;
        }
    }
    return out;
}

size_t pyramid_floats(int width, int height, int levels) {
    const std::vector<Level> lv = level_sizes(width, height, levels);
    const Level &last = lv.back();
    return last.offset + static_cast<size_t>(last.width) * static_cast<size_t>(last.height);
}

float base_tolerance(const TmParam &params) {
    static const float kTable[5] = {3e-4f, 1e-4f, 1e-5f, 1e-6f, 1e-7f};
    const float s = params.slot[18];
    // A slot far outside the table's range must not overflow the int.
    if (!(s > -100.0f && s < 100.0f)) return 1e-6f;
    const int k = static_cast<int>(s) + 2;
    return (k >= 0 && k <= 4) ? kTable[k] : 1e-6f;
}

int max_iterations(const TmParam &params) {
    const double v = 50.0 * std::pow(3.0, params.slot[17] / 10.0);
    if (!(v < 1e9)) return 1000000000;
    return v > 0.0 ? static_cast<int>(v) : 0;
}

float level_factor(int width, int height) {
    const int m = static_cast<int>((static_cast<int64_t>(width) + height) / 2);
    if (m <= 1600) return 1.0f;
    return static_cast<float>(20.0 * std::log(m / 1000.0));
}

namespace {

// Fixed-order dot product of one row: four interleaved partial sums, then
// combined the same way every time.
inline double row_dot(const float *a, const float *b, int n) {
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        s0 += static_cast<double>(a[i]) * b[i];
        s1 += static_cast<double>(a[i + 1]) * b[i + 1];
        s2 += static_cast<double>(a[i + 2]) * b[i + 2];
        s3 += static_cast<double>(a[i + 3]) * b[i + 3];
    }
    for (; i < n; ++i) s0 += static_cast<double>(a[i]) * b[i];
    return (s0 + s1) + (s2 + s3);
}

// One output row of the Laplacian; present neighbours are added in the
// order N, S, W, E and the centre is weighted by their count.
inline void lap_row(int w, int wrap, const float *up, const float *row, const float *dn,
                    float *out) {
    const float kv = static_cast<float>((up ? 1 : 0) + (dn ? 1 : 0));
    for (int x = 0; x < w; ++x) {
        const bool has_w = x > 0 || wrap, has_e = x < w - 1 || wrap;
        if (up && dn && x > 0 && x < w - 1) {
            // The common case, kept free of branches on the neighbours.
            out[x] = up[x] + dn[x] + row[x - 1] + row[x + 1] - 4.0f * row[x];
            continue;
        }
        float s = 0.0f;
        bool any = false;
        auto add = [&](float v) {
            s = any ? s + v : v;
            any = true;
        };
        if (up) add(up[x]);
        if (dn) add(dn[x]);
        if (has_w) add(row[x > 0 ? x - 1 : w - 1]);
        if (has_e) add(row[x < w - 1 ? x + 1 : 0]);
        const float k = kv + (has_w ? 1.0f : 0.0f) + (has_e ? 1.0f : 0.0f);
        out[x] = s - k * row[x];
    }
}

}  // namespace

void tm20m_rows(int width, int rows, int wrap, const float *above, const float *x,
                const float *below, float *out, double *rowDots) {
    const size_t w = static_cast<size_t>(width);
    for (int r = 0; r < rows; ++r) {
        const float *row = x + r * w;
        const float *up = r > 0 ? row - w : above;
        const float *dn = r < rows - 1 ? row + w : below;
        lap_row(width, wrap, up, row, dn, out + r * w);
        if (rowDots) rowDots[r] = row_dot(row, out + r * w, width);
    }
}

void tm20m(int width, int height, int wrap, int threads, const float *x, float *out,
           double *rowDots) {
    const size_t w = static_cast<size_t>(width);
    threading::run_bands(
        0, height, threads,
        [&](const threading::Band &b) {
            tm20m_rows(width, b.end - b.first, wrap, b.first > 0 ? x + (b.first - 1) * w : nullptr,
                       x + b.first * w, b.end < height ? x + b.end * w : nullptr, out + b.first * w,
                       rowDots ? rowDots + b.first : nullptr);
        },
        threading::OnSpawnFailure::RunInline);
}

void tm20a(int width, int rows, int threads, const float *a, float k, const float *b, float *out,
           double *rowDots) {
    const size_t w = static_cast<size_t>(width);
    threading::run_bands(
        0, rows, threads,
        [&](const threading::Band &band) {
            for (int r = band.first; r < band.end; ++r) {
                const float *ar = a + r * w, *br = b + r * w;
                float *o = out + r * w;
                for (size_t i = 0; i < w; ++i) o[i] = ar[i] + k * br[i];
                if (rowDots) rowDots[r] = row_dot(o, o, width);
            }
        },
        threading::OnSpawnFailure::RunInline);
}

double sum_rows(const double *rowDots, int height) {
    double s = 0.0;
    for (int r = 0; r < height; ++r) s += rowDots[r];
    return s;
}

double tm20d(int width, int rows, int threads, const float *a, const float *b) {
    std::vector<double> dots(static_cast<size_t>(rows > 0 ? rows : 1));
    const size_t w = static_cast<size_t>(width);
    threading::run_bands(
        0, rows, threads,
        [&](const threading::Band &band) {
            for (int r = band.first; r < band.end; ++r)
                dots[r] = row_dot(a + r * w, b + r * w, width);
        },
        threading::OnSpawnFailure::RunInline);
    return sum_rows(dots.data(), rows);
}

void centre_rhs(int width, int height, int threads, float *b) {
    std::vector<double> sums(static_cast<size_t>(height > 0 ? height : 1));
    const size_t w = static_cast<size_t>(width);
    threading::run_bands(
        0, height, threads,
        [&](const threading::Band &band) {
            for (int r = band.first; r < band.end; ++r) {
                double s = 0.0;
                for (size_t i = 0; i < w; ++i) s += b[r * w + i];
                sums[r] = s;
            }
        },
        threading::OnSpawnFailure::RunInline);
    const float mean = static_cast<float>(sum_rows(sums.data(), height) / (w * height));
    if (mean == 0.0f) return;
    threading::run_bands(
        0, height, threads,
        [&](const threading::Band &band) {
            for (size_t i = band.first * w; i < band.end * w; ++i) b[i] -= mean;
        },
        threading::OnSpawnFailure::RunInline);
}

void strip_rows(int height, int strips, int s, int *first, int *end) {
    if (strips < 1) strips = 1;
    const int h = height / strips;
    *first = s * h;
    *end = (s == strips - 1) ? height : *first + h;
}

int tm20m_streaming(int width, int height, int wrap, int threads, int strips, FILE *src, FILE *dst,
                    float *buf, float *out, double *rowDots) {
    const size_t w = static_cast<size_t>(width);
    for (int s = 0; s < strips; ++s) {
        int first, end;
        strip_rows(height, strips, s, &first, &end);
        if (end <= first) continue;
        const int lo = first > 0 ? first - 1 : 0, hi = end < height ? end + 1 : height;
        int rc = read_strip(src, static_cast<int64_t>(lo) * width,
                            static_cast<int64_t>(hi - lo) * width, buf);
        if (rc != 4) return rc < 0 ? rc : kErrStripRead;
        const float *x = buf + (first - lo) * w;
        threading::run_bands(
            first, end, threads,
            [&](const threading::Band &b) {
                const float *xb = x + (b.first - first) * w;
                tm20m_rows(width, b.end - b.first, wrap, b.first > 0 ? xb - w : nullptr, xb,
                           b.end < height ? xb + (b.end - b.first) * w : nullptr,
                           out + (b.first - first) * w, rowDots ? rowDots + b.first : nullptr);
            },
            threading::OnSpawnFailure::RunInline);
        rc = write_strip(dst, static_cast<int64_t>(first) * width,
                         static_cast<int64_t>(end - first) * width, out);
        if (rc != 4) return rc < 0 ? rc : kErrStripWrite;
    }
    return 0;
}

void tm1b(int width, int height, float scale, float exponent, float offset, int threads,
          float *plane) {
    const size_t w = static_cast<size_t>(width);
    threading::run_bands(
        0, height, threads,
        [&](const threading::Band &b) {
            for (size_t i = b.first * w; i < b.end * w; ++i) {
                const float v = plane[i];
                plane[i] = v > 1e-5f ? std::pow((v + offset) / scale, exponent) : 0.0f;
            }
        },
        threading::OnSpawnFailure::RunInline);
}

}  // namespace bv::solver
