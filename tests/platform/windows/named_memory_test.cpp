#include "platform/named_memory.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

namespace tavistro::platform {
namespace {

constexpr std::size_t bytes = 288;

/// Another holder's view of the first word, null when there is no such block.
volatile std::uint64_t* mapped() {
    constexpr DWORD access = FILE_MAP_READ | FILE_MAP_WRITE;
    const HANDLE block = OpenFileMappingA(access, FALSE, "Local\\TavistroNamedMemoryTest");
    if (block == nullptr) return nullptr;
    void* view = MapViewOfFile(block, access, 0, 0, bytes);
    CloseHandle(block);
    return static_cast<volatile std::uint64_t*>(view);
}

TEST(NamedMemory, AnotherProcessReadsAndWritesTheBlockThatTheLastHolderTakesAway) {
    NamedMemory memory;
    NamedMemory other_holder;
    ASSERT_TRUE(memory.open("TavistroNamedMemoryTest", bytes));
    ASSERT_TRUE(other_holder.open("TavistroNamedMemoryTest", bytes));
    volatile std::uint64_t* const shared = mapped();
    ASSERT_NE(shared, nullptr);
    *shared = *shared + 1;
    // The statement runs in a second process, which has come through all the lines above itself.
    EXPECT_EXIT(std::exit(*shared == 2 ? 0 : 1), testing::ExitedWithCode(0), "");
    EXPECT_TRUE(memory.store(0, std::array<std::uint64_t, 2>{7, 8}));
    memory.close();
    EXPECT_EQ(*shared, 7U) << "a view shows the last contents";
    UnmapViewOfFile(const_cast<std::uint64_t*>(shared));
    other_holder.close();
    EXPECT_EQ(mapped(), nullptr);
}

}  // namespace
}  // namespace tavistro::platform
