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
 * Slots used by the simple tone mapper: 0 exposure, 1 brightness (-10..10),
 * 2 adaptation (-10..10), 3 white clip (units of 3 %), 4 black clip (units of
 * 2 %), 12 colour temperature step (-260 K each), 13 saturation step,
 * 55 number of region sets following the record, 56/57 first/end row.
 * Slots 0..14 and 20..54 carry colour adjustments when the record is handed
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
    int32_t layout;      /* 3: output as three colour planes */
    int32_t sourceKind;  /* 10: input is interleaved float RGB, else RGBE rows */
} DimParam;

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
/*  Buffers and pixel helpers                                            */
/* ===================================================================== */
/* @section buffers */
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

/* Runs worker over rows [start, end) split into `threads` bands (the last
 * band takes the remainder; more threads than rows gives one row each).
 * One thread runs inline with threaded flag 0. A failed thread creation runs
 * that band inline. Returns 0; -4 if the records cannot be allocated. */
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
/* @end colour */

/* ===================================================================== */
/*  RGBE pixels, float TIFF and log-luminance statistics                 */
/* ===================================================================== */
/* @section rgbe */
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
 * run-length file, so it cannot be read back; only flat rows (widths above
 * 32767) can produce one. All readers fill caller-allocated RGBE scanline
 * images and never read outside them or the file; single-threaded. */
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
/* @end hdrgen */

/* ===================================================================== */
/*  Tone mapping: parameters, statistics, simple tone mapping            */
/* ===================================================================== */
/* @section tonemap */
/* @end tonemap */

/* ===================================================================== */
/*  Colour adjustment                                                    */
/* ===================================================================== */
/* @section coloradjust */
/* @end coloradjust */

#ifdef __cplusplus
}
#endif

#endif /* BRACKVISTA40LIB1_H */
