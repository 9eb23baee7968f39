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
