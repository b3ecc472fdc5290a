// What the movable clock's sleep_ms(0) gives up while time runs.
#pragma once

namespace tavistro::test {

/// Sleeps for 0.1 ms, or as short as the system can. A loop that only yielded would keep a core
/// from the other threads of a test.
void short_sleep() noexcept;

}  // namespace tavistro::test
