// One world, diagnosed and compared with its truth.
#pragma once

#include <bit>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/diagnosis_lab/catalogue.h"

namespace tavistro::diagnosis_lab {

/// A set of causes, a bit for each.
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

/// Which world: what it takes to run it again.
struct Job {
    const Entry* entry = nullptr;
    std::uint64_t seed = 0;
    double seconds = 0;
};

/// One kind of event, as the monitor added it up and as it has to be.
struct Told {
    std::string_view what;
    std::int64_t told;
    std::int64_t least;  ///< what must have been seen by the last sample
    std::int64_t most;   ///< what can have been
    bool right() const;
};

struct Verdict {
    Job job{};
    Causes put_in{};
    Causes named{};        ///< judged by all samples
    Causes named_early{};  ///< judged by the first two minutes
    bool not_clear_yet = false;
    /// A fault can be heard once a minute or more often in the first two minutes.
    bool audible_early = false;

    std::vector<Told> told;  ///< each count of the totals
    bool clock_compared = false;
    double clock_error_ppm = 0;
    double clock_uncertainty_ppm = 0;
    std::string disagreement;  ///< of the world itself with its engine

    Causes wrong() const { return named.without(put_in); }
    bool clock_right() const;
    bool counts_right() const;
};

Verdict diagnose_world(const Job& job);

}  // namespace tavistro::diagnosis_lab
