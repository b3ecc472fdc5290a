// The test driver from a test's side: loaded from the driver folder beside the test program, where
// the engine finds it too, registered, and at its defaults.
#pragma once

#include <cstdint>
#include <string>

#include "tools/test_driver/test_driver_control.h"

namespace tavistro::test {

/// The module's controls; null when it cannot be loaded. It stays loaded, and so keeps what it was
/// told between two runs of an engine.
const tavistro_test_driver_controls* load_test_driver();

/// Makes the driver behave for as long as one test lives.
class DriverRemote {
  public:
    /// Throws when there is no driver: a test without it has no meaning.
    DriverRemote();
    DriverRemote(const DriverRemote&) = delete;
    DriverRemote& operator=(const DriverRemote&) = delete;
    ~DriverRemote() { controls_.restore(); }

    /// These throw for a name or value that the driver does not know.
    void set(const std::string& option, const std::string& value);
    void fire(const std::string& command);
    std::int64_t count(const std::string& counter) const;

  private:
    const tavistro_test_driver_controls& controls_;
};

}  // namespace tavistro::test
