// The one band-splitting helper behind every parallel operation.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <vector>

namespace bv::threading {

struct Band {
    int index;  // 0 .. count - 1
    int first;  // first row
    int end;    // one past the last row
};

// Even split of [start, end) into `threads` bands of (end - start) / threads
// rows, the last band taking the remainder. Pure; threads < 1 counts as 1.
std::vector<Band> split_rows(int start, int end, int threads);

// Joinable POSIX threads started for one call; the destructor joins whatever
// is still running, so no thread outlives the scope that started it.
class ThreadGroup {
public:
    ThreadGroup() = default;
    ThreadGroup(const ThreadGroup &) = delete;
    ThreadGroup &operator=(const ThreadGroup &) = delete;
    ~ThreadGroup() { join_all(); }

    // Starts entry(arg) on a new joinable thread; false if creation failed.
    bool spawn(void *(*entry)(void *), void *arg) noexcept;
    void join_all() noexcept;
    size_t size() const noexcept { return ids_.size(); }

private:
    std::vector<pthread_t> ids_;
};

// What to do when a thread cannot be created.
enum class OnSpawnFailure {
    RunInline,  // run that band in the calling thread and go on
    Fail        // join what was started and report failure
};

// Runs body(band) for every band of split_rows(start, end, threads): inline
// for one band, else one thread per band. Returns 0, or -2 when a thread
// could not be created under OnSpawnFailure::Fail. body must not throw.
int run_bands(int start, int end, int threads, const std::function<void(const Band &)> &body,
              OnSpawnFailure policy = OnSpawnFailure::Fail);

// Runs body(i) for tasks 0..count-1 in waves of at most `threads` threads,
// each wave joined before the next starts. A failed thread creation runs the
// rest of its wave inline. Fewer than 2 threads: everything inline, in order.
void run_waves(int count, int threads, const std::function<void(int)> &body);

}  // namespace bv::threading
