// Radiance picture files: the run-length encoder and the two writers.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/diag.hpp"
#include "common/pixels.hpp"
#include "core/radiance/radiance_io.hpp"

namespace bv::radiance {

size_t encode_component(const uint8_t *src, size_t n, uint8_t *out) noexcept {
    uint8_t *o = out;
    size_t base = 0, lit = 0;
    auto emit_literal = [&] {
        *o++ = static_cast<uint8_t>(lit);
        std::memcpy(o, src + base, lit);
        o += lit;
        base += lit;
        lit = 0;
    };
    while (base < n) {
        size_t p = base + lit;
        // Bytes that differ from their successor only lengthen the literal:
        // skip them eight at a time while the literal can neither fill up
        // nor reach the end, then take the next step one run at a time.
        const size_t room = 126 - lit < n - 1 - p ? 126 - lit : n - 1 - p;
        size_t k = 0;
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        while (k + 8 <= room) {
            uint64_t a, b;
            std::memcpy(&a, src + p + k, 8);
            std::memcpy(&b, src + p + k + 1, 8);
            const uint64_t x = a ^ b;
            const uint64_t zero = (x - 0x0101010101010101ull) & ~x & 0x8080808080808080ull;
            if (zero) {
                k += static_cast<size_t>(__builtin_ctzll(zero)) >> 3;
                break;
            }
            k += 8;
        }
#endif
        if (k > room) k = room;
        lit += k;
        p += k;
        const size_t limit = n - p < 127 ? n - p : 127;
        const uint8_t v = src[p];
        size_t r = 1;
        while (r < limit && src[p + r] == v) ++r;
        if (r >= 5) {
            if (lit > 0) emit_literal();
            *o++ = static_cast<uint8_t>(128 + r);
            *o++ = v;
            base += r;
        } else {
            // Short runs cost less inside a literal than as packets of their own.
            lit = lit + r < 127 ? lit + r : 127;
            if (lit == 127 || base + lit >= n) emit_literal();
        }
    }
    return static_cast<size_t>(o - out);
}

namespace {

// Collects output in one large buffer so the file sees few, large writes.
class OutSink {
public:
    void set_file(FILE *f) { f_ = f; }
    bool alloc(size_t cap) {
        cap_ = cap;
        return buf_.alloc(cap);
    }
    // Room for n bytes (n <= capacity); null when flushing failed.
    uint8_t *reserve(size_t n) {
        if (cap_ - len_ < n && !flush()) return nullptr;
        return buf_.get() + len_;
    }
    void commit(size_t n) { len_ += n; }
    bool flush() {
        const bool ok = len_ == 0 || std::fwrite(buf_.get(), 1, len_, f_) == len_;
        len_ = 0;
        return ok;
    }

private:
    FILE *f_ = nullptr;
    Scratch<uint8_t> buf_;
    size_t cap_ = 0, len_ = 0;
};

void appendf(std::string *s, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string *s, const char *fmt, ...) {
    char line[160];
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (n > 0) s->append(line, size_t(n) < sizeof line ? size_t(n) : sizeof line - 1);
}

float ratio(int32_t num, int32_t den) { return static_cast<float>(num) / static_cast<float>(den); }

std::string metadata_header(int width, int height, const exifInfo *exif, const char *profile) {
    const CNumericScope numeric;
    std::string s = "#?RADIANCE\n";
    if (exif) {
        if (exif->camera[0] != '\0') appendf(&s, "CAMERA=%.64s\n", exif->camera);
        if (exif->capDate[0] != '\0') {
            // A date that already carries its line feed gets no second one.
            const size_t len = strnlen(exif->capDate, sizeof exif->capDate);
            const bool has_lf = std::memchr(exif->capDate, '\n', len) != nullptr;
            appendf(&s, has_lf ? "CAPDATE=%.20s" : "CAPDATE=%.20s\n", exif->capDate);
        }
    }
    if (profile && static_cast<signed char>(profile[0]) > 0) {
        s += "ICC_PROFILE=";
        for (int i = 0; i < 32 && profile[i] != '\0'; ++i) s += profile[i];
        s += '\n';
    }
    if (exif) {
        if (exif->exposureNum >= 1 && exif->exposureDen >= 1)
            appendf(&s, "SHUTTER=%f\n", ratio(exif->exposureNum, exif->exposureDen));
        if (exif->fNumberNum >= 1 && exif->fNumberDen >= 1)
            appendf(&s, "APERTURE=%1.2f\n", ratio(exif->fNumberNum, exif->fNumberDen));
        if (exif->iso > 0) appendf(&s, "ISO=%d\n", exif->iso);
        if (exif->focalNum >= 1 && exif->focalDen > 0)
            appendf(&s, "FOCAL_LENGTH=%1.2f\n", ratio(exif->focalNum, exif->focalDen));
        if (exif->focal35mm > 0) appendf(&s, "35MM_EQUIV=%d\n", exif->focal35mm);
        if (exif->fpXResNum >= 1 && exif->fpXResDen >= 1)
            appendf(&s, "FOCAL_PLANE_XRESOLUTION=%1.2f\n", ratio(exif->fpXResNum, exif->fpXResDen));
        if (exif->fpResUnit > 0) appendf(&s, "FOCAL_PLANE_RESOLUTIONUNIT=%d\n", exif->fpResUnit);
    }
    s += "Generated with Brackvista Pro 4.1 for Mac OS X\n";
    s += "FORMAT=32-bit_rle_rgbe\n\n";
    appendf(&s, "-Y %d +X %d\n", height, width);
    return s;
}

std::string strip_header(int width, int total_height) {
    std::string s = "#?RADIANCE\n# Generated by Brackvista Pro v4.0\nFORMAT=32-bit_rle_rgbe\n\n";
    appendf(&s, "-Y %d +X %d\n", total_height, width);
    return s;
}

// Writes a header and `rows` rows of an RGBE scanline image to an open file.
// The file is closed by the caller; returns rows or the writers' code.
class RowWriter {
public:
    explicit RowWriter(int width) : w_(size_t(width)), flat_(width > kMaxRleWidth) {}

