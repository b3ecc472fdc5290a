// docs/configuration.md against the loader: what it says of every key and every error line, and in
// which order faults are found.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <ranges>
#include <regex>
#include <sstream>
#include <vector>

#include "config/config_keys.h"
#include "config/engine_config.h"

namespace tavistro {
namespace {

using Cells = std::vector<std::string>;

/// Rows of the document's tables by the heading above, without heads and rules.
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

/// The error of a file with these settings and the required keys.
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

TEST(ConfigurationDocument, TellsTypeDefaultAndRangeOfEveryKeyAndOfNoOther) {
    std::map<std::string, Cells> rows;
    for (const auto& [heading, table] : tables_of_document()) {
        if (!heading.starts_with('[')) continue;
        for (const Cells& row : table)
            rows[heading + ' ' + code_of(row[0]).front()] = row;
    }
    EXPECT_EQ(rows.size(), config_keys().size());
    Settings settings;
    for (const ConfigKey& key : config_keys() | std::views::reverse) {
        const std::string name = name_of(key);
        const Cells& row = rows[name];
        ASSERT_EQ(row.size(), 5U) << name;
        EngineConfig config;
        std::string missing;
        const bool required = !read_key(key, {}, config, missing);
        EXPECT_EQ(row[2], required ? "required" : value_text(key, {})) << name;
        EXPECT_EQ(row[3], key.allowed.empty() ? "any" : key.allowed) << name;
        EXPECT_NE(row[4], "") << name;
        if (row[1] == "text") continue;

        // Every later key is bad as well.
        const bool is_list = row[1] == "integer list";
        settings[name] = "x y";
        EXPECT_EQ(error_of(settings),
                  is_list ? "Invalid integer list for " + name + ": Invalid integer list item: x y"
                          : "Invalid " + row[1] + " value for " + name);
        // A bad size is found before the keys that are read after it.
        if (key.key == "udp_payload_bytes") settings[name] = "51";
        EXPECT_TRUE(error_of(settings).ends_with(name) || is_list) << error_of(settings);
    }
}

TEST(ConfigurationDocument, EndsOfEveryRangeAreAllowedAndNothingBeyond) {
    int ranges = 0;
    for (const ConfigKey& key : config_keys()) {
        std::smatch range;
        const std::string allowed(key.allowed);
        if (!std::regex_search(allowed, range, std::regex(R"((-?\d+)\.\.(\d+))"))) continue;
        ++ranges;
        Settings settings;
        // A count or a duration needs the time or number of its repetition.
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

/// What a row of the error lines is given by.
Settings settings_of(const Cells& row) {
    Settings settings;
    for (const std::string& given : code_of(row[1])) {
        const std::size_t equals = given.find('=');
        settings[std::string(trim(given.substr(0, equals)))] =
            equals == std::string::npos ? absent : given.substr(equals + 1);
    }
    return settings;
}

TEST(ConfigurationDocument, ErrorLinesComeFromTheirExamplesAndInTheirOrder) {
    const std::vector<Cells> rows = tables_of_document()["Error lines"];
    for (auto row = rows.begin(); row != rows.end(); ++row) {
        const std::string error = code_of((*row)[0]).front();
        const Settings settings = settings_of(*row);
        EXPECT_EQ(error_of(settings), error) << (*row)[1];
        for (const Cells& later : std::ranges::subrange(row + 1, rows.end())) {
            Settings both = settings, common = settings_of(later);
            // The device in use decides which rules there are.
            if (both.contains(loopback) != common.contains(loopback)) continue;
            both.merge(common);
            const bool contradict = !std::ranges::includes(both, common);
            EXPECT_TRUE(contradict || error_of(both) == error) << (*row)[1] << ", " << later[1];
        }
    }
}

}  // namespace
}  // namespace tavistro
