// brackvista ghosts: find what moved between brackets; ghost removal for merge.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "ghosts.hpp"
#include "libcalls.hpp"
#include "progress.hpp"

namespace bvcli {

namespace {

bool is_mask_file(const std::string &path) { return extension_of(path) == ".txt"; }

// The brackets' exposures as merge finds them: given, evenly spaced, from
// EXIF, or (evStep 0) estimated by the library from the pixels.
float exposure_plan(const BracketSet &set, const ExposureChoice &choice, std::vector<float> &ex,
                    std::string &source) {
    const size_t n = set.info.size();
    ex.assign(n, 1.0f);
    if (!choice.given.empty()) {
        if (choice.given.size() != n)
            usage_error(std::to_string(choice.given.size()) + " exposures given for " +
                        std::to_string(n) + " brackets");
        ex = choice.given;
        source = "given";
        return -1.0f;
    }
    if (choice.ev_step > 0) {
        source = "fixed spacing";
        return static_cast<float>(choice.ev_step);
    }
    const bool exif = std::all_of(set.info.begin(), set.info.end(),
                                  [](const BracketInfo &b) { return b.exposure_time > 0; });
    if (!choice.estimate && exif) {
        std::vector<std::array<int32_t, 7>> records;
        for (const auto &b : set.info)
            records.push_back({b.exif.exposureNum, b.exif.exposureDen, b.exif.fNumberNum,
                               b.exif.fNumberDen, 0, b.iso, 0});
        std::vector<float> camera = lib::exposures_from_camera(records);
        auto [lo, hi] = std::minmax_element(camera.begin(), camera.end());
        if (*lo > 0 && *hi > *lo * 1.01f) {
            ex = camera;
            source = "EXIF";
            return -1.0f;
        }
    }
    source = "estimated";
    return 0.0f;
}

// Pixels of a mask as an 8-bit RGB picture, white where set.
std::vector<uint8_t> mask_picture(const PixelMask &m) {
    const size_t N = static_cast<size_t>(m.width) * m.height;
    std::vector<uint8_t> px(3 * N);
    for (size_t p = 0; p < N; ++p) px[3 * p] = px[3 * p + 1] = px[3 * p + 2] = m.get(p) ? 255 : 0;
    return px;
}

// Outer outline of the 4-connected region whose first pixel in row order
// is (x, y), along pixel edges with the region on the right; one vertex per
// turn, at pixel corners, so that filling it gives back the region.
void trace(const std::vector<uint8_t> &in, int w, int h, int x, int y, std::vector<int32_t> &xy) {
    static const int dx[4] = {1, 0, -1, 0}, dy[4] = {0, 1, 0, -1};  // E S W N
    // Pixels ahead-right and ahead-left of a corner, per heading.
    static const int rx[4] = {0, -1, -1, 0}, ry[4] = {0, 0, -1, -1};
    static const int lx[4] = {0, 0, -1, -1}, ly[4] = {-1, 0, 0, -1};
    auto on = [&](int px, int py) {
        return px >= 0 && py >= 0 && px < w && py < h && in[static_cast<size_t>(py) * w + px];
    };
    int cx = x, cy = y, d = 0;
    xy.push_back(x);
    xy.push_back(y);
    for (;;) {
        cx += dx[d], cy += dy[d];
        int nd = d;
        if (!on(cx + rx[d], cy + ry[d]))
            nd = (d + 1) & 3;
        else if (on(cx + lx[d], cy + ly[d]))
            nd = (d + 3) & 3;
        if (cx == x && cy == y) break;
        if (nd != d) {
            xy.push_back(cx);
            xy.push_back(cy);
        }
        d = nd;
    }
}

}  // namespace

size_t PixelMask::count() const {
    size_t c = 0;
    for (size_t p = 0, N = static_cast<size_t>(width) * height; p < N; ++p) c += get(p);
    return c;
}

PixelMask detect_ghosts(const BracketSet &set, int threshold, float ev_step,
                        std::vector<float> exposures, int threads) {
    PixelMask m;
    m.width = set.width;
    m.height = set.height;
    m.bits.assign((static_cast<size_t>(set.width) * set.height + 7) / 8, 0);
    exposures.resize(set.info.size(), 1.0f);
    Progress bar("finding ghosts");
    const int rc = bv_ghost_detect(&threshold, static_cast<int>(set.info.size()), set.width,
                                   set.height, 3, set.bits, 0, exposures.data(), set.data.data(),
                                   m.bits.data(), ev_step, threads);
    check_interrupted();
    if (rc == BV_GHOST_ERR_NOMEM) fail("not enough memory to look for ghosts");
    if (rc < 0) fail("ghost detection failed (" + code_text(BV_FAMILY_GHOSTS, rc) + ")");
    return m;
}

SlotMask read_selections(const std::string &path, int width, int height, int brackets) {
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) fail("cannot open mask file '" + path + "'");
    std::fclose(f);
    int W = 0, H = 0, N = 0;
    const int T = get_mask_info(path.c_str(), &W, &H, &N);
    std::fflush(stderr);
    if (T == BV_MASK_ERR_SIZE)
        fail("'" + path + "' is not a mask file: it must have 60 bytes to 1 MB");
    if (T < 0 || N < 0)
        fail("cannot read mask file '" + path + "' (" + code_text(BV_FAMILY_GHOSTS, T) + ")");
    if (W != width || H != height)
        fail("mask file '" + path + "' is drawn for " + std::to_string(W) + "x" +
             std::to_string(H) + ", the brackets are " + std::to_string(width) + "x" +
             std::to_string(height));
    std::vector<int32_t> e(static_cast<size_t>(N)), p(static_cast<size_t>(N)),
        xy(2 * static_cast<size_t>(T));
    const int rc = get_mask_data(path.c_str(), e.data(), p.data(), xy.data());
    if (rc < 0) {
        std::fprintf(stderr, "\n");
        fail("mask file '" + path + "' is damaged (" + code_text(BV_FAMILY_GHOSTS, rc) + ")");
    }
    for (int i = 0; i < N; ++i)
        if (p[i] > 0 && (e[i] < 0 || e[i] >= brackets))
            fail("mask file '" + path + "': selection " + std::to_string(i) + " names bracket " +
                 std::to_string(e[i]) + ", but there are " + std::to_string(brackets));
    SlotMask s;
    s.width = width, s.height = height, s.planes = brackets;
    s.slots.resize(static_cast<size_t>(brackets));
    s.bits.resize((static_cast<size_t>(brackets) * width * height + 7) / 8);
    const int filled = bv_ghost_rasterize(width, height, brackets, N, e.data(), p.data(), xy.data(),
                                          T, s.slots.data(), s.bits.data());
    if (filled < 0)
        fail("cannot fill the selections of '" + path + "' (" +
             code_text(BV_FAMILY_GHOSTS, filled) + ")");
    s.selections = static_cast<size_t>(filled);
    return s;
}

