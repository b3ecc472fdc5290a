#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <csignal>

#include "platform/threads.h"

namespace tavistro::platform {
namespace {

TEST(Thread, HasItsNameAndLeavesSignalsToTheHost) {
    std::array<char, 16> name{};
    sigset_t blocked{};
    Thread thread;
    ASSERT_TRUE(thread.start("tav-something", [&] {
        const ScopedThreadRole role(ThreadRole::audio_device);
        const ScopedTimerResolution resolution;
        pthread_getname_np(pthread_self(), name.data(), name.size());
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    }));
    thread.join();
    EXPECT_STREQ(name.data(), "tav-something");
    EXPECT_EQ(sigismember(&blocked, SIGINT), 1);
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGINT), 0) << "the creator's own mask must be back";
}

}  // namespace
}  // namespace tavistro::platform
