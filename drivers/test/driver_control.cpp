#include "drivers/test/driver_control.h"

#include <algorithm>
#include <charconv>

namespace tavistro::test {
namespace {

// All options with their default values.
const std::map<std::string_view, std::vector<double>> defaults{
    {"inputs", {8}},
    {"outputs", {8}},
    {"input_types", {17}},  // sample type per channel; the list repeats
    {"output_types", {17}},
    {"minimum_frames", {32}},
    {"maximum_frames", {2048}},
    {"preferred_frames", {128}},
    {"granularity", {-1}},
    {"rate", {48000}},    // Hz, until a host sets another
    {"fixed_rate", {0}},  // 1: rejects other rates; 2: accepts but does not set them
    {"ppm", {0}},         // drift of the driver's clock against the system clock
    {"loop", {1}},        // output i returns on input i + loop_offset one period later
    {"loop_offset", {0}},
    {"input_level", {0}},  // inputs without loop read input_level / (channel + 1)
    {"noise", {0}},        // new buffers contain noise
    {"output_ready", {1}},
    {"time_info", {2}},       // 0: never; 1: always; 2: if the host supports it
    {"foreign_thread", {0}},  // makes every callback on a new thread
    {"scribbles", {0}},       // overwrites the host's structures after use
    {"callback_in_create", {0}},
    {"callback_in_start", {0}},
    {"callback_in_stop", {0}},
    {"init_delay_ms", {0}},
};

std::vector<std::string_view> items(std::string_view list) {
    std::vector<std::string_view> found;
    while (!list.empty()) {
        const std::size_t length = std::min(list.find(','), list.size());
        found.push_back(list.substr(0, length));
        list.remove_prefix(std::min(length + 1, list.size()));
    }
    return found;
}

}  // namespace

DriverOptions::DriverOptions() : all_(defaults) {}

bool DriverOptions::set(std::string_view name, std::string_view text) {
    const auto option = all_.find(name);
    if (option == all_.end() || text.empty()) return false;
    std::vector<double> values;
    for (const std::string_view item : items(text)) {
        const char* end = item.data() + item.size();
        const auto result = std::from_chars(item.data(), end, values.emplace_back());
        if (result.ec != std::errc() || result.ptr != end) return false;
    }
    option->second = values;
    return true;
}

DriverControl& DriverControl::instance() {
    static DriverControl control;
    return control;
}

void DriverControl::restore() {
    {
        const std::lock_guard lock(mutex_);
        options_ = {};
        history_.clear();
    }
    made_.clear();
    failing_.clear();
    commands_.clear();
    periods_ = 0;
    overwritten_ = 0;
}

bool DriverControl::set(std::string_view name, std::string_view text) {
    if (name == "fail") return set_failing(text);
    const std::lock_guard lock(mutex_);
    return options_.set(name, text);
}

bool DriverControl::set_failing(std::string_view names) {
    const auto calls = items(names);
    const auto known = [&](std::string_view call) { return failing_.find(call) != nullptr; };
    if (!std::ranges::all_of(calls, known)) return false;
    failing_.clear();
    for (const std::string_view call : calls)
        *failing_.find(call) = true;
    return true;
}

bool DriverControl::fire(std::string_view command) {
    const bool reappears = command == "reappear";
    auto* state = commands_.find(reappears ? "vanish" : command);
    if (state == nullptr) return false;
    *state = !reappears;
    return true;
}

std::int64_t DriverControl::count(std::string_view counter) {
    if (counter == "periods") return periods_;
    if (counter == "objects") return objects_;
    if (counter == "overwritten") return overwritten_;
    const auto* made = made_.find(counter);
    return made != nullptr ? made->load() : -1;
}

DriverOptions DriverControl::options() const {
    const std::lock_guard lock(mutex_);
    return options_;
}

std::string DriverControl::history() const {
    const std::lock_guard lock(mutex_);
    return history_;
}

void DriverControl::note(std::string_view text) {
    const std::lock_guard lock(mutex_);
    history_.append(text).append(" ");
}

std::int32_t DriverControl::enter(std::string_view call) noexcept {
    ++*made_.find(call);
    if (call != "outputReady") note(call);  // called within a period, which must not lock
    if (*commands_.find("vanish")) return kAsioNotPresent;
    return *failing_.find(call) ? kAsioHardwareFault : kAsioOk;
}

namespace {
constexpr tavistro_test_driver_controls controls{
    [] { DriverControl::instance().restore(); },
    [](const char* option, const char* value) -> std::int32_t {
        return DriverControl::instance().set(option, value);
    },
    [](const char* command) -> std::int32_t { return DriverControl::instance().fire(command); },
    [](const char* counter) { return DriverControl::instance().count(counter); }};
}  // namespace

const tavistro_test_driver_controls* driver_controls() {
    return &controls;
}

}  // namespace tavistro::test
