// The one object that a driver's callbacks reach: they carry no context.
//
// A callback enters through use(), from any thread at any time. The owner sets the object when it
// is complete, and clears it before anything that a callback touches goes away: then no callback is
// inside any more, unless one outstayed the limit, and later ones find nothing.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/clock.h"
#include "platform/realtime.h"

namespace tavistro {

template <typename Device>
class CurrentDevice {
  public:
    /// Replaces nothing or another object. Owner's thread.
    void set(Device& device) noexcept { device_.store(&device); }

    /// Takes `device` away if it is the current one and waits until no callback is inside, at most
    /// `limit_ms`. Owner's thread, never inside a callback.
    void clear(Device& device, std::uint64_t limit_ms) noexcept {
        Device* expected = &device;
        if (!device_.compare_exchange_strong(expected, nullptr)) return;
        const std::uint64_t begin_ms = platform::millisecond_tick();
        while (callbacks_inside_.load() != 0 && platform::millisecond_tick() - begin_ms < limit_ms)
            platform::sleep_ms(1);
    }

    /// Runs `body` on the current object, if there is one. Wait-free apart from `body`.
    template <typename Body>
    TAVISTRO_REALTIME void use(Body body) noexcept {
        // Counted before the object is read, in one total order with clear(): either this callback
        // finds nothing, or clear() finds this callback.
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
