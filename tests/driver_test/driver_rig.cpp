#include "driver_test/driver_rig.h"

#include "support/movable_clock.h"

namespace tavistro::test {

std::string on_test_driver(const std::string& more) {
    return "loopback_device = 0\n[asio]\ndriver_name = Tavistro Test Driver\n" + more;
}

bool soon(const std::function<bool()>& condition) {
    constexpr int polls_per_step = 20;  // of about 2 ms each
    constexpr std::uint64_t step_ms = 400;
    int polls = 0;
    return eventually([&] {
        if (condition()) return true;
        if (++polls % polls_per_step == 0) advance_clock_ms(step_ms);
        return false;
    });
}

Shown shown(const Engine& engine) {
    const auto state = engine.state();
    return {state.status_level, state.status_category, state.status_message};
}

}  // namespace tavistro::test
