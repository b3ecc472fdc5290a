// The arguments of tavistro-server.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/server/server_options.h"

namespace tavistro::server {

struct CommandLine {
    ServerOptions options;
    std::uint32_t seconds = 0;      ///< run time; 0: until interrupted
    std::uint32_t status_s = 1;     ///< between two status lines; 0: none
    bool json = false;              ///< one JSON object per line instead of text
    std::string metrics_address{};  ///< [ADDR:]PORT; empty for none
};

/// The valid arguments; otherwise a message to print and an exit code.
struct ParsedArguments {
    std::optional<CommandLine> command;
    std::string message;  ///< help or version (exit code 0), or error and usage (exit code 2)
    int exit_code = 0;
};

ParsedArguments parse_arguments(int argc, const char* const* argv);

}  // namespace tavistro::server
