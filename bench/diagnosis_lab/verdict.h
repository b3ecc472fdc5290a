// Diagnoses one world and compares the result with the true causes and counts.
#pragma once

#include <bit>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/diagnosis_lab/catalogue.h"

namespace tavistro::diagnosis_lab {

/// A set of causes, one bit each.
class Causes {
  public:
    void add(monitor::Cause cause) { bits_ |= bit(cause); }
    bool has(monitor::Cause cause) const { return (bits_ & bit(cause)) != 0; }
    bool empty() const { return bits_ == 0; }
    Causes without(Causes others) const { return Causes(bits_ & ~others.bits_); }
    bool meets(Causes others) const { return (bits_ & others.bits_) != 0; }
    int count() const { return std::popcount(bits_); }
    Causes() = default;

  private:
    explicit Causes(unsigned bits) : bits_(bits) {}
    static unsigned bit(monitor::Cause cause) { return 1U << static_cast<unsigned>(cause); }
    unsigned bits_ = 0;
};

/// Identifies a world, so that it can be run again.
struct Job {
    const Entry* entry = nullptr;
    std::uint64_t seed = 0;
    double seconds = 0;
};

/// The monitor's count of one kind of event and its correct range.
struct Told {
    std::string_view what;
    std::int64_t told;
    std::int64_t least;  ///< events that the last sample must include
    std::int64_t most;   ///< events that the last sample can include
    bool right() const;
};

struct Verdict {
    Job job{};
    Causes put_in{};
    Causes named{};        ///< diagnosed from all samples
    Causes named_early{};  ///< diagnosed from the first two minutes
    bool not_clear_yet = false;
    /// In the first two minutes, a fault is audible at least once per minute.
    bool audible_early = false;

    std::vector<Told> told;  ///< one per event count
    bool clock_compared = false;
    double clock_error_ppm = 0;
    double clock_uncertainty_ppm = 0;
    std::string disagreement;  ///< differences between the world's and the engine's counts

    Causes wrong() const { return named.without(put_in); }
    bool clock_right() const;
    bool counts_right() const;
};

Verdict diagnose_world(const Job& job);

}  // namespace tavistro::diagnosis_lab