int write_outlines(const std::string &path, const std::string &shown, const PixelMask &mask,
                   int exposure) {
    const int w = mask.width, h = mask.height;
    std::vector<uint8_t> left(static_cast<size_t>(w) * h);
    for (size_t p = 0; p < left.size(); ++p) left[p] = mask.get(p);
    const std::vector<uint8_t> in = left;
    std::vector<int32_t> e, counts, xy;
    std::vector<size_t> stack;
    for (size_t p0 = 0; p0 < left.size(); ++p0) {
        if (!left[p0]) continue;
        const size_t before = xy.size();
        trace(in, w, h, static_cast<int>(p0 % w), static_cast<int>(p0 / w), xy);
        e.push_back(exposure);
        counts.push_back(static_cast<int32_t>((xy.size() - before) / 2));
        // Forget the whole region, so that each is outlined once.
        stack.assign(1, p0);
        left[p0] = 0;
        while (!stack.empty()) {
            const size_t p = stack.back();
            stack.pop_back();
            const size_t x = p % w;
            const size_t next[4] = {x > 0 ? p - 1 : p, x + 1 < static_cast<size_t>(w) ? p + 1 : p,
                                    p >= static_cast<size_t>(w) ? p - w : p, p + w};
            for (size_t q : next)
                if (q < left.size() && left[q]) left[q] = 0, stack.push_back(q);
        }
    }
    if (xy.size() / 2 > 90000)
        fail("the ghost regions need " + std::to_string(xy.size() / 2) +
             " vertices, more than a mask file holds (1 MB); write a picture instead");
    const int rc = write_ghost_mask(path.c_str(), w, h, static_cast<int>(e.size()), e.data(),
                                    counts.data(), xy.data());
    if (rc < 0) fail("cannot write '" + shown + "'");
    return static_cast<int>(e.size());
}

