// INI parser and configuration loader. Also compares keys, error lines and the order of faults with
// docs/configuration.md.
#include "config/engine_config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <span>
#include <sstream>
#include <tuple>
#include <vector>

#include "config/config_keys.h"
#include "config/ini.h"

namespace tavistro {
namespace {

using namespace std::string_literals;

const std::string smallest_file =
    "[network]\nserver_ip = 10.0.0.7\nserver_port = 28011\nclient_id = 3\n"
    "[asio]\ndriver_name = Some Driver\n";

/// All fields in the order of the keys.
std::string fields_of(const EngineConfig& config) {
    const TavistroProtocol::ClientSettings& c = config.client;
    const AudioDeviceSettings& a = config.audio;
    return testing::PrintToString(std::make_tuple(
        c.server_ip, c.server_port, c.client_id, c.discovery_timeout_ms, c.discovery_broadcast,
        c.announce_period_ms, c.client_latency_blocks, c.driver_inputs, c.driver_outputs,
        a.driver_name, a.input_channel_map, a.output_channel_map, c.recv_buffer_bytes,
        c.send_buffer_bytes, c.udp_payload_bytes, config.loopback_device, a.loopback_drift_ppm,
        a.loopback_callback_jitter_max_ms, a.loopback_callback_skip_every,
        a.loopback_callback_skip_count, a.loopback_callback_duplicate_every,
        a.loopback_callback_duplicate_count, a.loopback_callback_stall_every_ms,
        a.loopback_callback_stall_duration_ms, a.loopback_input_silence_every_ms,
        a.loopback_input_silence_duration_ms, a.loopback_device_lost_after_ms,
        a.loopback_device_lost_duration_ms));
}

/// The sizes derived from the latency, and the target of the capture ring.
std::vector<std::uint64_t> derived_of(const EngineConfig& config) {
    return {config.client.capture_target_blocks, config.client.capture_capacity_blocks,
            config.client.input_latency_blocks,  config.client.output_latency_blocks,
            config.audio.prebuffer_blocks,       config.audio.target_queue_depth,
            config.audio.max_queue_blocks};
}

class EngineConfigTest : public ::testing::Test {
  protected:
    void TearDown() override { std::filesystem::remove(path_); }

    /// Loads the text from a file; returns the error text, empty on success.
    std::string load(const std::string& text) {
        std::ofstream(path_, std::ios::binary) << text;
        config_.client.recv_buffer_bytes = 77;
        const std::string before = fields_of(config_);
        std::string error = "must be cleared";
        const bool loaded = load_engine_config(path_, config_, error);
        EXPECT_EQ(loaded, error.empty()) << text << error;
        EXPECT_TRUE(loaded || fields_of(config_) == before) << "changed after a failure";
        return error;
    }

