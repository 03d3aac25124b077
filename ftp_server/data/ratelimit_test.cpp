// Tests of the per-transfer rate limit on a simulated clock: the average over 30 seconds, the most
// any one second carries, and a limiter that is off costing nothing.
#include "data/ratelimit.h"

#include <gtest/gtest.h>

#include <deque>
#include <utility>

namespace {

struct fake_clock {
    long long now = 1000000;
    int reads = 0;
};

long long read_clock(void *ctx) {
    auto *c = static_cast<fake_clock *>(ctx);
    c->reads++;
    return c->now;
}

TEST(RateLimit, ThirtySecondsKeepTheAverageAndEverySecondWithinTheBurst) {
    struct row {
        unsigned kib;
        size_t block;    // what the transfer loop would like to move per step
        int work_ms;     // time each step takes besides the wait (every third step)
        bool use_chunk;  // whether the loop cuts its steps to chunk()
    };
    const row rows[] = {
        {1, 65536, 0, true},      {64, 65536, 1, true},       {1000, 65536, 0, true},
        {100000, 65536, 0, true}, {100000, 1048576, 2, true}, {200, 1048576, 0, false},  // 1 MiB steps at 200 KiB/s
    };
    for (const row &r : rows) {
        SCOPED_TRACE(testing::Message() << r.kib << " KiB/s, block " << r.block);
        fake_clock clock;
        ftp_rate_limit limit(r.kib, read_clock, &clock);
        const long long rate = static_cast<long long>(r.kib) * 1024;
        const long long start = clock.now, end = start + 30000;
        std::deque<std::pair<long long, long long>> window;  // (when, bytes) of the last second
        long long in_window = 0, most = 0, total = 0, last_move = start;
        for (int step = 0; clock.now < end; step++) {
            size_t n = r.use_chunk ? limit.chunk(r.block) : r.block;
            clock.now += limit.wait_ms(n);
            if (clock.now >= end) break;
            total += static_cast<long long>(n);
            last_move = clock.now;
            window.emplace_back(clock.now, n);
            in_window += static_cast<long long>(n);
            while (window.front().first <= clock.now - 1000) {
                in_window -= window.front().second;
                window.pop_front();
            }
            if (in_window > most) most = in_window;
            if (step % 3 == 0) clock.now += r.work_ms;
        }
        double average = static_cast<double>(total) / (static_cast<double>(last_move - start) / 1000.0);
        EXPECT_NEAR(average, static_cast<double>(rate), rate * 0.01);
        long long step_max = static_cast<long long>(r.use_chunk ? limit.chunk(r.block) : r.block);
        long long allowed = rate + static_cast<long long>(limit.burst()) + (r.use_chunk ? 0 : step_max);
        EXPECT_LE(most, allowed);
    }
}

// The steps chunk() cuts to the burst, and those it leaves whole, are the transfers above.
TEST(RateLimit, BurstIsATenthOfASecondAndNoLessThanABlock) {
    const std::pair<unsigned, size_t> rows[] = {{1, 512}, {5, 512}, {10, 1024}, {1000, 102400}, {10485760, 1073741824}};
    for (const auto &[kib, burst] : rows) EXPECT_EQ(ftp_rate_limit(kib).burst(), burst) << kib;
}

TEST(RateLimit, OffNeverWaitsNorReadsTheClock) {
    fake_clock clock;
    ftp_rate_limit limit(0, read_clock, &clock);
    EXPECT_FALSE(limit.on());
    for (size_t n : {size_t{0}, size_t{1}, size_t{1} << 30, static_cast<size_t>(-1)}) EXPECT_EQ(limit.wait_ms(n), 0);
    EXPECT_EQ(limit.chunk(static_cast<size_t>(-1)), static_cast<size_t>(-1));
    EXPECT_EQ(clock.reads, 0);
}

// After a pause the transfer may not make up for the time lost beyond the burst.
TEST(RateLimit, AnIdlePauseRefillsOnlyTheBurst) {
    fake_clock clock;
    ftp_rate_limit limit(100, read_clock, &clock);  // 102400 B/s, burst 10240
    EXPECT_EQ(limit.wait_ms(10240), 100);           // starts empty
    clock.now += 100 + 60000;
    EXPECT_EQ(limit.wait_ms(10240), 0);
    EXPECT_EQ(limit.wait_ms(10240), 100);
}

}  // namespace
