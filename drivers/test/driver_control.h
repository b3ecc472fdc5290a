// How the test driver behaves: what a test has told it, and what it has counted.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "asio/driver_abi.h"
#include "drivers/test/test_driver_control.h"

namespace tavistro::test {

/// Numbers under the names of driver_control.cpp's table; most are one number, 0 and 1 are
/// switches.
class DriverOptions {
  public:
    DriverOptions();
    double value(std::string_view name) const { return all_.at(name).front(); }
    std::int32_t number(std::string_view name) const {
        return static_cast<std::int32_t>(value(name));
    }
    bool on(std::string_view name) const { return value(name) != 0; }
    /// Entry `index` of a list that begins again at its end.
    std::int32_t entry(std::string_view name, std::int32_t index) const {
        const auto& list = all_.at(name);
        return static_cast<std::int32_t>(list[static_cast<std::size_t>(index) % list.size()]);
    }
    bool set(std::string_view name, std::string_view text);

  private:
    std::map<std::string_view, std::vector<double>> all_;
};

/// A fixed set of names, each with one atomic value.
template <typename Value, std::size_t count>
class NamedValues {
  public:
    constexpr explicit NamedValues(const std::array<std::string_view, count>& names)
        : names_(names) {}
    /// Null for an unknown name.
    std::atomic<Value>* find(std::string_view name) noexcept {
        for (std::size_t i = 0; i < count; ++i)
            if (names_[i] == name) return &values_[i];
        return nullptr;
    }
    void clear() noexcept {
        for (auto& value : values_)
            value = {};
    }

  private:
    const std::array<std::string_view, count>& names_;
    std::array<std::atomic<Value>, count> values_{};
};

inline constexpr std::array<std::string_view, 13> driver_calls{
    "create",        "init",           "start",         "stop",         "getChannels",
    "getBufferSize", "getSampleRate",  "setSampleRate", "getInputInfo", "getOutputInfo",
    "createBuffers", "disposeBuffers", "outputReady"};

/// The last two last; the others are done once, by a running driver between two periods.
inline constexpr std::array<std::string_view, 8> driver_commands{
    "reset",         // asks the host for a reset
    "resync",        // says that it lost sync
    "overload",      // says that it missed a deadline
    "rate_changed",  // goes over to the option "rate", live, and says so
    "repeat_rate",   // says that the rate changed although it did not
    "bad_index",     // buffer switches with the indices -1 and 2
    "stall",         // no periods until the next start
    "vanish"};       // no periods, and every call fails, until "reappear"

/// One per loaded module. Any thread; what a period needs neither locks nor allocates.
class DriverControl {
  public:
    static DriverControl& instance();

    void restore();
    /// The option "fail" is a list of calls (driver_calls) that fail until it is set again.
    bool set(std::string_view name, std::string_view text);
    bool fire(std::string_view command);
    /// Calls made under their names, "periods", "objects" alive, bytes "overwritten" behind buffers
    /// that have been disposed; -1 for anything else.
    std::int64_t count(std::string_view counter);

    DriverOptions options() const;
    /// Every call but outputReady in its order, createBuffers with its channels.
    std::string history() const;
    void note(std::string_view text);
    /// What the driver calls; null while it has no buffers.
    AsioCallbacks* host() const noexcept { return host_; }
    void set_host(AsioCallbacks* callbacks) noexcept { host_ = callbacks; }
    /// Counts a call and returns what it has to answer: 0 unless it was told to fail.
    std::int32_t enter(std::string_view call) noexcept;
    /// True once after the command.
    bool take(std::string_view command) noexcept {
        return commands_.find(command)->exchange(false);
    }
    bool silent() noexcept { return *commands_.find("stall") || *commands_.find("vanish"); }
    void begin_run() noexcept { *commands_.find("stall") = false; }
    void count_period() noexcept { ++periods_; }
    void count_object(int change) noexcept { objects_ += change; }
    void count_overwritten(std::int64_t bytes) noexcept { overwritten_ += bytes; }

  private:
    bool set_failing(std::string_view names);

    mutable std::mutex mutex_;
    DriverOptions options_;
    std::string history_;
    std::atomic<AsioCallbacks*> host_{nullptr};
    NamedValues<std::int64_t, driver_calls.size()> made_{driver_calls};
    NamedValues<bool, driver_calls.size()> failing_{driver_calls};
    NamedValues<bool, driver_commands.size()> commands_{driver_commands};
    std::atomic<std::int64_t> periods_{0};
    std::atomic<std::int64_t> objects_{0};
    std::atomic<std::int64_t> overwritten_{0};
};

/// The module's DriverControl as a table for those who load it.
const tavistro_test_driver_controls* driver_controls();

}  // namespace tavistro::test
