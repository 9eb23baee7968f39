// HDR merge and exposure estimation on the film-scanned memorial brackets,
// against an independently merged reference.
#include <fstream>

#include "test_support.hpp"

namespace {

using bvtest::Bytes;

struct Subset {
    const char *name;
    std::vector<int> idx;
};
const Subset kSets[] = {
    {"all", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}},
    {"five", {2, 5, 8, 11, 14}},
    {"three", {4, 7, 10}},
};

// The brackets at half size with their relative exposures, decoded by the
// reference script; `why` says what is missing when they are not there.
struct Memorial {
    int w = 0, h = 0;
    std::vector<Bytes> images;  // RGB8, file order
    std::vector<float> exposure;
    std::string refdir, why;

    Bytes stack(const std::vector<int> &idx) const {
        Bytes s;
        for (int k : idx) s.insert(s.end(), images[k].begin(), images[k].end());
        return s;
    }
    std::vector<float> reference(const char *name) const {
        std::vector<float> v(size_t(w) * h * 3);
        std::ifstream f(refdir + "/" + name + ".f32", std::ios::binary);
        f.read(reinterpret_cast<char *>(v.data()), std::streamsize(v.size() * sizeof(float)));
        return f ? v : std::vector<float>();
    }
    // Merges a subset; linear RGB, with `ex` read (evStep -1) or written (0).
    std::vector<float> merge(const Subset &s, float evStep, std::vector<float> *ex) const {
        const Bytes st = stack(s.idx);
        std::vector<float> lut(256);
        bvtest::Planar out(w, h);
        float stats[3];
        EXPECT_EQ(bv_hdr_merge(nullptr, 0, int(s.idx.size()), w, h, 3, evStep, 8, 0, lut.data(),
                               ex->data(), st.data(), stats, out.px.data()),
                  h);
        return out.values();
    }
    // Largest |log2(estimated / table)|, both normalised at the bracket the estimate calls 1.
    double worst_error(const Subset &s, const std::vector<float> &est) const {
        const auto mid = std::find(est.begin(), est.end(), 1.0f) - est.begin();
        EXPECT_LT(size_t(mid), est.size()) << "no bracket at 1";
        double worst = 0;
        for (size_t k = 0; k < est.size() && size_t(mid) < est.size(); ++k) {
            const double e = std::log2(est[k] / (exposure[s.idx[k]] / exposure[s.idx[mid]]));
            worst = std::max(worst, std::fabs(e));
        }
        return worst;
    }
};

// refs: also the reference merges of kSets (seconds of work, one test needs them).
Memorial load(bool refs) {
    Memorial m;
    m.refdir = bvtest::temp_path(refs ? "memorial-ref" : "memorial");
    std::string cmd = "mkdir -p '" + m.refdir + "' && /usr/bin/python3 tests/scripts/cv2_hdr.py " +
                      "merge 2 '" + bvtest::shared_data_dir() + "/memorial' '" + m.refdir + "'";
    for (const Subset &s : kSets) {
        if (!refs) break;
        cmd += std::string(" ") + s.name + "=";
        for (size_t i = 0; i < s.idx.size(); ++i) cmd += (i ? "," : "") + std::to_string(s.idx[i]);
    }
    if (std::system((cmd + " >/dev/null 2>&1").c_str()) != 0) {
        m.why = "no brackets: no ../shared/data/memorial or python3-opencv, or a script error";
        return m;
    }
    std::ifstream size(m.refdir + "/size.txt"), px(m.refdir + "/brackets.u8", std::ios::binary);
    size >> m.w >> m.h;
    for (float e; size >> e && m.w > 0 && m.h > 0;) {
        Bytes img(size_t(m.w) * m.h * 3);
        if (!px.read(reinterpret_cast<char *>(img.data()), std::streamsize(img.size()))) break;
        m.images.push_back(std::move(img));
        m.exposure.push_back(e);
    }
    if (m.images.size() != 16) m.why = "brackets not decoded: the script wrote too few";
    return m;
}

const Memorial &memorial(bool refs = false) {
    if (refs) {
        static const Memorial full = load(true);
        return full;
    }
    static const Memorial plain = load(false);
    return plain;
}

#define REQUIRE_MEMORIAL(m) \
    if (!(m).why.empty()) GTEST_SKIP() << (m).why