    std::string path_ = testing::TempDir() + "tavistro_engine_config_" +
                        testing::UnitTest::GetInstance()->current_test_info()->name() + ".ini";
    EngineConfig config_;
};

TEST_F(EngineConfigTest, EveryKeySetsItsOwnField) {
    ASSERT_EQ(load("[network]\nserver_ip=AUTO\nserver_port=1\nclient_id=5\n"
                   "discovery_timeout_ms=9\ndiscovery_broadcast=0\n[protocol]\n"
                   "announce_period_ms=8\n[latency]\nclient_latency_blocks=3\n[tavistro]\n"
                   "driver_inputs=0 ,,31,\ndriver_outputs=\n[asio]\ndriver_name=\n"
                   "input_map=4, -2\noutput_map=1,1\n[socket]\nrecv_buffer_bytes=6\n"
                   "send_buffer_bytes=7\n[transport]\nudp_payload_bytes=53\n[test]\n"
                   "loopback_device=1\nloopback_drift_ppm=-10\n"
                   "loopback_callback_jitter_max_ms=11\nloopback_callback_skip_every=12\n"
                   "loopback_callback_skip_count=13\nloopback_callback_duplicate_every=14\n"
                   "loopback_callback_duplicate_count=15\nloopback_callback_stall_every_ms=17\n"
                   "loopback_callback_stall_duration_ms=17\nloopback_input_silence_every_ms=18\n"
                   "loopback_input_silence_duration_ms=18\nloopback_device_lost_after_ms=20\n"
                   "loopback_device_lost_duration_ms=21\n"),
              "");
    EXPECT_EQ(
        fields_of(config_),
        "(\"AUTO\", 1, 5, 9, false, 8, 3, { 0, 31 }, {}, \"\", { 4, -2 }, { 1, 1 }, 6, 7, 53, "
        "true, -10, 11, 12, 13, 14, 15, 17, 17, 18, 18, 20, 21)");
    ASSERT_EQ(load(smallest_file + "[network]\ndiscovery_broadcast=7"), "");
    EXPECT_TRUE(config_.client.discovery_broadcast) << "any number but 0";
    for (const std::string word : {"TRUE", "Yes", "on"}) {
        ASSERT_EQ(load(smallest_file + "[test]\nloopback_device=" + word), "");
        EXPECT_TRUE(config_.loopback_device) << word;
    }
}

TEST_F(EngineConfigTest, BufferSizesFollowTheLatency) {
    EXPECT_EQ(derived_of({}), (std::vector<std::uint64_t>{2, 12, 6, 6, 6, 6, 10}));
    const std::pair<const char*, std::vector<std::uint64_t>> cases[] = {
        {"1", {2, 8, 1, 1, 1, 1, 6}}, {"128", {2, 134, 128, 128, 128, 128, 132}}};
    for (const auto& [latency, sizes] : cases) {
        ASSERT_EQ(load(smallest_file + "[latency]\nclient_latency_blocks=" + latency), "");
        EXPECT_EQ(derived_of(config_), sizes);
    }
}

TEST_F(EngineConfigTest, LoopbackFaultsRequireTheLoopbackDevice) {
    for (const ConfigKey& key : config_keys()) {
        if (key.section != "test" || key.key == "loopback_device") continue;
        EXPECT_EQ(load(smallest_file + "[test]\n" + std::string(key.key) + "=1"),
                  "loopback fault injection requires [test] loopback_device=1");
    }
}

TEST_F(EngineConfigTest, MissingFileAndDirectoryCannotBeOpened) {
    for (const std::string& path : {path_, testing::TempDir()}) {
        std::string error;
        EXPECT_FALSE(load_engine_config(path, config_, error));
        EXPECT_EQ(error, "Cannot open config file: " + path);
    }
}

TEST_F(EngineConfigTest, ReportsTheFirstMalformedLine) {
    const std::pair<std::string, std::string> cases[] = {
        {"a=1\n\n; c\n\n[]\n", "Invalid section header at line 5"},
        {"a=1\n[network] ; x\n", "Invalid section header at line 2"},
        {"a=1\r\n  justtext\r\n[", "Expected key=value at line 2"},
        {"a=1\n[b]\n\xEF\xBB\xBF[network]\n", "Expected key=value at line 3"},
    };
    for (const auto& [text, error] : cases)
        EXPECT_EQ(load(text), error);
}

TEST(ParseIni, StoresTrimmedLowerCaseNamesAndValuesWithoutComments) {
    std::istringstream file(
        "early = above every header\n"
        "; note = 1\r\n\t\v\f \r\n"
        "[ Network ]\r\n"
        "Server_Port = 28010 ; default\r\n"
        "a = first\n"
        "b = x=y # z\n"
        "QUOTED = \"p;Q\" ; c\n"
        "open = \"p;q # r\n"
        "[NETWORK]\n"
        "A = 2\xC3\x84\n"
        "last = ; nothing");
    IniSections sections;
    std::string error;
    EXPECT_TRUE(parse_ini(file, sections, error)) << error;
    const IniSections expected = {{"", {{"early", "above every header"}}},
                                  {"network",
                                   {{"a", "2\xC3\x84"},
                                    {"b", "x=y"},
                                    {"last", ""},
                                    {"open", "\"p;q # r"},
                                    {"quoted", "\"p;Q\""},
                                    {"server_port", "28010"}}}};
    EXPECT_EQ(sections, expected);
}

/// The parsed number, or nothing; expects that a failure leaves the value unchanged.
template <typename Value>
std::optional<Value> parsed(bool (*parse)(std::string_view, Value&), std::string_view text) {
    Value value = 77;
    if (parse(text, value)) return value;
    EXPECT_EQ(value, Value{77}) << text;
    return {};
}

TEST(Numbers, PrefixesAndRangesAreTheSameOnEverySystem) {
    const std::pair<const char*, std::int32_t> good[] = {
        {"0x10", 16}, {"-0X1f", -31}, {"010", 8}, {" +7\t", 7}, {"-2147483648", INT32_MIN}};
    for (const auto& [text, value] : good)
        EXPECT_EQ(parsed(parse_int, text), value) << text;
    for (const std::string& text :
         {"2147483648"s, "-2147483649"s, ""s, " "s, "+"s, "-"s, "+-1"s, "- 1"s, "08"s, "0x"s,
          "0xg"s, "0x-1"s, "12ms"s, "1 2"s, "1.0"s, "1\0"s, "\"1\""s, "abc"s, "0b1"s})
        EXPECT_FALSE(parsed(parse_int, text)) << text;
    EXPECT_EQ(parsed(parse_u32, "4294967295"), 4294967295U);
    EXPECT_EQ(parsed(parse_u32, "-4294967295"), 1U);
    EXPECT_FALSE(parsed(parse_u32, "4294967296"));
    EXPECT_FALSE(parsed(parse_u16, "65536"));
    EXPECT_EQ(parsed(parse_size, "18446744073709551615"), UINT64_MAX);
}

using Cells = std::vector<std::string>;

/// Rows of the document's tables by section heading, without table headers.
std::map<std::string, std::vector<Cells>> tables_of_document() {
    std::map<std::string, std::vector<Cells>> tables;
    std::ifstream file(TAVISTRO_DOCS "/configuration.md");
    std::string heading;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("## ")) heading = line.substr(3);
        if (!line.starts_with("| `")) continue;
        std::istringstream rest(line.substr(1));
        Cells cells;
        for (std::string cell; std::getline(rest, cell, '|');)
            cells.emplace_back(trim(cell));
        tables[heading].push_back(cells);
    }
    return tables;
}

