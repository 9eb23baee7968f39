// Radiance picture files: header probing, metadata and the scanline readers.
#include <sys/stat.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/diag.hpp"
#include "common/pixels.hpp"
#include "core/radiance/radiance_io.hpp"

namespace bv::radiance {

namespace {

// Big enough for any header piece plus the largest packet (1 + 128 bytes).
constexpr size_t kMinBuffer = 4096;
constexpr size_t kMaxBuffer = size_t(1) << 20;
constexpr size_t kMaxPacket = 129;

inline bool is_scanf_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

const char *skip_space(const char *p) {
    while (is_scanf_space(*p)) ++p;
    return p;
}

// One "%d" conversion; false (nothing stored) when no digits follow or the
// number does not fit an int.
bool scan_int(const char **pp, int *out) {
    const char *p = skip_space(*pp);
    bool neg = false;
    if (*p == '+' || *p == '-') neg = *p++ == '-';
    if (*p < '0' || *p > '9') return false;
    long long v = 0;
    while (*p >= '0' && *p <= '9') {
        v = v * 10 + (*p++ - '0');
        if (v > (long long)INT_MAX + 1) return false;
    }
    if (neg) v = -v;
    if (v > INT_MAX || v < INT_MIN) return false;
    *out = static_cast<int>(v);
    *pp = p;
    return true;
}

// Float to int by truncation, saturating where the value does not fit.
int32_t trunc_sat(float v) {
    if (!(v > -2147483648.0f)) return v != v ? 0 : INT32_MIN;
    if (v >= 2147483648.0f) return INT32_MAX;
    return static_cast<int32_t>(v);
}

// Copies a header value up to the line feed into a fixed field, zero-filled.
void copy_value(const char *value, char *field, size_t size) {
    size_t n = 0;
    while (n < size && value[n] != '\0' && value[n] != '\n') ++n;
    if (n == 0) return;
    std::memset(field, 0, size);
    std::memcpy(field, value, n);
}

bool starts_with(const char *s, const char *prefix, size_t n) {
    return std::strncmp(s, prefix, n) == 0;
}

// "%f" after a fixed key; false when no number follows.
bool scan_float_after(const char *line, const char *key, float *out) {
    const size_t n = std::strlen(key);
    if (!starts_with(line, key, n)) return false;
    const char *p = line + n;
    char *end = nullptr;
    const float v = std::strtof(p, &end);
    if (end == p) return false;
    *out = v;
    return true;
}

int64_t trunc_index(float v) { return static_cast<int64_t>(v); }

}  // namespace

// ---------------------------------------------------------------- InStream

InStream::InStream(const char *path) noexcept : f_(path, "rb") {
    struct stat st;
    if (f_ && ::fstat(::fileno(f_.get()), &st) == 0 && S_ISREG(st.st_mode))
        size_ = static_cast<uint64_t>(st.st_size);
}

bool InStream::alloc() noexcept {
    // Small files get a small buffer: cheap for thumbnails and fuzzing.
    size_t cap = kMaxBuffer;
    if (size_ != UINT64_MAX && size_ + 1 < cap) cap = size_t(size_) + 1;
    if (cap < kMinBuffer) cap = kMinBuffer;
    if (!buf_.alloc(cap)) return false;
    cap_ = cap;
    return true;
}

size_t InStream::fill(size_t want) noexcept {
    size_t have = end_ - pos_;
    if (have >= want || eof_) return have;
    if (pos_ > 0) {
        std::memmove(buf_.get(), buf_.get() + pos_, have);
        pos_ = 0;
        end_ = have;
    }
    while (end_ - pos_ < want && !eof_) {
        const size_t got = std::fread(buf_.get() + end_, 1, cap_ - end_, f_.get());
        consumed_ += got;
        end_ += got;
        if (got == 0) eof_ = true;
    }
    return end_ - pos_;
}

bool InStream::gets(char *buf, int n) noexcept {
    if (n <= 1) {
        if (n == 1) buf[0] = '\0';
        return n == 1;
    }
    int i = 0;
    while (i < n - 1) {
        if (pos_ == end_ && fill(1) == 0) break;
        const uint8_t *p = buf_.get() + pos_;
        size_t take = end_ - pos_;
        if (take > size_t(n - 1 - i)) take = size_t(n - 1 - i);
        const void *lf = std::memchr(p, '\n', take);
        if (lf) take = static_cast<const uint8_t *>(lf) - p + 1;
        std::memcpy(buf + i, p, take);
        pos_ += take;
        i += static_cast<int>(take);
        if (lf) break;
    }
    if (i == 0) return false;
    buf[i] = '\0';
    return true;
}

size_t InStream::read(uint8_t *dst, size_t n) noexcept {
    size_t done = 0;
    while (done < n) {
        if (pos_ == end_) {
            // Large remainders bypass the buffer.
            if (n - done >= cap_ && !eof_) {
                const size_t want = n - done;
                const size_t got = std::fread(dst + done, 1, want, f_.get());
                consumed_ += got;
                done += got;
                if (got < want) eof_ = true;
                break;
            }
            if (fill(1) == 0) break;
        }
        size_t take = end_ - pos_;
        if (take > n - done) take = n - done;
        std::memcpy(dst + done, buf_.get() + pos_, take);
        pos_ += take;
        done += take;
    }
    return done;
}

bool InStream::surely_shorter_than(uint64_t n) const noexcept {
    if (size_ == UINT64_MAX) return false;
    const uint64_t position = consumed_ - (end_ - pos_);
    return position > size_ || size_ - position < n;
}

// ---------------------------------------------------------------- header

void parse_resolution(const char *line, int *height, int *width) noexcept {
    const char *p = line;
    if (*p++ != '-' || *p++ != 'Y') return;
    if (!scan_int(&p, height)) return;
    p = skip_space(p);
    if (*p++ != '+' || *p++ != 'X') return;
    scan_int(&p, width);
}

bool end_of_header(const char *line, int n) noexcept {
    if (line[0] == '\0' || line[0] == '\n') return true;
    if (line[0] != ' ' && line[0] != '\t') return false;
    for (int i = 1; i < n; ++i) {
        const char c = line[i];
        if (c == '\0') return true;
        if (c != '\t' && c != '\n' && c != ' ') return false;
    }
    return true;
}

int read_header(InStream &in, Header *h, LineVisitor visit, void *ctx) noexcept {
    char line[kLineBuffer] = {};
    for (;;) {
        if (!in.gets(line, kLineBuffer)) return BV_RAD_ERR_IO;
        if (visit) visit(line, ctx);
        ++h->lines;
        if (end_of_header(line, kLineBuffer)) break;
    }
    if (!in.gets(line, kLineBuffer)) return BV_RAD_ERR_IO;
    parse_resolution(line, &h->height, &h->width);
    return 0;
}

void float_to_fraction(float v, int32_t *num, int32_t *den) noexcept {
    if (v >= 1.0f) {
        *num = trunc_sat(v * 100.0f);
        *den = 100;
    } else if (v > 0.0f) {
        *num = 100;
        *den = trunc_sat(100.0f / v);
    }
}

void parse_exif_line(const char *line, exifInfo *exif) noexcept {
    float v;
    if (starts_with(line, "CAMERA=", 7)) {
        copy_value(line + 7, exif->camera, sizeof exif->camera);
    } else if (starts_with(line, "CAPDATE=", 8)) {
        copy_value(line + 8, exif->capDate, sizeof exif->capDate);
    } else if (starts_with(line, "ICC_PROFILE=", 12)) {
        const char *p = line + 12;
        if (starts_with(p, "sRGB", 4))
            exif->profile = 0;
        else if (starts_with(p, "Adobe RGB", 9))
            exif->profile = 1;
        else if (starts_with(p, "ProPhoto RGB", 12))
            exif->profile = 2;
    } else if (scan_float_after(line, "SHUTTER=", &v)) {
        float_to_fraction(v, &exif->exposureNum, &exif->exposureDen);
    } else if (scan_float_after(line, "APERTURE=", &v)) {
        float_to_fraction(v, &exif->fNumberNum, &exif->fNumberDen);
    } else if (starts_with(line, "ISO=", 4)) {
        const char *p = line + 4;
        int iso;
        if (scan_int(&p, &iso)) exif->iso = iso;
    } else if (scan_float_after(line, "FOCAL_LENGTH=", &v)) {
        float_to_fraction(v, &exif->focalNum, &exif->focalDen);
    }
}

// ---------------------------------------------------------------- scanlines

namespace {

// Opens the file, reads its header and checks its size against the caller's.
// Leaves `in` at the first scanline. Returns 0 or the reader's code.
int open_checked(InStream &in, int width, int height, bool verbose) {
    if (!in) {
        if (verbose) diag(Stream::Err, "bv_io_read_rgbe - could not open input Radiance file\n");
        return BV_RAD_ERR_IO;
    }
    if (!in.alloc()) return BV_RAD_ERR_MEMORY;
    Header h;
    if (read_header(in, &h, nullptr, nullptr) < 0) return BV_RAD_ERR_IO;
    if (h.width != width || h.height != height) {
        if (verbose)
            diag(Stream::Err,
                 "bv_io_read_rgbe - dim found in Radiance file is %d x %d  while should "
                 "be %d x %d\n",
                 h.width, h.height, width, height);
        return BV_RAD_ERR_DIMENSIONS;
    }
    return 0;
}

// Peeks at the first scanline: 2, 2 and a third byte below 128 mean every
// row is run-length coded. Returns 1 (run-length), 0 (flat) or BV_RAD_ERR_IO.
int detect_rle(InStream &in) {
    if (in.fill(4) < 4) return BV_RAD_ERR_IO;
    const uint8_t *p = in.data();
    return p[0] == 2 && p[1] == 2 && p[2] < 128 ? 1 : 0;
}

// Reads and checks one run-length scanline header.
int scanline_header(InStream &in, int width) {
    if (in.fill(4) < 4) return BV_RAD_ERR_IO;
    const uint8_t *p = in.data();
    if (p[2] & 0x80) return BV_RAD_ERR_SCANLINE_HEADER;
    if (((p[2] << 8) | p[3]) != width) return BV_RAD_ERR_SCANLINE_WIDTH;
    in.skip(4);
    return 0;
}

// Decodes the packets of one component into dst (n bytes). The Sink sees
// every packet as (first column, length, literal bytes or null, run byte).
template <class Sink>
int decode_packets(InStream &in, size_t n, Sink &&sink) {
    size_t filled = 0;
    while (filled < n) {
        size_t a = in.avail();
        if (a < kMaxPacket) a = in.fill(kMaxPacket);
        if (a == 0) return BV_RAD_ERR_IO;
        const uint8_t *p = in.data();
        const unsigned c = p[0];
        if (c > 128) {
            const size_t cnt = c - 128;
            if (cnt > n - filled) return BV_RAD_ERR_PACKET;
            if (a < 2) return BV_RAD_ERR_IO;
            sink(filled, cnt, nullptr, p[1]);
            in.skip(2);
            filled += cnt;
        } else {
            if (c == 0 || c > n - filled) return BV_RAD_ERR_PACKET;
            if (a < 1 + size_t(c)) return BV_RAD_ERR_IO;
            sink(filled, size_t(c), p + 1, 0);
            in.skip(1 + size_t(c));
            filled += c;
        }
    }
    return 0;
}

int decode_component(InStream &in, size_t n, uint8_t *dst) {
    return decode_packets(in, n, [dst](size_t at, size_t cnt, const uint8_t *lit, uint8_t v) {
        if (lit)
            std::memcpy(dst + at, lit, cnt);
        else
            std::memset(dst + at, v, cnt);
    });
}

// Keeps the bytes at columns trunc(count * xstep) of one component.
int sample_component(InStream &in, size_t n, uint8_t *dst, int pw, float xstep) {
    int count = 0;
    int64_t want = 0;
    return decode_packets(in, n, [&](size_t at, size_t cnt, const uint8_t *lit, uint8_t v) {
        const int64_t stop = int64_t(at + cnt);
        while (count < pw && want < stop) {
            dst[count] = lit ? lit[want - int64_t(at)] : v;
            ++count;
            want = trunc_index(static_cast<float>(count) * xstep);
        }
    });
}

int skip_component(InStream &in, size_t n) {
    return decode_packets(in, n, [](size_t, size_t, const uint8_t *, uint8_t) {});
}

// Interleaved R, G, B, E pixels to planes.
void scatter_row(const uint8_t *src, size_t width, uint8_t *dst) {
    const RgbeRowOut row(dst, width);
    for (size_t x = 0; x < width; ++x, src += 4) row.set(x, src);
}

// A flat row buffer, refused up front when the file cannot hold one row so
// that a hostile width never turns into a huge allocation.
int flat_row_buffer(InStream &in, size_t row, Scratch<uint8_t> *buf) {
    if (in.surely_shorter_than(row)) return BV_RAD_ERR_IO;
    return buf->alloc(row) ? 0 : BV_RAD_ERR_MEMORY;
}

}  // namespace

int read_image(int width, int height, const char *path, uint8_t *out) noexcept {
    if (!out || width < 0 || height < 0) return BV_RAD_ERR_ARGUMENTS;
    InStream in(path);
    int rc = open_checked(in, width, height, true);
    if (rc < 0) return rc;
    const int rle = detect_rle(in);
    if (rle < 0) return BV_RAD_ERR_IO;
    const size_t w = size_t(width), row = 4 * w;
    if (rle) {
        for (int y = 0; y < height; ++y) {
            if ((rc = scanline_header(in, width)) < 0) return rc;
            uint8_t *dst = out + size_t(y) * row;
            for (int c = 0; c < 4; ++c)
                if ((rc = decode_component(in, w, dst + c * w)) < 0) return rc;
        }
        return height;
    }
    if (width == 0) return height;
    Scratch<uint8_t> buf;
    if ((rc = flat_row_buffer(in, row, &buf)) < 0) return rc;
    for (int y = 0; y < height; ++y) {
        if (in.read(buf.get(), row) != row) return BV_RAD_ERR_IO;
        scatter_row(buf.get(), w, out + size_t(y) * row);
    }
    return height;
}

int read_preview(int width, int height, int pw, int ph, const char *path, uint8_t *out) noexcept {
    if (!out || width < 0 || height < 0 || pw < 1 || ph < 1 || (width == 0 && height > 0))
        return BV_RAD_ERR_ARGUMENTS;
    InStream in(path);
    int rc = open_checked(in, width, height, false);
    if (rc < 0) return rc;
    const int rle = detect_rle(in);
    if (rle < 0) return BV_RAD_ERR_IO;
    const float xstep = static_cast<float>(width) / static_cast<float>(pw);
    const float ystep = static_cast<float>(height) / static_cast<float>(ph);
    const size_t w = size_t(width), row = 4 * w, prow = 4 * size_t(pw);
    Scratch<uint8_t> buf;
    if (!rle && height > 0 && (rc = flat_row_buffer(in, row, &buf)) < 0) return rc;

    int k = 0;  // next preview row
    int64_t want = 0;
    for (int y = 0; y < height; ++y) {
        const bool sampled = k < ph && want == y;
        uint8_t *dst = out + size_t(k) * prow;
        if (rle) {
            if ((rc = scanline_header(in, width)) < 0) return rc;
            for (int c = 0; c < 4; ++c) {
                rc = sampled ? sample_component(in, w, dst + size_t(c) * pw, pw, xstep)
                             : skip_component(in, w);
                if (rc < 0) return rc;
            }
        } else {
            if (in.read(buf.get(), row) != row) return BV_RAD_ERR_IO;
            if (sampled) {
                const uint8_t *src = buf.get();
                for (int j = 0; j < pw; ++j) {
                    int64_t col = trunc_index(static_cast<float>(j) * xstep);
                    if (col > width - 1) col = width - 1;
                    for (int c = 0; c < 4; ++c) dst[size_t(c) * pw + j] = src[4 * col + c];
                }
            }
        }
        if (!sampled) continue;
        // Several preview rows map to one file row when enlarging.
        for (;;) {
            ++k;
            want = trunc_index(static_cast<float>(k) * ystep);
            if (k >= ph || want != y) break;
            std::memcpy(out + size_t(k) * prow, dst, prow);
        }
        if (k >= ph) return height + 1;
    }
    return height;
}

}  // namespace bv::radiance

