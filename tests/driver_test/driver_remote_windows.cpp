#include <windows.h>

#include <array>
#include <filesystem>

#include "driver_test/driver_remote.h"
#include "platform/windows/library.h"

namespace tavistro::test {

const tavistro_test_driver_controls* load_test_driver() {
    std::array<wchar_t, 1024> program{};
    GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size() - 1));
    const auto file = std::filesystem::path(program.data()).parent_path() / TAVISTRO_DRIVER_FOLDER /
                      "tavistro-test-driver.dll";
    const HMODULE module = LoadLibraryW(file.c_str());
    if (module == nullptr) return nullptr;
    const auto enlist = platform::find_function<HRESULT(WINAPI*)()>(module, "DllRegisterServer");
    const auto control = platform::find_function<tavistro_test_driver_control_function>(
        module, TAVISTRO_TEST_DRIVER_CONTROL_NAME);
    if (enlist == nullptr || control == nullptr || enlist() != S_OK) return nullptr;
    return control();
}

}  // namespace tavistro::test
