// Samples as text for programs, and back, and as a page.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "tools/monitor/account.h"
#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// One JSON object without a line end: time_ms, client_id, presence, host_late_us, stats (null when
/// absent) with every field under its name in the block, totals with every number flat.
std::string to_json(const Sample& sample);
/// A JSON array of to_json(). Fit for the inside of an HTML script element.
std::string to_json_array(std::span<const Sample> samples);

/// A JSON object: client_id, watched_s, facts and causes as arrays, not_clear_yet. Fit for the
/// inside of an HTML script element.
std::string to_json(std::uint32_t client_id, const Account& account);
std::string to_json_array(const Accounts& accounts);

/// A JSON object: monitor_version, monitor_start_ms (since 1970), and engines, an array with
/// client_id, the newest sample and the diagnosis of each. `accounts` has one for each sample.
std::string engines_json(std::int64_t monitor_start_ms, std::span<const Sample> newest,
                         const Accounts& accounts);

/// Reads to_json() back, exactly. Throws std::runtime_error for text that is none.
Sample from_json(const std::string& line);

/// The heading and the rows of a table; a histogram takes a column for each bucket.
std::string csv_heading();
std::string csv_row(const Sample& sample);

/// The page that draws samples: live from the monitor's HTTP server, or of a recording, complete in
/// one file.
std::string live_page();
std::string report_page(std::span<const Sample> samples);

}  // namespace tavistro::monitor
