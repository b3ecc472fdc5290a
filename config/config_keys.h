// The configuration keys of the engine: one table that the loader reads by and that tools and
// documentation list.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "config/ini.h"
#include "config/settings.h"

namespace tavistro {

/// Which accessor reads a key.
enum class ValueKind {
    text,
    u16,
    u32,
    flag_number,  ///< read as u32 and stored as a flag: 0 is false, every other number true
    size,
    integer,
    int_list,
    boolean,
};

/// The member of the settings that a key sets.
using ConfigField =
    std::variant<std::string TavistroProtocol::ClientSettings::*,
                 std::uint16_t TavistroProtocol::ClientSettings::*,
                 std::uint32_t TavistroProtocol::ClientSettings::*,
                 std::uint64_t TavistroProtocol::ClientSettings::*,
                 bool TavistroProtocol::ClientSettings::*,
                 std::vector<std::int32_t> TavistroProtocol::ClientSettings::*,
                 std::string AudioDeviceSettings::*, std::int32_t AudioDeviceSettings::*,
                 std::uint32_t AudioDeviceSettings::*,
                 std::vector<std::int32_t> AudioDeviceSettings::*, bool EngineConfig::*>;

struct ConfigKey {
    std::string_view section;
    std::string_view key;
    ValueKind kind;
    bool required;
    std::string_view allowed;  ///< for people; empty where the kind says it all
    ConfigField field;
};

/// Every key in the order of reading; those of section "test" stand last.
std::span<const ConfigKey> config_keys();

/// Sets the key's field from the file, or leaves it when an optional key is absent. False with
/// one line of text in `error` when a required key is absent or the value does not convert.
bool read_key(const ConfigKey& key, const IniSections& sections, EngineConfig& config,
              std::string& error);

/// The field's value as it would stand in a file. The default of a key is its value in an
/// EngineConfig just constructed.
std::string value_text(const ConfigKey& key, const EngineConfig& config);

}  // namespace tavistro
