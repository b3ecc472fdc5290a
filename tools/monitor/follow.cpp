#include "tools/monitor/follow.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "tools/monitor/observer.h"

namespace tavistro::monitor {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

Clock::duration duration_of(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

void follow(const Options& options, const std::atomic<bool>& stop,
            const std::function<bool(const std::vector<Sample>&)>& each) {
    Observer observer(options.client_ids);
    const auto start = Clock::now();
    const auto end =
        options.seconds ? start + duration_of(*options.seconds) : Clock::time_point::max();
    for (auto next = start; !stop;) {
        if (!each(observer.look()) || options.once) return;
        next = std::max(next + duration_of(options.interval_s), Clock::now());
        while (!stop && Clock::now() < std::min(next, end))
            std::this_thread::sleep_for(std::min<Clock::duration>(50ms, next - Clock::now()));
        if (Clock::now() >= end) return;
    }
}

}  // namespace tavistro::monitor
