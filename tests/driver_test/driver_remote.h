// The test driver from a test's side: loaded from the driver folder beside the test program, where
// the engine finds it too, registered, and at its defaults.
#pragma once

#include <gtest/gtest.h>

#include "drivers/test/test_driver_control.h"

namespace tavistro::test {

/// The module's controls; null when it cannot be loaded. It stays loaded, and so keeps what it was
/// told between two runs of an engine.
const tavistro_test_driver_controls* load_test_driver();

/// Makes the driver behave for as long as one test lives.
class DriverRemote {
  public:
    DriverRemote() { controls_.restore(); }
    DriverRemote(const DriverRemote&) = delete;
    DriverRemote& operator=(const DriverRemote&) = delete;
    ~DriverRemote() { controls_.restore(); }

    void set(const char* option, const char* value) { EXPECT_TRUE(controls_.set(option, value)); }
    void fire(const char* command) { EXPECT_TRUE(controls_.fire(command)); }
    /// -1 for one that the driver does not know.
    auto count(const char* counter) const { return controls_.count(counter); }

  private:
    const tavistro_test_driver_controls& controls_ = *load_test_driver();
};

}  // namespace tavistro::test
