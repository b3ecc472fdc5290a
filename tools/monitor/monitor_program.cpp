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
#include <stdexcept>
#include <thread>

#include "tools/monitor/client_watch.h"
#include "tools/monitor/formats.h"
#include "tools/monitor/host_probe.h"
#include "tools/monitor/http_server.h"
#include "tools/monitor/page.h"
#include "tools/monitor/terminal.h"
#include "tools/monitor/view.h"

namespace tavistro::monitor {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Histories = std::map<std::uint32_t, std::vector<Sample>>;

std::int64_t unix_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/// The engines that are watched, all read at one time.
class Watches {
  public:
    explicit Watches(const std::vector<std::uint32_t>& client_ids) {
        for (const std::uint32_t id : client_ids)
            watches_.emplace_back(id);
    }
    std::vector<Sample> look() {
        const std::int64_t now = unix_ms();
        const std::uint32_t host_late_us = probe_.take_longest_us();
        std::vector<Sample> samples;
        for (ClientWatch& watch : watches_) {
            samples.push_back(watch.look(now));
            samples.back().host_late_us = host_late_us;
        }
        return samples;
    }

  private:
    HostProbe probe_;
    std::deque<ClientWatch> watches_;
};

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
        if (target == "/") return HttpPage{"text/html; charset=utf-8", live_page()};
        const std::lock_guard lock(mutex_);
        if (target == "/metrics") {
            return HttpPage{"text/plain; version=0.0.4; charset=utf-8",
                            readings_.empty() ? "" : to_prometheus(readings_.back())};
        }
        constexpr std::string_view query = "/samples.json?after=";
        std::int64_t after_ms = 0;
        if (target.starts_with(query)) {
            std::from_chars(target.data() + query.size(), target.data() + target.size(), after_ms);
        } else if (target != "/samples.json") {
            return std::nullopt;
        }
        std::vector<Sample> wanted;
        for (const auto& reading : readings_) {
            if (!reading.empty() && reading.front().time_ms > after_ms)
                wanted.insert(wanted.end(), reading.begin(), reading.end());
        }
        return HttpPage{"application/json", to_json_array(wanted)};
    }

  private:
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

Histories by_client(const std::vector<Sample>& samples) {
    Histories histories;
    for (const Sample& sample : samples)
        histories[sample.client_id].push_back(sample);
    return histories;
}

std::string time_text(double seconds) {
    const auto whole = static_cast<long long>(seconds);
    const std::string s = std::to_string(whole % 60);
    return std::to_string(whole / 60).append(s.size() < 2 ? ":0" : ":").append(s);
}

bool explain(const Histories& histories, std::ostream& out) {
    bool found = false;
    for (const auto& [id, samples] : histories) {
        const auto findings = diagnose(samples);
        out << "client " << id << '\n';
        for (const Finding& finding : findings) {
            out << "  ";
            if (finding.until_s > finding.from_s)
                out << time_text(finding.from_s) << " to " << time_text(finding.until_s) << "  ";
            out << cause_text(finding.cause) << ": " << finding.text << '\n';
        }
        found = found || !findings.empty();
        if (!findings.empty()) continue;
        if (samples.size() < least_readings) {
            out << "  too short a time to judge\n";
        } else {
            out << "  nothing wrong in "
                << time_text(seconds_between(samples.front(), samples.back())) << '\n';
        }
    }
    return found;
}

/// Shows engines on a terminal, one picture over the other, or as text that scrolls.
class Screen {
  public:
    Screen(std::ostream& out, bool redraws) : out_(out), redraws_(redraws) {
        if (redraws_) out_ << "\x1b[?1049h\x1b[?25l";  // a screen of its own, no cursor
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
    ~Screen() {
        if (redraws_) out_ << "\x1b[?25h\x1b[?1049l" << std::flush;
    }

    void show(const std::vector<Sample>& samples) {
        constexpr std::size_t kept = 40;
        std::vector<std::string> lines;
        for (const Sample& sample : samples) {
            auto& history = histories_[sample.client_id];
            history.push_back(sample);
            if (history.size() > kept) history.erase(history.begin());
        }
        const TerminalSize size = redraws_ ? terminal_size() : TerminalSize{full_width, 0};
        for (const Sample& sample : samples) {
            const auto& history = histories_[sample.client_id];
            for (std::string& line : view(history, diagnose(history), size.columns))
                lines.push_back(std::move(line));
            lines.emplace_back();
        }
        if (redraws_ && lines.size() > size.rows) {
            lines.clear();
            for (const Sample& sample : samples)
                lines.push_back(short_view(sample, size.columns));
            lines.emplace_back("a higher window shows more");
            lines.resize(std::min(lines.size(), size.rows));
        }
        if (redraws_ && lines.size() < size.rows) lines.emplace_back("Ctrl-C ends");
        put(lines);
    }

  private:
    void put(const std::vector<std::string>& lines) {
        std::string text = redraws_ ? "\x1b[H" : "";
        for (std::size_t i = 0; i < lines.size(); ++i) {
            text += lines[i];
            if (redraws_) text += "\x1b[K";  // what a longer line left behind
            if (!redraws_ || i + 1 < lines.size()) text += '\n';
        }
        if (redraws_) text += "\x1b[J";
        out_ << text << std::flush;
    }

    std::ostream& out_;
    bool redraws_;
    Histories histories_;
};

/// Calls `each` with a reading every interval, the first at once, until the time is over.
template <typename Function>
void follow(const Options& options, const std::atomic<bool>& stop, const Function& each) {
    Watches watches(options.client_ids);
    const auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(options.interval_s));
    const auto start = Clock::now();
    const auto end = options.seconds ? start + std::chrono::duration_cast<Clock::duration>(
                                                   std::chrono::duration<double>(*options.seconds))
                                     : Clock::time_point::max();
    for (auto next = start; !stop;) {
        each(watches.look());
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
    std::ostringstream explanation;
    explain(by_client(samples), explanation);
    const std::string path =
        options.output_path.empty() ? options.recording_path + ".html" : options.output_path;
    std::ofstream file = open_for_writing(path);
    file << report_page(samples, explanation.str());
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
    out << "wrote " << path << '\n';
    return 0;
}

int explain_now_or_then(const Options& options, std::ostream& out, const std::atomic<bool>& stop) {
    Histories histories;
    if (!options.recording_path.empty()) {
        histories = by_client(recording_at(options.recording_path, options.client_ids));
    } else {
        follow(options, stop, [&](const std::vector<Sample>& samples) {
            for (const Sample& sample : samples)
                histories[sample.client_id].push_back(sample);
        });
    }
    return explain(histories, out) ? 1 : 0;
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
