#include "platform/threads.h"

#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/driver_registry.h"

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

TEST(DriverRegistry, ReadsBracedClassIdentifiers) {
    const ClassId expected{0x67, 0x45, 0x23, 0x01, 0xAB, 0x89, 0xEF, 0xCD,
                           0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xCD, 0xEF};
    EXPECT_EQ(parse_class_id("{01234567-89AB-CDEF-0123-456789abcdef}"), expected);
    for (const char* text :
         {"", "{01234567-89AB-CDEF-0123-456789abcdeg}", "{0123456789AB-CDEF-0123-456789abcdef--}"})
        EXPECT_FALSE(parse_class_id(text)) << text;
}

}  // namespace
}  // namespace tavistro::platform
