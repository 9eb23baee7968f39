// The fusion driver: weights, weight pyramids, blending, collapse, temporary files, the C entries.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "FusionLib/fusion.hpp"
#include "FusionLib/local/fusion_local.hpp"
#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/diag.hpp"

namespace bv::fusion {

namespace {

using threading::Band;
using threading::OnSpawnFailure;
using threading::run_bands;

// Quick upper bound of a pyramid's pixel count, as the callers size buffers.
size_t pyramid_bound(size_t pixels) {
    return static_cast<size_t>(static_cast<double>(static_cast<float>(pixels)) * 1.5 + 0.5);
}

size_t sample_bytes(int bits) { return bits == 8 ? 1 : (bits == 16 ? 2 : 4); }

bool aligned(const void *p, size_t a) { return reinterpret_cast<uintptr_t>(p) % a == 0; }

// The three temporary files of the file mode, closed on every path.
struct TempFiles {
    FILE *source = nullptr, *weights = nullptr, *pyramid = nullptr;
    TempFiles() = default;
    TempFiles(const TempFiles &) = delete;
    TempFiles &operator=(const TempFiles &) = delete;
    ~TempFiles() { close(); }
    bool open(const Args &a) {
        source = std::fopen(a.sourcePath, "wb+");
        weights = std::fopen(a.weightPath, "wb+");
        pyramid = std::fopen(a.pyramidPath, "wb+");
        if (source && weights && pyramid) return true;
        close();
        return false;
    }
    void close() {
        for (FILE **f : {&source, &weights, &pyramid})
            if (*f) {
                std::fclose(*f);
                *f = nullptr;
            }
    }
};

// Seeks to `at` bytes; a seek that fails while flushing earlier writes is
// a failed write (-2), any other a failed seek (-3).
int seek(FILE *f, uint64_t at) {
    if (fseeko(f, static_cast<off_t>(at), SEEK_SET) == 0) return 0;
    return std::ferror(f) ? -2 : -3;
}

// Writes or reads `count` items of `size` bytes at `at`.
int put(FILE *f, uint64_t at, const void *p, size_t size, size_t count) {
    if (int rc = seek(f, at)) return rc;
    return std::fwrite(p, size, count, f) == count ? 0 : -2;
}
int get(FILE *f, uint64_t at, void *p, size_t size, size_t count, const char *what) {
    if (int rc = seek(f, at)) return rc;
    const size_t got = std::fread(p, size, count, f);
    if (got == count) return 0;
    diag(Stream::Err, "could not read %s - returned %d instead of %d\n", what,
         static_cast<int>(got), static_cast<int>(count));
    return -3;
}

// State of one fusion run.
struct Run {
    const Args &a;
    int w, h, ch, threads;
    size_t P, L;
    Levels lv;
    int D;  // detail levels
    int wbits, wbytes;
    bool acc16;
    uint16_t *g = nullptr;  // the current bracket's 15-bit pyramid
    void *acc = nullptr;    // the blended pyramid
    void *wbuf = nullptr;   // weight maps (memory) or two level buffers (files)
    size_t wlevel1 = 0;     // files: offset of the second level buffer
    TempFiles *files = nullptr;
    size_t tmpStride = 0;    // per band: an expanded row and two coarse rows
    float *wrows = nullptr;  // per band: a row of weights, one per sample
};

template <class W>
inline float weight_of(W v, int bits) {
    return static_cast<float>(v) * (bits == 8 ? 1.0f / 256.0f : 1.0f / 65536.0f);
}
template <>
inline float weight_of<float>(float v, int) {
    return v;
}

// One detail level of one bracket: d = G_k - expand(G_k+1), acc_k += d * w.
template <class W, class A>
void blend_detail(const Run &r, int k, const W *wk, int32_t *tmp) {
    const int fw = r.lv.w[k], fh = r.lv.h[k];
    const uint16_t *gk = r.g + r.lv.off[k] * r.ch, *gc = r.g + r.lv.off[k + 1] * r.ch;
    A *ak = static_cast<A *>(r.acc) + r.lv.off[k] * r.ch;
    const size_t row = static_cast<size_t>(fw) * r.ch;
    run_bands(
        0, fh, r.threads,
        [&](const Band &b) {
            int32_t *e = tmp + static_cast<size_t>(b.index) * r.tmpStride;
            float *ws = r.wrows + static_cast<size_t>(b.index) * r.w * r.ch;
            for (int y = b.first; y < b.end; ++y) {
                expand_row(gc, r.lv.w[k + 1], r.lv.h[k + 1], r.ch, fw, y, r.a.wrap != 0, e,
                           e + row);
                // One weight per pixel, spread over its samples, so that the
                // blend below is one flat loop.
                const W *wr = wk + static_cast<size_t>(y) * fw;
                for (int x = 0; x < fw; ++x) {
                    const float wv = weight_of(wr[x], r.wbits);
                    for (int c = 0; c < r.ch; ++c) ws[static_cast<size_t>(x) * r.ch + c] = wv;
                }
                const uint16_t *g = gk + static_cast<size_t>(y) * row;
                A *a = ak + static_cast<size_t>(y) * row;
                for (size_t s = 0; s < row; ++s) {
                    const int d = g[s] - e[s];
                    if constexpr (std::is_same<A, float>::value) {
                        a[s] += static_cast<float>(d) * ws[s];
                    } else {
                        const int v = a[s] + static_cast<int>(static_cast<float>(d) * ws[s]);
                        a[s] = static_cast<A>(v < 0 ? 0 : (v > 65535 ? 65535 : v));
                    }
                }
            }
        },
        OnSpawnFailure::RunInline);
}

// The low pass: acc_D += G_D * w_D (16-bit addition, or float).
template <class W, class A>
void blend_low(const Run &r, const W *wd) {
    const int k = r.lv.count - 1;
    const uint16_t *gk = r.g + r.lv.off[k] * r.ch;
    A *ak = static_cast<A *>(r.acc) + r.lv.off[k] * r.ch;
    const size_t pix = static_cast<size_t>(r.lv.w[k]) * r.lv.h[k];
    for (size_t p = 0; p < pix; ++p) {
        const float wv = weight_of(wd[p], r.wbits);
        for (int c = 0; c < r.ch; ++c) {
            const size_t s = p * r.ch + c;
            if constexpr (std::is_same<A, float>::value) {
                ak[s] += gk[s] * wv;
            } else {
                int v = static_cast<int>(gk[s] * wv);
                v = v < 0 ? 0 : (v > 65535 ? 65535 : v);
                ak[s] = static_cast<A>(static_cast<uint16_t>(ak[s] + v));
            }
        }
    }
}

template <class W>
void blend_level(const Run &r, int k, const void *wk, int32_t *tmp) {
    const W *w = static_cast<const W *>(wk);
    if (k == r.lv.count - 1) {
        if (r.acc16)
            blend_low<W, uint16_t>(r, w);
        else
            blend_low<W, float>(r, w);
    } else if (r.acc16) {
        blend_detail<W, uint16_t>(r, k, w, tmp);
    } else {
        blend_detail<W, float>(r, k, w, tmp);
    }
}

void blend(const Run &r, int k, const void *wk, int32_t *tmp) {
    if (r.wbits == 8)
        blend_level<uint8_t>(r, k, wk, tmp);
    else if (r.wbits == 16)
        blend_level<uint16_t>(r, k, wk, tmp);
    else
        blend_level<float>(r, k, wk, tmp);
}

void reduce_weights(const Run &r, const void *in, void *out, int k) {
    const int w = r.lv.w[k], h = r.lv.h[k];
    if (r.wbits == 8)
        reduce(static_cast<const uint8_t *>(in), static_cast<uint8_t *>(out), w, h, 1, r.a.wrap,
               r.threads);
    else if (r.wbits == 16)
        reduce(static_cast<const uint16_t *>(in), static_cast<uint16_t *>(out), w, h, 1, r.a.wrap,
               r.threads);
    else
        reduce(static_cast<const float *>(in), static_cast<float *>(out), w, h, 1, r.a.wrap,
               r.threads);
}

// Level 0 of bracket i in 15 bits, then its Gaussian pyramid.
template <class T>
void to_15_bits(const Run &r, const T *img) {
    const size_t row = static_cast<size_t>(r.w) * r.ch;
    run_bands(
        0, r.h, r.threads,
        [&](const Band &b) {
            for (size_t s = b.first * row; s < b.end * row; ++s) {
                if (sizeof(T) == 1)
                    r.g[s] = static_cast<uint16_t>(code16(img[s]) << 7);
                else
                    r.g[s] = static_cast<uint16_t>(code16(img[s]) >> 1);
            }
        },
        OnSpawnFailure::RunInline);
}

void image_pyramid(const Run &r, int i) {
    const size_t at = static_cast<size_t>(i) * r.P * r.ch;
    const int bits = r.a.dim.bitsIn;
    if (bits == 8)
        to_15_bits(r, static_cast<const uint8_t *>(r.a.images) + at);
    else if (bits == 16)
        to_15_bits(r, static_cast<const uint16_t *>(r.a.images) + at);
    else
        to_15_bits(r, static_cast<const float *>(r.a.images) + at);
    for (int k = 0; k < r.D; ++k)
        reduce(r.g + r.lv.off[k] * r.ch, r.g + r.lv.off[k + 1] * r.ch, r.lv.w[k], r.lv.h[k], r.ch,
               r.a.wrap, r.threads);
}

// Weight pyramid and blend of bracket i with its maps in memory: the
// pyramid grows in place over the maps of brackets already blended.
int blend_from_memory(const Run &r, int i, int32_t *tmp) {
    unsigned char *base =
        static_cast<unsigned char *>(r.wbuf) + static_cast<size_t>(i) * r.P * r.wbytes;
    for (int k = 0; k < r.D; ++k)
        reduce_weights(r, base + r.lv.off[k] * r.wbytes, base + r.lv.off[k + 1] * r.wbytes, k);
    image_pyramid(r, i);
    for (int k = 0; k < r.lv.count; ++k) blend(r, k, base + r.lv.off[k] * r.wbytes, tmp);
    return 0;
}

// The same through the weight-map and weight-pyramid files: one map and one
// coarser level in memory at a time.
int blend_from_files(const Run &r, int i, int32_t *tmp) {
    unsigned char *A = static_cast<unsigned char *>(r.wbuf);
    unsigned char *B = A + r.wlevel1 * r.wbytes;
    FILE *fw = r.files->weights, *fp = r.files->pyramid;
    int rc = get(fw, static_cast<uint64_t>(i) * r.P * r.wbytes, A, r.wbytes, r.P, "fpPoids");
    if (rc) return rc;
    if ((rc = put(fp, 0, A, r.wbytes, r.P))) return rc;
    for (int k = 0; k < r.D; ++k) {
        const size_t n = static_cast<size_t>(r.lv.w[k]) * r.lv.h[k];
        if (k > 0 && (rc = get(fp, r.lv.off[k] * r.wbytes, A, r.wbytes, n, "fpPyramPoids")))
            return rc;
        reduce_weights(r, A, B, k);
        if ((rc = put(fp, r.lv.off[k + 1] * r.wbytes, B, r.wbytes,
                      static_cast<size_t>(r.lv.w[k + 1]) * r.lv.h[k + 1])))
            return rc;
    }
    if (std::fflush(fp) != 0) return -2;
    image_pyramid(r, i);
    for (int k = 0; k < r.lv.count; ++k) {
        const size_t n = static_cast<size_t>(r.lv.w[k]) * r.lv.h[k];
        const bool low = k == r.lv.count - 1;
        if ((rc = get(fp, r.lv.off[k] * r.wbytes, A, r.wbytes, n,
                      low ? "fpPyramPoids low pass" : "fpPyramPoids fusion22")))
            return rc;
        blend(r, k, A, tmp);
    }
    return 0;
}

// Writes level 0 of the collapse: 8-bit rec >> 7, 16-bit rec * 2, float
// rec / 32767; rows `stride` samples apart, first and last channel
// exchanged when asked.
void write_row(const Run &r, const int32_t *rec, int y, size_t stride, bool swap) {
    const int bits = r.a.dim.bitsOut == 16 || r.a.dim.bitsOut == 32 ? r.a.dim.bitsOut : 8;
    const size_t at = static_cast<size_t>(y) * stride;
    for (int x = 0; x < r.w; ++x) {
        for (int c = 0; c < r.ch; ++c) {
            const int oc = swap ? (c == 0 ? r.ch - 1 : (c == r.ch - 1 ? 0 : c)) : c;
            const size_t o = at + static_cast<size_t>(x) * r.ch + oc;
            const int32_t v = rec[static_cast<size_t>(x) * r.ch + c];
            if (bits == 8)
                static_cast<uint8_t *>(r.a.output)[o] = static_cast<uint8_t>(v >> 7);
            else if (bits == 16)
                static_cast<uint16_t *>(r.a.output)[o] = static_cast<uint16_t>(v * 2);
            else
                static_cast<float *>(r.a.output)[o] = static_cast<float>(v) / 32767.0f;
        }
    }
}

// One level step of the collapse: rec_k = clamp(expand(rec_k+1) + boosted
// detail, 0, 32767), in place, or into the output for level 0.
int collapse_level(const Run &r, int k, const int32_t *table, int32_t *tmp, size_t stride,
                   bool swap) {
    if (!r.acc16) return kCollapseWidth;
    uint16_t *acc = static_cast<uint16_t *>(r.acc);
    uint16_t *ak = acc + r.lv.off[k] * r.ch;
    const uint16_t *coarse = acc + r.lv.off[k + 1] * r.ch;
    const int fw = r.lv.w[k];
    const size_t row = static_cast<size_t>(fw) * r.ch;
    run_bands(
        0, r.lv.h[k], r.threads,
        [&](const Band &b) {
            int32_t *e = tmp + static_cast<size_t>(b.index) * r.tmpStride;
            for (int y = b.first; y < b.end; ++y) {
                expand_row(coarse, r.lv.w[k + 1], r.lv.h[k + 1], r.ch, fw, y, r.a.wrap != 0, e,
                           e + row);
                uint16_t *a = ak + static_cast<size_t>(y) * row;
                for (size_t s = 0; s < row; ++s) {
                    const int v = e[s] + table[a[s]];
                    e[s] = v < 0 ? 0 : (v > 32767 ? 32767 : v);
                    if (k > 0) a[s] = static_cast<uint16_t>(e[s]);
                }
                if (k == 0) write_row(r, e, y, stride, swap);
            }
        },
        OnSpawnFailure::RunInline);
    return 0;
}

int collapse(const Run &r, int32_t *tmp, size_t stride, bool swap) {
    if (r.D <= 0 && r.acc16) {
        // No detail levels: the weighted low pass is the picture.
        const uint16_t *lp = static_cast<const uint16_t *>(r.acc);
        const size_t row = static_cast<size_t>(r.w) * r.ch;
        for (int y = 0; y < r.h; ++y) {
            for (size_t s = 0; s < row; ++s) {
                const int v = lp[static_cast<size_t>(y) * row + s];
                tmp[s] = v > 32767 ? 32767 : v;
            }
            write_row(r, tmp, y, stride, swap);
        }
        return 0;
    }
    Scratch<int32_t> table(65536);
    if (!table) return -4;
    const float s = r.a.params->slot[8];
    const int moire = static_cast<int>(r.a.params->slot[13] + 0.5f);
    // A level step refuses a 32-bit accumulator (the output then stays as it
    // was); its status is not a failure of the fusion.
    for (int k = r.D - 1; k >= 0; --k) {
        detail_table(level_strength(s, k, r.D), moire, k, r.D, table.get());
        (void)collapse_level(r, k, table.get(), tmp, stride, swap);
    }
    return 0;
}

// Weight stage through the files: the stack goes to the source file, is
// read back a strip at a time, and the maps go to the weight-map file.
int weights_through_files(const Run &r, WeightJob job, int threads) {
    const int strip = 32;
    const size_t sb = sample_bytes(r.a.dim.bitsIn);
    const size_t row = static_cast<size_t>(r.w) * r.ch;
    Scratch<unsigned char> in(static_cast<size_t>(r.a.n) * strip * row * sb);
    Scratch<unsigned char> out(static_cast<size_t>(r.a.n) * strip * r.w * r.wbytes);
    Scratch<const void *> rows(static_cast<size_t>(r.a.n));
    if (!in || !out || !rows) return -4;
    FILE *fs = r.files->source, *fw = r.files->weights;
    for (int y0 = 0; y0 < r.h; y0 += strip) {
        const int n_rows = r.h - y0 < strip ? r.h - y0 : strip;
        const size_t want = static_cast<size_t>(n_rows) * row;
        for (int i = 0; i < r.a.n; ++i) {
            unsigned char *dst = in.get() + static_cast<size_t>(i) * strip * row * sb;
            const uint64_t at = (static_cast<uint64_t>(i) * r.P * r.ch + y0 * row) * sb;
            if (int rc = seek(fs, at)) return rc;
            const size_t got = std::fread(dst, sb, want, fs);
            if (got != want) {
                diag(Stream::Err, "could not read fpSource - returned %d instead of %d  at  %d\n",
                     static_cast<int>(got), static_cast<int>(want), y0);
                return -3;
            }
            rows[i] = dst;
        }
        job.rows = rows.get();
        job.pixelBase = static_cast<size_t>(y0) * r.w;
        job.planes = out.get();
        job.planeStride = static_cast<size_t>(n_rows) * r.w;
        if (adj1b_threaded(job, n_rows, threads) < 0) return -4;
        for (int i = 0; i < r.a.n; ++i) {
            const uint64_t at =
                (static_cast<uint64_t>(i) * r.P + static_cast<uint64_t>(y0) * r.w) * r.wbytes;
            const int rc =
                put(fw, at, out.get() + static_cast<size_t>(i) * job.planeStride * r.wbytes,
                    r.wbytes, job.planeStride);
            if (rc) return rc;
        }
    }
    return std::fflush(fw) == 0 ? 0 : -2;
}

// Steps 3 to 6: weights, weight pyramids, blending and the collapse.
int pyramid_fusion(const Args &a, int threads, bool twoPass, int *adjustThreads) {
    const DimParam &dim = a.dim;
    Run r{a, dim.width, dim.height, dim.channels, threads, 0, 0, {}, 0, 0, 0, true};
    r.P = static_cast<size_t>(r.w) * r.h;
    r.D = pyramid_depth(r.w, r.h, dim.bitsOut);
    r.lv = level_layout(r.w, r.h, r.D);
    r.D = r.lv.count - 1;
    r.L = pyramid_bound(r.P);
    if (r.lv.off[r.lv.count] > r.L) r.L = r.lv.off[r.lv.count];
    r.wbits = a.weightBits;
    r.wbytes = a.weightBits / 8;
    const bool floatIn = dim.bitsIn == 32;
    r.acc16 = floatIn || a.accBits == 16;
    const int n = a.n;
    const float *slot = a.params->slot;

    // Statistics, exposure curves, rank factors and the Boost table.
    const int levels = dim.bitsIn == 8 ? 256 : 65536;
    Scratch<uint32_t> st(4 * static_cast<size_t>(n));
    Scratch<int32_t> order(static_cast<size_t>(n));
    Scratch<float> luts(static_cast<size_t>(n) * levels), boost(65536),
        factors(static_cast<size_t>(n));
    if (!st || !order || !luts || !boost || !factors) return -4;
    uint32_t *dark = st.get(), *bright = dark + n, *sat = bright + n, *key = sat + n;
    if (stats_order_photos(n, r.w, r.h, r.ch, dim.bitsIn, a.images, dark, bright, sat, key,
                           order.get()) < 0)
        return -4;
    for (int i = 0; i < n; ++i)
        exposure_lut(slot[2], static_cast<double>(sat[i]) / static_cast<double>(r.P), levels,
                     luts.get() + static_cast<size_t>(i) * levels);
    boost_lut(slot[0], dim.bitsOut == 32, boost.get());
    image_factors(n, order.get(), slot[1], factors.get());

    WeightJob job;
    job.n = n;
    job.width = r.w;
    job.channels = r.ch;
    job.bits = dim.bitsIn;
    job.luts = luts.get();
    job.levels = levels;
    job.boost = boost.get();
    job.factors = factors.get();
    job.ghostSlots = a.ghostSlots;
    job.ghostMask = a.ghostMask;
    job.maskPlane = r.P;
    job.weightBits = r.wbits;

    // File mode only when asked, fully described and worth it.
    TempFiles files;
    const bool wantFiles = (a.options >> 32) != 0 && a.sourcePath && a.weightPath &&
                           a.pyramidPath && !(n < 3 && dim.bitsIn < 16);
    bool useFiles = wantFiles && files.open(a);
    int weightThreads = *adjustThreads;
    if (useFiles) {
        const size_t sb = sample_bytes(dim.bitsIn);
        const size_t count = static_cast<size_t>(n) * r.P * r.ch;
        if (std::fwrite(a.images, sb, count, files.source) != count ||
            std::fflush(files.source) != 0) {
            // The stack does not fit on disk: weigh it in memory, inline.
            files.close();
            useFiles = false;
            weightThreads = 1;
        }
    }

    // Scratch placement: the 15-bit pyramid of the current bracket lives in
    // the output; the accumulator and then the weight buffer go into the
    // caller's scratch behind it when they fit.
    const size_t accSize = r.acc16 ? 2 : 4;
    const size_t accBytes = static_cast<size_t>(r.ch) * r.L * accSize;
    const size_t level1 = r.D > 0 ? static_cast<size_t>(r.lv.w[1]) * r.lv.h[1] : 0;
    const size_t wvalues = useFiles ? r.P + level1 : static_cast<size_t>(n - 1) * r.P + r.L;
    const size_t wBytes = wvalues * r.wbytes;
    // The caller's scratch follows the 2 x channels x L bytes of output, or
    // the picture itself when that is larger (float output, long rows).
    const size_t outBytes =
        static_cast<size_t>(r.h) *
        (dim.rowOut > 0 ? static_cast<size_t>(dim.rowOut) : static_cast<size_t>(r.w) * r.ch) *
        sample_bytes(dim.bitsOut == 16 || dim.bitsOut == 32 ? dim.bitsOut : 8);
    unsigned char *spare = static_cast<unsigned char *>(a.output) +
                           std::max(2 * static_cast<size_t>(r.ch) * r.L, outBytes);
    Scratch<unsigned char> accOwn, wOwn, gOwn;
    uint64_t budget = a.scratchBytes;
    if (budget >= accBytes && aligned(spare, accSize)) {
        r.acc = spare;
        budget -= accBytes;
        if (budget >= wBytes && aligned(spare + accBytes, r.wbytes)) r.wbuf = spare + accBytes;
    }
    if (!r.acc) {
        if (!accOwn.alloc(accBytes)) return -4;
        r.acc = accOwn.get();
    }
    if (!r.wbuf) {
        if (!wOwn.alloc(wBytes)) return -4;
        r.wbuf = wOwn.get();
    }
    r.wlevel1 = r.P;
    // A 32-bit accumulator leaves the output untouched, so its bracket
    // pyramid takes memory of its own.
    if (r.acc16) {
        r.g = static_cast<uint16_t *>(a.output);
    } else {
        if (!gOwn.alloc(static_cast<size_t>(r.ch) * r.L * 2)) return -4;
        r.g = reinterpret_cast<uint16_t *>(gOwn.get());
    }
    if (r.acc16) {
        uint16_t *acc = static_cast<uint16_t *>(r.acc);
        std::fill(acc, acc + r.lv.off[r.D] * r.ch, static_cast<uint16_t>(32767));
        std::fill(acc + r.lv.off[r.D] * r.ch, acc + r.lv.off[r.lv.count] * r.ch, uint16_t(0));
    } else {
        float *acc = static_cast<float *>(r.acc);
        std::fill(acc, acc + r.lv.off[r.lv.count] * r.ch, 0.0f);
    }

    // Weights.
    int rc = 0;
    if (useFiles) {
        r.files = &files;
        rc = weights_through_files(r, job, weightThreads);
        if (rc) return rc;
        weightThreads = 0;
    } else {
        Scratch<const void *> rows(static_cast<size_t>(n));
        if (!rows) return -4;
        const size_t sb = sample_bytes(dim.bitsIn);
        for (int i = 0; i < n; ++i)
            rows[i] = static_cast<const unsigned char *>(a.images) +
                      static_cast<size_t>(i) * r.P * r.ch * sb;
        job.rows = rows.get();
        job.planes = r.wbuf;
        job.planeStride = r.P;
        if (adj1b_threaded(job, r.h, weightThreads) < 0) return -4;
    }
    *adjustThreads = weightThreads;

    // Blend every bracket, last to first.
    const bool acc32 = a.accBits == 32;
    const float start = twoPass ? (acc32 ? 0.04f : 0.12f) : (acc32 ? 0.1f : 0.3f);
    const float end = twoPass ? 0.4f : 1.0f, span = twoPass ? 0.08f : 0.2f;
    const int bands = threads < 1 ? 1 : threads;
    r.tmpStride = (2 * static_cast<size_t>(r.w) + 2) * r.ch;
    Scratch<int32_t> tmp(static_cast<size_t>(bands) * r.tmpStride);
    Scratch<float> wrows(static_cast<size_t>(bands) * r.w * r.ch);
    if (!tmp || !wrows) return -4;
    r.wrows = wrows.get();
    for (int step = 0; step < n; ++step) {
        const int i = n - 1 - step;
        rc = useFiles ? blend_from_files(r, i, tmp.get()) : blend_from_memory(r, i, tmp.get());
        if (rc) return rc;
        const float f = static_cast<float>(step) * (end - (start + span)) / n + start;
        if (!::progress(a.progress, f)) return -5;
    }

    // Collapse into the output.
    const size_t stride = twoPass || dim.rowOut <= 0 ? static_cast<size_t>(r.w) * r.ch
                                                     : static_cast<size_t>(dim.rowOut);
    return collapse(r, tmp.get(), stride, !twoPass && dim.bgr != 0 && r.ch > 1);
}

// After the two-pass refinement: the host's row length and channel order.
void relayout(const Args &a) {
    const DimParam &d = a.dim;
    const size_t sb = sample_bytes(d.bitsOut == 16 || d.bitsOut == 32 ? d.bitsOut : 8);
    const size_t row = static_cast<size_t>(d.width) * d.channels;
    const size_t stride = d.rowOut > 0 ? static_cast<size_t>(d.rowOut) : row;
    unsigned char *o = static_cast<unsigned char *>(a.output);
    if (stride != row)
        for (int y = d.height - 1; y > 0; --y)
            std::memmove(o + y * stride * sb, o + y * row * sb, row * sb);
    if (!d.bgr || d.channels < 2) return;
    for (int y = 0; y < d.height; ++y)
        for (int x = 0; x < d.width; ++x) {
            unsigned char *p = o + (y * stride + static_cast<size_t>(x) * d.channels) * sb;
            unsigned char t[4];
            std::memcpy(t, p, sb);
            std::memmove(p, p + (d.channels - 1) * sb, sb);
            std::memcpy(p + (d.channels - 1) * sb, t, sb);
        }
}

void copy_result(const Args &a) {
    const DimParam &d = a.dim;
    const size_t sb = sample_bytes(d.bitsOut == 16 || d.bitsOut == 32 ? d.bitsOut : 8);
    const size_t row = static_cast<size_t>(d.width) * d.channels * sb;
    const size_t stride = d.rowOut > 0 ? static_cast<size_t>(d.rowOut) * sb : row;
    for (int y = 0; y < d.height; ++y)
        std::memcpy(static_cast<unsigned char *>(a.resultCopy) + y * row,
                    static_cast<const unsigned char *>(a.output) + y * stride, row);
}

}  // namespace

int fuse(const Args &a) {
    TmParam *p = a.params;
    const bool twoPass = p->slot[9] == 1.0f;
    const bool skip = p->slot[19] == 1.0f;
    int threads = static_cast<int>(static_cast<uint32_t>(a.options & 0xffffffffu));
    if (threads < 1) threads = 1;
    if (threads > 256) threads = 256;
    int adjustThreads = threads;
    bool saved = false;
    float slot1 = 0.0f;
    if (!skip) {
        if (twoPass) {
            saved = true;
            slot1 = p->slot[1];
            p->slot[1] = p->slot[2] > 0.0f ? static_cast<float>(p->slot[2] * 0.4)
                                           : static_cast<float>(p->slot[2] * 0.8);
            p->slot[2] = 0.0f;
            p->slot[0] = 0.0f;
            p->slot[10] = 5.625f;
            p->slot[18] = 1.0f;
            InterpolationInterval = 85;
        }
        const int rc = pyramid_fusion(a, threads, twoPass, &adjustThreads);
        if (rc < 0) {
            if (saved) p->slot[1] = slot1;
            return rc;
        }
    }
    int code = 10;
    if (twoPass) {
        DimParam ld;
        init_dim_param(&ld);
        ld.width = a.dim.width;
        ld.height = a.dim.height;
        ld.channels = a.dim.channels;
        ld.bitsIn = a.dim.bitsIn;
        ld.bitsOut = a.dim.bitsOut;
        ld.rowOut = a.dim.width * a.dim.channels;
        const int rc = bv_fusion_local(2, a.progress, p, a.wrap, a.output, a.fwd9, a.fwd11, a.fwd14,
                                       a.fwd15, a.fwd16, ld);
        if (saved) p->slot[1] = slot1;
        p->slot[2] = 0.0f;
        if (rc < 0) return rc;
        relayout(a);
        code = 15;
    }
    if (a.colour) {
        const int rc = bv_adjust_colors(adjustThreads, nullptr, code, p, a.colour, a.output, a.dim);
        if (rc < 0) return rc;
    }
    if (a.resultCopy) copy_result(a);
    return 1;
}

}  // namespace bv::fusion

