// The faults that worlds are made with, and what may be said of them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bench/diagnosis_lab/scenario.h"
#include "tools/monitor/account.h"

namespace tavistro::diagnosis_lab {

enum class Strength { weak, middle, strong };
inline constexpr std::array<std::string_view, 3> strength_names{"weak", "middle", "strong"};

/// One fault that a world can be given, or something harmless.
struct Fault {
    std::string_view name;
    /// That any of these is named for it is right; empty: harmless.
    std::vector<monitor::Cause> causes;
    void (*apply)(Scenario& scenario, Strength strength, Dice& dice);
    std::string_view what;  ///< the three strengths, in words

    bool is_harmless() const noexcept { return causes.empty(); }
};

/// Every fault, the harmless ones first.
std::span<const Fault> faults();

/// One world but for its seed and length.
struct Entry {
    std::vector<const Fault*> faults;  ///< one, or two of different kinds
    Strength strength = Strength::middle;
    bool busy = false;

    std::string name() const;  ///< "loss", "loss+jitter"
    bool is_single() const noexcept { return faults.size() == 1; }
    bool is_harmless() const noexcept;
    /// The causes that count as true.
    std::vector<monitor::Cause> causes() const;
};

/// Singles in every strength, harmless ones once, pairs in the middle one; all of them on a quiet
/// and on a busy computer.
std::vector<Entry> entries();
/// The entry's faults from its name(); nothing for a name that is none.
std::optional<Entry> find_entry(std::string_view name);

/// A longer world begins like a shorter one.
Scenario scenario_of(const Entry& entry, std::uint64_t seed, double seconds);

/// An identifier such as "network_loss".
std::string_view cause_name(monitor::Cause cause);

}  // namespace tavistro::diagnosis_lab
