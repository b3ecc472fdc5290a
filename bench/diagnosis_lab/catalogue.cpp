#include "bench/diagnosis_lab/catalogue.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace tavistro::diagnosis_lab {

using monitor::Cause;

namespace {

struct StreamChoice {
    server::StreamFormat format;
    std::uint64_t latency_blocks;
};
constexpr StreamChoice streams[] = {{{48000, 128}, 6}, {{48000, 64}, 8},   {{96000, 256}, 4},
                                    {{44100, 480}, 3}, {{48000, 128}, 12}, {{48000, 256}, 6}};

/// Largest drift between two clocks without a fault.
constexpr double natural_ppm = 30;

template <typename Value>
Value of(Strength strength, Value weak, Value middle, Value strong) {
    const Value values[] = {weak, middle, strong};
    return values[static_cast<std::size_t>(strength)];
}

std::uint32_t whole_ms(double ms) {
    return static_cast<std::uint32_t>(std::lround(ms));
}

void nothing(Scenario&, Strength, Dice&) {}

void duplication(Scenario& s, Strength, Dice&) {
    s.faults.duplicate_percent = 50;
}

void little_jitter(Scenario& s, Strength, Dice&) {
    s.faults.jitter_ms = static_cast<std::uint32_t>(s.hold_ms() / 4);
}

/// Makes the device clock faster than the server clock by slowing the server or speeding up the
/// device.
void part_clocks(Scenario& s, double device_faster_ppm, Dice& dice) {
    if (dice.chance(0.5))
        s.faults.drift_ppm -= device_faster_ppm;
    else
        s.card.loopback_drift_ppm += static_cast<std::int32_t>(device_faster_ppm);
}

void clocks_apart(Scenario& s, Strength, Dice& dice) {
    s.faults.drift_ppm = 0;
    part_clocks(s, dice.chance(0.5) ? 100 : -100, dice);
}

void loss(Scenario& s, Strength strength, Dice&) {
    s.faults.drop_percent = of(strength, 0.02, 0.5, 5.0);
}

void bursts(Scenario& s, Strength strength, Dice&) {
    s.faults.burst_every_ms = of(strength, 20'000U, 5'000U, 1'000U);
    s.faults.burst_length_blocks = of(strength, 4U, 8U, 16U);
}

void reorder(Scenario& s, Strength strength, Dice&) {
    s.faults.reorder_percent = of(strength, 0.1, 1.0, 5.0);
}

void jitter(Scenario& s, Strength strength, Dice&) {
    constexpr double least_ms = 15;
    s.faults.jitter_ms = whole_ms(std::max(least_ms, of(strength, 1.3, 2.0, 4.0) * s.hold_ms()));
}

void notices(Scenario& s, Strength strength, Dice&) {
    s.faults.pause_every_ms = of(strength, 10'000U, 3'000U, 1'500U);
    s.faults.pause_for_ms = of(strength, 100U, 200U, 300U);
}

void silence(Scenario& s, Strength strength, Dice& dice) {
    constexpr double margin_s = 2;
    s.silent_for_s = of(strength, 2.0, 6.0, 19.0);
    const double latest_s = std::max(margin_s, s.watched_for_s - s.silent_for_s - margin_s);
    s.silent_from_s = dice.between(margin_s, latest_s);
}

void fast_clock(Scenario& s, Strength strength, Dice& dice) {
    part_clocks(s, of(strength, 700, 1500, 4000), dice);
}

void slow_clock(Scenario& s, Strength strength, Dice& dice) {
    part_clocks(s, of(strength, -700, -1500, -4000), dice);
}

void skips(Scenario& s, Strength strength, Dice&) {
    s.card.loopback_callback_skip_every = of(strength, 400U, 100U, 20U);
    s.card.loopback_callback_skip_count = 1;
}

void stalls(Scenario& s, Strength strength, Dice&) {
    s.card.loopback_callback_stall_every_ms = of(strength, 20'000U, 5'000U, 1'500U);
    s.card.loopback_callback_stall_duration_ms = of(strength, 100U, 300U, 300U);
}

void uneven(Scenario& s, Strength strength, Dice&) {
    s.card.loopback_callback_jitter_max_ms = whole_ms(of(strength, 0.8, 1.2, 2.0) * s.hold_ms());
}

void doubled(Scenario& s, Strength strength, Dice&) {
    s.card.loopback_callback_duplicate_every = of(strength, 400U, 100U, 20U);
    s.card.loopback_callback_duplicate_count = 1;
}

void other_rate(Scenario& s, Strength strength, Dice& dice) {
    const std::uint32_t rate = s.format.sample_rate;
    const std::uint32_t neighbour = rate == 44100 ? 48000 : rate == 96000 ? 88200 : 44100;
    s.card_rate = of(strength, neighbour, rate / 2, 2 * rate);
    s.card_admits_rate = dice.chance(0.5);
}

const std::vector<Fault>& all_faults() {
    static const std::vector<Fault> list{
        {"none", {}, nothing, "no fault"},
        {"duplication", {}, duplication, "50 % of the datagrams are duplicated"},
        {"little-jitter", {}, little_jitter, "jitter of a quarter of the buffer"},
        {"clocks-apart", {}, clocks_apart, "100 ppm in either direction"},
        {"loss", {Cause::network_loss}, loss, "0.02 / 0.5 / 5 % of the datagrams are lost"},
        {"bursts",
         {Cause::network_loss},
         bursts,
         "4 blocks lost every 20 s / 8 every 5 s / 16 every second"},
        {"reorder", {Cause::late_network}, reorder, "0.1 / 1 / 5 % of the datagrams are reordered"},
        {"jitter",
         {Cause::late_network},
         jitter,
         "largest delay 1.3 / 2 / 4 times the buffer, at least 15 ms"},
        {"notices",
         {Cause::missing_notices},
         notices,
         "no sync notices for 100 ms every 10 s / 200 every 3 s / 300 every 1.5 s"},
        {"silence", {Cause::server_silent}, silence, "server silent for 2 / 6 / 19 s, once"},
        {"fast-clock",
         {Cause::device_too_fast},
         fast_clock,
         "device faster than the server by 700 / 1500 / 4000 ppm"},
        {"slow-clock",
         {Cause::device_too_slow},
         slow_clock,
         "device slower than the server by 700 / 1500 / 4000 ppm"},
        {"skips", {Cause::device_stall}, skips, "1 of 400 / 100 / 20 periods missed"},
        {"stalls",
         {Cause::device_stall},
         stalls,
         "device stalls for 100 ms every 20 s / 300 every 5 s / 300 every 1.5 s"},
        {"uneven",
         {Cause::device_uneven},
         uneven,
         "periods early or late by up to 0.8 / 1.2 / 2 times the buffer"},
        {"doubled", {Cause::device_too_fast}, doubled, "1 of 400 / 100 / 20 periods is repeated"},
        {"other-rate",
         {Cause::format_mismatch},
         other_rate,
         "device at a neighbouring rate / half the rate / twice the rate"},
    };
    return list;
}

/// No world combines these two.
bool exclude_each_other(const Fault& a, const Fault& b) {
    return (a.apply == fast_clock && b.apply == slow_clock) ||
           (a.apply == slow_clock && b.apply == fast_clock);
}

void make_busy(Load& load, Dice& dice) {
    load.fill({.pauses_per_s = dice.between(0.1, 3), .mean_pause_ms = dice.between(2, 12)});
}

std::uint64_t number_of(std::string_view text) {
    std::uint64_t hash = 0xCBF29CE484222325;
    for (const char letter : text)
        hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001B3;
    return hash;
}

constexpr std::pair<Cause, std::string_view> cause_names[] = {
    {Cause::engine_absent, "engine_absent"},     {Cause::engine_silent, "engine_silent"},
    {Cause::engine_ended, "engine_ended"},       {Cause::engine_failed, "engine_failed"},
    {Cause::server_silent, "server_silent"},     {Cause::format_mismatch, "format_mismatch"},
    {Cause::network_loss, "network_loss"},       {Cause::missing_notices, "missing_notices"},
    {Cause::late_network, "late_network"},       {Cause::device_stall, "device_stall"},
    {Cause::device_too_slow, "device_too_slow"}, {Cause::device_too_fast, "device_too_fast"},
    {Cause::device_uneven, "device_uneven"},     {Cause::host_overload, "host_overload"},
};

}  // namespace

std::span<const Fault> faults() {
    return all_faults();
}

std::string Entry::name() const {
    std::string text;
    for (const Fault* fault : faults) {
        if (!text.empty()) text += '+';
        text += fault->name;
    }
    return text;
}

bool Entry::is_harmless() const noexcept {
    return std::ranges::all_of(faults, &Fault::is_harmless);
}

std::vector<Cause> Entry::causes() const {
    std::vector<Cause> all;
    for (const Fault* fault : faults) {
        std::ranges::copy(fault->causes, std::back_inserter(all));
        // 1 missed period in 400 cannot be distinguished from a slow clock.
        if (fault->apply == skips && strength == Strength::weak)
            all.push_back(Cause::device_too_slow);
    }
    if (busy) all.push_back(Cause::host_overload);
    return all;
}

std::vector<Entry> entries() {
    std::vector<Entry> all;
    for (const bool busy : {false, true}) {
        for (const Fault& fault : faults()) {
            for (const Strength strength : {Strength::weak, Strength::middle, Strength::strong}) {
                if (!fault.is_harmless() || strength == Strength::middle)
                    all.push_back({{&fault}, strength, busy});
            }
        }
        for (const Fault& first : faults()) {
            for (const Fault& second : faults()) {
                if (&first < &second && !first.is_harmless() && !exclude_each_other(first, second))
                    all.push_back({{&first, &second}, Strength::middle, busy});
            }
        }
    }
    return all;
}

std::optional<Entry> find_entry(std::string_view name) {
    for (const Entry& entry : entries()) {
        if (entry.name() == name) return entry;
    }
    return {};
}

Scenario scenario_of(const Entry& entry, std::uint64_t seed, double seconds) {
    constexpr double longest_wait_s = 20;
    const std::string kind = entry.name() + (entry.busy ? " busy " : " ") +
                             std::string(strength_names[static_cast<std::size_t>(entry.strength)]);
    Scenario scenario;
    scenario.seed = mixed(seed, number_of(kind));
    Dice dice(scenario.seed, 60);
    const StreamChoice& stream = streams[dice.below(std::size(streams))];
    scenario.format = stream.format;
    scenario.latency_blocks = stream.latency_blocks;
    scenario.watched_after_s = dice.chance(0.5) ? 0 : dice.between(0, longest_wait_s);
    scenario.watched_for_s = seconds;
    scenario.delay_ns = static_cast<std::int64_t>(dice.between(100'000, 1'000'000));
    scenario.net_jitter_ns = static_cast<std::int64_t>(dice.between(10'000, 60'000));
    scenario.faults.drift_ppm = dice.between(-natural_ppm, natural_ppm);
    if (entry.busy) make_busy(scenario.load, dice);
    for (std::size_t i = 0; i < entry.faults.size(); ++i) {
        Dice choices(scenario.seed, 61 + i);
        entry.faults[i]->apply(scenario, entry.strength, choices);
    }
    return scenario;
}

std::string_view cause_name(Cause cause) {
    return std::ranges::find(cause_names, cause, [](const auto& name) { return name.first; })
        ->second;
}

}  // namespace tavistro::diagnosis_lab
