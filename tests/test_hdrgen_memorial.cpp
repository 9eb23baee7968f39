// HDR merge of the film-scanned memorial brackets, against an independently merged reference.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.hpp"

namespace {

struct Memorial {
    int w = 0, h = 0;
    std::vector<std::vector<uint8_t>> images;  // RGB8
    std::vector<float> exposure;               // relative exposure (column 2)
};

struct Subset {
    const char *name;
    std::vector<int> idx;
};
const Subset kSets[] = {
    {"all", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}},
    {"five", {2, 5, 8, 11, 14}},
    {"three", {4, 7, 10}},
};

class MemorialTest : public testing::Test {
protected:
    static Memorial *data;
    static std::string refdir;  // "" when the reference tool is unavailable
    static std::string why_no_ref;

    // The brackets are decoded by the same script that makes the reference
    // merges, so the test needs no image library of its own.
    static void SetUpTestSuite() {
        const std::string root = bvtest::shared_data_dir();
        if (root.empty()) return;
        const std::string dir = root + "/memorial";
        refdir = bvtest::temp_path("memorial-ref");
        std::string cmd = "mkdir -p '" + refdir +
                          "' && /usr/bin/python3 tests/scripts/memorial_reference.py --step 2 '" +
                          dir + "' '" + refdir + "'";
        for (const Subset &s : kSets) {
            cmd += std::string(" ") + s.name + "=";
            for (size_t i = 0; i < s.idx.size(); ++i)
                cmd += (i ? "," : "") + std::to_string(s.idx[i]);
        }
        const int rc = std::system((cmd + " >/dev/null 2>&1").c_str());
        if (rc != 0) {
            why_no_ref = WIFEXITED(rc) && WEXITSTATUS(rc) == 77 ? "python3-opencv is not installed"
                                                                : "the reference script failed";
            refdir.clear();
            return;
        }
        auto *m = new Memorial;
        std::ifstream size(refdir + "/size.txt");
        size >> m->w >> m->h;
        std::ifstream list(dir + "/exposures.txt");
        std::ifstream px(refdir + "/brackets.u8", std::ios::binary);
        std::string line;
        while (std::getline(list, line) && m->w > 0 && m->h > 0) {
            if (line.empty() || line[0] == '#') continue;
            std::istringstream ls(line);
            std::string name;
            float e;
            if (!(ls >> name >> e)) continue;
            std::vector<uint8_t> img(static_cast<size_t>(m->w) * m->h * 3);
            if (!px.read(reinterpret_cast<char *>(img.data()),
                         static_cast<std::streamsize>(img.size())))
                break;
            m->images.push_back(std::move(img));
            m->exposure.push_back(e);
        }
        if (m->images.size() != 16) {
            delete m;
            why_no_ref = "the brackets could not be decoded";
            return;
        }
        data = m;
    }
    static void TearDownTestSuite() {
        delete data;
        data = nullptr;
    }
    void SetUp() override {
        if (bvtest::shared_data_dir().empty())
            GTEST_SKIP() << "memorial brackets not found under ../shared/data/memorial";
        if (!data) GTEST_SKIP() << "brackets not decoded: " << why_no_ref;
    }

