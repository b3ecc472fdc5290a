#include <algorithm>
#include <iostream>
#include <stdexcept>

#include "tools/monitor/follow.h"
#include "tools/monitor/formats.h"
#include "tools/monitor/http_server.h"
#include "tools/monitor/live_pages.h"
#include "tools/monitor/recording.h"
#include "tools/monitor/screen.h"
#include "tools/monitor/tasks.h"
#include "tools/monitor/terminal.h"

namespace tavistro::monitor {

int watch(const Options& options, std::ostream& out, const std::atomic<bool>& stop) {
    using Format = Options::Format;
    std::ofstream record;
    if (!options.record_path.empty()) record = open_recording(options.record_path);
    LivePages pages;
    std::optional<HttpServer> server;
    if (!options.http_address.empty()) {
        server.emplace(options.http_address, [&](auto target) { return pages.page(target); });
        std::cerr << "serving at port " << server->port() << ": / and /metrics\n";
    }
    std::optional<Screen> screen;
    if (options.format == Format::view)
        screen.emplace(out, !options.once && &out == &std::cout && prepare_terminal());
    if (options.format == Format::csv) out << csv_heading() << '\n';

    bool one_runs = false;
    follow(options, stop, [&](const std::vector<Sample>& samples) {
        pages.add(samples);
        if (screen) screen->show(samples);
        for (const Sample& sample : samples) {
            one_runs = one_runs || sample.presence == Presence::alive;
            if (options.format == Format::json) out << to_json(sample) << std::endl;
            if (options.format == Format::csv) out << csv_row(sample) << std::endl;
            if (record.is_open() && !(record << to_json(sample) << std::endl))
                throw std::runtime_error("cannot write " + options.record_path);
        }
        return out.good();
    });
    return options.once && !one_runs ? 1 : 0;
}

}  // namespace tavistro::monitor
