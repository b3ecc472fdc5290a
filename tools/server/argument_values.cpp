#include "tools/server/argument_values.h"

#include <string>
#include <utility>

namespace tavistro::server {

namespace {

std::optional<std::uint32_t> parse_channel(std::string_view text) {
    const auto channel = parse_number<std::uint32_t>(text);
    if (!channel || *channel >= bus_channel_count) return {};
    return channel;
}

/// Both sides of the last `separator`; nothing without one.
std::optional<std::pair<std::string_view, std::string_view>> split(std::string_view text,
                                                                   char separator) {
    const std::size_t at = text.rfind(separator);
    if (at == std::string_view::npos) return {};
    return std::pair(text.substr(0, at), text.substr(at + 1));
}

/// Cuts an "@LEVEL" off the end of `text`, whose level is `otherwise` without one.
std::optional<float> take_level(std::string_view& text, float otherwise) {
    const auto parts = split(text, '@');
    if (!parts) return otherwise;
    const auto level = parse_number<float>(parts->second);
    if (!level || !(*level > 0) || *level > 1) return {};
    text = parts->first;
    return level;
}

}  // namespace

std::optional<ToneOptions> parse_tone(std::string_view text) {
    ToneOptions tone;
    const auto level = take_level(text, tone.level);
    const auto parts = split(text, '=');
    if (!level || !parts) return {};
    const auto channel = parse_channel(parts->first);
    const auto frequency_hz = parse_number<double>(parts->second);
    if (!channel || !frequency_hz || !(*frequency_hz > 0) || *frequency_hz > 200000) return {};
    return ToneOptions{*channel, *frequency_hz, *level};
}

std::optional<MelodyOptions> parse_melody(std::string_view text) {
    const auto level = take_level(text, MelodyOptions{}.level);
    const auto channel = parse_channel(text);
    if (!level || !channel) return {};
    return MelodyOptions{*channel, *level};
}

std::optional<PlayOptions> parse_play(std::string_view text) {
    const auto parts = split(text, '@');
    if (!parts || parts->first.empty()) return {};
    const auto channel = parse_channel(parts->second);
    if (!channel) return {};
    return PlayOptions{std::string(parts->first), *channel};
}

std::optional<RecordOptions> parse_record(std::string_view text) {
    const auto parts = split(text, '@');
    if (!parts || parts->first.empty()) return {};
    RecordOptions record{std::string(parts->first), {}};
    std::string_view list = parts->second;
    while (true) {
        const std::size_t comma = list.find(',');
        const auto channel = parse_channel(list.substr(0, comma));
        if (!channel) return {};
        record.channels.push_back(*channel);
        if (comma == std::string_view::npos) return record;
        list.remove_prefix(comma + 1);
    }
}

std::optional<MeasureOptions> parse_measure(std::string_view text) {
    const auto parts = split(text, ':');
    if (!parts) return {};
    const auto sent = parse_channel(parts->first);
    const auto returned = parse_channel(parts->second);
    if (!sent || !returned) return {};
    return MeasureOptions{*sent, *returned};
}

}  // namespace tavistro::server
