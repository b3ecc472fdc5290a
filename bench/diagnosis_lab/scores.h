// The whole catalogue, diagnosed: how often what is said is right, as a page of Markdown.
#pragma once

#include <cstdint>
#include <ostream>
#include <span>
#include <vector>

#include "bench/diagnosis_lab/verdict.h"

namespace tavistro::diagnosis_lab {

inline constexpr std::uint64_t first_held_out_seed = 202;

struct ScoreOptions {
    std::uint64_t seeds = 5;  ///< of each entry
    /// Even seeds, which nobody tunes by; or odd ones. Once a rule is mended for what they show,
    /// they are none any more, and the first of them moves on.
    bool held_out = false;
    unsigned jobs = 1;  ///< worlds at once
};

/// A verdict on every world, in the order of `all`, with lengths from half a minute to ten.
std::vector<Verdict> diagnose_all(std::span<const Entry> all, const ScoreOptions& options);

/// Writes the page. False when the diagnosis, or a world, is not good enough.
bool write_scores(std::ostream& out, std::span<const Verdict> verdicts);

}  // namespace tavistro::diagnosis_lab
