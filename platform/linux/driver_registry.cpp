#include "platform/driver_registry.h"

#include <dlfcn.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>

// A registered driver is a shared object in TAVISTRO_DRIVER_FOLDER, below the folder of the file
// that holds this code (or of the one that its program named), and the file's stem is its key name.
// It exports three C functions:
//     const char* tavistro_driver_class_id(void)     "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}"
//     const char* tavistro_driver_description(void)  the name shown to users, or null
//     void*       tavistro_driver_create(void)       a new driver object, or null
// The object is a pointer to a table of functions in the order of the driver interface, its first
// three being query-interface, add-reference and release, and holds one reference.

namespace tavistro::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::int32_t class_not_registered = static_cast<std::int32_t>(0x80040154);
constexpr std::int32_t creation_failed = static_cast<std::int32_t>(0x80004005);

using TextFunction = const char* (*)();
using CreateFunction = void* (*)();

struct CloseLibrary {
    void operator()(void* library) const noexcept { dlclose(library); }
};
using Library = std::unique_ptr<void, CloseLibrary>;

template <typename Function>
Function find(const Library& library, const char* name) {
    return reinterpret_cast<Function>(dlsym(library.get(), name));
}

Library load(const fs::path& file) {
    return Library(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL));
}

/// Beside this file drivers are looked for, when it is set.
std::string& neighbour() {
    static std::string path;
    return path;
}

std::string own_file() {
    Dl_info info{};
    return dladdr(reinterpret_cast<const void*>(&own_file), &info) != 0 ? info.dli_fname : "";
}

fs::path driver_folder() {
    std::error_code error;
    const fs::path file = fs::canonical(neighbour().empty() ? own_file() : neighbour(), error);
    return error ? fs::path() : file.parent_path() / TAVISTRO_DRIVER_FOLDER;
}

std::vector<fs::path> driver_files() {
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator it(driver_folder(), error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().extension() == ".so") files.push_back(it->path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string to_lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::optional<RegisteredDriver> describe(const fs::path& file) {
    const Library library = load(file);
    if (!library) return {};
    const auto class_id = find<TextFunction>(library, "tavistro_driver_class_id");
    const char* class_id_text = class_id ? class_id() : nullptr;
    if (class_id_text == nullptr) return {};
    RegisteredDriver driver{file.stem().string(), class_id_text, {}};
    const auto description = find<TextFunction>(library, "tavistro_driver_description");
    if (const char* text = description ? description() : nullptr) driver.description = text;
    return driver;
}

// The library of each living object: closing it earlier would take the object's code away.
class LoadedLibraries {
  public:
    void keep(void* object, Library library) {
        const std::lock_guard lock(mutex_);
        libraries_.emplace(object, std::move(library));
    }
    Library take(void* object) {
        const std::lock_guard lock(mutex_);
        const auto node = libraries_.extract(object);
        return node.empty() ? Library() : std::move(node.mapped());
    }

  private:
    std::mutex mutex_;
    std::map<void*, Library> libraries_;
};

LoadedLibraries& loaded_libraries() {
    static LoadedLibraries instance;
    return instance;
}

std::int32_t create(const fs::path& file, void** object) {
    Library library = load(file);
    const auto make = library ? find<CreateFunction>(library, "tavistro_driver_create") : nullptr;
    *object = make ? make() : nullptr;
    if (*object == nullptr) return creation_failed;
    loaded_libraries().keep(*object, std::move(library));
    return 0;
}

}  // namespace

void look_for_drivers_beside(const std::string& file) {
    neighbour() = file;
}

std::string driver_place() {
    return driver_folder().string();
}

std::vector<RegisteredDriver> registered_drivers() {
    std::vector<RegisteredDriver> drivers;
    for (const fs::path& file : driver_files()) {
        if (auto driver = describe(file)) drivers.push_back(std::move(*driver));
    }
    return drivers;
}

std::optional<std::string> class_server_path(const std::string& class_id_text) {
    const std::string wanted = to_lower(class_id_text);
    for (const fs::path& file : driver_files()) {
        const auto driver = describe(file);
        if (driver && to_lower(driver->class_id_text) == wanted) return file.string();
    }
    return {};
}

void enter_driver_apartment() noexcept {}
void leave_driver_apartment() noexcept {}
void* driver_parent_window() noexcept {
    return nullptr;
}

std::int32_t create_driver_object(const ClassId& class_id, void** object) noexcept {
    *object = nullptr;
    try {
        for (const fs::path& file : driver_files()) {
            const auto driver = describe(file);
            if (driver && parse_class_id(driver->class_id_text) == class_id) {
                return create(file, object);
            }
        }
        return class_not_registered;
    } catch (const std::exception&) {
        if (*object != nullptr) release_driver_object(*object);
        *object = nullptr;
        return creation_failed;
    }
}

void release_driver_object(void* object) noexcept {
    using Release = std::uint32_t (*)(void*);
    constexpr std::size_t release_slot = 2;
    const auto* functions = *static_cast<Release* const*>(object);
    const Library library = loaded_libraries().take(object);
    functions[release_slot](object);
}

}  // namespace tavistro::platform
