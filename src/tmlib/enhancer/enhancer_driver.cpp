// The tone enhancer's driver: validation, work-buffer layout, preview, stage order.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/diag.hpp"
#include "core/rgbe/rgbe_pixel.hpp"
#include "tmlib-core/solver/solver.hpp"
#include "tmlib/enhancer/enhancer.hpp"

namespace bv::enhancer {

namespace {

// Work-buffer figures of one image.
struct Sizes {
    size_t image;   // input image size: height x row samples x 4 bytes
    size_t planes;  // luminance plane + right-hand-side pyramid, bytes
    size_t total;   // what mem4enhancer reports
    int levels;     // solver levels + 1 (the driver passes one fewer)
};

size_t row_samples(int kind, const DimParam &d) {
    return kind > 0 ? static_cast<size_t>(kind)
                    : static_cast<size_t>(d.width) * static_cast<size_t>(d.channels);
}

// Levels from the smaller side: about one per halving down to 32 pixels.
int level_count(int w, int h) {
    const int m = w < h ? w : h;
    const int l = static_cast<int>(std::log2(static_cast<double>(m) / 32.0)) + 2;
    return l < 1 ? 1 : l;
}

// Levels actually solved: those of level_count, stopped where a side would
// fall below 10 pixels, minus one.
int solver_levels(int w, int h, int counted) {
    int n = 1;
    while (n < counted) {
        const int nw = (w + 1) / 2, nh = (h + 1) / 2;
        if (nw < 10 || nh < 10) break;
        w = nw;
        h = nh;
        ++n;
    }
    const int l = static_cast<int>(static_cast<float>(n)) - 1;
    return l < 1 ? 1 : l;
}

bool sizes_of(int kind, const TmParam &p, const DimParam &d, Sizes *s) {
    if (d.width < 1 || d.height < 1 || d.channels < 1) return false;
    const size_t n = static_cast<size_t>(d.width) * static_cast<size_t>(d.height);
    s->levels = level_count(d.width, d.height);
    const int solved = solver_levels(d.width, d.height, s->levels);
    const size_t floats = n + solver::pyramid_floats(d.width, d.height, solved);
    if (!checked_mul(static_cast<size_t>(d.height) * 4, row_samples(kind, d), &s->image))
        return false;
    s->planes = floats * sizeof(float);
    // The file-based stage works with the image placed first and the planes
    // after it; in memory the planes get at least the image's size in front.
    const bool file_stage = !(p.slot[16] > 0.0f);
    s->total = s->image + (file_stage || s->planes > s->image ? s->planes : s->image);
    return true;
}

bool radiance_extension(const char *path) {
    const char *dot = std::strrchr(path, '.');
    if (!dot || std::strlen(dot + 1) < 3) return false;
    return !std::strncmp(dot + 1, "hdr", 3) || !std::strncmp(dot + 1, "HDR", 3);
}

// Area mean of a float image onto pw x ph (whole source cells per output).
void reduce_float(const Image &src, int pw, int ph, float *dst) {
    for (int y = 0; y < ph; ++y) {
        const int y0 = static_cast<int>(static_cast<int64_t>(y) * src.height / ph);
        int y1 = static_cast<int>(static_cast<int64_t>(y + 1) * src.height / ph);
        if (y1 <= y0) y1 = y0 + 1;
        for (int x = 0; x < pw; ++x) {
            const int x0 = static_cast<int>(static_cast<int64_t>(x) * src.width / pw);
            int x1 = static_cast<int>(static_cast<int64_t>(x + 1) * src.width / pw);
            if (x1 <= x0) x1 = x0 + 1;
            double acc[3] = {0, 0, 0};
            for (int yy = y0; yy < y1; ++yy)
                for (int xx = x0; xx < x1; ++xx) {
                    float c[3];
                    src.rgb(xx, yy, c);
                    for (int k = 0; k < 3; ++k) acc[k] += c[k];
                }
            const double inv = 1.0 / (static_cast<double>(y1 - y0) * (x1 - x0));
            float *o = dst + (static_cast<size_t>(y) * pw + x) * 3;
            for (int k = 0; k < 3; ++k) o[k] = static_cast<float>(acc[k] * inv);
        }
    }
}

}  // namespace

void centre_levels(float *rhs, int w, int h, int levels) {
    const auto lv = solver::level_sizes(w, h, levels);
    for (const solver::Level &l : lv) {
        float *p = rhs + l.offset;
        double total = 0.0;
        for (int y = 0; y < l.height; ++y) {
            double row = 0.0;
            for (int x = 0; x < l.width; ++x) row += p[static_cast<size_t>(y) * l.width + x];
            total += row;
        }
        const size_t n = static_cast<size_t>(l.width) * l.height;
        const float mean = static_cast<float>(total / static_cast<double>(n));
        for (size_t i = 0; i < n; ++i) p[i] -= mean;
    }
}

namespace {

int run(int kind, TmParam *params, void *aux1, void *aux2, void *aux3, DimParam dim,
        optimParam optim, bv_progress_cb progressContext, const void *input, void *work) {
    // Validation, in the documented order.
    if (!input && !optim.sourceFile) {
        diag(Stream::Out, "Input buffer is null and optimParam.sourceFile null as well\n");
        return BV_EN_ENOINPUT;
    }
    if (!input && !radiance_extension(optim.sourceFile)) {
        diag(Stream::Out, "optimParam.sourceFile is not a Radiance (.hdr) file\n");
        return BV_EN_ENOTHDR;
    }
    if (!work) return BV_EN_ENOWORK;
    if (!params) return BV_EN_EBADARG;
    if (!input && (dim.width < 1 || dim.height < 1)) {
        RgbeDims d{};
        const int r = rgbe_dim(optim.sourceFile, nullptr, &d);
        if (r < 0) return r - 100;
        dim.width = d.width;
        dim.height = d.height;
    }
    if (dim.channels < 1) dim.channels = 3;
    const TmParam &p = *params;
    Sizes sz;
    if (!sizes_of(kind, p, dim, &sz)) return BV_EN_EBADARG;
    const int w = dim.width, h = dim.height;

    // Preview size (mode 1 and the query mode 9).
    int mode = optim.mode;
    const double measure = h >= w ? 0.75 * h : static_cast<double>(w);
    if (mode == 1 && input && measure <= 512.0) mode = 0;
    int pw = w, ph = h;
    if (mode == 1 || mode == 9) analysis_size(w, h, &pw, &ph);
    if (mode == 9) {
        int32_t *o = static_cast<int32_t *>(work);
        o[0] = pw;
        o[1] = ph;
        return solver_levels(pw, ph, level_count(pw, ph));
    }
    if (!aux1) return BV_EN_EBADARG;

    const bool placed = optim.useTempFiles != 0;
    if (!placed && sz.total < 2 * sz.image) {
        diag(Stream::Out, "work has %zu bytes allocated, which is less than twice the size of the "
                    "input image %zu\n",
                    sz.total, sz.image);
        return BV_EN_ESMALL;
    }
    uint8_t *wb = static_cast<uint8_t *>(work);
    const size_t plane_at = placed ? sz.image : 0;
    const size_t image_at = placed ? 0 : sz.total - sz.image;

    rgbe::Table own_table;
    Image img;
    img.width = w;
    img.height = h;
    img.channels = dim.channels;
    img.exp_table = aux3 ? static_cast<const float *>(aux3) : own_table.v;
    if (input) {
        img.data = input;
        img.rgbe = dim.sourceKind != 10;
        img.row = row_samples(kind, dim);
    } else {
        const int r = bv_io_read_rgbe(w, h, optim.sourceFile, wb + image_at);
        if (r < 0) return r - 100;
        img.data = wb + image_at;
        img.rgbe = true;
    }
    if (img.rgbe) img.row = static_cast<size_t>(4) * w;

    // The preview works on a reduced float copy placed in the plane area,
    // and the planes follow it.
    float *planes = reinterpret_cast<float *>(wb + plane_at);
    DimParam out_dim = dim;
    if (mode == 1 && (pw != w || ph != h)) {
        float *reduced = planes;
        if (img.rgbe) {
            const int r = bv_downsample(w, h, pw, ph, 3, 32, img.data, reduced, optim.threads);
            if (r < 0) return r == -4 ? BV_EN_ENOMEM : BV_EN_EBADARG;
        } else {
            reduce_float(img, pw, ph, reduced);
        }
        img.width = pw;
        img.height = ph;
        img.channels = 3;
        img.rgbe = false;
        img.row = static_cast<size_t>(3) * pw;
        img.data = reduced;
        planes = reduced + static_cast<size_t>(3) * pw * ph;
        out_dim.width = pw;
        out_dim.height = ph;
        out_dim.rowOut = 0;
    }
    const int W = img.width, H = img.height;
    const size_t n = static_cast<size_t>(W) * H;
    float *lum = planes;
    float *rhs = planes + n;

    // Row range of slot 19 = 1: the whole output is kept and put back
    // around the range after the colour stage.
    const float variant = p.slot[19];
    int first = 0, end = H;
    if (p.slot[56] > 0.0f && p.slot[56] < H - 1) first = static_cast<int>(p.slot[56]);
    if (p.slot[57] > 0.0f && p.slot[57] < H) end = static_cast<int>(p.slot[57]);
    const bool ranged = variant == 1.0f && (first > 0 || end < H);
    const size_t sample = out_dim.bitsOut == 16 ? 2 : 1;
    const size_t out_row = out_dim.rowOut > 0 ? static_cast<size_t>(out_dim.rowOut)
                                              : static_cast<size_t>(W) * out_dim.channels;
    const size_t out_bytes = (out_dim.layout == 3 ? 3 * n : out_row * H) * sample;
    Scratch<uint8_t> kept;
    if (ranged) {
        if (!kept.alloc(out_bytes)) return BV_EN_ENOMEM_RANGE;
        std::memcpy(kept.get(), aux1, out_bytes);
    }

    const Look look = look_from(p);
    Exposure ex;
    const int levels = solver_levels(W, H, level_count(W, H));
    int r = calc_tm1(img, look, optim.threads, lum, rhs, levels, &ex);
    if (r < 0) return r;
    if (aux2) *static_cast<LogLumStats *>(aux2) = ex.stats;
    threading::run_bands(
        0, H, optim.threads,
        [&](const threading::Band &b) {
            for (size_t i = static_cast<size_t>(b.first) * W; i < static_cast<size_t>(b.end) * W;
                 ++i)
                lum[i] = std::log(lum[i]);
        },
        threading::OnSpawnFailure::RunInline);

    const bool temp_file = p.slot[16] == 0.0f;
    if (temp_file) {
        File f(optim.tempPath1, "wb+");
        if (!f) {
            diag(Stream::Out, "can not open temporary file iofpTempPath1\n");
            return BV_EN_ETEMPOPEN;
        }
        if (std::fwrite(lum, sizeof(float), n, f.get()) != n) {
            diag(Stream::Out, "could not write to temporary file iofpTempPath1\n");
            return BV_EN_ETEMPWRITE;
        }
    }

    centre_levels(rhs, W, H, levels);
    optimParam o = optim;
    o.mode = mode;
    r = p.slot[16] > 0.0f ? solver::calc_tm2new2(levels, params, progressContext, rhs, W, H, o)
                          : solver::calc_tm2old(levels, params, progressContext, rhs, W, H, o);
    if (r < 0) return r;
    if (!progress(progressContext, 0.8f)) return BV_EN_ECANCEL;

    if (temp_file) {
        File f(optim.tempPath1, "rb");
        if (!f) return BV_EN_ETEMPREOPEN;
        if (std::fread(lum, sizeof(float), n, f.get()) != n) {
            diag(Stream::Out, "could not read from temporary file before calc_tm3\n");
            return BV_EN_ETEMPREAD;
        }
    }

    Scratch<float> second;
    if (variant == 2.0f) {
        if (!second.alloc(n)) return BV_EN_ENOMEM_PLANE;
        std::memcpy(second.get(), rhs, n * sizeof(float));
    }
    r = calc_tm3(img, look, ex, lum, rhs, optim.threads, aux1, out_dim, 0, H);
    if (r < 0) return r;
    if (variant == 2.0f) std::memcpy(rhs, second.get(), n * sizeof(float));
    if (ranged) {
        // Put back every row outside [first, end).
        uint8_t *o = static_cast<uint8_t *>(aux1);
        auto restore = [&](int y0, int y1) {
            if (y1 <= y0) return;
            if (out_dim.layout == 3) {
                for (int c = 0; c < 3; ++c) {
                    const size_t at = (c * n + static_cast<size_t>(y0) * W) * sample;
                    std::memcpy(o + at, kept.get() + at, static_cast<size_t>(y1 - y0) * W * sample);
                }
            } else {
                const size_t at = static_cast<size_t>(y0) * out_row * sample;
                std::memcpy(o + at, kept.get() + at, static_cast<size_t>(y1 - y0) * out_row * sample);
            }
        };
        restore(0, first);
        restore(end, H);
    }
    progress(progressContext, 1.0f);
    return r;
}

}  // namespace

int mem4(int kind, const TmParam *params, int64_t *levelSizes, int64_t *totalBytes,
         DimParam dim) noexcept {
    TmParam zero{};
    const TmParam &p = params ? *params : zero;
    Sizes s;
    if (dim.channels < 1) dim.channels = 3;
    if (!sizes_of(kind, p, dim, &s)) return BV_EN_EBADARG;
    if (totalBytes) *totalBytes = static_cast<int64_t>(s.total);
    if (levelSizes) {
        levelSizes[0] = static_cast<int64_t>(dim.width) * dim.height;
        levelSizes[1] = static_cast<int64_t>(
            solver::pyramid_floats(dim.width, dim.height, solver_levels(dim.width, dim.height, s.levels)));
    }
    return s.levels;
}

}  // namespace bv::enhancer

extern "C" {

BV_API int bv_tm_enhancer(int kind, TmParam *params, void *aux1, void *aux2, void *aux3,
                          void *aux4, DimParam dim, optimParam optim,
                          bv_progress_cb progressContext, const void *input, void *work) {
    (void)aux4;
    return bv::c_boundary(BV_EN_ENOMEM, BV_EN_ENOMEM, [&] {
        return bv::enhancer::run(kind, params, aux1, aux2, aux3, dim, optim, progressContext,
                                 input, work);
    });
}

BV_API int mem4enhancer(int kind, const TmParam *params, int64_t *levelSizes,
                        int64_t *totalBytes, DimParam dim) {
    return bv::enhancer::mem4(kind, params, levelSizes, totalBytes, dim);
}

}  // extern "C"
