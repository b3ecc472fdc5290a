#include "platform/named_memory.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>

namespace tavistro::platform {
namespace {

constexpr std::size_t bytes = 288;
constexpr const char* name = "TavistroNamedMemoryTest";

/// A second holder's view of the first word, null when there is no such block.
volatile std::uint64_t* mapped() {
    const std::string system_name = std::string("Local\\") + name;
    const HANDLE block =
        OpenFileMappingA(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, system_name.c_str());
    if (block == nullptr) return nullptr;
    void* view = MapViewOfFile(block, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, bytes);
    CloseHandle(block);
    return static_cast<volatile std::uint64_t*>(view);
}

TEST(NamedMemory, AnotherProcessReadsAndWritesTheBlockThatTheLastHolderTakesAway) {
    NamedMemory memory;
    NamedMemory other_holder;
    ASSERT_TRUE(memory.open(name, bytes));
    ASSERT_TRUE(other_holder.open(name, bytes));
    volatile std::uint64_t* const processes = mapped();
    ASSERT_NE(processes, nullptr);
    *processes = *processes + 1;
    // The statement runs in a second process, which has come through all the lines above itself.
    EXPECT_EXIT(std::exit(*processes == 2 ? 0 : 1), testing::ExitedWithCode(0), "");
    EXPECT_EQ(*processes, 2U);
    EXPECT_TRUE(memory.store(0, std::array<std::uint64_t, 2>{7, 8}));
    EXPECT_EQ(*processes, 7U);

    memory.close();
    EXPECT_EQ(*processes, 7U) << "a view shows the last contents";
    UnmapViewOfFile(const_cast<std::uint64_t*>(processes));
    other_holder.close();
    EXPECT_EQ(mapped(), nullptr);
    ASSERT_TRUE(memory.open(name, bytes));
    volatile std::uint64_t* const anew = mapped();
    ASSERT_NE(anew, nullptr);
    EXPECT_EQ(*anew, 0U) << "a new block is zero";
    UnmapViewOfFile(const_cast<std::uint64_t*>(anew));
}

TEST(NamedMemory, ABlockThatIsTooSmallIsRefusedAndNothingHeld) {
    NamedMemory small;
    NamedMemory large;
    ASSERT_TRUE(small.open("TavistroNamedMemoryTest_small", 16));
    EXPECT_FALSE(large.open("TavistroNamedMemoryTest_small", 1 << 20));
    EXPECT_FALSE(large.is_open());
}

}  // namespace
}  // namespace tavistro::platform
