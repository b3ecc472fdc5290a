// Exports the JACK driver from a shared object for the driver folder.

#include "drivers/jack/jack_driver.h"

extern "C" {

[[gnu::visibility("default")]] const char* tavistro_driver_class_id() {
    return tavistro::jack::class_id_text;
}

[[gnu::visibility("default")]] const char* tavistro_driver_description() {
    return tavistro::jack::driver_name;
}

[[gnu::visibility("default")]] void* tavistro_driver_create() {
    return tavistro::jack::create_jack_driver();
}

}  // extern "C"
