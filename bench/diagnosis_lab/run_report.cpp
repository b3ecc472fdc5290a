#include "bench/diagnosis_lab/run_report.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "bench/diagnosis_lab/world.h"

namespace tavistro::diagnosis_lab {

namespace {

using Json = nlohmann::ordered_json;

std::vector<std::pair<const char*, std::int64_t>> named(const Counts& c) {
    return {{"blocks_received", c.received},
            {"blocks_replaced", c.replaced},
            {"never_sent", c.in_silence},
            {"blocks_late", c.late},
            {"blocks_again", c.came_again},
            {"blocks_refused", c.refused},
            {"notices", c.notices},
            {"notices_missed", c.notices_missed()},
            {"periods", c.periods},
            {"periods_missed", c.periods_missed},
            {"periods_doubled", c.periods_doubled},
            {"underruns", c.underruns},
            {"overruns", c.overruns},
            {"silence_ms", c.silence_ms}};
}

std::string text(const char* format, auto... values) {
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

std::vector<std::string> names_of(const std::vector<monitor::Cause>& causes) {
    std::vector<std::string> names;
    names.reserve(causes.size());
    for (const monitor::Cause cause : causes)
        names.emplace_back(cause_name(cause));
    return names;
}

void print_fields(std::ostream& out, const Recording& recording) {
    out << text("%8s %6s %5s %6s %6s %6s %7s %7s %7s %6s %6s %6s %8s %7s %6s\n", "ms", "recv",
                "dup", "queued", "period", "played", "fill", "min", "max", "under", "over", "drop",
                "notices", "latest", "late");
    for (const monitor::Sample& sample : recording.samples) {
        const tavistro_stats_block& s = *sample.stats;
        out << text("%8lld %6u %5u %6u %6u %6u %7u %7u %7u %6u %6u %6u %8u %7u %6u\n",
                    static_cast<long long>(sample.time_ms - recording.samples.front().time_ms),
                    s.client_recv_blocks_per_sec, s.client_duplicate_blocks_per_sec,
                    s.player_recv_blocks_per_sec, s.callbacks_per_sec, s.dequeued_per_sec,
                    s.playback_buffer_frames, s.min_frames, s.max_frames, s.underruns, s.overruns,
                    s.playback_dropped, s.sync_delay_samples, s.sync_delay_max_us,
                    sample.host_late_us);
    }
}

void print_text(std::ostream& out, const RunOptions& options, const Entry& entry,
                const Scenario& scenario, const Recording& recording,
                const monitor::Account& account) {
    out << text(
        "%u Hz, %u frames, client_latency_blocks %llu; observed for %.0f s from %.1f s on\n",
        scenario.format.sample_rate, unsigned{scenario.format.frames},
        static_cast<unsigned long long>(scenario.latency_blocks), scenario.watched_for_s,
        scenario.watched_after_s);
    out << "put in:";
    for (const std::string& name : names_of(entry.causes()))
        out << ' ' << name;
    out << text("\nserver faster by %+.1f ppm\n", scenario.server_faster_ppm());
    for (const auto& [name, count] : named(recording.last_look - recording.first_look))
        out << text("%-16s %lld\n", name, static_cast<long long>(count));
    out << "named:";
    for (const monitor::Finding& finding : account.causes)
        out << ' ' << cause_name(finding.cause);
    out << '\n';
    for (const std::string& line : monitor::account_lines(account))
        out << line << '\n';
    if (options.fields) print_fields(out, recording);
}

void print_json(std::ostream& out, const Entry& entry, const Scenario& scenario,
                const Recording& recording, const monitor::Account& account) {
    Json truth{{"causes", names_of(entry.causes())},
               {"busy", entry.busy},
               {"server_faster_ppm", scenario.server_faster_ppm()}};
    for (const auto& [name, count] : named(recording.last_look - recording.first_look))
        truth[name] = count;
    Json told{{"causes", Json::array()}, {"lines", monitor::account_lines(account)}};
    for (const monitor::Finding& finding : account.causes)
        told["causes"].push_back(cause_name(finding.cause));
    const Json world{{"name", entry.name()},
                     {"sample_rate", scenario.format.sample_rate},
                     {"block_frames", scenario.format.frames},
                     {"client_latency_blocks", scenario.latency_blocks},
                     {"watched_after_s", scenario.watched_after_s},
                     {"watched_for_s", scenario.watched_for_s},
                     {"truth", truth},
                     {"told", told}};
    out << world.dump(2) << '\n';
}

}  // namespace

bool run_world(const RunOptions& options, std::ostream& out, std::ostream& errors) {
    auto entry = find_entry(options.name);
    if (!entry) {
        errors << "unknown fault: " << options.name << "; `list` shows all\n";
        return false;
    }
    entry->strength = options.strength;
    entry->busy = options.busy;
    const Scenario scenario = scenario_of(*entry, options.seed, options.seconds);
    const Recording recording = simulate(scenario);
    const monitor::Account account = monitor::judge(recording.samples);
    if (options.json)
        print_json(out, *entry, scenario, recording, account);
    else
        print_text(out, options, *entry, scenario, recording, account);
    const std::string disagreement = recording.disagreement();
    if (!disagreement.empty()) errors << "wrong counts: " << disagreement << '\n';
    return disagreement.empty();
}

std::string command_of(const Entry& entry, std::uint64_t seed, double seconds) {
    std::string command = "tavistro-diagnosis-lab run " + entry.name();
    command.append(" --strength ").append(strength_names[static_cast<std::size_t>(entry.strength)]);
    command.append(" --seed ").append(std::to_string(seed));
    command.append(text(" --seconds %.0f", seconds));
    return entry.busy ? command.append(" --busy") : command;
}

}  // namespace tavistro::diagnosis_lab
