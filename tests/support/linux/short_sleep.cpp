#include "support/short_sleep.h"

#include <chrono>
#include <thread>

namespace tavistro::test {

void short_sleep() noexcept {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
}

}  // namespace tavistro::test