void add_ghost_options(std::vector<OptionSpec> &specs) {
    specs.push_back({"ghosts", 0, "auto|MASK.txt",
                     "remove ghosts: 'auto' detects them and takes those pixels from one "
                     "bracket; a mask file takes each drawn selection from its bracket"});
    specs.push_back({"ghost-ref", 0, "N",
                     "bracket used inside detected ghosts, counted from 0 as given (default: "
                     "the middle exposure)"});
    specs.push_back({"threshold", 0, "T",
                     "ghost detection threshold, 45..1000 (default 70; "
                     "larger finds fewer ghosts)"});
}

GhostOptions read_ghost_options(const Args &args, int brackets) {
    GhostOptions o;
    o.mode = args.str("ghosts");
    if (args.has("ghosts") && o.mode.empty()) usage_error("--ghosts needs 'auto' or a mask file");
    if (!o.mode.empty() && o.mode != "auto" && !is_mask_file(o.mode))
        usage_error("--ghosts takes 'auto' or a .txt mask file, not '" + o.mode + "'");
    if ((args.has("ghost-ref") || args.has("threshold")) && o.mode != "auto")
        usage_error("--ghost-ref and --threshold go with --ghosts auto");
    o.reference = args.integer("ghost-ref", -1, 0, std::max(0, brackets - 1));
    o.threshold = args.integer("threshold", kDefaultGhostThreshold, 45, 1000);
    return o;
}

