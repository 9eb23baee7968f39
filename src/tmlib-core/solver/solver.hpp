// Internal interface of the tone enhancer's solver: coarse-to-fine Poisson solves on float planes.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bv::solver {

// Codes of the solver (the driver returns them unchanged).
enum : int {
    kErrLevelOpen = -1,   // calc_tm2new2 / calc_tm2old: a level file cannot be created
    kErrLevelWrite = -2,  // calc_tm2new2 / calc_tm2old: a level file write was short
    kErrArg = -3,         // NULL plane, bad size or level count
    kErrNoMem = -4,       // scratch memory could not be allocated
    kErrCancelled = -5,   // the progress callback asked to stop
    kErrTempOpen = -20,   // tm20: a solver file cannot be opened; strip seek failed
    kErrStripRead = -21,  // tm20: short strip read
    kErrStripWrite = -22  // tm20: short strip write
};

// Progress state of the solver: the value at the start of the current stage
// and the value added per step. Written by tm20 (calling thread only) before
// its loop; one enhancer call at a time.
extern float progressInit;
extern float progressIncrement;

// One level of a solver pyramid: size and offset (in floats) in the buffer
// holding all levels one after another, finest first.
struct Level {
    int width, height;
    size_t offset;
};

// Sizes of `levels` levels (at least 1) from width x height: each next level
// is ceil(w/2) x ceil(h/2) while both sides are at least 4; once a side is
// below 4 the size repeats.
std::vector<Level> level_sizes(int width, int height, int levels);
// Total floats of those levels.
size_t pyramid_floats(int width, int height, int levels);

// Base tolerance from slot 18: index trunc(slot18) + 2 into
// {3e-4, 1e-4, 1e-5, 1e-6, 1e-7}, 1e-6 outside 0..4.
float base_tolerance(const TmParam &params);
// trunc(50 * 3^(slot17 / 10)), the iteration limit of every level.
int max_iterations(const TmParam &params);
// Tolerance factor of a finer level of mean side (w + h) / 2: 1, or
// 20 ln(m / 1000) above 1600.
float level_factor(int width, int height);

// ---- operators on whole planes, split into row bands over `threads` ----
// All results are independent of the thread count: reductions are summed
// per row, then over rows in order.

// out = A x, the 5-point Laplacian: N + S + W + E - k C, k the number of
// neighbours present (reflecting borders); wrap closes rows horizontally.
// rowDots (height entries) or NULL: per-row sums of x * out.
void tm20m(int width, int height, int wrap, int threads, const float *x, float *out,
           double *rowDots);
// `rows` rows of the above: x points at the first row, above / below at the
// rows just outside (NULL at the plane's top / bottom), out at the first
// output row, rowDots (or NULL) at the first row's entry.
void tm20m_rows(int width, int rows, int wrap, const float *above, const float *x,
                const float *below, float *out, double *rowDots);
// out = a + k b over `rows` rows of `width` floats (out may alias a or b).
// rowDots or NULL: per-row sums of out * out.
void tm20a(int width, int rows, int threads, const float *a, float k, const float *b, float *out,
           double *rowDots);
// Dot product a . b: per-row double sums, then the rows in order.
double tm20d(int width, int rows, int threads, const float *a, const float *b);
// Sum of rowDots[0 .. height) in order.
double sum_rows(const double *rowDots, int height);

// Laplacian of the vector in file `src` into file `dst` (both at offset 0),
// strip by strip: `strips` strips of height / strips rows, the last taking
// the rest; each strip is read with its halo rows into `buf` (room for
// (strip rows + 2) x width floats) and written from `out` (strip rows x
// width). rowDots (height entries) or NULL: per-row sums of x * out.
// Returns 0 or a strip code (-20, -21, -22).
int tm20m_streaming(int width, int height, int wrap, int threads, int strips, FILE *src, FILE *dst,
                    float *buf, float *out, double *rowDots);
// Removes the mean of b (per-row sums, then rows in order): a Poisson
// problem with reflecting borders has a solution only for a right-hand side
// summing to zero, and the float rounding of a divergence rarely does.
void centre_rhs(int width, int height, int threads, float *b);
// Rows of strip s of `strips` over height: [*first, *end).
void strip_rows(int height, int strips, int s, int *first, int *end);

