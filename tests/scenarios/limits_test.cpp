// No descriptors, no memory, no threads: every run ends in a state that the record shows, and the
// next one works. Each run has a process of its own; the server keeps what it needs.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "net/client_session.h"
#include "scenarios/rig.h"
#include "support/movable_clock.h"

namespace tavistro::test {
namespace {

using server::ReferenceServer;
using Error = std::array<std::uint32_t, 2>;  ///< code and detail; zeros for a run that works

// Exit codes of a run's process, for which nothing but the kernel is needed.
constexpr int next_run_failed = 100;
constexpr int hangs = 101;

constexpr Error works{};
constexpr std::array outcomes{
    works,
    Error{TAVISTRO_ERROR_CONFIG_INVALID, TAVISTRO_MESSAGE_CONFIG_NOT_LOADED},
    Error{TAVISTRO_ERROR_CLIENT_START_FAILED, TAVISTRO_MESSAGE_CLIENT_FAILED},
    Error{TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, TAVISTRO_MESSAGE_LOOPBACK_START_FAILED},
    Error{TAVISTRO_ERROR_WORKER_START_FAILED, TAVISTRO_MESSAGE_WORKER_START_FAILED},
    Error{TAVISTRO_ERROR_STATS_BLOCK_FAILED, TAVISTRO_MESSAGE_STATS_BLOCK_FAILED},
};

/// The number that the next descriptor gets: the limit is one for numbers.
rlim_t open_descriptors() {
    const int next = dup(STDIN_FILENO);
    close(next);
    return static_cast<rlim_t>(next);
}

rlim_t address_space_bytes() {
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

class Limits : public ::testing::Test {
  protected:
    Limits() { EXPECT_EQ(refusal_, ""); }

    /// One run with so much of `resource` more than is in use, and one without the limit.
    Error outcome_with(int resource, rlim_t (*in_use)(), rlim_t more) {
        const pid_t child = fork();
        if (child == 0) _exit(run(static_cast<__rlimit_resource>(resource), in_use, more));
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status) << " with " << more;
        const auto code = static_cast<std::size_t>(WEXITSTATUS(status));
        if (code >= std::size(outcomes)) {
            ADD_FAILURE() << "process ends with " << code << " for " << more;
            return {};
        }
        return outcomes[code];
    }

  private:
    int run(__rlimit_resource resource, rlim_t (*in_use)(), rlim_t more) {
        Engine engine;
        rlimit all{};
        getrlimit(resource, &all);
        rlimit few = all;
        few.rlim_cur = in_use() + more;
        setrlimit(resource, &few);
        engine.start(config_);
        const bool settled = settles(engine);
        const auto state = engine.state();
        engine.stop();
        setrlimit(resource, &all);
        if (!settled) return hangs;
        if (!engine.start(config_) || !settles(engine) || !engine.runs()) return next_run_failed;
        engine.stop();
        const Error error{state.error_code, state.error_detail};
        return static_cast<int>(std::ranges::find(outcomes, error) - outcomes.begin());
    }
    bool settles(const Engine& engine) {
        return eventually([&] {
            if (engine.shows(TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT)) advance_clock_ms(100);
            return engine.runs() || engine.in_state(TAVISTRO_STATE_FAILED);
        });
    }

    ReferenceServer server_{{.port = 0}};
    const std::string refusal_ = server_.start();
    const ConfigFile config_{server_.port()};
};

TEST_F(Limits, DescriptorsThatRunOutAreTheErrorOfThePartThatNeedsOne) {
    std::set<Error> seen;
    for (rlim_t more = 0; more <= 6; ++more)
        seen.insert(outcome_with(RLIMIT_NOFILE, open_descriptors, more));
    // The socket never goes without: it needs one, and making the block needed two for a moment.
    EXPECT_EQ(seen, (std::set<Error>{outcomes[0], outcomes[1], outcomes[5]}));
}

TEST_F(Limits, MemoryThatRunsOutEndsTheRunAndNotTheHost) {
    constexpr rlim_t step = 1024 * 1024;
    std::set<Error> seen;
    for (rlim_t more = 0; more <= 40 * step; more += step)
        seen.insert(outcome_with(RLIMIT_AS, address_space_bytes, more));
    EXPECT_TRUE(seen.contains(works)) << "the sweep ends too early";
    EXPECT_GE(seen.size(), 3U) << "too few parts were met by it";
}

rlim_t resident_bytes() {
    rlim_t all = 0;
    rlim_t resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
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
    const rlim_t before = resident_bytes();
    for (const std::uint8_t first_frame : {std::uint8_t{0}, std::uint8_t{200}}) {
        for (std::uint8_t sequence = 1; sequence <= 8; ++sequence) {
            datagram[16] = sequence;
            datagram[32] = first_frame;
            datagram[36] = first_frame == 0 ? 0 : 1;  // which fragment
            datagram[38] = 3;                         // of these
            session.handle_datagram(datagram, server);
        }
    }
    EXPECT_LT(resident_bytes(), before + largest_block / 2) << "blocks that are not complete";
    for (std::uint8_t sequence = 20; sequence < 28; ++sequence) {
        datagram[16] = sequence;
        datagram[36] = 0;
        datagram[38] = 1;
        session.handle_datagram(datagram, server);
    }
    EXPECT_EQ(blocks, 8U);
    session.end();
    session.release();
    EXPECT_LT(resident_bytes(), before + largest_block / 2) << "after the run";
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
