// Exports the test driver as a COM in-process server that can register itself: `regsvr32 <file>`.

#include <windows.h>

#include <objbase.h>
#include <olectl.h>

#include <array>
#include <cstring>
#include <string>

#include "drivers/test/driver_control.h"
#include "drivers/test/test_driver.h"

namespace {

using tavistro::test::DriverControl;

bool is(REFIID id, REFIID other) {
    return IsEqualGUID(id, other) != 0;
}

CLSID class_id() {
    CLSID id;
    static_assert(sizeof(id) == tavistro::test::driver_class_id.size());
    std::memcpy(&id, tavistro::test::driver_class_id.data(), sizeof(id));
    return id;
}

/// A static object, so its references are not counted.
class Factory final : public IClassFactory {
  public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
        const bool known = is(id, IID_IUnknown) || is(id, IID_IClassFactory);
        *object = known ? this : nullptr;
        return known ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID id, void** object) override {
        *object = nullptr;
        if (outer != nullptr) return CLASS_E_NOAGGREGATION;
        tavistro::AsioDriver* driver = tavistro::test::create_test_driver();
        if (driver == nullptr) return E_FAIL;
        const HRESULT result = driver->QueryInterface(&id, object);
        driver->Release();
        return result;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};

struct RegistryValue {
    std::string key;   ///< below HKEY_LOCAL_MACHINE
    const char* name;  ///< null: the key's default value
    std::string text;
};

const std::string driver_key = std::string("software\\asio\\") + tavistro::test::driver_name;
const std::string class_key =
    std::string("software\\classes\\clsid\\") + tavistro::test::driver_class_id_text;

bool write(const RegistryValue& value) {
    return RegSetKeyValueA(HKEY_LOCAL_MACHINE, value.key.c_str(), value.name, REG_SZ,
                           value.text.c_str(),
                           static_cast<DWORD>(value.text.size() + 1)) == ERROR_SUCCESS;
}

std::string module_path() {
    HMODULE module = nullptr;
    GetModuleHandleExA(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        reinterpret_cast<const char*>(&class_key), &module);
    std::array<char, MAX_PATH> path{};
    GetModuleFileNameA(module, path.data(), static_cast<DWORD>(path.size() - 1));
    return path.data();
}

}  // namespace

extern "C" {

HRESULT WINAPI DllGetClassObject(REFCLSID wanted, REFIID id, void** object) {
    static Factory factory;
    *object = nullptr;
    if (!is(wanted, class_id())) return CLASS_E_CLASSNOTAVAILABLE;
    return factory.QueryInterface(id, object);
}

HRESULT WINAPI DllCanUnloadNow() {
    return DriverControl::instance().count("objects") == 0 ? S_OK : S_FALSE;
}

HRESULT WINAPI DllRegisterServer() {
    const std::string server = class_key + "\\InprocServer32";
    for (const RegistryValue& value :
         {RegistryValue{class_key, nullptr, tavistro::test::driver_name},
          RegistryValue{server, nullptr, module_path()},
          RegistryValue{server, "ThreadingModel", "Apartment"},
          RegistryValue{driver_key, "clsid", tavistro::test::driver_class_id_text},
          RegistryValue{driver_key, "description", tavistro::test::driver_name}}) {
        if (!write(value)) return SELFREG_E_CLASS;
    }
    return S_OK;
}

HRESULT WINAPI DllUnregisterServer() {
    for (const std::string& key : {driver_key, class_key}) {
        const LSTATUS result = RegDeleteTreeA(HKEY_LOCAL_MACHINE, key.c_str());
        if (result != ERROR_SUCCESS && result != ERROR_FILE_NOT_FOUND) return SELFREG_E_CLASS;
    }
    return S_OK;
}

const tavistro_test_driver_controls* tavistro_test_driver_control() {
    return tavistro::test::driver_controls();
}

}  // extern "C"