    // Merges a subset; returns linear RGB floats and fills `ex` (in or out).
    static std::vector<float> merge(const std::vector<int> &idx, float evStep,
                                    std::vector<float> *ex) {
        const int n = static_cast<int>(idx.size()), w = data->w, h = data->h;
        const size_t img = static_cast<size_t>(w) * h * 3;
        std::vector<uint8_t> stack(img * n);
        for (int k = 0; k < n; ++k)
            std::copy(data->images[idx[k]].begin(), data->images[idx[k]].end(),
                      stack.begin() + k * img);
        std::vector<float> lut(256);
        std::vector<uint8_t> out(4 * static_cast<size_t>(w) * h);
        float stats[3];
        EXPECT_EQ(bv_hdr_merge(nullptr, 0, n, w, h, 3, evStep, 8, 0, lut.data(), ex->data(),
                               stack.data(), stats, out.data()),
                  h);
        std::vector<float> rgb(img);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const uint8_t *row = &out[static_cast<size_t>(y) * 4 * w];
                const double s = row[3 * w + x] ? std::ldexp(1.0, row[3 * w + x] - 136) : 0.0;
                for (int c = 0; c < 3; ++c)
                    rgb[(static_cast<size_t>(y) * w + x) * 3 + c] =
                        static_cast<float>(row[c * w + x] * s);
            }
        return rgb;
    }

    // Pixels well exposed in at least one bracket of the subset and never
    // part of the pure-blue border.
    static std::vector<char> usable(const std::vector<int> &idx) {
        const size_t N = static_cast<size_t>(data->w) * data->h;
        std::vector<char> ok(N, 0);
        for (size_t i = 0; i < N; ++i) {
            bool well = false, border = false;
            for (int k : idx) {
                const uint8_t *p = &data->images[k][3 * i];
                border |= p[0] == 0 && p[1] == 0 && p[2] == 255;
                const int l = (54 * p[0] + 183 * p[1] + 19 * p[2]) >> 8;
                well |= l >= 40 && l <= 220 && std::max({p[0], p[1], p[2]}) < 255;
            }
            ok[i] = well && !border;
        }
        return ok;
    }

    static double log_lum_correlation(const std::vector<float> &a, const std::vector<float> &b,
                                      const std::vector<char> &ok, long *count) {
        double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
        long n = 0;
        for (size_t i = 0; i < ok.size(); ++i) {
            if (!ok[i]) continue;
            const double ya = 0.2126 * a[3 * i] + 0.7152 * a[3 * i + 1] + 0.0722 * a[3 * i + 2];
            const double yb = 0.2126 * b[3 * i] + 0.7152 * b[3 * i + 1] + 0.0722 * b[3 * i + 2];
            if (!(ya > 0) || !(yb > 0)) continue;
            const double la = std::log(ya), lb = std::log(yb);
            sa += la, sb += lb, saa += la * la, sbb += lb * lb, sab += la * lb;
            ++n;
        }
        *count = n;
        const double cov = sab / n - sa / n * sb / n;
        return cov / std::sqrt((saa / n - sa / n * sa / n) * (sbb / n - sb / n * sb / n));
    }

    std::vector<float> estimates[3];  // per subset, from correlation_figures
    void correlation_figures();
    void estimation_figures();
    void estimate_is_monotone();
    void pixel_estimate_figures();

    static std::vector<float> reference(const char *name) {
        std::vector<float> v(static_cast<size_t>(data->w) * data->h * 3);
        std::ifstream f(refdir + "/" + name + ".f32", std::ios::binary);
        f.read(reinterpret_cast<char *>(v.data()),
               static_cast<std::streamsize>(v.size() * sizeof(float)));
        if (!f) v.clear();
        return v;
    }
};
Memorial *MemorialTest::data = nullptr;
std::string MemorialTest::refdir;
std::string MemorialTest::why_no_ref;

// One test, so the reference script runs once per process.
TEST_F(MemorialTest, MergesAgainstIndependentReference) {
    correlation_figures();
    estimation_figures();
    estimate_is_monotone();
    pixel_estimate_figures();
}

}  // namespace

// Correlation of log luminance with the independent merge, table and
// estimated exposures, all brackets and subsets of 5 and 3. Thresholds are
// the measured figures less a small margin.
void MemorialTest::correlation_figures() {
    struct Want {
        double table, estimated;
    };
    // Measured 0.6516/0.9566, 0.7703/0.9216, 0.9880/0.9323 (every 2nd pixel). The film's fog
    // (level 15-16 in every underexposed frame) reads as light through a
    // gamma 2.2 curve, so the darkest frames brighten the shadows when their
    // true exposures are used; the estimate, which calls them brighter than
    // they are, suffers less from it.
    const Want want[] = {{0.645, 0.950}, {0.765, 0.915}, {0.983, 0.927}};
    for (size_t s = 0; s < std::size(kSets); ++s) {
        const Subset &set = kSets[s];
        const std::vector<float> ref = reference(set.name);
        ASSERT_FALSE(ref.empty()) << set.name;
        const std::vector<char> ok = usable(set.idx);
        std::vector<float> ex;
        for (int k : set.idx) ex.push_back(data->exposure[k]);
        const std::vector<float> table = merge(set.idx, -1.0f, &ex);
        std::vector<float> &est = estimates[s];
        est.assign(set.idx.size(), 0.0f);
        const std::vector<float> estimated = merge(set.idx, 0.0f, &est);
        long n1, n2;
        const double r1 = log_lum_correlation(table, ref, ok, &n1);
        const double r2 = log_lum_correlation(estimated, ref, ok, &n2);
        std::printf(
            "%-5s: %ld usable pixels, correlation with reference: table exposures %.5f, estimated "
            "%.5f\n",
            set.name, n1, r1, r2);
        EXPECT_GT(n1, 50000);
        EXPECT_GE(r1, want[s].table) << set.name;
        EXPECT_GE(r2, want[s].estimated) << set.name;
    }
}

