// Passes one value from a callback's thread to the worker.
#pragma once

#include <mutex>
#include <optional>
#include <utility>

namespace tavistro {

/// Holds at most one small value. Any thread may call any operation; each holds the mutex only
/// while it copies the value, and none waits for a value to come.
template <typename T>
class Handoff {
  public:
    /// Replaces what is held.
    void put(const T& value) {
        const std::lock_guard lock(mutex_);
        value_ = value;
    }
    /// False, and nothing changes, when a value is held already.
    bool put_if_empty(const T& value) {
        const std::lock_guard lock(mutex_);
        if (value_) return false;
        value_ = value;
        return true;
    }
    std::optional<T> peek() const {
        const std::lock_guard lock(mutex_);
        return value_;
    }
    std::optional<T> take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(value_, std::nullopt);
    }
    void clear() { take(); }

  private:
    mutable std::mutex mutex_;
    std::optional<T> value_;
};

}  // namespace tavistro
