/* Brackvista40Lib1.h - the one public interface of the Brackvista HDR library.
 *
 * Plain C99 declarations over caller-owned buffers. Every call is synchronous,
 * keeps no state between calls and returns an integer status: non-negative on
 * success (usually rows processed or a count), a negative code from the
 * family's table on failure. Sections follow the order data flows: buffers and
 * pixels, threads and progress, colour, RGBE, Radiance files, HDR generation,
 * tone mapping.
 *
 * Buffer layouts used throughout:
 *   RGB8 image      interleaved unsigned 8-bit samples, rows top to bottom.
 *   RGB16 image     interleaved unsigned 16-bit samples in host byte order.
 *   float RGB image interleaved 32-bit floats, linear radiance.
 *   RGBE scanline   each row is 4 x width bytes, planar: the width red
 *                   mantissas, the green ones, the blue ones, then the shared
 *                   exponents. Value = mantissa * 2^(E - 136); E = 0 is black.
 */
#ifndef BRACKVISTA40LIB1_H
#define BRACKVISTA40LIB1_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#if defined(BV_BUILDING_LIBRARY)
#define BV_API __attribute__((visibility("default")))
#else
#define BV_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ===================================================================== */
/*  Records                                                              */
/* ===================================================================== */

/* Sixty float slots whose meaning depends on the method reading them.
 * Slots used by the simple tone mapper: BV_TM_SLOT_* in the tone-mapping
 * section. Slots 0..14 and 20..54 carry colour adjustments when the record is handed
 * to the colour-adjustment functions (see that section). */
typedef struct TmParam {
    float slot[60];
} TmParam;

/* Image description, passed by value (40 bytes). */
typedef struct DimParam {
    int32_t width;       /* pixels */
    int32_t height;      /* rows */
    int32_t channels;    /* samples per pixel, default 3 */
    int32_t bitsIn;      /* input bits per sample, default 8 */
    int32_t bitsOut;     /* output bits per sample: 16, else 8 */
    int32_t rowIn;       /* input row length in samples (0 = unset) */
    int32_t rowOut;      /* output row length in samples (0 = unset) */
    int32_t bgr;         /* non-zero: first and last colour channels swapped */
    int32_t layout;      /* BV_LAYOUT_PLANES: output as three colour planes */
    int32_t sourceKind;  /* BV_SOURCE_FLOAT_RGB: input is interleaved float
                            RGB; anything else: RGBE scanline rows */
} DimParam;

/* Values of DimParam.layout and DimParam.sourceKind. */
enum {
    BV_LAYOUT_PLANES = 3,     /* three packed planes of width x height samples */
    BV_SOURCE_FLOAT_RGB = 10  /* interleaved 32-bit float RGB input */
};

/* Options of the tone enhancer (72 bytes). init_optim_param zeroes it. */
typedef struct optimParam {
    int32_t threads;
    int32_t useTempFiles;  /* non-zero: may stream through temporary files */
    int32_t mode;          /* 0 full size, 1 preview, 9 preview-size query */
    int32_t reserved0;
    const char *sourceFile; /* Radiance file read when no buffer is given */
    void *reserved1;
    const char *tempPath1;
    const char *solverBase;
    const char *solverP;
    const char *solverR;
    const char *solverT;
} optimParam;

/* Natural-log luminance statistics, filled by logMinMaxMoy. */
enum {
    BV_LLS_MIN = 0,    /* on input: bits per sample (32 = float RGB) */
    BV_LLS_MAX = 1,    /* on input: samples per pixel of float data */
    BV_LLS_MEAN = 2,
    BV_LLS_MEDIAN = 3,
    BV_LLS_P995 = 4,   /* 99.5th percentile */
    BV_LLS_P33 = 5     /* 33.333rd percentile */
};
typedef struct LogLumStats {
    float v[6];
} LogLumStats;

/* Camera metadata carried between bracket files and Radiance headers.
 * Rational values are numerator/denominator pairs; 0/0 means unknown. */
typedef struct exifInfo {
    char camera[64];        /* camera model, NUL-padded */
    char capDate[20];       /* capture date, NUL-padded */
    int32_t profile;        /* 0 sRGB, 1 Adobe RGB, 2 ProPhoto RGB, -1 other */
    int32_t exposureNum, exposureDen;   /* exposure time in seconds */
    int32_t fNumberNum, fNumberDen;     /* aperture f-number */
    int32_t iso;                        /* ISO speed, 0 unknown */
    int32_t focalNum, focalDen;         /* focal length in mm */
    int32_t focal35mm;                  /* 35 mm equivalent focal length */
    int32_t fpXResNum, fpXResDen;       /* focal-plane X resolution */
    int32_t fpResUnit;                  /* focal-plane resolution unit */
} exifInfo;

/* Dimensions found in a Radiance file header, filled by rgbe_dim. */
typedef struct RgbeDims {
    int32_t width;
    int32_t height;
    int64_t fileSize;        /* bytes */
    int32_t primariesCount;  /* set to 32 when a PRIMARIES= line was read;
                                the caller initialises it, normally to 0 */
} RgbeDims;

/* ===================================================================== */
/*  Status codes as text                                                 */
/* ===================================================================== */
/* @section codes */

/* Families of the status codes: each family has its own table of negative
 * codes (see the family's section), so a code is read with its family. */
enum {
    BV_FAMILY_BUFFERS = 1,     /* buffer and pixel helpers, strip files */
    BV_FAMILY_THREADS = 2,     /* DivideWork */
    BV_FAMILY_COLOUR = 3,      /* colour-space helpers */
    BV_FAMILY_RGBE = 4,        /* RGBE, float TIFF, log-luminance statistics */
    BV_FAMILY_RADIANCE = 5,    /* Radiance files */
    BV_FAMILY_HDRGEN = 6,      /* exposures, response curve, merge */
    BV_FAMILY_TONEMAP = 7,     /* tone-mapping parameters, tm_simple */
    BV_FAMILY_COLORADJUST = 8  /* colour adjustment */
};

