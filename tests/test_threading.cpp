// Band division, waves, tile geometry and progress.

#include <atomic>

#include "Threading/bands.hpp"
#include "test_support.hpp"

namespace {

// What each band record of DivideWork saw, and whether it ran on the caller.
struct Rec {
    int32_t index, threaded, first, end;
    std::vector<std::array<int, 5>> *log;
    std::atomic<int> *count;
    pthread_t caller;
};

void *record_self(void *p) {
    auto *r = static_cast<Rec *>(p);
    (*r->log)[r->index] = {r->index, r->threaded, r->first, r->end,
                           pthread_equal(pthread_self(), r->caller) ? 1 : 0};
    r->count->fetch_add(1);
    return nullptr;
}

// The records of one DivideWork call, in band order.
std::vector<std::array<int, 5>> divide(int start, int end, int threads, int *rc = nullptr) {
    std::vector<std::array<int, 5>> log(64);
    std::atomic<int> count{0};
    Rec t{0, 0, 0, 0, &log, &count, pthread_self()};
    testing::internal::CaptureStderr();
    const int r = DivideWork(start, end, threads, record_self, &t, sizeof t);
    testing::internal::GetCapturedStderr();
    if (rc) *rc = r;
    log.resize(count.load());
    return log;
}

TEST(DivideWork, BandsFollowTheSplitRule) {
    using Log = std::vector<std::array<int, 5>>;
    int rc = -9;
    // {index, threaded, first, end, ran on the caller}
    EXPECT_EQ(divide(0, 10, 4, &rc),
              (Log{{0, 1, 0, 2, 0}, {1, 1, 2, 4, 0}, {2, 1, 4, 6, 0}, {3, 1, 6, 10, 0}}));
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(divide(0, 3, 8), (Log{{0, 1, 0, 1, 0}, {1, 1, 1, 2, 0}, {2, 1, 2, 3, 0}}))
        << "more threads than rows: one row each";
    EXPECT_EQ(divide(5, 5, 4), Log{});
    EXPECT_EQ(divide(3, 9, 1), (Log{{0, 0, 3, 9, 1}})) << "one thread runs inline";
}

TEST(DivideWork, PrintsOneLinePerBandAndRejectsBadArguments) {
    std::vector<std::array<int, 5>> log(8);
    std::atomic<int> count{0};
    Rec t{0, 0, 0, 0, &log, &count, pthread_self()};
    testing::internal::CaptureStderr();
    DivideWork(0, 10, 2, record_self, &t, sizeof t);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "----> 0: 0 - 5\n----> 1: 5 - 10\n");
    EXPECT_EQ(DivideWork(0, 10, 2, nullptr, &t, sizeof t), -1);
    EXPECT_EQ(DivideWork(0, 10, 2, record_self, nullptr, sizeof t), -1);
    EXPECT_EQ(DivideWork(0, 10, 2, record_self, &t, 8), -1);
    bvtest::FailAllocation fail(0);
    EXPECT_EQ(DivideWork(0, 10, 2, record_self, &t, sizeof t), -4);
}

TEST(Bands, SplitIsEvenWithRemainderLast) {
    auto sizes = [](int first, int end, int threads) {
        std::vector<int> v;
        for (const auto &b : bv::threading::split_rows(first, end, threads))
            v.push_back(b.end - b.first);
        return v;
    };
    EXPECT_EQ(sizes(0, 3, 7), std::vector<int>({0, 0, 0, 0, 0, 0, 3}))
        << "more threads than rows: empty leading bands, the last takes all";
    EXPECT_TRUE(sizes(4, 4, 3).empty());
}

TEST(Bands, WavesRunEveryIndexOnceForAnyThreadCount) {
    for (int threads : {1, 2, 3, 7}) {
        std::vector<std::atomic<int>> hits(23);
        bv::threading::run_waves(23, threads, [&](int i) { hits[i].fetch_add(1); });
        for (auto &h : hits) EXPECT_EQ(h.load(), 1) << threads << " threads";
    }
}

TEST(Bands, DimBandsChecksTheImage) {
    using B = bv::threading::DimBands;
    // width, height, channels, rowOut, channels needed: status, samples per row
    // clang-format off
    const std::tuple<int, int, int, int, int, B::Status, size_t> cases[] = {
        {4, 3, 3, 0, 3, B::kOk, 12},          {4, 3, 3, 12, 3, B::kOk, 12},   {4, 3, 3, 15, 3, B::kOk, 15},
        {4, 3, 3, 11, 3, B::kBad, 0},         {4, 3, 3, -1, 3, B::kBad, 0},   {-1, 3, 3, 0, 3, B::kBad, 0},
        {4, -1, 3, 0, 3, B::kBad, 0},         {4, 3, -1, 0, 0, B::kBad, 0},   {0, 3, 3, -5, 3, B::kEmpty, 0},
        {4, 0, 3, 0, 3, B::kEmpty, 0},        {4, 3, 2, -5, 3, B::kFewChannels, 0}, {4, 3, 1, 0, 1, B::kOk, 4}};
    // clang-format on
    DimParam d;
    init_dim_param(&d);
    for (auto [w, h, ch, row_out, needed, status, row] : cases) {
        d.width = w, d.height = h, d.channels = ch, d.rowOut = row_out;
        const B rows(d, needed);
        EXPECT_EQ(rows.status(), status) << w << "x" << h << "x" << ch << " " << row_out;
        EXPECT_EQ(status == B::kOk ? rows.row_samples() : 0, row);
    }
}

TEST(Tiles, CoordinatesExtendByOverlapInsideTheImage) {
    // cols, rows, tile x, tile y: x0, y0, x1, y1 of 100 x 80 in 40 x 40 tiles, overlap 8
    const std::pair<std::array<int, 4>, std::array<int, 4>> cases[] = {
        {{3, 2, 1, 1}, {32, 32, 88, 80}},
        {{3, 2, 0, 0}, {0, 0, 48, 48}},
        {{1, 1, 0, 0}, {0, 0, 100, 80}}};
    for (const auto &[at, want] : cases) {
        std::array<int, 4> got;
        get_tile_coordinates(100, 80, 40, 40, at[0], at[1], 8, at[2], at[3], &got[0], &got[1],
                             &got[2], &got[3]);
        EXPECT_EQ(got, want);
    }
}

TEST(Tiles, DenoiseGridCoversTheImage) {
    for (auto [w, h] : {std::pair{1, 1}, {640, 480}, {6000, 4000}, {70000, 3}}) {
        int cols, rows, tw, th, ov;
        const int n = getDenoiseTileInfo(w, h, 8u << 20, &cols, &rows, &tw, &th, &ov);
        EXPECT_EQ(n, cols * rows);
        EXPECT_TRUE(tw * cols >= w && th * rows >= h) << w << "x" << h;
        EXPECT_TRUE(tw * (cols - 1) < w && th * (rows - 1) < h) << w << "x" << h;
    }
}

int g_calls = 0;
void count_cb(int32_t *cancel, float) { g_calls += 1 + *cancel; }
void cancel_cb(int32_t *cancel, float) { *cancel = 1; }

TEST(Progress, NullCallbackGoesOnAndCancelStops) {
    EXPECT_EQ(progress(nullptr, 0.5f), 1);
    EXPECT_EQ(progress(count_cb, 0.25f), 1);
    EXPECT_EQ(g_calls, 1) << "called once, with the cancel flag clear";
    EXPECT_EQ(progress(cancel_cb, 0.25f), 0);
}

}  // namespace
