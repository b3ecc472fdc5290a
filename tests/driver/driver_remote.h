// The test driver from a test's side: loaded from the driver folder beside the test program, where
// the engine finds it too, registered, and at its defaults.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "drivers/test/test_driver_control.h"

namespace tavistro::test {

/// The module's controls; null when it cannot be loaded. It stays loaded, and so keeps what it was
/// told between two runs of an engine.
const tavistro_test_driver_controls* load_test_driver();

/// Makes the driver behave for as long as one test lives. Throws when there is no driver, and for a
/// name or value that it does not know: a test without it has no meaning.
class DriverRemote {
  public:
    DriverRemote() { controls_.restore(); }
    DriverRemote(const DriverRemote&) = delete;
    DriverRemote& operator=(const DriverRemote&) = delete;
    ~DriverRemote() { controls_.restore(); }

    void set(const std::string& option, const std::string& value) {
        require(controls_.set(option.c_str(), value.c_str()) != 0, option + " = " + value);
    }
    void fire(const std::string& command) {
        require(controls_.fire(command.c_str()) != 0, command);
    }
    std::int64_t count(const std::string& counter) const {
        const std::int64_t value = controls_.count(counter.c_str());
        require(value >= 0, counter);
        return value;
    }

  private:
    static void require(bool known, const std::string& what) {
        if (!known) throw std::invalid_argument("the test driver does not know " + what);
    }
    static const tavistro_test_driver_controls& loaded() {
        static const auto* const controls = load_test_driver();
        if (controls == nullptr) throw std::runtime_error("the test driver cannot be loaded");
        return *controls;
    }

    const tavistro_test_driver_controls& controls_ = loaded();
};

}  // namespace tavistro::test
