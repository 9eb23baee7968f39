// The ghosting-mask text file: writing selections, reading its header and its selections.
#include <sys/types.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "common/boundary.hpp"
#include "common/diag.hpp"
#include "core/ghosts/ghosts.hpp"

namespace bv::ghosts {

namespace {

bool is_blank(int c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Reads an optionally signed decimal after white space; false on no digit.
bool scan_int(CharSource &in, int32_t *out, bool *at_end) {
    int c;
    do c = in.get();
    while (is_blank(c));
    *at_end = c == EOF;
    bool negative = false;
    if (c == '-' || c == '+') {
        negative = c == '-';
        c = in.get();
    }
    if (c < '0' || c > '9') {
        in.unget(c);
        return false;
    }
    int64_t v = 0;
    for (; c >= '0' && c <= '9'; c = in.get())
        if (v <= INT64_C(1) << 40) v = v * 10 + (c - '0');  // saturated below
    in.unget(c);
    if (negative) v = -v;
    *out = v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v);
    return true;
}

}  // namespace

int CharSource::get() noexcept {
    if (pushed_ != -2) {
        const int c = pushed_;
        pushed_ = -2;
        return c;
    }
    if (file_) return std::getc(file_);
    if (!text_ || !*text_) return EOF;
    return static_cast<unsigned char>(*text_++);
}

void CharSource::unget(int c) noexcept {
    if (c != EOF) pushed_ = c;
}

int scan(CharSource &in, const char *pattern, int32_t *const *values) {
    int stored = 0;
    for (const char *p = pattern; *p; ++p) {
        if (*p == ' ') {
            int c;
            do c = in.get();
            while (is_blank(c));
            in.unget(c);
        } else if (p[0] == '%' && p[1] == 'd') {
            ++p;
            bool at_end = false;
            if (!scan_int(in, values[stored], &at_end)) return stored == 0 && at_end ? -1 : stored;
            ++stored;
        } else {
            const int c = in.get();
            if (c != static_cast<unsigned char>(*p)) {
                in.unget(c);
                return stored == 0 && c == EOF ? -1 : stored;
            }
        }
    }
    return stored;
}

}  // namespace bv::ghosts

using bv::ghosts::CharSource;
using bv::ghosts::scan;

extern "C" BV_API int write_ghost_mask(const char *fileName, int W, int H, int N,
                                       const int32_t *exposures, const int32_t *counts,
                                       const int32_t *coords) {
    return bv::c_boundary(BV_MASK_ERR_FILE, BV_MASK_ERR_FILE, [&]() -> int {
        int64_t total = 0;
        if (N >= 1) {
            if (!exposures || !counts) return BV_MASK_ERR_FILE;
            for (int i = 0; i < N; ++i) total += counts[i] > 0 ? counts[i] : 0;
            if (total > INT32_MAX || (total > 0 && !coords)) return BV_MASK_ERR_FILE;
        }
        bv::File f(fileName, "wb");
        if (!f) return BV_MASK_ERR_FILE;
        char buf[128];
        auto put = [&](int len) {
            return len > 0 && std::fwrite(buf, 1, static_cast<size_t>(len), f.get()) ==
                                  static_cast<size_t>(len);
        };
        if (!put(std::snprintf(buf, sizeof buf, "BrackvistaGhostingMask W%d H%d N%d T%d", W, H, N,
                               static_cast<int>(total))))
            return BV_MASK_ERR_FILE;
        size_t at = 0;
        for (int i = 0; i < N; ++i) {
            if (!put(std::snprintf(buf, sizeof buf, " S%d E%d P%d C", i, exposures[i], counts[i])))
                return BV_MASK_ERR_FILE;
            for (int k = 0; k < counts[i]; ++k, at += 2)
                if (!put(std::snprintf(buf, sizeof buf, "%d,%d ", coords[at], coords[at + 1])))
                    return BV_MASK_ERR_FILE;
        }
        // Buffered writes only fail for certain when the file is closed.
        if (f.close() != 0) return BV_MASK_ERR_FILE;
        return static_cast<int>(total);
    });
}

