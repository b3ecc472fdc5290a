// Exports the ALSA drivers from a shared object for the driver folder.

#include <exception>
#include <vector>

#include "drivers/alsa/alsa_driver.h"
#include "drivers/alsa/cards.h"

namespace {

// Of the thread: another one may list the drivers at the same time.
thread_local std::vector<tavistro::alsa::DriverEntry> drivers;

}  // namespace

extern "C" {

[[gnu::visibility("default")]] const char* tavistro_driver_class_id(unsigned number) try {
    if (number == 0) drivers = tavistro::alsa::list_drivers(tavistro::alsa::read_cards());
    return number < drivers.size() ? drivers[number].class_id_text.c_str() : nullptr;
} catch (const std::exception&) {
    return nullptr;
}

[[gnu::visibility("default")]] const char* tavistro_driver_name(unsigned number) {
    return number < drivers.size() ? drivers[number].name.c_str() : nullptr;
}

[[gnu::visibility("default")]] void* tavistro_driver_create(unsigned number) {
    return number < drivers.size() ? tavistro::alsa::create_alsa_driver(drivers[number]) : nullptr;
}

}  // extern "C"
