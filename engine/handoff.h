// Passes a value from a callback's thread to the worker.
#pragma once

#include <mutex>
#include <optional>
#include <utility>

namespace tavistro {

/// Holds at most one small value. Any thread may call any operation. An operation locks the mutex
/// only while it copies the value; none waits for a value.
template <typename T>
class Handoff {
  public:
    /// Replaces the held value.
    void put(const T& value) {
        const std::lock_guard lock(mutex_);
        value_ = value;
    }
    /// Returns false and changes nothing if a value is held already.
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
