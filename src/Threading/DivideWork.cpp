// Exported band division, tile geometry and progress reporting.
#include <Brackvista40Lib1.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Threading/bands.hpp"
#include "common/boundary.hpp"
#include "common/diag.hpp"

namespace {

// Layout of the first four words of every DivideWork record.
struct RecordHead {
    int32_t index;
    int32_t threaded;
    int32_t first;
    int32_t end;
};

int divide_work(int start, int end, int threads, bv_band_worker worker, const void *templ,
                size_t size) {
    if (!worker || !templ || size < sizeof(RecordHead)) return BV_DW_EBADARG;
    int n = threads < 1 ? 1 : threads;
    if (n > 1 && (end - start) / n == 0) n = end - start;  // one row per thread
    if (n < 1) return 0;

    std::vector<bv::threading::Band> bands = bv::threading::split_rows(start, end, n);
    if (bands.empty()) bands.push_back({0, start, end});  // n == 1 over an empty range

    bv::Scratch<unsigned char> block;
    size_t total;
    if (!bv::checked_mul(size, static_cast<size_t>(n), &total) || !block.alloc(total))
        return BV_DW_ENOMEM;
    auto record = [&](int i) { return block.get() + static_cast<size_t>(i) * size; };
    for (const auto &b : bands) {
        unsigned char *r = record(b.index);
        std::memcpy(r, templ, size);
        const RecordHead head{b.index, 0, b.first, b.end};
        std::memcpy(r, &head, sizeof head);
        bv::diag(bv::Stream::Err, "----> %d: %d - %d\n", b.index, b.first, b.end);
    }
    // A band that could not get a thread runs inline, flagged unthreaded.
    bv::threading::run_bands(
        bands,
        [&](const bv::threading::Band &b) {
            unsigned char *r = record(b.index);
            const int32_t threaded = b.threaded ? 1 : 0;
            std::memcpy(r + offsetof(RecordHead, threaded), &threaded, sizeof threaded);
            worker(r);
        },
        bv::threading::OnSpawnFailure::RunInline);
    return 0;
}

void tile_span(int size, int tile, int count, int overlap, int i, int *lo, int *hi) {
    if (count <= 1) {
        *lo = 0;
        *hi = size;
    } else if (i == 0) {
        *lo = 0;
        *hi = tile + overlap;
    } else if (i < count - 1) {
        *lo = i * tile - overlap;
        *hi = i * tile + tile + overlap;
    } else {
        *lo = i * tile - overlap;
        *hi = size;
    }
}

}  // namespace

bool bv::threading::report_progress(bv_progress_cb callback, float fraction) {
    if (!callback) return true;
    int32_t cancel = 0;
    callback(&cancel, fraction);
    return cancel == 0;
}

extern "C" {

BV_API int progress(bv_progress_cb callback, float value) {
    return bv::threading::report_progress(callback, value) ? 1 : 0;
}

BV_API int DivideWork(int start, int end, int threads, bv_band_worker worker, const void *templ,
                      size_t recordSize) {
    return bv::c_boundary(BV_DW_ENOMEM, BV_DW_ENOMEM, [&] {
        return divide_work(start, end, threads, worker, templ, recordSize);
    });
}

BV_API void get_tile_coordinates(int W, int H, int tw, int th, int cols, int rows, int overlap,
                                 int col, int row, int *x0, int *y0, int *x1, int *y1) {
    int lo, hi;
    tile_span(W, tw, cols, overlap, col, &lo, &hi);
    if (x0) *x0 = lo;
    if (x1) *x1 = hi;
    tile_span(H, th, rows, overlap, row, &lo, &hi);
    if (y0) *y0 = lo;
    if (y1) *y1 = hi;
}

BV_API int getDenoiseTileInfo(int width, int height, size_t memBudget, int *cols, int *rows,
                              int *tileW, int *tileH, int *overlap) {
    const int ov = 16;
    // A tile with its overlap holds float RGB work plus as much again.
    const double budget = memBudget ? static_cast<double>(memBudget) : 64.0 * 1024 * 1024;
    int side = static_cast<int>(std::sqrt(budget / 24.0)) - 2 * ov;
    if (side < 64) side = 64;
    const int w = width > 0 ? width : 1;
    const int h = height > 0 ? height : 1;
    const int tw = side < w ? side : w;
    const int th = side < h ? side : h;
    const int c = (w + tw - 1) / tw;
    const int r = (h + th - 1) / th;
    if (cols) *cols = c;
    if (rows) *rows = r;
    if (tileW) *tileW = tw;
    if (tileH) *tileH = th;
    if (overlap) *overlap = ov;
    return c * r;
}

}  // extern "C"
