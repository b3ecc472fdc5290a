// The installed ASIO drivers by number and by name, and the loaded driver.
//
//     AsioDrivers drivers;
//     if (drivers.loadDriver("Some Driver")) use(theAsioDriver);
//     drivers.unloadCurrentDriver();
//
// One thread creates, uses and destroys the list; it owns the drivers that the list loads.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "asio/driver_abi.h"
#include "platform/driver_registry.h"

namespace tavistro {

// Results of the operations on entries. The system's error code for a failed creation is passed on.
inline constexpr std::int32_t kAsioListOk = 0;
inline constexpr std::int32_t kAsioListBadArgument = -5001;
inline constexpr std::int32_t kAsioListAlreadyOpen = -5002;
inline constexpr std::int32_t kAsioListNoSuchDriver = -5003;

/// Buffer size for a driver's name with its NUL, for comparison and display.
inline constexpr std::size_t driver_name_bytes = 32;

/// The loaded driver of the process, null if none. Not an owning reference.
inline AsioDriver* theAsioDriver = nullptr;

/// An installed driver. Its number is its index in the list.
struct AsioDriverEntry {
    platform::ClassId clsid{};     ///< all zero if the registered text is not a class identifier
    std::string name;              ///< description, or the key name without one; max. 127 bytes
    AsioDriver* driver = nullptr;  ///< owning reference while open, else null
};

class AsioDrivers {
  public:
    /// Lists the completely registered drivers, numbered from 0 in the order of the registry. If
    /// there is any, prepares the calling thread for driver objects. Does not see later
    /// registrations. Throws the exceptions of the driver registry and std::bad_alloc.
    AsioDrivers();
    AsioDrivers(const AsioDrivers&) = delete;
    AsioDrivers& operator=(const AsioDrivers&) = delete;
    /// Releases all open drivers. On the thread that created the list.
    ~AsioDrivers();

    std::int32_t driverCount() const noexcept { return static_cast<std::int32_t>(entries_.size()); }

    /// Copies a driver's name and a NUL. A name that is too long is cut to the buffer's size and
    /// ends with "...". kAsioListBadArgument for a null buffer or one of less than 4 bytes.
    std::int32_t driverNameAt(std::int32_t id, std::span<char> buffer) const noexcept;

    /// Creates the driver object. An open entry is unchanged.
    std::int32_t openDriverAt(std::int32_t id, AsioDriver** driver) noexcept;
    /// Releases the driver object, if any. Always returns kAsioListOk.
    std::int32_t closeDriverAt(std::int32_t id) noexcept;

    /// Copies the loaded driver's name; returns false and an empty text if none is loaded.
    bool currentDriverName(std::span<char, driver_name_bytes> buffer) const noexcept;

    /// Replaces the loaded driver with the first of that name, case-sensitive, and sets
    /// theAsioDriver. Names of 32 bytes or more are compared as their first 28 bytes and "...".
    /// Returns false if there is no such driver or it cannot be created; the previously loaded
    /// driver, if it has another name, is then loaded again.
    bool loadDriver(const char* name) noexcept;
    /// Releases the loaded driver, if any, and clears theAsioDriver.
    void unloadCurrentDriver() noexcept;

  private:
    AsioDriverEntry* find(std::int32_t id) noexcept;
    const AsioDriverEntry* find(std::int32_t id) const noexcept;
    std::int32_t find_named(std::string_view name) const noexcept;

    std::vector<AsioDriverEntry> entries_;
    std::int32_t currentIndex_ = -1;  ///< number of the loaded driver, -1 if none
};

}  // namespace tavistro
