include(HostHeaders)
tavistro_host_headers(nlohmann_json::nlohmann_json nlohmann json.hpp)
