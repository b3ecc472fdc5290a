#include "platform/named_memory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

namespace tavistro::platform {
namespace {

constexpr std::size_t bytes = 288;
constexpr std::array<std::uint64_t, 1> some_word{42};

class NamedMemoryTest : public ::testing::Test {
  protected:
    ~NamedMemoryTest() override { shm_unlink(("/" + name_).c_str()); }

    bool exists() const { return access(("/dev/shm/" + name_).c_str(), F_OK) == 0; }
    /// What a process that opens the block now finds in its first word; 0 when it has none.
    std::uint64_t first_word() const {
        std::uint64_t word = 0;
        std::ifstream("/dev/shm/" + name_).read(reinterpret_cast<char*>(&word), sizeof word);
        return word;
    }

    std::string name_ = "TavistroNamedMemoryTest_" + std::to_string(getpid());
};

TEST_F(NamedMemoryTest, HoldersShareOneBlockAndTheLastTakesTheName) {
    NamedMemory first;
    NamedMemory second;
    ASSERT_TRUE(first.open(name_, bytes));
    ASSERT_TRUE(second.open(name_, bytes));
    first.close();
    ASSERT_TRUE(second.store(0, some_word));
    EXPECT_EQ(first_word(), 42U) << "the first to close took the name from the other";
    second.close();
    EXPECT_FALSE(second.is_open());
    EXPECT_FALSE(exists());
}

// Somebody shrinks the block again and again and looks at every field in between.
TEST_F(NamedMemoryTest, TakesWritesWhateverOthersDoToItAndShowsNoFieldHalfWritten) {
    NamedMemory memory;
    ASSERT_TRUE(memory.open(name_, bytes));
    std::atomic<bool> done{false};
    std::int64_t torn = 0;
    std::thread vandal([&] {
        const int object = shm_open(("/" + name_).c_str(), O_RDWR, 0);
        while (!done) {
            std::array<std::uint32_t, bytes / 4> words{};
            EXPECT_GE(pread(object, words.data(), bytes, 0), 0);
            torn += std::ranges::count_if(words, [](auto word) { return word + 1 > 1; });
            EXPECT_EQ(ftruncate(object, 0), 0);
        }
        ::close(object);
    });
    std::array<std::uint32_t, 39> fields{};
    for (int i = 0; i < 100'000; ++i) {
        fields.fill(~fields.front());
        EXPECT_TRUE(memory.store(28, fields));
    }
    done = true;
    vandal.join();
    EXPECT_EQ(torn, 0);
}

TEST_F(NamedMemoryTest, EveryUserMayOpenItAndNoChildInheritsIt) {
    const mode_t previous = umask(0077);
    const int next = dup(STDIN_FILENO);
    ::close(next);
    NamedMemory memory;
    const bool opened = memory.open(name_, bytes);
    umask(previous);
    ASSERT_TRUE(opened);
    EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
    NamedMemory smaller;
    ASSERT_TRUE(smaller.open(name_, bytes / 2));
    struct stat info {};
    ASSERT_EQ(fstat(next, &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0666U);
    EXPECT_EQ(info.st_size, off_t{bytes}) << "a holder of less cuts nothing off";
}

TEST_F(NamedMemoryTest, WhatIsHeldHasItsNameWhoeverOpensAndCloses) {
    const auto open_and_close = [this] {
        int lost = 0;
        for (int i = 0; i < 2000; ++i) {
            NamedMemory memory;
            if (!memory.open(name_, bytes) || !exists()) ++lost;
        }
        EXPECT_EQ(lost, 0);
    };
    std::thread other(open_and_close);
    open_and_close();
    other.join();
}

TEST_F(NamedMemoryTest, ABlockLeftByAKilledProcessIsReusedAndThenRemoved) {
    const pid_t child = fork();
    if (child == 0) {
        NamedMemory memory;
        if (memory.open(name_, bytes)) memory.store(0, some_word);
        raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    NamedMemory memory;
    ASSERT_TRUE(memory.open(name_, bytes));
    EXPECT_EQ(first_word(), 42U) << "what it holds is the opener's to clear";
    memory.close();
    EXPECT_FALSE(exists());
}

}  // namespace
}  // namespace tavistro::platform
