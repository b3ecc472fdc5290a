#include "platform/windows/registry_key.h"

#include <array>

namespace tavistro::platform {

RegistryKey::RegistryKey(HKEY parent, const std::string& path) noexcept {
    if (parent == nullptr) return;
    if (RegOpenKeyExA(parent, path.c_str(), 0, KEY_READ, &key_) != ERROR_SUCCESS) key_ = nullptr;
}

RegistryKey::~RegistryKey() {
    if (key_ != nullptr) RegCloseKey(key_);
}

std::optional<std::string> RegistryKey::subkey_name(DWORD index) const {
    std::array<char, 128> name{};
    if (key_ == nullptr || RegEnumKeyA(key_, index, name.data(), name.size()) != ERROR_SUCCESS) {
        return {};
    }
    return name.data();
}

std::optional<std::string> RegistryKey::text(const char* name, DWORD most_bytes) const {
    if (key_ == nullptr) return {};
    std::string value(most_bytes, '\0');
    DWORD type = REG_NONE;
    DWORD bytes = most_bytes;
    if (RegQueryValueExA(key_, name, nullptr, &type, reinterpret_cast<BYTE*>(value.data()),
                         &bytes) != ERROR_SUCCESS) {
        return {};
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ) return {};
    value.resize(bytes);
    // Up to the first zero; some installers store none.
    return value.c_str();
}

}  // namespace tavistro::platform
