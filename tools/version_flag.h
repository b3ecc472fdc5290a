#pragma once

#include <CLI/CLI.hpp>

namespace tavistro {

/// `--version`, which prints the program's name and the version of the project. CLI11 reports it by
/// throwing a CLI::Success, as it does for `--help`.
inline void add_version_flag(CLI::App& app) {
    app.set_version_flag("--version", app.get_name() + " " TAVISTRO_VERSION,
                         "Print the version and exit");
}

}  // namespace tavistro
