// Texts for the codes that an engine reports.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tavistro/engine.h"

namespace tavistro::readings {

struct CodeText {
    std::int64_t code;
    std::string_view text;
};
/// Returns `otherwise` for a code that is not in the table.
std::string_view text_of(std::span<const CodeText> table, std::int64_t code,
                         std::string_view otherwise = "unknown");

/// These return "unknown" for an unknown code.
std::string_view state_text(std::uint32_t state);
std::string_view level_text(std::uint32_t level);
std::string_view category_text(std::uint32_t category);
std::string_view event_kind_text(std::uint32_t kind);
std::string_view error_text(std::uint32_t error);
/// For status_message, error_detail and the message of events.
std::string_view message_text(std::uint32_t message);

/// Why the run failed and what to check, in whole sentences. `config_path`: the file that the run
/// was started with.
std::string failure_text(const tavistro_engine_state& state, std::string_view config_path);

}  // namespace tavistro::readings
