// Hand-drawn selections of a mask file filled into per-bracket pixel bit masks.
#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "common/boundary.hpp"
#include "core/ghosts/ghosts.hpp"

namespace bv::ghosts {

namespace {

using wide = __int128;

struct Edge {
    int64_t x0, y0, x1, y1;  // y0 < y1
};

// Smallest integer >= a / b, b > 0.
int64_t ceil_div(wide a, wide b) {
    wide q = a / b;
    if (a % b != 0 && a > 0) ++q;
    const wide lo = INT64_MIN / 4, hi = INT64_MAX / 4;
    return static_cast<int64_t>(q < lo ? lo : q > hi ? hi : q);
}

// First pixel column whose centre lies at or right of where the edge
// crosses the centre line of row y.
int64_t first_column(const Edge &e, int64_t y) {
    const wide dy = e.y1 - e.y0, dx = e.x1 - e.x0;
    // Doubled crossing abscissa: num / dy, with the row centre at 2y + 1.
    const wide num = 2 * static_cast<wide>(e.x0) * dy + (2 * static_cast<wide>(y) + 1 - 2 * e.y0) * dx;
    return ceil_div(num - dy, 2 * dy);
}

// Sets bits [from, to) of a most-significant-first bit mask.
void set_bits(uint8_t *mask, size_t from, size_t to) {
    while (from < to && (from & 7)) {
        mask[from >> 3] |= static_cast<uint8_t>(0x80u >> (from & 7));
        ++from;
    }
    if (to - from >= 8 && from < to) {
        std::memset(mask + (from >> 3), 0xff, (to - from) >> 3);
        from += (to - from) & ~static_cast<size_t>(7);
    }
    for (; from < to; ++from) mask[from >> 3] |= static_cast<uint8_t>(0x80u >> (from & 7));
}

// Fills one polygon (even-odd rule) into a plane of width x height bits.
size_t fill_polygon(const int32_t *xy, int count, int width, int height, uint8_t *plane_mask,
                    size_t plane_bit) {
    std::vector<Edge> edges;
    edges.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const int j = i + 1 == count ? 0 : i + 1;
        int64_t x0 = xy[2 * i], y0 = xy[2 * i + 1], x1 = xy[2 * j], y1 = xy[2 * j + 1];
        if (y0 == y1) continue;  // horizontal edges never cross a row centre
        if (y0 > y1) std::swap(x0, x1), std::swap(y0, y1);
        if (y1 <= 0 || y0 >= height) continue;
        edges.push_back({x0, y0, x1, y1});
    }
    std::sort(edges.begin(), edges.end(), [](const Edge &a, const Edge &b) { return a.y0 < b.y0; });
    std::vector<const Edge *> active;
    std::vector<int64_t> xs;
    size_t next = 0, set = 0;
    const int64_t ystart = edges.empty() ? height : std::max<int64_t>(0, edges.front().y0);
    for (int64_t y = ystart; y < height; ++y) {
        while (next < edges.size() && edges[next].y0 <= y) active.push_back(&edges[next++]);
        active.erase(std::remove_if(active.begin(), active.end(),
                                    [y](const Edge *e) { return e->y1 <= y; }),
                     active.end());
        if (active.empty()) {
            if (next == edges.size()) break;
            continue;
        }
        xs.clear();
        for (const Edge *e : active) xs.push_back(first_column(*e, y));
        std::sort(xs.begin(), xs.end());
        const size_t row = plane_bit + static_cast<size_t>(y) * width;
        for (size_t k = 0; k + 1 < xs.size(); k += 2) {
            const int64_t a = std::max<int64_t>(xs[k], 0), b = std::min<int64_t>(xs[k + 1], width);
            if (a >= b) continue;
            set_bits(plane_mask, row + a, row + b);
            set += static_cast<size_t>(b - a);
        }
    }
    return set;
}

}  // namespace

}  // namespace bv::ghosts

extern "C" BV_API int bv_ghost_rasterize(int width, int height, int n, int N,
                                         const int32_t *exposures, const int32_t *counts,
                                         const int32_t *coords, int total, int32_t *slots,
                                         unsigned char *mask) {
    return bv::c_boundary(BV_GHOST_ERR_NOMEM, BV_GHOST_ERR_ARG, [&]() -> int {
        if (width < 0 || height < 0 || n < 1 || total < 0 || !slots || !mask ||
            (N > 0 && (!exposures || !counts)))
            return BV_GHOST_ERR_ARG;
        size_t plane, bits;
        if (!bv::checked_mul(static_cast<size_t>(width), static_cast<size_t>(height), &plane) ||
            !bv::checked_mul(plane, static_cast<size_t>(n), &bits) || bits > SIZE_MAX - 7)
            return BV_GHOST_ERR_ARG;
        // Every selection is checked before anything is drawn.
        int64_t used = 0;
        for (int i = 0; i < N; ++i) {
            if (counts[i] <= 0) continue;
            used += counts[i];
            if (used > total || exposures[i] < 0 || exposures[i] >= n) return BV_GHOST_ERR_ARG;
        }
        if (used > 0 && !coords) return BV_GHOST_ERR_ARG;
        std::memset(mask, 0, (bits + 7) / 8);
        size_t at = 0, set = 0;
        int drawn = 0;
        for (int i = 0; i < N; ++i) {
            if (counts[i] <= 0) continue;
            if (counts[i] >= 3) {
                set += bv::ghosts::fill_polygon(coords + 2 * at, counts[i], width, height, mask,
                                                static_cast<size_t>(exposures[i]) * plane);
                ++drawn;
            }
            at += static_cast<size_t>(counts[i]);
        }
        for (int i = 0; i < n; ++i) slots[i] = i;
        if (set == 0) slots[0] = -1;
        return drawn;
    });
}
