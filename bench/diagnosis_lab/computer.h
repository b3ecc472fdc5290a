// Simulates when the threads of a computer are scheduled.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "bench/diagnosis_lab/dice.h"

namespace tavistro::diagnosis_lab {

enum class Thread { receive, device, periodic, monitor };
inline constexpr std::size_t thread_count = 4;

/// How often and for how long other work preempts a thread. Zeros: never.
struct ThreadLoad {
    double pauses_per_s = 0;
    double mean_pause_ms = 0;
};
using Load = std::array<ThreadLoad, thread_count>;

/// All times are nanoseconds of the virtual clock.
class Computer {
  public:
    /// Pauses begin between the two times. A longer range begins exactly like a shorter one.
    Computer(const Load& load, std::int64_t from, std::int64_t until, std::uint64_t seed);

    /// Wake-up latency of the thread, without pauses.
    std::int64_t draw_lateness(Thread thread);
    /// When a thread that is ready at `time` runs: at `time`, or at the end of a pause that
    /// contains it.
    std::int64_t runs_at(Thread thread, std::int64_t time) const;
    /// When work that begins at `time` ends, pauses included.
    std::int64_t done_at(Thread thread, std::int64_t time, std::int64_t work) const;

  private:
    struct Pause {
        std::int64_t from;
        std::int64_t until;
    };
    struct Timetable {
        std::vector<Pause> pauses;     ///< sorted, without overlaps
        mutable std::size_t next = 0;  ///< result of the previous search
        /// The first pause that ends after `time`.
        std::size_t first_after(std::int64_t time) const;
    };

    const Timetable& of(Thread thread) const { return threads_[static_cast<std::size_t>(thread)]; }

    std::array<Timetable, thread_count> threads_;
    std::vector<Dice> lateness_dice_;
};

}  // namespace tavistro::diagnosis_lab