/// The texts between pairs of backquotes.
Cells code_of(const std::string& cell) {
    Cells codes;
    std::istringstream rest(cell);
    for (std::string text; std::getline(rest, text, '`') && std::getline(rest, text, '`');)
        codes.push_back(text);
    return codes;
}

using Settings = std::map<std::string, std::string>;  // "[section] key" to value

constexpr const char* absent = "(absent)";
constexpr const char* loopback = "[test] loopback_device";

/// The error for a file with these settings and the required keys.
std::string error_of(Settings settings) {
    settings.merge(Settings{{"[network] server_ip", "auto"},
                            {"[network] server_port", "1"},
                            {"[network] client_id", "1"},
                            {"[asio] driver_name", "a"}});
    std::string file;
    for (const auto& [name, value] : settings) {
        if (value == absent) continue;
        const std::size_t end = name.find(']') + 1;
        file.append(name, 0, end).append("\n").append(name, end).append("=").append(value) += '\n';
    }
    std::istringstream text(file);
    EngineConfig config;
    std::string error;
    read_engine_config(text, config, error);
    return error;
}

std::string name_of(const ConfigKey& key) {
    return std::string("[").append(key.section).append("] ").append(key.key);
}

TEST(ConfigurationDocument, ListsTypeDefaultAndRangeOfExactlyTheKnownKeys) {
    std::map<std::string, Cells> rows;
    for (const auto& [heading, table] : tables_of_document()) {
        if (!heading.starts_with('[')) continue;
        for (const Cells& row : table)
            rows[heading + ' ' + code_of(row[0]).front()] = row;
    }
    EXPECT_EQ(rows.size(), config_keys().size());
    const std::vector<ConfigKey> keys(config_keys().rbegin(), config_keys().rend());
    Settings settings;
    for (const ConfigKey& key : keys) {
        const std::string name = name_of(key);
        const Cells& row = rows[name];
        ASSERT_EQ(row.size(), 5U) << name;
        EngineConfig config;
        std::string missing;
        const bool required = !read_key(key, {}, config, missing);
        EXPECT_EQ(row[2], required ? "required" : value_text(key, {})) << name;
        EXPECT_EQ(row[3], key.allowed.empty() ? "any" : key.allowed) << name;
        if (row[1] == "text") continue;

        // All later keys are invalid as well.
        const bool is_list = row[1] == "integer list";
        settings[name] = "x y";
        EXPECT_EQ(error_of(settings),
                  is_list ? "Invalid integer list for " + name + ": Invalid integer list item: x y"
                          : "Invalid " + row[1] + " value for " + name);
        // An invalid size is found before the keys that are read later.
        if (key.key == "udp_payload_bytes") settings[name] = "51";
        EXPECT_TRUE(error_of(settings).ends_with(name) || is_list) << error_of(settings);
    }
}

