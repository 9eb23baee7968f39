// Band division, waves, tile geometry and progress.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <vector>

#include <Brackvista40Lib1.h>

#include "Threading/bands.hpp"
#include "test_support.hpp"

namespace {

struct Rec {
    int32_t index, threaded, first, end;
    std::vector<Rec> *log;  // each record copies itself out when it runs
    std::atomic<int> *count;
    pthread_t *caller;
    int *ran_inline;
};

void *record_self(void *p) {
    auto *r = static_cast<Rec *>(p);
    (*r->log)[r->index] = *r;
    r->count->fetch_add(1);
    if (pthread_equal(pthread_self(), *r->caller)) r->ran_inline[r->index] = 1;
    return nullptr;
}

struct DivideRun {
    std::vector<Rec> log = std::vector<Rec>(64);
    std::atomic<int> count{0};
    pthread_t caller = pthread_self();
    int ran_inline[64] = {};
    int go(int start, int end, int threads) {
        Rec t{};
        t.log = &log;
        t.count = &count;
        t.caller = &caller;
        t.ran_inline = ran_inline;
        testing::internal::CaptureStderr();
        int rc = DivideWork(start, end, threads, record_self, &t, sizeof t);
        testing::internal::GetCapturedStderr();
        return rc;
    }
};

TEST(DivideWork, BandsFollowTheSplitRule) {
    DivideRun r;
    EXPECT_EQ(r.go(0, 10, 4), 0);
    ASSERT_EQ(r.count.load(), 4);
    const int want[4][2] = {{0, 2}, {2, 4}, {4, 6}, {6, 10}};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(r.log[i].index, i);
        EXPECT_EQ(r.log[i].first, want[i][0]);
        EXPECT_EQ(r.log[i].end, want[i][1]);
        EXPECT_EQ(r.log[i].threaded, 1);
        EXPECT_EQ(r.ran_inline[i], 0);
    }
}

TEST(DivideWork, MoreThreadsThanRowsGivesOneRowEach) {
    DivideRun r;
    r.go(0, 3, 8);
    ASSERT_EQ(r.count.load(), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(r.log[i].first, i);
        EXPECT_EQ(r.log[i].end, i + 1);
    }
}

TEST(DivideWork, EmptyRangeRunsNothingAndOneThreadRunsInline) {
    DivideRun empty;
    empty.go(5, 5, 4);
    EXPECT_EQ(empty.count.load(), 0);

    DivideRun one;
    one.go(3, 9, 1);
    ASSERT_EQ(one.count.load(), 1);
    EXPECT_EQ(one.log[0].threaded, 0);
    EXPECT_EQ(one.log[0].first, 3);
    EXPECT_EQ(one.log[0].end, 9);
    EXPECT_EQ(one.ran_inline[0], 1);
}

TEST(DivideWork, PrintsOneLinePerBandAndRejectsBadArguments) {
    Rec t{};
    std::vector<Rec> log(8);
    std::atomic<int> count{0};
    pthread_t caller = pthread_self();
    int ran[8] = {};
    t.log = &log;
    t.count = &count;
    t.caller = &caller;
    t.ran_inline = ran;
    testing::internal::CaptureStderr();
    DivideWork(0, 10, 2, record_self, &t, sizeof t);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "----> 0: 0 - 5\n----> 1: 5 - 10\n");
    EXPECT_EQ(DivideWork(0, 10, 2, nullptr, &t, sizeof t), -1);
    EXPECT_EQ(DivideWork(0, 10, 2, record_self, nullptr, sizeof t), -1);
    EXPECT_EQ(DivideWork(0, 10, 2, record_self, &t, 8), -1);
    {
        bvtest::FailAllocation fail(0);
        EXPECT_EQ(DivideWork(0, 10, 2, record_self, &t, sizeof t), -4);
    }
}

TEST(Bands, SplitIsEvenWithRemainderLast) {
    auto b = bv::threading::split_rows(0, 10, 3);
    ASSERT_EQ(b.size(), 3u);
    EXPECT_EQ(b[0].end - b[0].first, 3);
    EXPECT_EQ(b[1].end - b[1].first, 3);
    EXPECT_EQ(b[2].end - b[2].first, 4);
    // More threads than rows: empty leading bands, the last takes all.
    auto c = bv::threading::split_rows(0, 3, 7);
    ASSERT_EQ(c.size(), 7u);
    int total = 0;
    for (auto &x : c) total += x.end - x.first;
    EXPECT_EQ(total, 3);
    EXPECT_TRUE(bv::threading::split_rows(4, 4, 3).empty());
}

TEST(Bands, RunBandsCoversEveryRowOnceForAnyThreadCount) {
    for (int threads : {1, 2, 3, 7, 8, 40}) {
        for (int height : {1, 5, 17, 31}) {
            std::vector<int> rows(height, 0);
            int rc = bv::threading::run_bands(0, height, threads, [&](const bv::threading::Band &b) {
                for (int y = b.first; y < b.end; ++y) rows[y] += 1;
            });
            EXPECT_EQ(rc, 0);
            for (int y = 0; y < height; ++y) EXPECT_EQ(rows[y], 1) << threads << " " << height;
        }
    }
}

