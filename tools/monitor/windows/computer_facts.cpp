#include "tools/monitor/computer_facts.h"

#include <windows.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

namespace tavistro::monitor {

namespace {

using readings::Json;

/// A text of HKEY_LOCAL_MACHINE; empty when there is none.
std::string registry_text(const char* key, const char* value) {
    std::array<char, 512> text{};
    auto size = static_cast<DWORD>(text.size());
    if (RegGetValueA(HKEY_LOCAL_MACHINE, key, value, RRF_RT_REG_SZ, nullptr, text.data(), &size) !=
        ERROR_SUCCESS)
        return {};
    return text.data();
}

Json registry_keys(const char* key) {
    Json names = Json::array();
    HKEY opened = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, &opened) != ERROR_SUCCESS) return names;
    std::array<char, 256> name{};
    for (DWORD i = 0;; ++i) {
        auto size = static_cast<DWORD>(name.size());
        if (RegEnumKeyExA(opened, i, name.data(), &size, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS)
            break;
        names.push_back(name.data());
    }
    RegCloseKey(opened);
    return names;
}

}  // namespace

readings::Json computer_facts() {
    const char* const version = R"(SOFTWARE\Microsoft\Windows NT\CurrentVersion)";
    const char* const processor = R"(HARDWARE\DESCRIPTION\System\CentralProcessor\0)";
    const char* const schemes = R"(SYSTEM\CurrentControlSet\Control\Power\User\PowerSchemes)";
    MEMORYSTATUSEX memory{};
    memory.dwLength = sizeof memory;
    GlobalMemoryStatusEx(&memory);
    return {{"system", registry_text(version, "ProductName")},
            {"build", registry_text(version, "CurrentBuild")},
            {"processor", registry_text(processor, "ProcessorNameString")},
            {"processors", GetActiveProcessorCount(ALL_PROCESSOR_GROUPS)},
            {"memory_bytes", memory.ullTotalPhys},
            {"power_scheme", registry_text(schemes, "ActivePowerScheme")},
            {"asio_drivers", registry_keys(R"(SOFTWARE\ASIO)")}};
}

std::string version_of(const std::string& program) {
    std::array<char, MAX_PATH> self{};
    GetModuleFileNameA(nullptr, self.data(), static_cast<DWORD>(self.size()));
    const auto path = std::filesystem::path(self.data()).parent_path() / (program + ".exe");
    std::error_code error;
    if (!std::filesystem::exists(path, error)) return {};
    // The outer quotes are taken away by the command interpreter.
    const std::string command = "\"\"" + path.string() + "\" --version\"";
    const std::unique_ptr<FILE, int (*)(FILE*)> output(_popen(command.c_str(), "r"), &_pclose);
    std::array<char, 200> line{};
    if (!output || std::fgets(line.data(), static_cast<int>(line.size()), output.get()) == nullptr)
        return {};
    const std::string text = line.data();
    return text.substr(0, text.find_first_of("\r\n"));
}

}  // namespace tavistro::monitor
