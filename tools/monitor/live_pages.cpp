#include "tools/monitor/live_pages.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iterator>
#include <utility>

#include "tools/http/metrics_text.h"
#include "tools/monitor/formats.h"
#include "tools/monitor/metrics.h"

namespace tavistro::monitor {

using http::HttpPage;

namespace {

/// A cause that is over leaves the list of engines and the metrics after this time.
constexpr std::int64_t judged_ms = 120'000;

/// A whole text; nothing for another one.
template <typename Number>
std::optional<Number> number_in(std::string_view text) {
    Number number{};
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return {};
    return number;
}

}  // namespace

LivePages::LivePages()
    : start_ms_(std::chrono::system_clock::now().time_since_epoch() /
                std::chrono::milliseconds(1)) {}

void LivePages::add(const std::vector<Sample>& samples) {
    const std::lock_guard lock(mutex_);
    newest_ = samples;
    for (const Sample& sample : samples)
        histories_[sample.client_id].add(sample);
}

std::optional<HttpPage> LivePages::page(std::string_view target) const {
    constexpr std::string_view engines_target = "/api/v1/engines";
    constexpr const char* json = "application/json";
    if (target == "/") return HttpPage{"text/html; charset=utf-8", live_page()};
    if (target == "/metrics") {
        const auto [newest, accounts] = judged();
        return HttpPage{http::metrics_content_type, to_prometheus(newest, accounts)};
    }
    if (target == engines_target) {
        const auto [newest, accounts] = judged();
        return HttpPage{json, engines_json(start_ms_, newest, accounts)};
    }
    if (!target.starts_with(engines_target)) return std::nullopt;
    target.remove_prefix(engines_target.size());
    const std::size_t slash = target.find('/', 1);
    if (target.front() != '/' || slash == std::string_view::npos) return std::nullopt;
    const auto client_id = number_in<std::uint32_t>(target.substr(1, slash - 1));
    if (!client_id) return std::nullopt;
    auto body = engine(*client_id, target.substr(slash + 1));
    if (!body) return std::nullopt;
    return HttpPage{json, std::move(*body)};
}

std::pair<std::vector<Sample>, Accounts> LivePages::judged() const {
    std::vector<Sample> newest;
    std::vector<Sample> recent;
    {
        const std::lock_guard lock(mutex_);
        newest = newest_;
        for (const Sample& sample : newest)
            std::ranges::move(histories_.at(sample.client_id).recent(sample.time_ms - judged_ms),
                              std::back_inserter(recent));
    }
    return {std::move(newest), judge_each(recent)};
}

std::optional<std::string> LivePages::engine(std::uint32_t client_id, std::string_view what) const {
    constexpr std::string_view samples = "samples";
    constexpr std::string_view query = "samples?after=";
    std::optional<std::int64_t> after;
    if (what == samples) after = 0;
    if (what.starts_with(query)) after = number_in<std::int64_t>(what.substr(query.size()));
    if (!after && what != "diagnosis") return std::nullopt;
    std::unique_lock lock(mutex_);
    const auto history = histories_.find(client_id);
    if (history == histories_.end()) return std::nullopt;
    const auto wanted = after ? history->second.after(*after) : history->second.recent(0);
    lock.unlock();
    return after ? to_json_array(wanted) : to_json(client_id, judge(wanted));
}

}  // namespace tavistro::monitor
