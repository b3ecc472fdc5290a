// docs/configuration.md against the loader: what it says of every key and every error line.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
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

std::string error_of(const Settings& settings) {
    std::string file;
    for (const auto& [name, value] : settings) {
        const std::size_t end = name.find(']') + 1;
        file.append(name, 0, end).append("\n").append(name, end).append("=").append(value) += '\n';
    }
    std::istringstream text(file);
    EngineConfig config;
    std::string error;
    read_engine_config(text, config, error);
    return error;
}

const Settings smallest = {{"[network] server_ip", "auto"},
                           {"[network] server_port", "1"},
                           {"[network] client_id", "1"},
                           {"[asio] driver_name", "a"}};

TEST(ConfigurationDocument, TellsTypeDefaultAndRangeOfEveryKeyAndOfNoOther) {
    const auto tables = tables_of_document();
    std::map<std::string, Cells> rows;
    for (const auto& [heading, table] : tables) {
        if (!heading.starts_with('[')) continue;
        for (const Cells& row : table)
            rows[heading + ' ' + code_of(row[0]).front()] = row;
    }
    EXPECT_EQ(rows.size(), config_keys().size());
    for (const ConfigKey& key : config_keys()) {
        std::ostringstream name;
        name << '[' << key.section << "] " << key.key;
        const Cells& row = rows[name.str()];
        ASSERT_EQ(row.size(), 5U) << name.str();
        EXPECT_EQ(row[2], key.required ? "required" : value_text(key, {})) << name.str();
        EXPECT_EQ(row[3], key.allowed.empty() ? "any" : key.allowed) << name.str();
        EXPECT_NE(row[4], "") << name.str();

        const bool is_list = row[1] == "integer list";
        std::ostringstream error;
        error << "Invalid " << row[1] << (is_list ? "" : " value") << " for " << name.str()
              << (is_list ? ": Invalid integer list item: x y" : "");
        Settings settings = smallest;
        settings[name.str()] = "x y";
        EXPECT_EQ(error_of(settings), row[1] == "text" ? "" : error.str());
    }
}

TEST(ConfigurationDocument, ExamplesOfErrorLinesGiveThem) {
    const auto tables = tables_of_document();
    const std::vector<Cells>& table = tables.at("Error lines");
    for (const Cells& row : table) {
        Settings settings = smallest;
        for (const std::string& given : code_of(row[1])) {
            const std::size_t equals = given.find('=');
            if (equals == std::string::npos) {
                EXPECT_EQ(settings.erase(given), 1U) << given;
            } else {
                settings[std::string(trim(given.substr(0, equals)))] = given.substr(equals + 1);
            }
        }
        EXPECT_EQ(error_of(settings), code_of(row[0]).front()) << row[1];
    }
    for (const ConfigKey& key : config_keys()) {
        if (key.allowed.empty() || key.kind == ValueKind::flag_number) continue;
        EXPECT_TRUE(std::ranges::any_of(
            table, [&](const Cells& row) { return row[0].find(key.key) != std::string::npos; }))
            << "no error line about " << key.key;
    }
}

}  // namespace
}  // namespace tavistro
