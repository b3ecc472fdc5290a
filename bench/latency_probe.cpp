// Measures two latencies with impulses: from the server to the device's output, and the round trip
// from the server's mix through the device back into the mix.
//
// Server, engine and device run in one process on one clock and use a real socket. The device adds
// no latency: a period's output counts as played at the period's deadline and becomes the next
// period's input.
#include <sndfile.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "bench/sleeping_device.h"
#include "engine/engine_runtime.h"
#include "platform/clock.h"
#include "tools/number_range.h"
#include "tools/readings/stats_reader.h"
#include "tools/server/reference_server.h"

namespace {

using namespace tavistro;
using namespace tavistro::bench;
using std::chrono::milliseconds;

constexpr int rate = 48000;
constexpr float level = 0.5F;
constexpr float threshold = 0.2F;  // interpolation may split an impulse equally between two frames
constexpr auto settling = std::chrono::seconds(3);
constexpr int impulses_per_second = 4;

double frames_to_ns(double frames) {
    return frames * 1e9 / rate;
}

/// Times at which impulses were played, nanosecond clock.
class OutputTimes {
  public:
    void add(double ns) {
        const std::lock_guard lock(mutex_);
        ns_.push_back(ns);
    }
    std::vector<double> take() {
        const std::lock_guard lock(mutex_);
        return std::move(ns_);
    }

  private:
    std::mutex mutex_;
    std::vector<double> ns_;
};

/// Records when an impulse is played.
class ProbeDevice : public SleepingDevice {
  public:
    explicit ProbeDevice(OutputTimes& output_times) : output_times_(output_times) {}
    ~ProbeDevice() override { close(); }

  private:
    void played(double deadline_ns) override {
        const auto& sound = output(0);
        const auto loudest = std::max_element(sound.begin(), sound.end());
        const double ns = deadline_ns + frames_to_ns(static_cast<double>(loudest - sound.begin()));
        // An interpolated impulse may span two periods.
        if (*loudest > threshold && ns > last_impulse_ns_ + frames_to_ns(2))
            output_times_.add(last_impulse_ns_ = ns);
    }

    OutputTimes& output_times_;
    double last_impulse_ns_ = 0;
};

void write_impulse(const std::string& path) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    std::vector<float> samples(rate / impulses_per_second);
    samples.front() = level;
    SNDFILE* const file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) throw std::runtime_error("cannot write " + path);
    sf_write_float(file, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(file);
}

/// Times of the impulses on a bus channel of the server.
std::vector<double> impulse_times(const server::ReferenceServer& server, std::size_t channel) {
    std::vector<double> times;
    for (const auto& block : server.bus_history(channel)) {
        const auto loudest = std::max_element(block.samples.begin(), block.samples.end());
        const double ns = static_cast<double>(block.time_ns) +
                          frames_to_ns(static_cast<double>(loudest - block.samples.begin()));
        if (*loudest > threshold && (times.empty() || ns > times.back() + frames_to_ns(2)))
            times.push_back(ns);
    }
    return times;
}

/// A delay and the time at which it was observed.
struct Delay {
    double at_ns;
    double ms;
};

/// From each start to the next arrival; omits starts without an arrival.
std::vector<Delay> delays(const std::vector<double>& starts_ns,
                          const std::vector<double>& arrivals_ns) {
    std::vector<Delay> found;
    for (const double start : starts_ns) {
        const auto arrival = std::upper_bound(arrivals_ns.begin(), arrivals_ns.end(), start);
        if (arrival != arrivals_ns.end() && *arrival < start + 1e9 / impulses_per_second)
            found.push_back({*arrival, (*arrival - start) * 1e-6});
    }
    return found;
}

