#include "platform/threads.h"

#include <gtest/gtest.h>

#include "platform/clock.h"

namespace tavistro::platform {
namespace {

TEST(WorkerEvent, KeepsASignalForTheNextWaitAndWakesAWaiter) {
    WorkerEvent event;
    EXPECT_FALSE(event.wait_for_ms(1));
    event.signal();
    EXPECT_TRUE(event.wait_for_ms(0));
    EXPECT_FALSE(event.wait_for_ms(0)) << "a signal is taken once";
    event.signal();
    const std::uint64_t begin_ns = nanosecond_clock();
    EXPECT_TRUE(event.wait_for_ms(3000));
    EXPECT_LT(nanosecond_clock(), begin_ns + 2'000'000'000) << "waits for what is there";
    Thread thread;
    ASSERT_TRUE(thread.start("waker", [&] {
        sleep_ms(20);
        event.signal();
    }));
    EXPECT_TRUE(event.wait_for_ms(10'000));
    EXPECT_LT(nanosecond_clock(), begin_ns + 8'000'000'000) << "a signal wakes nobody";
    thread.join();
}

}  // namespace
}  // namespace tavistro::platform