/* A short English text (no trailing newline) for `code` as returned by a
 * function of `family`: "ok" for code >= 0, the code's meaning for a code of
 * the family's table, "unknown code" or "unknown family" otherwise. Where a
 * family gives one number two meanings (Radiance -2 and -4), the text names
 * both. The text is static: never NULL, never freed, safe from any thread. */
BV_API const char *bv_code_text(int family, int code);
/* @end codes */

/* ===================================================================== */
/*  Buffers and pixel helpers                                            */
/* ===================================================================== */
/* @section buffers */

/* Codes of the buffer and pixel helpers. */
enum {
    BV_BUF_ERR_FILE = -1,        /* file cannot be opened, read or written;
                                    copyAndConvertImageRows, bgr2rgb: a swap
                                    of unsupported depth or channels */
    BV_BUF_ERR_ARG = -3,         /* NULL buffer or negative size */
    BV_STRIP_ERR_SEEK = -20,     /* write_strip/read_strip: seek failed */
    BV_STRIP_ERR_READ = -21,     /* read_strip: short read */
    BV_STRIP_ERR_WRITE = -22     /* write_strip: short write */
};

/* --- Rounding and clamping (pure) ------------------------------------ */

/* Nearest integer, exact halves going down; truncates toward zero first, so
 * arrondi(2.5) = 2, arrondi(-2.7) = -2. */
BV_API int      arrondi(float value);
/* The smaller of a and b. */
BV_API int      plafond(int a, int b);
/* b truncated toward zero when (float)a > b, else a. */
BV_API int      coupeh(int a, float b);
/* Clamp to 0..255. */
BV_API int      lim8(int value);
BV_API int      lim8int(int value);
/* Clamp to 0..65535. */
BV_API int64_t  lim16(int64_t value);
/* 255 when value >= 255, the truncated value when above 0, else 0 (NaN: 0). */
BV_API uint8_t  lim8f(float value);
/* v = (p * 0.01)^g * 1000, rounded like arrondi (exact halves down). */
BV_API int      clipvar(int p, double g);
BV_API int      fclipvar(float p, double g);
/* a + (b - a) * t in single precision. */
BV_API float    lerp(float a, float b, float t);
/* memcpy of n bytes from src to dst; returns 1 (also for n = 0). */
BV_API int      copie_mem(const void *src, size_t n, void *dst);

/* --- Byte-order readers ----------------------------------------------- */
/* Bytes past the end of the file (or a NULL file) read as 0. */

/* Big-endian unsigned 32 and 64 bits. */
BV_API uint32_t fget4m(FILE *f);
BV_API uint64_t fget8m(FILE *f);
/* Big-endian 16 and 32 bits. */
BV_API uint16_t fgetm2(FILE *f);
BV_API uint32_t fgetm4(FILE *f);
/* Little-endian when order is 0x4949 ("II"), big-endian for any other order. */
BV_API uint16_t fgetmi2(FILE *f, uint16_t order);
BV_API uint32_t fgetmi4(FILE *f, uint16_t order);

/* --- Row copy and depth conversion ------------------------------------ */

/* Copies bytesPerRow bytes of each of `rows` rows (strides in bytes).
 * Returns rows, 0 when rows < 1; -3 on NULL buffers. */
BV_API int copyImageRows(int rows, size_t bytesPerRow, size_t srcStride, size_t dstStride,
                         const void *src, void *dst);
/* Strides in samples. swap != 0: copies width pixels per row exchanging the
 * first and third samples (RGB <-> BGR); only 3 samples per pixel and 8 or
 * 16 bits are accepted, else -1 with nothing written; returns height.
 * swap == 0: copies min(srcStride, dstStride) samples per row and returns 0
 * (not the row count). -3 on NULL buffers or negative sizes. */
BV_API int copyAndConvertImageRows(int width, int height, int srcStride, int dstStride,
                                   int samplesPerPixel, int bitsPerSample, int swap,
                                   const void *src, void *dst);
/* Widens rows of width * bitsPerPixel / 8 bytes to paddedWidth * bitsPerPixel
 * / 8 bytes, zeroing the added bytes. src and dst may be the same buffer.
 * Returns 1 at once when paddedWidth <= width, else height; -3 on NULL. */
BV_API int fillRowStride(int height, int bitsPerPixel, int width, int paddedWidth,
                         const void *src, void *dst);
/* In place, exchanges the first and third sample of every pixel (8- or
 * 16-bit samples). rowStride in bytes. Returns height; -1 for other bit
 * depths or fewer than 3 samples per pixel; -3 on NULL or a rowStride
 * shorter than a row. */
BV_API int bgr2rgb(int width, int height, int rowStride, int samplesPerPixel,
                   int bitsPerSample, void *buffer);
/* In place, keeps the high byte of each 16-bit sample: every row of rowBytes
 * bytes becomes (rowBytes + 1) / 2 bytes, rows packed. width and
 * samplesPerPixel are not read. Returns height; -3 on NULL. */
BV_API int from16to8(int width, int height, int samplesPerPixel, int rowBytes,
                     void *buffer);
/* The same into a separate destination. */
BV_API int from16to8copy(int width, int height, int samplesPerPixel, int rowBytes,
                         const void *src, void *dst);
/* RGB16 to RGB8 by high byte (no rounding, no dithering); srcStride in
 * samples, dstStride in bytes. Returns height; -3 on NULL. */
BV_API int generateOriginalFrom16Bit(int width, int height, int srcStride, int dstStride,
                                     int samplesPerPixel, const uint16_t *src, uint8_t *dst);

/* --- HDR to 8-bit display renderings ----------------------------------- */
/* From an RGBE scanline image through the caller's exponent table (see
 * exp_lut_old). Output is B, G, R; each channel is
 * pow(mantissa * k * table[E], gamma) * 256 clamped to 0..255 and truncated;
 * E = 0 gives black. Return height; -3 on NULL. */

