include(HostHeaders)
tavistro_host_headers(kissfft::headers kissfft kissfft.hh)
