#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <string>

namespace tavistro {

/// Accepts numbers in this range, which the help shows. Rejects NaN and text that is not a number.
inline CLI::Validator number_range(double lowest, double highest) {
    const std::string range = fmt::format("{}..{}", lowest, highest);
    return {[=](const std::string& text) {
                double number = 0;
                const bool is_in_range = CLI::detail::lexical_cast(text, number) &&
                                         lowest <= number && number <= highest;
                return is_in_range ? "" : fmt::format("{} is not in {}", text, range);
            },
            range};
}

}  // namespace tavistro