/* k = 0.6004653, gamma 0.45; each output row is width * 3 bytes followed by
 * extraBytes bytes that are left unwritten. */
BV_API int applyGammaToHDR(int width, int height, const float *table, int extraBytes,
                           const uint8_t *rgbe, uint8_t *dst);
/* k = scale, gamma 1/2.2 in single precision; contiguous rows. */
BV_API int getTonemappedRep(int width, int height, const float *table, const uint8_t *rgbe,
                            uint8_t *dst, float scale);
/* k = scale and the given gamma; dstStride in bytes (at least width * 3). */
BV_API int generateOriginalFromHDR(int width, int height, int dstStride, const float *table,
                                   const uint8_t *rgbe, uint8_t *dst, float gamma,
                                   float scale);

/* --- Raw buffers and strip files --------------------------------------- */

/* Writes size bytes to path ("wb"). Returns size; -1 when the file cannot be
 * opened or fewer bytes were written; -3 on NULL or negative size. */
BV_API int64_t save_buffer(const char *path, const void *buffer, int64_t size);
/* Reads exactly size bytes from path ("rb"); stores size in *outSize.
 * Returns 1; -1 when the file cannot be opened or is shorter; -3 on NULL. */
BV_API int load_buffer(const char *path, void *buffer, int64_t size, int64_t *outSize);
/* Seeks to offset * 4 bytes, then writes / reads count floats. Return 4;
 * -20 when the seek fails (also NULL file or negative offset/count); -22 short
 * write, -21 short read, each with a message on standard output. count = 0
 * returns 4. */
BV_API int write_strip(FILE *f, int64_t offset, int64_t count, const float *data);
BV_API int read_strip(FILE *f, int64_t offset, int64_t count, float *data);

/* --- Mersenne twister -------------------------------------------------- */

/* Generator state: position in bytes (0..2496), then 624 words. */
typedef struct MtRandom {
    uint32_t pos;
    uint32_t mt[624];
} MtRandom;

/* Word i = i and position 2496 (exhausted); there is no seed. */
BV_API void     mt_init(MtRandom *state);
/* Next raw state word (no tempering); regenerates all words when exhausted.
 * A position that is not a multiple of 4 below 2496 counts as exhausted.
 * NULL state: returns 0. */
BV_API uint32_t mt_random(MtRandom *state);

/* @end buffers */

/* ===================================================================== */
/*  Threads, tiles and progress                                          */
/* ===================================================================== */

/* Progress callback: receives a cancel flag initialised to 0 and the
 * fraction done (0..1). Setting *cancel to non-zero asks the running
 * operation to stop at its next check. Always called on the calling thread. */
typedef void (*bv_progress_cb)(int32_t *cancel, float fraction);

/* Calls callback (if not NULL) with the fraction done. Returns 1 to go on,
 * 0 when the host asked to stop. NULL callback: returns 1. */
BV_API int progress(bv_progress_cb callback, float value);

/* Worker of DivideWork: receives its own copy of the template record, whose
 * first four int32 are thread index, threaded flag, first row, end row. */
typedef void *(*bv_band_worker)(void *record);

/* Codes of DivideWork. */
enum {
    BV_DW_EBADARG = -1,  /* NULL worker or template, recordSize below 16 */
    BV_DW_ENOMEM = -4    /* the records cannot be allocated */
};

/* Runs worker over rows [start, end) split into `threads` bands (the last
 * band takes the remainder; more threads than rows gives one row each).
 * One thread runs inline with threaded flag 0. A failed thread creation runs
 * that band inline. Returns 0; BV_DW_EBADARG, BV_DW_ENOMEM. */
BV_API int DivideWork(int start, int end, int threads, bv_band_worker worker,
                      const void *templ, size_t recordSize);

/* Rectangle [x0,x1) x [y0,y1) of tile (col,row) of a cols x rows grid of
 * tw x th tiles over a W x H image, extended by `overlap` inside the image. */
BV_API void get_tile_coordinates(int W, int H, int tw, int th, int cols, int rows,
                                 int overlap, int col, int row, int *x0, int *y0,
                                 int *x1, int *y1);

/* Tile grid for tiled smoothing of a width x height image: tiles of at most
 * about memBudget bytes of float RGB work, overlapping by *overlap pixels.
 * Always returns a grid whose tiles cover the image. Returns cols * rows. */
BV_API int getDenoiseTileInfo(int width, int height, size_t memBudget, int *cols,
                              int *rows, int *tileW, int *tileH, int *overlap);

/* @section threads */
/* @end threads */

/* ===================================================================== */
/*  Colour-space helpers                                                 */
/* ===================================================================== */
/* @section colour */
/* All conversions work on float triples. Hue, saturation, lightness and value
 * are 0..1; "norm" and unranged RGB is 0..1. Functions returning int give 1,
 * or BV_COLOUR_EARG when a required pointer is NULL. */
enum {
    BV_COLOUR_EARG = -1  /* NULL pointer; rgb2Lab: also a negative index */
};

/* HSL of a 0..1 RGB triple: hsl = H, S, L. */
BV_API int   rgb_to_hsl(const float rgb[3], float hsl[3]);
/* One channel of HSL to RGB: h is wrapped once into 0..1. */
BV_API float hue_to_rgb(float p, float q, float h);
/* RGB (0..1) of an HSL triple. */
BV_API int   hsl_to_rgb(const float hsl[3], float rgb[3]);

/* The same three conversions under the names exposure fusion uses. */
BV_API int   frgb2hsl(const float rgb[3], float hsl[3]);
BV_API float fhue2rgb(float p, float q, float h);
BV_API int   fhsl2rgb(const float hsl[3], float rgb[3]);

/* Ranged variants: RGB values are 0..range (e.g. 255); range < 1 counts as
 * 1. rgb2hsl divides by range first; hsl2rgb returns RGB scaled back to
 * 0..range; hue2rgb takes p, q in 0..range and returns 0..range. */
