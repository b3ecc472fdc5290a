// The configuration keys of the engine: one table that the loader reads by and that tools and
// documentation list.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "config/ini.h"
#include "config/settings.h"

namespace tavistro {

struct ConfigKey {
    std::string_view section;
    std::string_view key;
    std::string_view allowed;  ///< for people; empty where the type says it all
    bool (*read)(const ConfigKey& key, const IniSections& sections, EngineConfig& config,
                 std::string& error);
    std::string (*text)(const EngineConfig& config);
};

/// Every key in the order of reading; those of section "test" stand last.
std::span<const ConfigKey> config_keys();

/// Sets the key's field from the file, or leaves it when an optional key is absent. False with
/// one line of text in `error` when a required key is absent or the value does not convert.
inline bool read_key(const ConfigKey& key, const IniSections& sections, EngineConfig& config,
                     std::string& error) {
    return key.read(key, sections, config, error);
}

/// The field's value as it would stand in a file. The default of a key is its value in an
/// EngineConfig just constructed.
inline std::string value_text(const ConfigKey& key, const EngineConfig& config) {
    return key.text(config);
}

}  // namespace tavistro