using namespace bv::radiance;

extern "C" {

BV_API int rgbe_end_of_header(const char *line, int n) {
    return line && end_of_header(line, n) ? 1 : 0;
}

namespace {
struct DimCtx {
    float primaries[8];
    RgbeDims *dims;
};
void visit_primaries(const char *line, void *p) {
    auto *ctx = static_cast<DimCtx *>(p);
    float v[8];
    if (std::sscanf(line, "PRIMARIES= %f %f %f %f %f %f %f %f", &v[0], &v[1], &v[2], &v[3], &v[4],
                    &v[5], &v[6], &v[7]) == 8) {
        std::memcpy(ctx->primaries, v, sizeof v);
        ctx->dims->primariesCount = 32;
    }
}
void visit_exif(const char *line, void *p) { parse_exif_line(line, static_cast<exifInfo *>(p)); }
}  // namespace

BV_API int rgbe_dim(const char *path, float primaries[8], RgbeDims *dims) {
    return bv::c_boundary(BV_RAD_ERR_MEMORY, BV_RAD_ERR_IO, [&]() -> int {
        if (!path || !dims) return BV_RAD_ERR_IO;
        InStream in(path);
        if (!in) return BV_RAD_ERR_IO;
        FILE *f = in.file();
        if (std::fseek(f, 0, SEEK_END) != 0) return BV_RAD_ERR_IO;
        const long size = std::ftell(f);
        if (size < 0 || std::fseek(f, 0, SEEK_SET) != 0) return BV_RAD_ERR_IO;
        if (!in.alloc()) return BV_RAD_ERR_MEMORY;
        const CNumericScope numeric;
        DimCtx ctx = {
            {0.648431f, 0.330856f, 0.321152f, 0.597871f, 0.155886f, 0.066044f, 0.3101f, 0.3162f},
            dims};
        Header h;
        if (read_header(in, &h, visit_primaries, &ctx) < 0) return BV_RAD_ERR_NO_RESOLUTION;
        if (h.width <= 0 || h.height <= 0) return BV_RAD_ERR_ZERO_SIZE;
        dims->width = h.width;
        dims->height = h.height;
        dims->fileSize = size;
        if (primaries) {
            if (dims->primariesCount < 1)
                std::memset(primaries, 0, 8 * sizeof(float));
            else
                std::memcpy(primaries, ctx.primaries, sizeof ctx.primaries);
        }
        return h.lines;
    });
}

BV_API int extract_rgbe_exif(const char *path, exifInfo *exif) {
    return bv::c_boundary(BV_RAD_ERR_MEMORY, BV_RAD_ERR_IO, [&]() -> int {
        if (!path || !exif) return BV_RAD_ERR_IO;
        InStream in(path);
        if (!in) return BV_RAD_ERR_IO;
        if (!in.alloc()) return BV_RAD_ERR_MEMORY;
        exif->profile = -1;
        const CNumericScope numeric;
        Header h;
        if (read_header(in, &h, visit_exif, exif) < 0) return BV_RAD_ERR_IO;
        // A header that "ends" inside binary data is followed by garbage, not
        // by a resolution line: such a file has none.
        if (h.width <= 0 || h.height <= 0) return BV_RAD_ERR_IO;
        return h.lines;
    });
}

BV_API int bv_io_read_rgbe(int width, int height, const char *path, unsigned char *out) {
    return bv::c_boundary(BV_RAD_ERR_MEMORY, BV_RAD_ERR_IO,
                          [&] { return read_image(width, height, path, out); });
}

BV_API int decomp2(const char *path, int width, int height, unsigned char *out) {
    return bv_io_read_rgbe(width, height, path, out);
}

BV_API int decomp_rle(const char *path, int width, int height, unsigned char *out) {
    return bv_io_read_rgbe(width, height, path, out);
}

BV_API int bv_io_read_preview_rgbe(int width, int height, int pw, int ph, const char *path,
                                   unsigned char *out) {
    return bv::c_boundary(BV_RAD_ERR_MEMORY, BV_RAD_ERR_IO,
                          [&] { return read_preview(width, height, pw, ph, path, out); });
}

}  // extern "C"
