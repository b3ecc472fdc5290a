#include <dlfcn.h>

#include <filesystem>

#include "driver_test/driver_remote.h"

namespace tavistro::test {

const tavistro_test_driver_controls* load_test_driver() {
    const auto program = std::filesystem::canonical("/proc/self/exe");
    const auto file = program.parent_path() / TAVISTRO_DRIVER_FOLDER / "tavistro-test-driver.so";
    void* module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) return nullptr;
    const auto control = reinterpret_cast<tavistro_test_driver_control_function>(
        dlsym(module, TAVISTRO_TEST_DRIVER_CONTROL_NAME));
    return control != nullptr ? control() : nullptr;
}

}  // namespace tavistro::test
