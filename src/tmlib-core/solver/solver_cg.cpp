// Conjugate gradients on one level, in memory or streamed through files, and the coarse-to-fine
// driver that solves every level of a right-hand-side pyramid.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/diag.hpp"
#include "tmlib-core/solver/solver.hpp"

namespace bv::solver {

namespace {

// Progress of one level: from 0.45 by 0.35 / trunc(0.3 maxIterations) per
// iteration, for the first trunc(0.3 maxIterations) iterations.
class LevelProgress {
public:
    LevelProgress(bv_progress_cb cb, int maxIterations) : cb_(cb) {
        n_ = static_cast<int>(maxIterations * 0.3);
        if (!cb_) return;
        progressInit = 0.45f;
        progressIncrement = n_ > 0 ? 0.35f / n_ : 0.0f;
    }
    // false when the host asked to stop.
    bool start() const { return !cb_ || progress(cb_, progressInit) != 0; }
    bool step(int i) const {
        if (!cb_ || i > n_) return true;
        return progress(cb_, progressInit + i * progressIncrement) != 0;
    }

private:
    bv_progress_cb cb_;
    int n_ = 0;
};

int cg_memory(int width, int height, int maxIterations, int wrap, int threads,
              const LevelProgress &prog, float *b, float *x, float tolerance) {
    const size_t n = static_cast<size_t>(width) * height;
    Scratch<float> q, r;
    Scratch<double> dots;
    if (!q.alloc(n) || !r.alloc(n) || !dots.alloc(static_cast<size_t>(height))) return kErrNoMem;
    float *d = b;  // the right-hand side is not needed once r exists
    tm20m(width, height, wrap, threads, x, q.get(), nullptr);
    tm20a(width, height, threads, b, -1.0f, q.get(), r.get(), dots.get());
    double delta = sum_rows(dots.get(), height);
    std::memcpy(d, r.get(), n * sizeof(float));
    const double eps = tolerance * delta;
    if (!(delta > 0.0)) return 0;
    for (int i = 1; i <= maxIterations; ++i) {
        tm20m(width, height, wrap, threads, d, q.get(), dots.get());
        const double dq = sum_rows(dots.get(), height);
        if (dq == 0.0) return i - 1;
        const float alpha = static_cast<float>(delta / dq);
        // x += alpha d and r -= alpha q in one pass over the rows.
        float *rv = r.get();
        const float *qv = q.get();
        double *dt = dots.get();
        threading::run_bands(
            0, height, threads,
            [&](const threading::Band &band) {
                const size_t a = band.first * static_cast<size_t>(width);
                const int rows = band.end - band.first;
                tm20a(width, rows, 1, x + a, alpha, d + a, x + a, nullptr);
                tm20a(width, rows, 1, rv + a, -alpha, qv + a, rv + a, dt + band.first);
            },
            threading::OnSpawnFailure::RunInline);
        const double next = sum_rows(dots.get(), height);
        if (!prog.step(i)) return kErrCancelled;
        if (next < eps) return i;
        const float beta = static_cast<float>(next / delta);
        tm20a(width, height, threads, r.get(), beta, d, d, nullptr);
        delta = next;
    }
    return maxIterations;
}

// The solver files of one streamed level, closed on every path.
struct StreamFiles {
    FILE *base = nullptr, *r = nullptr, *p = nullptr, *t = nullptr, *in = nullptr;
    StreamFiles() = default;
    StreamFiles(const StreamFiles &) = delete;
    StreamFiles &operator=(const StreamFiles &) = delete;
    ~StreamFiles() {
        for (FILE *f : {base, r, p, t, in})
            if (f) std::fclose(f);
    }
};

int open_stream_files(StreamFiles &f, const char *inPath, const char *basePath, const char *pPath,
                      const char *rPath, const char *tPath) {
    struct Spec {
        FILE **file;
        const char *path;
        const char *mode;
        const char *tag;  // names the file in the message
    };
    const Spec specs[] = {
        {&f.base, basePath, "wb+", ""}, {&f.r, rPath, "wb+", "R "},   {&f.p, pPath, "wb+", "P "},
        {&f.t, tPath, "wb+", "T "},     {&f.in, inPath, "rb", "In "},
    };
    for (const Spec &s : specs) {
        *s.file = s.path ? std::fopen(s.path, s.mode) : nullptr;
        if (!*s.file) {
            diag(Stream::Out, "can not open temporary file %sin tm20 %s\n", s.tag,
                 s.path ? s.path : "(null)");
            return kErrTempOpen;
        }
    }
    return 0;
}

inline int io(int rc) { return rc == 4 ? 0 : (rc < 0 ? rc : kErrStripRead); }

int cg_stream(int width, int height, int maxIterations, int wrap, int threads, int streamMode,
              const LevelProgress &prog, const char *inPath, const char *basePath,
              const char *pPath, const char *rPath, const char *tPath, int64_t inOffset, float *x,
              float tolerance) {
    StreamFiles f;
    int rc = open_stream_files(f, inPath, basePath, pPath, rPath, tPath);
    if (rc < 0) return rc;
    const int strips = (streamMode == 1 && height >= 2) ? 2 : 1;
    int most = 0;
    for (int s = 0; s < strips; ++s) {
        int a, e;
        strip_rows(height, strips, s, &a, &e);
        if (e - a > most) most = e - a;
    }
    const size_t w = static_cast<size_t>(width);
    Scratch<float> bufA, bufB;
    Scratch<double> dots;
    if (!bufA.alloc((most + 2) * w) || !bufB.alloc((most + 2) * w) ||
        !dots.alloc(static_cast<size_t>(height)))
        return kErrNoMem;
    float *A = bufA.get(), *B = bufB.get();

    // x to the base file, then r = b - A x into R and P (d = r).
    for (int s = 0; s < strips; ++s) {
        int a, e;
        strip_rows(height, strips, s, &a, &e);
        if ((rc = io(write_strip(f.base, a * static_cast<int64_t>(width),
                                 (e - a) * static_cast<int64_t>(width), x + a * w))) < 0)
            return rc;
    }
    if ((rc = tm20m_streaming(width, height, wrap, threads, strips, f.base, f.t, A, B, nullptr)) <
        0)
        return rc;
    // Applies body to strip s after reading the listed files' strips into A
    // (first) and B (second), then writes `out` (A or B) to each target.
    auto strip_pass = [&](FILE *first, FILE *second, int64_t firstOffset,
                          const std::function<void(int, int, float *, float *)> &body,
                          float *const *out, FILE *const *targets, int ntargets) -> int {
        for (int s = 0; s < strips; ++s) {
            int a, e;
            strip_rows(height, strips, s, &a, &e);
            const int64_t off = a * static_cast<int64_t>(width),
                          cnt = (e - a) * static_cast<int64_t>(width);
            int r;
            if ((r = io(read_strip(first, firstOffset + off, cnt, A))) < 0) return r;
            if ((r = io(read_strip(second, off, cnt, B))) < 0) return r;
            body(a, e, A, B);
            for (int k = 0; k < ntargets; ++k)
                if ((r = io(write_strip(targets[k], off, cnt, *out))) < 0) return r;
        }
        return 0;
    };
    double *dt = dots.get();
    {
        float *const out[] = {A};
        FILE *const targets[] = {f.r, f.p};
        rc = strip_pass(
            f.in, f.t, inOffset,
            [&](int a, int e, float *bs, float *qs) {
                tm20a(width, e - a, threads, bs, -1.0f, qs, bs, dt + a);
            },
            out, targets, 2);
        if (rc < 0) return rc;
    }
    double delta = sum_rows(dt, height);
    const double eps = tolerance * delta;
    int done = 0;
    if (delta > 0.0) {
        done = maxIterations;
        for (int i = 1; i <= maxIterations; ++i) {
            if ((rc = tm20m_streaming(width, height, wrap, threads, strips, f.p, f.t, A, B, dt)) <
                0)
                return rc;
            const double dq = sum_rows(dt, height);
            if (dq == 0.0) {
                done = i - 1;
                break;
            }
            const float alpha = static_cast<float>(delta / dq);
            {
                float *const out[] = {A};
                FILE *const targets[] = {f.base};
                rc = strip_pass(
                    f.base, f.p, 0,
                    [&](int a, int e, float *xs, float *ds) {
                        tm20a(width, e - a, threads, xs, alpha, ds, xs, nullptr);
                    },
                    out, targets, 1);
                if (rc < 0) return rc;
            }
            {
                float *const out[] = {A};
                FILE *const targets[] = {f.r};
                rc = strip_pass(
                    f.r, f.t, 0,
                    [&](int a, int e, float *rs, float *qs) {
                        tm20a(width, e - a, threads, rs, -alpha, qs, rs, dt + a);
                    },
                    out, targets, 1);
                if (rc < 0) return rc;
            }
            const double next = sum_rows(dt, height);
            if (!prog.step(i)) return kErrCancelled;
            if (next < eps) {
                done = i;
                break;
            }
            const float beta = static_cast<float>(next / delta);
            {
                float *const out[] = {B};
                FILE *const targets[] = {f.p};
                rc = strip_pass(
                    f.r, f.p, 0,
                    [&](int a, int e, float *rs, float *ds) {
                        tm20a(width, e - a, threads, rs, beta, ds, ds, nullptr);
                    },
                    out, targets, 1);
                if (rc < 0) return rc;
            }
            delta = next;
        }
    }
    // The solution back into memory.
    for (int s = 0; s < strips; ++s) {
        int a, e;
        strip_rows(height, strips, s, &a, &e);
        if ((rc = io(read_strip(f.base, a * static_cast<int64_t>(width),
                                (e - a) * static_cast<int64_t>(width), x + a * w))) < 0)
            return rc;
    }
    return done;
}

}  // namespace

int tm20(int width, int height, int maxIterations, int wrap, int threads, int streamMode,
         bv_progress_cb progressContext, const char *inPath, const char *basePath,
         const char *pPath, const char *rPath, const char *tPath, int64_t inOffset, float *b,
         float *x, float tolerance) {
    if (width < 1 || height < 1 || !x || (streamMode < 1 && !b)) return kErrArg;
    return c_boundary(kErrNoMem, kErrNoMem, [&]() -> int {
        const LevelProgress prog(progressContext, maxIterations);
        if (!prog.start()) return kErrCancelled;
        if (streamMode < 1)
            return cg_memory(width, height, maxIterations, wrap, threads, prog, b, x, tolerance);
        return cg_stream(width, height, maxIterations, wrap, threads, streamMode, prog, inPath,
                         basePath, pPath, rPath, tPath, inOffset, x, tolerance);
    });
}

void enlarge_rows(const float *coarse, int cw, int ch, float *fine, int fw, int fh, int first,
                  int end, int wrap, int threads) {
    const size_t cws = static_cast<size_t>(cw), fws = static_cast<size_t>(fw);
    if (cw == fw && ch == fh) {
        std::memmove(fine, coarse + first * cws, (end - first) * fws * sizeof(float));
        return;
    }
    threading::run_bands(
        first, end, threads,
        [&](const threading::Band &b) {
            for (int y = b.first; y < b.end; ++y) {
                const int cy = y / 2;
                const bool vy = (y & 1) && cy + 1 < ch;  // averages with the next coarse row
                const float *p = coarse + cy * cws;
                const float *d = vy ? p + cws : p;
                float *out = fine + (y - first) * fws;
                for (int x = 0; x < fw; ++x) {
                    const int cx = x / 2;
                    int nx = -1;  // the coarse column averaged with, if any
                    if (x & 1) {
                        if (cx + 1 < cw)
                            nx = cx + 1;
                        else if (wrap)
                            nx = 0;
                    }
                    if (nx < 0 && !vy)
                        out[x] = p[cx];
                    else if (nx < 0)
                        out[x] = 0.5f * (p[cx] + d[cx]);
                    else if (!vy)
                        out[x] = 0.5f * (p[cx] + p[nx]);
                    else
                        out[x] = 0.25f * (p[cx] + p[nx] + d[cx] + d[nx]);
                }
            }
        },
        threading::OnSpawnFailure::RunInline);
}

void enlarge(const float *coarse, int cw, int ch, float *fine, int fw, int fh, int wrap,
             int threads) {
    enlarge_rows(coarse, cw, ch, fine, fw, fh, 0, fh, wrap, threads);
}

int write_level_file(const char *path, const float *data, size_t n) {
    File f(path, "wb");
    if (!f) {
        diag(Stream::Out, "can not open temporary file %s\n", path ? path : "(null)");
        return kErrLevelOpen;
    }
    const size_t put = n ? std::fwrite(data, sizeof(float), n, f.get()) : 0;
    if (f.close() != 0 || put != n) {
        diag(Stream::Out, "could not write to temporary file tempPath1\n");
        return kErrLevelWrite;
    }
    return 0;
}

void exp_plane(float *v, int width, int height, int threads) {
    const size_t w = static_cast<size_t>(width);
    threading::run_bands(
        0, height, threads,
        [&](const threading::Band &b) {
            for (size_t i = b.first * w; i < b.end * w; ++i) v[i] = std::exp(v[i]);
        },
        threading::OnSpawnFailure::RunInline);
}

namespace {

int tm2new2_impl(int levels, const TmParam &params, bv_progress_cb progressContext, float *plane,
                 int width, int height, const optimParam &optim) {
    if (levels < 1) levels = 1;
    const std::vector<Level> lv = level_sizes(width, height, levels);
    const int wrap = static_cast<int>(params.slot[15]);
    const int maxIt = max_iterations(params);
    const float base = base_tolerance(params);
    const int threads = optim.threads < 1 ? 1 : optim.threads;
    const bool stream = optim.useTempFiles != 0 && levels >= 3;
    const int top = stream ? 2 : 0;  // finest level solved in memory
    const size_t nTop = static_cast<size_t>(lv[top].width) * lv[top].height;
    Scratch<float> x;
    if (!x.alloc(nTop)) return kErrNoMem;

    for (int k = levels - 1; k >= 0; --k) {
        const Level &L = lv[k];
        const size_t n = static_cast<size_t>(L.width) * L.height;
        float *b = plane + L.offset;
        const int lt = (L.height / threads < 81) ? 1 : threads;
        const float factor = (k == levels - 1) ? (optim.mode == 1 ? 1.0f : 0.0001f)
                                               : level_factor(L.width, L.height);
        const float tol = base * factor;
        centre_rhs(L.width, L.height, lt, b);
        if (k >= top) {
            // In memory: x holds the enlarged coarser solution (0 at the coarsest).
            if (k < levels - 1) {
                const Level &C = lv[k + 1];
                enlarge(plane + C.offset, C.width, C.height, x.get(), L.width, L.height, wrap, lt);
            }
            const int rc = tm20(L.width, L.height, maxIt, wrap, lt, 0, progressContext, nullptr,
                                nullptr, nullptr, nullptr, nullptr, 0, b, x.get(), tol);
            if (rc < 0) return rc;
            // The level's right-hand side is spent: keep the solution there.
            std::memcpy(b, x.get(), n * sizeof(float));
        } else {
            // Streamed: b goes to the In file, its memory then holds x.
            int rc = write_level_file(optim.tempPath1, b, n);
            if (rc < 0) return rc;
            const Level &C = lv[k + 1];
            enlarge(plane + C.offset, C.width, C.height, b, L.width, L.height, wrap, lt);
            rc = tm20(L.width, L.height, maxIt, wrap, lt, k == 0 ? 1 : 2, progressContext,
                      optim.tempPath1, optim.solverBase, optim.solverP, optim.solverR,
                      optim.solverT, 0, nullptr, b, tol);
            if (rc < 0) return rc;
        }
    }
    exp_plane(plane, width, height, threads);
    return 1;
}

}  // namespace

int calc_tm2new2(int levels, const TmParam *params, bv_progress_cb progressContext, float *plane,
                 int width, int height, const optimParam &optim) {
    if (!params || !plane || width < 1 || height < 1) return kErrArg;
    return c_boundary(kErrNoMem, kErrNoMem, [&] {
        return tm2new2_impl(levels, *params, progressContext, plane, width, height, optim);
    });
}

}  // namespace bv::solver
