#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <csignal>
#include <cstring>

#include "platform/threads.h"

namespace tavistro::platform {
namespace {

TEST(Thread, HasItsNameAndLeavesSignalsToTheHostButThoseOfItsOwnFaults) {
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
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGUSR1, SIGALRM})
        EXPECT_EQ(sigismember(&blocked, signal), 1) << strsignal(signal);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
        EXPECT_EQ(sigismember(&blocked, fault), 0) << strsignal(fault);
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGINT), 0) << "the creator's own mask must be back";
}

}  // namespace
}  // namespace tavistro::platform
