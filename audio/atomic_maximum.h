// Maxima that are raised by one thread and read or reset by others.
#pragma once

#include <atomic>

namespace tavistro {

/// Raises `maximum` to `value` if that is greater. Any thread; lock-free. Relaxed: the number says
/// nothing about other memory, and a failed exchange compares with the one that it found.
template <typename T>
void raise_to(std::atomic<T>& maximum, T value) noexcept {
    T seen = maximum.load(std::memory_order_relaxed);
    while (value > seen && !maximum.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

}  // namespace tavistro