/// For each measured delay, the difference of the value shown nearest in time: shown minus
/// measured.
std::vector<Delay> excess(const std::vector<Delay>& shown, const std::vector<Delay>& measured) {
    std::vector<Delay> found;
    for (const Delay& delay : measured) {
        const auto nearest = std::min_element(
            shown.begin(), shown.end(), [&delay](const Delay& one, const Delay& other) {
                return std::abs(one.at_ns - delay.at_ns) < std::abs(other.at_ns - delay.at_ns);
            });
        if (nearest != shown.end()) found.push_back({delay.at_ns, nearest->ms - delay.ms});
    }
    return found;
}

nlohmann::json spread(const std::vector<Delay>& all) {
    if (all.empty()) return nullptr;
    std::vector<double> values;
    for (const Delay& delay : all)
        values.push_back(delay.ms);
    std::sort(values.begin(), values.end());
    return {{"median", values[values.size() / 2]},
            {"min", values.front()},
            {"max", values.back()},
            {"count", values.size()}};
}

nlohmann::json probe(std::uint16_t frames, int latency_blocks, int seconds) {
    const WorkFolder folder;
    write_impulse(folder.file("impulse.wav"));
    server::ServerOptions options{.port = 0, .format = {rate, frames}};
    options.plays = {{.path = folder.file("impulse.wav"), .channel = 0}};
    server::ReferenceServer server(options);
    if (const std::string error = server.start(); !error.empty()) throw std::runtime_error(error);

    const auto client_id = static_cast<std::uint32_t>(getpid());
    const std::string configuration = folder.file("client.ini");
    write_configuration(configuration, server.port(), client_id, latency_blocks, 2);
    OutputTimes output_times;
    EngineRuntime engine([&] { return std::make_unique<ProbeDevice>(output_times); });
    if (!engine.start(configuration.c_str())) throw std::runtime_error("the engine does not start");
    std::this_thread::sleep_for(settling);
    if (engine.snapshot_state().state != TAVISTRO_STATE_RUNNING)
        throw std::runtime_error("the engine is not running");

    readings::StatsReader stats;
    if (!stats.open(client_id)) throw std::runtime_error("cannot open the statistics block");
    const auto first = stats.read();
    auto last = first;
    output_times.take();
    // Impulses in blocks that have not returned when the run ends are not counted.
    server.enable_history(static_cast<std::size_t>(seconds * rate / frames));
    std::vector<Delay> shown;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(milliseconds(20));
        last = stats.read();
        if (last)
            shown.push_back({static_cast<double>(platform::nanosecond_clock()),
                             last->server_to_output_last_us * 1e-3});
    }
    if (!first || !last) throw std::runtime_error("the statistics block is gone");
    engine.stop();
    server.stop();

    const std::vector<double> sent = impulse_times(server, 0);
    const std::vector<Delay> to_output = delays(sent, output_times.take());
    return {{"frames", frames},
            {"client_latency_blocks", latency_blocks},
            {"seconds", seconds},
            {"block_ms", frames_to_ns(frames) * 1e-6},
            {"server_to_output_ms", spread(to_output)},
            {"shown_ms", spread(shown)},
            {"shown_above_measured_ms", spread(excess(shown, to_output))},
            {"round_trip_ms", spread(delays(sent, impulse_times(server, 2)))},
            {"underruns", last->underruns - first->underruns},
            {"overruns", last->overruns - first->overruns}};
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Measures the latency from server to output and the round trip with impulses; prints "
        "JSON.");
    std::uint16_t frames = 128;
    int latency_blocks = 6;
    int seconds = 10;
    app.add_option("--frames", frames, "frames per block")->check(number_range(16, 2048));
    app.add_option("--blocks", latency_blocks, "client_latency_blocks")
        ->check(number_range(1, 128));
    app.add_option("--seconds", seconds, "measuring time in s, after 3 s of settling")
        ->check(number_range(1, 3600));
    try {
        app.parse(argc, argv);
        std::puts(probe(frames, latency_blocks, seconds).dump().c_str());
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "latency probe: %s\n", error.what());
        return 1;
    }
    return 0;
}
