// The system's registry of ASIO drivers: lists them and creates their objects.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavistro::platform {

/// 16 bytes of a class identifier in memory order; all zero stands for "could not be read".
using ClassId = std::array<std::uint8_t, 16>;

struct RegisteredDriver {
    std::string key_name;
    std::string class_id_text;  ///< as registered, usually in braces
    std::optional<std::string> description;
};

/// A driver that is there but cannot be listed.
struct UnlistedDriver {
    std::string name;    ///< of its file or key
    std::string reason;  ///< for people; system's words where there are some
};

/// For programs that hold this code themselves and use the engine library at `file`: drivers are
/// looked for where that library looks. Nothing where they are not looked for beside files, or for
/// an empty path. Before every other use of the register.
void look_for_drivers_beside(const std::string& file);

/// Where drivers are looked for, for people: a folder or a registry key.
std::string driver_place();

/// Every registered driver that names a class: in registry order on Windows, by file name on
/// Linux. Unreadable entries are omitted.
std::vector<RegisteredDriver> registered_drivers();

/// The entries that registered_drivers() omits, or whose class is not registered completely.
std::vector<UnlistedDriver> unlisted_drivers();

/// Path of the file that serves a class (compared without regard to letter case), nothing when the
/// class is not registered completely.
std::optional<std::string> class_server_path(const std::string& class_id_text);

/// Reads "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}"; nothing for any other text.
std::optional<ClassId> parse_class_id(const std::string& text);

/// Prepares the calling thread for driver objects, and reverts that; calls are paired. Does
/// nothing on systems where drivers need no apartment.
void enter_driver_apartment() noexcept;
void leave_driver_apartment() noexcept;

/// The window handle for a driver's init(): the desktop's, null on systems without one.
void* driver_parent_window() noexcept;

/// Creates a driver object of the class, holding one reference. Returns 0 and the object, or the
/// system's error code (negative) and null.
std::int32_t create_driver_object(const ClassId& class_id, void** object) noexcept;
/// Releases that reference.
void release_driver_object(void* object) noexcept;

}  // namespace tavistro::platform
