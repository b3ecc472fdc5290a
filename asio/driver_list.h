// The installed ASIO drivers by number and by name, and the one that is loaded.
//
//     AsioDrivers drivers;
//     if (drivers.loadDriver("Some Driver")) use(theAsioDriver);
//     drivers.unloadCurrentDriver();
//
// An object is made, used and destroyed on one thread, which owns the drivers that it loads.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "asio/driver_abi.h"
#include "platform/driver_registry.h"

namespace tavistro {

// Results of the operations on entries; a system's code for a failed creation is passed on as is.
inline constexpr std::int32_t kAsioListOk = 0;
inline constexpr std::int32_t kAsioListBadArgument = -5001;
inline constexpr std::int32_t kAsioListAlreadyOpen = -5002;
inline constexpr std::int32_t kAsioListNoSuchDriver = -5003;

/// Room for a driver's name and its NUL where it is compared or shown.
inline constexpr std::size_t driver_name_bytes = 32;

/// The loaded driver, null when none is: one at a time in a process. Holds no reference.
inline AsioDriver* theAsioDriver = nullptr;

/// One installed driver. Its number is its place in the list.
struct AsioDriverEntry {
    platform::ClassId clsid{};     ///< all zero when the registered text was no class identifier
    std::string name;              ///< description, else key name; at most 127 bytes
    AsioDriver* driver = nullptr;  ///< one reference while open, else null
};

class AsioDrivers {
  public:
    /// Lists what is registered completely, numbered from 0 in the register's order, and prepares
    /// the calling thread for driver objects when there is anything. Later registrations are not
    /// seen. Throws what the register throws and std::bad_alloc.
    AsioDrivers();
    AsioDrivers(const AsioDrivers&) = delete;
    AsioDrivers& operator=(const AsioDrivers&) = delete;
    /// Releases every open driver, on the thread that made the list.
    ~AsioDrivers();

    std::int32_t driverCount() const noexcept { return static_cast<std::int32_t>(entries_.size()); }

    /// Copies a driver's name and a NUL. A name that does not fit is cut and ends with "...", so
    /// that it fills the buffer. kAsioListBadArgument for a null buffer or one below 4 bytes.
    std::int32_t driverNameAt(std::int32_t id, std::span<char> buffer) const noexcept;

    /// Makes the driver's object. An entry that is open is left as it is.
    std::int32_t openDriverAt(std::int32_t id, AsioDriver** driver) noexcept;
    /// Releases the driver's object if there is one. Always kAsioListOk.
    std::int32_t closeDriverAt(std::int32_t id) noexcept;

    /// Name of the loaded driver; false and an empty text when there is none.
    bool currentDriverName(std::span<char, driver_name_bytes> buffer) const noexcept;

    /// Replaces the loaded driver by the first of that name, letter case included, and sets
    /// theAsioDriver. Names of 32 bytes or more go by their first 28 and "...". False when there is
    /// no such driver or it cannot be made; then the driver that was loaded before, if it has
    /// another name, is loaded again.
    bool loadDriver(const char* name) noexcept;
    /// Releases the loaded driver, if any, and clears theAsioDriver.
    void unloadCurrentDriver() noexcept;

  private:
    AsioDriverEntry* find(std::int32_t id) noexcept;
    const AsioDriverEntry* find(std::int32_t id) const noexcept;
    std::int32_t find_named(std::string_view name) const noexcept;

    std::vector<AsioDriverEntry> entries_;
    std::int32_t currentIndex_ = -1;  ///< number of the loaded driver, -1 for none
};

}  // namespace tavistro
