// The counts of a whole run. Those of the statistics block start anew with each start of the audio
// path: after a recovery of the device, after a change of the stream's format.
#pragma once

#include "tavistro/stats_block.h"

namespace tavistro::host {

/// Follows one run. Only what an engine published and the caller has seen can be added up.
class RunTotals {
  public:
    /// The block with the counts, and the longest way to the output, of the run so far.
    tavistro_stats_block add(const tavistro_stats_block& now);

  private:
    tavistro_stats_block before_{};  ///< totals up to the latest start of the audio path
    tavistro_stats_block last_{};
};

}  // namespace tavistro::host
