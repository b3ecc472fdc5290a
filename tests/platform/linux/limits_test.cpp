// What happens when the system has nothing left to give.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>

#include "platform/clock.h"
#include "platform/threads.h"

namespace tavistro::platform {
namespace {

TEST(Limits, AThreadThatIsNotToBeHadIsARefusal) {
    std::atomic<bool> done{false};
    std::array<Thread, 50> threads;  // more than stacks that the system may keep
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit all{};
    getrlimit(RLIMIT_AS, &all);
    const rlimit few{(pages + 1024) * static_cast<rlim_t>(getpagesize()), all.rlim_max};
    setrlimit(RLIMIT_AS, &few);
    const auto refused = std::ranges::count_if(threads, [&](Thread& thread) {
        return !thread.start("waits", [&] {
            while (!done)
                sleep_ms(1);
        });
    });
    setrlimit(RLIMIT_AS, &all);
    done = true;
    for (Thread& thread : threads)
        thread.join();
    EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace tavistro::platform
