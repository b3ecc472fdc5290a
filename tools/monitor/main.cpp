// tavistro-monitor: watches running engines from outside.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tools/http/http_server.h"
#include "tools/monitor/bundle.h"
#include "tools/monitor/formats.h"
#include "tools/monitor/live_pages.h"
#include "tools/monitor/observer.h"
#include "tools/monitor/options.h"
#include "tools/monitor/recording.h"
#include "tools/monitor/screen.h"
#include "tools/monitor/terminal.h"
#include "tools/monitor/view.h"
#include "tools/stop_request.h"

namespace tavistro::monitor {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Calls `each` with a reading of all clients every interval, the first at once, until it returns
/// false, the time is over or a signal has come.
void follow(const Options& options, const std::function<bool(const std::vector<Sample>&)>& each) {
    const auto duration_of = [](double seconds) {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    };
    take_stop_signals();
    Observer observer(options.client_ids);
    const auto start = Clock::now();
    const auto end =
        options.seconds ? start + duration_of(*options.seconds) : Clock::time_point::max();
    for (auto next = start; !stop_requested;) {
        if (!each(observer.look()) || options.once) return;
        next = std::max(next + duration_of(options.interval_s), Clock::now());
        while (!stop_requested && Clock::now() < std::min(next, end))
            std::this_thread::sleep_for(std::min<Clock::duration>(50ms, next - Clock::now()));
        if (Clock::now() >= end) return;
    }
}

/// The samples of the clients wanted, or of all if none is named, in the part wanted; at least one.
std::vector<Sample> recording_of(const Options& options) {
    std::vector<Sample> samples = read_recording(options.recording_path);
    const std::vector<std::uint32_t>& ids = options.client_ids;
    if (!samples.empty()) {
        std::erase_if(samples, [&, first = samples.front()](const Sample& sample) {
            const double at = seconds_between(first, sample);
            return at < options.from_s || at > options.until_s ||
                   (!ids.empty() && std::ranges::find(ids, sample.client_id) == ids.end());
        });
    }
    if (samples.empty())
        throw std::runtime_error(options.recording_path + ": no reading of such an engine or time");
    return samples;
}

// What the monitor does, by its command line. Each returns the exit status and throws
// std::runtime_error for files and addresses that cannot be used.

/// Shows, records and serves readings; 1 for "--once" without an engine.
int watch(const Options& options) {
    using Format = Options::Format;
    std::optional<RecordingWriter> record;
    if (!options.record_path.empty()) record.emplace(options.record_path);
    LivePages pages;
    std::optional<http::HttpServer> server;
    if (!options.http_address.empty()) {
        server.emplace(options.http_address, [&](auto target) { return pages.page(target); });
        std::cerr << server->url() << std::endl;
    }
    std::optional<Screen> screen;
    bool redraws = false;
    if (options.format == Format::view) {
        redraws = !options.once && prepare_terminal();
        screen.emplace(std::cout, redraws, server ? server->url() : "");
    }
    if (options.format == Format::csv) std::cout << csv_heading() << '\n';

    bool one_runs = false;
    bool said = redraws;
    follow(options, [&](const std::vector<Sample>& samples) {
        if (samples.empty() && !std::exchange(said, true))
            std::cerr << no_engine_text << (options.once ? "" : "; waiting") << std::endl;
        pages.add(samples);
        if (screen) screen->show(samples);
        for (const Sample& sample : samples) {
            one_runs = one_runs || sample.presence == Presence::alive;
            if (options.format == Format::json) std::cout << to_json(sample) << std::endl;
            if (options.format == Format::csv) std::cout << csv_row(sample) << std::endl;
            if (record) record->add(sample);
        }
        return std::cout.good();
    });
    if (record) record->close();
    return options.once && !one_runs ? 1 : 0;
}

/// A recording as a page.
int write_report(const Options& options) {
    const std::vector<Sample> samples = recording_of(options);
    const std::string path =
        options.output_path.empty() ? options.recording_path + ".html" : options.output_path;
    std::ofstream file(path, std::ios::binary);
    file << report_page(samples);
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
    std::cout << "wrote " << path << '\n';
    return 0;
}

/// A recording as text for programs.
int convert(const Options& options) {
    const std::vector<Sample> samples = recording_of(options);
    const bool csv = options.format == Options::Format::csv;
    if (csv) std::cout << csv_heading() << '\n';
    for (const Sample& sample : samples)
        std::cout << (csv ? csv_row(sample) : to_json(sample)) << '\n';
    return std::cout.flush() ? 0 : 1;
}

/// Readings for as long as wanted.
std::vector<Sample> watched(const Options& options) {
    std::vector<Sample> samples;
    bool said = false;
    follow(options, [&](const std::vector<Sample>& reading) {
        if (reading.empty() && !std::exchange(said, true))
            std::cerr << no_engine_text << "; waiting" << std::endl;
        samples.insert(samples.end(), reading.begin(), reading.end());
        return true;
    });
    return samples;
}

int write_bundle(const Options& options) {
    std::vector<Sample> seen_now;
    if (options.bundled_recordings.empty()) {
        std::cerr << "no recording is named; watching for " << *options.seconds << " s"
                  << std::endl;
        seen_now = watched(options);
    }
    const BundleContents contents{.recordings = options.bundled_recordings,
                                  .configurations = options.bundled_configurations,
                                  .seen_now = seen_now,
                                  .with_addresses = options.with_addresses};
    const std::string path = options.output_path.empty() ? bundle_name() : options.output_path;
    for (const std::string& name : pack_bundle(path, contents))
        std::cout << "  " << name << '\n';
    std::cout << "wrote " << path << '\n';
    return 0;
}

/// A recording, or what is seen now, in words; 1 when something was wrong or is not clear yet.
int explain(const Options& options) {
    const std::vector<Sample> samples =
        options.recording_path.empty() ? watched(options) : recording_of(options);
    if (samples.empty()) {
        std::cout << "no engine ran on this computer while it was watched\n";
        return 1;
    }
    bool wrong = false;
    for (const auto& [id, account] : judge_each(samples)) {
        std::cout << "client " << id << '\n';
        for (const std::string& line : tell(account))
            std::cout << "  " << line << '\n';
        wrong = wrong || !account.nothing_wrong();
    }
    return wrong ? 1 : 0;
}

}  // namespace

}  // namespace tavistro::monitor

int main(int argc, char** argv) {
    using namespace tavistro::monitor;
    try {
        int exit_code = 0;
        const auto options = parse_options(argc, argv, exit_code);
        if (!options) return exit_code;
        switch (options->task) {
            case Options::Task::watch:
                return watch(*options);
            case Options::Task::report:
                return write_report(*options);
            case Options::Task::explain:
                return explain(*options);
            case Options::Task::convert:
                return convert(*options);
            case Options::Task::bundle:
                return write_bundle(*options);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tavistro-monitor: %s\n", error.what());
    }
    return 1;
}
