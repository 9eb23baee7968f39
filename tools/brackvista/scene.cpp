// Procedural HDR scene and simulated camera for the demo.
#include "scene.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "progress.hpp"

namespace bvcli {
namespace {

// Counter-based hashing keeps the scene and the noise identical on every
// platform (standard distributions are not).
uint64_t mix(uint64_t z) {
    z += 0x9e3779b97f4a7c15ull;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}
double hash01(int64_t x, int64_t y, uint64_t salt) {
    uint64_t h =
        mix(static_cast<uint64_t>(x) * 0x100000001b3ull ^ mix(static_cast<uint64_t>(y) + salt));
    return (h >> 11) * (1.0 / 9007199254740992.0);
}

double smooth(double t) { return t * t * (3 - 2 * t); }

// Value noise on a lattice of unit cells, 0..1.
double value_noise(double x, double y, uint64_t salt) {
    double fx = std::floor(x), fy = std::floor(y);
    int64_t ix = static_cast<int64_t>(fx), iy = static_cast<int64_t>(fy);
    double tx = smooth(x - fx), ty = smooth(y - fy);
    double a = hash01(ix, iy, salt), b = hash01(ix + 1, iy, salt);
    double c = hash01(ix, iy + 1, salt), d = hash01(ix + 1, iy + 1, salt);
    return (a + (b - a) * tx) * (1 - ty) + (c + (d - c) * tx) * ty;
}

double fbm(double x, double y, int octaves, uint64_t salt) {
    double sum = 0, amp = 0.5, norm = 0;
    for (int o = 0; o < octaves; ++o) {
        sum += amp * value_noise(x, y, salt + o);
        norm += amp;
        x *= 2.03;
        y *= 2.03;
        amp *= 0.5;
    }
    return sum / norm;
}

struct Rgb {
    double r, g, b;
};
Rgb operator*(Rgb c, double k) { return {c.r * k, c.g * k, c.b * k}; }
Rgb operator*(Rgb a, Rgb b) { return {a.r * b.r, a.g * b.g, a.b * b.b}; }
Rgb operator+(Rgb a, Rgb b) { return {a.r + b.r, a.g + b.g, a.b + b.b}; }
Rgb lerp(Rgb a, Rgb b, double t) { return a * (1 - t) + b * t; }

// Window opening in normalised coordinates (x across, y down, y in units of width).
constexpr double kWinX0 = 0.36, kWinX1 = 0.74, kWinY0 = 0.07, kWinY1 = 0.36;
constexpr double kSunX = 0.63, kSunY = 0.14, kSunR = 0.012;

Rgb outdoor(double x, double y) {
    const double t = (y - kWinY0) / (kWinY1 - kWinY0);  // 0 top of window, 1 bottom
    const double horizon = 0.72 + 0.08 * (fbm(x * 9, 0.5, 3, 71) - 0.5);
    if (t > horizon) {
        // Sunlit hills with fields and trees.
        double tex = fbm(x * 140, y * 140, 4, 31);
        Rgb grass{0.30, 0.55, 0.16};
        Rgb tree{0.10, 0.22, 0.07};
        double trees = fbm(x * 30, y * 30, 3, 37) > 0.58 ? 1.0 : 0.0;
        return lerp(grass, tree, trees) * (3.0 + 2.5 * tex);
    }
    Rgb zenith{0.22, 0.42, 1.0};
    Rgb haze{0.85, 0.92, 1.0};
    Rgb sky = lerp(zenith, haze, std::pow(std::clamp(t / horizon, 0.0, 1.0), 1.6)) * 6.0;
    double cloud = fbm(x * 7 + 3.1, y * 14, 5, 11);
    cloud = std::clamp((cloud - 0.52) * 4.0, 0.0, 1.0);
    sky = lerp(sky, Rgb{1, 0.98, 0.95} * (9.0 + 6.0 * fbm(x * 40, y * 40, 3, 13)), cloud);
    // Sun: the brightest thing in view, with a glow around it.
    double d = std::hypot(x - kSunX, y - kSunY);
    Rgb sun{1.0, 0.96, 0.88};
    if (d < kSunR) return sun * 100.0;
    return sky + sun * (40.0 * std::exp(-(d - kSunR) / 0.02) + 6.0 * std::exp(-d / 0.08));
}

Rgb interior(double x, double y, double aspect) {
    const double ymax = 1.0 / aspect;
    Rgb warm{1.0, 0.86, 0.72};
    // Light from the window falls off with distance; corners sit in deep shadow.
    double wx = std::clamp(x, kWinX0, kWinX1), wy = std::clamp(y, kWinY0, kWinY1);
    double dist = std::hypot(x - wx, y - wy);
    double light = 0.02 / (1.0 + 60.0 * dist * dist) + 0.0015;
    const double floor_y = ymax * 0.74;
    if (y > floor_y) {
        // Wooden floor planks with grain, and a patch of sunlight.
        double plank = std::floor(x * 24 + 0.5 * std::floor((y - floor_y) * 40));
        double grain = 0.5 + 0.5 * std::sin((x * 24 - plank) * 60 + 8 * fbm(x * 10, y * 200, 3, 5));
        double tone = 0.35 + 0.15 * hash01(static_cast<int64_t>(plank), 3, 17) + 0.1 * grain;
        Rgb wood{0.55, 0.33, 0.17};
        double px = x - (y - floor_y) * 0.9;  // the sun patch leans like the light
        bool patch =
            px > 0.42 && px < 0.62 && y < floor_y + 0.12 && std::fmod(px - 0.42, 0.1) > 0.008;
        double lit = light * 1.5 + (patch ? 1.8 : 0.0);
        return wood * tone * warm * lit;
    }
    // Brick wall with mortar and fine surface texture.
    const double bh = 0.022, bw = 0.055;
    double row = std::floor(y / bh);
    double off = std::fmod(row, 2.0) * 0.5 * bw;
    double col = std::floor((x + off) / bw);
    double fx = (x + off) / bw - col, fy = y / bh - row;
    bool mortar = fx < 0.06 || fy < 0.12;
    double var = hash01(static_cast<int64_t>(col), static_cast<int64_t>(row), 23);
    double grit = fbm(x * 600, y * 600, 2, 29);
    Rgb brick = lerp(Rgb{0.55, 0.22, 0.14}, Rgb{0.65, 0.35, 0.22}, var) * (0.75 + 0.5 * grit);
    Rgb albedo = mortar ? Rgb{0.5, 0.48, 0.45} * (0.8 + 0.4 * grit) : brick;
    // A line chart in the dark corner: fine stripes that reveal noise and blur.
    if (x > 0.05 && x < 0.22 && y > ymax * 0.30 && y < ymax * 0.52) {
        double period = 0.002 + 0.01 * (y - ymax * 0.30) / (ymax * 0.22);
        bool dark = std::fmod(x - 0.05, period) < period * 0.5;
        albedo = Rgb{0.9, 0.9, 0.9} * (dark ? 0.25 : 1.0);
    }
    return albedo * warm * light;
}

double srgb_curve(double x) {
    return x <= 0.0031308 ? 12.92 * x : 1.055 * std::pow(x, 1 / 2.4) - 0.055;
}

}  // namespace

FloatImage render_scene(int width, int height) {
    FloatImage img;
    img.width = width;
    img.height = height;
    img.rgb.resize(static_cast<size_t>(width) * height * 3);
    const double aspect = static_cast<double>(width) / height;
    Progress bar("rendering scene");
    for (int j = 0; j < height; ++j) {
        for (int i = 0; i < width; ++i) {
            // Four samples per pixel keep edges and the sun disc smooth.
            Rgb acc{0, 0, 0};
            for (int s = 0; s < 4; ++s) {
                double x = (i + 0.25 + 0.5 * (s & 1)) / width;
                double y = (j + 0.25 + 0.5 * (s >> 1)) / width;
                bool in_window = x > kWinX0 && x < kWinX1 && y > kWinY0 && y < kWinY1;
                bool frame = std::fabs(x - 0.5 * (kWinX0 + kWinX1)) < 0.006 ||
                             std::fabs(y - 0.5 * (kWinY0 + kWinY1)) < 0.006;
                acc = acc + (in_window && !frame ? outdoor(x, y)
                             : in_window         ? Rgb{0.3, 0.3, 0.3} * 0.01
                                                 : interior(x, y, aspect));
            }
            float *p = &img.rgb[(static_cast<size_t>(j) * width + i) * 3];
            p[0] = static_cast<float>(acc.r * 0.25);
            p[1] = static_cast<float>(acc.g * 0.25);
            p[2] = static_cast<float>(acc.b * 0.25);
        }
        if ((j & 15) == 0) {
            bar.update(static_cast<float>(j) / height);
            check_interrupted();
        }
    }
    return img;
}

BracketPlan default_bracket_plan() {
    BracketPlan plan;
    for (int k = 0; k < 7; ++k) plan.exposures.push_back(std::ldexp(1.0f, 2 * k - 7));
    return plan;
}

BracketSet render_brackets(const FloatImage &scene, const BracketPlan &plan, uint64_t seed) {
    BracketSet set;
    set.width = scene.width;
    set.height = scene.height;
    set.bits = 8;
    const size_t n = plan.exposures.size();
    const size_t samples = set.image_samples();
    set.data.resize(samples * n);
    Progress bar("exposing brackets");
    for (size_t k = 0; k < n; ++k) {
        const double e = plan.exposures[k];
        uint8_t *dst = set.data.data() + k * samples;
        for (size_t i = 0; i < samples; ++i) {
            double x = scene.rgb[i] * e;
            // Shot noise grows with the signal, read noise sets a floor.
            double sigma = std::sqrt(0.0004 * std::min(x, 1.0) + 0.0008 * 0.0008);
            double u1 =
                std::max(hash01(static_cast<int64_t>(i), static_cast<int64_t>(k), seed), 1e-12);
            double u2 = hash01(static_cast<int64_t>(i), static_cast<int64_t>(k), seed + 1);
            double g = std::sqrt(-2 * std::log(u1)) * std::cos(6.283185307179586 * u2);
            double v = std::clamp(x + sigma * g, 0.0, 1.0);
            dst[i] = static_cast<uint8_t>(std::lround(255.0 * srgb_curve(v)));
        }
        BracketInfo b;
        b.path = "bracket-" + std::to_string(k + 1);
        b.width = set.width;
        b.height = set.height;
        b.channels = 3;
        b.exposure_time = e * plan.seconds_at_1;
        b.fnumber = 8;
        b.iso = 100;
        b.profile_name = "sRGB";
        static const char kCamera[] = "Brackvista demo camera", kDate[] = "2026:01:01 12:00:00";
        std::memcpy(b.exif.camera, kCamera, sizeof kCamera);
        std::memcpy(b.exif.capDate, kDate, sizeof kDate);
        double t = b.exposure_time;
        if (t >= 1) {
            b.exif.exposureNum = static_cast<int32_t>(std::lround(t * 100));
            b.exif.exposureDen = 100;
        } else {
            b.exif.exposureNum = 1;
            b.exif.exposureDen = static_cast<int32_t>(std::lround(1 / t));
        }
        b.exif.fNumberNum = 8;
        b.exif.fNumberDen = 1;
        b.exif.iso = 100;
        b.exif.focalNum = 35;
        b.exif.focalDen = 1;
        set.info.push_back(b);
        bar.update(static_cast<float>(k + 1) / n);
        check_interrupted();
    }
    return set;
}

double dynamic_range_stops(const FloatImage &img) {
    double lo = 1e300, hi = 0;
    for (size_t i = 0; i + 2 < img.rgb.size(); i += 3) {
        double y = 0.2126 * img.rgb[i] + 0.7152 * img.rgb[i + 1] + 0.0722 * img.rgb[i + 2];
        if (y > 0) {
            lo = std::min(lo, y);
            hi = std::max(hi, y);
        }
    }
    return hi > 0 ? std::log2(hi / lo) : 0.0;
}

}  // namespace bvcli
