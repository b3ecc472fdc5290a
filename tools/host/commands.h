// tavistro-host as a function, and its subcommands. With `json` each writes one object per line to
// `out`.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

#include "asio/buffer_size.h"

namespace tavistro::host {

class StartAdvice;

/// Exit code for arguments, and for a configuration to run, that cannot be used.
inline constexpr int wrong_arguments = 2;

/// Does what the arguments ask for. Returns the exit code: that of the subcommand, 2 for wrong
/// arguments. On the main thread: `run` takes signals.
int run_host_program(int argc, const char* const* argv, std::ostream& out, std::ostream& errors);

/// What the engine would make of a configuration file. Lists the effective settings, defaults and
/// derived sizes included, on `out` and returns 0; or writes the one line of text that says what is
/// wrong to `errors` and returns 1. Either way warnings of what the engine ignores or misreads come
/// last on `errors`: often they name the cause.
int check_config(const std::string& path, std::ostream& out, std::ostream& errors);

/// Which ASIO drivers there are. Loads one after the other, asks it and lists it; nothing is
/// started. The list for people has each name before its driver is loaded: should one end the
/// process, the last name is its own. Returns the exit code: 0 when drivers were listed, also such
/// that failed, 1 when none is registered (said on `errors`).
int list_devices(bool json, std::ostream& out, std::ostream& errors);

/// "32..2048 frames, preferred 128, doubling".
std::string buffer_size_text(const BufferSizeRange& sizes);

struct ServersOptions {
    std::uint32_t timeout_ms = 1000;            ///< how long answers are waited for
    std::optional<std::uint32_t> address = {};  ///< asked alone; else this host and the network
    std::uint16_t port = 28010;
    bool broadcast = true;  ///< without it this host alone
};

/// Which servers can be reached from here. Asks as the engine does when it starts, waits for the
/// whole time-out or a signal, and lists every server that answered. Returns the exit code: 0 when
/// any did, 1 when none (then `errors` says who was asked) or when the network cannot be used.
int list_servers(const ServersOptions& options, bool json, std::ostream& out, std::ostream& errors);

struct RunOptions {
    std::optional<double> seconds = {};  ///< how long; else until a signal
    double status_period_s = 1;          ///< between two status lines; 0: none
    bool json = false;
};

/// Drives the engine as any host would, through its five functions, until its time is over, an
/// interrupt or termination signal arrives, or the engine fails. Shows the run on `out`, the
/// reason of a failure on `errors`, with what `advice` adds to it. Returns the exit code: 0 after a
/// clean stop, 1 when the run was refused or failed.
int run_engine(const std::string& config_path, const RunOptions& options, const StartAdvice& advice,
               std::ostream& out, std::ostream& errors);

/// What `run` comes to with a configuration that cannot be loaded: says why, as check_config()
/// does, and shows a failed run. Returns wrong_arguments: trying again is no use.
int refuse_run(const std::string& config_path, bool json, std::ostream& out, std::ostream& errors);

}  // namespace tavistro::host
