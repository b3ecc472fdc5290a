// tavistro-drift-lab: simulates which clock drift and which disturbances a latency can handle.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/drift_lab/two_clocks.h"
#include "tools/number_range.h"
#include "tools/version_flag.h"

namespace tavistro::drift_lab {

namespace {

constexpr int failed = 1;
constexpr int wrong_arguments = 2;

constexpr double nowhere = std::numeric_limits<double>::infinity();

// At 48000 Hz and 128 frames (2.7 ms per block), bursts are 20 s and pauses 30 s apart on average.
const std::map<std::string, Disturbance> disturbances = {
    {"none", {}},
    {"steady", {.arrival_jitter = 0.25, .wake_jitter = 0.1}},
    {"rough",
     {.arrival_jitter = 0.5,
      .wake_jitter = 0.25,
      .burst_every = 7500,
      .burst_length = 8,
      .pause_every = 11250,
      .pause_length = 3}},
};

struct Options {
    std::vector<std::uint64_t> latencies{1, 2, 6, 32, 128};
    std::vector<double> drifts;
    std::string disturbance = "steady";
    double hours = 1.0;
    double search_hours = 1.0;
    std::uint64_t seed = 1;
    unsigned jobs = std::max(1U, std::thread::hardware_concurrency());
    std::string csv_path;
};

struct Row {
    Experiment experiment;
    Outcome outcome;
};

void for_each_at_once(std::vector<Row>& rows, unsigned jobs, const std::function<void(Row&)>& job) {
    std::atomic<std::size_t> next{0};
    const auto work = [&] {
        for (std::size_t i = next++; i < rows.size(); i = next++)
            job(rows[i]);
    };
    std::vector<std::jthread> workers;
    for (unsigned i = 1; i < jobs; ++i)
        workers.emplace_back(work);
    work();
}

Row row_for(const Options& options, std::uint64_t latency_blocks, double server_faster_ppm) {
    Row row;
    row.experiment = {.latency_blocks = latency_blocks,
                      .server_faster_ppm = server_faster_ppm,
                      .hours = options.hours,
                      .disturbance = disturbances.at(options.disturbance),
                      .seed = options.seed};
    return row;
}

void write_csv(std::ostream& out, const Options& options, const std::vector<Row>& rows) {
    out << "disturbance,latency_blocks,server_faster_ppm,hours,blocks_sent,blocks_lost,"
           "fill_mean,fill_least,fill_most,underruns,overruns,"
           "capture_mean,capture_least,capture_most,uplink_sent,uplink_short,capture_overflows\n";
    for (const auto& [e, o] : rows) {
        out << options.disturbance << ',' << e.latency_blocks << ',' << e.server_faster_ppm << ','
            << e.hours << ',' << o.blocks_sent << ',' << o.blocks_lost << ',' << o.playback.mean
            << ',' << o.playback.least << ',' << o.playback.most << ',' << o.underruns << ','
            << o.overruns << ',' << o.capture.mean << ',' << o.capture.least << ','
            << o.capture.most << ',' << o.uplink_sent << ',' << o.uplink_short << ','
            << o.capture_overflows << '\n';
    }
}

std::string text(const char* format, auto... values) {
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

std::string cell(const Outcome& o) {
    return text("%.1f (%.1f to %.1f), %llu / %llu", o.playback.mean, o.playback.least,
                o.playback.most, static_cast<unsigned long long>(o.underruns),
                static_cast<unsigned long long>(o.overruns));
}

void print_grid(const Options& options, const std::vector<Row>& rows) {
    std::cout << "| server faster, ppm |";
    for (const std::uint64_t latency : options.latencies)
        std::cout << ' ' << latency << (latency == 1 ? " block |" : " blocks |");
    std::cout << "\n|---|";
    for (std::size_t i = 0; i < options.latencies.size(); ++i)
        std::cout << "---|";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (i % options.latencies.size() == 0)
            std::cout << text("\n| %+.0f |", rows[i].experiment.server_faster_ppm);
        std::cout << ' ' << cell(rows[i].outcome) << " |";
    }
    std::cout << '\n';
}

void print_ends(const std::vector<Row>& rows) {
    std::cout << "| latency, blocks | server faster, ppm | fill (min to max), underruns / "
                 "overruns | captured input (min to max) | notices answered | notices without "
                 "enough input |\n"
                 "|---|---|---|---|---|---|\n";
    for (const auto& [e, o] : rows) {
        std::cout << text("| %llu | %+.1f | ", static_cast<unsigned long long>(e.latency_blocks),
                          e.server_faster_ppm)
                  << cell(o)
                  << text(" | %.1f (%.1f to %.1f) | %llu | %llu |\n", o.capture.mean,
                          o.capture.least, o.capture.most,
                          static_cast<unsigned long long>(o.uplink_sent),
                          static_cast<unsigned long long>(o.uplink_short));
    }
}

std::vector<Row> grid(const Options& options) {
    std::vector<Row> rows;
    for (const double ppm : options.drifts) {
        for (const std::uint64_t latency : options.latencies)
            rows.push_back(row_for(options, latency, ppm));
    }
    return rows;
}

/// Searches for the drift limits in short runs and returns rows to run at these limits.
std::vector<Row> ends(const Options& options) {
    constexpr double highest_ppm = 1000.0;
    constexpr double step_ppm = 5.0;
    std::vector<Row> rows;
    for (const std::uint64_t latency : options.latencies) {
        for (const double side : {-1.0, 1.0})
            rows.push_back(row_for(options, latency, side));
    }
    for_each_at_once(rows, options.jobs, [&](Row& row) {
        Experiment search = row.experiment;
        search.hours = options.search_hours;
        const auto end = greatest_held_ppm(search, highest_ppm, step_ppm);
        row.experiment.server_faster_ppm = end.value_or(nowhere);
    });
    std::erase_if(rows, [](const Row& row) { return row.experiment.server_faster_ppm == nowhere; });
    return rows;
}

int run_tool(int argc, char** argv) {
    Options options;
    for (int ppm = -400; ppm <= 400; ppm += 50)
        options.drifts.push_back(ppm);

    CLI::App app(
        "Runs the audio path between two clocks in virtual time and prints a table: fill "
        "of the playback buffer in blocks, underruns / overruns",
        "tavistro-drift-lab");
    app.require_subcommand(1);
    add_version_flag(app);
    app.fallthrough();
    app.add_option("--latency", options.latencies, "client_latency_blocks; one or more values")
        ->check(number_range(1, 128))
        ->capture_default_str();
    app.add_option("--disturbance", options.disturbance, "none, steady or rough")
        ->check(CLI::IsMember(disturbances))
        ->capture_default_str();
    app.add_option("--hours", options.hours, "virtual time of each run in hours")
        ->check(number_range(0.001, 10000.0))
        ->capture_default_str();
    app.add_option("--seed", options.seed, "seed of the random choices")->capture_default_str();
    app.add_option("--jobs", options.jobs, "number of parallel runs")->check(number_range(1, 1024));
    app.add_option("--csv", options.csv_path, "also write all results to this file");
    CLI::App* const grid_command = app.add_subcommand("grid", "run every drift with every latency");
    grid_command
        ->add_option("--drift", options.drifts,
                     "how much faster the server clock is, in ppm; one or more values")
        ->check(number_range(-10000, 10000));
    app.add_subcommand("ends",
                       "find the slowest and the fastest server clock that each latency can handle")
        ->add_option("--search-hours", options.search_hours,
                     "virtual time of each search run in hours")
        ->check(number_range(0.001, 10000.0))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::cerr << "tavistro-drift-lab: " << error.what() << "\n"
                  << "usage: tavistro-drift-lab grid|ends [--latency N...] [--hours N] "
                     "[--disturbance NAME] [--csv FILE]\n";
        return wrong_arguments;
    }

    std::ofstream csv;
    if (!options.csv_path.empty()) {
        csv.open(options.csv_path);
        if (!csv) {
            std::cerr << "tavistro-drift-lab: cannot write " << options.csv_path << "\n";
            return failed;
        }
    }
    const bool as_grid = grid_command->parsed();
    std::vector<Row> rows = as_grid ? grid(options) : ends(options);
    for_each_at_once(rows, options.jobs, [](Row& row) { row.outcome = run(row.experiment); });
    if (as_grid)
        print_grid(options, rows);
    else
        print_ends(rows);
    if (csv.is_open()) write_csv(csv, options, rows);
    return 0;
}

}  // namespace

}  // namespace tavistro::drift_lab

int main(int argc, char** argv) {
    try {
        return tavistro::drift_lab::run_tool(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tavistro-drift-lab: %s\n", error.what());
        return tavistro::drift_lab::failed;
    }
}
