// Helpers shared by the test programs: data paths, temp files, fault injection,
// planar RGBE images, random content, golden digests and the thread check.
#pragma once

// The API under test, the test framework and the standard pieces every test uses.
#include <Brackvista40Lib1.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace bvtest {

using Bytes = std::vector<uint8_t>;

// Root of the shared real data (../shared/data from the project root), or ""
// when it is absent; tests that need it call GTEST_SKIP with a message.
std::string shared_data_dir();

// A fresh path in a per-process temporary folder; removed at exit.
std::string temp_path(const std::string &name);

// Reads or writes a whole file; false on failure.
bool read_file(const std::string &path, Bytes *out);
bool write_file(const std::string &path, const void *data, size_t size);
std::string text_of(const std::string &path);  // "" when unreadable
// Writes content to a fresh temporary file; its path.
std::string write_text(const std::string &name, const std::string &content);
// Standard output of a shell command.
std::string shell(const std::string &cmd);
// A fresh temporary folder, created; removed at exit with the rest.
std::string temp_dir(const std::string &name);
// Exit status of tests/scripts/cv2_hdr.py (OpenCV's reader and writer) run with args.
constexpr int kNoOpenCv = 77;  // its status when OpenCV's Python module is missing
int cv2_run(const std::string &args);
// The script's raw files: int32 width, height, then float RGB; empty unless w x h.
std::vector<float> load_raw(const std::string &path, int w, int h);

// What call() prints on standard error, each occurrence of `path` shown as "%s".
template <class F>
std::string stderr_of(F &&call, const std::string &path = "") {
    testing::internal::CaptureStderr();
    call();
    std::string s = testing::internal::GetCapturedStderr();
    for (size_t at; !path.empty() && (at = s.find(path)) != std::string::npos;)
        s.replace(at, path.size(), "%s");
    return s;
}

// Packed rows of w x h pixels; the other fields keep init_dim_param's defaults.
DimParam dim_param(int w, int h, int channels, int bitsIn, int bitsOut);
// `p` with the given {index, value} slots set.
inline TmParam tm_slots(std::initializer_list<std::pair<int, float>> slots, TmParam p = {}) {
    for (const auto &[i, v] : slots) p.slot[i] = v;
    return p;
}

// Makes the n-th next scratch allocation inside the library fail (0 = the
// next one). Disarmed by the guard's destructor.
class FailAllocation {
public:
    explicit FailAllocation(long nth);
    ~FailAllocation();
};

// Deterministic pseudo-random generator for test content.
class Rng {
public:
    explicit Rng(uint64_t seed) : s_(seed * 6364136223846793005ull + 1442695040888963407ull) {}
    uint32_t next() {
        s_ = s_ * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(s_ >> 33);
    }
    double uniform() { return next() / 2147483648.0; }  // [0, 1)

private:
    uint64_t s_;
};

// 64-bit FNV-1a of a buffer: pins a bit-exact output in one line.
uint64_t digest(const void *data, size_t size);
template <class V>
uint64_t digest(const V &v) {
    return digest(v.data(), v.size() * sizeof(v[0]));
}

// Uniformly random bytes.
Bytes random_bytes(size_t n, uint64_t seed);
// exp_lut_old's RGBE exponent table, built once.
const float *exp_table();

// Planar RGBE image: per row, all R mantissas, then G, B and the exponents.
struct Planar {
    int w, h;
    Bytes px;
    Planar(int w_, int h_, uint8_t fill = 0) : w(w_), h(h_), px(size_t(4) * w_ * h_, fill) {}
    uint8_t *at(int x, int y, int c) { return &px[(size_t(y) * 4 + c) * w + x]; }
    uint8_t at(int x, int y, int c) const { return px[(size_t(y) * 4 + c) * w + x]; }
    void set(int x, int y, std::array<uint8_t, 4> p) {
        for (int c = 0; c < 4; ++c) *at(x, y, c) = p[c];
    }
    std::array<uint8_t, 4> get(int x, int y) const {
        return {at(x, y, 0), at(x, y, 1), at(x, y, 2), at(x, y, 3)};
    }
    // Mantissa x 2^(E - 136), and black for E = 0: the decoding other readers use.
    std::array<float, 3> value(int x, int y) const;
    // All pixels decoded, interleaved RGB floats.
    std::vector<float> values() const;
};

// Normalised pixels (largest mantissa R in 128..255), exponents 120..149 and
// about one black pixel in ten.
Planar random_planar(int w, int h, uint64_t seed);

// Runs f(threads) with 1, 2, 3 and 7 threads: every result must equal the
// single-threaded one byte for byte, which is returned.
template <class F>
auto expect_thread_invariant(F &&f) {
    const auto one = f(1);
    for (int t : {2, 3, 7}) EXPECT_TRUE(f(t) == one) << t << " threads differ from one";
    return one;
}

}  // namespace bvtest

#define BV_REQUIRE_SHARED_DATA(dir)                                                 \
    do {                                                                            \
        if ((dir).empty())                                                          \
            GTEST_SKIP() << "real test data not found at ../shared/data (run from " \
                            "the project root with shared/ beside it)";             \
    } while (0)
