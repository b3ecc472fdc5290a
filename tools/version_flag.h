#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace tavistro {

/// The project's version and the commit, as in "5.0.0 (e6f8abf)".
extern const char* const version_text;

/// `--version`, which prints the program's name and its version. CLI11 reports it by throwing a
/// CLI::Success, as it does for `--help`.
inline void add_version_flag(CLI::App& app) {
    app.set_version_flag("--version", app.get_name() + " " + version_text,
                         "Print the version and exit");
}

}  // namespace tavistro
