#include "tools/monitor/screen.h"

#include <algorithm>
#include <ostream>

#include "tools/monitor/terminal.h"
#include "tools/monitor/view.h"

namespace tavistro::monitor {

namespace {

/// The newest always; of those before it one a second is enough to judge by.
void remember(std::vector<Sample>& history, const Sample& sample) {
    constexpr double spacing_s = 0.9;
    constexpr double kept_s = 120;
    const std::size_t count = history.size();
    if (count > 1 && seconds_between(history[count - 2], history.back()) < spacing_s &&
        history.back().totals.run == sample.totals.run) {
        history.back() = sample;
    } else {
        history.push_back(sample);
    }
    while (history.size() > 2 && seconds_between(history[1], history.back()) >= kept_s)
        history.erase(history.begin());
}

}  // namespace

Screen::Screen(std::ostream& out, bool redraws) : out_(out), redraws_(redraws) {
    if (redraws_) out_ << "\x1b[?1049h\x1b[?25l";  // a screen of its own, no cursor
}

Screen::~Screen() {
    if (redraws_) out_ << "\x1b[?25h\x1b[?1049l" << std::flush;
}

void Screen::show(const std::vector<Sample>& samples) {
    const TerminalSize size = redraws_ ? terminal_size() : TerminalSize{full_width, 0};
    std::vector<std::string> all;         // everything
    std::vector<std::string> told;        // what is said, with the most important numbers
    std::vector<std::string> short_ones;  // those numbers
    const auto append = [](std::vector<std::string>& lines, const std::vector<std::string>& more) {
        lines.insert(lines.end(), more.begin(), more.end());
    };
    for (const Sample& sample : samples) {
        auto& history = histories_[sample.client_id];
        remember(history, sample);
        const auto account = account_view(judge(history), size.columns);
        append(all, view(history, size.columns));
        append(all, account);
        all.emplace_back();
        short_ones.push_back(short_view(sample, size.columns));
        told.push_back(short_ones.back());
        append(told, account);
    }
    if (redraws_ && all.size() > size.rows) {
        all = told.size() < size.rows ? std::move(told) : std::move(short_ones);
        all.emplace_back("a higher window shows more");
        all.resize(std::min(all.size(), size.rows));
    }
    if (redraws_ && all.size() < size.rows) all.emplace_back("Ctrl-C ends");
    put(all);
}

void Screen::put(const std::vector<std::string>& lines) {
    std::string text = redraws_ ? "\x1b[H" : "";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        text += lines[i];
        if (redraws_) text += "\x1b[K";  // what a longer line left behind
        if (!redraws_ || i + 1 < lines.size()) text += '\n';
    }
    if (redraws_) text += "\x1b[J";
    out_ << text << std::flush;
}

}  // namespace tavistro::monitor