TEST(ConfigurationDocument, RangeLimitsAreInclusive) {
    int ranges = 0;
    for (const ConfigKey& key : config_keys()) {
        std::smatch range;
        const std::string allowed(key.allowed);
        if (!std::regex_search(allowed, range, std::regex(R"((-?\d+)\.\.(\d+))"))) continue;
        ++ranges;
        Settings settings;
        // A count or duration needs its "every" or "after" key.
        for (const ConfigKey& other : config_keys())
            if (key.section == "test" &&
                std::regex_search(name_of(other), std::regex("_every|_after")))
                settings[name_of(other)] = "100000";
        if (key.section == "test") settings[loopback] = "1";
        const long long first = std::stoll(range[1]), last = std::stoll(range[2]);
        for (const long long value : {first - 1, first, last, last + 1}) {
            settings[name_of(key)] = std::to_string(value);
            EXPECT_EQ(error_of(settings).empty(), first <= value && value <= last)
                << key.key << " = " << value << ": " << error_of(settings);
        }
    }
    EXPECT_EQ(ranges, 15);
}

/// The example settings in a row of the error lines.
Settings settings_of(const Cells& row) {
    Settings settings;
    for (const std::string& given : code_of(row[1])) {
        const std::size_t equals = given.find('=');
        settings[std::string(trim(given.substr(0, equals)))] =
            equals == std::string::npos ? absent : given.substr(equals + 1);
    }
    return settings;
}

TEST(ConfigurationDocument, ExamplesGiveTheListedErrorsInTheListedOrder) {
    const std::vector<Cells> rows = tables_of_document()["Error lines"];
    for (auto row = rows.begin(); row != rows.end(); ++row) {
        const std::string error = code_of((*row)[0]).front();
        const Settings settings = settings_of(*row);
        EXPECT_EQ(error_of(settings), error) << (*row)[1];
        for (const Cells& later : std::span(row + 1, rows.end())) {
            Settings both = settings, common = settings_of(later);
            // Other rules apply to the other device.
            if (both.contains(loopback) != common.contains(loopback)) continue;
            both.merge(common);
            const bool contradict = !std::ranges::includes(both, common);
            EXPECT_TRUE(contradict || error_of(both) == error) << (*row)[1] << ", " << later[1];
        }
    }
}

}  // namespace
}  // namespace tavistro
