// The faults that a simulated world can have, and the diagnoses that are correct for each.
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

/// One fault of a world, or a harmless condition.
struct Fault {
    std::string_view name;
    /// Each of these diagnoses is correct; empty: harmless.
    std::vector<monitor::Cause> causes;
    void (*apply)(Scenario& scenario, Strength strength, Dice& dice);
    std::string_view what;  ///< describes the three strengths

    bool is_harmless() const noexcept { return causes.empty(); }
};

/// All faults, the harmless ones first.
std::span<const Fault> faults();

/// One world without its seed and length.
struct Entry {
    std::vector<const Fault*> faults;  ///< one fault, or two of different kinds
    Strength strength = Strength::middle;
    bool busy = false;

    std::string name() const;  ///< "loss", "loss+jitter"
    bool is_single() const noexcept { return faults.size() == 1; }
    bool is_harmless() const noexcept;
    /// The causes that are correct diagnoses.
    std::vector<monitor::Cause> causes() const;
};

/// Single faults in every strength, harmless ones in one strength, pairs in middle strength; each
/// on an idle and on a busy computer.
std::vector<Entry> entries();
/// The entry with this name(); nothing for an unknown name.
std::optional<Entry> find_entry(std::string_view name);

/// A longer world begins exactly like a shorter one with the same seed.
Scenario scenario_of(const Entry& entry, std::uint64_t seed, double seconds);

/// An identifier such as "network_loss".
std::string_view cause_name(monitor::Cause cause);

}  // namespace tavistro::diagnosis_lab
