#include "platform/driver_registry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>

#include "platform/regular_file.h"

namespace tavistro::platform {
namespace {

namespace fs = std::filesystem;

/// A folder of drivers: the test driver under two names, and files that are none.
class DriverFolder : public testing::Test {
  protected:
    DriverFolder() {
        fs::create_directories(drivers_);
        for (const char* name : {"zebra.so", "ant.so", "bee.so", "ant.txt"})
            fs::copy_file(TAVISTRO_TEST_DRIVER, drivers_ / name);
        std::ofstream(drivers_ / "broken.so") << "no library";
        fs::copy_file(TAVISTRO_OTHER_LIBRARY, drivers_ / "other.so");
        fs::copy_file(TAVISTRO_TWO_DRIVERS, drivers_ / "two.so");
        std::ofstream(program_) << "where the code lies";
        look_for_drivers_beside(program_);
    }
    ~DriverFolder() override {
        look_for_drivers_beside("");
        fs::remove_all(folder_);
    }

    const fs::path folder_ = testing::TempDir() + "driver_folder_" + std::to_string(getpid());
    const fs::path drivers_ = folder_ / TAVISTRO_DRIVER_FOLDER;
    const fs::path program_ = folder_ / "program";
};

TEST_F(DriverFolder, ListsItsDriversByNameAndMakesTheirObjects) {
    const auto drivers = registered_drivers();
    std::vector<std::string> names;
    for (const RegisteredDriver& driver : drivers)
        names.push_back(driver.key_name);
    ASSERT_EQ(names, (std::vector<std::string>{"ant", "bee", "two", "two-1", "zebra"}));
    EXPECT_EQ(drivers[0].description, "Tavistro Test Driver");
    const auto unlisted = unlisted_drivers();
    ASSERT_EQ(unlisted.size(), 2U);
    EXPECT_EQ(unlisted[0].name, "broken.so");
    EXPECT_NE(unlisted[0].reason.find("file too short"), std::string::npos) << unlisted[0].reason;
    EXPECT_EQ(unlisted[1].reason, "does not export tavistro_driver_class_id");
    std::string text = drivers[0].class_id_text;
    const auto id = parse_class_id(text);
    ASSERT_TRUE(id);
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::toupper(c); });
    EXPECT_EQ(class_server_path(text), (drivers_ / "ant.so").string()) << "in other letters";
    void* object = nullptr;
    ASSERT_EQ(create_driver_object(*id, &object), 0);
    release_driver_object(object);
    EXPECT_EQ(class_server_path("{}"), std::nullopt);
    EXPECT_EQ(parse_class_id("{01234567-89AB-CDEF-0123-456789abcdeg}"), std::nullopt);
    EXPECT_LT(create_driver_object({}, &object), 0);
    EXPECT_EQ(object, nullptr);
}

TEST_F(DriverFolder, MakesTheObjectOfTheDriverThatIsMeant) {
    const auto drivers = registered_drivers();
    EXPECT_EQ(drivers[2].description, "First");
    EXPECT_EQ(drivers[3].description, std::nullopt);
    EXPECT_EQ(class_server_path(drivers[3].class_id_text), (drivers_ / "two.so").string());
    for (const unsigned number : {0U, 1U}) {
        void* object = nullptr;
        const auto& driver = drivers[2 + number];
        ASSERT_EQ(create_driver_object(*parse_class_id(driver.class_id_text), &object), 0);
        constexpr std::size_t number_slot = 3;
        const auto* functions = *static_cast<unsigned (*const* const*)(void*)>(object);
        EXPECT_EQ(functions[number_slot](object), number);
        release_driver_object(object);
    }
}

TEST(RegularFile, IsNeitherAFolderNorADevice) {
    EXPECT_FALSE(is_regular_file("/"));
    EXPECT_FALSE(is_regular_file("/dev/zero"));
    EXPECT_TRUE(is_regular_file(TAVISTRO_TEST_DRIVER));
}

}  // namespace
}  // namespace tavistro::platform
