// Processor time of this process.
#pragma once

namespace tavistro::host {

/// Seconds that all threads of the process have spent on processors so far, in user and system
/// mode together.
double process_cpu_seconds();

}  // namespace tavistro::host
