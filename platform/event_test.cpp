// Tests of the event master: timer order, cancelling, queued events, and stopping from another
// thread. (Stopping by SIGTERM or SIGINT: the frame integration test.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "zq_thread.h"

namespace {

using names = std::vector<std::string>;
names *g_trace = nullptr;

int record(struct zq_thread *task) {
    g_trace->push_back(task->name);
    return 0;
}

class EventTest : public ::testing::Test {
  protected:
    void SetUp() override {
        g_trace = &trace_;
        m_ = zq_thread_master_create();
        ASSERT_NE(m_, nullptr);
    }
    void TearDown() override { zq_thread_master_finish(m_); }

    void run(int n) {
        zq_thread task;
        for (int i = 0; i < n; i++) {
            ASSERT_EQ(zq_thread_fetch(m_, &task), &task);
            zq_thread_call(&task);
        }
    }

    zq_thread_master *m_ = nullptr;
    names trace_;
};

TEST_F(EventTest, QueuedEventsFirstThenTimersByDeadlineAndArrival) {
    for (const auto &[ms, name] : {std::pair{30, "c"}, {10, "a"}, {20, "b1"}, {20, "b2"}})
        ASSERT_NE(zq_thread_add_timer_msec(m_, record, nullptr, ms, name), nullptr);
    ASSERT_NE(zq_thread_add_timer_withname(m_, record, nullptr, 0, "now"), nullptr);
    ASSERT_NE(zq_thread_add_event(m_, record, nullptr, "event"), nullptr);
    run(6);
    EXPECT_EQ(trace_, (names{"event", "now", "a", "b1", "b2", "c"}));
}

TEST_F(EventTest, CancelledTasksNeverRunAndInsertedHandlesAreCleared) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    zq_thread *timer = zq_thread_add_timer_msec(m_, record, nullptr, 0, "timer");
    zq_thread *read = zq_thread_add_read(m_, record, nullptr, fds[0], "read");
    zq_thread *slot = nullptr;
    ASSERT_EQ(zq_thread_insert_timer(m_, &slot, record, nullptr, 0, "kept"), 0);
    zq_thread_cancel(timer);
    zq_thread_cancel(read);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    ASSERT_NE(zq_thread_add_timer_msec(m_, record, nullptr, 30, "last"), nullptr);
    run(2);
    EXPECT_EQ(trace_, (names{"kept", "last"}));
    EXPECT_EQ(slot, nullptr);  // fired

    ASSERT_EQ(zq_thread_insert_timer(m_, &slot, record, nullptr, 60, "long"), 0);
    zq_thread_cancel(slot);
    EXPECT_EQ(slot, nullptr);                                                      // cancelled
    EXPECT_NE(zq_thread_add_read(m_, record, nullptr, fds[0], "again"), nullptr);  // fd free again
    close(fds[0]);
    close(fds[1]);
}

TEST_F(EventTest, StopFromAnotherThreadWakesABlockedFetchForGood) {
    std::thread stopper([this] {
        usleep(20000);
        zq_thread_master_stop(m_);
    });
    zq_thread task;
    EXPECT_EQ(zq_thread_fetch(m_, &task), nullptr);
    stopper.join();
    ASSERT_NE(zq_thread_add_event(m_, record, nullptr, "late"), nullptr);
    EXPECT_EQ(zq_thread_fetch(m_, &task), nullptr);
}

}  // namespace
