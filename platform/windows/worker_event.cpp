#include <windows.h>

#include <chrono>
#include <new>

#include "platform/threads.h"

namespace tavistro::platform {
namespace {

using Clock = std::chrono::steady_clock;

/// Rounded up, so that a wait for it does not end early.
DWORD whole_ms_until(Clock::time_point deadline) noexcept {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<DWORD>(left.count()) : 0;
}

void dispatch_one_message() noexcept {
    MSG message{};
    if (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) == 0) return;
    TranslateMessage(&message);
    DispatchMessageW(&message);
}

}  // namespace

struct WorkerEvent::State {
    State() : event(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
        if (event == nullptr) throw std::bad_alloc();
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() { CloseHandle(event); }

    HANDLE event;  // resets itself when a wait takes it
};

WorkerEvent::WorkerEvent() : state_(std::make_unique<State>()) {}
WorkerEvent::~WorkerEvent() = default;

void WorkerEvent::signal() noexcept {
    SetEvent(state_->event);
}

// One message at a time, the event looked at before each: a flood of messages delays neither the
// signal nor the end of the wait.
bool WorkerEvent::wait_for_ms(std::uint32_t ms) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        const DWORD left_ms = whole_ms_until(deadline);
        const DWORD woken_by = MsgWaitForMultipleObjectsEx(1, &state_->event, left_ms, QS_ALLINPUT,
                                                           MWMO_INPUTAVAILABLE);
        if (woken_by == WAIT_OBJECT_0) return true;
        if (woken_by != WAIT_OBJECT_0 + 1) return false;
        dispatch_one_message();
        if (left_ms == 0) return false;
    }
}

}  // namespace tavistro::platform
