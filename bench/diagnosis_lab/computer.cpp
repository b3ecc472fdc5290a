#include "bench/diagnosis_lab/computer.h"

#include <algorithm>

namespace tavistro::diagnosis_lab {

namespace {

constexpr double shared_pause_chance = 1.0 / 3;
constexpr double late_wake_chance = 1.0 / 500;
constexpr double mostly_late_ns = 100'000;
constexpr double rarely_late_ns = 500'000;

}  // namespace

Computer::Computer(const Load& load, std::int64_t from, std::int64_t until, std::uint64_t seed) {
    for (std::size_t source = 0; source < thread_count; ++source) {
        lateness_dice_.emplace_back(seed, 10 + source);
        if (load[source].pauses_per_s <= 0) continue;
        Dice dice(seed, 20 + source);
        auto time = static_cast<double>(from);
        for (;;) {
            time += dice.exponential(1e9 / load[source].pauses_per_s);
            const double length = dice.exponential(load[source].mean_pause_ms * 1e6);
            const bool shared = dice.chance(shared_pause_chance);
            if (time >= static_cast<double>(until)) break;
            const Pause pause{static_cast<std::int64_t>(time),
                              static_cast<std::int64_t>(time + length)};
            for (std::size_t thread = 0; thread < thread_count; ++thread) {
                if (shared || thread == source) threads_[thread].pauses.push_back(pause);
            }
        }
    }
    for (Timetable& thread : threads_) {
        std::ranges::sort(thread.pauses, {}, &Pause::from);
        std::vector<Pause> apart;
        for (const Pause& pause : thread.pauses) {
            if (apart.empty() || apart.back().until < pause.from)
                apart.push_back(pause);
            else
                apart.back().until = std::max(apart.back().until, pause.until);
        }
        thread.pauses = std::move(apart);
    }
}

std::int64_t Computer::draw_lateness(Thread thread) {
    Dice& dice = lateness_dice_[static_cast<std::size_t>(thread)];
    const double most = dice.chance(late_wake_chance) ? rarely_late_ns : mostly_late_ns;
    return static_cast<std::int64_t>(dice.between(0, most));
}

std::size_t Computer::Timetable::first_after(std::int64_t time) const {
    while (next > 0 && pauses[next - 1].until > time)
        --next;
    while (next < pauses.size() && pauses[next].until <= time)
        ++next;
    return next;
}

std::int64_t Computer::runs_at(Thread thread, std::int64_t time) const {
    const Timetable& table = of(thread);
    const std::size_t i = table.first_after(time);
    return i < table.pauses.size() && table.pauses[i].from <= time ? table.pauses[i].until : time;
}

std::int64_t Computer::done_at(Thread thread, std::int64_t time, std::int64_t work) const {
    const Timetable& table = of(thread);
    std::int64_t end = time + work;
    for (std::size_t i = table.first_after(time);
         i < table.pauses.size() && table.pauses[i].from < end; ++i)
        end += table.pauses[i].until - std::max(time, table.pauses[i].from);
    return end;
}

}  // namespace tavistro::diagnosis_lab
