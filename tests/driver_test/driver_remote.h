// Controls the test driver: loads it from the driver folder beside the test program, where the
// engine also finds it, registers it and restores its defaults.
#pragma once

#include <gtest/gtest.h>

#include "drivers/test/test_driver_control.h"

namespace tavistro::test {

/// The module's controls; null if it cannot be loaded. The module stays loaded and keeps its
/// settings between two runs of an engine.
const tavistro_test_driver_controls* load_test_driver();

/// Sets the driver's behaviour for one test.
class DriverRemote {
  public:
    DriverRemote() { controls_.restore(); }
    DriverRemote(const DriverRemote&) = delete;
    DriverRemote& operator=(const DriverRemote&) = delete;
    ~DriverRemote() { controls_.restore(); }

    void set(const char* option, const char* value) { EXPECT_TRUE(controls_.set(option, value)); }
    void fire(const char* command) { EXPECT_TRUE(controls_.fire(command)); }
    /// -1 for an unknown counter.
    auto count(const char* counter) const { return controls_.count(counter); }

  private:
    const tavistro_test_driver_controls& controls_ = *load_test_driver();
};

}  // namespace tavistro::test
