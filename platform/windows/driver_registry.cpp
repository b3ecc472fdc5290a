#include "platform/driver_registry.h"

#include <windows.h>

#include <objbase.h>

#include <cstring>

#include "platform/windows/registry_key.h"

// Drivers stand under HKEY_LOCAL_MACHINE\software\asio, a key each, with the class identifier in
// "clsid"; the class itself is an in-process COM server.

namespace tavistro::platform {
namespace {

constexpr const char* drivers_key = "software\\asio";
constexpr DWORD most_value_bytes = 256;
constexpr DWORD most_path_bytes = 512;

/// How often the thread has entered an apartment and has not left it yet. A refused entry does not
/// count: leaving after it would take the apartment from whoever made it.
thread_local int apartments_entered = 0;

std::string server_key(const std::string& class_id_text) {
    return "clsid\\" + class_id_text + "\\InprocServer32";
}

GUID to_system(const ClassId& class_id) noexcept {
    GUID id{};
    static_assert(sizeof id == sizeof class_id);
    std::memcpy(&id, class_id.data(), sizeof id);
    return id;
}

std::string text_of(const GUID& id) {
    wchar_t wide[40]{};
    StringFromGUID2(id, wide, static_cast<int>(std::size(wide)));
    std::string text;
    for (const wchar_t* c = wide; *c != 0; ++c) {
        text += static_cast<char>(*c);
    }
    return text;
}

bool on_first_apartment_of_process() noexcept {
    APTTYPE type{};
    APTTYPEQUALIFIER qualifier{};
    return SUCCEEDED(CoGetApartmentType(&type, &qualifier)) && type == APTTYPE_MAINSTA;
}

/// An object of a class without a threading model is made by the process's first single-threaded
/// apartment, whoever asks for it. That thread is the host's, which may be waiting for ours to end,
/// and the object could not be used from here in any case: drivers have no proxies.
bool made_by_another_thread(const GUID& id) {
    const RegistryKey server(HKEY_CLASSES_ROOT, server_key(text_of(id)));
    if (!server.text(nullptr, most_path_bytes)) return false;  // not registered, as COM will say
    const auto model = server.text("ThreadingModel", most_value_bytes);
    return (!model || model->empty()) && !on_first_apartment_of_process();
}

}  // namespace

void look_for_drivers_beside(const std::string&) {}

std::string driver_place() {
    return std::string("HKEY_LOCAL_MACHINE\\") + drivers_key;
}

std::vector<RegisteredDriver> registered_drivers() {
    std::vector<RegisteredDriver> drivers;
    const RegistryKey asio(HKEY_LOCAL_MACHINE, drivers_key);
    for (DWORD index = 0; const auto name = asio.subkey_name(index); ++index) {
        const RegistryKey driver(asio, *name);
        auto class_id = driver.text("clsid", most_value_bytes);
        if (!class_id) continue;
        drivers.push_back(
            {*name, *std::move(class_id), driver.text("description", most_value_bytes)});
    }
    return drivers;
}

std::vector<UnlistedDriver> unlisted_drivers() {
    std::vector<UnlistedDriver> unlisted;
    const RegistryKey asio(HKEY_LOCAL_MACHINE, drivers_key);
    for (DWORD index = 0; const auto name = asio.subkey_name(index); ++index) {
        const auto class_id = RegistryKey(asio, *name).text("clsid", most_value_bytes);
        if (!class_id) {
            unlisted.push_back({*name, "its key has no clsid"});
        } else if (!class_server_path(*class_id)) {
            unlisted.push_back({*name, "its class " + *class_id + " has no InprocServer32"});
        }
    }
    return unlisted;
}

std::optional<std::string> class_server_path(const std::string& class_id_text) {
    // Anything but a single key's name would be a path to somewhere else.
    if (class_id_text.empty() || class_id_text.find('\\') != std::string::npos) return {};
    return RegistryKey(HKEY_CLASSES_ROOT, server_key(class_id_text)).text(nullptr, most_path_bytes);
}

void enter_driver_apartment() noexcept {
    if (SUCCEEDED(CoInitialize(nullptr))) ++apartments_entered;
}

void leave_driver_apartment() noexcept {
    if (apartments_entered == 0) return;
    --apartments_entered;
    CoUninitialize();
}

void* driver_parent_window() noexcept {
    return GetDesktopWindow();
}

std::int32_t create_driver_object(const ClassId& class_id, void** object) noexcept {
    *object = nullptr;
    const GUID id = to_system(class_id);
    try {
        if (made_by_another_thread(id)) return E_NOINTERFACE;
    } catch (...) {
        return E_OUTOFMEMORY;
    }
    // A driver's interface has its class's identifier.
    return CoCreateInstance(id, nullptr, CLSCTX_INPROC_SERVER, id, object);
}

void release_driver_object(void* object) noexcept {
    static_cast<IUnknown*>(object)->Release();
}

}  // namespace tavistro::platform
