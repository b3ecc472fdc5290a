// Report on one world: its settings, the true event counts and the diagnosis.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "bench/diagnosis_lab/catalogue.h"

namespace tavistro::diagnosis_lab {

struct RunOptions {
    std::string name;
    Strength strength = Strength::middle;
    bool busy = false;
    std::uint64_t seed = 1;
    double seconds = 120;
    bool fields = false;  ///< also print one line per sample
    bool json = false;
};

/// Runs the world. False, with a reason on `errors`, for an unknown name or if the counts of the
/// world and of the engine differ.
bool run_world(const RunOptions& options, std::ostream& out, std::ostream& errors);

/// The command line that repeats the world.
std::string command_of(const Entry& entry, std::uint64_t seed, double seconds);

}  // namespace tavistro::diagnosis_lab
