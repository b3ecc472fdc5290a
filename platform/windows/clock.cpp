#include "platform/clock.h"

#include <windows.h>

namespace tavistro::platform {

std::int64_t performance_counter() noexcept {
    LARGE_INTEGER counter{};
    QueryPerformanceCounter(&counter);
    return counter.QuadPart;
}

std::int64_t performance_frequency() noexcept {
    LARGE_INTEGER frequency{};
    QueryPerformanceFrequency(&frequency);
    return frequency.QuadPart;
}

std::uint64_t millisecond_tick() noexcept {
    return GetTickCount64();
}

void sleep_ms(std::uint32_t ms) noexcept {
    Sleep(ms);
}

}  // namespace tavistro::platform
