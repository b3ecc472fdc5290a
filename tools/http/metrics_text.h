// The text format of Prometheus, version 0.0.4.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tavistro::http {

/// What answers a request for it.
inline constexpr const char* metrics_content_type = "text/plain; version=0.0.4; charset=utf-8";

class MetricsText {
  public:
    /// Begins a family. `type` is "gauge", "counter" or "histogram", `help` one line.
    void family(std::string_view name, std::string_view type, std::string_view help);
    /// A value of the family begun last, whose name is followed by `ending`. `labels` are as in
    /// `client_id="3",cause="x"`, or empty.
    void value(std::string_view labels, double number, std::string_view ending = {});
    /// A histogram. `bounds` are the upper ends of the buckets but the last, which has none.
    void histogram(std::string_view labels, std::span<const double> bounds,
                   std::span<const std::uint32_t> counts);
    /// A family of one gauge, 1, with the program's version as a label.
    void build_info(std::string_view name, std::string_view version);

    const std::string& text() const { return text_; }

  private:
    std::string text_;
    std::string name_;
};

}  // namespace tavistro::http
