// Maxima that one thread raises while others read or take them.
#pragma once

#include <atomic>

namespace tavistro {

/// Stores `value` when it is greater than what is stored. Any thread; lock-free.
template <typename T>
void raise_to(std::atomic<T>& maximum, T value) noexcept {
    T seen = maximum.load(std::memory_order_relaxed);
    while (value > seen && !maximum.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

}  // namespace tavistro