BV_API int   rgb2hsl(int range, const float rgb[3], float hsl[3]);
BV_API float hue2rgb(int range, float p, float q, float h);
BV_API int   hsl2rgb(int range, const float hsl[3], float rgb[3]);

/* HSL on 0..1 values (used by the colour adjustments). */
BV_API int   rgb2hsl_norm(const float rgb[3], float hsl[3]);
BV_API int   hsl2rgb_norm(const float hsl[3], float rgb[3]);

/* HSV on 0..1 values. hsv2rgb_norm leaves rgb unchanged for a hue of
 * exactly 1 (or outside -1/6..1). */
BV_API int   rgb2hsv_norm(const float rgb[3], float hsv[3]);
BV_API int   hsv2rgb_norm(const float hsv[3], float rgb[3]);

/* CIE L*a*b* (D65) through the Adobe RGB (1998) matrices. useFloats != 0:
 * rgb is linear RGB; 0: channel c is table[index[c]] (a linearisation table
 * the caller sizes; a negative index gives -1). */
BV_API int   rgb2Lab(int useFloats, const float rgb[3], const float *table,
                     const int32_t index[3], float Lab[3]);
/* Inverse: useFloats != 0 writes linear RGB to rgb; 0 writes to out the
 * entries table[min(trunc(c * n + 0.5), n)] (table[0] below zero), so table
 * needs n + 1 entries. */
BV_API int   Lab2rgb(int useFloats, const float Lab[3], float rgb[3], int n,
                     const float *table, float out[3]);

/* XYZ (Y = 1) of the daylight white at temperature T kelvin. Returns 1, or
 * 0 leaving XYZ untouched when T <= 0, not finite or the locus gives y = 0;
 * -1 for NULL. */
BV_API int   kelvin2XYZ(float T, float XYZ[3]);

/* RGB->XYZ and XYZ->RGB matrices, row-major, of space 0 sRGB (D65), 1 Adobe
 * RGB (1998) (D65), 2 ProPhoto RGB (D50). Another space leaves both
 * untouched. Returns 1 (-1 for NULL with a known space). */
BV_API int   getRGB_to_from_XYZ(int space, float toXYZ[9], float fromXYZ[9]);
/* @end colour */

/* ===================================================================== */
/*  RGBE pixels, float TIFF and log-luminance statistics                 */
/* ===================================================================== */
/* @section rgbe */

/* Codes of the RGBE, float TIFF and statistics functions. */
enum {
    BV_RGBE_ERR_OPEN = -1,    /* fp2rgbe: file cannot be opened;
                                 log_histo: empty range (lo >= hi) */
    BV_RGBE_ERR_WRITE = -2,   /* fp_save: open or write failed */
    BV_RGBE_ERR_ARG = -3,     /* NULL buffer, negative size, or a size the
                                 format cannot hold */
    BV_RGBE_ERR_NOMEM = -4    /* scratch memory could not be allocated */
};

/* Fills table[e] = 2^(e - 136) for e = 1..255; table[0] holds the bit
 * pattern 0x00002000 (never used: E = 0 is black). Returns 256; -3 on NULL. */
BV_API int exp_lut_old(float table[256]);

/* Decodes pixel x of an RGBE scanline row whose G, B and E planes start at
 * gOff, bOff and eOff bytes: out = mantissa * table[E], or 0 when E = 0.
 * Returns E; -3 on NULL. */
BV_API int rgbe2float(const unsigned char *row, const float *table, int gOff, int bOff,
                      int eOff, int x, float out[3]);

/* RGBE scanline image to float RGB (half = 0) or to three IEEE half floats
 * per pixel (half != 0, out is uint16_t). rowStride: output row length in
 * elements (0: width * 3). normalise != 0 maps the log-luminance minimum to 0
 * and scales by scale / (99.5th percentile - minimum), clamping at 0;
 * normalise == 0 ignores scale. Returns height (0 when height < 1);
 * -3 on NULL buffers, negative width or rowStride < width * 3; -4 no memory. */
BV_API int rgbe2fp(int width, int height, int rowStride, int normalise, int half,
                   const unsigned char *rgbe, void *out, float scale);

/* 8- or 16-bit image to RGBE scanline rows (out: height * width * 4 bytes)
 * through the response table (256 or 65536 floats, indexed by sample).
 * R, G, B are samples 0, (pixelStep - 1) / 2 and pixelStep - 1 of each pixel
 * (bgr != 0 exchanges R and B); rowStep in samples. Very dark pixels (and
 * saturated 8-bit ones) become grey at the smallest (largest) luminance
 * found. Other bit depths give an all-black image. Returns height (0 when
 * height < 1); -3 on NULL buffers, negative width or pixelStep < 1. */
BV_API int convert_to_rgbe(int bits, int width, int height, int pixelStep, int rowStep,
                           int bgr, const float *table, const void *src, unsigned char *out);

/* Reads one 32-bit float in the given byte order (0x4949: little-endian,
 * else big-endian) with exponent bias 128: every value read is half its IEEE
 * value; all-zero bytes give 0. A short read or NULL file gives 0. */
BV_API float readfloat(uint16_t order, FILE *f);

/* Reads the float pixel data of a TIFF (samples per pixel s; with s = 2 or 4
 * the last sample is alpha and skipped) starting at dataOffset bytes into
 * RGBE scanline rows. Stores 256 * the smallest positive, 256 * the largest
 * and 256 * the mean luminance (0.3 R + 0.6 G + 0.1 B). An unknown byte-order
 * mark stores min 25599999475712 and max 0 and is not an error. Missing data
 * reads as 0. Returns 1; -1 when the file cannot be opened; -3 on NULL or
 * bad sizes. */
BV_API int fp2rgbe(const char *path, int width, int height, int samplesPerPixel,
                   int64_t dataOffset, float *minOut, float *maxOut, float *meanOut,
                   unsigned char *rgbe);

