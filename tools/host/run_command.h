// `tavistro-host run`: drives the engine as any host would, through its five functions.
#pragma once

#include <optional>
#include <string>

namespace tavistro::host {

struct RunOptions {
    std::string config_path;
    std::optional<double> seconds;  ///< stop after so long; without it only a signal stops
    bool json = false;
};

/// Runs until the time is over, an interrupt or termination signal arrives, or the engine fails.
/// Shows the run on standard output, the reason of a failure on standard error. Returns the exit
/// code: 0 after a clean stop, 1 when the run was refused or failed.
int run_engine(const RunOptions& options);

}  // namespace tavistro::host
