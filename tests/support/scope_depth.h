// How many RealtimeScopes a thread is in: the system's part of the guard.
#pragma once

namespace tavistro::test {

/// Of the calling thread. Neither locks nor allocates, as it is asked at every lock and allocation.
int scope_depth() noexcept;
void set_scope_depth(int depth) noexcept;

}  // namespace tavistro::test
