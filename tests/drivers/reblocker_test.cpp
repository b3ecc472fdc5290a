// A host that returns its input, with frames numbered 1, 2, 3, ... as input.

#include "drivers/base/reblocker.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace tavistro::drivers {
namespace {

class Echo {
  public:
    explicit Echo(std::size_t block) : block_(block), half_{Frames(block), Frames(block)} {
        blocks_.start(block);
    }

    /// Checks what follows from the frames of this period and the delay alone.
    void run(std::size_t frames) {
        period_.assign(frames, -1);
        reads_ = writes_ = 0;
        const bool interrupted = blocks_.run_period(frames, *this);
        ASSERT_EQ(reads_, frames);
        ASSERT_EQ(writes_, frames);
        const auto delay = static_cast<long>(reblocking_delay(frames, block_));
        if (interrupted) {
            ++interruptions;
            settled_ = begin_ + delay;
        }
        for (const long heard : period_) {
            const long now = begin_++;
            const long due = std::max(0L, now - delay + 1);
            if (now >= settled_) {
                ASSERT_EQ(heard, due) << frames << " frames, block " << block_;
            } else if (heard != 0) {
                ASSERT_GT(heard, last_) << "after a new period";
            }
            if (heard != 0) last_ = heard;
        }
    }

    void read_inputs(std::size_t block_at, std::size_t period_at, std::size_t count) {
        ASSERT_EQ(period_at, reads_);
        for (std::size_t i = 0; i < count; ++i)
            half_[next_].at(block_at + i) = begin_ + static_cast<long>(reads_++) + 1;
    }
    void run_block(std::size_t period_at) {
        ASSERT_EQ(period_at, reads_);
        next_ = 1 - next_;
        ++blocks;
    }
    void write_outputs(std::size_t block_at, std::size_t period_at, std::size_t count) {
        ASSERT_EQ(period_at, writes_);
        for (std::size_t i = 0; i < count; ++i)
            period_.at(writes_++) = half_[1 - next_].at(block_at + i);
    }
    void write_silence(std::size_t period_at, std::size_t count) {
        ASSERT_EQ(period_at, writes_);
        for (std::size_t i = 0; i < count; ++i)
            period_.at(writes_++) = 0;
    }

    int interruptions = 0;
    std::size_t blocks = 0;

  private:
    using Frames = std::vector<long>;

    const std::size_t block_;
    Reblocker blocks_;
    Frames half_[2];
    std::size_t next_ = 0;  ///< half that is being filled
    Frames period_;
    std::size_t reads_ = 0, writes_ = 0;
    long begin_ = 0;    ///< frames before this period
    long settled_ = 0;  ///< frames before the delay holds again
    long last_ = 0;     ///< frame heard last
};

constexpr std::size_t lengths[] = {1, 2, 16, 37, 64, 96, 100, 128, 240, 256, 441, 480, 1024};

TEST(Reblocker, DelaysByTheLeastThatAnyPeriodAndBlockNeed) {
    for (const std::size_t block : lengths) {
        for (const std::size_t period : lengths) {
            std::size_t most_without_block = 0;  // at the end of a period
            for (std::size_t n = 1; n <= block; ++n)
                most_without_block = std::max(most_without_block, n * period % block);
            EXPECT_EQ(reblocking_delay(period, block), most_without_block);
            Echo echo(block);
            for (std::size_t n = 1;
                 n <= 40 + 2 * block / period && !testing::Test::HasFatalFailure(); ++n) {
                echo.run(period);
                ASSERT_EQ(echo.blocks, n * period / block);
            }
            EXPECT_EQ(echo.interruptions, 0);
        }
    }
}

TEST(Reblocker, FollowsEveryChangeOfThePeriodWithOneGapAtMost) {
    std::mt19937 random(1);
    const auto any = [&] { return lengths[random() % std::size(lengths)]; };
    for (int run = 0; run < 200 && !HasFatalFailure(); ++run) {
        Echo echo(any());
        for (int change = 1; change <= 30; ++change) {
            const std::size_t period = any();
            for (auto periods = 1 + random() % 20; periods > 0; --periods)
                echo.run(period);
            ASSERT_LT(echo.interruptions, change);
        }
    }
}

TEST(Reblocker, PlaysOnWithoutAGapWhereTheDelayStays) {
    Echo echo(64);
    for (const std::size_t period : {64U, 256U, 128U, 64U, 1024U})
        echo.run(period);
    EXPECT_EQ(echo.interruptions, 0);
    echo.run(32);
    echo.run(32);
    EXPECT_EQ(echo.interruptions, 1) << "32 frames of silence";
    echo.run(32);
    echo.run(96);
    EXPECT_EQ(echo.interruptions, 1) << "the same delay";
}

}  // namespace
}  // namespace tavistro::drivers