/* Writes an RGBE scanline image as an uncompressed little-endian 32-bit
 * float RGB TIFF (normalise as in rgbe2fp with scale 1). Returns height;
 * -2 when the file cannot be opened or a write fails (the file is closed);
 * -3 on NULL rgbe, sizes below 1, above 65535 or over 4 GiB of pixel data;
 * -4 no memory. */
BV_API int fp_save(const char *path, int width, int height, int normalise,
                   const unsigned char *rgbe);

/* Natural-log luminance statistics (see LogLumStats). On input stats->v[0]
 * is the bits per sample of data (32: float RGB image with stats->v[1]
 * samples per pixel; anything else: RGBE scanline image through table).
 * Returns height (0 when height < 1, with min 1e11, max = mean = 0);
 * -3 on NULL; -4 when the sample buffer cannot be allocated. */
BV_API int logMinMaxMoy(int width, int height, const float *table, const void *data,
                        LogLumStats *stats);

/* Adds each of count values to bin trunc((v - lo) * (nbins - 1) / (hi - lo))
 * of hist, clamped to 0..nbins-1; hist is not cleared first. Returns 1
 * (also for count 0); -1 when lo >= hi, nbins is 0 or a needed pointer is
 * NULL, leaving hist untouched. */
BV_API int log_histo(uint64_t count, uint32_t nbins, const float *values, int32_t *hist,
                     float lo, float hi);

/* Bin of the given fraction of count: with target = trunc(count * fraction),
 * 0 when target < hist[0], else the smallest k >= 1 whose cumulative count
 * over bins 0..k exceeds target, or nbins when none does. 0 when nbins < 1
 * or hist is NULL. */
BV_API int percentile(uint64_t count, uint32_t nbins, const int32_t *hist, float fraction);

/* IEEE half float nearest to f (ties to even), with subnormals, infinities
 * and NaN (kept quiet, sign preserved). */
BV_API uint16_t floatToHalf(float f);

/* @end rgbe */

/* ===================================================================== */
/*  Radiance HDR files                                                   */
/* ===================================================================== */
/* @section radiance */
/* File layout: text header lines ("#?RADIANCE", KEY=value lines), a blank
 * line, the resolution line "-Y <height> +X <width>", then height scanlines,
 * either flat (R, G, B, E per pixel) or run-length coded (2, 2, width >> 8,
 * width & 255, then each component as packets). Only "-Y +X" orientation is
 * read. A flat file whose first pixel is 2, 2, b < 128 is taken for a
 * run-length file and cannot be read back; the RGBE encoders never produce
 * such a pixel (their largest mantissa is at least 128). All readers fill
 * caller-allocated RGBE scanline images and never read outside them or the
 * file; header numbers use a decimal point whatever the locale; everything
 * here is single-threaded. */
enum {
    BV_RAD_ERR_IO = -1,          /* cannot open, read or write; header or data ends early */
    BV_RAD_ERR_FLAT_WRITE = -2,  /* writers: a flat row could not be written */
    BV_RAD_ERR_NO_RESOLUTION = -2, /* rgbe_dim: no resolution line before the end */
    BV_RAD_ERR_ZERO_SIZE = -3,   /* rgbe_dim: width or height is 0 or negative */
    BV_RAD_ERR_MEMORY = -4,      /* out of memory */
    BV_RAD_ERR_SCANLINE_WIDTH = -4, /* readers: a run-length scanline of another width */
    BV_RAD_ERR_DIMENSIONS = -200, /* the file's size differs from the expected one */
    BV_RAD_ERR_SCANLINE_HEADER = -201, /* scanline header with the width's high bit set */
    BV_RAD_ERR_PACKET = -202,    /* packet code 0, or a packet past the component's end */
    BV_RAD_ERR_ARGUMENTS = -203  /* NULL buffer, negative or zero sizes */
};

/* 1 when a header line of at most n bytes ends the header: it is empty, or
 * holds only spaces, tabs and line feeds after a leading space or tab (a lone
 * carriage return does not end it); else 0. NULL line: 0. */
BV_API int rgbe_end_of_header(const char *line, int n);

/* Probes a Radiance file: dims gets width, height and file size; primaries
 * (may be NULL) gets the eight PRIMARIES= values (red, green, blue, white x y),
 * defaults when the file has none, or zeros when dims->primariesCount (which
 * the caller initialises, normally to 0, and which becomes 32 when the file
 * has a PRIMARIES= line) is below 1. Returns the number of header lines
 * before the resolution line; -1 NULL path or dims, open or seek failure;
 * -2 no resolution line before the end of the file; -3 width or height not
 * positive; -4 out of memory. */
BV_API int rgbe_dim(const char *path, float primaries[8], RgbeDims *dims);

/* Reads the header keys CAMERA=, CAPDATE=, ICC_PROFILE=, SHUTTER=,
 * APERTURE=, ISO= and FOCAL_LENGTH= into exif (profile is first set to -1;
 * absent keys leave their fields alone; SHUTTER=0.5 becomes 100/200,
 * APERTURE=8 becomes 800/100). Returns the number of lines read before the
 * resolution line; -1 NULL argument, open failure, or no resolution line
 * with a positive width and height after the header; -4 out of memory. */
BV_API int extract_rgbe_exif(const char *path, exifInfo *exif);

/* Reads a whole Radiance file of width x height pixels into out
 * (4 x width x height bytes, caller-allocated, RGBE scanline image). Returns
 * height; -1 open failure (with the message "bv_io_read_rgbe - could not open
 * input Radiance file"), header end or short read; -4 out of memory or a
 * run-length scanline of another width; -200 other dimensions in the file
 * (message on standard error); -201, -202 bad run-length data; -203 NULL out,
 * negative width or height. On failure out keeps the rows already read. */
BV_API int bv_io_read_rgbe(int width, int height, const char *path, unsigned char *out);

