// Runs several complete engines in one process and reports their CPU time and memory.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "bench/sleeping_device.h"
#include "engine/engine_runtime.h"
#include "tools/number_range.h"
#include "tools/readings/stats_reader.h"

namespace {

using namespace tavistro;
using namespace tavistro::bench;

class CrowdDevice : public SleepingDevice {
  public:
    ~CrowdDevice() override { close(); }
};

struct Options {
    std::uint16_t port = 28010;
    std::uint32_t clients = 1;
    int channels = 2;
    int latency_blocks = 6;
    int seconds = 5;
};

/// CPU time of all threads of this process.
double process_seconds() {
    double sum = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream schedule(task.path() / "schedstat");
        if (double ns = 0; schedule >> ns) sum += ns * 1e-9;
    }
    return sum;
}

long resident_kb() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        long kb = 0;
        if (word == "VmRSS:" && status >> kb) return kb;
    }
    throw std::runtime_error("/proc/self/status has no VmRSS");
}

struct Totals {
    std::uint64_t blocks = 0;
    std::uint64_t underruns = 0;
};

nlohmann::json run(const Options& options) {
    const WorkFolder folder;
    const auto first_id = static_cast<std::uint32_t>(getpid()) * 1000;
    std::vector<std::unique_ptr<EngineRuntime>> engines;
    for (std::uint32_t i = 0; i < options.clients; ++i) {
        const std::string path = folder.file("client" + std::to_string(i) + ".ini");
        write_configuration(path, options.port, first_id + i, options.latency_blocks,
                            options.channels);
        engines.push_back(
            std::make_unique<EngineRuntime>([] { return std::make_unique<CrowdDevice>(); }));
        if (!engines.back()->start(path.c_str()))
            throw std::runtime_error("client " + std::to_string(i) + " does not start");
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));

    const auto totals = [&] {
        Totals sum;
        for (std::uint32_t i = 0; i < options.clients; ++i) {
            readings::StatsReader reader;
            const auto stats = reader.open(first_id + i) ? reader.read() : std::nullopt;
            if (!stats || engines[i]->snapshot_state().state != TAVISTRO_STATE_RUNNING)
                throw std::runtime_error("client " + std::to_string(i) + " is not running");
            sum.blocks += stats->rendered_frames / std::max(stats->stream_block_frames, 1U);
            sum.underruns += stats->underruns;
        }
        return sum;
    };
    const Totals before = totals();
    const double used_before = process_seconds();
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(options.seconds));
    const double used = process_seconds() - used_before;
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    const Totals after = totals();
    return {{"clients", options.clients},
            {"channels", options.channels},
            {"client_latency_blocks", options.latency_blocks},
            {"percent_of_a_core", used / elapsed.count() * 100},
            {"resident_kb", resident_kb()},
            {"blocks_per_client_and_second",
             static_cast<double>(after.blocks - before.blocks) / elapsed.count() / options.clients},
            {"underruns", after.underruns - before.underruns}};
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Runs engines on a device without audio hardware and prints their CPU load and memory as "
        "JSON.");
    Options options;
    app.add_option("--port", options.port, "UDP port of the server on this machine");
    app.add_option("--clients", options.clients, "number of engines")->check(number_range(1, 1000));
    app.add_option("--channels", options.channels, "channels in each direction")
        ->check(number_range(1, 32));
    app.add_option("--blocks", options.latency_blocks, "client_latency_blocks")
        ->check(number_range(1, 128));
    app.add_option("--seconds", options.seconds, "measuring time in s, after 3 s of settling")
        ->check(number_range(1, 3600));
    try {
        app.parse(argc, argv);
        std::puts(run(options).dump().c_str());
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "client crowd: %s\n", error.what());
        return 1;
    }
    return 0;
}
