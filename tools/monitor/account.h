// What is said of an engine: facts, which were counted, and causes, which follow from them.
//
// explain, the live view, the page and the report all say what judge() gives.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/monitor/sample.h"

namespace tavistro::monitor {

enum class Cause {
    engine_absent,
    engine_silent,
    engine_ended,
    engine_failed,
    server_silent,
    format_mismatch,
    network_loss,
    missing_notices,
    late_network,
    device_stall,     ///< periods that the device missed
    device_too_slow,  ///< than the server
    device_too_fast,
    device_uneven,
    host_overload,
};
inline constexpr std::size_t cause_count = static_cast<std::size_t>(Cause::host_overload) + 1;
std::string_view cause_text(Cause cause);

/// Seconds since the first sample of a history.
struct Span {
    double from_s = 0;
    double until_s = 0;
};

/// Something that was counted; `name` is short ("blocks lost"), `text` has the numbers.
struct Fact {
    std::string_view name;
    Span when;
    std::string text;
};

/// A side that a drop-out comes from.
struct Finding {
    Cause cause;
    Span when;
    std::string text;
};

/// Less is too short a time to judge: two reports are left out.
inline constexpr double least_watched_s = 4;

struct Account {
    double watched_s = 0;
    std::int64_t from_ms = 0;       ///< time of the first sample, since 1970
    std::vector<Fact> facts{};      ///< in the order of time
    std::vector<Finding> causes{};  ///< in the order of Cause
    /// Set when something was heard that no cause explains: what would make it clear.
    std::string not_clear_yet{};

    bool nothing_wrong() const { return causes.empty() && not_clear_yet.empty(); }
};

/// Samples of one client in the order of time.
Account judge(std::span<const Sample> samples);

using Accounts = std::map<std::uint32_t, Account>;  ///< by client_id

/// Samples of several clients: the account of each.
Accounts judge_each(std::span<const Sample> samples);

/// The account in words: a line for each fact, then for each cause, none with an end.
std::vector<std::string> account_lines(const Account& account);

/// account_lines(), or that nothing was wrong for as long as was watched.
std::vector<std::string> tell(const Account& account);

}  // namespace tavistro::monitor
