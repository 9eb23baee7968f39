// Camera response as a power curve: gamma from an ICC profile, from the brackets, as a table.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "common/boundary.hpp"
#include "core/hdrgen/hdrgen.hpp"

namespace bv::hdrgen {

namespace {

uint32_t be32(const unsigned char *p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

bool is_trc_signature(const unsigned char *p) {
    return (p[0] == 'r' || p[0] == 'g' || p[0] == 'b') && p[1] == 'T' && p[2] == 'R' && p[3] == 'C';
}

constexpr float kDefaultGamma = 2.2f;

// Pixel samples of one position in every bracket, reduced to 8-bit values.
struct Sampler {
    const void *data;
    int bits, channels;
    size_t image_samples;
    ChannelOffsets taps;
    void rgb(int image, size_t pixel, int out[3]) const {
        const size_t base = image * image_samples + pixel * static_cast<size_t>(channels);
        if (bits == 8) {
            const uint8_t *p = static_cast<const uint8_t *>(data) + base;
            out[0] = p[taps.r], out[1] = p[taps.g], out[2] = p[taps.b];
        } else {
            const uint16_t *p = static_cast<const uint16_t *>(data) + base;
            out[0] = p[taps.r] >> 8, out[1] = p[taps.g] >> 8, out[2] = p[taps.b] >> 8;
        }
    }
};

int luma_a(const int c[3]) { return static_cast<int>(0.6 * c[1] + 0.3 * c[2] + 0.1 * c[0]); }

// The running sum keeps whole units only; a negative float goes through a
// 64-bit integer so the wrap-around is defined and repeatable.
uint32_t add_whole(uint32_t sum, float x) {
    const float s = static_cast<float>(sum) + x;
    if (!(s > -9.2e18f && s < 9.2e18f)) return 0;
    return static_cast<uint32_t>(static_cast<int64_t>(s));
}

// Sample positions: a grid of about 50 x 50, at most this many.
constexpr int kMaxPositions = 2500;

// Stage 1: grid positions whose luma is 1..254 in every bracket. Returns how
// many were kept.
int sample_positions(const Sampler &s, int n, int width, int height, size_t *kept) {
    const int sx = width / 50 + 1, sy = height / 50 + 1;
    int nkept = 0;
    for (int y = 0; y < height && nkept < kMaxPositions; y += sy)
        for (int x = 0; x < width && nkept < kMaxPositions; x += sx) {
            const size_t pix = static_cast<size_t>(y) * width + x;
            bool ok = true;
            for (int k = 0; k < n && ok; ++k) {
                int c[3];
                s.rgb(k, pix, c);
                const int l = luma_a(c);
                ok = l >= 1 && l <= 254;
            }
            if (ok) kept[nkept++] = pix;
        }
    return nkept;
}

// Stage 2: mean 8-bit level of bracket k over the first K kept positions.
int mean_level(const Sampler &s, int k, const size_t *kept, int K) {
    uint64_t sum = 0;
    for (int i = 0; i < K; ++i) {
        int c[3];
        s.rgb(k, kept[i], c);
        sum += static_cast<uint64_t>(c[0] + c[1] + c[2]);
    }
    return static_cast<int>(sum / (3 * static_cast<uint64_t>(K)));
}

// Stage 3: brackets by falling level; one whose level equals an earlier
// one's is dropped. Returns how many are ordered.
int brightest_first(int n, const int *level, int *order) {
    int norder = 0;
    for (int prev = 255; norder < n;) {
        int best = -1;
        for (int k = 0; k < n; ++k)
            if (level[k] < prev && (best < 0 || level[k] > level[best])) best = k;
        if (best < 0) break;
        order[norder++] = best;
        prev = level[best];
    }
    return norder;
}

// Stage 4: gamma of neighbouring brackets a (brighter) and b from the mean
// inverse log ratio of their mid-tone lumas. *rejections counts the positions
// this pair could not use. False when none could, or the gamma is not
// plausible (outside 1..3.2).
bool pair_gamma(const Sampler &s, int a, int b, const size_t *kept, int K, const float *exposures,
                float *gamma, uint32_t *rejections) {
    uint32_t sum = 0;
    *rejections = 0;
    for (int i = 0; i < K; ++i) {
        int ca[3], cb[3];
        s.rgb(a, kept[i], ca);
        s.rgb(b, kept[i], cb);
        const int la = luma_a(ca);
        // 8-bit data weighs R and B of the second image the other way round.
        const int lb =
            s.bits == 8 ? static_cast<int>(0.6 * cb[1] + 0.1 * cb[2] + 0.3 * cb[0]) : luma_a(cb);
        const bool in_range = la >= 65 && la <= 191 && lb >= 65 && lb <= 191;
        const float lr =
            in_range ? std::log(static_cast<float>(la) / static_cast<float>(lb)) : 0.0f;
        if (lr == 0.0f) {
            ++*rejections;
            continue;
        }
        sum = add_whole(sum, 1.0f / lr);
    }
    const int accepted = K - static_cast<int>(*rejections);
    if (accepted <= 0) return false;
    const float g = (static_cast<float>(sum) / static_cast<float>(accepted)) *
                    std::log(exposures[a] / exposures[b]);
    if (!(g > 1.0f && g < 3.2f)) return false;
    *gamma = g;
    return true;
}

// Stage 5: a pair's weight, larger the further both levels are from the ends.
int pair_weight(int level_a, int level_b) {
    const int da = level_a > 128 ? 255 - level_a : level_a;
    const int db = level_b > 128 ? 255 - level_b : level_b;
    return static_cast<int>((da + db) * 0.5);
}

}  // namespace

int profile_gamma(const unsigned char *profile, int expectedSize, float *gamma) {
    const int64_t size = static_cast<int32_t>(be32(profile));
    if (size != expectedSize) {
        const int64_t neg = size < 0 ? size : -size;
        return static_cast<int>(neg);
    }
    if (size - 12 < 1) {
        *gamma = kDefaultGamma;
        return 0;
    }
    for (int64_t p = 0; p <= size - 13; ++p) {
        if (!is_trc_signature(profile + p)) continue;
        const uint64_t off = be32(profile + p + 4);
        const uint64_t end = static_cast<uint64_t>(size);
        // A tag pointing outside the profile is treated as no tag at all.
        if (off + 12 > end) break;
        const uint32_t count = be32(profile + off + 8);
        if (count == 1 && off + 14 > end) break;
        *gamma = count == 1 ? static_cast<float>(profile[off + 12]) +
                                  static_cast<float>(profile[off + 13]) / 256.0f
                            : kDefaultGamma;
        return static_cast<int>(p + 1);
    }
    *gamma = kDefaultGamma;
    return static_cast<int>(size - 12);
}

int response_gamma(int n, int width, int height, int channels, int bits, const void *data,
                   const float *exposures, float result[3]) {
    const Sampler s{data, bits, channels,
                    static_cast<size_t>(width) * static_cast<size_t>(height) * channels,
                    channel_offsets(channels)};
    Scratch<size_t> kept(kMaxPositions);
    Scratch<int> level(static_cast<size_t>(n)), order(static_cast<size_t>(n));
    if (!kept || !level || !order) return BV_HDR_ENOMEM;

    // The last kept position is left out of every sum below.
    const int K = sample_positions(s, n, width, height, kept.get()) - 1;
    if (K <= 0) return BV_HDR_ENOPOS;
    for (int k = 0; k < n; ++k) level[k] = mean_level(s, k, kept.get(), K);
    const int norder = brightest_first(n, level.get(), order.get());

    double wsum = 0.0, gsum = 0.0;
    uint32_t rejections = 0;
    for (int p = 0; p + 1 < norder; ++p) {
        const int a = order[p], b = order[p + 1];
        if (exposures[b] == 0.0f) continue;
        float g;
        if (!pair_gamma(s, a, b, kept.get(), K, exposures, &g, &rejections)) continue;
        const int w = pair_weight(level[a], level[b]);
        wsum += w;
        gsum += static_cast<double>(w) * g;
    }
    const float gamma = wsum > 0.0 ? static_cast<float>(gsum / wsum) : kDefaultGamma;
    result[0] = static_cast<float>(std::exp(gamma * std::log(200.0)));
    result[1] = 1.0f;
    result[2] = static_cast<float>(rejections);
    return static_cast<int>(gamma * 1000.0);
}

}  // namespace bv::hdrgen

using namespace bv::hdrgen;

extern "C" {

BV_API int trc_from_profile(const unsigned char *profile, int expectedSize, float *gamma) {
    // Without four readable bytes the size field cannot match: same answer as a mismatch.
    if (!profile || !gamma || expectedSize < 4) return -1;
    return profile_gamma(profile, expectedSize, gamma);
}

BV_API int gen_courbe(int gammaThousandths, float scale, float table[256]) {
    if (!table) return BV_HDR_EINVAL;
    const double g = gammaThousandths * 0.001;
    for (int i = 1; i < 256; ++i) table[i] = static_cast<float>(scale * std::pow(i, g));
    table[0] = table[1];
    return 256;
}

BV_API int calc_courbe(int n, int width, int height, int channels, int bitsPerSample,
                       const void *data, const float *exposures, float result[3]) {
    return bv::c_boundary(BV_HDR_ENOMEM, BV_HDR_EINVAL, [&]() -> int {
        if (n < 1 || width < 0 || height < 0 || channels < 1 || channels > 4 || !data ||
            !exposures || !result)
            return BV_HDR_EINVAL;
        if (bitsPerSample != 8 && bitsPerSample != 16) return BV_HDR_EDEPTH;
        return response_gamma(n, width, height, channels, bitsPerSample, data, exposures, result);
    });
}

}  // extern "C"