extern "C" BV_API int get_mask_info(const char *fileName, int *width, int *height, int *count) {
    return bv::c_boundary(BV_MASK_ERR_NOMEM, BV_MASK_ERR_FILE, [&]() -> int {
        bv::File f(fileName, "rb");
        if (!f) return BV_MASK_ERR_FILE;
        if (fseeko(f.get(), 0, SEEK_END) != 0) return BV_MASK_ERR_FILE;
        const off_t size = ftello(f.get());
        if (size < 0 || fseeko(f.get(), 0, SEEK_SET) != 0) return BV_MASK_ERR_FILE;
        if (size < 60) {
            bv::diag(bv::Stream::Err,
                         "get_mask_info - %s is too short to be a valid Brackvista Ghosting Mask "
                         "file (%d vs %d)\n",
                         fileName, 59, static_cast<int>(size));
            return BV_MASK_ERR_SIZE;
        }
        if (size > 1000000) {
            const int shown = size > INT32_MAX ? INT32_MAX : static_cast<int>(size);
            bv::diag(bv::Stream::Err, "get_mask_info - %s size %d more than %d Kb\n", fileName, 1000,
                         shown);
            return BV_MASK_ERR_SIZE;
        }
        bv::Scratch<char> text;
        if (!text.alloc(static_cast<size_t>(size) + 1)) return BV_MASK_ERR_NOMEM;
        if (std::fread(text.get(), 1, static_cast<size_t>(size), f.get()) !=
            static_cast<size_t>(size)) {
            bv::diag(bv::Stream::Err, "get_mask_info - could not read file\n");
            return BV_MASK_ERR_FILE;
        }
        int32_t w = 0, h = 0, n = 0, t = 0;
        int32_t *const fields[] = {&w, &h, &n, &t};
        CharSource in(text.get());
        // A bad header is reported but never fatal: unmatched values read as 0.
        if (scan(in, "BrackvistaGhostingMask W%d H%d N%d T%d", fields) < 4)
            bv::diag(bv::Stream::Err, "get_mask_info - %s isn't a Brackvista Ghosting Mask file",
                         fileName);
        if (width) *width = w;
        if (height) *height = h;
        if (count) *count = n;
        return t;
    });
}

extern "C" BV_API int get_mask_data(const char *fileName, int32_t *exposures, int32_t *counts,
                                    int32_t *coords) {
    return bv::c_boundary(BV_MASK_ERR_NOMEM, BV_MASK_ERR_FILE, [&]() -> int {
        bv::File f(fileName, "rb");
        if (!f) {
            bv::diag(bv::Stream::Err, "get_mask_data - could not open input file\n");
            return BV_MASK_ERR_FILE;
        }
        CharSource in(f.get());
        int32_t w = 0, h = 0, n = 0, t = 0;
        int32_t *const header[] = {&w, &h, &n, &t};
        if (scan(in, "BrackvistaGhostingMask W%d H%d N%d T%d", header) < 4) {
            bv::diag(bv::Stream::Err, "get_mask_data - %s isn't a Brackvista Ghosting Mask file",
                         fileName);
            return BV_MASK_ERR_SIZE;
        }
        if (n >= 1 && (!exposures || !counts)) return BV_MASK_ERR_FILE;
        int64_t read = 0;
        for (int i = 0; i < n; ++i) {
            int32_t s = 0, e = 0, p = 0;
            int32_t *const sel[] = {&s, &e, &p};
            if (scan(in, " S%d E%d P%d C", sel) < 3) {
                bv::diag(bv::Stream::Err,
                             "get_mask_data - could not find path header info for path: %d", i);
                return BV_MASK_ERR_SIZE;
            }
            if (s != i)
                bv::diag(bv::Stream::Err, "get_mask_data - selection read is %d but expected %d", s, i);
            exposures[i] = e;
            counts[i] = p;
            if (read + p > t) {
                bv::diag(bv::Stream::Err,
                             "get_mask_data path %d - nbPoints is %d  but total is %d (read "
                             "already %d)",
                             i, p, t, static_cast<int>(read));
                return BV_MASK_ERR_TOTAL;
            }
            if (p > 0 && !coords) return BV_MASK_ERR_FILE;
            for (int k = 0; k < p; ++k, ++read) {
                int32_t *const xy[] = {&coords[2 * read], &coords[2 * read + 1]};
                if (scan(in, "%d,%d ", xy) < 2) {
                    bv::diag(bv::Stream::Err,
                                 "get_mask_data - could not find coords at path %d  for point "
                                 "%d\n",
                                 i, static_cast<int>(read));
                    return BV_MASK_ERR_FILE;
                }
            }
        }
        return n < 0 ? 0 : n;
    });
}
