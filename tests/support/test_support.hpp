// Helpers shared by the test programs: data paths, temp files, fault injection.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bvtest {

using Bytes = std::vector<uint8_t>;

// Root of the shared real data (../shared/data from the project root), or ""
// when it is absent; tests that need it call GTEST_SKIP with a message.
std::string shared_data_dir();

// A fresh path in a per-process temporary folder; removed at exit.
std::string temp_path(const std::string &name);

// Reads or writes a whole file; false on failure.
bool read_file(const std::string &path, std::vector<uint8_t> *out);
bool write_file(const std::string &path, const void *data, size_t size);

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

// Runs f(threads) with 1, 2, 3 and 7 threads: every result must equal the
// single-threaded one byte for byte.
template <class F>
void expect_thread_invariant(F &&f) {
    const auto one = f(1);
    for (int t : {2, 3, 7}) EXPECT_TRUE(f(t) == one) << t << " threads differ from one";
}

}  // namespace bvtest

#define BV_REQUIRE_SHARED_DATA(dir)                                                   \
    do {                                                                              \
        if ((dir).empty())                                                            \
            GTEST_SKIP() << "real test data not found at ../shared/data (run from "   \
                            "the project root with shared/ beside it)";               \
    } while (0)
