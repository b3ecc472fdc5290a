include(HostHeaders)
tavistro_host_headers(CLI11::CLI11 CLI CLI.hpp)
