// The arguments of tavistro-server.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/server/server_options.h"

namespace tavistro::server {

struct CommandLine {
    ServerOptions options;
    std::uint32_t seconds = 0;  ///< the server ends by itself after this time; 0: never
    bool json = false;          ///< one JSON object per line instead of text
};

/// Arguments that make sense, or what to say and to exit with instead.
struct ParsedArguments {
    std::optional<CommandLine> command;
    std::string message;  ///< the help or the version (exit code 0), or the fault and the usage (2)
    int exit_code = 0;
};

ParsedArguments parse_arguments(int argc, const char* const* argv);

}  // namespace tavistro::server
