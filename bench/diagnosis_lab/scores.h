// Runs the diagnosis on the whole catalogue and reports in Markdown how often it is correct.
#pragma once

#include <cstdint>
#include <ostream>
#include <span>
#include <vector>

#include "bench/diagnosis_lab/verdict.h"

namespace tavistro::diagnosis_lab {

inline constexpr std::uint64_t first_held_out_seed = 202;

struct ScoreOptions {
    std::uint64_t seeds = 5;  ///< per entry
    /// Even seeds, which are not used for tuning, instead of odd ones. After a rule has been
    /// corrected because of held-out seeds, raise first_held_out_seed above them.
    bool held_out = false;
    unsigned jobs = 1;  ///< number of parallel simulations
};

/// One verdict per world, in the order of `all`. Worlds last 0.5 to 10 minutes.
std::vector<Verdict> diagnose_all(std::span<const Entry> all, const ScoreOptions& options);

/// Writes the page. False when the diagnosis does not reach its limits or a world's counts are
/// wrong.
bool write_scores(std::ostream& out, std::span<const Verdict> verdicts);

}  // namespace tavistro::diagnosis_lab
