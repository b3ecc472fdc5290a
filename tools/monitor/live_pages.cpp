#include "tools/monitor/live_pages.h"

#include <charconv>

#include "tools/monitor/formats.h"

namespace tavistro::monitor {

void LivePages::add(const std::vector<Sample>& samples) {
    constexpr std::size_t kept_readings = 600;
    const std::lock_guard lock(mutex_);
    readings_.push_back(samples);
    if (readings_.size() > kept_readings) readings_.pop_front();
}

std::optional<HttpPage> LivePages::page(std::string_view target) const {
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

std::vector<Sample> LivePages::newest() const {
    const std::lock_guard lock(mutex_);
    return readings_.empty() ? std::vector<Sample>() : readings_.back();
}

std::vector<Sample> LivePages::after(std::int64_t time_ms) const {
    const std::lock_guard lock(mutex_);
    std::vector<Sample> wanted;
    for (const auto& reading : readings_) {
        if (!reading.empty() && reading.front().time_ms > time_ms)
            wanted.insert(wanted.end(), reading.begin(), reading.end());
    }
    return wanted;
}

}  // namespace tavistro::monitor
