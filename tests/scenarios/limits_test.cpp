// What the system or a forger would have the engine take, and what happens when there is none.

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

#include "net/client_session.h"
#include "platform/clock.h"
#include "platform/threads.h"
#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

using Error = std::array<std::uint32_t, 2>;  ///< code and detail; zeros for a run that works

/// Leaves the process so many descriptors more than it has, for as long as the object lives.
class FewDescriptors {
  public:
    explicit FewDescriptors(rlim_t more) {
        const int next = dup(STDIN_FILENO);
        close(next);
        getrlimit(RLIMIT_NOFILE, &all_);
        rlimit few = all_;
        few.rlim_cur = static_cast<rlim_t>(next) + more;
        setrlimit(RLIMIT_NOFILE, &few);
    }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &all_); }

  private:
    rlimit all_{};
};

rlim_t memory_bytes(bool resident) {
    rlim_t all = 0;
    rlim_t here = 0;
    std::ifstream("/proc/self/statm") >> all >> here;
    return (resident ? here : all) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

TEST(Limits, AThreadThatIsNotToBeHadIsARefusal) {
    rlimit all{};
    getrlimit(RLIMIT_AS, &all);
    std::atomic<bool> done{false};
    std::array<platform::Thread, 50> threads;  // more than stacks that the system may keep
    rlimit few = all;
    few.rlim_cur = memory_bytes(false) + 4 * 1024 * 1024;
    setrlimit(RLIMIT_AS, &few);
    const auto refused = std::ranges::count_if(threads, [&](auto& thread) {
        return !thread.start("waits", [&] {
            while (!done)
                platform::sleep_ms(1);
        });
    });
    setrlimit(RLIMIT_AS, &all);
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
            const FewDescriptors limit(more);
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
    EXPECT_EQ(seen, (std::set<Error>{
                        {0, 0},
                        {TAVISTRO_ERROR_CONFIG_INVALID, TAVISTRO_MESSAGE_CONFIG_NOT_LOADED},
                        {TAVISTRO_ERROR_STATS_BLOCK_FAILED, TAVISTRO_MESSAGE_STATS_BLOCK_FAILED}}));
}

TEST(ForgedBlocks, TakeNoMemoryForWhatTheyClaimToBeAndNoneAfterTheRun) {
    constexpr platform::Ipv4Endpoint server{platform::ipv4_loopback, 28010};
    constexpr float sample = 1.0F;
    constexpr std::uint64_t largest_block = 65535 * 32 * sizeof(float);
    TavistroProtocol::DatagramList forged;
    ASSERT_TRUE(
        TavistroProtocol::encode_audio_block({1, 0, 48000, 1, 1, {&sample, 1}}, 52, forged));
    TavistroProtocol::Datagram& datagram = forged.front();
    datagram[24] = datagram[25] = 0xFF;  // frames of the block
    datagram[26] = 32;                   // its channels
    TavistroProtocol::ClientSettings settings;
    settings.driver_outputs.resize(32);
    std::uint64_t blocks = 0;
    ClientSession session([](auto, const auto&) { return true; });
    session.reset(settings, {{}, [&](const auto&) { ++blocks; }, {}, {}});
    session.run(server);
    const rlim_t before = memory_bytes(true);
    for (const std::uint8_t first_frame : {std::uint8_t{0}, std::uint8_t{200}}) {
        for (std::uint8_t sequence = 1; sequence <= 8; ++sequence) {
            datagram[16] = sequence;
            datagram[32] = first_frame;
            datagram[36] = first_frame == 0 ? 0 : 1;  // which fragment
            datagram[38] = 3;                         // of these
            session.handle_datagram(datagram, server);
        }
    }
    EXPECT_LT(memory_bytes(true), before + largest_block / 2) << "blocks that are not complete";
    for (std::uint8_t sequence = 20; sequence < 28; ++sequence) {
        datagram[16] = sequence;
        datagram[36] = 0;
        datagram[38] = 1;
        session.handle_datagram(datagram, server);
    }
    EXPECT_EQ(blocks, 8U);
    session.end();
    session.release();
    EXPECT_LT(memory_bytes(true), before + largest_block / 2) << "after the run";
}

TEST(ConfigPath, ThatIsNoSettingsFileFailsTheRunWithoutHoldingItUp) {
    const std::string folder = testing::TempDir();
    const std::string pipe = folder + "limits_pipe_" + std::to_string(getpid());
    const std::string large = folder + "limits_large_" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::ofstream(large) << "[network]\n";
    std::filesystem::resize_file(large, 100'000'000);
    EngineRuntime engine;
    for (const std::string& path : {folder, pipe, large, std::string("/proc/self/mem"),
                                    std::string("/dev/zero"), folder + "no such file"}) {
        ASSERT_TRUE(engine.start(path.c_str()));
        EXPECT_TRUE(eventually([&] {
            return engine.snapshot_state().state == TAVISTRO_STATE_FAILED;
        })) << path;
        EXPECT_EQ(engine.snapshot_state().error_code, TAVISTRO_ERROR_CONFIG_INVALID) << path;
        engine.stop();
    }
    unlink(pipe.c_str());
    unlink(large.c_str());
}

}  // namespace
}  // namespace tavistro::test
