#include "tools/monitor/screen.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
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
    for (const Sample& sample : samples) {
        auto& history = histories_[sample.client_id];
        remember(history, sample);
        const auto account = account_view(judge(history), size.columns);
        std::ranges::move(view(history, size.columns), std::back_inserter(all));
        std::ranges::copy(account, std::back_inserter(all));
        all.emplace_back();
        short_ones.push_back(short_view(sample, size.columns));
        told.push_back(short_ones.back());
        std::ranges::copy(account, std::back_inserter(told));
    }
    if (redraws_ && all.size() > size.rows) {
        all = told.size() < size.rows ? std::move(told) : std::move(short_ones);
        all.emplace_back("a higher window shows more");
        all.resize(std::min(all.size(), size.rows));
    }
    if (redraws_ && all.size() < size.rows) all.emplace_back("Ctrl-C ends");
    if (redraws_) {
        // Erases what a longer line left behind, and what a longer picture did.
        out_ << fmt::format("\x1b[H{}\x1b[K\x1b[J", fmt::join(all, "\x1b[K\n"));
    } else {
        out_ << fmt::format("{}\n", fmt::join(all, "\n"));
    }
    out_ << std::flush;
}

}  // namespace tavistro::monitor
