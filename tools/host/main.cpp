// tavistro-host: a console host for the engine.
#include <exception>
#include <iostream>

#include "tools/host/commands.h"

int main(int argc, char** argv) {
    try {
        return tavistro::host::run_host_program(argc, argv, std::cout, std::cerr);
    } catch (const std::exception& error) {
        std::cerr << "tavistro-host: " << error.what() << '\n';
        return 1;
    }
}
