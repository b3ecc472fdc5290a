// Loads configuration text. A loaded configuration must be the same after writing and reloading it.
#include <sstream>
#include <string>

#include "config/config_keys.h"
#include "config/engine_config.h"
#include "fuzz/fuzz.h"

namespace {

using namespace tavistro;

std::string all_values(const EngineConfig& config) {
    std::ostringstream text;
    for (const ConfigKey& key : config_keys())
        text << "[" << key.section << "]\n" << key.key << "=" << value_text(key, config) << "\n";
    return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    EngineConfig config;
    config.audio.driver_name = "untouched";
    const std::string before = all_values(config);
    std::string error = "must be cleared";
    std::istringstream input(text);
    const bool loaded = read_engine_config(input, config, error);
    REQUIRE(loaded == error.empty());
    const std::string after = all_values(config);
    if (!loaded) {
        REQUIRE(after == before && error.find('\n') == std::string::npos);
        return 0;
    }
    std::istringstream written(after);
    EngineConfig again;
    REQUIRE(read_engine_config(written, again, error) && all_values(again) == after);
    return 0;
}