size_t remove_ghosts(const BracketSet &set, const MergeReport &report, const GhostOptions &opt,
                     HdrImage &hdr, int threads, const PixelMask *detected) {
    const int n = static_cast<int>(set.info.size()), w = set.width, h = set.height;
    const size_t N = static_cast<size_t>(w) * h;
    // Which bracket each pixel is taken from, or -1 to keep the merge.
    std::vector<int> from(N, -1);
    if (opt.mode == "auto") {
        const int ref = opt.reference >= 0 ? opt.reference : report.middle;
        const PixelMask m =
            detected ? *detected
                     : detect_ghosts(set, opt.threshold, -1.0f, report.exposures, threads);
        for (size_t p = 0; p < N; ++p)
            if (m.get(p)) from[p] = ref;
    } else {
        const SlotMask s = read_selections(opt.mode, w, h, n);
        // As in fusion: the lowest bracket whose plane is set wins.
        for (int k = n - 1; k >= 0 && s.slots[0] >= 0; --k)
            for (size_t p = 0, b = static_cast<size_t>(k) * N; p < N; ++p, ++b)
                if ((s.bits[b >> 3] >> (7 - (b & 7))) & 1) from[p] = k;
    }
    size_t replaced = 0;
    const int levels = 1 << set.bits;
    const double gamma = report.gamma;
    for (int k = 0; k < n; ++k) {
        if (std::find(from.begin(), from.end(), k) == from.end()) continue;
        // The bracket alone, linearised and divided by its exposure: what
        // the merge gives where every bracket agrees.
        std::vector<float> table(static_cast<size_t>(levels));
        const double e = report.exposures[static_cast<size_t>(k)];
        for (int i = 1; i < levels; ++i)
            table[i] = static_cast<float>(std::pow(static_cast<double>(i) / levels, gamma) / e);
        table[0] = table[1];
        std::vector<uint8_t> rgbe(4 * N);
        const int rc = convert_to_rgbe(
            set.bits, w, h, 3, 3 * w, 0, table.data(),
            set.data.data() + set.image_samples() * static_cast<size_t>(k) * (set.bits / 8),
            rgbe.data());
        if (rc != h)
            fail("cannot convert bracket " + std::to_string(k) + " (" +
                 code_text(BV_FAMILY_RGBE, rc) + ")");
        const int shift = set.bits == 16 ? 8 : 0;
        for (int y = 0; y < h; ++y) {
            const size_t row = static_cast<size_t>(y) * 4 * w;
            for (int x = 0; x < w; ++x) {
                const size_t p = static_cast<size_t>(y) * w + x;
                if (from[p] != k) continue;
                // Where the chosen bracket itself is black or clipped it
                // knows nothing better than the merge: keep the merge.
                int v[3];
                for (int c = 0; c < 3; ++c) {
                    const size_t at = set.image_samples() * k + 3 * p + c;
                    v[c] = set.bits == 16
                               ? reinterpret_cast<const uint16_t *>(set.data.data())[at] >> shift
                               : set.data[at];
                }
                const int luma = (54 * v[0] + 183 * v[1] + 19 * v[2]) >> 8;
                if (luma < 8 || std::max({v[0], v[1], v[2]}) >= 250) continue;
                for (int c = 0; c < 4; ++c) hdr.rgbe[row + c * w + x] = rgbe[row + c * w + x];
                ++replaced;
            }
        }
    }
    return replaced;
}

void print_ghost_removal(const GhostOptions &opt, const MergeReport &report, size_t replaced,
                         const BracketSet &set) {
    const double share =
        100.0 * static_cast<double>(replaced) / (static_cast<double>(set.width) * set.height);
    if (opt.mode == "auto")
        std::printf("ghosts: %zu pixels (%.2f %%) taken from bracket %d (threshold %d)\n", replaced,
                    share, opt.reference >= 0 ? opt.reference : report.middle, opt.threshold);
    else
        std::printf("ghosts: %zu pixels (%.2f %%) taken from the brackets drawn in %s\n", replaced,
                    share, opt.mode.c_str());
}

namespace {

std::vector<OptionSpec> ghosts_options() {
    std::vector<OptionSpec> s = {
        {"output", 'o', "FILE",
         "mask to write: a picture (.png .tif .jpg, white = ghost) or a mask file (.txt)"},
        {"exposures", 'e', "LIST|FILE", "relative exposures, as for merge"},
        {"ev-step", 0, "STOPS", "brackets are evenly spaced this many stops apart (0.1..10)"},
        {"estimate", 0, nullptr, "estimate exposures from the pixels even when EXIF has them"},
        {"threshold", 0, "T", "detection threshold, 45..1000 (default 70; larger finds fewer)"},
        {"selections", 0, "MASK.txt", "add the selections drawn in a mask file"},
        {"no-detect", 0, nullptr, "only the drawn selections, no detection"},
        {"ghost-ref", 0, "N",
         "bracket named by the selections of a .txt output (default: the "
         "middle exposure)"},
    };
    add_common_options(s);
    return s;
}

}  // namespace

