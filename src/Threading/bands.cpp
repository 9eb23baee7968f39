// Band splitting, thread groups and waves of tiles.
#include "Threading/bands.hpp"

#include "common/boundary.hpp"

namespace bv::threading {

std::vector<Band> split_rows(int start, int end, int threads) {
    if (threads < 1) threads = 1;
    std::vector<Band> bands;
    if (end <= start) return bands;
    const int band = (end - start) / threads;
    bands.reserve(static_cast<size_t>(threads));
    for (int i = 0; i < threads; ++i) {
        const int first = start + i * band;
        const int last = (i == threads - 1) ? end : first + band;
        bands.push_back(Band{i, first, last});
    }
    return bands;
}

bool ThreadGroup::spawn(void *(*entry)(void *), void *arg) noexcept {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return false;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    pthread_t id;
    const int rc = pthread_create(&id, &attr, entry, arg);
    pthread_attr_destroy(&attr);
    if (rc != 0) return false;
    try {
        ids_.push_back(id);
    } catch (...) {
        // Cannot record it: join now rather than leak a running thread.
        pthread_join(id, nullptr);
    }
    return true;
}

void ThreadGroup::join_all() noexcept {
    for (pthread_t id : ids_) pthread_join(id, nullptr);
    ids_.clear();
}

namespace {

struct BandTask {
    const std::function<void(const Band &)> *body;
    Band band;
};

void *band_entry(void *arg) {
    auto *t = static_cast<BandTask *>(arg);
    (*t->body)(t->band);
    return nullptr;
}

struct WaveTask {
    const std::function<void(int)> *body;
    int index;
};

void *wave_entry(void *arg) {
    auto *t = static_cast<WaveTask *>(arg);
    (*t->body)(t->index);
    return nullptr;
}

}  // namespace

int run_bands(const std::vector<Band> &bands, const std::function<void(const Band &)> &body,
              OnSpawnFailure policy) {
    if (bands.size() == 1) {
        Band b = bands[0];
        b.threaded = false;
        body(b);
        return 0;
    }
    std::vector<BandTask> tasks;
    tasks.reserve(bands.size());
    for (const Band &b : bands) tasks.push_back(BandTask{&body, b});
    ThreadGroup group;
    for (BandTask &t : tasks) {
        t.band.threaded = true;
        if (group.spawn(band_entry, &t)) continue;
        if (policy == OnSpawnFailure::Fail) return -2;  // group joins on return
        t.band.threaded = false;
        body(t.band);
    }
    group.join_all();
    return 0;
}

int run_bands(int start, int end, int threads, const std::function<void(const Band &)> &body,
              OnSpawnFailure policy) {
    return run_bands(split_rows(start, end, threads), body, policy);
}

DimBands::DimBands(const DimParam &dim, int channels_needed) noexcept : height_(dim.height) {
    if (dim.width < 0 || dim.height < 0 || dim.channels < 0) return;
    if (dim.width == 0 || dim.height == 0) {
        status_ = kEmpty;
        return;
    }
    if (dim.channels < channels_needed) {
        status_ = kFewChannels;
        return;
    }
    size_t packed;
    if (!checked_mul(static_cast<size_t>(dim.width), static_cast<size_t>(dim.channels), &packed) ||
        dim.rowOut < 0 || (dim.rowOut > 0 && static_cast<size_t>(dim.rowOut) < packed))
        return;
    row_ = dim.rowOut > 0 ? static_cast<size_t>(dim.rowOut) : packed;
    status_ = kOk;
}

int DimBands::run(int threads, const std::function<int(const Band &)> &body,
                  int spawn_failure) const {
    if (threads <= 1) return body(Band{0, 0, height_});
    const std::vector<Band> bands = split_rows(0, height_, threads);
    std::vector<int> results(bands.size(), 0);
    const int rc = run_bands(
        bands, [&](const Band &b) { results[static_cast<size_t>(b.index)] = body(b); },
        OnSpawnFailure::Fail);
    return rc < 0 ? spawn_failure : results.back();
}

void run_waves(int count, int threads, const std::function<void(int)> &body) {
    if (count <= 0) return;
    if (threads < 2) {
        for (int i = 0; i < count; ++i) body(i);
        return;
    }
    std::vector<WaveTask> tasks(static_cast<size_t>(threads));
    for (int base = 0; base < count; base += threads) {
        ThreadGroup group;
        const int n = (count - base < threads) ? count - base : threads;
        bool inline_rest = false;
        for (int k = 0; k < n; ++k) {
            tasks[k] = WaveTask{&body, base + k};
            if (!inline_rest && group.spawn(wave_entry, &tasks[k])) continue;
            inline_rest = true;
            body(base + k);
        }
        group.join_all();
    }
}

}  // namespace bv::threading
