// Every field of the statistics block, for whatever treats them alike: JSON, CSV, Prometheus.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "tavistro/stats_block.h"

namespace tavistro::monitor {

enum class FieldType { u32, i32, u64, histogram };
enum class FieldKind { gauge, counter };

/// One field; `name` is its name in the block.
struct Field {
    std::string_view name;
    std::size_t offset;
    FieldType type;
    FieldKind kind;
    std::string_view help;
};

using Histogram = std::array<std::uint32_t, TAVISTRO_STATS_HISTOGRAM_BUCKETS>;
inline constexpr Histogram histogram_bounds_us = TAVISTRO_STATS_HISTOGRAM_BOUNDS_US;

/// In the order of the block, without magic, layout version and reserved.
std::span<const Field> fields();

/// The value of a field that is no histogram.
std::int64_t number(const tavistro_stats_block& block, const Field& field);
void set_number(tavistro_stats_block& block, const Field& field, std::int64_t value);
Histogram histogram(const tavistro_stats_block& block, const Field& field);
void set_histogram(tavistro_stats_block& block, const Field& field, const Histogram& values);

}  // namespace tavistro::monitor
