#include "drivers/alsa/cards.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace tavistro::alsa {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t name_bytes = 31;
constexpr const char* prefix = "ALSA";

/// A card's hash takes the place of the last four bytes.
constexpr std::array<std::uint8_t, 16> class_id_base{0x0E, 0x5D, 0xC4, 0xA1, 0x92, 0x6B,
                                                     0x8F, 0x4D, 0xB3, 0x57, 0x2E, 0x9C};

/// FNV-1a. Equal on every system: the bytes are unsigned.
std::uint32_t hash(const std::string& text) {
    std::uint32_t value = 2166136261U;
    for (const char c : text)
        value = (value ^ static_cast<unsigned char>(c)) * 16777619U;
    return value;
}

std::array<std::uint8_t, 16> class_id_of(std::uint32_t hash) {
    auto id = class_id_base;
    for (std::size_t i = 0; i < 4; ++i)
        id[12 + i] = static_cast<std::uint8_t>(hash >> (24 - 8 * i));
    return id;
}

/// The first three groups of the text are little-endian numbers in memory.
std::string text_of(const std::array<std::uint8_t, 16>& id) {
    std::array<char, 39> text{};
    std::snprintf(text.data(), text.size(),
                  "{%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X}", id[3],
                  id[2], id[1], id[0], id[5], id[4], id[7], id[6], id[8], id[9], id[10], id[11],
                  id[12], id[13], id[14], id[15]);
    return text.data();
}

/// At most `bytes` bytes, without a part of a UTF-8 character at the end.
std::string cut(const std::string& text, std::size_t bytes) {
    std::size_t end = std::min(text.size(), bytes);
    while (end < text.size() && end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    return text.substr(0, end);
}

template <typename Value>
bool taken(const std::vector<DriverEntry>& drivers, Value DriverEntry::*field, const Value& value) {
    return std::ranges::find(drivers, value, field) != drivers.end();
}

std::string unique_name(const std::vector<DriverEntry>& drivers, const Card& card) {
    const std::string name = prefix + (": " + card.name);
    std::string plain = cut(name, name_bytes);
    if (!taken(drivers, &DriverEntry::name, plain)) return plain;
    const std::string id = " [" + card.id + "]";
    return cut(name, name_bytes - id.size()) + id;
}

DriverEntry entry(const std::vector<DriverEntry>& drivers, std::string name,
                  const std::string& identity) {
    std::uint32_t number = hash(identity);
    while (taken(drivers, &DriverEntry::class_id, class_id_of(number)))
        ++number;
    const auto class_id = class_id_of(number);
    return {std::move(name), class_id, text_of(class_id), {}, {}, {}};
}

/// What follows "key:" on a line of a file of the process file system; empty if it is missing.
std::string value_in(const fs::path& file, const std::string& key) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos || !line.starts_with(key)) continue;
        const std::size_t begin = line.find_first_not_of(" \t", colon + 1);
        return begin == std::string::npos ? std::string() : line.substr(begin);
    }
    return {};
}

}  // namespace

std::vector<DriverEntry> list_drivers(const std::vector<Card>& cards) {
    std::vector<DriverEntry> drivers{entry({}, prefix, {})};
    drivers.front().playback = drivers.front().capture = "default";
    for (const Card& card : cards) {
        DriverEntry driver = entry(drivers, unique_name(drivers, card), card.id);
        const auto pcm = [&](const std::optional<unsigned>& device) {
            return device ? "hw:CARD=" + card.id + ",DEV=" + std::to_string(*device) : "";
        };
        driver.playback = pcm(card.playback_device);
        driver.capture = pcm(card.capture_device);
        driver.card = card;
        drivers.push_back(std::move(driver));
    }
    return drivers;
}

std::string owner_of(const DriverEntry& driver, bool is_input, const std::string& proc) {
    std::string unknown = "another program";
    const auto device = !driver.card ? std::nullopt
                        : is_input   ? driver.card->capture_device
                                     : driver.card->playback_device;
    if (!device) return unknown;
    const fs::path folder = fs::path(proc) / "asound" /
                            ("card" + std::to_string(driver.card->number)) /
                            ("pcm" + std::to_string(*device) + (is_input ? "c" : "p"));
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        const std::string thread = value_in(it->path() / "status", "owner_pid");
        if (thread.empty()) continue;
        const std::string process = value_in(fs::path(proc) / thread / "status", "Tgid");
        const std::string program = value_in(fs::path(proc) / process / "status", "Name");
        if (!process.empty() && !program.empty()) return program + " (process " + process + ")";
    }
    return unknown;
}

}  // namespace tavistro::alsa
