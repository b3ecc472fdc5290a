#include <ostream>

#include "tools/monitor/account.h"
#include "tools/monitor/follow.h"
#include "tools/monitor/recording.h"
#include "tools/monitor/tasks.h"
#include "tools/monitor/view.h"

namespace tavistro::monitor {

int explain(const Options& options, std::ostream& out, const std::atomic<bool>& stop) {
    std::vector<Sample> samples;
    if (!options.recording_path.empty()) {
        samples = recording_at(options.recording_path, options.client_ids);
    } else {
        follow(options, stop, [&](const std::vector<Sample>& reading) {
            samples.insert(samples.end(), reading.begin(), reading.end());
            return true;
        });
    }
    bool wrong = false;
    for (const auto& [id, account] : judge_each(samples)) {
        out << "client " << id << '\n';
        for (const std::string& line : tell(account))
            out << "  " << line << '\n';
        wrong = wrong || !account.nothing_wrong();
    }
    return wrong ? 1 : 0;
}

}  // namespace tavistro::monitor
