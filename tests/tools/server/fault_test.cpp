#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "tools/server/block_schedule.h"
#include "tools/server/delay_queue.h"
#include "tools/server/fault_lane.h"
#include "tools/server/skewed_clock.h"

namespace tavistro::server {
namespace {

constexpr StreamFormat format{48000, 128};
constexpr std::uint64_t block_ns = 2'666'667;

using Fates = std::vector<std::tuple<unsigned, std::uint64_t>>;

/// Copies and delay of one datagram in each of `count` blocks.
Fates fates(const FaultOptions& faults, std::uint64_t seed, std::uint64_t count = 20000) {
    FaultLane lane(seed);
    Fates result;
    for (std::uint64_t block = 0; block < count; ++block) {
        const std::uint64_t now_ns = block * block_ns;
        const Passage passage = lane.pass(faults, format, block, now_ns);
        result.emplace_back(passage.copies, passage.copies == 0 ? 0 : passage.due_ns - now_ns);
    }
    return result;
}

TEST(FaultLane, SameSeedSameFaultsInTheAskedProportion) {
    const FaultOptions faults{.drop_percent = 5, .duplicate_percent = 10, .jitter_ms = 20};
    const Fates all = fates(faults, 7);
    EXPECT_EQ(all, fates(faults, 7));
    EXPECT_NE(all, fates(faults, 8));
    for (const auto& [copies, times] : {std::pair(0U, 1000.0), {2U, 1900.0}}) {
        const auto has = [&](const auto& fate) { return std::get<0>(fate) == copies; };
        EXPECT_NEAR(static_cast<double>(std::ranges::count_if(all, has)), times, 150);
    }
    EXPECT_EQ(fates({}, 7), Fates(20000, {1U, 0U}));

    // Another fault beside it does not change which datagrams are lost.
    const Fates drops = fates({.drop_percent = 5}, 7);
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(std::get<0>(all[i]) == 0, std::get<0>(drops[i]) == 0) << i;
    }
}

TEST(FaultLane, JitterKeepsTheOrderAndReorderingBreaksIt) {
    const auto overtaken = [](const FaultOptions& faults) {
        std::uint64_t latest_ns = 0, count = 0, block = 0, longest_ns = 0;
        for (const auto& [copies, delay_ns] : fates(faults, 3)) {
            const std::uint64_t due_ns = block++ * block_ns + delay_ns;
            count += due_ns < latest_ns ? 1U : 0U;
            latest_ns = std::max(latest_ns, due_ns);
            longest_ns = std::max(longest_ns, delay_ns);
        }
        EXPECT_GT(longest_ns, faults.jitter_ms * 900'000ULL);
        EXPECT_LE(longest_ns, faults.jitter_ms * 1'000'000ULL + 2 * block_ns);
        return count;
    };
    EXPECT_EQ(overtaken({.jitter_ms = 20}), 0U);
    EXPECT_NEAR(static_cast<double>(overtaken({.reorder_percent = 5})), 1000, 100);
    EXPECT_TRUE(FaultLane(1).pass({.reorder_percent = 100}, format, 0, 0).held_back);
}

TEST(FaultLane, BurstsAndPausesComeAtTheEndOfTheirPeriod) {
    const FaultOptions faults{.burst_every_ms = 100,  // 37 blocks
                              .burst_length_blocks = 3,
                              .pause_every_ms = 1000,  // 375 blocks
                              .pause_for_ms = 40};     // 15 blocks
    const Fates all = fates(faults, 1, 750);
    for (std::uint64_t block = 0; block < 750; ++block) {
        ASSERT_EQ(std::get<0>(all[block]) == 0, block % 37 >= 34) << block;
        ASSERT_EQ(sync_is_paused(faults, format, block), block % 375 >= 360) << block;
    }
}

TEST(DelayQueue, LetsOutWhatIsDueInTheOrderItCame) {
    DelayQueue queue;
    for (const auto& [due_ns, port] : {std::pair(20, 1), {10, 2}, {20, 3}}) {
        queue.push(static_cast<std::uint64_t>(due_ns),
                   {.client = {1, static_cast<std::uint16_t>(port)}});
    }
    EXPECT_EQ(queue.next_due_ns(), 10U);
    EXPECT_EQ(queue.pop_due(19)->client.port, 2);
    EXPECT_FALSE(queue.pop_due(19));
    EXPECT_EQ(queue.pop_due(20)->client.port, 1);
    EXPECT_EQ(queue.pop_due(20)->client.port, 3);
}

TEST(BlockSchedule, KeepsItsRateForDaysAndAcrossChanges) {
    BlockSchedule schedule(format, 1'000'000'000, 0xFFFFFFFF);
    EXPECT_EQ(schedule.due_blocks(999'999'999), 0U);
    EXPECT_EQ(schedule.due_blocks(1'000'000'000), 1U);
    EXPECT_EQ(schedule.due_blocks(2'000'000'000), 376U);
    const std::uint64_t week_s = 7 * 86400;
    schedule.advance(week_s * 375);
    EXPECT_EQ(schedule.next().time_ns, (week_s + 1) * 1'000'000'000);
    EXPECT_EQ(schedule.next().sequence, static_cast<std::uint32_t>(week_s * 375 - 1));
    EXPECT_EQ(schedule.next().frame_position, week_s * 48000);

    const std::uint64_t due_ns = schedule.next().time_ns;
    schedule.change_format({44100, 441});
    const BlockStamp first = schedule.next();
    EXPECT_EQ(first.time_ns, due_ns);
    schedule.advance();
    EXPECT_EQ(schedule.next().time_ns, first.time_ns + 10'000'000);
    EXPECT_EQ(schedule.next().sequence, first.sequence + 1);
    EXPECT_EQ(sequence_of_wall_clock(8'000, format), 3000U);
}

TEST(SkewedClock, DriftsSteadilyAndConvertsBothWays) {
    constexpr std::uint64_t start_ns = 5'000'000'000;
    constexpr std::uint64_t hour_ns = 3'600'000'000'000;
    SkewedClock clock(start_ns, 250, 100);
    EXPECT_EQ(clock.to_server(start_ns), start_ns + 250'000'000);
    EXPECT_EQ(clock.to_server(start_ns + hour_ns), start_ns + 250'000'000 + hour_ns + 360'000'000);
    const std::uint64_t there_ns = clock.to_server(start_ns + hour_ns);
    EXPECT_NEAR(static_cast<double>(clock.to_local(there_ns)),
                static_cast<double>(start_ns + hour_ns), 2);
    clock.adjust(start_ns + hour_ns, 250, -50);
    EXPECT_EQ(clock.to_server(start_ns + hour_ns), there_ns);
    EXPECT_EQ(clock.to_server(start_ns + 2 * hour_ns), there_ns + hour_ns - 180'000'000);
}

}  // namespace
}  // namespace tavistro::server
