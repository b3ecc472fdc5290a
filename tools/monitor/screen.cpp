#include "tools/monitor/screen.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <ostream>
#include <utility>

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

Screen::Screen(std::ostream& out, bool redraws, std::string heading)
    : out_(out), redraws_(redraws), heading_(std::move(heading)) {
    if (redraws_) out_ << "\x1b[?1049h\x1b[?25l";  // a screen of its own, no cursor
}

Screen::~Screen() {
    if (redraws_) out_ << "\x1b[?25h\x1b[?1049l" << std::flush;
}

void Screen::show(const std::vector<Sample>& samples) {
    if (samples.empty() && !redraws_) return;
    const TerminalSize size = redraws_ ? terminal_size() : TerminalSize{full_width, 0};
    // From the most to the least: all; without histograms; what is said, with the most important
    // numbers; those numbers.
    enum : std::size_t { everything, without_histograms, said, numbers, amounts };
    std::array<std::vector<std::string>, amounts> pictures;
    const auto add = [&](std::size_t first, std::size_t last,
                         const std::vector<std::string>& lines) {
        for (std::size_t i = first; i <= last; ++i)
            std::ranges::copy(lines, std::back_inserter(pictures.at(i)));
    };
    if (samples.empty()) add(everything, numbers, {fmt::format("{}; waiting", no_engine_text), ""});
    for (const Sample& sample : samples) {
        auto& history = histories_[sample.client_id];
        remember(history, sample);
        add(everything, without_histograms, view(history, size.columns));
        add(everything, everything, histogram_view(sample, size.columns));
        add(said, numbers, {short_view(sample, size.columns)});
        add(everything, said, account_view(judge(history), size.columns));
        add(everything, without_histograms, {""});
    }
    if (!redraws_) {
        out_ << fmt::format("{}\n", fmt::join(pictures[everything], "\n")) << std::flush;
        return;
    }
    const std::size_t rows = size.rows - (heading_.empty() ? 0 : 1);
    const auto fits = [&](std::size_t i) {
        return pictures.at(i).size() + (i > everything) <= rows;
    };
    std::size_t shown = everything;
    while (shown < numbers && !fits(shown))
        ++shown;
    std::vector<std::string>& lines = pictures.at(shown);
    if (shown > everything) lines.emplace_back("a taller window shows more");
    lines.resize(std::min(lines.size(), rows));
    if (lines.size() < rows) lines.emplace_back("Ctrl-C ends");
    if (!heading_.empty()) lines.insert(lines.begin(), heading_.substr(0, size.columns));
    // Erases what a longer line left behind, and what a longer picture did.
    out_ << fmt::format("\x1b[H{}\x1b[K\x1b[J", fmt::join(lines, "\x1b[K\n")) << std::flush;
}

}  // namespace tavistro::monitor
