// What the monitor is asked to do.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace tavistro::monitor {

struct Options {
    enum class Task { watch, report, explain, convert, bundle };
    enum class Format { view, json, csv, none };

    Task task = Task::watch;
    std::vector<std::uint32_t> client_ids;  ///< empty for every engine, or all of a recording
    Format format = Format::view;
    bool once = false;
    double interval_s = 1;
    std::optional<double> seconds;  ///< end after so long; without it on a signal
    std::string record_path;        ///< empty for none
    std::string http_address;       ///< empty for none
    /// Of report, convert, and of an explain that is not live.
    std::string recording_path;
    // The part of a recording that is read, in seconds since its first reading.
    double from_s = 0;
    double until_s = std::numeric_limits<double>::infinity();
    /// Of report, empty for the recording's name with .html; of bundle, empty for a name with the
    /// time.
    std::string output_path;
    // Of bundle.
    std::vector<std::string> bundled_recordings;
    std::vector<std::string> bundled_configurations;
    bool with_addresses = false;
};

/// Nothing when the process is to end with `exit_code`: help was shown on standard output, or a
/// usage line on standard error.
std::optional<Options> parse_options(int argc, const char* const* argv, int& exit_code);

}  // namespace tavistro::monitor
