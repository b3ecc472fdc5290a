// Exports the test driver from a shared object for the driver folder.

#include "drivers/test/driver_control.h"
#include "drivers/test/test_driver.h"

extern "C" {

[[gnu::visibility("default")]] const char* tavistro_driver_class_id(unsigned number) {
    return number == 0 ? tavistro::test::driver_class_id_text : nullptr;
}

[[gnu::visibility("default")]] const char* tavistro_driver_name(unsigned) {
    return tavistro::test::driver_name;
}

[[gnu::visibility("default")]] void* tavistro_driver_create(unsigned) {
    return tavistro::test::create_test_driver();
}

[[gnu::visibility("default")]] const tavistro_test_driver_controls* tavistro_test_driver_control() {
    return tavistro::test::driver_controls();
}

}  // extern "C"
