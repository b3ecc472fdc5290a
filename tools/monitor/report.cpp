#include <ostream>
#include <stdexcept>

#include "tools/monitor/formats.h"
#include "tools/monitor/recording.h"
#include "tools/monitor/tasks.h"

namespace tavistro::monitor {

int write_report(const Options& options, std::ostream& out) {
    const std::vector<Sample> samples = recording_at(options.recording_path, {});
    const std::string path =
        options.output_path.empty() ? options.recording_path + ".html" : options.output_path;
    std::ofstream file = open_for_writing(path);
    file << report_page(samples);
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
    out << "wrote " << path << '\n';
    return 0;
}

}  // namespace tavistro::monitor
