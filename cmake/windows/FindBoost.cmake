include(HostHeaders)
tavistro_host_headers(Boost::headers boost beast.hpp)
set(Boost_FOUND TRUE)
