// A key of the registry, opened for reading.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace tavistro::platform {

class RegistryKey {
  public:
    /// `path` below `parent`; letter case does not matter. Nothing is open when there is no such
    /// key, and then no operation finds anything.
    RegistryKey(HKEY parent, const std::string& path) noexcept;
    RegistryKey(const RegistryKey& parent, const std::string& path) noexcept
        : RegistryKey(parent.key_, path) {}
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;
    ~RegistryKey();

    /// Name of the subkey number `index`, nothing beyond the last or when it has 128 bytes or more.
    std::optional<std::string> subkey_name(DWORD index) const;
    /// A text value, the key's default value when `name` is null. Nothing when it is not there, no
    /// text, or longer than `most_bytes` with its final zero.
    std::optional<std::string> text(const char* name, DWORD most_bytes) const;

  private:
    HKEY key_ = nullptr;
};

}  // namespace tavistro::platform
