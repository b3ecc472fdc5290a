// Number of nested RealtimeScopes of a thread; system-specific part of the guard.
#pragma once

namespace tavistro::test {

/// For the calling thread. Must not lock or allocate: called at every lock and allocation.
int scope_depth() noexcept;
void set_scope_depth(int depth) noexcept;

}  // namespace tavistro::test
