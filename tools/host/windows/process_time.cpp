#include "tools/host/process_time.h"

#include <windows.h>

#include <cstdint>

namespace tavistro::host {

namespace {

double seconds_of(const FILETIME& time) {
    const std::uint64_t ticks =
        (std::uint64_t{time.dwHighDateTime} << 32) | std::uint64_t{time.dwLowDateTime};
    return static_cast<double>(ticks) * 100e-9;
}

}  // namespace

double process_cpu_seconds() {
    FILETIME created{};
    FILETIME ended{};
    FILETIME in_system{};
    FILETIME in_user{};
    if (!GetProcessTimes(GetCurrentProcess(), &created, &ended, &in_system, &in_user)) return 0;
    return seconds_of(in_system) + seconds_of(in_user);
}

}  // namespace tavistro::host
