// The process-wide object for a driver's callbacks, which have no context argument.
//
// A callback enters through use(), from any thread at any time. The owner sets the object once it
// is complete and clears it before it frees anything that a callback uses. After clear() no
// callback is inside, except one that exceeded the time limit, and later ones do nothing.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/clock.h"
#include "platform/realtime.h"

namespace tavistro {

template <typename Device>
class CurrentDevice {
  public:
    /// Sets or replaces the current object. Owner's thread.
    void set(Device& device) noexcept { device_.store(&device); }

    /// If `device` is the current object, removes it and waits until no callback is inside, at most
    /// `limit_ms`. Owner's thread, never in a callback.
    void clear(Device& device, std::uint64_t limit_ms) noexcept {
        Device* expected = &device;
        if (!device_.compare_exchange_strong(expected, nullptr)) return;
        const std::uint64_t begin_ms = platform::millisecond_tick();
        while (callbacks_inside_.load() != 0 && platform::millisecond_tick() - begin_ms < limit_ms)
            platform::sleep_ms(1);
    }

    /// Calls `body` with the current object, if any. Wait-free apart from `body`.
    template <typename Body>
    TAVISTRO_REALTIME void use(Body body) noexcept {
        // The count is raised before the object is read, sequentially consistent with clear():
        // either this callback sees no object, or clear() sees this callback.
        callbacks_inside_.fetch_add(1);
        if (Device* device = device_.load()) body(*device);
        callbacks_inside_.fetch_sub(1);
    }

  private:
    std::atomic<Device*> device_{nullptr};
    std::atomic<std::uint32_t> callbacks_inside_{0};
    static_assert(std::atomic<Device*>::is_always_lock_free);
};

}  // namespace tavistro
