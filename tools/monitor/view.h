// What a terminal shows of one engine.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "tools/monitor/account.h"
#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// Narrower terminals get lines that are cut.
inline constexpr std::size_t full_width = 80;

/// When every engine of this computer is watched and none has been seen.
inline constexpr const char* no_engine_text = "no engine runs on this computer";

/// The numbers, with their units. Lines of at most `width` columns, plain ASCII. `history` is of
/// one client, newest last, not empty; differences are taken to the sample before the newest.
std::vector<std::string> view(std::span<const Sample> history, std::size_t width);

/// How round trips and sync notices are distributed; nothing without a block.
std::vector<std::string> histogram_view(const Sample& sample, std::size_t width);

/// What is said of them: tell() without what the first line of view() says, and without a word
/// that it is too early; broken to the width.
std::vector<std::string> account_view(Account account, std::size_t width);

/// One line per client, for terminals that are too low for more.
std::string short_view(const Sample& sample, std::size_t width);

}  // namespace tavistro::monitor
