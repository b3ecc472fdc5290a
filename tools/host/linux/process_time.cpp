#include "tools/host/process_time.h"

#include <sys/resource.h>

namespace tavistro::host {

namespace {

double seconds_of(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

}  // namespace

double process_cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime);
}

}  // namespace tavistro::host
