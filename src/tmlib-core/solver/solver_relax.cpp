// The low-memory alternative to conjugate gradients: red-black Gauss-Seidel sweeps, coarse to
// fine, with the two finest levels kept in a file and swept strip by strip.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/diag.hpp"
#include "tmlib-core/solver/solver.hpp"

namespace bv::solver {

namespace {

// Rows per strip of a file-based sweep; a strip also reads one row above
// and one below.
constexpr int kStripRows = 256;
// Sweeps never exceed this on the small coarse levels.
constexpr int kMaxSweeps = 4096;

// Updates the pixels of one colour ((x + y) & 1 == colour) of row y:
// x = (N + S + W + E - f) times 1/4, 0.3333 with three neighbours, 1/2 with
// two, 1 with one.
inline void relax_row(int w, int y, int colour, int wrap, const float *up, float *row,
                      const float *dn, const float *f) {
    for (int x = (colour + y) & 1; x < w; x += 2) {
        const bool has_w = x > 0 || (wrap && w > 1), has_e = x < w - 1 || (wrap && w > 1);
        float s = 0.0f;
        int k = 0;
        auto add = [&](float v) {
            s = k ? s + v : v;
            ++k;
        };
        if (up) add(up[x]);
        if (dn) add(dn[x]);
        if (has_w) add(row[x > 0 ? x - 1 : w - 1]);
        if (has_e) add(row[x < w - 1 ? x + 1 : 0]);
        if (k == 0) continue;
        static const float kScale[5] = {0.0f, 1.0f, 0.5f, 0.3333f, 0.25f};
        row[x] = (s - f[x]) * kScale[k];
    }
}

// One colour over rows [first, end) of a plane of `height` rows whose rows
// [lo, ...) are at buf; f points at the right-hand side's row 0.
void relax_rows(int width, int height, int first, int end, int lo, int colour, int wrap,
                int threads, float *buf, const float *f) {
    const size_t w = static_cast<size_t>(width);
    threading::run_bands(
        first, end, threads,
        [&](const threading::Band &b) {
            for (int y = b.first; y < b.end; ++y) {
                float *row = buf + (y - lo) * w;
                relax_row(width, y, colour, wrap, y > 0 ? row - w : nullptr, row,
                          y < height - 1 ? row + w : nullptr, f + y * w);
            }
        },
        threading::OnSpawnFailure::RunInline);
}

// Sweeps of a level held in the file, strip by strip; each colour is one
// pass over the file, so the result equals the in-memory sweep.
int relax_file(FILE *file, int width, int height, int sweeps, int wrap, int threads, const float *f,
               float *buf, bv_progress_cb cb, float p0, float dp) {
    for (int s = 0; s < sweeps; ++s) {
        for (int colour = 0; colour < 2; ++colour) {
            for (int a = 0; a < height; a += kStripRows) {
                const int e = std::min(height, a + kStripRows);
                const int lo = a > 0 ? a - 1 : 0, hi = e < height ? e + 1 : height;
                int rc = read_strip(file, static_cast<int64_t>(lo) * width,
                                    static_cast<int64_t>(hi - lo) * width, buf);
                if (rc != 4) return rc < 0 ? rc : kErrStripRead;
                relax_rows(width, height, a, e, lo, colour, wrap, threads, buf, f);
                rc = write_strip(file, static_cast<int64_t>(a) * width,
                                 static_cast<int64_t>(e - a) * width,
                                 buf + static_cast<size_t>(a - lo) * width);
                if (rc != 4) return rc < 0 ? rc : kErrStripWrite;
            }
        }
        if (cb && progress(cb, p0 + (s + 1) * dp) == 0) return kErrCancelled;
    }
    return 0;
}

int sweeps_for(int base, int k) {
    long long s = base;
    for (int i = 0; i < k && s < kMaxSweeps; ++i) s *= 2;
    return static_cast<int>(std::min<long long>(s, kMaxSweeps));
}

int tm2old_impl(int levels, const TmParam &params, bv_progress_cb cb, float *plane, int width,
                int height, const optimParam &optim) {
    if (levels < 1) levels = 1;
    const std::vector<Level> lv = level_sizes(width, height, levels);
    const int wrap = static_cast<int>(params.slot[15]);
    const int base = max_iterations(params);
    const int threads = optim.threads < 1 ? 1 : optim.threads;
    const int fileLevels = std::min(levels, 2);
    const int top = fileLevels;  // finest level swept in memory
    size_t nMem = 1;
    if (top < levels) nMem = static_cast<size_t>(lv[top].width) * lv[top].height;
    Scratch<float> x, buf;
    if (!x.alloc(nMem) ||
        !buf.alloc(static_cast<size_t>(kStripRows + 2) * static_cast<size_t>(width)))
        return kErrNoMem;
    File file(optim.solverBase, "wb+");
    if (!file) {
        diag(Stream::Out, "can not open temporary file %s\n",
             optim.solverBase ? optim.solverBase : "(null)");
        return kErrLevelOpen;
    }
    // Progress over the file-based sweeps, which take nearly all the time.
    long long fileSweeps = 0;
    for (int k = 0; k < fileLevels; ++k) fileSweeps += sweeps_for(base, k);
    const float dp = fileSweeps > 0 ? 0.35f / fileSweeps : 0.0f;
    float p0 = 0.45f;
    if (cb && progress(cb, p0) == 0) return kErrCancelled;

    for (int k = levels - 1; k >= 0; --k) {
        const Level &L = lv[k];
        const size_t n = static_cast<size_t>(L.width) * L.height;
        float *f = plane + L.offset;
        const int lt = (L.height / threads < 81) ? 1 : threads;
        const int sweeps = sweeps_for(base, k);
        centre_rhs(L.width, L.height, lt, f);
        if (k >= top) {
            if (k < levels - 1) {
                const Level &C = lv[k + 1];
                enlarge(plane + C.offset, C.width, C.height, x.get(), L.width, L.height, wrap, lt);
            }
            for (int s = 0; s < sweeps; ++s)
                for (int colour = 0; colour < 2; ++colour)
                    relax_rows(L.width, L.height, 0, L.height, 0, colour, wrap, lt, x.get(), f);
            std::memcpy(plane + L.offset, x.get(), n * sizeof(float));
            continue;
        }
        // Initial guess into the file, strip by strip.
        for (int a = 0; a < L.height; a += kStripRows) {
            const int e = std::min(L.height, a + kStripRows);
            if (k < levels - 1) {
                const Level &C = lv[k + 1];
                enlarge_rows(plane + C.offset, C.width, C.height, buf.get(), L.width, L.height, a,
                             e, wrap, lt);
            } else {
                std::memset(buf.get(), 0, static_cast<size_t>(e - a) * L.width * sizeof(float));
            }
            const int rc = write_strip(file.get(), static_cast<int64_t>(a) * L.width,
                                       static_cast<int64_t>(e - a) * L.width, buf.get());
            if (rc != 4) return rc < 0 ? rc : kErrStripWrite;
        }
        int rc =
            relax_file(file.get(), L.width, L.height, sweeps, wrap, lt, f, buf.get(), cb, p0, dp);
        if (rc < 0) return rc;
        p0 += sweeps * dp;
        // The right-hand side is spent: the solution takes its place.
        rc = read_strip(file.get(), 0, static_cast<int64_t>(n), plane + L.offset);
        if (rc != 4) return rc < 0 ? rc : kErrStripRead;
    }
    exp_plane(plane, width, height, threads);
    return 1;
}

}  // namespace

int calc_tm2old(int levels, const TmParam *params, bv_progress_cb progressContext, float *plane,
                int width, int height, const optimParam &optim) {
    if (!params || !plane || width < 1 || height < 1) return kErrArg;
    return c_boundary(kErrNoMem, kErrNoMem, [&] {
        return tm2old_impl(levels, *params, progressContext, plane, width, height, optim);
    });
}

}  // namespace bv::solver
