// What the system would have the engine take, and what happens when there is none.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "platform/clock.h"
#include "platform/threads.h"
#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

using Error = std::array<std::uint32_t, 2>;  ///< code and detail; zeros for a run that works

/// Lowers a limit of the process for as long as the object lives.
class LowLimit {
  public:
    LowLimit(int resource, rlim_t limit) : resource_(resource) {
        getrlimit(resource_, &all_);
        const rlimit low{limit, all_.rlim_max};
        setrlimit(resource_, &low);
    }
    LowLimit(const LowLimit&) = delete;
    LowLimit& operator=(const LowLimit&) = delete;
    ~LowLimit() { setrlimit(resource_, &all_); }

  private:
    int resource_;
    rlimit all_{};
};

TEST(Limits, AThreadThatIsNotToBeHadIsARefusal) {
    std::atomic<bool> done{false};
    std::array<platform::Thread, 50> threads;  // more than stacks that the system may keep
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    std::int64_t refused = 0;
    {
        const LowLimit limit(RLIMIT_AS, (pages + 1024) * static_cast<rlim_t>(getpagesize()));
        refused = std::ranges::count_if(threads, [&](auto& thread) {
            return !thread.start("waits", [&] {
                while (!done)
                    platform::sleep_ms(1);
            });
        });
    }
    done = true;
    for (auto& thread : threads)
        thread.join();
    EXPECT_GT(refused, 0);
}

// The socket never goes without: it needs one, and making the block needed two for a moment.
TEST(Limits, DescriptorsThatRunOutAreTheErrorOfThePartThatNeedsOne) {
    Rig rig;
    ASSERT_TRUE(rig.plays());
    std::set<Error> seen;
    for (rlim_t more = 0; more <= 6; ++more) {
        rig.engine.stop();
        {
            const int next = dup(STDIN_FILENO);
            close(next);
            const LowLimit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next) + more);
            ASSERT_TRUE(rig.engine.start(rig.config));
            ASSERT_TRUE(eventually([&] {
                return rig.engine.runs() || rig.engine.in_state(TAVISTRO_STATE_FAILED);
            })) << more;
            seen.insert({rig.engine.state().error_code, rig.engine.state().error_detail});
            rig.engine.stop();
        }
        ASSERT_TRUE(rig.engine.start(rig.config));
        ASSERT_TRUE(eventually([&] { return rig.engine.runs(); })) << "after " << more;
    }
    EXPECT_EQ(seen, (std::set<Error>{{0, 0}, {3, 5}, {10, 6}}))
        << "of the settings and of the statistics block";
}

TEST(ConfigPath, ThatIsNoSettingsFileFailsTheRunWithoutHoldingItUp) {
    const std::string folder = testing::TempDir();
    const std::string pipe = folder + "limits_pipe_" + std::to_string(getpid());
    const std::string large = folder + "limits_large_" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::ofstream(large) << "[network]\n";
    std::filesystem::resize_file(large, 100'000'000);
    EngineRuntime engine;
    for (const std::string& path : {folder, pipe, large, std::string("/dev/zero")}) {
        ASSERT_TRUE(engine.start(path.c_str()));
        EXPECT_TRUE(eventually([&] {
            return engine.snapshot_state().state == TAVISTRO_STATE_FAILED;
        })) << path;
        engine.stop();
    }
    unlink(pipe.c_str());
    unlink(large.c_str());
}

}  // namespace
}  // namespace tavistro::test
