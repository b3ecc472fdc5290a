// Real engines with real faults, watched as the monitor does. Which cause is named for which fault
// is diagnosis_test.cpp's; here the observer, the block and the engine are the real ones.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "scenarios/rig.h"
#include "tools/monitor/account.h"
#include "tools/monitor/observer.h"

namespace tavistro::test {
namespace {

using monitor::Account;
using monitor::Cause;
using server::FaultOptions;

struct Fault {
    const char* name;
    Cause cause;
    const char* device = "";  ///< lines of section [test]
    FaultOptions network{};   ///< once the audio runs
};

// Faults that a busy machine does not hide.
const Fault faults[] = {
    {"loss", Cause::network_loss, "", {.drop_percent = 5}},
    {"reordering", Cause::late_network, "", {.reorder_percent = 5}},
    {"missing notices", Cause::missing_notices, "", {.pause_every_ms = 1500, .pause_for_ms = 300}},
    {"silence", Cause::server_silent, "", {.silent = true}},
    {"stall", Cause::device_stall,
     "loopback_callback_stall_every_ms = 1500\nloopback_callback_stall_duration_ms = 600\n"},
};

std::string said(const Account& account) {
    std::string all;
    for (const std::string& line : monitor::account_lines(account))
        all.append(line).append("\n");
    return all;
}

bool names(const Account& account, Cause cause) {
    return std::ranges::find(account.causes, cause, &monitor::Finding::cause) !=
           account.causes.end();
}

TEST(Explain, NamesTheFaultsOfEnginesSideBySideAndNoOthers) {
    std::deque<Rig> rigs;
    std::vector<std::uint32_t> ids;
    for (const Fault& fault : faults) {
        Rig& rig = rigs.emplace_back(server::ServerOptions{.seed = 7}, fault.device);
        ASSERT_TRUE(eventually([&] { return rig.engine.runs(); })) << fault.name;
        rig.server.set_faults(fault.network);
        ids.push_back(rig.config.client_id());
    }
    monitor::Observer observer(ids);
    std::vector<std::vector<monitor::Sample>> histories(rigs.size());
    std::vector<Account> accounts(rigs.size());
    const bool all_are_named = eventually(
        [&] {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            const auto now = observer.look();
            bool all = true;
            for (std::size_t i = 0; i < rigs.size(); ++i) {
                histories[i].push_back(now[i]);
                accounts[i] = monitor::judge(histories[i]);
                all = names(accounts[i], faults[i].cause) && all;
            }
            return all;
        },
        std::chrono::seconds(90));
    for (std::size_t i = 0; i < rigs.size(); ++i) {
        SCOPED_TRACE(faults[i].name);
        EXPECT_TRUE(all_are_named || names(accounts[i], faults[i].cause)) << said(accounts[i]);
        for (const monitor::Finding& finding : accounts[i].causes) {
            EXPECT_TRUE(finding.cause == faults[i].cause || finding.cause == Cause::host_overload)
                << said(accounts[i]);
        }
    }

    // The first one ends while it is watched.
    rigs.front().engine.stop();
    EXPECT_TRUE(eventually([&] {
        histories[0].push_back(observer.look()[0]);
        return names(monitor::judge(histories[0]), Cause::engine_ended);
    }));
}

}  // namespace
}  // namespace tavistro::test