// Conjugate gradients on one level, A x = b with A the Laplacian above.
// In memory (streamMode < 1): b is overwritten (it becomes the search
// direction), x is the initial guess and the result. Streaming
// (streamMode >= 1): b is read from inPath at inOffset floats; the
// vectors live in basePath (x), pPath (d), rPath (r) and tPath (q), one
// strip in memory (streamMode 1: two halves; other values one strip);
// x is the initial guess on entry and the result on exit, b is unused.
// Stops after maxIterations, when r.r < tolerance * r0.r0, or when d.q is
// exactly 0. Progress from 0.45 by 0.35 / trunc(0.3 maxIterations) per
// iteration. Returns the number of iterations, or -4, -5, -20, -21, -22
// (with the messages of the failure table on standard output).
int tm20(int width, int height, int maxIterations, int wrap, int threads, int streamMode,
         bv_progress_cb progressContext, const char *inPath, const char *basePath,
         const char *pPath, const char *rPath, const char *tPath, int64_t inOffset, float *b,
         float *x, float tolerance);

// Initial guess of a finer level from the coarser solution: even rows and
// columns copy the coarse pixel, odd ones average two (x 0.5) or four
// (x 0.25) coarse neighbours; the last odd row or column copies its coarse
// neighbour, except that with wrap the last column averages with the first.
// Same sizes: a copy. enlarge_rows writes fine rows [first, end) to `fine`
// (which then points at row `first`).
void enlarge(const float *coarse, int cw, int ch, float *fine, int fw, int fh, int wrap,
             int threads);
void enlarge_rows(const float *coarse, int cw, int ch, float *fine, int fw, int fh, int first,
                  int end, int wrap, int threads);
// Writes n floats to path ("wb"); -1 with "can not open temporary file %s",
// -2 with "could not write to temporary file tempPath1" (standard output).
int write_level_file(const char *path, const float *data, size_t n);
// v = exp(v) over a width x height plane, in row bands.
void exp_plane(float *v, int width, int height, int threads);

// Solves every level of `plane` (right-hand sides, levels one after another
// as level_sizes(width, height, levels), finest first) from the coarsest to
// the finest, each level starting from the enlarged solution of the next
// coarser one (the coarsest from 0); writes exp(solution) over the finest
// level. Each level's right-hand side first loses its mean (centre_rhs). Uses slots 15 (wrap), 17
// (iterations) and 18 (tolerance) of params and optim's threads, mode (1: preview tolerances),
// temporary-file flag and paths (streaming of the two finest levels of a pyramid of 3 or more
// levels through tempPath1 and the four solver files). Coarser levels are left overwritten with
// scratch values. Returns 1, or -1, -2, -3, -4, -5, -20, -21, -22.
int calc_tm2new2(int levels, const TmParam *params, bv_progress_cb progressContext, float *plane,
                 int width, int height, const optimParam &optim);

// The same problem by red-black Gauss-Seidel sweeps instead of conjugate
// gradients: x = (N + S + W + E - f) / 4, or 0.3333 (N + S + W + E - f) on
// border pixels with three neighbours, 0.5 (...) on corners. Coarse levels
// are swept in memory; the two finest levels keep x in the file
// optim.solverBase (opened "wb+"), swept strip by strip. Sweeps per level:
// max_iterations(params) on the finest, doubling per coarser level up to
// 4096. Returns 1, or -1 (no or unopenable solverBase, message "can not open
// temporary file %s"), -2, -3, -4, -5, -20, -21, -22.
int calc_tm2old(int levels, const TmParam *params, bv_progress_cb progressContext, float *plane,
                int width, int height, const optimParam &optim);

// Attenuation of a plane in place: v > 1e-5 becomes ((v + offset) / scale)
// ^ exponent, anything else 0. Row bands over `threads`.
void tm1b(int width, int height, float scale, float exponent, float offset, int threads,
          float *plane);

}  // namespace bv::solver