TEST(Bands, DimBandsChecksTheImageAndReturnsTheLastBand) {
    using B = bv::threading::DimBands;
    struct Case {
        int w, h, ch, row_out, needed;
        B::Status status;
        size_t row;
    } cases[] = {
        {4, 3, 3, 0, 3, B::kOk, 12},          {4, 3, 3, 12, 3, B::kOk, 12},
        {4, 3, 3, 15, 3, B::kOk, 15},         {4, 3, 3, 11, 3, B::kBad, 0},
        {4, 3, 3, -1, 3, B::kBad, 0},         {-1, 3, 3, 0, 3, B::kBad, 0},
        {4, -1, 3, 0, 3, B::kBad, 0},         {4, 3, -1, 0, 0, B::kBad, 0},
        {0, 3, 3, -5, 3, B::kEmpty, 0},       {4, 0, 3, 0, 3, B::kEmpty, 0},
        {4, 3, 2, -5, 3, B::kFewChannels, 0}, {4, 3, 1, 0, 1, B::kOk, 4},
    };
    for (const Case &c : cases) {
        DimParam d;
        init_dim_param(&d);
        d.width = c.w, d.height = c.h, d.channels = c.ch, d.rowOut = c.row_out;
        const B rows(d, c.needed);
        EXPECT_EQ(rows.status(), c.status) << c.w << "x" << c.h << "x" << c.ch << " " << c.row_out;
        if (c.status == B::kOk) {
            EXPECT_EQ(rows.row_samples(), c.row);
        }
    }
    // The result is the last band's: 10 rows in 3 bands end with 4 rows.
    DimParam d;
    init_dim_param(&d);
    d.width = 1, d.height = 10;
    const B rows(d, 3);
    for (int threads : {1, 2, 3, 7}) {
        std::vector<std::atomic<int>> hits(10);
        const int last = rows.run(threads, [&](const bv::threading::Band &b) {
            for (int y = b.first; y < b.end; ++y) hits[y].fetch_add(1);
            return b.end - b.first;
        }, -2);
        EXPECT_EQ(last, threads == 1 ? 10 : 10 - (threads - 1) * (10 / threads)) << threads;
        for (auto &h : hits) EXPECT_EQ(h.load(), 1);
    }
}

TEST(Bands, WavesRunEveryTaskOnce) {
    for (int threads : {1, 2, 3, 8}) {
        std::vector<std::atomic<int>> hits(23);
        bv::threading::run_waves(23, threads, [&](int i) { hits[i].fetch_add(1); });
        for (auto &h : hits) EXPECT_EQ(h.load(), 1);
    }
}

TEST(Tiles, CoordinatesExtendByOverlapInsideTheImage) {
    int x0, y0, x1, y1;
    get_tile_coordinates(100, 80, 40, 40, 3, 2, 8, 1, 1, &x0, &y0, &x1, &y1);
    EXPECT_EQ(x0, 32);
    EXPECT_EQ(x1, 88);
    EXPECT_EQ(y0, 32);
    EXPECT_EQ(y1, 80);
    get_tile_coordinates(100, 80, 40, 40, 3, 2, 8, 0, 0, &x0, &y0, &x1, &y1);
    EXPECT_EQ(x0, 0);
    EXPECT_EQ(x1, 48);
    EXPECT_EQ(y0, 0);
    EXPECT_EQ(y1, 48);
    get_tile_coordinates(100, 80, 40, 40, 1, 1, 8, 0, 0, &x0, &y0, &x1, &y1);
    EXPECT_EQ(x1, 100);
    EXPECT_EQ(y1, 80);
}

TEST(Tiles, DenoiseGridCoversTheImage) {
    for (auto [w, h] : {std::pair{1, 1}, {640, 480}, {6000, 4000}, {70000, 3}}) {
        int cols, rows, tw, th, ov;
        int n = getDenoiseTileInfo(w, h, 8u << 20, &cols, &rows, &tw, &th, &ov);
        EXPECT_EQ(n, cols * rows);
        EXPECT_GE(tw * cols, w);
        EXPECT_GE(th * rows, h);
        EXPECT_LT(tw * (cols - 1), w);
        EXPECT_LT(th * (rows - 1), h);
    }
}

int g_calls = 0;
void count_cb(int32_t *cancel, float) {
    ++g_calls;
    EXPECT_EQ(*cancel, 0);
}
void cancel_cb(int32_t *cancel, float) { *cancel = 1; }

TEST(Progress, NullCallbackGoesOnAndCancelStops) {
    EXPECT_EQ(progress(nullptr, 0.5f), 1);
    g_calls = 0;
    EXPECT_EQ(progress(count_cb, 0.25f), 1);
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(progress(cancel_cb, 0.25f), 0);
}

}  // namespace
