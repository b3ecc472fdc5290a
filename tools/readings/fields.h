// Every field that an engine reports: the one name and unit that it has wherever a tool shows it,
// be it in JSON, in a table or as a metric.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

#include "tavistro/stats_block.h"

namespace tavistro::readings {

enum class FieldType { u32, i32, u64, i64, real, histogram };
enum class FieldKind { gauge, counter };

/// One field of a record; `name` is its name there, with the unit at its end where it has one.
struct Field {
    std::string_view name;
    std::size_t offset;
    FieldType type;
    FieldKind kind = FieldKind::gauge;
    std::string_view help = {};
    std::string_view (*text)(std::uint32_t code) = nullptr;  ///< of a field that holds a code
};

/// Each in the order of its record, without what describes the record itself.
std::span<const Field> stats_fields();  ///< of tavistro_stats_block
std::span<const Field> state_fields();  ///< of tavistro_engine_state, without events and meters
std::span<const Field> event_fields();  ///< of tavistro_engine_event
std::span<const Field> meter_fields();  ///< of tavistro_channel_meter

using Histogram = std::array<std::uint32_t, TAVISTRO_STATS_HISTOGRAM_BUCKETS>;
inline constexpr Histogram histogram_bounds_us = TAVISTRO_STATS_HISTOGRAM_BOUNDS_US;

using Number = std::variant<std::int64_t, double>;  ///< a double for FieldType::real alone

/// The value of a field that is no histogram. `record` is the one that the field belongs to.
Number number(const void* record, const Field& field);
/// `value` is of the field's type.
void set_number(void* record, const Field& field, Number value);
Histogram histogram(const void* record, const Field& field);
void set_histogram(void* record, const Field& field, const Histogram& counts);

}  // namespace tavistro::readings
