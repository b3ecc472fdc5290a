// Writes drivers into the registry and takes them out again: on a real machine this needs
// elevation.
#include "platform/driver_registry.h"

#include <windows.h>

#include <objbase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

#include "platform/threads.h"

namespace tavistro::platform {
namespace {

constexpr const char* asio_key = "software\\asio\\";
constexpr const char* complete_class = "{7D3F0A11-52C4-4C9B-9E63-0D1B5A8E0001}";
constexpr const char* class_without_server = "{7D3F0A11-52C4-4C9B-9E63-0D1B5A8E0002}";

void write(HKEY root, const std::string& key, const char* name, std::string_view value,
           DWORD type = REG_SZ) {
    HKEY opened = nullptr;
    ASSERT_EQ(RegCreateKeyA(root, key.c_str(), &opened), ERROR_SUCCESS) << key;
    EXPECT_EQ(RegSetValueExA(opened, name, 0, type, reinterpret_cast<const BYTE*>(value.data()),
                             static_cast<DWORD>(value.size())),
              ERROR_SUCCESS);
    RegCloseKey(opened);
}

class DriverRegistryTest : public testing::Test {
  protected:
    DriverRegistryTest() {
        using namespace std::string_view_literals;
        const auto driver = [](const char* key) {
            return std::string(asio_key) + "Tavistro test " + key;
        };
        write(HKEY_LOCAL_MACHINE, driver("complete"), "clsid", complete_class);
        write(HKEY_LOCAL_MACHINE, driver("complete"), "description", "A driver\0left over"sv);
        write(HKEY_LOCAL_MACHINE, driver("no server"), "clsid", class_without_server);
        write(HKEY_LOCAL_MACHINE, driver("no class"), "description", "never listed");
        write(HKEY_LOCAL_MACHINE, driver("number"), "clsid", "1234", REG_DWORD);
        write(HKEY_CLASSES_ROOT, std::string("clsid\\") + complete_class + "\\InprocServer32",
              nullptr, "c:\\drivers\\complete.dll");
        write(HKEY_CLASSES_ROOT, std::string("clsid\\") + class_without_server, nullptr, "a name");
    }
    ~DriverRegistryTest() override {
        for (const char* key : {"complete", "no server", "no class", "number"}) {
            RegDeleteTreeA(HKEY_LOCAL_MACHINE,
                           (std::string(asio_key) + "Tavistro test " + key).c_str());
        }
        for (const char* id : {complete_class, class_without_server}) {
            RegDeleteTreeA(HKEY_CLASSES_ROOT, (std::string("clsid\\") + id).c_str());
        }
    }
};

TEST_F(DriverRegistryTest, ListsWhatNamesAClassAndFindsWhatServesIt) {
    std::vector<RegisteredDriver> drivers = registered_drivers();
    std::erase_if(drivers, [](const auto& d) { return !d.key_name.starts_with("Tavistro test"); });
    ASSERT_EQ(drivers.size(), 2u);
    std::ranges::sort(drivers, {}, &RegisteredDriver::key_name);
    EXPECT_EQ(drivers[0].key_name, "Tavistro test complete");
    EXPECT_EQ(drivers[0].class_id_text, complete_class);
    EXPECT_EQ(drivers[0].description, "A driver");
    EXPECT_EQ(drivers[1].description, std::nullopt);

    EXPECT_EQ(class_server_path("{7d3f0a11-52C4-4c9b-9e63-0d1b5a8e0001}"),
              "c:\\drivers\\complete.dll");
    for (const std::string text :
         {class_without_server, "", "{7D3F0A11-52C4-4C9B-9E63-0D1B5A8E0003}",
          "{7D3F0A11-52C4-4C9B-9E63-0D1B5A8E0001}\\.."}) {
        EXPECT_EQ(class_server_path(text), std::nullopt) << text;
    }
}

// The first apartment is this thread's, which waits and serves nobody: COM would hang the other.
TEST_F(DriverRegistryTest, AClassWithoutAThreadingModelIsRefusedWhereItsCreationCouldHang) {
    enter_driver_apartment();
    std::int32_t result = 0;
    int object = 0;
    void* created = &object;
    Thread worker;
    ASSERT_TRUE(worker.start("worker", [&] {
        enter_driver_apartment();
        result = create_driver_object(*parse_class_id(complete_class), &created);
        leave_driver_apartment();
        leave_driver_apartment();  // one too many takes nothing from anybody
    }));
    worker.join();
    EXPECT_EQ(result, E_NOINTERFACE);
    EXPECT_EQ(created, nullptr);

    EXPECT_EQ(create_driver_object(*parse_class_id(class_without_server), &created),
              REGDB_E_CLASSNOTREG);
    EXPECT_LT(create_driver_object(*parse_class_id(complete_class), &created), 0) << "no such file";
    leave_driver_apartment();
}

}  // namespace
}  // namespace tavistro::platform
