#include "platform/threads.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <mutex>
#include <utility>

namespace tavistro::platform {
namespace {

// These report a fault of the thread that they are sent to; a host's crash handler must see it
// there.
constexpr int fault_signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT};

// A new thread inherits the mask of its creator: with every signal but those of faults blocked
// meanwhile, the host's other handlers keep running on the host's threads only.
class ScopedSignalBlock {
  public:
    ScopedSignalBlock() noexcept {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : fault_signals)
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_SETMASK, &blocked, &previous_);
    }
    ScopedSignalBlock(const ScopedSignalBlock&) = delete;
    ScopedSignalBlock& operator=(const ScopedSignalBlock&) = delete;
    ~ScopedSignalBlock() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

  private:
    sigset_t previous_{};
};

struct RolePriority {
    int policy;
    int realtime_priority;  // below 50, where the kernel's interrupt threads run
    int nice;               // when no real-time priority is granted
};

RolePriority priority_of(ThreadRole role) noexcept {
    switch (role) {
        case ThreadRole::network_receive:
            return {SCHED_RR, 10, -11};
        case ThreadRole::audio_device:
            return {SCHED_FIFO, 20, -15};
    }
    return {SCHED_OTHER, 0, 0};
}

}  // namespace

bool Thread::start(const char* name, std::function<void()> body) noexcept {
    try {
        const ScopedSignalBlock block;
        thread_ = std::thread([name, run = std::move(body)] {
            pthread_setname_np(pthread_self(), name);
            run();
        });
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

struct ScopedThreadRole::Class {};

ScopedThreadRole::ScopedThreadRole(ThreadRole role) noexcept {
    const RolePriority wanted = priority_of(role);
    const sched_param param{.sched_priority = wanted.realtime_priority};
    if (pthread_setschedparam(pthread_self(), wanted.policy, &param) == 0) return;
    // On Linux the nice value belongs to the thread, despite the name of the constant.
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), wanted.nice);
}

ScopedThreadRole::~ScopedThreadRole() {
    const sched_param normal{.sched_priority = 0};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 0);
}

// The kernel may delay a sleep of a normal thread by its timer slack, 50 us by default.
ScopedTimerResolution::ScopedTimerResolution() noexcept {
    prctl(PR_SET_TIMERSLACK, 1UL);
}

ScopedTimerResolution::~ScopedTimerResolution() {
    prctl(PR_SET_TIMERSLACK, 0UL);
}

struct WorkerEvent::State {
    std::mutex mutex;
    std::condition_variable changed;
    bool signalled = false;
};

WorkerEvent::WorkerEvent() : state_(std::make_unique<State>()) {}
WorkerEvent::~WorkerEvent() = default;

void WorkerEvent::signal() noexcept {
    {
        const std::lock_guard lock(state_->mutex);
        state_->signalled = true;
    }
    state_->changed.notify_one();
}

bool WorkerEvent::wait_for_ms(std::uint32_t ms) {
    std::unique_lock lock(state_->mutex);
    state_->changed.wait_for(lock, std::chrono::milliseconds(ms),
                             [this] { return state_->signalled; });
    return std::exchange(state_->signalled, false);
}

}  // namespace tavistro::platform
