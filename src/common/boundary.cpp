// Scratch-allocation fault injection and the RAII file wrapper.
#include "common/boundary.hpp"

#include <cstdio>

namespace bv {
namespace detail {

std::atomic<long> g_alloc_fail_countdown{-1};

bool alloc_should_fail() noexcept {
    long c = g_alloc_fail_countdown.load(std::memory_order_relaxed);
    if (c < 0) return false;
    // Decrement only while armed; the allocation that sees 0 fails.
    while (c >= 0 && !g_alloc_fail_countdown.compare_exchange_weak(c, c - 1)) {
    }
    return c == 0;
}

}  // namespace detail

File::File(const char *path, const char *mode) noexcept
    : f_(path ? std::fopen(path, mode) : nullptr) {}

int File::close() noexcept {
    if (!f_) return 0;
    int rc = std::fclose(f_);
    f_ = nullptr;
    return rc;
}

}  // namespace bv
