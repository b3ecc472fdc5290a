// Configuration text through the reader, the number parsers and the loader. What was read is
// written out and read again; numbers are checked against the C library.
#include <cerrno>
#include <limits>
#include <sstream>
#include <string>

#include "config/config_keys.h"
#include "config/engine_config.h"
#include "config/ini.h"
#include "fuzz/fuzz.h"

namespace {

using namespace tavistro;

void check_numbers(const std::string& text) {
    const std::string number(trim(text));
    const bool negative = number.starts_with('-');
    errno = 0;
    char* end = nullptr;
    const std::uint64_t wide = std::strtoull(number.c_str(), &end, 0);
    const bool converts = !number.empty() && end == number.c_str() + number.size() && errno == 0;
    const std::uint64_t magnitude = negative ? 0 - wide : wide;
    const auto check = [&](auto parse, auto untouched, bool expected) {
        auto value = untouched;
        REQUIRE(parse(text, value) == expected);
        REQUIRE(value == (expected ? static_cast<decltype(value)>(wide) : untouched));
    };
    const bool fits = converts && magnitude <= std::numeric_limits<std::uint32_t>::max();
    check(parse_size, std::uint64_t{77}, converts);
    check(parse_u32, std::uint32_t{77}, fits);
    check(parse_u16, std::uint16_t{77}, fits && static_cast<std::uint32_t>(wide) <= 0xFFFF);
    check(parse_int, std::int32_t{77}, converts && magnitude <= 0x7FFFFFFFU + (negative ? 1U : 0U));
}

void check_reader(const std::string& text) {
    IniSections sections;
    std::string error;
    std::istringstream input(text);
    REQUIRE(parse_ini(input, sections, error) == error.empty());
    std::string written;
    for (const auto& [section, keys] : sections) {
        written += "[ " + section + " ]\n";
        for (const auto& [key, value] : keys) {
            REQUIRE(value == strip_inline_comment(value));
            written += key + "=" + value + "\r\n";
            check_numbers(value);
        }
    }
    IniSections again;
    std::istringstream second(written);
    REQUIRE(parse_ini(second, again, error) && again == sections);
}

std::string all_values(const EngineConfig& config) {
    std::ostringstream text;
    for (const ConfigKey& key : config_keys())
        text << "[" << key.section << "]\n" << key.key << "=" << value_text(key, config) << "\n";
    return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    check_reader(text);
    check_numbers(text);

    EngineConfig config;
    config.audio.driver_name = "untouched";
    const std::string before = all_values(config);
    std::string error = "emptied first";
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