// Correlation of log luminance, over pixels well exposed in some bracket of
// the subset and outside the pure-blue border.
double log_lum_correlation(const Memorial &m, const Subset &s, const std::vector<float> &a,
                           const std::vector<float> &b, long *count) {
    double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
    long n = 0;
    for (size_t i = 0; i < size_t(m.w) * m.h; ++i) {
        bool well = false, border = false;
        for (int k : s.idx) {
            const uint8_t *p = &m.images[k][3 * i];
            border |= p[0] == 0 && p[1] == 0 && p[2] == 255;
            const int l = (54 * p[0] + 183 * p[1] + 19 * p[2]) >> 8;
            well |= l >= 40 && l <= 220 && std::max({p[0], p[1], p[2]}) < 255;
        }
        const double ya = 0.2126 * a[3 * i] + 0.7152 * a[3 * i + 1] + 0.0722 * a[3 * i + 2];
        const double yb = 0.2126 * b[3 * i] + 0.7152 * b[3 * i + 1] + 0.0722 * b[3 * i + 2];
        if (!well || border || !(ya > 0) || !(yb > 0)) continue;
        const double la = std::log(ya), lb = std::log(yb);
        sa += la, sb += lb, saa += la * la, sbb += lb * lb, sab += la * lb;
        ++n;
    }
    *count = n;
    const double cov = sab / n - sa / n * sb / n;
    return cov / std::sqrt((saa / n - sa / n * sa / n) * (sbb / n - sb / n * sb / n));
}

}  // namespace

// Table and estimated exposures: measured correlations less a margin (the
// film's fog, read as light, hurts the darkest frames' table exposures more),
// and the estimate's worst error in stops plus 0.01 (nearly black frames,
// placed by their 95th percentile, come out stops too bright).
TEST(Memorial, MergeCorrelatesWithIndependentReference) {
    const Memorial &m = memorial(true);
    REQUIRE_MEMORIAL(m);
    const double want[][3] = {{0.645, 0.950, 6.902}, {0.765, 0.915, 5.787}, {0.983, 0.927, 2.701}};
    for (size_t s = 0; s < std::size(kSets); ++s) {
        const Subset &set = kSets[s];
        SCOPED_TRACE(set.name);
        const std::vector<float> ref = m.reference(set.name);
        ASSERT_FALSE(ref.empty());
        std::vector<float> ex, est(set.idx.size());
        for (int k : set.idx) ex.push_back(m.exposure[k]);
        long n1, n2;
        const double r1 = log_lum_correlation(m, set, m.merge(set, -1.0f, &ex), ref, &n1);
        const double r2 = log_lum_correlation(m, set, m.merge(set, 0.0f, &est), ref, &n2);
        EXPECT_GT(n1, 50000);
        EXPECT_GE(r1, want[s][0]);
        EXPECT_GE(r2, want[s][1]);
        EXPECT_LE(m.worst_error(set, est), want[s][2]);
    }
}

// A brighter statistic never gets a smaller factor, equal ones equal factors;
// past bracket 8 the frames sit at the film's fog level and leave the table.
TEST(Memorial, MergeEstimateIsMonotoneInTheStatistic) {
    const Memorial &m = memorial();
    REQUIRE_MEMORIAL(m);
    std::vector<float> est(16);
    m.merge(kSets[0], 0.0f, &est);
    const Bytes stack = m.stack(kSets[0].idx);
    int32_t st[16];
    mediane_images(16, m.w, m.h, m.w * 3, 3, 8, stack.data(), st);
    for (int a = 0; a < 16; ++a)
        for (int b = 0; b < 16; ++b) {
            EXPECT_TRUE(st[a] <= st[b] || est[a] > est[b]) << a << " brighter than " << b;
            EXPECT_TRUE(st[a] != st[b] || est[a] == est[b]) << a << " as bright as " << b;
        }
    for (int k = 1; k <= 8; ++k) EXPECT_LT(est[k], est[k - 1]) << k;
}

// Pixel ratios measure every pair; what remains, pinned in stops plus 0.01, is
// the film's own curve, which neither gamma 2.2 nor sRGB fits closely.
TEST(Memorial, EstimatedExposuresPinned) {
    const Memorial &m = memorial();
    REQUIRE_MEMORIAL(m);
    std::vector<float> srgb(256);
    for (int i = 0; i < 256; ++i) {
        const double v = i / 255.0;
        srgb[i] = float(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
    }
    const struct {
        const char *name;
        const float *table;
        double pinned[3];
    } methods[] = {{"gamma 2.2", nullptr, {0.935, 0.664, 0.303}},
                   {"sRGB", srgb.data(), {0.254, 0.110, 0.402}}};
    for (const auto &e : methods)
        for (size_t s = 0; s < std::size(kSets); ++s) {
            SCOPED_TRACE(testing::Message() << kSets[s].name << ", " << e.name);
            const int n = int(kSets[s].idx.size());
            const Bytes stack = m.stack(kSets[s].idx);
            std::vector<float> est(n), conf(n);
            EXPECT_EQ(bv_hdr_estimate_exposures(nullptr, 2, n, m.w, m.h, 3, 8, 2.2f, e.table,
                                                stack.data(), est.data(), conf.data()),
                      n - 1);
            EXPECT_LE(m.worst_error(kSets[s], est), e.pinned[s] + 0.01);
        }
}
