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
/* All conversions work on float triples. Hue, saturation, lightness and value
 * are 0..1; "norm" and unranged RGB is 0..1. Functions returning int give 1,
 * or -1 when a required pointer is NULL. */

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
 *   params    base TmParam (slots 0..4 curve, 12 temperature, 13 saturation,
 *             20..46 colour tables, 55 region-set count, 56/57 row window),
 *             followed by slot 55 region sets when regionMap is given (at
 *             most 255 are used).
 *   regionMap NULL, or 2 bytes per pixel: blend weight, region index
 *             (255 = none); weight 0 or index 255 gives the base result.
 *   stats     log-luminance statistics of the image (min, max, median and
 *             99.5th percentile are read).
 *   expTable  256 RGBE exponent scales; read only for RGBE input (may be
 *             NULL for float input).
 *   input     dim.sourceKind 10: interleaved float RGB, dim.channels floats
 *             per pixel; otherwise RGBE scanline rows (4 x width bytes).
 *   output    dim.bitsOut 16: 16-bit samples, else 8-bit (addressed as
 *             bytes). Interleaved with rows dim.rowOut samples apart (0 =
 *             packed), R/G/B at 0, (channels-1)/2, channels-1 (first and
 *             last swapped when dim.bgr); dim.layout 3: three packed planes
 *             of width x height samples (channels >= 3). Rows outside the
 *             slot 56/57 window and samples other than R, G, B are left as
 *             they were.
 *   threads   <= 1 works on the calling thread; else that many bands
 *             (height / threads rows each, the last takes the rest). The
 *             output is identical for any thread count. The input is only
 *             read.
 * Returns dim.height (0 for an empty image), or BV_TM_EBADARG, BV_TM_ESTATS
 * (nothing written), BV_TM_ENOMEM, BV_TM_ETHREAD (output incomplete). */
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
