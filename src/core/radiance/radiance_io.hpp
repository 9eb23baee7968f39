// Radiance picture files: buffered input, header parsing and the scanline encoder.
#pragma once

#include <locale.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "common/boundary.hpp"

namespace bv::radiance {

// Header lines are read in pieces of at most 127 characters, like fgets into
// a 128-byte buffer: a longer line is seen as several pieces.
constexpr int kLineBuffer = 128;

// Widths above this are written as flat rows: the run-length scanline header
// stores the width in 15 bits.
constexpr int kMaxRleWidth = 32767;

// Header numbers are always written and read with a decimal point, whatever
// locale the host set: this switches the calling thread to the C numeric
// locale for the scope.
class CNumericScope {
public:
    CNumericScope() noexcept : c_(newlocale(LC_NUMERIC_MASK, "C", locale_t(0))) {
        if (c_) old_ = uselocale(c_);
    }
    ~CNumericScope() {
        if (c_) {
            uselocale(old_);
            freelocale(c_);
        }
    }
    CNumericScope(const CNumericScope &) = delete;
    CNumericScope &operator=(const CNumericScope &) = delete;

private:
    locale_t c_;
    locale_t old_ = locale_t(0);
};

// Reads a file through one large buffer, so that scanline decoding never
// pays a stdio call per byte. Semantics of gets() match fgets().
class InStream {
public:
    // Opens path with "rb"; test with operator bool.
    explicit InStream(const char *path) noexcept;
    explicit operator bool() const noexcept { return static_cast<bool>(f_); }
    // Takes the read buffer (sized to the file, at most 1 MiB); false when it
    // cannot be allocated.
    bool alloc() noexcept;
    FILE *file() const noexcept { return f_.get(); }

    // fgets(buf, n): up to n - 1 bytes, through the first line feed, NUL
    // terminated. False at end of file before any byte.
    bool gets(char *buf, int n) noexcept;
    // Makes at least `want` bytes (at most the buffer size) available when
    // the file still holds them; returns the number available.
    size_t fill(size_t want) noexcept;
    const uint8_t *data() const noexcept { return buf_.get() + pos_; }
    size_t avail() const noexcept { return end_ - pos_; }
    void skip(size_t n) noexcept { pos_ += n; }
    // Copies up to n bytes; returns how many were copied.
    size_t read(uint8_t *dst, size_t n) noexcept;
    // True when the rest of the file is known to hold fewer than n bytes.
    bool surely_shorter_than(uint64_t n) const noexcept;

private:
    File f_;
    Scratch<uint8_t> buf_;
    size_t cap_ = 0, pos_ = 0, end_ = 0;
    uint64_t size_ = UINT64_MAX;  // unknown unless a regular file
    uint64_t consumed_ = 0;       // bytes taken from the file so far
    bool eof_ = false;
};

// Outcome of reading a header up to and including the resolution line.
struct Header {
    int lines = 0;  // header lines (pieces) read before the resolution line
    int width = 0;  // stays 0 when the resolution line is malformed
    int height = 0;
};

// Visitor called for every header line, including the line that ends it.
using LineVisitor = void (*)(const char *line, void *ctx);

// True when a header line (at most n bytes, not NULL) ends the header: it is
// empty, or only blanks follow a leading space or tab.
bool end_of_header(const char *line, int n) noexcept;

// Reads header lines until one ends the header, then the resolution line.
// Returns 0, or -1 when the file ends first.
int read_header(InStream &in, Header *h, LineVisitor visit, void *ctx) noexcept;

// Parses "-Y %d +X %d" the way scanf would, except that a number outside the
// int range counts as a failed conversion. Unparsed values are left alone.
void parse_resolution(const char *line, int *height, int *width) noexcept;

// Fills `exif` from one header line (keys CAMERA=, CAPDATE=, ICC_PROFILE=,
// SHUTTER=, APERTURE=, ISO=, FOCAL_LENGTH=).
void parse_exif_line(const char *line, exifInfo *exif) noexcept;

// Float value to numerator/denominator: v >= 1 gives trunc(v*100)/100,
// 0 < v < 1 gives 100/trunc(100/v); anything else leaves the pair alone.
void float_to_fraction(float v, int32_t *num, int32_t *den) noexcept;

// Run-length codes one component of n bytes into out (at most 2n bytes,
// n >= 1). Literal packets carry at most 127 bytes; runs of 2 to 4 equal
// bytes stay in the literal stream. Returns the number of bytes produced.
size_t encode_component(const uint8_t *src, size_t n, uint8_t *out) noexcept;

// Full read and subsampled preview into RGBE scanline images.
int read_image(int width, int height, const char *path, uint8_t *out) noexcept;
int read_preview(int width, int height, int pw, int ph, const char *path, uint8_t *out) noexcept;

}  // namespace bv::radiance
