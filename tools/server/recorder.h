// Records bus channels into a WAV file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "tools/server/server_options.h"

class SndfileHandle;

namespace tavistro::server {

/// Writes 32-bit float samples; the destructor completes the file. Blocks on disk writes, so do not
/// use it on the block clock's thread.
class Recorder {
  public:
    /// Creates or replaces the file. Throws std::runtime_error with a message for the user on
    /// failure.
    Recorder(const RecordOptions& options, std::uint32_t sample_rate);
    Recorder(Recorder&&) noexcept;
    ~Recorder();

    /// Appends one block of a bus with `frames` frames per channel.
    void write(std::span<const float> bus, std::size_t frames);
    /// A message about the first failed write; empty if none failed.
    const std::string& error() const noexcept { return error_; }

  private:
    std::vector<std::uint32_t> channels_;
    std::unique_ptr<SndfileHandle> file_;
    std::vector<float> interleaved_;
    std::string error_;
};

}  // namespace tavistro::server
