// What the numbers of an engine mean: which side its drop-outs come from.
//
// All rules are differences between readings a second or so apart, so they work alike on a live
// engine and on a recording. A figure "per second" of the engine is one second's count; averages
// of many readings are used, since a reading may miss or repeat a report.
#pragma once

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
    server_stopped,
    format_mismatch,
    device_stall,
    host_overload,
    network_loss,
    missing_notices,
    late_network,
    device_too_slow,  ///< than the server
    device_too_fast,
    buffer_too_small,
};
std::string_view cause_text(Cause cause);

struct Finding {
    Cause cause;
    double from_s;  ///< since the first sample
    double until_s;
    double weight;  ///< how bad: seconds without audio, blocks lost; of one cause comparable
    std::string text;
};

/// Samples of one client in the order of time. Long recordings are judged in pieces of half a
/// minute; what neighbouring pieces have in common becomes one finding, told by its worst piece.
/// In the order of Cause; empty when nothing is wrong.
std::vector<Finding> diagnose(std::span<const Sample> samples);

/// Readings that a judgement needs at least, about a second apart.
inline constexpr std::size_t least_readings = 4;

}  // namespace tavistro::monitor
