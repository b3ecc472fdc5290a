// Suggestions for misspelt words.
#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavistro {

/// Insertions, deletions and replacements that turn one text into the other.
inline std::size_t edit_distance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// The candidate that `word` is probably a misspelling of, the first of equally near ones; empty
/// when none is near.
template <typename Candidates>
std::string nearest_word(std::string_view word, const Candidates& candidates) {
    constexpr std::size_t most_typing_errors = 3;
    std::size_t least = std::min(most_typing_errors, word.size() / 2) + 1;
    std::string nearest;
    for (const std::string_view candidate : candidates) {
        const std::size_t distance = edit_distance(word, candidate);
        if (distance >= least) continue;
        least = distance;
        nearest = candidate;
    }
    return nearest;
}

/// The option or subcommand that `word` probably means, among those that the app knows at this
/// point of its command line; empty when none is near. Of "--option=value" only the option counts.
inline std::string nearest_name(const CLI::App& app, std::string_view word) {
    std::vector<std::string> names;
    const auto add_options = [&](const CLI::App& of) {
        for (const CLI::Option* const option : of.get_options())
            for (const std::string& name : option->get_lnames())
                names.push_back("--" + name);
    };
    add_options(app);
    for (const CLI::App* const command : app.get_subcommands({}))
        names.push_back(command->get_name());
    for (const CLI::App* const command : app.get_subcommands())
        add_options(*command);
    return nearest_word(word.substr(0, word.find('=')), names);
}

/// What is wrong with arguments that could not be parsed: a misspelt option or subcommand if there
/// is one, as it causes other errors too; else the error's own words. `suspects` are words that an
/// argument has taken, where a subcommand may be meant.
inline std::string fault_text(const CLI::App& app, const CLI::ParseError& error,
                              std::vector<std::string> suspects = {}) {
    std::ranges::copy(app.remaining(true), std::back_inserter(suspects));
    for (const std::string& word : suspects) {
        const std::string name = nearest_name(app, word);
        if (!name.empty()) return fmt::format("unknown '{}'; did you mean '{}'?", word, name);
    }
    return error.what();
}

}  // namespace tavistro
