// Values of arguments that are made of parts, such as CH=HZ@LEVEL.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

#include "tools/server/server_options.h"

namespace tavistro::server {

// Each reads one argument, whole; nothing when it is not of that form, a number is out of range or
// a channel is not on the bus.

template <typename Number>
std::optional<Number> parse_number(std::string_view text) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [stopped_at, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || stopped_at != end) return {};
    return number;
}

/// "CH=HZ" or "CH=HZ@LEVEL", level above 0 up to 1.
std::optional<ToneOptions> parse_tone(std::string_view text);
/// "CH" or "CH@LEVEL".
std::optional<MelodyOptions> parse_melody(std::string_view text);
/// "FILE@CH".
std::optional<PlayOptions> parse_play(std::string_view text);
/// "FILE@CH" or "FILE@CH,CH...".
std::optional<RecordOptions> parse_record(std::string_view text);
/// "SENT:RETURNED", two channels.
std::optional<MeasureOptions> parse_measure(std::string_view text);

}  // namespace tavistro::server
