// Named threads, their priorities, and the event that the worker waits for.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

namespace tavistro::platform {

/// A thread whose creation can fail without throwing. Signal handlers of the host never run on it,
/// except for signals that report a fault of the thread itself.
class Thread {
  public:
    Thread() noexcept = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    /// The thread must have been joined.
    ~Thread() = default;

    /// Starts `body` on a new thread called `name` (at most 15 characters, shown by ps, top and
    /// debuggers). False when the system refuses a thread or memory runs out; nothing runs
    /// then. Precondition: not joinable.
    bool start(const char* name, std::function<void()> body) noexcept;
    bool joinable() const noexcept { return thread_.joinable(); }
    /// Waits for the thread to end; nothing to do when it is not joinable.
    void join() {
        if (thread_.joinable()) thread_.join();
    }

  private:
    std::thread thread_;
};

/// The role of a thread determines its priority.
enum class ThreadRole {
    network_receive,  ///< one step above normal; multimedia class "Audio", normal priority in it
    audio_device,     ///< highest normal priority; multimedia class "Pro Audio", high priority
};

/// Raises the calling thread for the object's lifetime. A refusal is ignored: nothing
/// else depends on the priority. Created and destroyed on the same thread.
class ScopedThreadRole {
  public:
    explicit ScopedThreadRole(ThreadRole role) noexcept;
    ScopedThreadRole(const ScopedThreadRole&) = delete;
    ScopedThreadRole& operator=(const ScopedThreadRole&) = delete;
    ~ScopedThreadRole();

  private:
    struct Class;
    std::unique_ptr<Class> class_;  ///< the multimedia class where the system has one
};

/// Requests a timer resolution of 1 ms for the object's lifetime, on systems where it can be
/// set. Created and destroyed on the same thread.
class ScopedTimerResolution {
  public:
    ScopedTimerResolution() noexcept;
    ScopedTimerResolution(const ScopedTimerResolution&) = delete;
    ScopedTimerResolution& operator=(const ScopedTimerResolution&) = delete;
    ~ScopedTimerResolution();
};

/// Wakes one waiting thread; a signal without a waiting thread is kept for the next wait.
///
/// A device driver may have created hidden windows on the waiting thread. On systems with such
/// windows, waiting dispatches their messages.
class WorkerEvent {
  public:
    WorkerEvent();
    WorkerEvent(const WorkerEvent&) = delete;
    WorkerEvent& operator=(const WorkerEvent&) = delete;
    ~WorkerEvent();

    /// Any thread.
    void signal() noexcept;
    /// Waits for a signal, which it takes, for at most `ms` milliseconds. True when signalled.
    bool wait_for_ms(std::uint32_t ms);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tavistro::platform