/* Other names of bv_io_read_rgbe(width, height, path, out). */
BV_API int decomp2(const char *path, int width, int height, unsigned char *out);
BV_API int decomp_rle(const char *path, int width, int height, unsigned char *out);

/* Subsampled read: preview row k is file row trunc(k * height / ph), column j
 * file column trunc(j * width / pw) (steps as floats); out holds 4 x pw x ph
 * bytes. Returns height + 1 when all ph rows were filled (the reader stops
 * there), height when the file rows ran out first, 0 for a file without rows;
 * codes as bv_io_read_rgbe without messages; -203 also for pw or ph below 1,
 * or width 0 with rows. */
BV_API int bv_io_read_preview_rgbe(int width, int height, int pw, int ph, const char *path,
                                   unsigned char *out);

/* Writes an RGBE scanline image of width x height as a Radiance file, with
 * the metadata of exif (may be NULL) and the colour profile name (at most
 * 32 characters, may be NULL) in the header. Rows are run-length coded up to
 * width 32767 and flat above. Returns height; -1 NULL path, open or write
 * failure; -2 a flat row could not be written (message on standard output);
 * -4 out of memory; -203 NULL rgbe, width or height below 1. `ignored` is
 * not read. */
BV_API int bv_io_rgbe_write(const char *path, int width, int height, const exifInfo *exif,
                            int ignored, const char profile[32], const unsigned char *rgbe);

/* Writes strip k (from 0) of an image of width x totalHeight made of strips
 * of stripHeight rows: strip 0 creates the file with a plain header, later
 * strips are appended; call in order 0, 1, 2, ... from one thread. rgbe holds
 * the strip's rows (the last strip may be shorter). Returns the rows written
 * (0 for a strip past the end); codes as bv_io_rgbe_write, -203 also for a
 * negative k or stripHeight below 1. */
BV_API int bv_write_strip_rgbe(const char *path, int k, int stripHeight, int width,
                               int totalHeight, int ignored, const unsigned char *rgbe);
/* @end radiance */

/* ===================================================================== */
/*  HDR generation: exposures, response curve, merge                     */
/* ===================================================================== */
/* @section hdrgen */
/* Codes of this family. -1 from calc_courbe means no usable sample. */
enum {
    BV_HDR_ENOPOS = -1,     /* calc_courbe: no sample position qualifies */
    BV_HDR_EDEPTH = -2,     /* calc_courbe: bits per sample other than 8/16 */
    BV_HDR_EINVAL = -3,     /* NULL buffer, negative size, bad channel count,
                               merge with n < 1 or a non-positive exposure */
    BV_HDR_ENOMEM = -4,     /* working memory could not be allocated */
    BV_HDR_CANCELLED = -5   /* bv_hdr_merge: the progress callback asked to stop */
};

/* Brightness statistic per bracket (stats[n], caller-allocated). n images of
 * rowStride samples per row (image k at sample k * rowStride * height),
 * channels 1..4, 8 or 16 bits (other depths: empty histogram). Statistic:
 * median luma bin * 256; nearly black images their 95th-percentile bin
 * (0..256); nearly white ones 65536 + 17th-percentile bin. Returns
 * trunc(0.5 * width * height) (n < 1: writes nothing); BV_HDR_EINVAL (also
 * for rowStride < width * channels). */
BV_API int mediane_images(int n, int width, int height, int rowStride, int channels,
                          int bitsPerSample, const void *data, int32_t *stats);

/* Exposure factors from mediane_images statistics. evStep > 0: brackets are
 * evStep stops apart; otherwise estimated (stats below 1 are raised to 1 in
 * place). wholeStops = 0: result[image] = linear factor, the middle image of
 * the brightest-first order gets 1. wholeStops != 0 (estimation only):
 * result[i] = rounded EV of the i-th brightest, stats[i] = its index.
 * Returns n, 0 when n < 1, BV_HDR_EINVAL, BV_HDR_ENOMEM. */
BV_API int guess_ev(int wholeStops, int n, int32_t *stats, float *result, float evStep);

/* Exposure factors from camera data: records holds n records of 7 int32
 * (time num, time den, f-number num, f-number den, EV in 1/1000 stop used
 * when the time is 0/0, ISO, unused). The first n floats of records are
 * overwritten with the factors. Returns 1; BV_HDR_EINVAL for NULL. */
BV_API int get_ev(int n, int32_t *records);

/* order[n] receives image indices by ascending value (ties: higher index
 * first). Returns n, 0 when n < 1, BV_HDR_EINVAL, BV_HDR_ENOMEM. */
BV_API int fClassementCroissant(int n, const float *values, int32_t *order);

/* Mean of R+G+B (samples 0..2; 16-bit: high bytes) on the 8-bit scale over a
 * grid of about 50 x 50 pixels. rowStride and pixelStep (at least 3) in
 * samples. Returns the level, 0 for other depths, NULL data, pixelStep < 3 or
 * an empty image. */
BV_API int moy_image(int width, int height, int rowStride, int pixelStep, int bitsPerSample,
                     const void *data);

/* Index of the middle image when the n values (levels 1..254, e.g. from
 * moy_image) are taken from the largest down; BV_HDR_EINVAL for n < 1. */
BV_API int mid_im(int n, const int32_t *values);

/* Gamma of an ICC profile (file form, big-endian) of expectedSize bytes:
 * the first r/g/bTRC tag with a one-entry curve gives its 8.8 gamma, any
 * other curve, a missing tag or a tag pointing outside the profile 2.2.
 * Returns the scan position after the tag signature, size - 12 when not
 * found, 0 for a tiny profile; a size field differing from expectedSize
 * (or NULL arguments, expectedSize < 4) returns a negative value and leaves
 * *gamma untouched. */
BV_API int trc_from_profile(const unsigned char *profile, int expectedSize, float *gamma);

/* table[i] = scale * i^(gammaThousandths / 1000) for i = 1..255,
 * table[0] = table[1]. Returns 256; BV_HDR_EINVAL for NULL. */
