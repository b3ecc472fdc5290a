// Allocations, locks and sleeps per block in a running stream.
#include <gtest/gtest.h>

#include "bench/block_cost/block_rig.h"
#include "support/realtime_guard.h"

namespace tavistro::test {
namespace {

template <typename Work>
RealtimeViolations cost_of(Work work) {
    reset_realtime_violations();
    const RealtimeScope scope;
    work();
    return realtime_violations();
}

TEST(SteadyState, BlocksAllocateNothingAndPeriodsLockNothing) {
    const std::pair<std::uint16_t, std::size_t> cases[] = {{2, 1}, {32, 16}};
    for (const auto& [channels, fragments] : cases) {
        SCOPED_TRACE(channels);
        BlockRig rig(channels);
        for (int block = 0; block < 800; ++block) {  // two seconds, including reports
            rig.next_block();
            const std::size_t sent_before = rig.datagrams_sent();
            const RealtimeViolations receiving = cost_of([&] { rig.receive(block % 10 == 9); });
            ASSERT_EQ(rig.datagrams_sent() - sent_before, fragments) << "captured input";
            ASSERT_EQ(receiving.allocations + receiving.sleeps, 0U) << block;
            ASSERT_LE(receiving.locks, 11 + fragments) << "including 2 for silence";
            ASSERT_EQ(cost_of([&] { rig.run_period(); }).total(), 0U) << block;
        }
    }
}

}  // namespace
}  // namespace tavistro::test
