// Measures how late the virtual loopback device begins its periods.
//
// The device does not publish its deadlines, but they are evenly spaced. It spins just before each
// deadline and meets most of them to well under a microsecond, so these periods reveal the
// deadlines. The delay until a period is timestamped, about a microsecond, is constant and cancels
// out.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "audio/loopback_device.h"
#include "platform/clock.h"
#include "tools/number_range.h"

namespace {

using namespace tavistro;

std::vector<double> period_ends_us(const AudioDeviceSettings& settings, int seconds) {
    PeriodPath periods;
    periods.prepare(settings, settings.sample_rate, static_cast<std::int32_t>(settings.block_size),
                    false);
    std::vector<double> ends;
    ends.reserve(static_cast<std::size_t>(seconds + 1) * settings.sample_rate /
                 settings.block_size);
    const auto us_per_tick = 1e6 / static_cast<double>(platform::performance_frequency());
    LoopbackDevice device(periods, [&] {
        if (ends.size() < ends.capacity())
            ends.push_back(static_cast<double>(platform::performance_counter()) * us_per_tick);
    });
    if (!device.start(settings)) return {};
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    device.stop();
    return ends;
}

struct Timing {
    std::vector<double> lateness_us;  ///< sorted
    std::int64_t dropped = 0;
};

Timing timing(const std::vector<double>& seen_us, double period_us) {
    // Offset of each period from an even grid that starts at the first one.
    std::vector<double> offsets;
    for (const double at : seen_us)
        offsets.push_back(std::remainder(at - seen_us.front(), period_us));
    const auto early = offsets.begin() + std::ssize(offsets) / 10;
    std::nth_element(offsets.begin(), early, offsets.end());

    Timing result;
    double deadline = seen_us.front() + *early;
    for (const double at : seen_us) {
        result.lateness_us.push_back(std::max(0.0, at - deadline));
        deadline += period_us;
        // Like the device: catch up when less than a period behind, else drop periods.
        const double behind = (at - deadline) / period_us;
        if (behind < 1) continue;
        const double missed = std::floor(behind) + 1;
        deadline += missed * period_us;
        result.dropped += std::llround(missed);
    }
    std::sort(result.lateness_us.begin(), result.lateness_us.end());
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures how late the loopback device begins its periods; prints JSON.");
    AudioDeviceSettings settings;
    settings.output_channel_map = settings.input_channel_map = {0, 1};
    int seconds = 10;
    app.add_option("--frames", settings.block_size, "frames per period")
        ->check(number_range(16, 2048));
    app.add_option("--seconds", seconds, "measuring time in s")->check(number_range(1, 3600));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    const double period_us = 1e6 * settings.block_size / settings.sample_rate;
    const auto seen = period_ends_us(settings, seconds);
    if (seen.empty()) {
        std::fputs("period timing: the device did not start\n", stderr);
        return 1;
    }
    const auto [late, dropped] = timing(seen, period_us);
    const auto share = [&late = late](double part) {
        return late[static_cast<std::size_t>(part * static_cast<double>(late.size() - 1))];
    };
    std::puts(nlohmann::json{{"periods", late.size()},
                             {"dropped", dropped},
                             {"p50_us", share(0.5)},
                             {"p99_us", share(0.99)},
                             {"p999_us", share(0.999)},
                             {"max_us", late.back()}}
                  .dump()
                  .c_str());
    return 0;
}