BV_API int gen_courbe(int gammaThousandths, float scale, float table[256]);

/* Estimates the response gamma from n brackets (layout as mediane_images
 * with rows of width * channels samples, 8 or 16 bits) and their exposure
 * factors. result[3] = 200^gamma, 1, rejected sample pairs of the last pair
 * examined. Returns trunc(gamma * 1000), 2200 when no pair gives a plausible
 * estimate; BV_HDR_ENOPOS, BV_HDR_EDEPTH, BV_HDR_EINVAL, BV_HDR_ENOMEM. */
BV_API int calc_courbe(int n, int width, int height, int channels, int bitsPerSample,
                       const void *data, const float *exposures, float result[3]);

/* Merges n aligned brackets (image k at sample k * width * height * channels,
 * 8 or 16 bits) into an RGBE scanline image output[4 * width * height].
 * evStep > 0: brackets evStep stops apart; -0.5 < evStep <= 0: exposures
 * estimated from the pixels; evStep <= -0.5: exposures[] given by the caller
 * (NULL: every bracket weighs the same). exposures[n] receives the factors
 * otherwise. lut[2^bits] receives the linearisation (lut[0] is the gamma to
 * use when gammaGiven == 1, else 2.2). stats[3] (may be NULL) = minimum,
 * maximum and mean luminance * 256. mode 2 keeps the marker pixels (all 255:
 * no usable bracket, all 0: black); otherwise they become greys of the
 * brightest / darkest luminance. Single-threaded; progress on the calling
 * thread for images taller than 800 rows. Returns height; 0 for height 0;
 * BV_HDR_EINVAL, BV_HDR_ENOMEM, BV_HDR_CANCELLED (output incomplete). Other
 * bit depths are not refused: nothing is read and every pixel is black. */
BV_API int bv_hdr_merge(bv_progress_cb progressContext, int mode, int n, int width, int height,
                        int channels, float evStep, int bitsPerSample, int gammaGiven, float *lut,
                        float *exposures, const void *data, float stats[3],
                        unsigned char *output);
/* @end hdrgen */

/* ===================================================================== */
/*  Tone mapping: parameters, statistics, simple tone mapping            */
/* ===================================================================== */
/* @section tonemap */
/* TmParam slots read by tm_simple. */
enum {
    BV_TM_SLOT_EXPOSURE = 0,      /* -10..10, brighter when positive */
    BV_TM_SLOT_BRIGHTNESS = 1,    /* -10..10, bends the contrast exponent */
    BV_TM_SLOT_ADAPTATION = 2,    /* -10..10, whole image (-10) to per pixel */
    BV_TM_SLOT_WHITE_CLIP = 3,    /* units of 3 % of the output range */
    BV_TM_SLOT_BLACK_CLIP = 4,    /* units of 2 % of the output range */
    BV_TM_SLOT_TEMPERATURE = 12,  /* colour temperature step, -260 K each */
    BV_TM_SLOT_SATURATION = 13,   /* saturation step, 10 % each */
    BV_TM_SLOT_REGION_SETS = 55,  /* region sets following the record */
    BV_TM_SLOT_FIRST_ROW = 56,    /* row window of the base set: first row */
    BV_TM_SLOT_END_ROW = 57       /* and one past its last row */
};

/* Codes of the tone-mapping family. */
enum {
    BV_TM_EBADARG = -1,  /* NULL pointer, negative size, short output rows */
    BV_TM_ETHREAD = -2,  /* a worker thread could not be created */
    BV_TM_ENOMEM = -4,   /* a table could not be allocated */
    BV_TM_ESTATS = -5    /* statistics with min >= max (or NaN) */
};

/* Clears rec and writes the defaults of tone-mapping method `method` (1, 3,
 * 10, 11, 12, 15 have non-zero slots; flag > 0 selects method 1's lower
 * slot 1; methods above 15 stay all zero). For tm_simple a cleared record
 * (method 0) is the neutral default: methods 1, 3 and 11 set slots it reads
 * with other meanings. Returns 0; -1 when rec is NULL. */
BV_API int  tmparam_default(unsigned method, int flag, TmParam *rec);
/* Zeroes the tone enhancer's options: input from the caller's buffer, no
 * temporary files. NULL is ignored. */
BV_API void init_optim_param(optimParam *p);
/* Writes the image-description defaults 0, 0, 3, 8, 8, 0, 0, 0, 0, 0. */
BV_API void init_dim_param(DimParam *p);
/* Slider position (0..100) of a large parameter value:
 * (value * 5e-6)^exponent * 100, rounded with exact halves going down.
 * slider2param maps back: (slider * 0.01)^exponent * 200000, same rounding;
 * they invert each other only for reciprocal exponents. NaN gives 0. */
BV_API int  param2slider(float value, double exponent);
BV_API int  slider2param(int slider, double exponent);

