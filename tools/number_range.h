#pragma once

#include <CLI/CLI.hpp>
#include <cmath>
#include <string>

namespace tavistro {

/// CLI::Range of real numbers that refuses NaN as well, which compares as outside of nothing.
inline CLI::Validator number_range(double lowest, double highest) {
    const CLI::Range range(lowest, highest);
    return {[range](std::string& text) {
                double number = 0;
                if (CLI::detail::lexical_cast(text, number) && std::isnan(number))
                    return std::string(text).append(" is no number");
                return range(text);
            },
            range.get_description()};
}

}  // namespace tavistro
