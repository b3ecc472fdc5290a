#include "tools/http/metrics_text.h"

#include <fmt/format.h>

namespace tavistro::http {

void MetricsText::family(std::string_view name, std::string_view type, std::string_view help) {
    name_ = name;
    text_ += fmt::format("# HELP {0} {2}\n# TYPE {0} {1}\n", name, type, help);
}

void MetricsText::value(std::string_view labels, double number, std::string_view ending) {
    text_ += name_;
    text_ += ending;
    if (!labels.empty()) text_ += fmt::format("{{{}}}", labels);
    text_ += fmt::format(" {}\n", number);
}

void MetricsText::histogram(std::string_view labels, std::span<const double> bounds,
                            std::span<const std::uint32_t> counts) {
    double sum = 0;
    double below = 0;
    double lower = 0;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const bool is_open = i == bounds.size();
        const double upper = is_open ? lower : bounds[i];
        sum += counts[i] * (lower + upper) / 2;
        below += counts[i];
        value(fmt::format("{},le=\"{}\"", labels, is_open ? "+Inf" : fmt::to_string(upper)), below,
              "_bucket");
        lower = upper;
    }
    value(labels, sum, "_sum");
    value(labels, below, "_count");
}

void MetricsText::build_info(std::string_view name, std::string_view version) {
    family(name, "gauge", "1; the label has the version of the program");
    value(fmt::format("version=\"{}\"", version), 1);
}

}  // namespace tavistro::http
