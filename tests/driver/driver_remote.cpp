#include "driver/driver_remote.h"

#include <stdexcept>

namespace tavistro::test {
namespace {

const tavistro_test_driver_controls& loaded_controls() {
    static const auto* controls = load_test_driver();
    if (controls == nullptr) throw std::runtime_error("the test driver cannot be loaded");
    return *controls;
}

void require(bool known, const std::string& what) {
    if (!known) throw std::invalid_argument("the test driver does not know " + what);
}

}  // namespace

DriverRemote::DriverRemote() : controls_(loaded_controls()) {
    controls_.restore();
}

void DriverRemote::set(const std::string& option, const std::string& value) {
    require(controls_.set(option.c_str(), value.c_str()) != 0, option + " = " + value);
}

void DriverRemote::fire(const std::string& command) {
    require(controls_.fire(command.c_str()) != 0, command);
}

std::int64_t DriverRemote::count(const std::string& counter) const {
    const std::int64_t value = controls_.count(counter.c_str());
    require(value >= 0, counter);
    return value;
}

}  // namespace tavistro::test
