// Log-luminance map, percentile safeguards, cubic fit and map doubling for the tone mappers.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Utils/loglum/loglum.hpp"
#include "common/pixels.hpp"
#include "tmlib-core/tmlib_core.hpp"

namespace bv::tmcore {

// The module counter of adjust_percentile (see tmlib.hpp): the only mutable
// state of the tone-mapping modules, reset by the callers that use it.
int GlobalCntAdjust = 0;

namespace {

template <class Sample>
int log_lum_pass(int width, int height, int step, size_t row, const Sample *data, const float *lut,
                 float *map, double *sum, float *mn, float *mx) {
    int counted = 0;
    const ChannelOffsets at = channel_offsets(step);
    for (int y = 0; y < height; ++y) {
        const Sample *px = data + static_cast<size_t>(y) * row;
        float *m = map + static_cast<size_t>(y) * width;
        for (int x = 0; x < width; ++x, px += step) {
            float r, g, b;
            if constexpr (sizeof(Sample) == 4) {
                r = px[at.r], g = px[at.g], b = px[at.b];
            } else {
                r = lut[px[at.r]], g = lut[px[at.g]], b = lut[px[at.b]];
            }
            const float l = 0.2126f * r + 0.7152f * g + 0.0722f * b;
            if (l > 0.0f) {
                const float v = std::log(l);
                m[x] = v;
                *sum += v;
                if (v < *mn) *mn = v;
                if (v > *mx) *mx = v;
                ++counted;
            } else {
                m[x] = -1e9f;
            }
        }
    }
    return counted;
}

}  // namespace

int get_log_lum(int kind, int width, int height, int pixelStep, int rowStep, float out[3],
                const float *lut, const void *data, float *logMap, float, float) {
    if (!out || !data || !logMap || kind < 0 || kind > 2 || (kind != 0 && !lut)) return -1;
    if (width < 0 || height < 0 || pixelStep < 1 || rowStep < 0) return -1;
    const size_t row = rowStep > 0 ? static_cast<size_t>(rowStep)
                                   : static_cast<size_t>(width) * static_cast<size_t>(pixelStep);
    double sum = 0.0;
    float mn = 1e9f, mx = -1e9f;
    int counted;
    if (kind == 0) {
        counted = log_lum_pass(width, height, pixelStep, row, static_cast<const float *>(data), lut,
                               logMap, &sum, &mn, &mx);
    } else if (kind == 1) {
        counted = log_lum_pass(width, height, pixelStep, row, static_cast<const uint16_t *>(data),
                               lut, logMap, &sum, &mn, &mx);
    } else {
        counted = log_lum_pass(width, height, pixelStep, row, static_cast<const uint8_t *>(data),
                               lut, logMap, &sum, &mn, &mx);
    }
    const size_t total = static_cast<size_t>(width) * static_cast<size_t>(height);
    for (size_t i = 0; i < total; ++i)
        if (logMap[i] < -99999999.0f) logMap[i] = mn;
    if (counted > 0) out[0] = static_cast<float>(std::exp(sum / counted));
    if (out[0] > 0.0f) out[1] = static_cast<float>(std::exp(static_cast<double>(mx)) / out[0]);
    out[2] = static_cast<float>(std::exp(static_cast<double>(mn)));
    return counted;
}

int verifPercentile(const uint32_t (*hist)[256], uint32_t channel, int count) {
    if (!hist) return count;
    const uint32_t *h = hist[channel];
    // Bounded, unlike an open-ended search: small counts can stop changing
    // under the 5 % steps and split histograms can oscillate.
    for (int step = 0; step < 100000; ++step) {
        int64_t cum = 0;
        int bin = -1;
        for (int k = 0; k < 256; ++k) {
            cum += h[k];
            if (cum > count) {
                bin = k;
                break;
            }
        }
        if (bin > 14 && bin < 236) return count;
        const int next = (bin >= 0 && bin <= 14) ? static_cast<int>(count * 1.05)
                                                 : static_cast<int>(count * 0.95);
        if (next == count) return count;
        count = next;
    }
    return count;
}

float adjust_percentile(uint64_t count, int nbins, const int32_t *hist, float factor) {
    if (!hist || nbins < 1) return factor;
    const int hi = static_cast<int>(0.9 * nbins);
    const int lo = static_cast<int>(0.25 * nbins);
    for (;;) {
        const int k = loglum::percentile(count, static_cast<uint32_t>(nbins), hist, factor);
        if (GlobalCntAdjust > 39) return factor;
        ++GlobalCntAdjust;
        if (k > hi) {
            factor *= 0.99f;
            continue;
        }
        if (k >= lo) return factor;
        factor *= 1.01f;
    }
}

void coeffPoly3(double *a, double *b, double *c, double *d, double x0, double y0, double x1,
                double y1) {
    const double det = 2.0 * (x1 * x1 * x1 - x0 * x0 * x0) + 6.0 * x0 * (x0 - x1) * x1;
    double A = 0, B = 0, C = 0, D = 0;
    if (det != 0.0) {
        A = (y0 - y1) / det;
        B = -3.0 * x1 * A;
        C = (6.0 * x1 * x0 - 3.0 * x0 * x0) * A;
        D = y0 - x0 * ((A * x0 + B) * x0 + C);
    }
    if (a) *a = A;
    if (b) *b = B;
    if (c) *c = C;
    if (d) *d = D;
}

int tm1_init(int outWidth, int outHeight, int inWidth, int inHeight, int edgeFlag, const float *in,
             float *out) {
    (void)edgeFlag;
    if (!in || !out || outWidth < 0 || outHeight < 0 || inWidth < 1 || inHeight < 1) return -1;
    auto at = [&](int x, int y) {
        x = x < 0 ? 0 : (x >= inWidth ? inWidth - 1 : x);
        y = y < 0 ? 0 : (y >= inHeight ? inHeight - 1 : y);
        return in[static_cast<size_t>(y) * inWidth + x];
    };
    for (int j = 0; j < outHeight; ++j) {
        const int y = j / 2;
        float *o = out + static_cast<size_t>(j) * outWidth;
        for (int i = 0; i < outWidth; ++i) {
            const int x = i / 2;
            const bool ox = i & 1, oy = j & 1;
            float v;
            if (!ox && !oy) {
                const float edges = at(x - 1, y) + at(x + 1, y) + at(x, y - 1) + at(x, y + 1);
                const float diag =
                    at(x - 1, y - 1) + at(x + 1, y - 1) + at(x - 1, y + 1) + at(x + 1, y + 1);
                v = 0.5626f * at(x, y) + 0.09375f * edges + 0.0156f * diag;
            } else if (ox && !oy) {
                const float along = at(x, y) + at(x + 1, y);
                const float beside =
                    at(x, y - 1) + at(x + 1, y - 1) + at(x, y + 1) + at(x + 1, y + 1);
                v = 0.375f * along + 0.0625f * beside;
            } else if (!ox && oy) {
                const float along = at(x, y) + at(x, y + 1);
                const float beside =
                    at(x - 1, y) + at(x - 1, y + 1) + at(x + 1, y) + at(x + 1, y + 1);
                v = 0.375f * along + 0.0625f * beside;
            } else {
                v = 0.25f * (at(x, y) + at(x + 1, y) + at(x, y + 1) + at(x + 1, y + 1));
            }
            o[i] = v;
        }
    }
    return outHeight;
}

int rgb_interleaved2color_planes(int width, int height, int channels, int bits, const void *src,
                                 void *dst) {
    if (!src || !dst || width < 0 || height < 0 || channels < 1 || (bits != 8 && bits != 16))
        return -1;
    const size_t plane = static_cast<size_t>(width) * static_cast<size_t>(height);
    const ChannelOffsets at = channel_offsets(channels);
    const int off[3] = {at.r, at.g, at.b};
    auto reorder = [&](auto *s, auto *d) {
        for (size_t p = 0; p < plane; ++p)
            for (int c = 0; c < 3; ++c) d[c * plane + p] = s[p * channels + off[c]];
    };
    if (bits == 16)
        reorder(static_cast<const uint16_t *>(src), static_cast<uint16_t *>(dst));
    else
        reorder(static_cast<const uint8_t *>(src), static_cast<uint8_t *>(dst));
    return height;
}

}  // namespace bv::tmcore
