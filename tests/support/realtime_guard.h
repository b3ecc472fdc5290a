// Proves that a piece of code neither allocates nor locks nor sleeps.
#pragma once

#include <cstdint>

#include "support/scope_depth.h"

namespace tavistro::test {

/// What the code inside RealtimeScopes has done, all threads together.
struct RealtimeViolations {
    std::uint64_t allocations = 0;  ///< operator new and delete
    std::uint64_t locks = 0;        ///< mutexes locked, condition variables waited on or signalled
    std::uint64_t sleeps = 0;

    std::uint64_t total() const { return allocations + locks + sleeps; }
};

RealtimeViolations realtime_violations();
void reset_realtime_violations();

/// Asked at every allocation by operator new, on its thread; true lets it fail. Null: none fails.
/// May not allocate.
void refuse_allocations(bool (*refuses)());

/// While it lives, what the calling thread does counts.
class RealtimeScope {
  public:
    RealtimeScope() { set_scope_depth(scope_depth() + 1); }
    RealtimeScope(const RealtimeScope&) = delete;
    RealtimeScope& operator=(const RealtimeScope&) = delete;
    ~RealtimeScope() { set_scope_depth(scope_depth() - 1); }
};

}  // namespace tavistro::test