int run_ghosts(int argc, char **argv) {
    const auto specs = ghosts_options();
    Args args(specs, argc, argv);
    if (args.help()) {
        print_help(
            "brackvista ghosts [options] -o MASK.png BRACKET BRACKET...",
            "Finds what moved between bracketed exposures (people, branches, water) and\n"
            "writes it as a mask: a picture, white where the brackets disagree, or a mask\n"
            "file of outlines that 'merge --ghosts FILE' and other programs read. Exposures\n"
            "come from --exposures, --ev-step, EXIF or the pixels, as in merge.",
            specs,
            "examples:\n  brackvista ghosts -o moved.png a.jpg b.jpg c.jpg\n"
            "  brackvista ghosts -o moved.txt --threshold 90 a.jpg b.jpg c.jpg\n"
            "  brackvista merge --ghosts moved.txt -o out.hdr a.jpg b.jpg c.jpg\n");
        return kOk;
    }
    const int threads = apply_common_options(args);
    if (!args.has("output")) usage_error("no output file: give -o MASK.png or -o MASK.txt");
    std::vector<std::string> inputs = args.positional();
    ExposureChoice choice;
    if (args.has("exposures")) parse_exposures(args.str("exposures"), inputs, choice.given);
    choice.ev_step = args.number("ev-step", 0, 0.1, 10);
    choice.estimate = args.has("estimate");
    const int threshold = args.integer("threshold", kDefaultGhostThreshold, 45, 1000);
    const bool detect = !args.has("no-detect");
    if (!detect && !args.has("selections"))
        usage_error("--no-detect leaves nothing to write: add --selections MASK.txt");
    if (inputs.empty()) usage_error("no brackets given (see brackvista ghosts --help)");
    if (detect && inputs.size() < 2) {
        probe_bracket(inputs[0]);
        fail("finding ghosts needs at least two brackets of one scene (got 1)");
    }
    const std::string out_path = args.str("output");
    if (!is_mask_file(out_path)) check_picture_extension(out_path, 8);
    OutputFile out(out_path);
    BracketSet set = load_brackets(inputs);
    const int n = static_cast<int>(inputs.size());
    const int ref = args.integer("ghost-ref", n / 2, 0, n - 1);

    PixelMask mask;
    mask.width = set.width, mask.height = set.height;
    mask.bits.assign((static_cast<size_t>(set.width) * set.height + 7) / 8, 0);
    std::string source = "none";
    std::vector<float> ex;
    if (detect) {
        const float ev_step = exposure_plan(set, choice, ex, source);
        mask = detect_ghosts(set, threshold, ev_step, ex, threads);
    }
    size_t drawn = 0;
    if (args.has("selections")) {
        const SlotMask s = read_selections(args.str("selections"), set.width, set.height, n);
        drawn = s.selections;
        const size_t N = static_cast<size_t>(set.width) * set.height;
        for (size_t b = 0; b < static_cast<size_t>(n) * N; ++b)
            if ((s.bits[b >> 3] >> (7 - (b & 7))) & 1)
                mask.bits[(b % N) >> 3] |= static_cast<uint8_t>(0x80u >> ((b % N) & 7));
    }
    const size_t ghost_pixels = mask.count();
    std::string what;
    if (is_mask_file(out_path)) {
        const int regions = write_outlines(out.temp(), out_path, mask, ref);
        out.commit();
        what = std::to_string(regions) + " regions for bracket " + std::to_string(ref);
    } else {
        save_picture(out, set.width, set.height, 8, mask_picture(mask));
        what = "a picture";
    }
    if (!args.has("quiet")) {
        std::printf("%zu brackets of %dx%d, exposures %s", inputs.size(), set.width, set.height,
                    source.c_str());
        if (detect) std::printf(", threshold %d", threshold);
        if (args.has("selections")) std::printf(", %zu drawn selections", drawn);
        std::printf("\nghosts cover %zu pixels (%.2f %%) -> %s (%s)\n", ghost_pixels,
                    100.0 * static_cast<double>(ghost_pixels) /
                        (static_cast<double>(set.width) * set.height),
                    out_path.c_str(), what.c_str());
    }
    return kOk;
}

}  // namespace bvcli
