// Choosing a bracket set's exposures: given, spaced, EXIF or measured.
#include "exposures.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "cli.hpp"
#include "libcalls.hpp"

namespace bvcli {
namespace {

// Brackets disagreeing with their pixels by more than this are named.
constexpr double kDisagreeStops = 0.5;

std::string short_name(const std::string &path) { return path.substr(path.find_last_of('/') + 1); }

std::string stops(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%+.2f", v);
    return buf;
}

// The first bracket whose EXIF exposure time is unusable, or -1.
int invalid_exif(const BracketSet &set) {
    for (size_t k = 0; k < set.info.size(); ++k) {
        const double t = set.info[k].exposure_time;
        if (!(t > 0) || !std::isfinite(t) || set.info[k].exif.exposureDen <= 0)
            return static_cast<int>(k);
    }
    return -1;
}

bool all_missing(const BracketSet &set) {
    return std::all_of(set.info.begin(), set.info.end(),
                       [](const BracketInfo &b) { return b.exposure_time == 0; });
}

std::string what_time(double t) {
    if (std::isnan(t)) return "NaN";
    if (std::isinf(t)) return "infinite (1/0)";
    if (t <= 0) return "zero";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g s", t);
    return buf;
}

}  // namespace

ExposurePlan choose_exposures(const BracketSet &set, const ExposureChoice &choice, float gamma,
                              bool srgb, int threads) {
    const int n = static_cast<int>(set.info.size());
    ExposurePlan p;
    if (!choice.given.empty()) {
        if (static_cast<int>(choice.given.size()) != n)
            usage_error(std::to_string(choice.given.size()) + " exposures given for " +
                        std::to_string(n) + " brackets");
        p.exposures = choice.given;
        p.ev_step = -1.0f;
        p.source = "given";
        return p;
    }
    if (choice.ev_step > 0) {
        p.ev_step = static_cast<float>(choice.ev_step);
        p.source = "fixed spacing";
        return p;
    }
    // The pixel estimator compares every pair of brackets: beyond 64 the
    // median-brightness rule has to do.
    if (choice.median || n > 64) {
        p.ev_step = 0.0f;
        p.source = "estimated from median brightness";
        return p;
    }
    const lib::PixelEstimate est = lib::estimate_from_pixels(n, set.width, set.height, set.bits,
                                                             set.data.data(), gamma, srgb, threads);
    p.estimate = est.factors;
    p.confidence = est.confidence;
    p.exposures = est.factors;
    p.ev_step = -1.0f;
    p.source = est.measured > 0 ? "estimated from the pixels"
                                : "estimated from median brightness (no two brackets overlap)";
    if (est.measured > 0 && est.measured < n - 1)
        p.warnings.push_back(std::to_string(n - 1 - est.measured) +
                             " bracket pair(s) share too few well-exposed pixels; their step is "
                             "the typical one (confidence 0)");
    if (choice.estimate || all_missing(set)) return p;

    const int bad = invalid_exif(set);
    if (bad >= 0) {
        p.warnings.push_back("EXIF exposure time of '" + short_name(set.info[bad].path) + "' is " +
                             what_time(set.info[bad].exposure_time) +
                             "; ignoring EXIF, exposures estimated from the pixels");
        return p;
    }
    std::vector<std::array<int32_t, 7>> records;
    for (const auto &b : set.info)
        records.push_back({b.exif.exposureNum, b.exif.exposureDen, b.exif.fNumberNum,
                           b.exif.fNumberDen, 0, b.iso, 0});
    const std::vector<float> exif = lib::exposures_from_camera(records);
    // Both in stops from the bracket the estimate calls 1.
    const size_t ref = static_cast<size_t>(std::find(est.factors.begin(), est.factors.end(), 1.0f) -
                                           est.factors.begin());
    auto [lo, hi] = std::minmax_element(exif.begin(), exif.end());
    auto [elo, ehi] = std::minmax_element(est.factors.begin(), est.factors.end());
    const double pixel_span = std::log2(static_cast<double>(*ehi) / *elo);
    if (!(*hi > *lo * 1.01f) && est.measured > 0 && pixel_span > kDisagreeStops) {
        char buf[200];
        std::snprintf(buf, sizeof buf,
                      "EXIF gives every bracket the same exposure but their pixels span %.1f "
                      "stops; ignoring EXIF, exposures estimated from the pixels",
                      pixel_span);
        p.warnings.push_back(buf);
        return p;
    }
    p.exposures = exif;
    p.source = "EXIF";
    if (ref >= exif.size()) return p;
    for (int k = 0; k < n; ++k) {
        if (!(est.confidence[k] > 0)) continue;  // a fallen-back step proves nothing
        const double e = std::log2(static_cast<double>(exif[k]) / exif[ref]);
        const double m = std::log2(static_cast<double>(est.factors[k]));
        if (std::fabs(e - m) > kDisagreeStops)
            p.warnings.push_back("'" + short_name(set.info[k].path) + "': EXIF says " + stops(e) +
                                 " EV, its pixels " + stops(m) +
                                 " EV (auto-ISO, or a file from another set?)");
    }
    return p;
}

}  // namespace bvcli