/* Global tone mapping of an HDR image to 8- or 16-bit output.
 *   params    base TmParam (the BV_TM_SLOT_* slots: 0..4 curve, 12
 *             temperature, 13 saturation, 55 region-set count, 56/57 row
 *             window; and 20..46 colour tables as in the colour-adjustment
 *             section), followed by slot 55 region sets when regionMap is
 *             given (at most 255 are used). A set with colour slots or a
 *             non-zero slot 13 is also passed through its hue tables, whose
 *             4096 hue steps may move a channel by up to 0.15 % of the range.
 *   regionMap NULL, or 2 bytes per pixel: blend weight, region index
 *             (255 = none); weight 0 or index 255 gives the base result.
 *   stats     log-luminance statistics of the image (min, max, median and
 *             99.5th percentile are read).
 *   expTable  256 RGBE exponent scales; read only for RGBE input (may be
 *             NULL for float input).
 *   input     dim.sourceKind BV_SOURCE_FLOAT_RGB: interleaved float RGB,
 *             dim.channels floats per pixel; otherwise RGBE scanline rows
 *             (4 x width bytes).
 *   output    dim.bitsOut 16: 16-bit samples, else 8-bit (addressed as
 *             bytes). Interleaved with rows dim.rowOut samples apart (0 =
 *             packed), R/G/B at 0, (channels-1)/2, channels-1 (first and
 *             last swapped when dim.bgr); dim.layout BV_LAYOUT_PLANES:
 *             three packed planes of width x height samples (channels >= 3,
 *             plane order swapped alike when dim.bgr). Rows outside the
 *             slot 56/57 window and samples other than R, G, B are left as
 *             they were.
 *   threads   <= 1 works on the calling thread; else that many bands
 *             (height / threads rows each, the last takes the rest). The
 *             output is identical for any thread count. The input is only
 *             read.
 * Returns dim.height with threads <= 1; with more threads the last band's
 * row count, height - (threads - 1) * (height / threads). 0 for an empty
 * image, or BV_TM_EBADARG, BV_TM_ESTATS (nothing written), BV_TM_ENOMEM,
 * BV_TM_ETHREAD (output incomplete). */
BV_API int  tm_simple(TmParam *params, const unsigned char *regionMap,
                      const LogLumStats *stats, const float *expTable, void *input,
                      uint16_t *output, DimParam dim, int threads);
/* @end tonemap */

/* ===================================================================== */
/*  Colour adjustment                                                    */
/* ===================================================================== */
/* @section coloradjust */
/* Colour adjustments carried in a TmParam. Slot map (values -100..100,
 * clamped; NaN reads as 0; all zero = no change):
 *   band b = 0..7 (reds 0 deg, oranges 30, yellows 60, greens 120, aquas 180,
 *   blues 240, purples 270, magentas 300):
 *     slot 20 + 3b  hue shift, 0.3 degrees per unit (+100 = +30 degrees)
 *     slot 21 + 3b  saturation: -100 grey (towards the pixel's luminance,
 *                   weights 0.2126/0.7152/0.0722), +100 twice as far from it
 *     slot 22 + 3b  lightness of coloured pixels: -100 black, +100 twice as
 *                   bright, scaled by the pixel's HSV saturation (greys keep)
 *   slot 44, 45, 46 master hue shift, saturation, lightness: added to every
 *                   band's value before clamping.
 * Between two band centres each value is interpolated linearly in hue, so
 * equal values in all bands act on every hue alike.
 * Slots 47..54 are reserved (ignored). bv_adjust_colors also reads slot 12
 * (colour temperature step, -260 K per unit from 6500 K, used when its
 * integer part is non-zero) and slot 13 (saturation step: HSL saturation
 * times slot13 * 0.1 + 1, used when its integer part is non-zero), exactly as
 * the simple tone mapper does; it reads no other slot. */
enum {
    BV_CA_SLOT_BANDS = 20,        /* first band slot (reds' hue shift) */
    BV_CA_SLOT_MASTER_HUE = 44,
    BV_CA_SLOT_MASTER_SAT = 45,
    BV_CA_SLOT_MASTER_LIGHT = 46,
    BV_CA_MODE_ALL = 1,           /* has_color_param: slots 12, 13 and 20..46 */
    BV_CA_MODE_TABLES = 2,        /* has_color_param: slots 20..46 only */
    BV_CA_EBADARG = -1,           /* NULL pointer, bad mode or size */
    BV_CA_EDEPTH = -2,            /* unsupported bits, or a thread failed */
    BV_CA_ECANCEL = -3,           /* the progress callback asked to stop */
    BV_CA_ENOMEM = -4
};

/* Whether rec changes colours under mode (BV_CA_MODE_ALL or
 * BV_CA_MODE_TABLES). Returns mode when it does, 0 when it does not,
 * BV_CA_EBADARG for NULL or another mode. */
BV_API int has_color_param(int mode, const TmParam *rec);

/* Builds the per-hue tables from slots 20..46: hueTable gets entries x 3
 * floats (the normalised R, G, B shape at hue i / (entries - 1); 0..1, beyond
 * it only where saturation is raised), valueTable entries floats (0.5 =
 * unchanged). mode: 1 or 2; entries >= 2 (4096 for the tone mapper); bits:
 * depth of the image served, 8, 16 or 32 (the tables do not depend on it).
 * Returns 1 when the value table is needed, 0 when it is all 0.5,
 * BV_CA_EBADARG for NULL tables or record or a bad mode, entries or bits. */
BV_API int getColorAdjustmentLUTs(int mode, const TmParam *rec, int entries, int bits,
                                  float *hueTable, float *valueTable);

/* Adjusts an interleaved image in place with the colour values of `colour`
 * (slots 12, 13, 20..46): temperature, saturation, then the hue tables,
 * each only when its slots ask for it. image: dim.width x dim.height pixels
 * of dim.channels samples (R at 0, G at (channels-1)/2, B at channels-1;
 * swapped when dim.bgr), rows dim.rowOut samples apart (0 = packed);
 * dim.bitsOut 16 = 16-bit, 32 = float 0..1, else 8-bit. Fewer than three
 * channels are left as they are. progressCb (may be NULL) is told 0 and 1
 * on the calling thread. threads <= 1 works inline. params and code are the
 * caller's record and method number (exposure fusion passes 10 or 15); they
 * are accepted for the caller's sake and not read. Results are identical for
 * any thread count. Returns dim.height (0 for an empty image), or
 * BV_CA_EBADARG (NULL image or colour, negative sizes, short rows),
 * BV_CA_EDEPTH (thread creation failed), BV_CA_ECANCEL, BV_CA_ENOMEM. */
BV_API int bv_adjust_colors(int threads, bv_progress_cb progressCb, int code,
                            const TmParam *params, const TmParam *colour, void *image,
                            DimParam dim);
/* @end coloradjust */

#ifdef __cplusplus
}
#endif

#endif /* BRACKVISTA40LIB1_H */
