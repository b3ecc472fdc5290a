// Real engines with real faults, watched as the monitor does. Which cause is named for which fault
// is diagnosis_test.cpp's; here the observer, the block and the engine are the real ones.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "scenarios/rig.h"
#include "tools/monitor/account.h"
#include "tools/monitor/observer.h"

namespace tavistro::test {
namespace {

using monitor::Account;
using monitor::Cause;

bool names(const Account& account, Cause cause) {
    return std::ranges::find(account.causes, cause, &monitor::Finding::cause) !=
           account.causes.end();
}

// Side by side. On a busy machine a stall of the device may stay unproven: its periods are missed
// all the same.
TEST(Explain, NamesTheFaultsOfEnginesAndNoOthersAndTheirEnd) {
    Rig lossy({.seed = 7});
    Rig stalling({.seed = 7},
                 "loopback_callback_stall_every_ms = 1500\n"
                 "loopback_callback_stall_duration_ms = 600\n");
    ASSERT_TRUE(eventually([&] { return lossy.engine.runs() && stalling.engine.runs(); }));
    lossy.server.set_faults({.drop_percent = 5});
    monitor::Observer observer({lossy.config.client_id(), stalling.config.client_id()});
    constexpr std::int64_t stall_periods = 200;  // and some more, of 2.7 ms each
    constexpr Cause causes[] = {Cause::network_loss, Cause::device_stall};
    std::vector<monitor::Sample> histories[2];
    Account accounts[2];
    EXPECT_TRUE(eventually(
        [&] {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            const auto now = observer.look();
            for (std::size_t i = 0; i < 2; ++i) {
                histories[i].push_back(now[i]);
                accounts[i] = monitor::judge(histories[i]);
            }
            return names(accounts[0], causes[0]) &&
                   histories[1].back().totals.periods_short.count > 5 * stall_periods;
        },
        std::chrono::seconds(90)));
    for (std::size_t i = 0; i < 2; ++i) {
        for (const monitor::Finding& finding : accounts[i].causes)
            EXPECT_TRUE(finding.cause == causes[i] || finding.cause == Cause::host_overload)
                << testing::PrintToString(monitor::account_lines(accounts[i]));
    }
    lossy.engine.stop();
    EXPECT_TRUE(eventually([&] {
        histories[0].push_back(observer.look()[0]);
        return names(monitor::judge(histories[0]), Cause::engine_ended);
    }));
}

}  // namespace
}  // namespace tavistro::test
