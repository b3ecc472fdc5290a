// The test driver's behaviour as set by a test, and its counters.
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

/// Options with the names in driver_control.cpp. Each is a list of numbers, most have one entry;
/// switches are 0 or 1.
class DriverOptions {
  public:
    DriverOptions();
    double value(std::string_view name) const { return all_.at(name).front(); }
    std::int32_t number(std::string_view name) const {
        return static_cast<std::int32_t>(value(name));
    }
    bool on(std::string_view name) const { return value(name) != 0; }
    /// Entry `index` of a list that repeats.
    std::int32_t entry(std::string_view name, std::int32_t index) const {
        const auto& list = all_.at(name);
        return static_cast<std::int32_t>(list[static_cast<std::size_t>(index) % list.size()]);
    }
    bool set(std::string_view name, std::string_view text);

  private:
    std::map<std::string_view, std::vector<double>> all_;
};

/// One atomic value for each of a fixed set of names.
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

/// "stall" and "vanish" persist. A running driver executes the others once, between two periods.
inline constexpr std::array<std::string_view, 8> driver_commands{
    "reset",         // requests a reset from the host
    "resync",        // reports lost sync
    "overload",      // reports a missed deadline
    "rate_changed",  // switches to the option "rate" while running and reports it
    "repeat_rate",   // reports a rate change although there is none
    "bad_index",     // calls buffer switches with the indices -1 and 2
    "stall",         // no periods until the next start
    "vanish"};       // no periods, and every call fails, until "reappear"

/// One per loaded module. Thread-safe; the functions used in periods neither lock nor allocate.
class DriverControl {
  public:
    static DriverControl& instance();

    void restore();
    /// The option "fail" lists the calls (driver_calls) that fail until it is set again.
    bool set(std::string_view name, std::string_view text);
    bool fire(std::string_view command);
    /// Number of calls by name, of "periods", of living "objects", or of bytes "overwritten" behind
    /// the ends of disposed buffers; -1 for an unknown counter.
    std::int64_t count(std::string_view counter);

    DriverOptions options() const;
    /// All calls in order except outputReady; createBuffers with its channels.
    std::string history() const;
    void note(std::string_view text);
    /// The host's callbacks; null while the driver has no buffers.
    AsioCallbacks* host() const noexcept { return host_; }
    void set_host(AsioCallbacks* callbacks) noexcept { host_ = callbacks; }
    /// Counts a call and returns its result: 0 unless it has to fail.
    std::int32_t enter(std::string_view call) noexcept;
    /// True once after each fire() of the command.
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

/// The module's DriverControl as a C function table.
const tavistro_test_driver_controls* driver_controls();

}  // namespace tavistro::test
