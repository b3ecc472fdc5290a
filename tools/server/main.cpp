#include <iostream>

#include "tools/server/server_program.h"

int main(int argc, char** argv) {
    return tavistro::server::run_server_program(argc, argv, std::cout, std::cerr);
}
