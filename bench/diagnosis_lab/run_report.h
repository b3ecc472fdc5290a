// One world on paper: what it was, what truly happened, what is said of it.
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
    bool fields = false;  ///< a line for each sample as well
    bool json = false;
};

/// Runs the world. False, with a reason on `errors`, for an unknown name or a world whose counts
/// are not the engine's.
bool run_world(const RunOptions& options, std::ostream& out, std::ostream& errors);

/// What runs the world again.
std::string command_of(const Entry& entry, std::uint64_t seed, double seconds);

}  // namespace tavistro::diagnosis_lab
