// Internal plumbing shared by every module: scratch memory and the C boundary.
#pragma once

#include <Brackvista40Lib1.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

namespace bv {

namespace detail {
// Test-only fault injection: when >= 0, counts down on every scratch
// allocation and fails the one that finds it at 0. Never set by the library.
extern std::atomic<long> g_alloc_fail_countdown;
bool alloc_should_fail() noexcept;
}  // namespace detail

// Overflow-checked product of element counts; false when it would not fit.
inline bool checked_mul(size_t a, size_t b, size_t *out) noexcept {
    if (a != 0 && b > SIZE_MAX / a) return false;
    *out = a * b;
    return true;
}

// Zero-initialised scratch buffer owned for the scope of one call.
// alloc() reports failure instead of throwing, so adapters can return -4.
template <class T>
class Scratch {
public:
    Scratch() = default;
    explicit Scratch(size_t count) { alloc(count); }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    Scratch(Scratch &&o) noexcept : p_(std::exchange(o.p_, nullptr)), n_(std::exchange(o.n_, 0)) {}
    Scratch &operator=(Scratch &&o) noexcept {
        if (this != &o) {
            std::free(p_);
            p_ = std::exchange(o.p_, nullptr);
            n_ = std::exchange(o.n_, 0);
        }
        return *this;
    }
    ~Scratch() { std::free(p_); }

    // Allocates `count` zeroed elements (at least one); false on failure.
    bool alloc(size_t count) noexcept {
        std::free(p_);
        p_ = nullptr;
        n_ = 0;
        size_t bytes = 0;
        if (!checked_mul(count ? count : 1, sizeof(T), &bytes)) return false;
        if (detail::alloc_should_fail()) return false;
        p_ = static_cast<T *>(std::calloc(1, bytes));
        if (!p_) return false;
        n_ = count;
        return true;
    }
    T *get() const noexcept { return p_; }
    T &operator[](size_t i) const noexcept { return p_[i]; }
    size_t size() const noexcept { return n_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }

private:
    T *p_ = nullptr;
    size_t n_ = 0;
};

// Runs body at the C boundary: a std::bad_alloc becomes `oom_code`, any other
// exception `other_code`. Nothing thrown inside ever reaches the host.
template <class F>
auto c_boundary(int oom_code, int other_code, F &&body) noexcept -> decltype(body()) {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return static_cast<decltype(body())>(oom_code);
    } catch (...) {
        return static_cast<decltype(body())>(other_code);
    }
}

// RAII FILE* that closes on every path.
class File {
public:
    File() = default;
    File(const char *path, const char *mode) noexcept;
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File() { close(); }
    // Closes now; returns the fclose result (0 ok), 0 when nothing was open.
    int close() noexcept;
    FILE *get() const noexcept { return f_; }
    explicit operator bool() const noexcept { return f_ != nullptr; }

private:
    FILE *f_ = nullptr;
};

}  // namespace bv
