#include "platform/driver_registry.h"

#include <dlfcn.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>

// Drivers are in shared objects in TAVISTRO_DRIVER_FOLDER, below the folder of the file that holds
// this code (or of the one that its program named). Such a file has one driver or several, numbered
// from 0, and exports three C functions:
//     const char* tavistro_driver_class_id(unsigned number)
//     "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}",
//                                                            null after the last driver
//     const char* tavistro_driver_name(unsigned number)      the name shown to users, or null
//     void*       tavistro_driver_create(unsigned number)    a new driver object, or null
// Asking for the class identifier of number 0 may read the list of devices anew. An object is a
// pointer to a table of functions in the order of the driver interface, its first three being
// query-interface, add-reference and release, and holds one reference.

namespace tavistro::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::int32_t class_not_registered = static_cast<std::int32_t>(0x80040154);
constexpr std::int32_t creation_failed = static_cast<std::int32_t>(0x80004005);

using TextFunction = const char* (*)(unsigned);
using CreateFunction = void* (*)(unsigned);

struct CloseLibrary {
    void operator()(void* library) const noexcept { dlclose(library); }
};
using Library = std::unique_ptr<void, CloseLibrary>;

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

/// A file of drivers, loaded.
class DriverFile {
  public:
    explicit DriverFile(const fs::path& path) : path_(path) {
        library_.reset(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
        if (library_ == nullptr) {
            // glibc keeps it for each thread.
            const char* const error = dlerror();  // NOLINT(concurrency-mt-unsafe)
            fault_ = error != nullptr ? error : "cannot be loaded";
            return;
        }
        find(class_id_, "tavistro_driver_class_id");
        find(name_, "tavistro_driver_name");
        find(create_, "tavistro_driver_create");
        if (!fault_.empty()) return;
        list_drivers();
        if (drivers_.empty()) fault_ = "has no driver at present";
    }

    /// Why it lists no driver; empty when it lists some.
    const std::string& fault() const { return fault_; }
    const std::vector<RegisteredDriver>& drivers() const { return drivers_; }

    /// The number of the first driver of that class.
    template <typename SameClass>
    std::optional<unsigned> find_driver(const SameClass& same_class) const {
        const auto found =
            std::ranges::find_if(drivers_, same_class, &RegisteredDriver::class_id_text);
        if (found == drivers_.end()) return {};
        return static_cast<unsigned>(found - drivers_.begin());
    }

    void* create(unsigned number) const { return create_(number); }
    Library take_library() { return std::move(library_); }

  private:
    static constexpr unsigned most_drivers = 256;

    template <typename Function>
    void find(Function& function, const char* name) {
        function = reinterpret_cast<Function>(dlsym(library_.get(), name));
        if (function == nullptr && fault_.empty()) fault_ = std::string("does not export ") + name;
    }

    void list_drivers() {
        for (unsigned number = 0; number < most_drivers; ++number) {
            const char* const class_id = class_id_(number);
            if (class_id == nullptr) return;
            RegisteredDriver& driver = drivers_.emplace_back();
            driver.key_name = path_.stem().string();
            if (number > 0) driver.key_name += '-' + std::to_string(number);
            driver.class_id_text = class_id;
            if (const char* const name = name_(number)) driver.description = name;
        }
    }

    fs::path path_;
    Library library_;
    TextFunction class_id_ = nullptr;
    TextFunction name_ = nullptr;
    CreateFunction create_ = nullptr;
    std::string fault_;
    std::vector<RegisteredDriver> drivers_;
};

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

}  // namespace

void look_for_drivers_beside(const std::string& file) {
    neighbour() = file;
}

std::string driver_place() {
    return driver_folder().string();
}

std::vector<RegisteredDriver> registered_drivers() {
    std::vector<RegisteredDriver> drivers;
    for (const fs::path& file : driver_files())
        std::ranges::copy(DriverFile(file).drivers(), std::back_inserter(drivers));
    return drivers;
}

std::vector<UnlistedDriver> unlisted_drivers() {
    std::vector<UnlistedDriver> unlisted;
    for (const fs::path& file : driver_files()) {
        if (const DriverFile loaded(file); !loaded.fault().empty())
            unlisted.push_back({file.filename().string(), loaded.fault()});
    }
    return unlisted;
}

std::optional<std::string> class_server_path(const std::string& class_id_text) {
    const auto same_class = [wanted = to_lower(class_id_text)](const std::string& text) {
        return to_lower(text) == wanted;
    };
    for (const fs::path& file : driver_files()) {
        if (DriverFile(file).find_driver(same_class)) return file.string();
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
        const auto same_class = [&](const std::string& text) {
            return parse_class_id(text) == class_id;
        };
        for (const fs::path& path : driver_files()) {
            DriverFile file(path);
            const auto number = file.find_driver(same_class);
            if (!number) continue;
            *object = file.create(*number);
            if (*object == nullptr) return creation_failed;
            loaded_libraries().keep(*object, file.take_library());
            return 0;
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
