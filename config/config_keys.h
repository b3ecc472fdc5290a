// The table of the engine's configuration keys, used by the loader, the tools and the
// documentation.
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
    std::string_view allowed;  ///< help text; empty if every value of the type is allowed
    bool (*read)(const ConfigKey& key, const IniSections& sections, EngineConfig& config,
                 std::string& error);
    std::string (*text)(const EngineConfig& config);
};

/// All keys in the order of reading; those of section "test" are last.
std::span<const ConfigKey> config_keys();

/// Sets the key's field from the file; an absent optional key leaves it unchanged. Returns false
/// with one line of text in `error` if a required key is absent or the value is invalid.
inline bool read_key(const ConfigKey& key, const IniSections& sections, EngineConfig& config,
                     std::string& error) {
    return key.read(key, sections, config, error);
}

/// The field's value in file syntax. The default of a key is its value in a default-constructed
/// EngineConfig.
inline std::string value_text(const ConfigKey& key, const EngineConfig& config) {
    return key.text(config);
}

}  // namespace tavistro
