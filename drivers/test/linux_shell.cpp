// Exports the test driver from a shared object for the driver folder.

#include "drivers/test/driver_control.h"
#include "drivers/test/test_driver.h"

extern "C" {

[[gnu::visibility("default")]] const char* tavistro_driver_class_id() {
    return tavistro::test::driver_class_id_text;
}

[[gnu::visibility("default")]] const char* tavistro_driver_description() {
    return tavistro::test::driver_name;
}

[[gnu::visibility("default")]] void* tavistro_driver_create() {
    return tavistro::test::create_test_driver();
}

[[gnu::visibility("default")]] const tavistro_test_driver_controls* tavistro_test_driver_control() {
    return tavistro::test::driver_controls();
}

}  // extern "C"
