// tavistro-monitor: watches running engines from outside.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>

#include "tools/monitor/tasks.h"

namespace {

std::atomic<bool> stop_requested{false};

/// The first signal asks for a clean end; a second one ends the process at once.
extern "C" void request_stop(int signal) {
    stop_requested = true;
    std::signal(signal, SIG_DFL);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace tavistro::monitor;
    try {
        int exit_code = 0;
        const auto options = parse_options(argc, argv, exit_code);
        if (!options) return exit_code;
        std::signal(SIGINT, request_stop);
        std::signal(SIGTERM, request_stop);
        switch (options->task) {
            case Options::Task::watch:
                return watch(*options, std::cout, stop_requested);
            case Options::Task::report:
                return write_report(*options, std::cout);
            case Options::Task::explain:
                return explain(*options, std::cout, stop_requested);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tavistro-monitor: %s\n", error.what());
    }
    return 1;
}
