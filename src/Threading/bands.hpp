// The one band-splitting helper behind every parallel operation.
#pragma once

#include <Brackvista40Lib1.h>
#include <pthread.h>

#include <cstddef>
#include <functional>
#include <vector>

namespace bv::threading {

struct Band {
    int index;              // 0 .. count - 1
    int first;              // first row
    int end;                // one past the last row
    bool threaded = false;  // run_bands: running on a thread of its own
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

// Runs body(band) for every band: inline for one band, else one thread per
// band, all joined before it returns. Returns 0, or -2 when a thread could
// not be created under OnSpawnFailure::Fail. body must not throw.
int run_bands(const std::vector<Band> &bands, const std::function<void(const Band &)> &body,
              OnSpawnFailure policy = OnSpawnFailure::Fail);
// The same over the bands of split_rows(start, end, threads).
int run_bands(int start, int end, int threads, const std::function<void(const Band &)> &body,
              OnSpawnFailure policy = OnSpawnFailure::Fail);

// The rows of an image described by a DimParam: checked once, then run in
// bands by the operations that take one.
class DimBands {
public:
    enum Status {
        kOk,
        kEmpty,        // width or height is 0: nothing to do
        kBad,          // a negative size, or output rows too short
        kFewChannels,  // fewer channels than the operation works on
    };
    // Checks, in this order: width, height or channels negative (kBad);
    // width or height 0 (kEmpty); channels below channels_needed
    // (kFewChannels); rowOut negative, or positive and shorter than width *
    // channels samples (kBad).
    DimBands(const DimParam &dim, int channels_needed) noexcept;
    Status status() const noexcept { return status_; }
    // Output row length in samples: rowOut, or width * channels when 0.
    size_t row_samples() const noexcept { return row_; }
    // Runs body over rows [0, height): on the calling thread as one band when
    // threads <= 1, else in split_rows bands on their own threads. Returns
    // the last band's result, or spawn_failure when a thread could not be
    // created (the others are joined first). Only for status kOk.
    int run(int threads, const std::function<int(const Band &)> &body, int spawn_failure) const;

private:
    int height_ = 0;
    size_t row_ = 0;
    Status status_ = kBad;
};

// Tells the host's progress callback (may be NULL) the fraction done; false
// when the host asked to stop. Always on the calling thread.
bool report_progress(bv_progress_cb callback, float fraction);

// Runs body(i) for tasks 0..count-1 in waves of at most `threads` threads,
// each wave joined before the next starts. A failed thread creation runs the
// rest of its wave inline. Fewer than 2 threads: everything inline, in order.
void run_waves(int count, int threads, const std::function<void(int)> &body);

}  // namespace bv::threading