// How far the estimated exposures are from the table's (log2, with both
// normalised at the bracket the estimate calls 1).
void MemorialTest::estimation_figures() {
    // Measured; the nearly black frames (median below level 5) are placed by
    // their 95th percentile and end up several stops too bright.
    const double pinned[] = {6.892, 5.777, 2.691};
    for (size_t s = 0; s < std::size(kSets); ++s) {
        const Subset &set = kSets[s];
        const int n = static_cast<int>(set.idx.size());
        const std::vector<float> &est = estimates[s];
        ASSERT_EQ(est.size(), set.idx.size());
        int mid = -1;
        for (int k = 0; k < n; ++k)
            if (est[k] == 1.0f) mid = k;
        ASSERT_GE(mid, 0);
        double worst = 0, mean = 0;
        std::printf("%-5s log2(estimated / table):", set.name);
        for (int k = 0; k < n; ++k) {
            const double e =
                std::log2(est[k] / (data->exposure[set.idx[k]] / data->exposure[set.idx[mid]]));
            std::printf(" %+.2f", e);
            worst = std::max(worst, std::fabs(e));
            mean += std::fabs(e) / n;
        }
        std::printf("  (mean |e| %.3f, max %.3f)\n", mean, worst);
        EXPECT_LE(worst, pinned[s] + 0.01) << set.name;
    }
}

// The estimate is monotone in the brightness statistic: a brighter bracket
// never gets a smaller factor, equal statistics get equal factors. On this
// film the underexposed frames all sit at the fog level (median luma 16-17),
// so from bracket 9 on the factors no longer follow the table.
void MemorialTest::estimate_is_monotone() {
    const std::vector<float> &est = estimates[0];
    ASSERT_EQ(est.size(), 16u);
    std::vector<uint8_t> stack;
    for (const auto &im : data->images) stack.insert(stack.end(), im.begin(), im.end());
    int32_t st[16];
    mediane_images(16, data->w, data->h, data->w * 3, 3, 8, stack.data(), st);
    for (int k = 0; k < 16; ++k)
        std::printf("bracket %2d: statistic %5d, estimated %8.4g, table %g\n", k, st[k], est[k],
                    data->exposure[k] / data->exposure[8]);
    for (int a = 0; a < 16; ++a)
        for (int b = 0; b < 16; ++b) {
            if (st[a] > st[b]) {
                EXPECT_GT(est[a], est[b]) << a << " " << b;
            } else if (st[a] == st[b]) {
                EXPECT_EQ(est[a], est[b]) << a << " " << b;
            }
        }
    for (int k = 1; k <= 8; ++k) EXPECT_LT(est[k], est[k - 1]) << k;
}

// The estimator that measures neighbour ratios over well-exposed pixels,
// against the table (log2, both normalised at the bracket it calls 1),
// through the library's default gamma 2.2 and through the sRGB curve (what
// the tool uses for files that name no curve). Measured largest errors in
// stops, against guess_ev's 6.892, 5.777 and 2.691 above, pinned plus 0.01.
// Every pair is measured and the order is right; what remains is the film's
// own curve, which neither fits closely (through gamma 2.2 its mid-tones
// step about 0.1 stop long per stop, its fogged shadows about 0.2 short).
void MemorialTest::pixel_estimate_figures() {
    std::vector<float> srgb(256);
    for (int i = 0; i < 256; ++i) {
        const double v = i / 255.0;
        srgb[i] = static_cast<float>(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
    }
    struct Curve {
        const char *name;
        const float *table;
        double pinned[3];
    };
    const Curve curves[] = {{"gamma 2.2", nullptr, {0.935, 0.664, 0.303}},
                            {"sRGB", srgb.data(), {0.254, 0.110, 0.402}}};
    for (const Curve &curve : curves)
        for (size_t s = 0; s < std::size(kSets); ++s) {
            const Subset &set = kSets[s];
            const int n = static_cast<int>(set.idx.size()), w = data->w, h = data->h;
            const size_t img = static_cast<size_t>(w) * h * 3;
            std::vector<uint8_t> stack(img * n);
            for (int k = 0; k < n; ++k)
                std::copy(data->images[set.idx[k]].begin(), data->images[set.idx[k]].end(),
                          stack.begin() + k * img);
            std::vector<float> est(n), conf(n);
            EXPECT_EQ(bv_hdr_estimate_exposures(nullptr, 2, n, w, h, 3, 8, 2.2f, curve.table,
                                                stack.data(), est.data(), conf.data()),
                      n - 1);
            int mid = -1;
            for (int k = 0; k < n; ++k)
                if (est[k] == 1.0f) mid = k;
            ASSERT_GE(mid, 0);
            double worst = 0;
            std::printf("%-5s pixel ratios, %s, log2(estimated / table) (confidence):", set.name,
                        curve.name);
            for (int k = 0; k < n; ++k) {
                const double e =
                    std::log2(est[k] / (data->exposure[set.idx[k]] / data->exposure[set.idx[mid]]));
                std::printf(" %+.3f (%.2f)", e, conf[k]);
                worst = std::max(worst, std::fabs(e));
            }
            std::printf("  max %.3f\n", worst);
            EXPECT_LE(worst, curve.pinned[s] + 0.01) << set.name << " " << curve.name;
        }
}
