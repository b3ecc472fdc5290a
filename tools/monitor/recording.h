// Readings in a file.
//
// A recording is a gzip stream of lines, so that a day of one engine takes a few megabytes:
//
//     tavistro recording 1, tavistro-monitor 5.0.0 (e6f8abf)
//     client_id,time_ms,presence,host_late_us,state,...
//     7,1764158203000,1,412,3,,7,48000,...
//     7,1000,,-390,,,,,...
//
// The second line names the columns. A line is a reading of one engine: client_id, then each whole
// number as the difference to the engine's line before, and each real number itself. What did not
// change is empty.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/monitor/sample.h"
#include "tools/readings/fields.h"

struct gzFile_s;

namespace tavistro::monitor {

/// The numbers of a sample but its client_id, in the order of the columns.
using RecordedRow = std::vector<readings::Number>;

/// Writes a recording. What was added more than ten seconds before is in the file, whatever ends
/// the process.
class RecordingWriter {
  public:
    /// Throws std::runtime_error when the file exists or cannot be written.
    explicit RecordingWriter(const std::string& path);
    /// Throws std::runtime_error when the file cannot be written.
    void add(const Sample& sample);
    /// Completes the file; nothing is added then. Throws as add() does.
    void close();

  private:
    struct Close {
        void operator()(gzFile_s* file) const;
    };
    void write(const std::string& line);
    [[noreturn]] void fail() const;

    std::string path_;
    std::unique_ptr<gzFile_s, Close> file_;
    std::map<std::uint32_t, RecordedRow> last_;  ///< by client_id
    std::int64_t flushed_ms_ = 0;
};

/// The samples of a recording, or of a file of to_json() lines, exactly as they were. A last line
/// without an end was cut off with its recorder, and is left out. Throws std::runtime_error that
/// names the file, and the line that is none.
std::vector<Sample> read_recording(const std::string& path);

}  // namespace tavistro::monitor
