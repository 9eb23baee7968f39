// The demo's moving subject: a child crossing the room between brackets, found and removed.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "ghosts.hpp"
#include "libcalls.hpp"
#include "progress.hpp"
#include "scene.hpp"

namespace bvcli {

namespace {

// Human silhouette in a box of w x h: a body with a head on top.
bool in_person(int x, int y, int w, int h) {
    const double head_r = 0.22 * w, cx = 0.5 * w, head_y = head_r + 1;
    if (y < 2 * head_r + 2) return std::hypot(x - cx, y - head_y) <= head_r;
    const double shoulders = 2 * head_r + 2;
    const double half = y < shoulders + 0.1 * h ? 0.3 * w + (y - shoulders) * 2.0 : 0.5 * w;
    if (y > 0.62 * h) return std::fabs(std::fabs(x - cx) - 0.2 * w) < 0.14 * w;  // legs
    return std::fabs(x - cx) < std::min(half, 0.5 * w);
}

}  // namespace

std::vector<uint8_t> add_walking_person(const FloatImage &scene, const BracketPlan &plan,
                                        uint64_t seed, BracketSet &set) {
    const int W = scene.width, H = scene.height, n = static_cast<int>(plan.exposures.size());
    const int pw = std::max(8, W / 16), ph = std::max(16, H / 5);
    // A child crosses the sunlit patch of floor during the middle exposure
    // and the next one, a step further on; the others missed them.
    const int step = std::max(2, pw * 4 / 5);
    auto place = [&](int k) { return k == n / 2 ? 0 : k == n / 2 + 1 ? step : -1; };
    const int x0 = W * 45 / 100, y0 = std::max(0, H * 72 / 100);
    const int bw = std::min(W - x0, pw + step), bh = std::min(H - y0, ph);
    std::vector<uint8_t> moved(static_cast<size_t>(W) * H, 0);
    if (bw < 8 || bh < 16) return moved;
    // A striped blue coat brighter than what it hides, so that it
    // takes the light of the room where it stands.
    const double tint[3] = {0.35, 0.45, 1.2};
    for (int k = 0; k < n; ++k) {
        FloatImage crop;
        crop.width = bw, crop.height = bh;
        crop.rgb.resize(static_cast<size_t>(bw) * bh * 3);
        const int px = place(k);
        for (int y = 0; y < bh; ++y)
            for (int x = 0; x < bw; ++x) {
                float *d = &crop.rgb[(static_cast<size_t>(y) * bw + x) * 3];
                const float *s = &scene.rgb[(static_cast<size_t>(y0 + y) * W + x0 + x) * 3];
                const bool on = px >= 0 && x >= px && x < px + pw && in_person(x - px, y, pw, ph);
                const double stripe = ((y / 9) & 1) ? 1.4 : 0.6;
                for (int c = 0; c < 3; ++c)
                    d[c] = on ? static_cast<float>((s[0] + s[1] + s[2]) * tint[c] * stripe) : s[c];
                if (on) moved[static_cast<size_t>(y0 + y) * W + x0 + x] = 1;
            }
        BracketPlan one = plan;
        one.exposures.assign(1, plan.exposures[static_cast<size_t>(k)]);
        const BracketSet b = render_brackets(crop, one, seed + 17 * static_cast<uint64_t>(k));
        uint8_t *dst = set.data.data() + set.image_samples() * k;
        const uint8_t *src = b.data.data();
        for (int y = 0; y < bh; ++y)
            std::copy(src + static_cast<size_t>(y) * bw * 3, src + static_cast<size_t>(y + 1) * bw * 3,
                      dst + (static_cast<size_t>(y0 + y) * W + x0) * 3);
    }
    return moved;
}

std::vector<std::string> demo_ghosts(const BracketSet &set, const MergeReport &report,
                                     const std::vector<float> &exposures, HdrImage &hdr,
                                     const std::vector<uint8_t> &moved, const std::string &out_dir,
                                     int threads, std::vector<std::string> &written) {
    std::vector<std::string> lines;
    const size_t N = static_cast<size_t>(set.width) * set.height;
    GhostOptions opt;
    opt.mode = "auto";
    const PixelMask mask = detect_ghosts(set, opt.threshold, -1.0f, exposures, threads);
    {
        OutputFile out(out_dir + "/ghost-mask.png");
        std::vector<uint8_t> px(3 * N);
        for (size_t p = 0; p < N; ++p) px[3 * p] = px[3 * p + 1] = px[3 * p + 2] = mask.get(p) ? 255 : 0;
        save_picture(out, set.width, set.height, 8, px);
        written.push_back("ghost-mask.png");
    }
    const HdrImage before = hdr;
    const size_t replaced = remove_ghosts(set, report, opt, hdr, threads, &mask);
    char buf[256];
    std::snprintf(buf, sizeof buf,
                  "ghosts: %zu pixels (%.2f %%) found at threshold %d and taken from bracket %d",
                  replaced, 100.0 * static_cast<double>(replaced) / static_cast<double>(N),
                  opt.threshold, report.middle + 1);
    lines.push_back(buf);
    size_t in = 0, covered = 0, outside = 0;
    for (size_t p = 0; p < N && !moved.empty(); ++p) {
        in += moved[p];
        covered += moved[p] && mask.get(p);
        outside += !moved[p] && mask.get(p);
    }
    if (in) {
        std::snprintf(buf, sizeof buf,
                      "  the walking person's path: %.1f %% covered; %.2f %% of the other pixels "
                      "marked",
                      100.0 * static_cast<double>(covered) / static_cast<double>(in),
                      100.0 * static_cast<double>(outside) / static_cast<double>(N - in));
        lines.push_back(buf);
    }
    {
        OutputFile out(out_dir + "/deghosted.hdr");
        save_hdr(out, hdr);
        written.push_back("deghosted.hdr");
    }
    // Before and after side by side, both rendered with the ghost-free statistics.
    const LogLumStats stats = hdr_stats(hdr);
    const std::vector<uint8_t> a = tonemap_image(before, stats, lib::tonemap_defaults(), 8, threads);
    const std::vector<uint8_t> b = tonemap_image(hdr, stats, lib::tonemap_defaults(), 8, threads);
    const int gap = 8, W = 2 * set.width + gap;
    std::vector<uint8_t> pair(static_cast<size_t>(W) * set.height * 3, 255);
    const size_t row = static_cast<size_t>(set.width) * 3;
    for (int y = 0; y < set.height; ++y) {
        std::copy(a.begin() + row * y, a.begin() + row * (y + 1), pair.begin() + static_cast<size_t>(y) * W * 3);
        std::copy(b.begin() + row * y, b.begin() + row * (y + 1),
                  pair.begin() + static_cast<size_t>(y) * W * 3 + row + gap * 3);
    }
    OutputFile out(out_dir + "/ghosts-before-after.png");
    save_picture(out, W, set.height, 8, pair);
    written.push_back("ghosts-before-after.png");
    return lines;
}

}  // namespace bvcli
