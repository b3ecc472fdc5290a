// Every field that an engine reports, with the name and unit that all tools use for it in JSON,
// tables and metrics.
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

/// One field of a record. `name` is its name in the record; it ends with the unit, if there is one.
struct Field {
    std::string_view name;
    std::size_t offset;
    FieldType type;
    FieldKind kind = FieldKind::gauge;
    std::string_view (*text)(std::uint32_t code) =
        nullptr;  ///< text of a code; null for other fields
};

/// In the order of the record, without the fields that describe the record itself.
std::span<const Field> stats_fields();  ///< of tavistro_stats_block
std::span<const Field> state_fields();  ///< of tavistro_engine_state, without events and meters
std::span<const Field> event_fields();  ///< of tavistro_engine_event
std::span<const Field> meter_fields();  ///< of tavistro_channel_meter

using Histogram = std::array<std::uint32_t, TAVISTRO_STATS_HISTOGRAM_BUCKETS>;
inline constexpr Histogram histogram_bounds_us = TAVISTRO_STATS_HISTOGRAM_BOUNDS_US;

using Number = std::variant<std::int64_t, double>;  ///< double for FieldType::real only

/// The value of a field that is not a histogram. `record` is of the type that the field belongs to.
Number number(const void* record, const Field& field);
/// `value` must have the field's type.
void set_number(void* record, const Field& field, Number value);
Histogram histogram(const void* record, const Field& field);
void set_histogram(void* record, const Field& field, const Histogram& counts);

}  // namespace tavistro::readings
