// Exports the JACK driver from a shared object for the driver folder.

#include "drivers/jack/jack_driver.h"

extern "C" {

[[gnu::visibility("default")]] const char* tavistro_driver_class_id(unsigned number) {
    return number == 0 ? tavistro::jack::class_id_text : nullptr;
}

[[gnu::visibility("default")]] const char* tavistro_driver_name(unsigned) {
    return tavistro::jack::driver_name;
}

[[gnu::visibility("default")]] void* tavistro_driver_create(unsigned) {
    return tavistro::jack::create_jack_driver();
}

}  // extern "C"
