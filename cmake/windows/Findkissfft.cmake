include(HostHeaders)
tavistro_host_headers(kissfft::headers kissfft kissfft.hh)
set(kissfft_FOUND TRUE)
