#include "tools/monitor/monitor_program.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <span>
#include <stdexcept>
#include <thread>

#include "tools/monitor/formats.h"
#include "tools/monitor/http_server.h"
#include "tools/monitor/observer.h"
#include "tools/monitor/page.h"
#include "tools/monitor/screen.h"
#include "tools/monitor/terminal.h"
#include "tools/monitor/view.h"

namespace tavistro::monitor {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Histories = std::map<std::uint32_t, std::vector<Sample>>;

Histories by_client(std::span<const Sample> samples) {
    Histories histories;
    for (const Sample& sample : samples)
        histories[sample.client_id].push_back(sample);
    return histories;
}

Accounts judge_each(std::span<const Sample> samples) {
    Accounts accounts;
    for (const auto& [id, history] : by_client(samples))
        accounts.emplace(id, judge(history));
    return accounts;
}

/// What the HTTP server shows; written by the monitor, read by the server's thread.
class Newest {
  public:
    void add(const std::vector<Sample>& samples) {
        constexpr std::size_t kept_readings = 600;
        const std::lock_guard lock(mutex_);
        readings_.push_back(samples);
        if (readings_.size() > kept_readings) readings_.pop_front();
    }
    std::optional<HttpPage> page(std::string_view target) const {
        constexpr std::string_view query = "/samples.json?after=";
        constexpr const char* json = "application/json";
        if (target == "/") return HttpPage{"text/html; charset=utf-8", live_page()};
        if (target == "/metrics")
            return HttpPage{"text/plain; version=0.0.4; charset=utf-8", to_prometheus(newest())};
        if (target == "/diagnosis.json") return HttpPage{json, to_json_array(judge_each(after(0)))};
        std::int64_t after_ms = 0;
        if (target.starts_with(query)) {
            std::from_chars(target.data() + query.size(), target.data() + target.size(), after_ms);
        } else if (target != "/samples.json") {
            return std::nullopt;
        }
        return HttpPage{json, to_json_array(after(after_ms))};
    }

  private:
    std::vector<Sample> newest() const {
        const std::lock_guard lock(mutex_);
        return readings_.empty() ? std::vector<Sample>() : readings_.back();
    }
    std::vector<Sample> after(std::int64_t time_ms) const {
        const std::lock_guard lock(mutex_);
        std::vector<Sample> wanted;
        for (const auto& reading : readings_) {
            if (!reading.empty() && reading.front().time_ms > time_ms)
                wanted.insert(wanted.end(), reading.begin(), reading.end());
        }
        return wanted;
    }

    mutable std::mutex mutex_;
    std::deque<std::vector<Sample>> readings_;
};

std::ofstream open_for_writing(const std::string& path) {
    std::ofstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot write " + path);
    return file;
}

/// Of the clients wanted, or of all if none is named.
std::vector<Sample> recording_at(const std::string& path,
                                 const std::vector<std::uint32_t>& client_ids) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    std::vector<Sample> samples;
    try {
        samples = read_recording(file);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
    std::erase_if(samples, [&](const Sample& sample) {
        return !client_ids.empty() &&
               std::ranges::find(client_ids, sample.client_id) == client_ids.end();
    });
    if (samples.empty()) throw std::runtime_error(path + ": no reading of such an engine");
    return samples;
}

/// A recording may hold what will not come again: it is not overwritten.
std::ofstream open_recording(const std::string& path) {
    if (std::filesystem::exists(path))
        throw std::runtime_error(path + " exists already; name another file to record to");
    return open_for_writing(path);
}

/// True when something was wrong.
bool explain(std::span<const Sample> samples, std::ostream& out) {
    bool wrong = false;
    for (const auto& [id, account] : judge_each(samples)) {
        out << "client " << id << '\n';
        for (const std::string& line : tell(account))
            out << "  " << line << '\n';
        wrong = wrong || !account.nothing_wrong();
    }
    return wrong;
}

/// Calls `each` with a reading every interval, the first at once, until the time is over.
template <typename Function>
void follow(const Options& options, const std::atomic<bool>& stop, const Function& each) {
    Observer observer(options.client_ids);
    const auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(options.interval_s));
    const auto start = Clock::now();
    const auto end = options.seconds ? start + std::chrono::duration_cast<Clock::duration>(
                                                   std::chrono::duration<double>(*options.seconds))
                                     : Clock::time_point::max();
    for (auto next = start; !stop;) {
        each(observer.look());
        if (options.once) return;
        next = std::max(next + interval, Clock::now());
        while (!stop && Clock::now() < std::min(next, end))
            std::this_thread::sleep_for(std::min<Clock::duration>(50ms, next - Clock::now()));
        if (Clock::now() >= end) return;
    }
}

int watch(const Options& options, std::ostream& out, const std::atomic<bool>& stop) {
    std::ofstream record;
    if (!options.record_path.empty()) record = open_recording(options.record_path);
    Newest newest;
    std::optional<HttpServer> server;
    if (!options.http_address.empty()) {
        server.emplace(options.http_address, [&](auto target) { return newest.page(target); });
        std::cerr << "serving at port " << server->port() << ": / and /metrics\n";
    }
    const bool shows = options.format == Options::Format::view;
    std::optional<Screen> screen;
    if (shows) screen.emplace(out, !options.once && &out == &std::cout && prepare_terminal());
    if (options.format == Options::Format::csv) out << csv_heading() << '\n';

    bool one_runs = false;
    follow(options, stop, [&](const std::vector<Sample>& samples) {
        newest.add(samples);
        if (screen) screen->show(samples);
        for (const Sample& sample : samples) {
            one_runs = one_runs || sample.presence == Presence::alive;
            if (options.format == Options::Format::json) out << to_json(sample) << std::endl;
            if (options.format == Options::Format::csv) out << csv_row(sample) << std::endl;
            if (record.is_open() && !(record << to_json(sample) << std::endl))
                throw std::runtime_error("cannot write " + options.record_path);
        }
    });
    return options.once && !one_runs ? 1 : 0;
}

int write_report(const Options& options, std::ostream& out) {
    const std::vector<Sample> samples = recording_at(options.recording_path, {});
    const std::string path =
        options.output_path.empty() ? options.recording_path + ".html" : options.output_path;
    std::ofstream file = open_for_writing(path);
    file << report_page(samples, judge_each(samples));
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
    out << "wrote " << path << '\n';
    return 0;
}

int explain_now_or_then(const Options& options, std::ostream& out, const std::atomic<bool>& stop) {
    std::vector<Sample> samples;
    if (!options.recording_path.empty()) {
        samples = recording_at(options.recording_path, options.client_ids);
    } else {
        follow(options, stop, [&](const std::vector<Sample>& reading) {
            samples.insert(samples.end(), reading.begin(), reading.end());
        });
    }
    return explain(samples, out) ? 1 : 0;
}

}  // namespace

int run_monitor(const Options& options, std::ostream& out, const std::atomic<bool>& stop) {
    switch (options.task) {
        case Options::Task::report:
            return write_report(options, out);
        case Options::Task::explain:
            return explain_now_or_then(options, out, stop);
        case Options::Task::watch:
            break;
    }
    return watch(options, out, stop);
}

}  // namespace tavistro::monitor