namespace {

int check_args(const bv::fusion::Args &a) {
    const DimParam &d = a.dim;
    if (!a.params || !a.output || a.n < 1 || d.width < 1 || d.height < 1 || d.channels < 1 ||
        d.channels > 4 || (d.rowOut > 0 && d.rowOut < d.width * d.channels))
        return BV_FU_EBADARG;
    if (a.params->slot[19] != 1.0f && !a.images) return BV_FU_EBADARG;
    if (d.bitsIn != 8 && d.bitsIn != 16 && d.bitsIn != 32) return BV_FU_EDEPTH;
    if (a.weightBits != 8 && a.weightBits != 16 && a.weightBits != 32) return BV_FU_EDEPTH;
    if (a.accBits != 16 && a.accBits != 32) return BV_FU_EDEPTH;
    if (d.bitsIn == 32 && (a.accBits != 32 || d.bitsOut != 32)) return BV_FU_EDEPTH;
    return 0;
}

}  // namespace

extern "C" {

BV_API int bv_fusion(bv_progress_cb progressContext, TmParam *params, const TmParam *colour, int n,
                     int weightBits, int accBits, float reserved, uint64_t options, int64_t local1,
                     const char *sourcePath, int64_t local2, const char *weightPath,
                     const char *pyramidPath, int64_t local3, int64_t local4, int64_t local5,
                     DimParam dim, int wrap, void *extra, const void *exposures,
                     const int32_t *ghostSlots, const uint8_t *ghostMask, uint64_t scratchBytes,
                     void *output) {
    return bv::fusion::bv_fusion5(progressContext, params, colour, n, weightBits, accBits, reserved,
                                  options, local1, sourcePath, local2, weightPath, pyramidPath,
                                  local3, local4, local5, dim, wrap, extra, nullptr, exposures,
                                  ghostSlots, ghostMask, scratchBytes, output);
}

BV_API int mem4fusion(int mode, int n, int weightBits, int accBits, uint64_t *need, int ignored,
                      uint64_t size, int channels) {
    (void)ignored;
    if (mode != 1 && mode != 2) return -1;
    if (!need) return -1;
    const uint64_t w = size & 0xffffffffu, h = size >> 32;
    const uint64_t P = w * h, L = bv::fusion::pyramid_bound(P);
    const uint64_t ch = channels > 0 ? static_cast<uint64_t>(channels) : 0;
    const uint64_t wb = static_cast<uint64_t>(weightBits > 0 ? weightBits : 0) / 8;
    const uint64_t ab = static_cast<uint64_t>(accBits > 0 ? accBits : 0) / 8;
    const uint64_t m1 = ((n > 0 ? n - 1 : 0) * P + L) * wb + ab * ch * L;
    uint64_t m = m1;
    if (mode == 2) {
        const uint64_t m2 = ab * ch * L + 4 * L + 2 * (ch * P + 4 * ch * L);
        if (m2 > m) m = m2;
    }
    *need = m;
    return 1;
}

}  // extern "C"

namespace bv::fusion {

int bv_fusion5(bv_progress_cb progressContext, TmParam *params, const TmParam *colour, int n,
               int weightBits, int accBits, float reserved, uint64_t options, int64_t local1,
               const char *sourcePath, int64_t local2, const char *weightPath,
               const char *pyramidPath, int64_t local3, int64_t local4, int64_t local5,
               DimParam dim, int wrap, void *extra, void *resultCopy, const void *exposures,
               const int32_t *ghostSlots, const uint8_t *ghostMask, uint64_t scratchBytes,
               void *output) {
    (void)reserved;
    Args a{progressContext, params,     colour,      n,         weightBits,   accBits,
           options,         local1,     local2,      local3,    local4,       local5,
           sourcePath,      weightPath, pyramidPath, dim,       wrap,         extra,
           resultCopy,      exposures,  ghostSlots,  ghostMask, scratchBytes, output};
    const int bad = check_args(a);
    if (bad) return bad;
    return c_boundary(BV_FU_ENOMEM, BV_FU_ENOMEM, [&] { return fuse(a); });
}

}  // namespace bv::fusion
