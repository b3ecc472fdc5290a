include(HostHeaders)
tavistro_host_headers(fmt::fmt-header-only fmt format.h)
set_target_properties(fmt::fmt-header-only PROPERTIES INTERFACE_COMPILE_DEFINITIONS FMT_HEADER_ONLY)
set(fmt_FOUND TRUE)
