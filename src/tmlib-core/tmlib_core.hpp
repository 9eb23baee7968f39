// Internal interface of the tone-mapping core: parameter records, slider mapping and the
// log-luminance statistics toolkit shared by every tone mapper.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstdint>

namespace bv::tmcore {

void set_defaults(unsigned method, int flag, TmParam &rec);
int param_to_slider(float value, double exponent);
int slider_to_param(int slider, double exponent);

// Log-luminance map of a width x height image; kind 0 float samples, 1
// 16-bit samples through lut, 2 8-bit samples through lut. pixelStep and
// rowStep count samples (rowStep 0 = packed). out = log-average luminance,
// max/log-average, min. Returns the count of pixels with positive
// luminance, -1 for bad arguments. The two trailing floats are ignored.
int get_log_lum(int kind, int width, int height, int pixelStep, int rowStep, float out[3],
                const float *lut, const void *data, float *logMap, float, float);

// Nudges count until the first 256-bin histogram bin whose cumulative count
// exceeds it lies strictly between 14 and 236. Gives up after a bounded
// number of steps, or when count stops changing, and returns the last count.
int verifPercentile(const uint32_t (*hist)[256], uint32_t channel, int count);

// Module counter of adjust_percentile: callers reset it to 0 before a run
// of adjustments; at most 40 adjustment steps happen per reset, shared by
// every call. Written without locking: one adjusting operation at a time.
extern int GlobalCntAdjust;

// Moves factor (by 0.99 or 1.01 per step) until the percentile bin at
// count * factor lies in 25 %..90 % of nbins, within GlobalCntAdjust's
// budget. Returns the factor reached.
float adjust_percentile(uint64_t count, int nbins, const int32_t *hist, float factor);

// Cubic a x^3 + b x^2 + c x + d through (x0, y0) and (x1, y1), flat at x0
// (its slope at x1 is -3a(x1 - x0)^2); all zero when x0 = x1.
void coeffPoly3(double *a, double *b, double *c, double *d, double x0, double y0, double x1,
                double y1);

// Doubles a float map (edge replication; edgeFlag is accepted and ignored).
// Returns outHeight, or -1 for bad arguments.
int tm1_init(int outWidth, int outHeight, int inWidth, int inHeight, int edgeFlag, const float *in,
             float *out);

// Reorders an interleaved image (8 or 16 bits, channels samples per pixel,
// R/G/B at 0, (channels-1)/2, channels-1) into three packed planes R, G, B
// of width x height samples. src and dst must not overlap. Returns height,
// -1 for bad arguments.
int rgb_interleaved2color_planes(int width, int height, int channels, int bits, const void *src,
                                 void *dst);

}  // namespace bv::tmcore
