// Replaces the system's driver registry with a list that the test fills. Objects are test drivers.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "drivers/test/test_driver.h"
#include "platform/driver_registry.h"

namespace tavistro::test {

struct Installed {
    std::string key_name;
    char class_digit;  ///< of its class identifier; 'x' makes it invalid
    std::optional<std::string> description = {};
    bool has_server = true;
    AsioDriver* object = nullptr;  ///< null while there is none

    std::string class_id() const {
        return std::string("{").append(8, class_digit).append("-0000-0000-0000-000000000000}");
    }
};

std::vector<Installed> installed_drivers;
std::vector<platform::UnlistedDriver> unlisted_drivers;
int apartments_entered = 0;  ///< and not yet left
constexpr std::int32_t not_registered = -2147221164;

}  // namespace tavistro::test

namespace tavistro::platform {

using test::Installed;
using test::installed_drivers;

std::vector<RegisteredDriver> registered_drivers() {
    std::vector<RegisteredDriver> drivers;
    drivers.reserve(installed_drivers.size());
    for (const Installed& driver : installed_drivers)
        drivers.push_back({driver.key_name, driver.class_id(), driver.description});
    return drivers;
}

std::vector<UnlistedDriver> unlisted_drivers() {
    return test::unlisted_drivers;
}

std::string driver_place() {
    return "test";
}

std::optional<std::string> class_server_path(const std::string& class_id_text) {
    const auto found = std::ranges::find(installed_drivers, class_id_text, &Installed::class_id);
    return found->has_server ? std::optional<std::string>("server file") : std::nullopt;
}

void enter_driver_apartment() noexcept {
    ++test::apartments_entered;
}

void leave_driver_apartment() noexcept {
    --test::apartments_entered;
}

void* driver_parent_window() noexcept {
    return nullptr;
}

std::int32_t create_driver_object(const ClassId& class_id, void** object) noexcept {
    for (Installed& driver : installed_drivers) {
        if (parse_class_id(driver.class_id()) != class_id) continue;
        *object = driver.object = test::create_test_driver();
        return 0;
    }
    return test::not_registered;
}

void release_driver_object(void* object) noexcept {
    std::ranges::find(installed_drivers, object, &Installed::object)->object = nullptr;
    static_cast<AsioDriver*>(object)->Release();
}

}  // namespace tavistro::platform