    // Room for the header (a few hundred bytes) plus, for run-length rows,
    // 2 x width per component: 1 MiB, or less when the whole file is smaller.
    bool alloc(OutSink *sink, int rows) {
        constexpr size_t kHeaderRoom = 1024, kMax = size_t(1) << 20;
        if (flat_) return sink->alloc(kHeaderRoom) && row_.alloc(4 * w_);
        const size_t worst = kHeaderRoom + size_t(rows) * (4 + 8 * w_);
        size_t cap = worst < kMax ? worst : kMax;
        if (cap < kHeaderRoom + 2 * w_) cap = kHeaderRoom + 2 * w_;
        return sink->alloc(cap);
    }

    int write(FILE *f, OutSink *sink, const std::string &header, const uint8_t *rgbe, int rows) {
        // Headers are a few hundred bytes, below every sink capacity.
        uint8_t *h = header.size() <= 1024 ? sink->reserve(header.size()) : nullptr;
        if (!h) return BV_RAD_ERR_IO;
        std::memcpy(h, header.data(), header.size());
        sink->commit(header.size());
        const size_t row = 4 * w_;
        if (flat_) {
            if (!sink->flush()) return BV_RAD_ERR_IO;
            for (int y = 0; y < rows; ++y) {
                interleave(rgbe + size_t(y) * row, row_.get());
                if (std::fwrite(row_.get(), 4, w_, f) != w_) {
                    diag(Stream::Out, "bv_io_rgbe_write uncompressed failed on line %d\n", y);
                    return BV_RAD_ERR_FLAT_WRITE;
                }
            }
            return rows;
        }
        for (int y = 0; y < rows; ++y) {
            const uint8_t *src = rgbe + size_t(y) * row;
            uint8_t *o = sink->reserve(4);
            if (!o) return BV_RAD_ERR_IO;
            o[0] = 2;
            o[1] = 2;
            o[2] = static_cast<uint8_t>(w_ >> 8);
            o[3] = static_cast<uint8_t>(w_ & 255);
            sink->commit(4);
            for (size_t c = 0; c < 4; ++c) {
                if (!(o = sink->reserve(2 * w_))) return BV_RAD_ERR_IO;
                sink->commit(encode_component(src + c * w_, w_, o));
            }
        }
        return sink->flush() ? rows : BV_RAD_ERR_IO;
    }

private:
    void interleave(const uint8_t *src, uint8_t *dst) const {
        const RgbeRow row(src, w_);
        for (size_t x = 0; x < w_; ++x, dst += 4) row.get(x, dst);
    }

    size_t w_;
    bool flat_;
    Scratch<uint8_t> row_;
};

// Opens, writes and closes; a failed close means the data did not arrive.
int write_file(const char *path, const char *mode, int width, const std::string &header,
               const uint8_t *rgbe, int rows) {
    RowWriter writer(width);
    OutSink sink;
    if (!writer.alloc(&sink, rows)) return BV_RAD_ERR_MEMORY;
    File f(path, mode);
    if (!f) return BV_RAD_ERR_IO;
    sink.set_file(f.get());
    const int rc = writer.write(f.get(), &sink, header, rgbe, rows);
    if (f.close() != 0 && rc >= 0) return BV_RAD_ERR_IO;
    return rc;
}

}  // namespace

}  // namespace bv::radiance

using namespace bv::radiance;

extern "C" {

BV_API int bv_io_rgbe_write(const char *path, int width, int height, const exifInfo *exif,
                            int ignored, const char profile[32], const unsigned char *rgbe) {
    (void)ignored;
    return bv::c_boundary(BV_RAD_ERR_MEMORY, BV_RAD_ERR_IO, [&]() -> int {
        if (!path) return BV_RAD_ERR_IO;
        if (!rgbe || width < 1 || height < 1) return BV_RAD_ERR_ARGUMENTS;
        return write_file(path, "wb", width, metadata_header(width, height, exif, profile), rgbe,
                          height);
    });
}

BV_API int bv_write_strip_rgbe(const char *path, int k, int stripHeight, int width, int totalHeight,
                               int ignored, const unsigned char *rgbe) {
    (void)ignored;
    return bv::c_boundary(BV_RAD_ERR_MEMORY, BV_RAD_ERR_IO, [&]() -> int {
        if (!path) return BV_RAD_ERR_IO;
        if (!rgbe || k < 0 || stripHeight < 1 || width < 1 || totalHeight < 1)
            return BV_RAD_ERR_ARGUMENTS;
        const int64_t first = int64_t(k) * stripHeight;
        if (first >= totalHeight) return 0;
        const int rows =
            static_cast<int>(totalHeight - first < stripHeight ? totalHeight - first : stripHeight);
        // Strip 0 creates the file, so a stale file never keeps old rows.
        return write_file(path, k == 0 ? "wb" : "ab", width,
                          k == 0 ? strip_header(width, totalHeight) : std::string(), rgbe, rows);
    });
}

}  // extern "C"
