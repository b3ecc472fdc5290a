// Detects allocations, locks and sleeps in real-time code.
#pragma once

#include <cstdint>

#include "support/scope_depth.h"

namespace tavistro::test {

/// Counts for all code inside RealtimeScopes, over all threads.
struct RealtimeViolations {
    std::uint64_t allocations = 0;  ///< operator new and delete
    std::uint64_t locks = 0;        ///< mutex locks, condition variable waits and signals
    std::uint64_t sleeps = 0;

    std::uint64_t total() const { return allocations + locks + sleeps; }
};

RealtimeViolations realtime_violations();
void reset_realtime_violations();

/// Sets a function that operator new calls on its thread for every allocation; true lets the
/// allocation fail. Null: none fails. The function must not allocate.
void refuse_allocations(bool (*refuses)());

/// Counts the operations of the calling thread during its lifetime.
class RealtimeScope {
  public:
    RealtimeScope() { set_scope_depth(scope_depth() + 1); }
    RealtimeScope(const RealtimeScope&) = delete;
    RealtimeScope& operator=(const RealtimeScope&) = delete;
    ~RealtimeScope() { set_scope_depth(scope_depth() - 1); }
};

}  // namespace tavistro::test
