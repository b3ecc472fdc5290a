// Threads and sleeps as the kernel sees them.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <thread>
#include <utility>

#include "platform/clock.h"
#include "platform/threads.h"

namespace tavistro::platform {
namespace {

TEST(Thread, HasItsNameAndLeavesSignalsToTheHostButThoseOfItsOwnFaults) {
    std::array<char, 16> name{};
    sigset_t blocked{};
    Thread thread;
    ASSERT_TRUE(thread.start("tav-something", [&] {
        pthread_getname_np(pthread_self(), name.data(), name.size());
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    }));
    thread.join();
    EXPECT_STREQ(name.data(), "tav-something");
    for (const auto& [signal, expected] :
         {std::pair{SIGINT, 1}, {SIGTERM, 1}, {SIGCHLD, 1}, {SIGSEGV, 0}, {SIGFPE, 0}})
        EXPECT_EQ(sigismember(&blocked, signal), expected) << strsignal(signal);
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGINT), 0) << "the creator's own mask must be back";
}

/// Policy, real-time priority, nice value and timer slack of the calling thread.
std::array<int, 4> scheduling() {
    int policy = 0;
    sched_param param{};
    pthread_getschedparam(pthread_self(), &policy, &param);
    return {policy, param.sched_priority, getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())),
            prctl(PR_GET_TIMERSLACK)};
}

TEST(Thread, IsRaisedForItsRoleAndNoLonger) {
    const auto before = scheduling();
    const sched_param any{.sched_priority = 30};
    const bool may = pthread_setschedparam(pthread_self(), SCHED_FIFO, &any) == 0;
    const sched_param none{};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &none);
    for (const auto& [role, expected] :
         {std::pair{ThreadRole::audio_device, std::array{SCHED_FIFO, 20}},
          {ThreadRole::network_receive, std::array{SCHED_RR, 10}}}) {
        {
            const ScopedTimerResolution fine;
            EXPECT_EQ(scheduling()[3], 1) << "ns of timer slack";
            const ScopedThreadRole raised(role);
            const auto now = scheduling();
            EXPECT_TRUE(!may || (std::array{now[0], now[1]}) == expected) << now[0];
        }
        EXPECT_EQ(scheduling(), before);
    }
}

// Of a sleep of 600 ms and another, one at least crosses a whole second.
TEST(Clock, SleepsInFullAcrossSecondsAndSignals) {
    std::signal(SIGUSR1, [](int) {});
    std::jthread host([sleeper = pthread_self()](const std::stop_token& done) {
        for (; !done.stop_requested(); std::this_thread::sleep_for(std::chrono::milliseconds(50)))
            pthread_kill(sleeper, SIGUSR1);
    });
    for (int i = 0; i < 2; ++i) {
        const std::uint64_t begin_ns = nanosecond_clock();
        sleep_ms(600);
        EXPECT_GE(nanosecond_clock(), begin_ns + 600'000'000);
    }
}

}  // namespace
}  // namespace tavistro::platform
