// Writes drivers into the registry and takes them out again: on a real machine this needs
// elevation.
#include "platform/driver_registry.h"

#include <windows.h>

#include <objbase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <thread>

namespace tavistro::platform {
namespace {

const std::string asio_key = "software\\asio\\Tavistro test ";
const std::string class_key = "clsid\\";
const std::string complete_class = "{7D3F0A11-52C4-4C9B-9E63-0D1B5A8E0001}";
const std::string class_without_server = "{7D3F0A11-52C4-4C9B-9E63-0D1B5A8E0002}";

void write(HKEY root, const std::string& key, const char* name, const std::string& value) {
    EXPECT_EQ(RegSetKeyValueA(root, key.c_str(), name, REG_SZ, value.c_str(),
                              static_cast<DWORD>(value.size() + 1)),
              ERROR_SUCCESS);
}

class DriverRegistryTest : public testing::Test {
  protected:
    DriverRegistryTest() {
        write(HKEY_LOCAL_MACHINE, asio_key + "complete", "clsid", complete_class);
        write(HKEY_LOCAL_MACHINE, asio_key + "complete", "description", "A driver");
        write(HKEY_LOCAL_MACHINE, asio_key + "no server", "clsid", class_without_server);
        write(HKEY_LOCAL_MACHINE, asio_key + "no class", "description", "never listed");
        write(HKEY_CLASSES_ROOT, class_key + complete_class + "\\InprocServer32", nullptr,
              "c:\\drivers\\complete.dll");
        write(HKEY_CLASSES_ROOT, class_key + class_without_server, nullptr, "a name");
    }
    ~DriverRegistryTest() override {
        for (const char* key : {"complete", "no server", "no class"})
            RegDeleteTreeA(HKEY_LOCAL_MACHINE, (asio_key + key).c_str());
        for (const std::string& id : {complete_class, class_without_server})
            RegDeleteTreeA(HKEY_CLASSES_ROOT, (class_key + id).c_str());
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
    EXPECT_EQ(class_server_path(class_without_server), std::nullopt);

    std::map<std::string, std::string> unlisted;
    for (const auto& [name, reason] : unlisted_drivers())
        unlisted[name] = reason;
    EXPECT_FALSE(unlisted.contains("Tavistro test complete"));
    EXPECT_EQ(unlisted["Tavistro test no class"], "its key has no clsid");
    EXPECT_EQ(unlisted["Tavistro test no server"],
              "its class " + class_without_server + " has no InprocServer32");
}

// The first apartment is this thread's, which waits and serves nobody: COM would hang the other.
TEST_F(DriverRegistryTest, AClassWithoutAThreadingModelIsRefusedWhereItsCreationCouldHang) {
    enter_driver_apartment();
    void* object = nullptr;
    std::thread([&] {
        enter_driver_apartment();
        EXPECT_EQ(create_driver_object(*parse_class_id(complete_class), &object), E_NOINTERFACE);
        leave_driver_apartment();
        leave_driver_apartment();  // one too many takes nothing from anybody
    }).join();
    EXPECT_EQ(create_driver_object(*parse_class_id(class_without_server), &object),
              REGDB_E_CLASSNOTREG);
    EXPECT_LT(create_driver_object(*parse_class_id(complete_class), &object), 0) << "no such file";
    leave_driver_apartment();
}

}  // namespace
}  // namespace tavistro::platform
